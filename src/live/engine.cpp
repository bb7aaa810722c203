// The engine frame: samples in, objects created, a position for every aircraft every 10 ms.
#include "live/internal.h"
#include "parking/parking.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>

#include <fmt/format.h>
#include <gsl/narrow>

#include "core/core.h"
#include "core/geo.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "platform/platform.h"

namespace orv::live {

Engine gEngine;

namespace {

using feed::kDelayTicks; // everything runs 30 s behind the feed
// A point on a straight path adds nothing when it comes sooner than this distance at the speed
// flown: 450 m in the air, 20 m on the ground (where 15 s is the most a point may wait).
constexpr double kAirThinningNm = 0.24298;
constexpr double kGroundThinningNm = 0.0107991;
constexpr double kGroundThinningMaxSeconds = 15.0;

// A frame takes every waiting line up to these limits, so that after a flood the engine is back
// on the live reports within seconds, while the frame still ends on time.
constexpr std::size_t kMaxLinesPerFrame = 256;
// A moving aircraft's feed may stand still this long before the stop is believed.
constexpr double kFrozenAboveKt = 20;
constexpr double kFrozenMaxSeconds = 8;
// A ground position out of reach is kept this long for the track to go on from it.
constexpr double kReachMinKt = 50;
constexpr double kReachMaxKt = 220; // no faster on the ground, whatever a jump before made it seem
constexpr double kAsideMaxSeconds = 10;
constexpr double kAsideSameSpotM = 5;
constexpr int kNewSpeedReports = 3; // reports in a row that make a jump of speed the feed's new one
constexpr double kTicksPerSecond = 100;
constexpr double kClockJumpSeconds = 60; // far beyond the feed's batching of a few seconds
constexpr double kClockAgreeSeconds = 5;
// After a wait without news, a place farther than the holding threshold is caught up with when
// reaching it took no more than this speed.
constexpr double kHoldCatchUpKt = 40;
// The fastest an aircraft on the ground is moved in a frame: this share over its points' speed.
constexpr double kGroundStepMinKt = 45;
constexpr double kGroundStepFactor = 1.25;
constexpr auto kLineBudget = std::chrono::microseconds(2000);

// A single air report far off the line its neighbours draw (a position or an altitude the feed
// got wrong for a moment) is put back. The stream runs 30 s behind the feed, so the report after
// it is known long before the aircraft gets there. An altitude takes the median of itself and its
// two neighbours, which leaves a steady climb as it is and never carries a spike on to the next.
constexpr double kAirSpikeMinFt = 150, kAirSpikeFtPerSecond = 25;
constexpr double kAirSpikeMinM = 150, kAirSpikeShareOfStep = 0.25;
constexpr double kAirSpikeMaxSpanSeconds = 20;

double median3(double a, double b, double c) {
    return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

void smoothAirSpike(SampleStream& st, const Sample& next) {
    if (st.size() < 3 || !next.airborne) return; // element 0 is being flown from, 1 towards
    Sample& mid = st.back();
    const Sample& before = st[st.size() - 2];
    if (!mid.airborne || !before.airborne || mid.stationary || before.feedTime <= 0 || mid.feedTime <= 0)
        return;
    const double span = next.feedTime - before.feedTime;
    if (!(span > 0) || span > kAirSpikeMaxSpanSeconds) return;
    const double f = std::clamp((mid.feedTime - before.feedTime) / span, 0.0, 1.0);
    const double alt = before.alt + f * (next.alt - before.alt);
    if (std::fabs(mid.alt - alt) > std::max(kAirSpikeMinFt, kAirSpikeFtPerSecond * span))
        mid.alt = median3(before.alt, mid.alt, next.alt);
    // A position is off when it lies away from the line between its neighbours and from the
    // line the track drew before it; a bad next report moves the first line but not the second.
    const Sample& early = st[st.size() - 3];
    const double lead = before.feedTime - early.feedTime;
    if (early.feedTime <= 0 || !(lead > 0) || lead > kAirSpikeMaxSpanSeconds) return;
    const double g = (mid.feedTime - before.feedTime) / lead;
    const double lat = before.lat + f * (next.lat - before.lat),
                 lon = before.lon + f * (next.lon - before.lon);
    const double stepM = core::distanceNm(before.lat, before.lon, next.lat, next.lon) * core::kMetresPerNm;
    const double limitM = kAirSpikeMinM + kAirSpikeShareOfStep * stepM;
    const auto offM = [&](double la, double lo) {
        return core::distanceNm(mid.lat, mid.lon, la, lo) * core::kMetresPerNm;
    };
    if (offM(lat, lon) > limitM &&
        offM(before.lat + g * (before.lat - early.lat), before.lon + g * (before.lon - early.lon)) > limitM) {
        mid.lat = lat;
        mid.lon = lon;
    }
}

// The altitude of an air report as the trend of the latest reports has it at its time: the
// Theil-Sen line (median of the pairwise slopes, then the median offset), which a steady climb
// passes through unchanged and a third of the reports scattered at random cannot move.
constexpr double kAirTrendSeconds = 10;
constexpr std::size_t kAirTrendMinReports = 4;

double airTrendAltitude(LiveAc& ac, double t, double feet) {
    auto& ring = ac.airAltitudes;
    ring[ac.airAltitudeNext] = {t, feet};
    ac.airAltitudeNext = static_cast<std::uint8_t>((ac.airAltitudeNext + 1) % ring.size());
    ac.airAltitudeCount =
        static_cast<std::uint8_t>(std::min<std::size_t>(ac.airAltitudeCount + 1, ring.size()));
    std::array<LiveAc::AltitudeReport, 8> recent;
    std::size_t n = 0;
    for (std::size_t i = 0; i < ac.airAltitudeCount; ++i)
        if (t - ring[i].time <= kAirTrendSeconds && ring[i].time <= t) recent[n++] = ring[i];
    if (n < kAirTrendMinReports) return feet;
    std::array<double, 28> values;
    std::size_t m = 0;
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = i + 1; j < n; ++j)
            if (const double dt = recent[j].time - recent[i].time; std::fabs(dt) >= 0.5)
                values[m++] = (recent[j].feet - recent[i].feet) / dt;
    if (m == 0) return feet;
    const double slope = medianInPlace(values.begin(), m);
    for (std::size_t i = 0; i < n; ++i) values[i] = recent[i].feet + slope * (t - recent[i].time);
    return std::max(medianInPlace(values.begin(), n), 1.0);
}

std::optional<AirportPlace> currentAirportPlace; // the worker thread's: set and read there only
// Counts for the status display: the frame publishes them once a second, any thread reads.
struct Published {
    std::atomic<std::uint64_t> taken{0};
    std::atomic<std::uint32_t> active{0}, buffered{0}, creating{0}, leaving{0}, queue{0};
};
Published published;

void publishCounts() {
    const auto& e = gEngine;
    std::uint32_t active = 0, buffered = 0, creating = 0, leaving = 0;
    for (const auto& ac : e.liveTable) {
        if (ac.simState == SimState::Active)
            ++active;
        else if (ac.simState == SimState::Buffer)
            ++buffered;
        else if (ac.simState == SimState::Adding2Sim)
            ++creating;
        else
            ++leaving;
    }
    published.taken.store(e.taken, std::memory_order_relaxed);
    published.active.store(active, std::memory_order_relaxed);
    published.buffered.store(buffered, std::memory_order_relaxed);
    published.creating.store(creating, std::memory_order_relaxed);
    published.leaving.store(leaving, std::memory_order_relaxed);
    published.queue.store(static_cast<std::uint32_t>(e.spawnQueue.size()), std::memory_order_relaxed);
}

Sample toSample(const feed::TrafficSample& r) {
    Sample s;
    s.lat = r.latitude, s.lon = r.longitude, s.alt = r.altitude;
    s.speed = r.groundSpeed, s.track = r.track, s.vs = r.verticalSpeed, s.tas = r.trueAirspeed;
    s.tick = r.tick;
    s.feedTime = r.timestamp;
    s.airborne = r.airborne;
    s.hasFeedHeading = r.hasTrueHeading;
    if (r.roll) s.bank = *r.roll, s.hasBank = true;
    if (r.heading) s.trueHeading = *r.heading, s.hasTrueHeading = true;
    return s;
}

bool categoryEnabled(refdata::Category c) {
    switch (c) {
    case refdata::Category::Light:
        return params::gParams.LIGHT_AIRCRAFT.load(std::memory_order_relaxed);
    case refdata::Category::HighPerf:
        return params::gParams.HIGH_PERF_AIRCRAFT.load(std::memory_order_relaxed);
    case refdata::Category::Rotorcraft:
        return params::gParams.HELICOPTERS.load(std::memory_order_relaxed);
    default:
        return true;
    }
}

// Ground reports must be clearly away from the airport's level to count as flying.
bool altitudeAcceptable(double alt) {
    if (!(alt > 0.0 && alt < 10000.0)) return true;
    const auto airport = currentAirport();
    return std::fabs(alt - (airport ? airport->elevation : -1000.0)) > 108.0;
}

// The airline of a callsign like "DAL1812": three letters of a known airline and then a digit.
refdata::AirlineId airlineOfCallsign(std::string_view cs) {
    if (cs.size() < 4 || !std::isdigit(static_cast<unsigned char>(cs[3]))) return 0;
    for (std::size_t i = 0; i < 3; ++i)
        if (!std::isalpha(static_cast<unsigned char>(cs[i]))) return 0;
    return refdata::knownAirline(cs.substr(0, 3)); // a prefix that is no airline makes none
}

FailedLivery failedKey(const LiveAc& ac) {
    FailedLivery k;
    k.model = ac.modelCode, k.airline = ac.airlineCode;
    ac.registration.copy(k.registration.data(), k.registration.size());
    return k;
}

// The frame's tables are bounded: past this many entries the oldest knowledge is forgotten.
constexpr std::size_t kMaxRemembered = 4096;

void noteNoMatch(const LiveAc& ac) {
    auto& e = gEngine;
    std::array<char, 48> text{};
    const auto r =
        fmt::format_to_n(text.data(), text.size() - 1, "{:8} {:8} {:3} {:4}", ac.callsign, ac.registration,
                         refdata::airlineCode(ac.airlineCode), refdata::modelCode(ac.modelCode));
    *r.out = '\0';
    // An aircraft without a livery is tried again with each new report: it is listed once.
    if (std::find(e.noMatch.begin(), e.noMatch.end(), text) != e.noMatch.end()) return;
    if (e.noMatch.size() == e.noMatch.capacity()) {
        ++e.noMatchDropped;
        return;
    }
    e.noMatch.push_back(text);
}

// The livery ladder for this aircraft as it is now.
liveries::MatchAircraft matchLivery(const LiveAc& ac) {
    liveries::MatchAircraft m;
    m.key = refdata::airlineModelKey(ac.airlineCode, ac.modelCode);
    m.regcode = ac.registration;
    m.category = ac.category;
    m.cargo = ac.isCargo;
    describeInto(ac, m.description);
    liveries::matchLiveLivery(m);
    return m;
}

double distanceToUser(const LiveAc& ac) {
    const auto& u = gEngine.user;
    return core::distanceNm(ac.lat, ac.lon, u.latitude, u.longitude);
}

void logException(const char* function, const LiveAc& ac, const std::exception& e) {
    core::log(fmt::format("{}: {} {}, sz:{}, fs:{}, st:{}", function, describeAc(ac), e.what(),
                          ac.stream.size(), phaseName(ac.phase), simStateName(ac.simState)));
}

void compactTable() {
    auto& t = gEngine.liveTable;
    t.eraseIf([](const LiveAc& ac) { return ac.dropNow || ac.dropSilently; });
}

} // namespace

void command(std::uint32_t objectId, std::uint32_t event, std::uint32_t value) {
    if (objectId == 0) return;
    // Lights, like the other controls, go out only when they change; a toggle of all of them
    // leaves their states unknown until each is set again.
    if (event == sim::kAllLightsToggle) {
        if (LiveAc* ac = findByObjectId(objectId)) ac->controls.lightsKnown = 0;
    } else if (event >= sim::kBeaconLights && event <= sim::kLogoLights) {
        if (LiveAc* ac = findByObjectId(objectId)) {
            const auto bit = static_cast<std::uint16_t>(1u << (event - sim::kBeaconLights));
            const bool on = value != 0;
            if ((ac->controls.lightsKnown & bit) && ((ac->controls.lightsOn & bit) != 0) == on) return;
            ac->controls.lightsKnown |= bit;
            ac->controls.lightsOn = on ? (ac->controls.lightsOn | bit) : (ac->controls.lightsOn & ~bit);
        }
    }
    gEngine.out.events.push_back({objectId, event, value});
}

void setCurrentAirport(std::optional<AirportPlace> airport) {
    currentAirportPlace = airport;
}
std::optional<AirportPlace> currentAirport() {
    return currentAirportPlace;
}

void LiveTable::reserve(std::size_t n) {
    while (slots_.size() < n) {
        free_.push_back(static_cast<std::uint32_t>(slots_.size()));
        slots_.emplace_back();
    }
    std::reverse(free_.begin(), free_.end()); // the low slots first
    order_.reserve(n);
    free_.reserve(n);
}

LiveAc& LiveTable::push_back(LiveAc ac) {
    if (free_.empty()) {
        slots_.push_back(std::move(ac));
        order_.push_back(static_cast<std::uint32_t>(slots_.size() - 1));
    } else {
        const std::uint32_t slot = free_.back();
        free_.pop_back();
        slots_[slot] = std::move(ac);
        order_.push_back(slot);
    }
    return slots_[order_.back()];
}

LiveTable::iterator LiveTable::erase(iterator it) {
    const std::size_t i = it.index();
    free_.push_back(order_[i]);
    order_.erase(order_.begin() + static_cast<std::ptrdiff_t>(i));
    return {this, i};
}

void LiveTable::clear() {
    for (auto it = order_.rbegin(); it != order_.rend(); ++it) free_.push_back(*it);
    order_.clear();
}

void Engine::reserve() {
    plansToWrite.reserve(64);
    plansToRemove.reserve(64);
    liveTable.reserve(512);
    addingStack.reserve(64);
    spawnQueue.reserve(64);
    staticSpawnQueue.reserve(256);
    removeQueue.reserve(512);
    pending.reserve(256);
    events.reserve(1024);
    out.reserve(1024);
    rememberedLiveries.reserve(kMaxRemembered);
    failedLiveries.reserve(kMaxRemembered);
    noMatch.reserve(kMaxRemembered);
    ghostList.reserve(kGhostListSize);
}

void Engine::reset() {
    liveTable.clear();
    addingStack.clear();
    spawnQueue.clear();
    staticSpawnQueue.clear();
    removeQueue.clear();
    pending.clear();
    events.clear();
    out.clear();
    rememberedLiveries.clear();
    failedLiveries.clear();
    noMatch.clear();
    noMatchDropped = 0;
    routeHead = routeCount = 0;
    rng.seed(20250204);
    user = {};
    userKnown = false;
    userOnGround = true;
    tick = 0;
    taken = positionsLost = created = removed = 0;
    callsignLookupObject = 0;
    plansToWrite.clear();
    plansToRemove.clear();
    activeCount = 0;
    activeCountedAt = -1;
    ghostList.clear();
    userAtLastGuard = {};
}

LiveAc* findByHexid(std::uint32_t hexid) {
    for (auto& ac : gEngine.liveTable)
        if (ac.hexid == hexid) return &ac;
    return nullptr;
}
LiveAc* findByObjectId(std::uint32_t objectId) {
    if (objectId == 0) return nullptr;
    for (auto& ac : gEngine.liveTable)
        if (ac.objectId == objectId) return &ac;
    return nullptr;
}
std::size_t activeCount() {
    auto& e = gEngine;
    if (e.activeCountedAt != e.tick) {
        e.activeCount = static_cast<std::size_t>(
            std::count_if(e.liveTable.begin(), e.liveTable.end(),
                          [](const LiveAc& a) { return a.simState == SimState::Active; }));
        e.activeCountedAt = e.tick;
    }
    return e.activeCount;
}

LiveAc* findByCallsign(std::string_view callsign) {
    for (auto& ac : gEngine.liveTable)
        if (ac.callsign == callsign) return &ac;
    return nullptr;
}

// ---- Controls --------------------------------------------------------------------------------

void setFlaps(LiveAc& ac, std::int32_t index) {
    if (ac.category == refdata::Category::Rotorcraft || index == ac.controls.flapsIndex) return;
    constexpr std::uint32_t kValues[] = {0, 3072, 10240, 16383, 0};
    if (index < 0 || index > 4) {
        core::log("setFlaps: invalid flaps index");
        return;
    }
    ac.controls.flapsIndex = index;
    command(ac.objectId, sim::kFlapsSet, kValues[index]);
}

void setThrottle(LiveAc& ac, std::int32_t index) {
    if (index == ac.controls.throttleIndex || index < 0 || index > 4) return;
    constexpr std::uint32_t kValues[] = {0, 4914, 8191, 11468, 16383};
    ac.controls.throttleIndex = index;
    command(ac.objectId, sim::kThrottleSet, kValues[index]);
}

void setGear(LiveAc& ac, bool down) {
    if (ac.category == refdata::Category::Rotorcraft || ac.controls.gearState == (down ? 1 : 0)) return;
    ac.controls.gearState = down ? 1 : 0;
    command(ac.objectId, sim::kGearSet, down ? 1 : 0);
}

void setSpoilers(LiveAc& ac, bool on) {
    if (ac.category == refdata::Category::Rotorcraft || ac.controls.spoilersState == (on ? 1 : 0)) return;
    ac.controls.spoilersState = on ? 1 : 0;
    command(ac.objectId, sim::kSpoilersSet, on ? 16383 : 0);
}

void setLights(std::uint32_t objectId, bool nav, bool beacon, bool landing, bool taxi, bool strobes,
               bool logo, bool cabin) {
    const std::pair<std::uint32_t, bool> lights[] = {
        {sim::kNavLights, nav},    {sim::kBeaconLights, beacon}, {sim::kLandingLights, landing},
        {sim::kTaxiLights, taxi},  {sim::kStrobes, strobes},     {sim::kLogoLights, logo},
        {sim::kCabinLights, cabin}};
    for (const auto& [event, on] : lights) command(objectId, event, on ? 1 : 0);
}

void setReverser(LiveAc& ac, double spoilers, double throttle) {
    if (ac.category == refdata::Category::Light || ac.objectId == 0) return;
    gEngine.out.controls.push_back({ac.objectId, spoilers, throttle, throttle});
}

void setParkedLights(LiveAc& ac) {
    setThrottle(ac, 0);
    setFlaps(ac, 0);
    command(ac.objectId, sim::kEngineAutoShutdown, 0);
    const bool nav = params::gParams.NAV_LIGHTS_WHILE_PARKED.load(std::memory_order_relaxed);
    bool cabin = false;
    if (ac.atStand && !ac.stand.cargo)
        cabin = !params::gParams.RANDOM.load(std::memory_order_relaxed) ||
                std::uniform_int_distribution<int>(0, 9)(gEngine.rng) != 0;
    setLights(ac.objectId, nav, false, false, false, false, true, cabin);
}

// ---- The frame -------------------------------------------------------------------------------

void reserveContainers() {
    gEngine.reserve();
}

namespace {

void takeLines() {
    auto& e = gEngine;
    const auto start = platform::clock().steadyNow();
    for (std::size_t total = 0; total < kMaxLinesPerFrame;) {
        const auto n = feed::takeTraffic(e.frameSamples.data(), e.frameSamples.size());
        e.taken += n;
        total += n;
        for (std::size_t i = 0; i < n; ++i) decode(e.frameSamples[i]);
        if (n < e.frameSamples.size() || platform::clock().steadyNow() - start > kLineBudget) break;
    }
}

} // namespace

void engineFrame() {
    auto& e = gEngine;
    e.tick = core::gRun.engineTick.load(std::memory_order_relaxed);
    handleEvents();
    bool compact = false;
    for (auto& ac : e.liveTable) {
        if (updateLiveAc(ac) == Update::Drop) compact = true;
        compact = compact || ac.dropNow || ac.dropSilently;
    }
    if (compact) compactTable();
    pace();
    takeLines();
    handleAddingStack();
    poll();
    if (e.tick % 100 == 0) publishCounts();
    // Positions that can't go now are stale by the next frame; commands wait for it.
    if (!sim::handOver(e.out)) {
        e.out.positions.clear();
        ++e.positionsLost;
    }
    core::gRun.engineTick.fetch_add(1, std::memory_order_relaxed);
}

namespace {

void onLiveCreated(const sim::LiveCreated& ev) {
    auto& e = gEngine;
    LiveAc* ac = findByHexid(ev.hexid);
    if (!ac) {
        // Its record went while the simulator was creating it: the object goes too.
        core::log(fmt::format("hexid {} created as object {} but no longer wanted", ev.hexid, ev.objectId));
        e.removeQueue.push_back(ev.objectId);
        return;
    }
    if (onCreated(*ac, ev)) e.pending.push_back({ev.objectId, ev.hexid, false, 0});
}

void onCreationFailed(const sim::CreationFailed& ev) {
    auto& e = gEngine;
    LiveAc* ac = findByHexid(ev.hexid);
    if (!ac) return;
    if (!ac->liveryTitle.empty()) {
        core::log(fmt::format("{} '{}' could not be created by your Sim!", describeAc(*ac), ac->liveryTitle));
        liveries::refuseTitle(ac->liveryTitle);
    }
    e.rememberedLiveries.erase(ev.hexid);
    ac->dropSilently = true;
    std::erase(e.addingStack, ev.hexid);
}

// One handler a kind of message, for std::visit.
struct EventHandler {
    void operator()(const sim::LiveCreated& ev) const { onLiveCreated(ev); }
    void operator()(const sim::StaticCreated& ev) const {
        gEngine.pending.push_back({ev.objectId, ev.hexid, true, 0});
        parking::onStaticCreated(ev.hexid, ev.objectId);
    }
    void operator()(const sim::ObjectRemoved& ev) const {
        if (!parking::onObjectRemoved(ev.objectId)) onRemoved(ev.objectId);
    }
    void operator()(const sim::ForeignInRange& ev) const {
        if (LiveAc* ac = findByObjectId(ev.objectId))
            inRangeReport(*ac, ev.onGround, ev.groundAltitude, ev.heightAgl);
    }
    void operator()(const sim::StaticData& ev) const {
        if (LiveAc* ac = findByObjectId(ev.objectId)) takeStaticData(*ac, ev.cgHeightFt, ev.staticPitch);
    }
    void operator()(const sim::Blocked& ev) const { onBlocked(ev.hexid); }
    void operator()(const sim::CreationFailed& ev) const { onCreationFailed(ev); }
};

} // namespace

void onEvent(const sim::SimEvent& ev) {
    std::visit(EventHandler{}, ev);
}

void handleEvents() {
    auto& e = gEngine;
    sim::takeEvents(e.events);
    for (const auto& ev : e.events) onEvent(ev);
    if (std::any_of(e.liveTable.begin(), e.liveTable.end(), [](const LiveAc& a) { return a.dropSilently; }))
        compactTable();
    handlePending();
}

void handlePending() {
    auto& e = gEngine;
    for (auto& p : e.pending) {
        ++p.count;
        if (p.isStatic) {
            if (p.count == 200) p.count = -1; // static aircraft get their lights with their records
            continue;
        }
        if (p.count != 50 && p.count != 100 && p.count != 200) continue;
        LiveAc* ac = findByObjectId(p.objectId);
        if (!ac) {
            p.count = -1;
            continue;
        }
        if (p.count < 200) {
            command(ac->objectId, sim::kAllLightsToggle, 0);
            continue;
        }
        const auto id = ac->objectId;
        const bool airborne = !ac->onGround;
        if (airborne) {
            command(id, sim::kEngineAutoStart, 0);
            setSpoilers(*ac, false);
            const bool low = ac->alt <= 10000.0;
            setLights(id, true, true, low, false, true, low, ac->heightAgl >= 2000.0);
        } else {
            setSpoilers(*ac, false);
            const bool parked = ac->phase == Phase::Parked;
            const bool nav =
                parked ? params::gParams.NAV_LIGHTS_WHILE_PARKED.load(std::memory_order_relaxed) : true;
            command(id, parked ? sim::kEngineAutoShutdown : sim::kEngineAutoStart, 0);
            setLights(id, nav, !parked, false, ac->phase == Phase::Taxi, false, true, true);
            setThrottle(*ac, ac->category == refdata::Category::Rotorcraft ? 4 : 0);
            setFlaps(*ac, ac->phase == Phase::Taxi ? 1 : 0);
        }
        setSimState(*ac, SimState::Active);
        p.count = -1;
        if (ac->removeWhenCreated) removeAircraftFromSim(*ac);
    }
    std::erase_if(e.pending, [](const PendingObject& p) { return p.count < 0; });
}

Update updateLiveAc(LiveAc& ac) {
    try {
        if (ac.simState == SimState::Buffer) return handleBuffer(ac);
        if (ac.simState != SimState::Active) return Update::Keep;
        if (ac.stream.empty()) {
            core::log(
                fmt::format("{} stream empty ? {}, hexid:{}, objectid:{}, alt:{:.0f} ft, lalo:{}, TAS:{:.0f}",
                            core::timeText(), describeAc(ac), ac.hexid, ac.objectId, ac.alt,
                            fmt::format("{:.5f},{:.5f}", ac.lat, ac.lon), ac.tas));
            removeAircraftFromSim(ac);
            return Update::Keep;
        }
        if (gEngine.tick >= ac.stream[0].tick) {
            nextPosMain(ac);
            if (ac.simState != SimState::Active) return Update::Keep;
            ac.vsFps = ac.delta.vsTarget / 60.0;
            ac.tas = ac.stream.empty() || ac.stream[0].stationary ? 0.0 : ac.delta.tasTarget;
        }
        if (ac.simState == SimState::Active && !ac.stream.empty() && !ac.stream[0].stationary) advance(ac);
        if (ac.simState != SimState::Active) return Update::Keep;
        if (ac.objectId == 0) {
            core::log(fmt::format(
                "{} objectid=0? hexid: {},cs:{}, reg:{}, aimo:{} sz:{}", core::timeText(), ac.hexid,
                ac.callsign, ac.registration,
                fmt::format("{} {}", refdata::airlineCode(ac.airlineCode), refdata::modelCode(ac.modelCode)),
                ac.stream.size()));
            removeAircraftFromSim(ac);
            return Update::Keep;
        }
        gEngine.out.positions.push_back(
            {ac.lat, ac.lon, ac.pitch, ac.bank, ac.heading, ac.alt, ac.vsFps, ac.tas, ac.objectId});
    } catch (const std::exception& e) {
        logException("updateLiveAc", ac, e);
    }
    return (ac.dropNow || ac.dropSilently) ? Update::Drop : Update::Keep;
}

void pace() {
    auto& e = gEngine;
    if (e.tick % 10 == 0 && !e.removeQueue.empty()) {
        e.out.removes.push_back(e.removeQueue.front());
        e.removeQueue.erase(e.removeQueue.begin());
        ++e.removed;
    }
    if (!parking::gParking.removals.empty()) {
        e.removeQueue.insert(e.removeQueue.end(), parking::gParking.removals.begin(),
                             parking::gParking.removals.end());
        parking::gParking.removals.clear();
    }
    if (e.tick % 50 == 0) {
        const bool liveWaiting = !e.spawnQueue.empty();
        auto* queue = liveWaiting ? &e.spawnQueue : &e.staticSpawnQueue;
        // A live aircraft never waits for a static one: statics are prepared only on a free turn.
        if (!liveWaiting)
            if (auto c = parking::nextStatic()) {
                SpawnRequest r;
                r.init.Latitude = c->latitude, r.init.Longitude = c->longitude,
                r.init.Altitude = c->altitudeFt;
                r.init.Heading = c->headingDeg;
                r.init.OnGround = 1;
                r.callsign = std::move(c->callsign);
                r.livery = c->title;
                r.hexid = c->hexid;
                e.staticSpawnQueue.push_back(std::move(r));
            }
        // A static removed while it waited (a live aircraft took its stand) is never made.
        while (!liveWaiting && !queue->empty() && !parking::staticWanted(queue->front().hexid))
            queue->erase(queue->begin());
        if (!queue->empty()) {
            const auto& r = queue->front();
            sim::CreateRecord c;
            c.init = r.init;
            c.tailNumber = r.callsign;
            c.title = r.livery;
            c.hexid = r.hexid;
            e.out.creates.push_back(std::move(c));
            queue->erase(queue->begin());
            ++e.created;
        }
    }
}

// ---- Samples in ------------------------------------------------------------------------------

namespace {

// How fast an aircraft on the ground can have gone since its last point: a position farther than
// this is an outlier until the track goes on from it.
double reachKt(const LiveAc& ac) {
    return std::clamp(1.5 * ac.feedMovedKt + 30, kReachMinKt, kReachMaxKt);
}

double knotsBetween(double lat1, double lon1, double t1, double lat2, double lon2, double t2) {
    return core::distanceNm(lat1, lon1, lat2, lon2) / std::max(t2 - t1, 0.1) * 3600.0;
}

void decodeExisting(LiveAc* ac, const feed::TrafficSample& r, bool takenBack, bool keepSpeed = false);
// Takes a report the rules let through into the aircraft's stream.
void take(LiveAc* ac, const feed::TrafficSample& r, double feet, bool keepSpeed);

} // namespace

void decode(const feed::TrafficSample& r) {
    LiveAc* ac = findByHexid(r.hexid);
    if (!ac) {
        const bool twin =
            !r.callsign.empty() &&
            std::any_of(gEngine.liveTable.begin(), gEngine.liveTable.end(), [&](const LiveAc& a) {
                return a.callsign == r.callsign && a.modelCode == r.modelCode;
            });
        if (!twin) addNewAc(r);
        return;
    }
    decodeExisting(ac, r, false);
}

namespace {

// A report whose own time has run away from the time it came at, by a minute or more either way,
// is a broken time stamp: used alone it would freeze the aircraft (every later report would look
// old) or make up a speed. It is held; when the next report agrees with it the source's clock
// moved, and the reports are taken on the new clock from there.
bool clockAgrees(LiveAc& ac, const feed::TrafficSample& r) {
    const double arrivedS = (r.tick - ac.lastArrivalTick) / kTicksPerSecond;
    if (std::fabs(r.timestamp - ac.lastTimestamp - arrivedS) <= kClockJumpSeconds) return true;
    auto& j = ac.clockJump;
    const bool confirmed =
        j.tick != 0 && r.timestamp > j.stamp &&
        std::fabs(r.timestamp - j.stamp - (r.tick - j.tick) / kTicksPerSecond) <= kClockAgreeSeconds;
    if (!confirmed) {
        j = {r.timestamp, r.tick};
        return false;
    }
    ac.lastTimestamp = r.timestamp - arrivedS; // the last report's time on the new clock
    j = {};
    return true;
}

void decodeExisting(LiveAc* ac, const feed::TrafficSample& r, bool takenBack, bool keepSpeed) {
    if (ac->simState == SimState::LiveryRespawn || ac->simState == SimState::RemovingFromSim) return;
    const double t = r.timestamp;
    const auto noteAltitude = [&] {
        if (r.airborne) return airTrendAltitude(*ac, t, r.altitude);
        ac->airAltitudeCount = ac->airAltitudeNext = 0;
        return r.altitude;
    };
    double feet = r.altitude;
    if (ac->stream.empty()) feet = noteAltitude();
    if (!ac->stream.empty()) {
        const Sample& last = ac->stream.back();
        if (!clockAgrees(*ac, r)) return;
        const double prev = ac->lastTimestamp;
        switch (takenBack ? StandVerdict::Pass
                          : watchStanding(ac->standWatch, t, r.latitude, r.longitude, r.airborne)) {
        case StandVerdict::Pass:
            break;
        case StandVerdict::Drop:
            // Its reports still come: it stands, it is not lost.
            if (ac->holding) ac->holdStartTick = gEngine.tick;
            return;
        case StandVerdict::Anchor: {
            const LatLonPos at = anchorOf(ac->standWatch);
            feed::TrafficSample held = r;
            held.latitude = at.lat, held.longitude = at.lon, held.track = last.track;
            held.groundSpeed =
                t > prev ? knotsBetween(ac->lastFeedPos.lat, ac->lastFeedPos.lon, prev, at.lat, at.lon, t)
                         : 0.0;
            if (held.groundSpeed < 1.0) held.groundSpeed = 0;
            take(ac, held, feet, true);
            ac->lastFeedSpeed = r.groundSpeed; // the feed's own, which its next reports are judged by
            return;
        }
        }
        if (t <= prev + 1.0) return;
        // A feed that freezes on a moving aircraft on the ground repeats its last position and
        // then jumps: the repeats are set aside, so that it neither stops nor races to catch up.
        if (!r.airborne && ac->feedMovedKt > kFrozenAboveKt && t - prev <= kFrozenMaxSeconds &&
            core::distanceNm(ac->lastFeedPos.lat, ac->lastFeedPos.lon, r.latitude, r.longitude) *
                    core::kMetresPerNm <
                1.0)
            return;
        if (!r.airborne && !takenBack &&
            knotsBetween(ac->lastFeedPos.lat, ac->lastFeedPos.lon, prev, r.latitude, r.longitude, t) >
                reachKt(*ac)) {
            // Taken back when the track moves on from it, or stays there for a while: a feed that
            // hops between spots around a standing aircraft does neither.
            auto& a = ac->aside;
            const bool fresh = a.first > 0 && t > a.time && t - a.time <= kAsideMaxSeconds;
            const double fromAsideM =
                fresh ? core::distanceNm(a.lat, a.lon, r.latitude, r.longitude) * core::kMetresPerNm : 0.0;
            const bool stays = fresh && fromAsideM < kAsideSameSpotM;
            const bool movesOn =
                fresh && !stays &&
                knotsBetween(a.lat, a.lon, a.time, r.latitude, r.longitude, t) <= reachKt(*ac);
            if (stays && t - a.first < kAsideMaxSeconds) {
                a.time = t;
                return;
            }
            if (!stays && !movesOn) {
                a = {t, t, r.latitude, r.longitude};
                return;
            }
            // It goes at the speed the track goes on with: the jump itself was the feed catching up.
            feed::TrafficSample back = r;
            back.timestamp = a.time, back.latitude = a.lat, back.longitude = a.lon;
            back.groundSpeed = movesOn ? knotsBetween(a.lat, a.lon, a.time, r.latitude, r.longitude, t) : 0.0;
            a = {};
            decodeExisting(ac, back, true, true);
            decodeExisting(ac, r, true);
            return;
        }
        // Against the feed's own last speed: a wait or a coasting point made up here says 0 and
        // would shut out a moving aircraft for good.
        // A helicopter does stop in the air and go on from a hover.
        const double v = r.groundSpeed, lv = ac->lastFeedSpeed;
        if (ac->category != refdata::Category::Rotorcraft &&
            ((lv > 5 && v >= 10 * lv) || (v > 5 && lv >= 10 * v) || (lv <= 5 && v >= 80) ||
             (v <= 5 && lv >= 80))) {
            // On the ground, a taxi speed that goes on in report after report under a far higher
            // one is the feed's own: the high one was stale (a parked aircraft's 184 kt, then its
            // taxi at 10 kt).
            auto& j = ac->jumpedSpeed;
            const bool taxiUnderStale = !r.airborne && v > 5 && lv >= 10 * v;
            if (taxiUnderStale && j.count > 0 && std::fabs(v - j.kt) <= std::max(5.0, 0.2 * j.kt))
                j = {v, j.count + 1};
            else
                j = {v, taxiUnderStale ? 1 : 0};
            if (j.count < kNewSpeedReports) return;
        }
        ac->jumpedSpeed = {};
        feet = noteAltitude();
        if (ac->extrapolateCount < 1) {
            const double dHdg =
                std::fabs(core::angleDiff(last.track * core::kRadPerDeg, r.track * core::kRadPerDeg)) /
                core::kRadPerDeg;
            if (r.airborne && v > 120 && dHdg <= 1.0 && t - prev <= kAirThinningNm / (v / 3600.0)) return;
            if (!r.airborne && v <= 30 && dHdg <= 2.0 &&
                t - prev <= (v > 0 ? std::min(kGroundThinningNm / (v / 3600.0), kGroundThinningMaxSeconds)
                                   : kGroundThinningMaxSeconds)) {
                ac->thinned = toSample(r); // kept in case no report follows it
                return;
            }
        }
    }
    take(ac, r, feet, keepSpeed);
}

void take(LiveAc* ac, const feed::TrafficSample& r, double feet, bool keepSpeed) {
    const double t = r.timestamp;
    if (ac->simState == SimState::Buffer && !altitudeAcceptable(r.altitude)) return;
    if (!checkRespawn(*ac, r)) return;
    Sample sample = toSample(r);
    if (r.airborne) sample.alt = feet;
    // On the ground the feed's speed is often stale: a speed the positions contradict by more than
    // half is replaced by theirs, so that a taxiing aircraft neither races, stops nor "takes off".
    if (ac->lastTimestamp > 0 && t > ac->lastTimestamp) {
        const double measured = knotsBetween(ac->lastFeedPos.lat, ac->lastFeedPos.lon, ac->lastTimestamp,
                                             r.latitude, r.longitude, t);
        if (!r.airborne && !keepSpeed && t - ac->lastTimestamp >= 2.0 &&
            (measured < 1.0 ? r.groundSpeed > 5.0
                            : (r.groundSpeed > 1.25 * measured || r.groundSpeed < measured / 1.25)))
            sample.speed = sample.tas = measured < 1.0 ? 0.0 : measured;
        ac->feedMovedKt = measured;
    }
    ac->lastTimestamp = t;
    ac->lastArrivalTick = r.tick;
    ac->thinned.tick = 0;
    ac->lastFeedSpeed = r.groundSpeed;
    ac->lastFeedPos = {r.latitude, r.longitude};
    try {
        addSample(*ac, sample);
    } catch (const std::exception& e) {
        core::log(fmt::format("{} exception {}", "decodeExisting", e.what()));
    }
}

} // namespace

void addNewAc(const feed::TrafficSample& r) {
    AcIdentity id;
    id.modelCode = r.modelCode;
    id.registration = r.registration;
    if (!r.registration.empty())
        if (const auto rec = refdata::dbaseRecordOf(r.registration)) {
            if (rec->model) id.modelCode = rec->model;
            id.airlineCode = rec->airline;
        }
    if (!id.modelCode || refdata::modelCode(id.modelCode).empty()) return;
    if (!categoryEnabled(refdata::category(id.modelCode))) return;
    if (!altitudeAcceptable(r.altitude)) return;
    if (const refdata::AirlineId a = airlineOfCallsign(r.callsign)) id.airlineCode = a;
    id.origin = r.origin, id.destination = r.destination;
    id.callsign = r.callsign;
    id.flightA = r.callsign;
    auto& t = gEngine.liveTable;
    t.push_back(makeLiveAc(id, r.hexid, gEngine.rng));
    LiveAc& ac = t.back();
    ac.lastTimestamp = r.timestamp;
    ac.lastArrivalTick = r.tick;
    ac.lastFeedSpeed = r.groundSpeed;
    ac.lastFeedPos = {r.latitude, r.longitude};
    addSample(ac, toSample(r));
}

void addSample(LiveAc& ac, Sample s) {
    auto& st = ac.stream;
    if (st.size() > 200) {
        removeAircraftFromSim(ac);
        return;
    }
    if (ac.holding && !st.empty()) {
        const double nm = core::distanceNm(s.lat, s.lon, st[0].lat, st[0].lon);
        // Where it could have taxied in the time the feed said nothing (or repeated itself), it is
        // caught up with; only a place it cannot have reached makes it anew.
        const double seconds = s.feedTime - st[0].feedTime;
        const bool reachable = !s.airborne && seconds > 0 && nm / seconds * 3600.0 <= kHoldCatchUpKt;
        if (nm * core::kMetresPerNm >
            params::gParams.HOLDING_THRESHOLD_METERS.load(std::memory_order_relaxed)) {
            ac.holding = false;
            if (!reachable) {
                removeAircraftFromSim(ac);
                return;
            }
        }
    }
    const auto keepGrowing = [&] {
        if (!st.empty() && s.tick <= st.back().tick) s.tick = st.back().tick + 1;
    };
    if (ac.phase == Phase::Birth) {
        if (!filterSample(ac, s)) return;
        keepGrowing();
        smoothAirSpike(st, s);
        st.push_back(s);
        return;
    }
    if (!checkExtendingSituations(ac, s)) return;
    if (!st.empty() && !s.airborne && st.back().stationary) {
        if (s.stationary) {
            bool all = true;
            for (std::size_t i = 0; i < st.size(); ++i) all = all && st[i].stationary;
            if (all) st.truncate(1);
        } else if (st.size() >= 3) {
            // The last moving sample before the wait; a short wait, or none at all, is cut out.
            std::size_t q = st.size();
            for (std::size_t k = st.size() - 1, looked = 0; k > 0 && looked < 5; --k, ++looked)
                if (!st[k - 1].stationary) {
                    q = k - 1;
                    break;
                }
            if (q < st.size() && q > 0 &&
                (st.back().tick - st[q].tick < 1500 ||
                 core::distanceNm(s.lat, s.lon, st[q].lat, st[q].lon) <= 0.011879))
                st.truncate(q + 1);
        }
    }
    keepGrowing();
    takeOffChecks(ac, s);
    smoothAirSpike(st, s);
    st.push_back(s);
    if (st.size() == 2 && st[0].stationary && st[1].stationary) {
        st[0].tick = gEngine.tick + 1;
        st[0].speed = st[1].speed;
    }
}

void handleAddingStack() {
    auto& e = gEngine;
    if (e.addingStack.empty()) return;
    const std::uint32_t hexid = e.addingStack.back();
    e.addingStack.pop_back();
    LiveAc* ac = findByHexid(hexid);
    if (!ac) return;
    if (ac->callsign.empty()) {
        core::log(fmt::format("{} {} objectid = 0?", "handleAddingStack", describeAc(*ac)));
        return;
    }
    SpawnRequest r;
    r.init.Latitude = ac->lat;
    r.init.Longitude = ac->lon;
    r.init.Altitude = ac->alt;
    r.init.Pitch = ac->pitch / core::kRadPerDeg;
    r.init.Bank = ac->bank / core::kRadPerDeg;
    r.init.Heading = ac->heading / core::kRadPerDeg;
    r.init.OnGround = ac->onGround ? 1 : 0;
    r.init.Airspeed = static_cast<std::int32_t>(std::lround(ac->tas));
    r.callsign = ac->callsign;
    r.livery = ac->liveryTitle;
    r.hexid = hexid;
    e.spawnQueue.push_back(std::move(r));
}

void poll() {
    auto& e = gEngine;
    if (e.tick % 20 == 0) sim::requestInRange(params::gParams.radiusNm.load(std::memory_order_relaxed));
    if (e.tick % 100 == 0) {
        e.user = sim::requestUserPosition();
        e.userKnown = std::fabs(e.user.latitude) > 0.0001 || std::fabs(e.user.longitude) > 0.0001;
        e.userOnGround = sim::userOnGround();
    }
}

// ---- The buffer and spawning -----------------------------------------------------------------

Update handleBuffer(LiveAc& ac) {
    auto& e = gEngine;
    auto& st = ac.stream;
    const auto drop = [&] {
        ac.dropNow = true;
        return Update::Drop;
    };
    if (st.empty()) return drop();
    const bool movingOnGround = !st[0].airborne && !st[0].stationary;
    if (e.tick < st[0].tick - (movingOnGround ? 300 : 100)) return Update::Keep;
    if (st.size() < 2 || inGhostList(ac.callsign)) return drop();
    bool air = false, ground = false;
    for (std::size_t i = 0; i < st.size(); ++i) (st[i].airborne ? air : ground) = true;
    if (air && ground) {
        st.pop_front();
        return Update::Keep;
    }
    if (userProximity(ac)) return Update::Keep;
    if (e.spawnQueue.size() > 10 && ac.phase == Phase::Birth) {
        st.pop_front();
        return Update::Keep;
    }
    const int maxLive = params::gParams.MAX_LIVE_SEL.load(std::memory_order_relaxed);
    if (maxLive == 0) return drop();
    if (e.spawnQueue.size() + e.addingStack.size() + activeCount() >= static_cast<std::size_t>(maxLive)) {
        // Room is made by the aircraft farthest from the user, when this one is nearer.
        const double mine = distanceToUser(ac);
        LiveAc* farthest = nullptr;
        double far = mine + 0.1;
        for (auto& a : e.liveTable)
            if (a.simState == SimState::Active && distanceToUser(a) > far)
                far = distanceToUser(a), farthest = &a;
        if (!farthest) return drop();
        core::log(fmt::format("{} makes room for {}", describeAc(*farthest), describeAc(ac)));
        removeAircraftFromSim(*farthest);
    }
    if (!params::gParams.BLOCK_CALLSIGN.empty() && ac.callsign == params::gParams.BLOCK_CALLSIGN)
        return drop();
    // fixModel: the registration knows the type best.
    if (!ac.registration.empty())
        if (const auto rec = refdata::dbaseRecordOf(ac.registration); rec && rec->model)
            ac.modelCode = rec->model;
    if (!ac.airlineCode && refdata::modelCode(ac.modelCode).empty())
        ac.airlineCode = refdata::airlineId("PVT");
    if (!callsignOk(ac) || ghostExists(ac.callsign)) return drop();
    if (!ac.registration.empty() && e.failedLiveries.contains(failedKey(ac))) return drop();
    return spawnLiveAc(ac);
}

Update spawnLiveAc(LiveAc& ac) {
    auto& e = gEngine;
    auto& st = ac.stream;
    if (st.size() < 2) {
        core::log(fmt::format("{} sz:{}", describeAc(ac), st.size()));
        return Update::Keep;
    }
    if (st[1].stationary) {
        st[0].speed = st[1].speed = 0;
        st[0].stationary = true;
        if (st.size() > 2 && st[2].stationary) st[2].speed = 0;
    } else {
        st[0].stationary = false;
    }
    if (ac.phase == Phase::Birth && ac.liveryTitle.empty()) {
        if (const auto it = e.rememberedLiveries.find(ac.hexid); it != e.rememberedLiveries.end()) {
            ac.liveryTitle = it->second;
        } else {
            const auto m = matchLivery(ac);
            if (m.title.empty()) {
                if (!ac.registration.empty()) {
                    if (e.failedLiveries.size() >= kMaxRemembered) e.failedLiveries.clear();
                    e.failedLiveries.insert(failedKey(ac));
                }
                noteNoMatch(ac);
                ac.dropNow = true;
                return Update::Drop;
            }
            ac.liveryTitle = m.title;
            ac.liveryStep = m.step;
            if (e.rememberedLiveries.size() >= kMaxRemembered) e.rememberedLiveries.clear();
            e.rememberedLiveries.emplace(ac.hexid, m.title);
        }
    }
    const Sample& head = st[0];
    if (head.airborne) {
        setPhase(ac, Phase::Flying);
        ac.onGround = false;
    } else if (parkAtSpawn(ac)) {
        setPhase(ac, Phase::Parked);
        ac.onGround = true;
    } else if (st[1].stationary) {
        st.pop_front();
        return Update::Keep;
    } else {
        setPhase(ac, Phase::Taxi);
        ac.onGround = true;
    }
    queueRoute(ac);
    const Sample& h = st[0];
    ac.lat = h.lat, ac.lon = h.lon;
    ac.alt = h.airborne ? h.alt : groundAltitude(ac);
    ac.tas = h.tas;
    if (h.airborne) {
        const double vs = h.vs < 0 ? std::max(h.vs, -3000.0) / 2 : std::min(h.vs, 2400.0);
        ac.pitch = -0.05236 - vs / 600.0 * 2.2 * core::kRadPerDeg;
        ac.bank = h.hasBank ? h.bank : 0.0;
    } else {
        ac.pitch = 0.0104720;
        ac.bank = 0;
    }
    if (ac.hasSpawnHeading)
        ac.heading = ac.spawnHeading;
    else if (ac.phase == Phase::Parked)
        ac.heading = ac.stand.heading;
    else if (st[1].stationary)
        ac.heading = h.track * core::kRadPerDeg;
    else
        ac.heading = core::bearingRad(h.lat, h.lon, st[1].lat, st[1].lon);
    ac.targetHeading = ac.heading;
    setSimState(ac, SimState::Adding2Sim);
    e.addingStack.push_back(ac.hexid);
    ghostRemove(ac.callsign);
    return Update::Keep;
}

bool onCreated(LiveAc& ac, const sim::LiveCreated& ev) {
    if (ev.objectId < 3) return false;
    ac.objectId = ev.objectId;
    ac.heightAgl = ev.heightAgl;
    if (ac.onGround) setOnGroundFlags(ac);
    if (!ac.origin.empty() && !ac.destination.empty()) {
        // The file is written beside the frame, once a second: the frame does no file work.
        sim::PlanAircraft p;
        p.hexid = ac.hexid, p.objectId = ac.objectId;
        p.category = static_cast<int>(ac.category);
        p.origin = std::string(ac.origin.view()), p.destination = std::string(ac.destination.view());
        p.name = describeAc(ac);
        gEngine.plansToWrite.push_back(std::move(p));
        ac.flightPlanCreated = true;
    }
    gEngine.out.staticData.push_back(ac.objectId); // the client thread asks the simulator
    return true;
}

bool checkRespawn(LiveAc& ac, const feed::TrafficSample& r) {
    if (ac.phase == Phase::PushingBack || ac.extrapolateCount >= 1 || ac.takingOff || ac.landingFlags.landing)
        return true;
    if (ac.simState == SimState::Buffer) {
        if (ac.origin.empty()) ac.origin = r.origin;
        if (ac.destination.empty()) ac.destination = r.destination;
        if (ac.callsign.empty() && !r.callsign.empty()) ac.callsign = ac.flightA = r.callsign;
        if (ac.registration.empty() && !r.registration.empty()) ac.registration = r.registration;
        return true;
    }
    if (ac.simState != SimState::Active) return true;
    if (mergeRoute(ac, r.origin, r.destination) && ac.onGround && ac.phase != Phase::Taxi)
        setPhase(ac, Phase::Taxi);
    bool newLivery = false;
    if (!r.registration.empty() && r.registration != ac.registration) {
        ac.registration = r.registration;
        if (const auto rec = refdata::dbaseRecordOf(r.registration)) {
            if (rec->model && rec->model != ac.modelCode) ac.modelCode = rec->model;
            if (rec->airline) ac.airlineCode = rec->airline;
        }
        const auto m = matchLivery(ac);
        if (!m.title.empty() && m.title != ac.liveryTitle) {
            ac.liveryTitle = m.title;
            ac.liveryStep = m.step;
            if (const auto it = gEngine.rememberedLiveries.find(ac.hexid);
                it != gEngine.rememberedLiveries.end())
                it->second = m.title;
            newLivery = true;
        }
    }
    if (!r.callsign.empty() && r.callsign != ac.callsign) {
        ac.callsign = ac.flightA = r.callsign;
        if (const refdata::AirlineId a = airlineOfCallsign(r.callsign)) ac.airlineCode = a;
        // Under a ghost's name beside its real twin it is the copy now, and goes.
        if (ghostExists(ac.callsign)) {
            core::log(
                fmt::format("          {:8} became a ghost of a live aircraft and is removed", ac.callsign));
            removeAircraftFromSim(ac);
            return false;
        }
        ghostRemove(ac.callsign);
    }
    if (newLivery && params::gParams.GUID_CHANGES.load(std::memory_order_relaxed)) {
        core::log(fmt::format("          {} respawns", describeAc(ac)));
        liveryRespawn(ac);
        return false;
    }
    return true;
}

bool mergeRoute(LiveAc& ac, const refdata::IataCode& origin, const refdata::IataCode& destination) {
    const bool hadRoute = !ac.origin.empty() && !ac.destination.empty();
    if (!hadRoute) {
        // Each side fills only an empty one.
        if (ac.origin.empty()) ac.origin = origin;
        if (ac.destination.empty()) ac.destination = destination;
        return false;
    }
    if (origin.empty() || destination.empty() || (origin == ac.origin && destination == ac.destination))
        return false;
    // A route to or from the user's airport is the one that matters for its stands: it stays.
    const auto here = currentAirport();
    if (here && !here->iata.empty() && (ac.origin == here->iata || ac.destination == here->iata))
        return false;
    ac.origin = origin, ac.destination = destination;
    return true;
}

void queueRoute(LiveAc& ac) {
    auto& e = gEngine;
    if (ac.routeLookedUp) return;
    for (std::size_t i = 0; i < e.routeCount; ++i)
        if (e.routeQueue[(e.routeHead + i) % e.routeQueue.size()] == ac.hexid) return;
    if (e.routeCount == e.routeQueue.size()) return; // asked again at its next event
    e.routeQueue[(e.routeHead + e.routeCount) % e.routeQueue.size()] = ac.hexid;
    ++e.routeCount;
}

void liveryRespawn(LiveAc& ac) {
    Sample now = ac.stream.empty() ? Sample{} : ac.stream[0];
    now.lat = ac.lat, now.lon = ac.lon, now.alt = ac.alt;
    now.tick = gEngine.tick + 1;
    if (ac.phase == Phase::Parked) {
        ac.stream.clear();
        now.stationary = true;
        now.track = ac.heading / core::kRadPerDeg;
    }
    ac.stream.push_front(now);
    ac.simState = SimState::LiveryRespawn;
    ac.spawnHeading = ac.heading;
    ac.hasSpawnHeading = true;
    if (ac.objectId == 0)
        core::log(fmt::format("{} removing act {} with objectid=0 ?", core::timeText(), describeAc(ac)));
    else
        gEngine.removeQueue.push_back(ac.objectId);
}

// ---- Motion ----------------------------------------------------------------------------------

void nextPosMain(LiveAc& ac) {
    auto& st = ac.stream;
    for (;;) {
        while (st.size() < 2) {
            if (!noNewData(ac)) {
                removeAircraftFromSim(ac);
                return;
            }
        }
        if (!ac.onGround && ac.category != refdata::Category::Rotorcraft && st[1].stationary) {
            st.erase(1);
            continue;
        }
        break;
    }
    nextPos(ac);
}

std::int32_t retime(const LiveAc& ac, std::int32_t wanted) {
    if (ac.stream.size() >= 2 && ac.extrapolateCount < 1) {
        const std::int32_t t = ac.stream[1].tick;
        wanted = std::clamp(wanted, t - ac.earlyLimit, t + ac.lateLimit);
    }
    return speedCap(ac, std::max(wanted, gEngine.tick));
}

std::int32_t speedCap(const LiveAc& ac, std::int32_t tick) {
    const auto& st = ac.stream;
    if (st.size() < 2 || st[1].stationary) return tick;
    // Catching up on a late schedule is fine, but not at a speed the aircraft can't have: at most
    // a quarter faster than the faster of its two points, and 10 kt more.
    const double vmax = 1.25 * std::max({st[0].speed, st[1].speed, 10.0}) + 10.0;
    const double d = core::distanceNm(ac.lat, ac.lon, st[1].lat, st[1].lon);
    const auto least = static_cast<std::int32_t>(std::ceil(d * 360000.0 / vmax));
    return std::max(tick, gEngine.tick + least);
}

void nextPos(LiveAc& ac) {
    auto& st = ac.stream;
    ac.curve.reset();
    Sample& s1 = st[1];
    if (std::fabs(s1.lat - st[0].lat) < 1e-8 && std::fabs(s1.lon - st[0].lon) < 1e-8) s1.stationary = true;
    if (!s1.stationary) ac.targetHeading = core::bearingRad(st[0].lat, st[0].lon, s1.lat, s1.lon);
    if (ac.onGround)
        nextPosGround(ac);
    else
        nextTimeAir(ac);
    if (st.size() < 2) return;
    if (st[1].stationary) {
        ac.delta.lat = ac.delta.lon = 0;
        if (!ac.landingFlags.rollout && !ac.takingOff) {
            ac.earlyLimit = std::max(1000, ac.earlyLimit - 100);
            ac.lateLimit = std::max(1000, ac.lateLimit - 100);
        }
    } else {
        const std::int32_t dt = std::max(st[1].tick - gEngine.tick, 25);
        ac.delta.lat = (st[1].lat - ac.lat) / dt;
        ac.delta.lon = (st[1].lon - ac.lon) / dt;
        if (ac.onGround)
            setGroundSegment(ac, dt);
        else
            setAirSegment(ac, dt);
    }
    st.pop_front();
}

double avgSpeed(const LiveAc& ac) {
    const auto& st = ac.stream;
    const double v = (st[0].speed + st[1].speed) / 2.0;
    if (st[0].speed != 0 || st[1].speed != 0) return v;
    const double d = core::distanceNm(st[0].lat, st[0].lon, st[1].lat, st[1].lon);
    return std::max(d * 360000.0 / std::max(st[1].tick - st[0].tick, 25), 1.0);
}

void nextTimeAir(LiveAc& ac) {
    auto& st = ac.stream;
    if (st[1].stationary) {
        if (ac.category == refdata::Category::Rotorcraft) nextTimeGround(ac);
        return;
    }
    double speed = avgSpeed(ac);
    if (ac.landingFlags.landing && !st[1].airborne) speed = st[0].speed > 0 ? st[0].speed : 100.0;
    const double d = core::distanceNm(ac.lat, ac.lon, st[1].lat, st[1].lon);
    const double dt = std::round(d * 360000.0 / speed);
    const auto ticks = gsl::narrow<std::int32_t>(std::max(dt, 25.0));
    st[1].tick = retime(ac, gEngine.tick + ticks);
}

bool noNewData(LiveAc& ac) {
    auto& st = ac.stream;
    if (st.empty()) return false;
    if (ac.phase == Phase::Parking) arrived(ac);
    // A report thinned out as adding nothing on a straight line is the last word when none came
    // after it: the aircraft goes on to it instead of stopping short.
    if (ac.thinned.tick > 0 && ac.onGround) {
        const Sample last = ac.thinned;
        ac.thinned.tick = 0;
        const std::size_t before = st.size();
        addSample(ac, last);
        if (st.size() > before) return true;
    }
    const bool taxiing = (ac.phase == Phase::Taxi && !ac.takingOff && !ac.landingFlags.rollout) ||
                         ac.phase == Phase::PushedBack;
    if (taxiing) {
        for (const auto& other : gEngine.liveTable) {
            if (&other == &ac || other.simState != SimState::Active || !other.onGround ||
                other.phase != Phase::Taxi || other.objectId == ac.objectId)
                continue;
            if (core::distanceNm(ac.lat, ac.lon, other.lat, other.lon) <=
                1.2 * (ac.halfSize + other.halfSize)) {
                ac.holding = false;
                return false;
            }
        }
        if (ac.holding) {
            if (params::gParams.AIRBORNE_ONLY.load(std::memory_order_relaxed)) return false;
            if ((gEngine.tick - ac.holdStartTick) / 6000 >
                params::gParams.MAX_HOLDING_MINUTES.load(std::memory_order_relaxed))
                return false;
        } else {
            ac.holding = true;
            ac.holdStartTick = gEngine.tick;
        }
        ac.extrapolateCount = 1;
        Sample wait = st[0];
        wait.tick += 300;
        wait.speed = 0;
        wait.stationary = true;
        st.push_back(wait);
        return true;
    }
    if (ac.extrapolateCount < 0) return false;
    if (ac.extrapolateCount == 1) {
        ac.extrapolateCount = -1;
        return false;
    }
    if (ac.extrapolateCount > 1) {
        extrapolate(ac, ac.extrapolateCount - 1);
        return true;
    }
    if (!categoryEnabled(ac.category)) return false;
    std::int32_t n;
    if (!ac.onGround) {
        if (gEngine.userKnown &&
            distanceToUser(ac) >= params::gParams.radiusNm.load(std::memory_order_relaxed) - 0.5)
            return false;
        if (params::gParams.AIRBORNE_ONLY.load(std::memory_order_relaxed))
            n = std::fabs(ac.alt - (currentAirport() ? currentAirport()->elevation : 0.0)) <= 1000.0 ? 0 : 8;
        else
            n = 8;
    } else {
        n = ac.phase == Phase::Parked ? 1 : 10;
    }
    if (n == 0) return false;
    extrapolate(ac, n);
    return true;
}

void extrapolate(LiveAc& ac, std::int32_t n) {
    ac.extrapolateCount = n;
    auto& st = ac.stream;
    Sample s = st[0];
    const bool parked = ac.phase == Phase::Parked;
    if (s.stationary || parked) {
        s.speed = 0;
    } else if (!ac.onGround) {
        if (!ac.landingFlags.landing)
            s.speed = std::max(s.speed * 0.95, 1.0);
        else if (n >= 4)
            s.speed = std::max(s.speed * 0.9, 1.0);
    } else if (ac.takingOff) {
        const double v = s.speed;
        if (v <= 30)
            s.speed = 40;
        else if (v <= 60)
            s.speed = 80;
        else if (v <= 100)
            s.speed = 110;
        else if (v <= 140)
            s.speed = 150, s.vs = 600;
        else if (v <= 160)
            s.speed = 170, s.vs = 1200;
        else
            s.speed = 180, s.vs = 2400;
    } else if (ac.landingFlags.rollout) {
        const double v = s.speed;
        s.speed = v >= 140 ? 100 : v >= 100 ? 80 : v >= 80 ? 60 : v >= 60 ? 30 : 20;
        s.vs = 0;
    } else {
        s.speed = 0;
        s.stationary = true;
    }
    const double seconds = ac.onGround ? 3.0 : 8.0;
    if (s.speed > 0) {
        const double d = s.speed * seconds / 3600.0 / 60.0; // degrees of arc
        const double hdg = ac.heading;
        s.lat += d * std::cos(hdg);
        s.lon += d * std::sin(hdg) / std::max(std::cos(s.lat * core::kRadPerDeg), 1e-6);
        s.stationary = false;
    }
    if (ac.landingFlags.landing && ac.landingFlags.flareStage == 0) {
        s.alt -= 10.005 * seconds;
        s.vs = -667;
    } else if (ac.phase == Phase::TakeOff) {
        s.alt += 25 * 10.005 * seconds;
        s.vs = 1500;
    }
    s.airborne = s.alt > 0;
    s.alt = std::max(s.alt, 0.0);
    if (parked) {
        s.tick += 604800 * 100;
        ac.atStand = false;
    } else {
        s.tick += static_cast<std::int32_t>(seconds * 100);
    }
    st.push_back(s);
}

void advance(LiveAc& ac) {
    const double lat0 = ac.lat, lon0 = ac.lon;
    if (ac.curve.has_value()) {
        ac.curve->t = std::clamp(ac.curve->t + ac.curveStep, 0.0, 0.999999);
        double tangent = 0;
        if (!evaluateCurve(ac, tangent)) {
            core::log(fmt::format("{} error in curve at index: {:.2F}", describeAc(ac), ac.curve->t));
        } else {
            if (ac.phase == Phase::PushingBack) tangent += core::kPi;
            const double d = core::angleDiff(ac.heading, tangent);
            if (std::fabs(d) > 0.5 * core::kRadPerDeg)
                ac.heading += std::clamp(d, -ac.currentTurnRate, ac.currentTurnRate);
        }
    } else {
        switch (ac.phase) {
        case Phase::TakeOff:
        case Phase::Flying:
        case Phase::Parked:
        case Phase::Birth:
            ac.heading += ac.delta.heading;
            break;
        default:
            break;
        }
        if (ac.phase == Phase::Parking || ac.turningInPlace) {
            const double d = core::angleDiff(ac.heading, ac.targetHeading);
            if (std::fabs(d) > 0.5 * core::kRadPerDeg)
                ac.heading += std::clamp(d, -ac.currentTurnRate, ac.currentTurnRate);
        }
        if (ac.phase != Phase::PushedBack) ac.lat += ac.delta.lat, ac.lon += ac.delta.lon;
    }
    // Whatever the points ask, an aircraft on the ground never moves faster in a frame than its
    // speed allows: a longer step is cut short, and the frames after catch up.
    if (ac.onGround && ac.stream.size() >= 1) {
        const auto& st = ac.stream;
        const double v = std::max(st[0].speed, st.size() > 1 ? st[1].speed : 0.0);
        const double capNm = std::max(kGroundStepMinKt, kGroundStepFactor * v) / 360000.0;
        // A frame's step is metres: flat earth is exact enough, and one cosine is cheap.
        const double northNm = (ac.lat - lat0) * 60.0;
        const double eastNm = (ac.lon - lon0) * 60.0 * std::cos(lat0 * core::kRadPerDeg);
        const double d2 = northNm * northNm + eastNm * eastNm;
        if (d2 > capNm * capNm) {
            const double f = capNm / std::sqrt(d2);
            ac.lat = lat0 + (ac.lat - lat0) * f;
            ac.lon = lon0 + (ac.lon - lon0) * f;
        }
    }
    attitude(ac);
    if (ac.onGround && !ac.landingFlags.derotating) ac.pitch = ac.groundPitch, ac.bank = 0;
    ac.heading = std::fmod(ac.heading, 2 * core::kPi);
    if (ac.heading < 0) ac.heading += 2 * core::kPi;
    if (ac.lon > 180) ac.lon -= 360;
    if (ac.lon < -180) ac.lon += 360;
    if (ac.lat > 90) ac.lat = 180 - ac.lat, ac.lon += ac.lon > 0 ? -180 : 180;
    if (ac.lat < -90) ac.lat = -180 - ac.lat, ac.lon += ac.lon > 0 ? -180 : 180;
}

// ---- What the rest of the program asks of the engine -----------------------------------------

void drainEvents() {
    gEngine.tick = core::gRun.engineTick.load(std::memory_order_relaxed);
    handleEvents();
    if (!sim::handOver(gEngine.out)) gEngine.out.positions.clear();
}
void writeFlightPlans() {
    auto& e = gEngine;
    for (const auto& p : e.plansToWrite) sim::loadPlan(p);
    e.plansToWrite.clear();
    for (const auto hexid : e.plansToRemove) {
        std::error_code ec;
        fs::remove(sim::planPath(hexid), ec);
        if (ec) core::log(fmt::format("removeFlightPlan: {}", ec.message()));
    }
    e.plansToRemove.clear();
}

namespace {
// Set by the worker before the loop, called by it in the one-second step.
FlightLookup flightLookup;

void copyFlights(LiveAc& ac) {
    if (!flightLookup) return;
    if (auto flights = flightLookup(ac))
        ac.flightA = std::move(flights->first), ac.flightB = std::move(flights->second);
}
} // namespace

void setFlightLookup(FlightLookup lookup) {
    flightLookup = std::move(lookup);
}

void routeQueueStep() {
    auto& e = gEngine;
    if (e.routeCount == 0) return;
    const std::uint32_t hexid = e.routeQueue[e.routeHead];
    e.routeHead = (e.routeHead + 1) % e.routeQueue.size();
    --e.routeCount;
    LiveAc* ac = findByHexid(hexid);
    if (!ac || ac->routeLookedUp) return;
    ac->routeLookedUp = true;
    copyFlights(*ac);
    if (ac->simState == SimState::Active) sameFlightSweep(*ac);
}

void logNoMatchList() {
    auto& e = gEngine;
    if (e.noMatch.empty()) return;
    std::string text = "\nNo match found for:";
    for (const auto& line : e.noMatch) text += fmt::format("\n{}", line.data());
    if (e.noMatchDropped) text += fmt::format("\n... and {} more", e.noMatchDropped);
    core::log(text + "\n");
    e.noMatch.clear();
    e.noMatchDropped = 0;
}
std::vector<std::string> noMatchList() {
    std::vector<std::string> out;
    for (const auto& line : gEngine.noMatch) out.emplace_back(line.data());
    return out;
}

void publishCallsignLookup() {}
void removeAllLive() {
    removeAll();
}
void writeObjectIdList() {}
void reset() {
    gEngine.reset();
    publishCounts();
}

void resetSamplesTaken() {
    gEngine.taken = 0;
    published.taken.store(0, std::memory_order_relaxed);
}

std::uint64_t samplesTaken() noexcept {
    return published.taken.load(std::memory_order_relaxed);
}

LiveCounts liveCounts() noexcept {
    LiveCounts c;
    c.active = published.active.load(std::memory_order_relaxed);
    c.buffered = published.buffered.load(std::memory_order_relaxed);
    c.creating = published.creating.load(std::memory_order_relaxed);
    c.leaving = published.leaving.load(std::memory_order_relaxed);
    c.spawnQueue = published.queue.load(std::memory_order_relaxed);
    return c;
}

void forEachLive(const std::function<void(const LiveAc&)>& fn) {
    for (const auto& ac : gEngine.liveTable) fn(ac);
}

} // namespace orv::live
