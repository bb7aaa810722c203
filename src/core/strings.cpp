#include "core/core.h"

#include <fmt/format.h>

#include "platform/platform.h"

namespace orv::core {

namespace {
constexpr std::string_view kSpace = " \t\n\r";
bool hasSpace(std::string_view s) {
    return s.find_first_of(kSpace) != std::string_view::npos;
}
} // namespace

std::string trim(std::string_view text) {
    const auto b = text.find_first_not_of(kSpace);
    if (b == std::string_view::npos) return {};
    const auto e = text.find_last_not_of(kSpace);
    return std::string(text.substr(b, e - b + 1));
}

std::vector<std::string> splitList(std::string_view text) {
    std::vector<std::string> out;
    if (text.empty()) return out;
    std::size_t start = 0;
    while (true) {
        const auto comma = text.find(',', start);
        out.push_back(trim(text.substr(start, comma == std::string_view::npos ? comma : comma - start)));
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    return out;
}

std::string trimList(std::string_view text) {
    if (!hasSpace(text)) return std::string(text);
    std::string out;
    bool first = true;
    for (const auto& piece : splitList(text)) {
        if (!first) out += ',';
        out += piece;
        first = false;
    }
    return out;
}

std::string toUpper(std::string_view text) {
    std::string out(text);
    for (auto& c : out)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return out;
}

std::string toLower(std::string_view text) {
    std::string out(text);
    for (auto& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

bool iequals(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

std::u16string utf8_to_wide(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    const auto fail = [] { throw std::runtime_error("utf8_to_wide: invalid UTF-8"); };
    std::size_t i = 0;
    while (i < text.size()) {
        const auto b0 = static_cast<unsigned char>(text[i]);
        if (b0 < 0x80) {
            out.push_back(b0);
            ++i;
            continue;
        }
        int len = 0;
        char32_t cp = 0, min = 0;
        if (b0 >= 0xC2 && b0 <= 0xDF)
            len = 2, cp = b0 & 0x1F, min = 0x80;
        else if (b0 >= 0xE0 && b0 <= 0xEF)
            len = 3, cp = b0 & 0x0F, min = 0x800;
        else if (b0 >= 0xF0 && b0 <= 0xF4)
            len = 4, cp = b0 & 0x07, min = 0x10000;
        else
            fail();
        if (i + static_cast<std::size_t>(len) > text.size()) fail();
        for (int k = 1; k < len; ++k) {
            const auto b = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            if ((b & 0xC0) != 0x80) fail();
            cp = (cp << 6) | (b & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) fail();
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += static_cast<std::size_t>(len);
    }
    return out;
}

std::string wide_to_utf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t cp = text[i];
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (i + 1 >= text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF)
                throw std::runtime_error("wide_to_utf8: invalid UTF-16");
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            throw std::runtime_error("wide_to_utf8: invalid UTF-16");
        }
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

std::string ansiToUtf8(std::string_view line) {
    if (line.empty()) return {};
    auto wide = platform::ansiToUtf16(line, true);
    if (!wide) wide = platform::ansiToUtf16(line, false);
    if (!wide) return {};
    return wide_to_utf8(*wide);
}

UserErrorException::UserErrorException(std::int32_t number, const std::string& text)
    : std::runtime_error(number == 99 ? text : fmt::format("{}: {}", number, text)), number_(number),
      text_(text) {}

} // namespace orv::core
