#include "airportfile/airportfile.h"

#include "params/params.h"

namespace orv::airportfile {

// At exit, as on leaving the park airport: what was learned is written and the airport's own
// settings give way to the user's again.
void flushLiveAirports() {
    if (!gPark.loadedFrom.empty()) {
        const bool msfs2024 = params::parameter<params::StringParameter>("SIM_CHOICE").value == "MSFS 2024";
        (void)saveUpdatedApf(msfs2024 ? SimVersion::Msfs2024 : SimVersion::Msfs2020);
        restoreAirportSettings();
    }
    gPark.reset();
}

} // namespace orv::airportfile
