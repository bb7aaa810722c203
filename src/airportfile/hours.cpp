// The half hours of a flight on a stand, and their text forms in airport files.
#include <bit>
#include <charconv>
#include <chrono>
#include <string>

#include <fmt/format.h>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "platform/platform.h"

namespace orv::airportfile {

int HourBits::count() const noexcept {
    return std::popcount(word_);
}

std::optional<int> parseHour(std::string_view text, std::string_view whole) {
    const std::string piece = core::trim(text);
    int h = -1;
    const auto [end, ec] = std::from_chars(piece.data(), piece.data() + piece.size(), h);
    if (piece.empty() || ec != std::errc{} || end != piece.data() + piece.size() || h < 0 ||
        h >= HourBits::kHalfHours) {
        core::log(fmt::format("{} invalid hour '{}' in {}", "operator ()", piece, whole));
        return std::nullopt;
    }
    return h;
}

HourBits hours2bitset(std::string_view text) {
    HourBits bits;
    if (text.empty()) return bits;
    if (text.find(':') != std::string_view::npos) {
        int found[2] = {0, 0};
        int n = 0;
        bool bad = false;
        for (std::size_t from = 0;;) {
            const auto colon = text.find(':', from);
            const auto piece = text.substr(from, colon == std::string_view::npos ? colon : colon - from);
            if (n == 2) {
                core::log(fmt::format("{} more than one colon char in: {}", "hours2bitset", text));
                return {};
            }
            if (const auto h = parseHour(piece, text)) {
                found[n++] = *h;
            } else {
                bad = true;
            }
            if (colon == std::string_view::npos) break;
            from = colon + 1;
        }
        if (bad) return {};
        if (n == 1) {
            bits.set(found[0]);
            return bits;
        }
        if (found[0] > found[1]) {
            core::log(fmt::format("{} descending range not allowed ({}:{} in {})", "hours2bitset", found[0],
                                  found[1], text));
            return {};
        }
        for (int h = found[0]; h <= found[1]; ++h) bits.set(h);
        return bits;
    }
    for (std::size_t from = 0;;) {
        const auto comma = text.find(',', from);
        const auto piece = text.substr(from, comma == std::string_view::npos ? comma : comma - from);
        if (const auto h = parseHour(piece, text)) bits.set(*h);
        if (comma == std::string_view::npos) break;
        from = comma + 1;
    }
    return bits;
}

std::optional<std::string> bitset2hours(HourBits bits) {
    if (bits.empty()) return std::nullopt;
    const int first = std::countr_zero(bits.word());
    const int last = 63 - std::countl_zero(bits.word());
    if (bits.count() != last - first + 1) return std::nullopt;
    if (first == last) return fmt::format("{}", first);
    return fmt::format("{}:{}", first, last);
}

std::string bitset2list(HourBits bits) {
    std::string out;
    for (int h = 0; h < HourBits::kHalfHours; ++h) {
        if (!bits.test(h)) continue;
        if (!out.empty()) out += ',';
        out += std::to_string(h);
    }
    return out;
}

DayHalfHour dayHalfHour(std::int64_t unixSeconds) {
    const std::int64_t days = unixSeconds >= 0 ? unixSeconds / 86400 : (unixSeconds - 86399) / 86400;
    const std::int64_t inDay = unixSeconds - days * 86400;
    // 1 January 1970 was a Thursday, day 4.
    const auto day = static_cast<int>(((days + 3) % 7 + 7) % 7) + 1;
    return {day, static_cast<int>(inDay / 1800)};
}

DayHalfHour nowDayHalfHour() {
    const auto t = platform::clock().utcNow().time_since_epoch();
    return dayHalfHour(std::chrono::duration_cast<std::chrono::seconds>(t).count());
}

DayHalfHour stepBack(DayHalfHour t, int halfHours) {
    int h = t.halfHour - halfHours;
    int day = t.day;
    while (h < 0) {
        h += HourBits::kHalfHours;
        day = day == 1 ? 7 : day - 1;
    }
    return {day, h};
}

} // namespace orv::airportfile
