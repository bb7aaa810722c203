// The live aircraft engine: the frame that runs 100 times a second on the worker.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "refdata/refdata.h"

namespace orv::live {

// ---- The record of a live aircraft -----------------------------------------------------------

// The codes and names that decoded lines, live and static aircraft share.
struct AcIdentity {
    refdata::AirlineId airlineCode = 0;
    refdata::ModelId modelCode = 0;
    refdata::IataCode origin, destination;
    bool routeLookedUp = false;
    std::string callsign, flightA, flightB, registration;
};

// One point of the path: where the aircraft shall be at `tick`.
struct Sample {
    double lat = 0, lon = 0, alt = 0, speed = 0, track = 0, vs = 0, tas = 0;
    std::int32_t tick = 0;
    bool airborne = false, stationary = false, hasFeedHeading = false;
    double bank = 0;
    bool hasBank = false;
    double trueHeading = 0;
    bool hasTrueHeading = false;
    double feedTime = 0; // seconds of the feed; 0 for a point made up here
};

// The path ahead of an aircraft, element 0 the point already reached. A ring of fixed size inside
// the record, so that adding and dropping samples in the frame never allocates.
class SampleStream {
  public:
    static constexpr std::size_t kCapacity = 256;
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    bool full() const noexcept { return size_ == kCapacity; }
    Sample& operator[](std::size_t i) noexcept { return items_[(head_ + i) % kCapacity]; }
    const Sample& operator[](std::size_t i) const noexcept { return items_[(head_ + i) % kCapacity]; }
    Sample& front() noexcept { return (*this)[0]; }
    const Sample& front() const noexcept { return (*this)[0]; }
    Sample& back() noexcept { return (*this)[size_ - 1]; }
    const Sample& back() const noexcept { return (*this)[size_ - 1]; }
    // False when full: the sample is not taken.
    bool push_back(const Sample& s) noexcept {
        if (full()) return false;
        items_[(head_ + size_) % kCapacity] = s;
        ++size_;
        return true;
    }
    bool push_front(const Sample& s) noexcept {
        if (full()) return false;
        head_ = (head_ + kCapacity - 1) % kCapacity;
        items_[head_] = s;
        ++size_;
        return true;
    }
    void pop_front() noexcept {
        if (size_ == 0) return;
        head_ = (head_ + 1) % kCapacity;
        --size_;
    }
    void pop_back() noexcept {
        if (size_ > 0) --size_;
    }
    void erase(std::size_t i) noexcept {
        if (i >= size_) return;
        for (std::size_t k = i; k + 1 < size_; ++k) (*this)[k] = (*this)[k + 1];
        --size_;
    }
    void truncate(std::size_t n) noexcept {
        if (n < size_) size_ = n;
    }
    void clear() noexcept { size_ = head_ = 0; }

  private:
    std::array<Sample, kCapacity> items_{};
    std::size_t head_ = 0, size_ = 0;
};

enum class SimState : std::uint32_t {
    Buffer = 0,
    Adding2Sim = 1,
    Active = 2,
    LiveryRespawn = 3,
    RemovingFromSim = 4
};
enum class Phase : std::uint32_t {
    PushingBack = 0,
    PushedBack = 1,
    Taxi = 2,
    TakeOff = 3,
    Flying = 4,
    Parking = 5,
    Parked = 6,
    Birth = 7
};

// What a category of aircraft does: speeds, rates and the lengths of its manoeuvres.
struct CategoryData {
    std::string_view name;
    double rotateSpeed, maxClimbStep, standSpeed;
    double turnRate, rotatePitch, climbPitch; // radians (per tick for the turn rate)
    std::int32_t flareTicks, derotateTicks, rotateTicks, liftoffTicks;
    double maxBank, maxBankRate, maxPitchRate; // radians, and radians per tick
};
const CategoryData& categoryData(refdata::Category c) noexcept;

struct LatLonPos {
    double lat = 0, lon = 0;
};

// The curve of a ground segment: a quadratic Bezier in metres east and north of `origin`.
struct GroundCurve {
    LatLonPos origin;
    double controlX = 0, controlY = 0, endX = 0, endY = 0;
    double t = 0; // how far along, 0 to 1
};

// What was last sent to the aircraft's controls; only a change goes out.
struct Controls {
    std::int32_t throttleIndex = 5, flapsIndex = 4; // 5 and 4: not set yet, so the first set goes out
    std::int8_t gearState = -1, spoilersState = -1; // -1: not set yet
    std::uint16_t lightsKnown = 0, lightsOn = 0;    // one bit a light, in the order of the events
};

// What each tick adds to the position block, and the speeds the aircraft is heading for.
struct MotionDeltas {
    double lat = 0, lon = 0, pitch = 0, bank = 0, heading = 0, alt = 0; // per tick
    double vsTarget = 0, tasTarget = 0;
};

// The stand an aircraft is led to, and how its distance to it went.
struct StandTarget {
    LatLonPos pos;
    double heading = 0;
    std::int32_t id = 0;
    bool cargo = false;
    double firstDistance = 0, lastDistance = 0;
    std::int32_t distanceCount = 0;
};

// The landing and what follows it: flare, touchdown, de-rotation, roll-out, or a go-around.
struct LandingFlags {
    bool landing = false, justLanded = false, goAround = false, derotating = false, rollout = false;
    std::uint32_t flareStage = 0;
    double rolloutHeading = 0;
};

struct LiveAc : AcIdentity {
    // Type constants, fixed at creation.
    double halfSize = 0, cgHeight = 0, groundPitch = 0.0122173, rotatePitch = 0, climbPitch = 0;
    double turnRate = 0, currentTurnRate = 0, maxClimbStep = 0, standSpeed = 0;
    std::uint32_t hexid = 0;
    refdata::Category category = refdata::Category::Light;
    std::string_view liveryTitle;
    std::int8_t liveryStep = -1; // the rung of the matching ladder that found it
    std::int32_t flareTicks = 0, derotateTicks = 0, rotateTicks = 0, liftoffTicks = 0;
    bool isCargo = false, reverseThrust = false;
    // Simulator.
    std::uint32_t objectId = 0;
    SimState simState = SimState::Buffer;
    Controls controls;
    bool removeWhenCreated = false, dropNow = false, dropSilently = false;
    // The position block sent each frame, in this order.
    double lat = 0, lon = 0, pitch = 0, bank = 0, heading = 0, alt = 0, vsFps = 0, tas = 0;
    // Stream and motion.
    SampleStream stream;
    Sample thinned; // the last ground report thinned out as adding nothing; tick 0: none
    double lastTimestamp = 0;
    std::int32_t lastArrivalTick = 0; // the engine tick the report of lastTimestamp came at
    struct ClockJump {
        double stamp = 0; // a report whose time ran away from its arrival, held for one report
        std::int32_t tick = 0;
    } clockJump;
    double lastFeedSpeed = 0; // the speed of the last point taken from the feed
    LatLonPos lastFeedPos;    // and where it was
    double feedMovedKt = 0;   // the speed its positions showed between the last two points taken
    struct JumpedSpeed {
        double kt = 0;
        int count = 0;
    } jumpedSpeed; // the latest reports in a row set aside for a speed that jumped from it, alike
    struct SetAside {
        double first = 0, time = 0, lat = 0, lon = 0; // first 0: none
    } aside; // a ground report out of reach, kept in case the track goes on from it
    // The latest air reports' altitudes, every one before any is thinned out: a feed whose
    // altitude scatters by hundreds of feet from second to second is followed along their trend.
    struct AltitudeReport {
        double time = 0, feet = 0;
    };
    std::array<AltitudeReport, 8> airAltitudes{};
    std::uint8_t airAltitudeCount = 0, airAltitudeNext = 0;
    LatLonPos settleSpot;  // where the latest reports close together lie
    int settleReports = 0; // how many in a row
    std::int64_t parkedWallClock = 0;
    std::int32_t extrapolateCount = 0, holdStartTick = 0;
    Phase phase = Phase::Birth, previousPhase = Phase::Birth;
    bool onGround = false, flightPlanCreated = false, holding = false;
    MotionDeltas delta;
    std::optional<GroundCurve> curve;
    double curveStep = 0, curveAngle = 0; // the pace along the curve per tick, and its turn in degrees
    Sample pushTailSample;
    std::int32_t earlyLimit = 1000, lateLimit = 1000, rotateCounter = 1, pushCounter = 0;
    double targetHeading = 0, heightAgl = 2500, maxPushDistance = 0, turnAngle = 0;
    double spawnHeading = 0;
    bool hasSpawnHeading = false, turnLeft = false, turnPlanned = false;
    std::optional<double> airportElevation;
    std::optional<double> groundAltitude; // feet, from the simulator's in-range report
    // Stand.
    StandTarget stand;
    LatLonPos lastCheckedPos;  // the last stream end try2Park looked at
    LatLonPos clearCheckedPos; // where it was when the statics in its way were last looked for
    bool atStand = false;
    bool keepDistance = false; // held back from spawning for the user's sake
    LandingFlags landingFlags;
    bool towed = false, takingOff = false, above10000 = false, below10000 = false, pushRequested = false,
         turningInPlace = false;
    // Every ground report of the last minute, repeats too, to tell a standing aircraft whose
    // positions scatter from one that moves. Last: only the aircraft's own reports read it, so the
    // fields the frame's pass over every aircraft reads stay close together.
    struct StandWatch {
        struct Spot {
            double time = 0;
            float eastM = 0, northM = 0; // from origin
        };
        static constexpr std::size_t kSpots = 72;
        std::array<Spot, kSpots> spots{};
        std::uint8_t count = 0, next = 0;
        LatLonPos origin;
        bool held = false;
        double airSince = 0;                     // the first of the latest air reports, 0: none
        float anchorEastM = 0, anchorNorthM = 0; // where a held aircraft is shown
        float scatterM = 0;           // how far its reports stray while it stands, remembered across stops
        std::array<Spot, 5> recent{}; // the latest distinct positions while held
        std::uint8_t recentCount = 0;
        // The median of each minute held, the latest 16: their median is where it stands.
        std::array<Spot, 16> minutes{};
        std::uint8_t minuteCount = 0, minuteNext = 0;
        double minuteFrom = 0;
    } standWatch;
};

// A new record with the constants of its category; pitches vary a little per aircraft.
LiveAc makeLiveAc(const AcIdentity& identity, std::uint32_t hexid, std::mt19937& rng);
// The simulator's "Static CG to Ground" and "Static Pitch", where believable.
void takeStaticData(LiveAc& ac, double cgHeightFt, double staticPitch);
void setPhase(LiveAc& ac, Phase to);
// The moves the state tables allow; another one is logged and refused.
bool setSimState(LiveAc& ac, SimState to);
bool simStateMoveAllowed(SimState from, SimState to) noexcept;

std::string_view phaseName(Phase p) noexcept;
std::string_view simStateName(SimState s) noexcept;
std::string_view categoryName(refdata::Category c) noexcept;
std::string acHeader(const AcIdentity& ac);                            // "MSP->ATL DAL1812  N899DN"
std::string describeAc(const AcIdentity& ac);                          // the header, then airline and type
void describeInto(const AcIdentity& ac, std::span<char> out) noexcept; // the same, cut to fit, no allocation
bool callsignOk(const AcIdentity& ac) noexcept;

// The current airport, when one is known (degrees, feet); set and read on the worker thread.
struct AirportPlace {
    double latitude = 0, longitude = 0, elevation = 0;
    refdata::IataCode iata; // empty when the airport has none
};
void setCurrentAirport(std::optional<AirportPlace> airport);
std::optional<AirportPlace> currentAirport();

void reserveContainers(); // before the loop starts: nothing in the frame allocates
void engineFrame();       // one 10 ms frame
void drainEvents();       // simulator events while paused
void removeAtReservedStand();
void routeQueueStep();                  // one hexid of the route queue per second
void logNoMatchList();                  // the aircraft found without a livery since the last call
std::vector<std::string> noMatchList(); // the same list, for a look without logging it
// The flight numbers a schedule gives an aircraft (flightA, flightB); the park airport's schedules
// set it. Asked once per aircraft, a second after its route was queued.
using FlightLookup = std::function<std::optional<std::pair<std::string, std::string>>(const LiveAc& ac)>;
void setFlightLookup(FlightLookup lookup);
void writeFlightPlans(); // the flight plan files of the aircraft created or removed since the last call
void publishCallsignLookup();
// Whether a live aircraft flies under this callsign; on the worker thread, as the engine.
bool callsignInUse(std::string_view callsign);
// The callsign of the live aircraft parked on a stand of the park airport, or empty.
std::string parkedOn(std::uint32_t stand);
void collisionChecks();
void duplicatesSweep();
void clearGhosts();
void removeAllLive(); // every live aircraft out of the simulator, as when RealTraffic goes
void writeObjectIdList();
void reset();

// What the frame has taken from the traffic queue so far, and the table by state (status display;
// published by the frame once a second, read from any thread).
std::uint64_t samplesTaken() noexcept;
void resetSamplesTaken(); // a new RealTraffic starts the count again
struct LiveCounts {
    std::uint32_t active = 0, buffered = 0, creating = 0, leaving = 0, spawnQueue = 0;
};
LiveCounts liveCounts() noexcept;
// Each live aircraft in the table, on the engine's thread (the status snapshot reads them so).
void forEachLive(const std::function<void(const LiveAc&)>& fn);
// The feed time of its latest report, taken or not: an aircraft held on its stand hears reports
// that it does not take.
double lastHeard(const LiveAc& ac);

} // namespace orv::live
