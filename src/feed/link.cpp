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
    gTrafficReader.setArea(a);
}
void gf_qnhUpdate() {}

} // namespace orv
