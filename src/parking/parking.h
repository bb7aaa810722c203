// Static parking: the park airport and the aircraft that stand on its stands.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "airportfile/airportfile.h"
#include "core/geo.h"
#include "refdata/refdata.h"

namespace orv::parking {

bool checkParkAirports(); // true when the park airports and their stands are usable
void followUp();          // every 15 s: liveries and airports of the park airport
void idleRefresh();       // every 16 s
void recalculate();       // re-sweep the stands for the time of now
void saveUserStand();     // the user's stand, kept for the next visit
void reset();

// ---- The airports the user listed in airports/my_park_airports.txt ----------------------------

struct ParkAirportEntry {
    std::string reservedStand; // the stand kept free for the user, or empty
    double latitude = 0.0, longitude = 0.0;
    double distance = 0.0; // nautical miles to the user, refreshed by refreshDistances
    refdata::AirportCode code;
};

// Reads the list again; true unless the file could not be read.
bool readMyParkAirports();
const std::vector<ParkAirportEntry>& parkAirports();
// Refreshes the distances to the user and sorts nearest first; the head's distance, if any.
std::optional<double> refreshDistances(core::LatLon user);

// ---- Static parking ---------------------------------------------------------------------------

// One aircraft to be placed: which stand, how far back its half hour was found, what it is.
struct StaticItem {
    std::uint32_t stand = 0;
    std::int32_t offset = 0;
    refdata::AirlineId airline = 0;
    refdata::ModelId type = 0;
    std::string cs, cs2, reg;
    bool firstCs = true;
};

// A static aircraft: created from an item, standing until an adjustment or the leaving removes it.
struct StaticAc {
    std::uint32_t hexid = 0; // 1..10000: the id its creation reply carries
    std::uint32_t stand = 0;
    std::string reg, cs;
    refdata::AirlineId airline = 0;
    refdata::ModelId type = 0;
    double latitude = 0, longitude = 0, headingRad = 0;
    int startDay = 1, startHalfHour = 0;
    std::uint32_t objectId = 0;
    int state = 1; // 1 just added, 2 active in the simulator
    std::string_view title;
};

// What the engine sends to the simulator for one static aircraft.
struct StaticCreate {
    std::uint32_t hexid = 0;
    double latitude = 0, longitude = 0, altitudeFt = 0, headingDeg = 0;
    std::string callsign;
    std::string_view title;
};

// What the engine knows of live aircraft, for the duplicate tests; set by the run sequence.
struct LiveView {
    std::function<bool(std::string_view callsign)> callsignInUse;
    // The callsign of the live aircraft parked on a stand (by number), or empty.
    std::function<std::string(std::uint32_t stand)> parkedOn;
};

// All of it lives on the worker thread, which runs both the ticks and the engine frame.
struct ParkingState {
    std::vector<StaticItem> stack;
    std::vector<std::pair<std::string, std::uint32_t>> wantedOut; // registration and stand
    std::vector<StaticAc> statics;
    std::vector<std::size_t> survivors;  // indexes into statics
    std::vector<std::uint32_t> removals; // objects for the engine to remove
    bool pendingLoad = false, loading = false;
    std::uint32_t madeUpCounter = 0, nextHexid = 0;
    std::int32_t lastFit = 0; // the largest offset the last passes reached
    bool softMark = false, weekMark = false;
    std::int32_t wanted = 0, shownPercentage = 0;
    std::size_t planned = 0; // statics the last calculation or adjustment settled on
    std::string reservedStand;
    LiveView live;
    void reset();
};
extern ParkingState gParking;

// The hours a number of half-hour steps of fit shows.
double fitHours(std::int32_t steps);
std::int32_t wantedPositions();
void calcStatics();
void adjustStatics();
// The park airport's tick, every 16 s; `onGroundEvent` when the user just came to the ground.
void parkAirportTick(bool onGroundEvent = false);
std::string readParkedFile();
bool setParkAirport(const refdata::AirportCode& code);
void leaveParkAirport();
void flushStatics();
// The engine's side: the next static aircraft to create (one each 50 frames), its creation and
// its object's removal by the simulator.
std::optional<StaticCreate> nextStatic();
void onStaticCreated(std::uint32_t hexid, std::uint32_t objectId);
bool onObjectRemoved(std::uint32_t objectId); // true when it was a static aircraft
std::string userStand(core::LatLon user, bool onGround);
// A live aircraft of this half size takes the stand: the statics on it, or on a neighbour it would
// touch, are removed.
void clearStaticsFor(std::uint32_t standNumber, double halfSizeNm);
// One static aircraft out, for the reason the log gives (a duplicate of a live one, in the way of
// the user): its object is removed, or, while it waits to be made, it is never made.
void removeStaticAircraft(std::size_t index, std::string_view why);
// Whether a static waiting to be made is still wanted: one removed meanwhile is not asked for.
bool staticWanted(std::uint32_t hexid);

// What the status display shows of static parking: published by the worker, read by front ends.
struct ParkStatus {
    std::string airport, quality, reservedStand;
    std::size_t statics = 0, planned = 0;
    std::int32_t percentage = 0;
};
void publishStatus();
ParkStatus parkStatus();

} // namespace orv::parking
