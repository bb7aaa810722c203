// Static parking: the park airport and the aircraft that stand on its stands.
#pragma once

namespace orv::parking {

bool checkParkAirports(); // true when the park airports and their stands are usable
void followUp();          // every 15 s: liveries and airports of the park airport
void idleRefresh();       // every 16 s
void recalculate();       // re-sweep the stands for the time of now
void saveUserStand();     // the user's stand, kept for the next visit
void reset();

} // namespace orv::parking
