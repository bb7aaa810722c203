#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "core/geo.h"
#include "feed/feed.h"
#include "params/params.h"

namespace orv::feed {

TrafficQueue gTraffic;
TrafficReader gTrafficReader;
QnhReader gQnhReader;

void setAcceptTraffic(bool accept) {
    std::lock_guard lock(gTraffic.trafficLock);
    gTraffic.acceptTraffic = accept;
}

SampleRing::SampleRing() : ring_(kCapacity), latest_(kIndexSize) {}

SampleRing::Push SampleRing::push(TrafficSample&& s) {
    Latest& last = latest_[(s.hexid * 2654435761u) % kIndexSize];
    if (size() > kBacklogLines && last.hexid == s.hexid && last.seq >= head_ && last.seq < tail_ &&
        ring_[last.seq % kCapacity].hexid == s.hexid) {
        ring_[last.seq % kCapacity] = std::move(s);
        return Push::Replaced;
    }
    Push result = Push::Queued;
    if (size() == kCapacity) {
        ++head_;
        result = Push::Evicted;
    }
    ring_[tail_ % kCapacity] = std::move(s);
    last = {ring_[tail_ % kCapacity].hexid, tail_};
    ++tail_;
    return result;
}

void SampleRing::clear() {
    head_ = tail_ = 0;
    std::fill(latest_.begin(), latest_.end(), Latest{});
}

std::size_t takeTraffic(TrafficSample* out, std::size_t max) {
    std::unique_lock lock(gTraffic.trafficLock, std::try_to_lock);
    if (!lock.owns_lock()) return 0;
    std::size_t n = 0;
    while (n < max && !gTraffic.trafficQueue.empty()) {
        out[n++] = std::move(gTraffic.trafficQueue.front());
        gTraffic.trafficQueue.pop_front();
    }
    return n;
}

namespace {

constexpr std::size_t kFieldCount = 29;

// The fields of a traffic line that the decoder reads, by their position.
enum Field : std::size_t {
    kHexid = 1,
    kLatitude = 2,
    kLongitude = 3,
    kAltitude = 4,
    kVerticalSpeed = 5,
    kTrack = 7,
    kGroundSpeed = 8,
    kCallsign = 9,
    kType = 10,
    kRegistration = 11,
    kOrigin = 12,
    kDestination = 13,
    kTimestamp = 14,
    kSource = 17,
    kTrueAirspeed = 20,
    kRoll = 23,
    kTrueHeading = 25,
    kEmitterCategory = 28
};

constexpr double kGroundRangeNm = 5.0; // aircraft on the ground count only this near the current airport
constexpr std::size_t kMaxRegistration = 12;

// Plain floating point text: starts at the first character, no blank or plus sign, a minus
// sign, "inf" and "nan" allowed, trailing text tolerated, empty is a failure.
bool parseNumber(std::string_view field, double& out) {
    if (field.empty()) return false;
    const auto r = std::from_chars(field.data(), field.data() + field.size(), out);
    return r.ec == std::errc{};
}

double number(std::string_view field, std::string_view name) {
    double v = 0.0;
    if (!parseNumber(field, v)) throw std::runtime_error(fmt::format("{}:{}", name, field));
    return v;
}

refdata::IataCode routeCode(std::string_view field) {
    if (field == "null") return {};
    return refdata::IataCode(field); // throws the FixedCode message on anything but 3 letters or digits
}

double tasForAltitude(double altitude) {
    if (altitude <= 2000) return 180;
    if (altitude <= 5000) return 220;
    if (altitude <= 10000) return 250;
    if (altitude <= 20000) return 350;
    return 430;
}

} // namespace

TrafficReader::TrafficReader() {
    fields.reserve(64);
}

void TrafficReader::onBound() {
    core::setIndicator(core::Indicator::Traffic, 1);
    core::setIndicator(core::Indicator::Weather, 1);
    core::repaint(core::Region::Indicators);
}

void TrafficReader::onStopped() {
    core::setIndicator(core::Indicator::Traffic, 3);
    core::repaint(core::Region::Indicators);
    core::log("Traffic Reader has stopped");
}

void TrafficReader::clearForRun() {
    lineCount = 0;
    overrunsSeen = 0;
    lastTimestamp = 0.0;
    seenCallsigns.clear();
    qnh = 1013;
    counts.clear();
}

void TrafficReader::setArea(const TrafficArea& a) {
    std::lock_guard lock(areaMutex_);
    pendingArea_ = a;
    areaVersion_.fetch_add(1, std::memory_order_release);
}

void TrafficReader::pickUpArea() {
    const auto v = areaVersion_.load(std::memory_order_acquire);
    if (v == seenAreaVersion_) return;
    std::lock_guard lock(areaMutex_);
    area = pendingArea_;
    seenAreaVersion_ = areaVersion_.load(std::memory_order_relaxed);
}

void TrafficReader::decode(std::string_view text) {
    decodeCopy_.assign(text);
    line = decodeCopy_.c_str();
    lineLength = decodeCopy_.size();
    processLine();
}

void TrafficReader::processLine() {
    const std::string_view text(line, lineLength);
    if (text.find(" VEH") != std::string_view::npos) {
        ++counts.ignored;
        return;
    }
    fields.clear();
    std::size_t start = 0;
    while (true) {
        const auto comma = text.find(',', start);
        if (comma == std::string_view::npos) {
            fields.push_back(text.substr(start));
            break;
        }
        fields.push_back(text.substr(start, comma - start));
        start = comma + 1;
    }
    if (fields.size() < kFieldCount) {
        // Fields are read by position; a short line would be read past its end.
        ++counts.failed;
        core::log(fmt::format("traffic line refused: {} fields, {} needed", fields.size(), kFieldCount));
        return;
    }
    processLineSub();
}

void TrafficReader::processLineSub() {
    pickUpArea();
    try {
        TrafficSample s;
        if (!readPlace(s) || !readIdentity(s)) {
            ++counts.dropped;
            return;
        }
        readMotion(s);
        s.tick = core::gRun.engineTick.load(std::memory_order_relaxed) + kDelayTicks;
        std::lock_guard lock(gTraffic.trafficLock);
        if (gTraffic.acceptTraffic) {
            const auto pushed = gTraffic.trafficQueue.push(std::move(s));
            ++counts.queued;
            if (pushed != SampleRing::Push::Queued) ++counts.superseded;
        } else {
            ++counts.dropped;
        }
    } catch (const std::exception& e) {
        ++counts.failed;
        core::log(fmt::format("exception in processLineSub: {}", e.what()));
    }
}

bool TrafficReader::readPlace(TrafficSample& s) {
    const auto& f = fields;
    // Any line with a timestamp counts as traffic, even if a filter drops it below.
    lastTimestamp = number(f[kTimestamp], "timestamp");
    s.timestamp = lastTimestamp;
    const double lat = number(f[kLatitude], "lat");
    const double lon = number(f[kLongitude], "lon");
    if (!(lat >= -90.0 && lat <= 90.0) || !(lon >= -180.0 && lon <= 180.0) ||
        (std::fabs(lat) <= 0.0001 && std::fabs(lon) <= 0.0001))
        throw std::runtime_error(fmt::format("invalid lalo: {}", fmt::format("{:.6f},{:.6f}", lat, lon)));
    if (core::distanceNm(area.reference, {lat, lon}) >
        params::gParams.radiusNm.load(std::memory_order_relaxed))
        return false;
    if (f[kRegistration].size() > kMaxRegistration) return false;
    s.latitude = lat;
    s.longitude = lon;
    if (f[kRegistration] != "null") s.registration.assign(f[kRegistration]);
    return true;
}

bool TrafficReader::readIdentity(TrafficSample& s) {
    const auto& f = fields;
    const auto callsign = f[kCallsign];
    // Callsigns seen, for the static parking calculation.
    if (collectCallsigns.load(std::memory_order_acquire) && !callsign.empty() && callsign != "null" &&
        callsign.find('@') == std::string_view::npos)
        seenCallsigns.emplace(callsign);
    if (!refdata::isUsableAircraft(f[kType], f[kEmitterCategory])) return false;
    s.modelCode = refdata::modelId(f[kType]);
    // True heading, trusted from ADS-B only.
    if (f[kSource] == "adsb_icao") {
        const double th = number(f[kTrueHeading], "trueheading");
        if (th > 360.0) throw std::runtime_error(fmt::format("trueheading: {:.2f}", th));
        if (th == 0.0) {
            s.heading = 2 * core::kPi;
            s.hasTrueHeading = true;
        } else if (th > 0.0) {
            s.heading = th * core::kRadPerDeg;
            s.hasTrueHeading = true;
        }
    }
    // Live aircraft are above 10000; the ids below belong to static ones.
    std::uint32_t id = 0;
    const auto r = std::from_chars(f[kHexid].data(), f[kHexid].data() + f[kHexid].size(), id);
    if (r.ec != std::errc{}) throw std::runtime_error(fmt::format("hexid incorrect{}", f[kHexid]));
    if (id <= 10000) return false;
    s.hexid = id;
    // Speed and the on-ground decision.
    s.groundSpeed = number(f[kGroundSpeed], "gs");
    if (!checkAltitude(s)) return false;
    s.airborne = s.altitude > 0.0;
    if (callsign != "null" && callsign.find('@') == std::string_view::npos) {
        if (callsign == "ERARMTR1" || callsign == "AIRPORT1" || callsign == "00000000") return false;
        s.callsign.assign(callsign);
    }
    if (s.callsign.empty() && s.registration.empty()) return false;
    return s.airborne ||
           (area.airport && core::distanceNm(*area.airport, {s.latitude, s.longitude}) <= kGroundRangeNm);
}

void TrafficReader::readMotion(TrafficSample& s) {
    const auto& f = fields;
    // The track, or the true heading when the track says nothing.
    if (!f[kTrack].empty()) {
        double t = 0.0;
        if (!parseNumber(f[kTrack], t))
            throw std::runtime_error(fmt::format("track incorrect {}", f[kTrack]));
        s.track = t;
        if (s.track == 0.0 && s.hasTrueHeading) s.track = *s.heading * core::kDegPerRad;
    } else {
        s.track = s.hasTrueHeading ? *s.heading * core::kDegPerRad : 0.0;
    }
    s.verticalSpeed = number(f[kVerticalSpeed], "vs");
    s.origin = routeCode(f[kOrigin]);
    s.destination = routeCode(f[kDestination]);
    // Bank, airborne only; RealTraffic's sign is the opposite of the simulator's.
    if (s.airborne) {
        const double roll = number(f[kRoll], "roll");
        if (roll != -1.0 && roll != 0.0) s.roll = -roll * core::kRadPerDeg;
    }
    // True airspeed, estimated from the altitude when unknown.
    double tas = 0.0;
    if (!parseNumber(f[kTrueAirspeed], tas))
        throw std::runtime_error(fmt::format("TAS incorrect{}", f[kTrueAirspeed]));
    s.trueAirspeed = tas == -1.0 ? tasForAltitude(s.altitude) : tas;
}

bool TrafficReader::checkAltitude(TrafficSample& s) {
    double a = 0.0;
    if (!parseNumber(fields[kAltitude], a))
        throw std::runtime_error(fmt::format("altitude {} incorrect, from: {}", fields[kAltitude],
                                             std::string_view(line, lineLength)));
    if (a > 0.0) a = std::max(trueAltitudeFt(a, qnh.load(std::memory_order_relaxed)), 0.0);
    if (a <= 0.0) {
        a = 0.0;
    } else {
        if (a < 14000.0) {
            const double h = area.referenceElevation ? a - *area.referenceElevation : a + 1000.0;
            const double gs = s.groundSpeed;
            if (h <= 0.0 || (h <= 42.0 && gs <= 120.0) || (h <= 84.0 && gs <= 80.0) ||
                (h <= 108.0 && gs <= 43.0))
                a = 0.0;
        }
        // Slow means on the ground, except for a helicopter: it hovers.
        if (a > 0.0 && s.groundSpeed <= 35.0 &&
            refdata::category(s.modelCode) != refdata::Category::Rotorcraft)
            a = 0.0;
    }
    s.altitude = a;
    if (!params::gParams.AIRBORNE_ONLY.load(std::memory_order_relaxed)) return true;
    // A ground report is never "airborne", however high its airport lies.
    if (a == 0.0) return false;
    const double airportElevation = area.airport ? area.referenceElevation.value_or(0.0) : 0.0;
    return std::fabs(a - airportElevation) > 300.0;
}

std::atomic<std::int32_t> gQnh{1013};
std::atomic<std::uint32_t> gTrafficSource{0};

void TrafficReader::onRefusedSender(std::uint32_t from) {
    if (counts.refused.fetch_add(1, std::memory_order_relaxed) == 0 && !stop)
        core::log(fmt::format(
            "Traffic datagrams from {}.{}.{}.{} are refused: only RealTraffic's host is listened to",
            from >> 24, (from >> 16) & 255, (from >> 8) & 255, from & 255));
}

void QnhReader::processLine() {
    const std::string_view text(line, lineLength);
    try {
        const auto j = nlohmann::json::parse(text);
        const auto it = j.is_object() ? j.find("QNH") : j.end();
        if (it == j.end() || it->is_null()) {
            core::log(fmt::format("no QNH {}", text));
            return;
        }
        std::int64_t value = 0;
        if (it->is_number_integer()) {
            value =
                it->is_number_unsigned()
                    ? static_cast<std::int64_t>(std::min<std::uint64_t>(it->get<std::uint64_t>(), INT64_MAX))
                    : it->get<std::int64_t>();
            if (value < INT32_MIN || value > INT32_MAX) throw std::out_of_range("QNH does not fit 32 bits");
        } else if (it->is_number_float()) {
            const double d = std::round(it->get<double>());
            if (!(d >= INT32_MIN && d <= INT32_MAX)) throw std::out_of_range("QNH does not fit 32 bits");
            value = static_cast<std::int64_t>(d);
        } else if (it->is_string()) {
            const auto& s = it->get_ref<const std::string&>();
            std::int32_t parsed = 0;
            const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), parsed);
            if (ec != std::errc{} || end != s.data() + s.size()) {
                core::log(fmt::format("QNH string parse error: {} in {}", s, text));
                return;
            }
            value = parsed;
        } else {
            core::log(fmt::format("no QNH {}", text));
            return;
        }
        // Above 1100 it is inches of mercury times 100; the clamp comes after, so 1101 ends at 900.
        if (value > 1100) value = std::llround(static_cast<double>(value) * 0.33865307);
        const auto q = static_cast<std::int32_t>(std::clamp<std::int64_t>(value, 900, 1100));
        received = true; // only a datagram with a pressure ends the start's wait for weather
        // A repeated 1013 is published again so that the weather light stays fresh.
        if (q == lastQnh && q != 1013) return;
        lastQnh = q;
        gTrafficReader.qnh = q;
        gQnh = q;
        if (core::indicator(core::Indicator::Weather) == 2) core::setIndicator(core::Indicator::Weather, 1);
        core::repaint(core::Region::Counters);
    } catch (const std::exception& e) {
        core::log(fmt::format("Exception {}, in {}", e.what(), text));
    }
}

void QnhReader::onBound() {
    core::setIndicator(core::Indicator::Weather, 1);
}

void QnhReader::onStopped() {
    core::log("QNH Reader has stopped");
}

void QnhReader::reset() {
    lastQnh = 1013;
    gQnh = 1013;
    lineCount = 0;
    overrunsSeen = 0;
    stop = false;
}

void resetForRun() {
    setAcceptTraffic(false);
    {
        std::lock_guard lock(gTraffic.trafficLock);
        gTraffic.trafficQueue.clear();
    }
    gTrafficReader.clearForRun();
    gTrafficReader.stop = false;
    gTrafficReader.qnh = 1013;
    gQnhReader.reset(); // a restart starts from standard pressure, as the first start did
    gQnhReader.received = false;
}

} // namespace orv::feed
