#include "airportfile/airportfile.h"

namespace orv::airportfile {

void flushLiveAirports() {}

} // namespace orv::airportfile
