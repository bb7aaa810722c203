// BGL scenery files: airports, their altitude, stands and helipads; everything else is stepped
// over by its size. Every word is read through a bound; a broken size ends its record or section.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <fstream>
#include <set>

#include <fmt/format.h>

#include "scan/scan.h"

namespace orv::scan {

namespace {

constexpr std::uint32_t kHeaderSize = 0x38;
constexpr std::size_t kHeaderWords = 14, kEntryWords = 5, kParkingEntryWords = 14;
constexpr std::uint32_t kSubsectionHeadersNot16 = 1u << 16;
constexpr std::uint32_t kStandTypes = 0xCFFE, kRampTypes = 0x40FE, kCargoType = 5;
constexpr double kPi = 3.141592653589793;
constexpr double kMetresPerNm = 1852.0;
// The em dash of code page 1252, as the scan log has always written it.
constexpr std::string_view kDash = "\x97";

std::uint32_t le32(const unsigned char* p) noexcept {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

bool validPosition(double lat, double lon) noexcept {
    if (!(lat >= -90.0 && lat <= 90.0 && lon >= -180.0 && lon <= 180.0)) return false;
    return !(std::fabs(lat) < 0.0001 && std::fabs(lon) < 0.0001);
}

// One airport record's walk; `end` is the first word past what the record may use.
class AirportReader {
  public:
    AirportReader(std::span<const std::uint32_t> words, BglContents& out, std::string_view name)
        : w_(words), out_(out), name_(name) {}

    void read(std::size_t start, std::size_t end, BglAirport& airport) {
        airport.altitudeMm = static_cast<std::int32_t>(w_[start + 5]);
        airport.altitudeFt = altitudeFeet(airport.altitudeMm);
        std::size_t o = start + 17;
        for (std::size_t steps = 0; o < end; ++steps) {
            if (steps == kMaxRecordSteps) {
                note(fmt::format("Error: Maximum loop iterations reached (1) {} possible corrupt SIA or "
                                 "malformed input",
                                 kDash));
                return;
            }
            if (o + 1 >= w_.size()) {
                note(fmt::format("   Error: o3={} exceeded data buffer size ({}), aborting.", o * 4,
                                 w_.size() * 4));
                return;
            }
            const auto id = static_cast<std::uint16_t>(w_[o] & 0xFFFF);
            const std::uint32_t size = decodeSizeAtBoundary(w_, o);
            const std::size_t recordEnd = std::min<std::size_t>(end, o + size / 4);
            if (id == kHelipadRecord) readHelipad(o, recordEnd, airport);
            if (id == kParkingListRecord) readParkingList(o, recordEnd, airport);
            if (size / 4 == 0) {
                note(fmt::format("   Warning: decodeSizeAtBoundary returned 0 at o3 = {}", o * 4));
                return;
            }
            o += size / 4;
        }
    }

  private:
    void note(std::string line) { out_.notes.push_back(std::move(line)); }

    // The id, or the first of id + "a" .. id + "j" not yet taken; none when all are.
    std::optional<std::string> uniqueId(const std::string& id) {
        if (ids_.insert(id).second) return id;
        for (char c = 'a'; c <= 'j'; ++c)
            if (ids_.insert(id + c).second) return id + c;
        return std::nullopt;
    }

    void readParkingList(std::size_t o, std::size_t end, BglAirport& airport) {
        if (o + 1 >= end) return;
        const std::uint32_t count = w_[o + 1] >> 16;
        std::size_t p = o + 2;
        for (std::uint32_t i = 0; i < count; ++i) {
            if (p + kParkingEntryWords > end) {
                note(fmt::format("===> parking list of {} entries overruns its record after {} in {}", count,
                                 i, name_));
                return;
            }
            const std::uint32_t head = w_[p];
            const std::size_t step = kParkingEntryWords + (head >> 24);
            if (p + step > end) {
                note(fmt::format("===> parking entry {} overruns its record in {}", i, name_));
                return;
            }
            ++airport.parkingEntries;
            readParkingEntry(p, airport);
            p += step;
        }
    }

    void readParkingEntry(std::size_t p, BglAirport& airport) {
        const std::uint32_t head = w_[p];
        const float radius = std::bit_cast<float>(w_[p + 1]);
        if (!(radius > 1.0f && radius < 200.0f)) {
            note(fmt::format("Skipped position with radius {:.1F} m in {}", radius, name_));
            return;
        }
        const std::string id = fmt::format("{}{}", parkingName(head & 0x3F), (head >> 12) & 0xFFF);
        const std::uint32_t type = (head >> 8) & 0xF;
        if (!(kStandTypes >> type & 1u)) return;
        const double lat = bglLatitude(w_[p + 8]), lon = bglLongitude(w_[p + 7]);
        if (!validPosition(lat, lon)) {
            note(fmt::format("LatLon {} invalid (skipped)", fmt::format("{:.6f},{:.6f}", lat, lon)));
            return;
        }
        const float heading = std::bit_cast<float>(w_[p + 2]);
        if (!std::isfinite(heading)) {
            note(fmt::format("Heading of {} invalid (skipped) in {}", id, name_));
            return;
        }
        const auto unique = uniqueId(id);
        if (!unique) {
            note(fmt::format("===> Warning: more than 10 duplicate IDs {} in {}", id, name_));
            return;
        }
        airportfile::Stand s;
        s.id = *unique;
        s.latitude = lat, s.longitude = lon;
        // North is 360, so that 0 is never taken for "not set".
        s.headingRad = heading == 0.0f ? 2 * kPi : static_cast<double>(heading) * kPi / 180.0;
        s.radiusNm = static_cast<double>(radius) / kMetresPerNm;
        s.cargo = type == kCargoType;
        s.ramp = (kRampTypes >> type & 1u) != 0;
        airport.stands.push_back(std::move(s));
    }

    void readHelipad(std::size_t o, std::size_t end, BglAirport& airport) {
        if (o + 8 > end) {
            note(fmt::format("===> helipad record too short in {}", name_));
            return;
        }
        const double lat = bglLatitude(w_[o + 4]), lon = bglLongitude(w_[o + 3]);
        const std::string where = fmt::format("{:.6f},{:.6f}", lat, lon);
        if (!validPosition(lat, lon)) {
            note("lat/lon helipad incorrect (skipped): " + where);
            return;
        }
        for (const auto& [plat, plon] : helipads_)
            if (std::fabs(plat - lat) < 1e-8 && std::fabs(plon - lon) < 1e-8) {
                note("double helipad " + where + " (skipped) ");
                return;
            }
        const float width = std::bit_cast<float>(w_[o + 7]);
        if (!(width > 0.0f && width < 1000.0f)) {
            note(fmt::format("helipad width {:.1f} m invalid (skipped): {}", width, where));
            return;
        }
        helipads_.emplace_back(lat, lon);
        airportfile::Stand s;
        s.id = fmt::format("helipad{}", ++airport.helipads);
        s.latitude = lat, s.longitude = lon;
        s.radiusNm = static_cast<double>(width) / 2.0 / kMetresPerNm;
        s.heli = true;
        airport.stands.push_back(std::move(s));
    }

    std::span<const std::uint32_t> w_;
    BglContents& out_;
    std::string_view name_;
    std::set<std::string> ids_;
    std::vector<std::pair<double, double>> helipads_;
};

} // namespace

std::optional<std::string> decodeIcao(std::uint32_t packed) {
    std::uint32_t v = packed >> 5;
    std::string code;
    while (v != 0) {
        const std::uint32_t digit = v % 38;
        v /= 38;
        if (digit == 0) break; // the code ends (a blank when nothing is left)
        if (code.size() == 10) return std::nullopt;
        if (digit >= 2 && digit <= 11)
            code += static_cast<char>('0' + (digit - 2));
        else if (digit >= 12 && digit <= 37)
            code += static_cast<char>('A' + (digit - 12));
        else
            return std::nullopt;
    }
    std::reverse(code.begin(), code.end());
    return code;
}

std::int32_t altitudeFeet(std::int32_t millimetres) noexcept {
    const double feet = std::round(static_cast<double>(millimetres) * 3.2808399 / 1000.0);
    return feet + 20 > 10020 || feet < -20 ? 0 : static_cast<std::int32_t>(feet);
}

double bglLongitude(std::uint32_t value) noexcept {
    return static_cast<double>(value) * 4.470348358154297e-7 - 180.0;
}
double bglLatitude(std::uint32_t value) noexcept {
    return 90.0 - static_cast<double>(value) * 3.3527612686157227e-7;
}

std::uint32_t decodeSizeAtBoundary(std::span<const std::uint32_t> words, std::size_t at) {
    return (words[at] >> 16) | (words[at + 1] & 0xFFFF) << 16;
}

std::string_view parkingName(std::uint32_t code) noexcept {
    static constexpr std::array<std::string_view, 12> kNames = {"",   "r",   "p",  "np",  "ep", "sep",
                                                                "sp", "swp", "wp", "nwp", "g",  ""};
    static constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    if (code < kNames.size()) return kNames[code];
    if (code >= 12 && code <= 37) return kLetters.substr(code - 12, 1);
    return {};
}

bool hasAirportSection(std::span<const unsigned char> head, std::uintmax_t fileSize) {
    if (fileSize < 57 || head.size() < 24) return false;
    const std::uint32_t n = le32(head.data() + 20);
    if (n < 1 || n > (fileSize - 56) / 20) return false;
    for (std::size_t k = 0; k < n; ++k) {
        const std::size_t at = 56 + 20 * k;
        if (at + 4 > head.size() || at + 4 > fileSize) return false;
        if (le32(head.data() + at) == kAirportSectionType) return true;
    }
    return false;
}

bool hasAirportSection(const fs::path& path) {
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    if (ec || size < 57) return false;
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::array<unsigned char, 56> header{};
    if (!in.read(reinterpret_cast<char*>(header.data()), header.size())) return false;
    const std::uint32_t n = le32(header.data() + 20);
    if (n < 1 || n > (size - 56) / 20) return false;
    // The section table alone; real files have a few dozen sections at most.
    const std::size_t entries = std::min<std::size_t>(n, 4096);
    std::vector<unsigned char> head(56 + 20 * entries);
    std::copy(header.begin(), header.end(), head.begin());
    in.read(reinterpret_cast<char*>(head.data() + 56), static_cast<std::streamsize>(20 * entries));
    head.resize(56 + static_cast<std::size_t>(in.gcount()));
    return hasAirportSection(head, size);
}

std::optional<std::vector<std::uint32_t>> readBglWords(const fs::path& path) {
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    if (ec || size > kMaxBglBytes) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size / 4 * 4));
    if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())))
        return std::nullopt;
    std::vector<std::uint32_t> words(bytes.size() / 4);
    for (std::size_t i = 0; i < words.size(); ++i) words[i] = le32(bytes.data() + 4 * i);
    return words;
}

BglContents decodeBgl(std::span<const std::uint32_t> w, bool msfs2024, std::string_view name) {
    BglContents out;
    if (w.size() < 2 || w[1] != kHeaderSize || w.size() <= kHeaderWords) return out;
    const std::uint64_t n = w[5];
    if (n == 0 || w.size() < kHeaderWords + kEntryWords * n) return out;
    for (std::size_t k = 0; k < n; ++k) {
        const std::size_t entry = kHeaderWords + kEntryWords * k;
        if (entry + 4 >= w.size() || w[entry] != kAirportSectionType ||
            (w[entry + 1] & kSubsectionHeadersNot16))
            continue;
        // Only the first subsection: its header's offset 8 points at the records, offset 12 holds
        // their size, which bounds the walk (a zero size leaves the file as the bound).
        const std::size_t sub = w[entry + 3] / 4 + 2;
        if (sub + 1 >= w.size()) continue;
        std::size_t r = w[sub] / 4;
        std::size_t end = w.size();
        if (const std::uint64_t bytes = w[sub + 1]; bytes > 0)
            end = static_cast<std::size_t>(std::min<std::uint64_t>(end, (std::uint64_t{w[sub]} + bytes) / 4));
        for (std::size_t steps = 0; r + 1 < end; ++steps) {
            if (steps == kMaxRecordSteps) {
                out.notes.push_back(fmt::format(
                    "Error: Maximum loop iterations reached (2) {} possible corrupt BGL or malformed input.",
                    kDash));
                break;
            }
            const auto id = static_cast<std::uint16_t>(w[r] & 0xFFFF);
            const std::size_t step = decodeSizeAtBoundary(w, r) / 4;
            if (step == 0) {
                out.notes.push_back(
                    fmt::format("   Warning: decodeSizeAtBoundary returned {} at o2 = {}", 0, r * 4));
                break;
            }
            if (id == kAirportRecord2024 && msfs2024) out.notRecognised = true;
            if (id == kAirportRecord) {
                const std::size_t recordEnd = std::min(end, r + step);
                const auto code = r + 17 <= recordEnd ? decodeIcao(w[r + 10]) : std::nullopt;
                if (code && (code->size() == 3 || code->size() == 4)) {
                    BglAirport airport;
                    airport.code = *code;
                    AirportReader(w, out, name).read(r, recordEnd, airport);
                    out.airports.push_back(std::move(airport));
                } else {
                    out.notRecognised = true;
                }
            }
            r += step;
        }
    }
    return out;
}

} // namespace orv::scan
