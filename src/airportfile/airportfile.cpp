#include "airportfile/airportfile.h"

#include "sim/sim.h"

namespace orv::airportfile {

// At exit, as on leaving the park airport: what was learned is written and the airport's own
// settings give way to the user's again.
void flushLiveAirports() {
    if (!gPark.loadedFrom.empty()) {
        (void)saveUpdatedApf(sim::msfs2020Selected() ? SimVersion::Msfs2020 : SimVersion::Msfs2024);
        restoreAirportSettings();
    }
    gPark.reset();
}

} // namespace orv::airportfile
