// Static parking: the park airport and the aircraft that stand on its stands.
#pragma once

#include <optional>
#include <string>
#include <vector>

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

} // namespace orv::parking
