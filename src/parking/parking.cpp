#include "parking/parking.h"

namespace orv::parking {

bool checkParkAirports() {
    return true;
}
void followUp() {}
void idleRefresh() {}
void recalculate() {}
void saveUserStand() {}
void reset() {}

} // namespace orv::parking
