#include "params/params.h"

namespace orv::params {

Parameters gParams;

void Parameters::reset() {
    RANGE = 40;
    AUTO_RANGE = true;
    radiusNm = 40;
    AR_ABOVE_HEIGHT = 48000;
    AIRP_HEIGHT = 18000;
    AIRBORNE_ONLY = false;
    SCAN_LIVERIES = false;
    SCAN_AIRPORTS = false;
    INITIAL_LOAD_ONLY = false;
    OBJECTID_LIST = false;
    AEROWINX = false;
    ALWAYS_ON_TOP = false;
    PORT_NUMBER = 10747;
    MATCHING_DEPTH = 4;
    RANDOM = true;
    MAX_LIVE_SEL = 500;
    GUID_CHANGES = true;
    NAV_LIGHTS_WHILE_PARKED = true;
    LIGHT_AIRCRAFT = HELICOPTERS = HIGH_PERF_AIRCRAFT = true;
    HOLDING_THRESHOLD_METERS = 250;
    MAX_HOLDING_MINUTES = 20;
    STRAIGHT_PBS_ONLY = false;
    COLLISION_USER_GND = COLLISION_USER_AIR = true;
    COLLISION_LIVE_PARKED_GND = false;
    MAX_PARK_SEL = 500;
    DESTINATION.clear();
    BLOCK_CALLSIGN.clear();
}

} // namespace orv::params
