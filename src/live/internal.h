// Inside the engine: its run state and the steps of its frame, for its own files and its tests.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <deque>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/geo.h"
#include "feed/feed.h"
#include "live/live.h"
#include "sim/sim.h"

namespace orv::live {

inline constexpr std::size_t kGhostListSize = 64;

// A request to create an object, waiting for its turn (two creations a second).
struct SpawnRequest {
    simconnect::SIMCONNECT_DATA_INITPOSITION init;
    std::string callsign; // at most 8 characters: kept inside the string, no allocation
    std::string_view livery;
    std::uint32_t hexid = 0;
};

// A created object counting its frames until its lights and engines are set.
struct PendingObject {
    std::uint32_t objectId = 0, hexid = 0;
    bool isStatic = false;
    std::int32_t count = 0;
};

enum class Update { Keep, Drop };

// Places near each other in metres east (x) and north (y) of an origin, and back.
inline constexpr double kMetresPerDegree = 111132.95;
inline void toXY(double lat0, double lon0, double lat, double lon, double& x, double& y) {
    y = (lat - lat0) * kMetresPerDegree;
    x = (lon - lon0) * kMetresPerDegree * std::cos(lat0 * core::kRadPerDeg);
}
inline LatLonPos fromXY(const LatLonPos& origin, double x, double y) {
    return {origin.lat + y / kMetresPerDegree,
            origin.lon + x / (kMetresPerDegree * std::cos(origin.lat * core::kRadPerDeg))};
}

// The middle of the first `count` values (the upper middle one for an even count), found in
// place: the values are reordered, nothing is allocated.
template <typename It>
auto medianInPlace(It first, std::size_t count) {
    const It mid = first + static_cast<std::ptrdiff_t>(count / 2);
    std::nth_element(first, mid, first + static_cast<std::ptrdiff_t>(count));
    return *mid;
}

// What the stand watch makes of a ground report: take it, drop it (the aircraft stands where it
// is held), or move the aircraft to the held place instead.
enum class StandVerdict { Pass, Drop, Anchor };
StandVerdict watchStanding(LiveAc::StandWatch& w, double t, double lat, double lon, bool airborne);
LatLonPos anchorOf(const LiveAc::StandWatch& w);

// A type, airline and registration that found no livery; the registration cut at 12 characters.
struct FailedLivery {
    refdata::ModelId model = 0;
    refdata::AirlineId airline = 0;
    std::array<char, 12> registration{};
    friend bool operator==(const FailedLivery&, const FailedLivery&) = default;
};
struct FailedLiveryHash {
    std::size_t operator()(const FailedLivery& k) const noexcept {
        return static_cast<std::size_t>(
                   refdata::fnv1a(std::string_view(k.registration.data(), k.registration.size()))) ^
               (static_cast<std::size_t>(k.model) << 16 | k.airline);
    }
};

// The live aircraft, each in a slot that never moves: a record holds its whole sample ring, so
// taking one out must not shift the others. Iterates in the order the records came.
class LiveTable {
  public:
    template <bool Const>
    class Iter {
        using Table = std::conditional_t<Const, const LiveTable, LiveTable>;

      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = LiveAc;
        using difference_type = std::ptrdiff_t;
        using pointer = std::conditional_t<Const, const LiveAc*, LiveAc*>;
        using reference = std::conditional_t<Const, const LiveAc&, LiveAc&>;
        Iter() = default;
        Iter(Table* table, std::size_t i) : table_(table), i_(i) {}
        reference operator*() const { return table_->slots_[table_->order_[i_]]; }
        pointer operator->() const { return &**this; }
        Iter& operator++() {
            ++i_;
            return *this;
        }
        Iter operator++(int) {
            Iter old = *this;
            ++i_;
            return old;
        }
        friend bool operator==(const Iter& a, const Iter& b) { return a.i_ == b.i_; }
        std::size_t index() const { return i_; }

      private:
        Table* table_ = nullptr;
        std::size_t i_ = 0;
    };
    using iterator = Iter<false>;
    using const_iterator = Iter<true>;

    // Makes the slots now, so that taking one in the frame allocates nothing.
    void reserve(std::size_t n);
    // The record into a free slot (one copy); a slot beyond the reserve is made then.
    LiveAc& push_back(LiveAc ac);
    iterator erase(iterator it);
    template <typename Pred>
    std::size_t eraseIf(Pred pred) {
        std::size_t kept = 0;
        for (const std::uint32_t slot : order_)
            if (pred(static_cast<const LiveAc&>(slots_[slot])))
                free_.push_back(slot);
            else
                order_[kept++] = slot;
        const std::size_t erased = order_.size() - kept;
        order_.resize(kept);
        return erased;
    }
    void clear();
    std::size_t size() const noexcept { return order_.size(); }
    bool empty() const noexcept { return order_.empty(); }
    LiveAc& operator[](std::size_t i) { return slots_[order_[i]]; }
    const LiveAc& operator[](std::size_t i) const { return slots_[order_[i]]; }
    LiveAc& back() { return slots_[order_.back()]; }
    iterator begin() { return {this, 0}; }
    iterator end() { return {this, order_.size()}; }
    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, order_.size()}; }

  private:
    std::deque<LiveAc> slots_; // a deque's elements stay where they are when it grows
    std::vector<std::uint32_t> order_, free_;
};

struct Engine {
    LiveTable liveTable;
    std::vector<std::uint32_t> addingStack;
    std::vector<SpawnRequest> spawnQueue, staticSpawnQueue;
    std::vector<std::uint32_t> removeQueue;
    std::vector<PendingObject> pending;
    std::vector<sim::SimEvent> events;
    sim::FrameLists out;                              // this frame's positions and commands for the simulator
    std::array<feed::TrafficSample, 16> frameSamples; // lines are taken in batches of this many
    std::unordered_map<std::uint32_t, std::string_view> rememberedLiveries; // hexid -> title, bounded
    std::unordered_set<FailedLivery, FailedLiveryHash> failedLiveries;      // found no livery, bounded
    // Aircraft found without a livery, for the log: fixed texts in reserved room, so the frame
    // never allocates for them; past the room they are only counted.
    std::vector<std::array<char, 48>> noMatch;
    std::size_t noMatchDropped = 0;
    // Hexids waiting for their route look-up, one a second; a full queue drops the newest.
    std::array<std::uint32_t, 64> routeQueue{};
    std::size_t routeHead = 0, routeCount = 0;
    std::mt19937 rng{20250204};
    sim::UserData user;
    bool userKnown = false;
    bool userOnGround = true; // the simulator's flag, taken with the position
    std::int32_t tick = 0;    // engineTick during this frame
    std::uint64_t taken = 0, positionsLost = 0, created = 0, removed = 0;
    std::uint32_t callsignLookupObject = 0; // the object the callsign lookup shows, 0 none
    // Flight plan files to write and to delete, beside the frame.
    std::vector<sim::PlanAircraft> plansToWrite;
    std::vector<std::uint32_t> plansToRemove;
    // Active aircraft, counted once a frame when the buffer first asks.
    std::size_t activeCount = 0;
    std::int32_t activeCountedAt = -1;

    // Callsigns of ghost copies ("_") that were replaced by their real twin: never spawned again.
    std::vector<std::string> ghostList;
    LatLonPos userAtLastGuard; // where the user was when the statics around it were last looked at

    void reserve(); // at the first start: nothing in the frame allocates after this
    void reset();
};
extern Engine gEngine;

// The frame's steps, in their order.
void handleEvents();
void onEvent(const sim::SimEvent& event); // one message of the simulator
void handlePending();
Update updateLiveAc(LiveAc& ac);
void pace();
void decode(const feed::TrafficSample& record);
void addNewAc(const feed::TrafficSample& record);
void addSample(LiveAc& ac, Sample sample);
void handleAddingStack();
void poll();

void queueRoute(LiveAc& ac);
bool mergeRoute(LiveAc& ac, const refdata::IataCode& origin, const refdata::IataCode& destination);
Update handleBuffer(LiveAc& ac);
Update spawnLiveAc(LiveAc& ac);
[[nodiscard]] bool onCreated(LiveAc& ac, const sim::LiveCreated& event);
bool checkRespawn(LiveAc& ac, const feed::TrafficSample& record);
void liveryRespawn(LiveAc& ac);
void nextPosMain(LiveAc& ac);
void nextPos(LiveAc& ac);
void nextTimeAir(LiveAc& ac);
bool noNewData(LiveAc& ac);
void extrapolate(LiveAc& ac, std::int32_t n);
void advance(LiveAc& ac);
double avgSpeed(const LiveAc& ac);
// The wanted tick of element 1, kept within the clamps; at least the current tick.
std::int32_t retime(const LiveAc& ac, std::int32_t wanted);
// A tick for element 1 no sooner than the aircraft can get there.
std::int32_t speedCap(const LiveAc& ac, std::int32_t tick);

// Controls: each sends only a change.
void setFlaps(LiveAc& ac, std::int32_t index);
void setThrottle(LiveAc& ac, std::int32_t index);
void setGear(LiveAc& ac, bool down);
void setSpoilers(LiveAc& ac, bool on);
void setLights(std::uint32_t objectId, bool nav, bool beacon, bool landing, bool taxi, bool strobes,
               bool logo, bool cabin);
void setParkedLights(LiveAc& ac);
// Spoilers handle and both throttle levers as data (percent); negative throttle is reverse. Not
// for light aircraft.
void setReverser(LiveAc& ac, double spoilers, double throttle);

// Removal.
void removeAircraftFromSim(LiveAc& ac);
void removeAll();
void onRemoved(std::uint32_t objectId);
void onBlocked(std::uint32_t hexid);

// Lookups in the table (linear: a few hundred records at most).
LiveAc* findByHexid(std::uint32_t hexid);
LiveAc* findByObjectId(std::uint32_t objectId);
LiveAc* findByCallsign(std::string_view callsign);
std::size_t activeCount(); // the aircraft in the simulator now

// ---- Motion on the ground and around take-off and landing ------------------------------------
// Their own file; until the ground and landing rules are in, these keep an aircraft moving from
// sample to sample.
void command(std::uint32_t objectId, std::uint32_t event, std::uint32_t value); // one client event
void nextPosGround(LiveAc& ac);
void nextTimeGround(LiveAc& ac);
void setGroundSegment(LiveAc& ac, std::int32_t dt);
void setAirSegment(LiveAc& ac, std::int32_t dt);
bool checkExtendingSituations(LiveAc& ac, Sample& sample);
// A stand for an aircraft that stopped, or is about to; stands come with the airport files.
bool try2Park(LiveAc& ac, bool justLanded);
bool checkNewPosDuringLanding(LiveAc& ac, Sample& sample);
bool filterSample(LiveAc& ac, Sample& sample);
void setNextTick(LiveAc& ac, std::int32_t dt);
void prepareCurve(LiveAc& ac);
void splitSegment(LiveAc& ac);
void checkSpeedChange(LiveAc& ac);
double nextTurn(const LiveAc& ac); // degrees from the heading to the track of elements 1 to 2
// A point of the curve at t (0 to 1) and its tangent (0 to 2 pi); false without a curve.
bool curvePoint(const LiveAc& ac, double t, double& lat, double& lon, double& tangent);
void pullOut(LiveAc& ac);
void pushBack(LiveAc& ac);
void leaveStand(LiveAc& ac, Sample& sample);
void prepareTakeOff(LiveAc& ac);
void rotate(LiveAc& ac);
double landingVs(const LiveAc& ac);
bool dropAhead(LiveAc& ac, std::size_t k);
void lowAltitude(LiveAc& ac);
void lowApproach(LiveAc& ac);
// The simulator's in-range report for an aircraft: its own ground flag, ground altitude, height.
void inRangeReport(LiveAc& ac, bool onGround, double groundAltitude, double heightAgl);
void takeOffChecks(LiveAc& ac, Sample& sample);
bool parkAtSpawn(LiveAc& ac);
bool arrived(LiveAc& ac);
bool userProximity(LiveAc& ac);

// ---- Ghosts and conflicts ---------------------------------------------------------------------
// A real callsign spawned or taken: its ghost copy (the callsign with "_") goes.
void ghostRemove(std::string_view callsign);
// A ghost copy whose real twin is here.
bool ghostExists(std::string_view callsign);
bool inGhostList(std::string_view callsign);
// Whether an aircraft at this place and heading is one the user would run into: within the row's
// distance and altitude window, ahead on its track and within the row's width of it. Row 0 is
// for aircraft in the simulator, row 1 for one about to be made.
bool wouldCollide(const sim::UserData& user, double lat, double lon, double altFt, double headingRad,
                  int row);
// Whether the stand may take `ac`: live aircraft on it are removed, or keep it (false).
bool standFreeOfLive(std::uint32_t number, std::string_view standId, const LiveAc& ac);
// Live aircraft parked or pushing on a stand beside it, close enough to touch: with `remove`
// they go, otherwise the answer is false.
bool clearAdjacent(std::uint32_t number, const LiveAc& ac, bool remove);
// More parked aircraft than MAX_PARK_SEL: the longest parked live one, then the oldest static.
void checkMaxParked(bool adding);
// Statics that are this live aircraft under another name: its flight or registration.
void sameFlightSweep(const LiveAc& ac);
void setOnGroundFlags(LiveAc& ac);
void attitude(LiveAc& ac); // pitch, bank and altitude of one tick
bool evaluateCurve(LiveAc& ac, double& tangent);
double groundAltitude(const LiveAc& ac); // feet, where the wheels touch

} // namespace orv::live
