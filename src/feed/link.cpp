#include "feed/feed.h"
#include "sim/sim.h"

namespace orv {

// The RealTraffic control link arrives later; until then it is never connected.
bool gf_realTrafficConnected() {
    return false;
}
void gf_sendUserPositionToRealTraffic() {}
void gf_sendTimeToRealTraffic() {}
void gf_realTrafficFarewell() {}
void gf_copyUserPositionForReaders() {
    const auto user = sim::userPosition();
    if (!user) return;
    TrafficArea a;
    a.reference = {user->latitude, user->longitude};
    // Until park airports exist, the current airport is the one the user stands at, if any;
    // it is looked for again only when the user has moved.
    static std::optional<LatLon> searchedAt;
    static std::optional<AirportRecord> current;
    if (!searchedAt || gf_distanceNm(*searchedAt, a.reference) > 0.5) {
        searchedAt = a.reference;
        current = gf_closestAirport(user->latitude, user->longitude);
    }
    if (current) {
        a.airport = LatLon{current->latitude, current->longitude};
        a.referenceElevation = current->elevation;
    }
    gTrafficReader.setArea(a);
}
void gf_qnhUpdate() {}

} // namespace orv
