// The status snapshot: filled by the worker once a second, read as a copy by the web server.
#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>

#include <fmt/format.h>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "core/geo.h"
#include "feed/feed.h"
#include "live/live.h"
#include "liveries/liveries.h"
#include "parking/parking.h"
#include "platform/platform.h"
#include "scan/scan.h"
#include "sim/sim.h"
#include "ui/ui.h"

namespace orv::ui {

namespace {

constexpr std::size_t kAircraftRoom = 2048, kStandRoom = 4096;

// Three snapshots: the worker fills one that no reader holds and publishes it; a reader locks
// the published one for its copy. The worker only tries locks, so it never waits on a reader.
struct Buffers {
    std::array<StatusSnapshot, 3> snap;
    std::array<std::mutex, 3> lock;
    std::atomic<int> published{-1};
    std::uint64_t sequence = 0;
    Buffers() {
        for (auto& s : snap) s.reserve(kAircraftRoom, kStandRoom);
    }
};
Buffers& buffers() {
    static Buffers b;
    return b;
}

void appendEscaped(std::string& out, std::string_view s) {
    out += '"';
    for (const char c : s) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20)
                fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
            else
                out += c;
        }
    }
    out += '"';
}

void appendAircraft(std::string& out, const AircraftView& a) {
    out += "{\"hexid\":";
    fmt::format_to(std::back_inserter(out), "{}", a.hexid);
    out += ",\"callsign\":";
    appendEscaped(out, a.callsign.view());
    out += ",\"type\":";
    appendEscaped(out, a.type.view());
    out += ",\"reg\":";
    appendEscaped(out, a.registration.view());
    out += ",\"title\":";
    appendEscaped(out, a.title.view());
    fmt::format_to(
        std::back_inserter(out),
        ",\"lat\":{:.6f},\"lon\":{:.6f},\"alt\":{:.0f},\"hdg\":{:.1f},\"age\":{:.1f},\"step\":{},"
        "\"phase\":\"{}\",\"state\":\"{}\",\"static\":{},\"ground\":{}}}",
        a.lat, a.lon, a.altFt, a.headingDeg, a.dataAgeS, a.liveryStep,
        a.isStatic ? std::string_view("parked") : live::phaseName(static_cast<live::Phase>(a.phase)),
        a.isStatic ? std::string_view("active") : live::simStateName(static_cast<live::SimState>(a.simState)),
        a.isStatic, a.onGround);
}

void identify(AircraftView& v, std::uint32_t hexid, std::string_view callsign, refdata::ModelId type,
              std::string_view registration, std::string_view title, double lat, double lon,
              double headingDeg) {
    v.hexid = hexid;
    v.callsign.set(callsign);
    v.type.set(refdata::modelCode(type));
    v.registration.set(registration);
    v.title.set(title);
    v.lat = lat, v.lon = lon, v.headingDeg = headingDeg;
}

} // namespace

void StatusSnapshot::reserve(std::size_t aircraftRoom, std::size_t standRoom) {
    aircraft.reserve(aircraftRoom);
    stands.reserve(standRoom);
    runways.reserve(64);
    for (auto* s : {&version, &simulator, &userTitle, &nearestAirport, &rtEdition, &message, &error,
                    &parkAirport, &parkQuality, &reservedStand})
        s->reserve(256);
}

void fillSnapshot(StatusSnapshot& s, bool withAircraft) {
    s.utcSeconds =
        std::chrono::duration_cast<std::chrono::seconds>(platform::clock().utcNow().time_since_epoch())
            .count();
    static const std::string version =
        fmt::format("{}.{}.{}", core::kVersion.major, core::kVersion.minor, core::kVersion.patch);
    s.version = version;
    s.simulator = sim::simulatorText();
    s.userTitle = sim::userTitleKnown() ? sim::userTitle() : std::string();
    s.nearestAirport = sim::nearestArea();
    s.rtEdition = feed::realTrafficConnected() ? feed::realTrafficStatus() : std::string();
    s.message = core::messageLine();
    s.error = core::errorLine();
    for (int i = 0; i < 4; ++i)
        s.indicators[static_cast<std::size_t>(i)] = core::indicator(static_cast<core::Indicator>(i));
    s.qnh = feed::gQnh.load();
    const auto user = sim::userPosition();
    s.userKnown = user.has_value();
    if (user) {
        s.userLat = user->latitude, s.userLon = user->longitude, s.userAltFt = user->altitude;
        s.userOnGround = user->onGround;
    }
    const auto& c = feed::gTrafficReader.counts;
    s.lines = feed::gTrafficReader.lineCount.load();
    s.queued = c.queued, s.dropped = c.dropped, s.ignored = c.ignored, s.failed = c.failed;
    s.taken = live::samplesTaken();
    const auto counts = live::liveCounts();
    s.active = counts.active, s.buffered = counts.buffered, s.creating = counts.creating,
    s.leaving = counts.leaving;
    s.liveries = liveries::count();
    s.liveryFilesDone = liveries::gScanProgress.filesDone,
    s.liveryFilesFound = liveries::gScanProgress.filesFound;
    const auto& scan = scan::gScanProgress;
    s.airportScanRunning = scan.running;
    s.scanFoldersDone = scan.foldersDone, s.scanFoldersTotal = scan.foldersTotal;
    s.scanFilesRead = scan.filesRead, s.scanAirports = scan.airportsFound;
    const auto park = parking::parkStatus();
    s.parkAirport = park.airport, s.parkQuality = core::trim(park.quality),
    s.reservedStand = park.reservedStand;
    s.statics = park.statics, s.planned = park.planned;

    s.aircraft.clear();
    s.stands.clear();
    s.runways.clear();
    if (!withAircraft) return;
    s.runways.assign(airportfile::gPark.runways.begin(), airportfile::gPark.runways.end());
    const double now = feed::gTrafficReader.lastTimestamp.load();
    live::forEachLive([&](const live::LiveAc& ac) {
        if (s.aircraft.size() == s.aircraft.capacity()) return;
        AircraftView& v = s.aircraft.emplace_back();
        identify(v, ac.hexid, ac.callsign, ac.modelCode, ac.registration, ac.liveryTitle, ac.lat, ac.lon,
                 ac.heading * core::kDegPerRad);
        v.altFt = ac.alt;
        const double heard = live::lastHeard(ac);
        v.dataAgeS = heard > 0 && now > 0 ? static_cast<float>(std::max(0.0, now - heard)) : -1;
        v.liveryStep = ac.liveryStep;
        v.phase = static_cast<std::uint8_t>(ac.phase), v.simState = static_cast<std::uint8_t>(ac.simState);
        v.onGround = ac.onGround;
        if (ac.phase == live::Phase::Parked) v.stand = static_cast<std::uint32_t>(ac.stand.id);
    });
    for (const auto& st : airportfile::gPark.stands) {
        if (s.stands.size() == s.stands.capacity()) break;
        StandView& v = s.stands.emplace_back();
        v.id.set(st.id);
        v.lat = st.latitude, v.lon = st.longitude, v.headingDeg = st.headingRad * core::kDegPerRad;
        v.radiusM = st.radiusNm * core::kMetresPerNm;
        v.state = st.id == park.reservedStand ? StandState::Reserved : StandState::Free;
    }
    for (const auto& a : parking::gParking.statics) {
        if (a.state == 2 && a.stand >= 1 && a.stand <= s.stands.size())
            s.stands[a.stand - 1].state = StandState::Static;
        if (s.aircraft.size() == s.aircraft.capacity()) continue;
        AircraftView& v = s.aircraft.emplace_back();
        identify(v, a.hexid, a.cs, a.type, a.reg, a.title, a.latitude, a.longitude,
                 a.headingRad * core::kDegPerRad);
        v.isStatic = true, v.onGround = true;
    }
    for (const auto& v : s.aircraft)
        if (v.stand >= 1 && v.stand <= s.stands.size()) s.stands[v.stand - 1].state = StandState::Live;
}

void publishSnapshot(bool withAircraft) {
    auto& b = buffers();
    const int current = b.published.load(std::memory_order_acquire);
    for (int k = 1; k <= 3; ++k) {
        const int i = (current + k + 3) % 3;
        if (i == current) continue;
        std::unique_lock lock(b.lock[static_cast<std::size_t>(i)], std::try_to_lock);
        if (!lock) continue; // a reader still copies it
        auto& s = b.snap[static_cast<std::size_t>(i)];
        fillSnapshot(s, withAircraft);
        s.sequence = ++b.sequence;
        lock.unlock();
        b.published.store(i, std::memory_order_release);
        return;
    }
}

bool copySnapshot(StatusSnapshot& out) {
    auto& b = buffers();
    const int i = b.published.load(std::memory_order_acquire);
    if (i < 0) return false;
    std::lock_guard lock(b.lock[static_cast<std::size_t>(i)]);
    out = b.snap[static_cast<std::size_t>(i)];
    return true;
}

void appendSnapshotJson(std::string& out, const StatusSnapshot& s, bool withMap) {
    const auto text = [&](const char* key, std::string_view value) {
        out += '"';
        out += key;
        out += "\":";
        appendEscaped(out, value);
        out += ',';
    };
    out += '{';
    fmt::format_to(std::back_inserter(out), "\"sequence\":{},\"utc\":{},", s.sequence, s.utcSeconds);
    text("version", s.version);
    text("simulator", s.simulator);
    text("userTitle", s.userTitle);
    text("nearest", s.nearestAirport);
    text("realTraffic", s.rtEdition);
    text("message", s.message);
    text("error", s.error);
    text("parkAirport", s.parkAirport);
    text("parkQuality", s.parkQuality);
    text("reservedStand", s.reservedStand);
    fmt::format_to(
        std::back_inserter(out),
        "\"indicators\":{{\"traffic\":{},\"weather\":{},\"simulator\":{},\"realTraffic\":{}}},"
        "\"qnh\":{},\"user\":{{\"known\":{},\"lat\":{:.6f},\"lon\":{:.6f},\"alt\":{:.0f},\"ground\":{}}},"
        "\"lines\":{{\"received\":{},\"queued\":{},\"dropped\":{},\"ignored\":{},\"failed\":{},"
        "\"taken\":{}}},\"live\":{{\"active\":{},\"waiting\":{},\"creating\":{},\"leaving\":{}}},"
        "\"liveries\":{},\"liveryScan\":{{\"done\":{},\"found\":{}}},"
        "\"airportScan\":{{\"running\":{},\"folder\":{},\"folders\":{},\"files\":{},\"airports\":{}}},"
        "\"statics\":{},\"planned\":{}",
        s.indicators[0], s.indicators[1], s.indicators[2], s.indicators[3], s.qnh, s.userKnown, s.userLat,
        s.userLon, s.userAltFt, s.userOnGround, s.lines, s.queued, s.dropped, s.ignored, s.failed, s.taken,
        s.active, s.buffered, s.creating, s.leaving, s.liveries, s.liveryFilesDone, s.liveryFilesFound,
        s.airportScanRunning, s.scanFoldersDone, s.scanFoldersTotal, s.scanFilesRead, s.scanAirports,
        s.statics, s.planned);
    if (withMap) {
        out += ",\"aircraft\":[";
        for (std::size_t i = 0; i < s.aircraft.size(); ++i) {
            if (i) out += ',';
            appendAircraft(out, s.aircraft[i]);
        }
        out += "],\"stands\":[";
        static constexpr std::string_view kStates[] = {"free", "static", "live", "reserved"};
        for (std::size_t i = 0; i < s.stands.size(); ++i) {
            const auto& st = s.stands[i];
            if (i) out += ',';
            out += "{\"id\":";
            appendEscaped(out, st.id.view());
            fmt::format_to(std::back_inserter(out),
                           ",\"lat\":{:.6f},\"lon\":{:.6f},\"hdg\":{:.0f},\"r\":{:.1f},\"state\":\"{}\"}}",
                           st.lat, st.lon, st.headingDeg, st.radiusM,
                           kStates[static_cast<std::size_t>(st.state)]);
        }
        out += "],\"runways\":[";
        for (std::size_t i = 0; i < s.runways.size(); ++i) {
            const auto& r = s.runways[i];
            fmt::format_to(std::back_inserter(out), "{}[{:.6f},{:.6f},{:.6f},{:.6f},{:.0f}]", i ? "," : "",
                           r.lat1, r.lon1, r.lat2, r.lon2, r.widthM);
        }
        out += ']';
    }
    out += '}';
}

std::string aircraftJson(const StatusSnapshot& s, std::uint32_t hexid) {
    for (const auto& a : s.aircraft)
        if (a.hexid == hexid) {
            std::string out;
            appendAircraft(out, a);
            return out;
        }
    return {};
}

} // namespace orv::ui
