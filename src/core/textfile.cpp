#include <algorithm>
#include <atomic>
#include <fstream>
#include <optional>

#include "core/core.h"
#include <fmt/format.h>

#include "platform/platform.h"

namespace orv::core {

// ---- Text files -----------------------------------------------------------------------------

namespace {
std::optional<std::string> readWhole(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return data;
}

// Lines cut at LF; a CR before it is dropped; no empty last line for a final LF.
template <typename Fn>
void forEachLine(std::string_view data, Fn&& fn) {
    std::size_t start = 0;
    while (start < data.size()) {
        auto end = data.find('\n', start);
        if (end == std::string_view::npos) end = data.size();
        auto line = data.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        fn(line);
        start = end + 1;
    }
}

Encoding checkUtf8(const unsigned char* p, std::size_t n) {
    std::size_t i = 0;
    while (i < n) {
        const unsigned char b = p[i];
        if (b < 0x80) {
            ++i;
            continue;
        }
        std::size_t len = 0;
        if (b == 0xC0 || b == 0xC1 || b > 0xF4) return Encoding::Ansi;
        if (b >= 0xC2 && b <= 0xDF)
            len = 2;
        else if (b >= 0xE0 && b <= 0xEF)
            len = 3;
        else if (b >= 0xF0 && b <= 0xF4)
            len = 4;
        else
            return Encoding::Ansi; // a lone continuation byte
        if (i + len > n) return Encoding::Ansi;
        for (std::size_t k = 1; k < len; ++k)
            if ((p[i + k] & 0xC0) != 0x80) return Encoding::Ansi;
        if (b == 0xE0 && p[i + 1] < 0xA0) return Encoding::Ansi;
        if (b == 0xF0 && p[i + 1] < 0x90) return Encoding::Ansi;
        if (b == 0xF4 && p[i + 1] > 0x8F) return Encoding::Ansi;
        i += len;
    }
    return Encoding::Utf8WithoutBom;
}

} // namespace

bool validUtf8(std::string_view text) noexcept {
    return checkUtf8(reinterpret_cast<const unsigned char*>(text.data()), text.size()) ==
           Encoding::Utf8WithoutBom;
}

namespace {

std::u16string utf16Units(std::string_view bytes, bool bigEndian) {
    std::u16string out;
    out.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto a = static_cast<unsigned char>(bytes[i]);
        const auto b = static_cast<unsigned char>(bytes[i + 1]);
        out.push_back(static_cast<char16_t>(bigEndian ? (a << 8 | b) : (b << 8 | a)));
    }
    return out;
}
} // namespace

Encoding detectEncoding(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return Encoding::NoneFound;
    unsigned char buf[4096];
    in.read(reinterpret_cast<char*>(buf), sizeof buf);
    const auto n = static_cast<std::size_t>(in.gcount());
    if (n == 0) return Encoding::Utf8WithoutBom;
    if (n >= 3 && buf[0] == 0xEF && buf[1] == 0xBB && buf[2] == 0xBF) return Encoding::Utf8WithBom;
    if (n >= 2) {
        if (buf[0] == 0xFF && buf[1] == 0xFE) return Encoding::Unicode;
        const bool feff = buf[0] == 0xFE && buf[1] == 0xFF;
        if (!feff && buf[1] == 0 && (n < 4 || buf[3] == 0)) return Encoding::Unicode;
        if (feff) return Encoding::UnicodeBigEndian;
        if (buf[0] == 0 && (n < 4 || buf[2] == 0)) return Encoding::UnicodeBigEndian;
    }
    return checkUtf8(buf, n);
}

namespace {

// Splits UTF-8 text that arrives in pieces into lines, by the rules of forEachLine.
class LineSplitter {
  public:
    explicit LineSplitter(const std::function<bool(std::string_view)>& fn) : fn_(fn) {}
    // False once `fn` asked to stop.
    bool add(std::string_view text) {
        while (!text.empty()) {
            const auto nl = text.find('\n');
            const auto piece = text.substr(0, nl);
            if (carry_.size() < kMaxTextLineBytes)
                carry_.append(piece.substr(0, std::min(piece.size(), kMaxTextLineBytes - carry_.size())));
            if (nl == std::string_view::npos) return true;
            if (!emit()) return false;
            text.remove_prefix(nl + 1);
        }
        return true;
    }
    bool finish() { return carry_.empty() || emit(); }

  private:
    bool emit() {
        std::string_view line(carry_);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        const bool more = fn_(line);
        carry_.clear();
        return more;
    }
    const std::function<bool(std::string_view)>& fn_;
    std::string carry_;
};

} // namespace

bool streamLines(Encoding encoding, const fs::path& path, const std::function<bool(std::string_view)>& fn) {
    try {
        const int e = static_cast<int>(encoding);
        if (e < 0 || e > 4)
            throw std::runtime_error(fmt::format("file {} has unknown charset: {}", path.string(), e));
        std::ifstream in(path, std::ios::binary);
        if (!in) return false;
        const bool wide = encoding == Encoding::Unicode || encoding == Encoding::UnicodeBigEndian;
        const bool ansi = encoding == Encoding::Ansi;
        const std::function<bool(std::string_view)> ansiLine = [&](std::string_view l) {
            return fn(ansiToUtf8(l));
        };
        LineSplitter lines(ansi ? ansiLine : fn);
        std::string chunk(65536, '\0'), pending;
        std::u16string units;
        bool first = true;
        while (in) {
            in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            const auto n = static_cast<std::size_t>(in.gcount());
            if (n == 0) break;
            std::string_view bytes(chunk.data(), n);
            if (!wide) {
                if (first && encoding == Encoding::Utf8WithBom && bytes.starts_with("\xEF\xBB\xBF"))
                    bytes.remove_prefix(3);
                first = false;
                if (!lines.add(bytes)) return true;
                continue;
            }
            // UTF-16: an odd byte and a first half of a surrogate pair wait for the next piece.
            pending.append(bytes);
            units += utf16Units(pending, encoding == Encoding::UnicodeBigEndian);
            pending.erase(0, pending.size() & ~std::size_t{1});
            if (first && !units.empty() && units.front() == 0xFEFF) units.erase(0, 1);
            first = false;
            std::u16string_view ready(units);
            if (!ready.empty() && ready.back() >= 0xD800 && ready.back() <= 0xDBFF) ready.remove_suffix(1);
            const bool more = lines.add(wide_to_utf8(ready));
            units.erase(0, ready.size());
            if (!more) return true;
        }
        if (wide && !units.empty() && !lines.add(wide_to_utf8(units))) return true;
        lines.finish();
        return true;
    } catch (const std::exception& e) {
        message(fmt::format("Read failed for '{}': {}", path.string(), e.what()));
        return false;
    }
}

bool readLines(Encoding encoding, const fs::path& path, std::vector<std::string>& out) {
    out.clear();
    return streamLines(encoding, path, [&](std::string_view l) {
        out.emplace_back(l);
        return true;
    });
}

std::variant<std::size_t, std::string> readAllLines(const fs::path& path, std::vector<std::string>& out,
                                                    std::size_t reserve) {
    const auto data = readWhole(path);
    if (!data) return std::string("open_failed");
    out.clear();
    out.reserve(reserve);
    forEachLine(*data, [&](std::string_view l) { out.emplace_back(l); });
    return out.size();
}

bool writeText(std::string_view text, const fs::path& path, bool withNewline) {
    // A name of its own per write: two threads saving the same file never share a half-written one.
    static std::atomic<unsigned> writes{0};
    fs::path tmp = path;
    tmp += fmt::format(".{}.tmp", writes.fetch_add(1));
    {
        std::ofstream o(tmp, std::ios::binary | std::ios::trunc);
        if (!o) return false;
        o << text;
        if (withNewline) o << '\n';
        o.flush();
        if (!o) return false;
    }
    std::error_code ec;
    fs::rename(tmp, path, ec);
    if (!ec) return true;
    fs::remove(tmp, ec);
    return false;
}

} // namespace orv::core
