// Airport files, half-hour schedules and what is learned into them.
#pragma once

namespace orv::airportfile {

void flushLiveAirports(); // what was learned, written before the program stops

} // namespace orv::airportfile
