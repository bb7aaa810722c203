#include <algorithm>
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

bool readLines(Encoding encoding, const fs::path& path, std::vector<std::string>& out) {
    out.clear();
    try {
        const int e = static_cast<int>(encoding);
        if (e < 0 || e > 4)
            throw std::runtime_error(fmt::format("file {} has unknown charset: {}", path.string(), e));
        const auto data = readWhole(path);
        if (!data) return false;
        out.reserve(2048);
        switch (encoding) {
        case Encoding::Unicode:
        case Encoding::UnicodeBigEndian: {
            auto units = utf16Units(*data, encoding == Encoding::UnicodeBigEndian);
            if (!units.empty() && units.front() == 0xFEFF) units.erase(0, 1);
            forEachLine(wide_to_utf8(units), [&](std::string_view l) { out.emplace_back(l); });
            break;
        }
        case Encoding::Utf8WithBom: {
            std::string_view v(*data);
            if (v.starts_with("\xEF\xBB\xBF")) v.remove_prefix(3);
            forEachLine(v, [&](std::string_view l) { out.emplace_back(l); });
            break;
        }
        case Encoding::Utf8WithoutBom:
            forEachLine(*data, [&](std::string_view l) { out.emplace_back(l); });
            break;
        default:
            forEachLine(*data, [&](std::string_view l) { out.push_back(ansiToUtf8(l)); });
            break;
        }
        return true;
    } catch (const std::exception& e) {
        message(fmt::format("Read failed for '{}': {}", path.string(), e.what()));
        return false;
    }
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
    fs::path tmp = path;
    tmp += ".tmp";
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
