// The user's position on its way from the SimClient to the feed and the engine.
#include <optional>

#include "core/geo.h"
#include "feed/feed.h"
#include "live/live.h"
#include "refdata/refdata.h"
#include "run/run.h"
#include "sim/sim.h"

namespace orv::run {

namespace {
feed::UserReport reportOf(const sim::UserData& u) {
    return {u.latitude, u.longitude, u.pitch, u.bank, u.heading, u.altitude, u.groundVelocity};
}
} // namespace

void copyUserPositionForReaders() {
    const auto user = sim::userPosition();
    if (!user) return;
    feed::TrafficArea a;
    a.reference = {user->latitude, user->longitude};
    // Until park airports exist, the current airport is the one the user stands at, if any: the
    // SimClient's search, which the status line shows too.
    const auto current = sim::nearestAirport();
    if (current) {
        a.airport = core::LatLon{current->latitude, current->longitude};
        a.referenceElevation = current->elevation;
    }
    feed::gTrafficReader.setArea(a);
    if (current)
        live::setCurrentAirport(
            live::AirportPlace{current->latitude, current->longitude, current->elevation});
    else
        live::setCurrentAirport(std::nullopt);
}

void sendUserPositionToRealTraffic() {
    feed::sendUserPosition(reportOf(sim::lastUserData()));
}

void sendTimeToRealTraffic() {
    feed::sendTimeToRealTraffic(sim::epochTime());
}

} // namespace orv::run
