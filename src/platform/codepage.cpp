#include "platform/platform.h"

namespace orv::platform {

namespace {
// 0x80-0x9F of Windows-1252; 0 marks the five unassigned bytes.
constexpr char16_t kHigh[32] = {0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
                                0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
} // namespace

std::optional<std::u16string> ansiToUtf16(std::string_view bytes, bool strict) {
    std::u16string out;
    out.reserve(bytes.size());
    for (const char ch : bytes) {
        const auto b = static_cast<unsigned char>(ch);
        if (b < 0x80 || b >= 0xA0) {
            out.push_back(static_cast<char16_t>(b));
            continue;
        }
        const char16_t mapped = kHigh[b - 0x80];
        if (mapped == 0) {
            if (strict) return std::nullopt;
            out.push_back(static_cast<char16_t>(b));
        } else {
            out.push_back(mapped);
        }
    }
    return out;
}

} // namespace orv::platform
