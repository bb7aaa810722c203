#include <algorithm>
#include <bit>
#include <cstring>

#include <fmt/format.h>

#include "simconnect/simconnect.h"

// GCC 12 at -O3 reports the variants built by makeByCode below as maybe-uninitialized inside
// std::optional, although every field has an initializer (a known false positive of its
// variant inlining); the other compilers and levels are quiet.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace orv::simconnect {

namespace {

static_assert(std::endian::native == std::endian::little, "the wire is little-endian");

// One field list, walked by a writer to encode and by a reader to decode, so the two can't
// disagree about a layout.
class Writer {
  public:
    explicit Writer(std::vector<std::uint8_t>& out) : out_(out) {}
    void u8(std::uint8_t& v) { out_.push_back(v); }
    void u32(DWORD& v) { raw(&v, 4); }
    void i32(std::int32_t& v) { raw(&v, 4); }
    void f32(float& v) { raw(&v, 4); }
    void f64(double& v) { raw(&v, 8); }
    void chars(std::array<char, 3>& a) { raw(a.data(), 3); }
    void str(std::string_view& s, std::size_t width) {
        const std::size_t n = std::min(s.size(), width - 1); // always leave the terminator
        raw(s.data(), n);
        out_.insert(out_.end(), width - n, 0);
    }
    void rest(Bytes& b) { out_.insert(out_.end(), b.begin(), b.end()); }

  private:
    void raw(const void* p, std::size_t n) {
        const auto* b = static_cast<const std::uint8_t*>(p);
        out_.insert(out_.end(), b, b + n);
    }
    std::vector<std::uint8_t>& out_;
};

class Reader {
  public:
    explicit Reader(Bytes b) : b_(b) {}
    void u8(std::uint8_t& v) { raw(&v, 1); }
    void u32(DWORD& v) { raw(&v, 4); }
    void i32(std::int32_t& v) { raw(&v, 4); }
    void f32(float& v) { raw(&v, 4); }
    void f64(double& v) { raw(&v, 8); }
    void chars(std::array<char, 3>& a) { raw(a.data(), 3); }
    void str(std::string_view& s, std::size_t width) {
        if (!take(width)) return;
        const char* p = reinterpret_cast<const char*>(b_.data() + pos_ - width);
        s = std::string_view(p, strnlen(p, width));
    }
    void rest(Bytes& b) {
        b = b_.subspan(pos_);
        pos_ = b_.size();
    }
    bool ok() const { return ok_; }
    std::size_t position() const { return pos_; }

  private:
    bool take(std::size_t n) {
        if (!ok_ || b_.size() - pos_ < n) return ok_ = false;
        pos_ += n;
        return true;
    }
    void raw(void* p, std::size_t n) {
        if (take(n)) std::memcpy(p, b_.data() + pos_ - n, n);
    }
    Bytes b_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

void putU32(std::vector<std::uint8_t>& out, std::size_t at, DWORD v) {
    std::memcpy(out.data() + at, &v, 4);
}
DWORD getU32(Bytes b, std::size_t at) {
    DWORD v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}

// Decodes the body into T; a fixed part that doesn't fill the body exactly is an error, except
// for the layouts that end in data of any length.
template <class T>
std::optional<std::string> readBody(Bytes body, T& out) {
    Reader r(body);
    out.fields(r);
    if (!r.ok()) return fmt::format("body of {} bytes is too short", body.size());
    if (r.position() != body.size()) return fmt::format("body of {} bytes is too long", body.size());
    return std::nullopt;
}

template <class Variant, std::size_t I = 0>
std::optional<Variant> makeByCode(DWORD code, bool useOpcode) {
    if constexpr (I == std::variant_size_v<Variant>) {
        return std::nullopt;
    } else {
        using T = std::variant_alternative_t<I, Variant>;
        if constexpr (requires { T::kOpcode; }) {
            if (useOpcode && T::kOpcode == code) return Variant{T{}};
        } else if constexpr (requires { T::kId; }) {
            if (!useOpcode && T::kId == code) return Variant{T{}};
        }
        return makeByCode<Variant, I + 1>(code, useOpcode);
    }
}

} // namespace

std::size_t datatypeSize(DWORD type) noexcept {
    switch (type) {
    case SIMCONNECT_DATATYPE_INT32:
    case SIMCONNECT_DATATYPE_FLOAT32:
        return 4;
    case SIMCONNECT_DATATYPE_INT64:
    case SIMCONNECT_DATATYPE_FLOAT64:
    case SIMCONNECT_DATATYPE_STRING8:
        return 8;
    case SIMCONNECT_DATATYPE_STRING32:
        return 32;
    case SIMCONNECT_DATATYPE_STRING64:
        return 64;
    case SIMCONNECT_DATATYPE_STRING128:
        return 128;
    case SIMCONNECT_DATATYPE_STRING256:
        return 256;
    case SIMCONNECT_DATATYPE_STRING260:
        return 260;
    default:
        return 0;
    }
}

std::optional<ProtocolIdentity> protocolIdentity(DWORD protocol) noexcept {
    switch (protocol) {
    case kProtocolFsx:
        return ProtocolIdentity{{'X', 'S', 'F'}, 10, 0, 61259, 0};
    case kProtocolMsfs2020:
        return ProtocolIdentity{{'H', 'K', 0}, 11, 0, 62651, 3};
    case kProtocolMsfs2024:
        return ProtocolIdentity{{'R', 'S', 0}, 12, 2, 282174, 999};
    default:
        return std::nullopt;
    }
}

std::vector<std::uint8_t> encodeClient(const ClientPacket& packet, DWORD version, DWORD sendId) {
    std::vector<std::uint8_t> out(kClientHeaderSize, 0);
    std::visit(
        [&](auto p) {
            Writer w(out);
            p.fields(w);
            putU32(out, 8, kClientTypeMark | decltype(p)::kOpcode);
        },
        packet);
    putU32(out, 0, static_cast<DWORD>(out.size()));
    putU32(out, 4, version);
    putU32(out, 12, sendId);
    return out;
}

std::vector<std::uint8_t> encodeServer(const ServerBody& body, DWORD version) {
    std::vector<std::uint8_t> out(kServerHeaderSize, 0);
    DWORD id = SIMCONNECT_RECV_ID_NULL;
    std::visit(
        [&](auto m) {
            if constexpr (!std::is_same_v<decltype(m), std::monostate>) {
                Writer w(out);
                m.fields(w);
                id = decltype(m)::kId;
                if constexpr (std::is_same_v<decltype(m), RecvSimObjectData>)
                    if (m.byType) id = SIMCONNECT_RECV_ID_SIMOBJECT_DATA_BYTYPE;
            }
        },
        body);
    putU32(out, 0, static_cast<DWORD>(out.size()));
    putU32(out, 4, version);
    putU32(out, 8, id);
    return out;
}

std::variant<DecodedClient, std::string> decodeClient(Bytes packet) {
    if (packet.size() < kClientHeaderSize)
        return fmt::format("packet of {} bytes has no header", packet.size());
    DecodedClient d;
    d.header = {getU32(packet, 0), getU32(packet, 4), getU32(packet, 8), getU32(packet, 12)};
    if (d.header.size != packet.size())
        return fmt::format("size field {} but packet of {} bytes", d.header.size, packet.size());
    if ((d.header.type & kClientTypeMark) != kClientTypeMark)
        return fmt::format("packet type {:#x} lacks the client mark", d.header.type);
    d.packet = makeByCode<ClientPacket>(d.header.opcode(), true);
    if (!d.packet) return d;
    std::optional<std::string> error;
    std::visit([&](auto& p) { error = readBody(packet.subspan(kClientHeaderSize), p); }, *d.packet);
    if (error) return fmt::format("opcode {:#x}: {}", d.header.opcode(), *error);
    return d;
}

std::variant<Received, std::string> decodeServer(Bytes packet) {
    if (packet.size() < kServerHeaderSize)
        return fmt::format("message of {} bytes has no header", packet.size());
    Received r;
    r.size = getU32(packet, 0);
    r.version = getU32(packet, 4);
    r.id = getU32(packet, 8);
    if (r.size != packet.size())
        return fmt::format("size field {} but message of {} bytes", r.size, packet.size());
    const DWORD lookup =
        r.id == SIMCONNECT_RECV_ID_SIMOBJECT_DATA_BYTYPE ? DWORD{SIMCONNECT_RECV_ID_SIMOBJECT_DATA} : r.id;
    auto body = makeByCode<ServerBody>(lookup, false);
    if (!body) return r;
    r.body = std::move(*body);
    std::optional<std::string> error;
    std::visit(
        [&](auto& m) {
            if constexpr (!std::is_same_v<std::decay_t<decltype(m)>, std::monostate>) {
                error = readBody(packet.subspan(kServerHeaderSize), m);
                if constexpr (std::is_same_v<std::decay_t<decltype(m)>, RecvSimObjectData>)
                    m.byType = r.id == SIMCONNECT_RECV_ID_SIMOBJECT_DATA_BYTYPE;
            }
        },
        r.body);
    if (error) return fmt::format("message id {}: {}", r.id, *error);
    return r;
}

// ---- Reassembly -----------------------------------------------------------------------------

Reassembler::Reassembler(std::size_t headerSize, std::size_t maxSize)
    : headerSize_(headerSize), maxSize_(maxSize) {}

void Reassembler::feed(Bytes bytes) {
    if (!error_.empty()) return;
    if (start_ > 0) { // drop what was handed out before
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
        start_ = 0;
    }
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

std::optional<Bytes> Reassembler::next() {
    if (!error_.empty() || buffer_.size() - start_ < 4) return std::nullopt;
    const DWORD size = getU32(Bytes(buffer_).subspan(start_), 0);
    if (size < headerSize_ || size > maxSize_) {
        error_ = fmt::format("packet size {} outside {}..{}", size, headerSize_, maxSize_);
        return std::nullopt;
    }
    if (buffer_.size() - start_ < size) return std::nullopt;
    const Bytes packet = Bytes(buffer_).subspan(start_, size);
    start_ += size;
    return packet;
}

// ---- Data blocks ----------------------------------------------------------------------------

DataWriter& DataWriter::f64(double v) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
    bytes_.insert(bytes_.end(), p, p + 8);
    return *this;
}
DataWriter& DataWriter::i64(std::int64_t v) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
    bytes_.insert(bytes_.end(), p, p + 8);
    return *this;
}
DataWriter& DataWriter::u32(DWORD v) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
    bytes_.insert(bytes_.end(), p, p + 4);
    return *this;
}
DataWriter& DataWriter::fixed(std::string_view s, std::size_t width) {
    const std::size_t n = std::min(s.size(), width - 1);
    bytes_.insert(bytes_.end(), s.begin(), s.begin() + static_cast<std::ptrdiff_t>(n));
    bytes_.insert(bytes_.end(), width - n, 0);
    return *this;
}
DataWriter& DataWriter::stringV(std::string_view s) {
    bytes_.insert(bytes_.end(), s.begin(), s.end());
    bytes_.insert(bytes_.end(), 4 - s.size() % 4, 0);
    return *this;
}

std::optional<double> DataReader::f64() {
    if (remaining() < 8) return std::nullopt;
    double v;
    std::memcpy(&v, b_.data() + pos_, 8);
    pos_ += 8;
    return v;
}
std::optional<std::int64_t> DataReader::i64() {
    if (remaining() < 8) return std::nullopt;
    std::int64_t v;
    std::memcpy(&v, b_.data() + pos_, 8);
    pos_ += 8;
    return v;
}
std::optional<std::string_view> DataReader::fixed(std::size_t width) {
    if (remaining() < width) return std::nullopt;
    const char* p = reinterpret_cast<const char*>(b_.data() + pos_);
    pos_ += width;
    return std::string_view(p, strnlen(p, width));
}
std::optional<std::string_view> DataReader::stringV() {
    const char* p = reinterpret_cast<const char*>(b_.data() + pos_);
    const std::size_t n = strnlen(p, remaining());
    if (n == remaining()) return std::nullopt; // no terminator
    pos_ += std::min(remaining(), (n / 4 + 1) * 4);
    return std::string_view(p, n);
}

} // namespace orv::simconnect
