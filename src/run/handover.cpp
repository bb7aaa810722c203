// The user's position on its way from the SimClient to the feed and the engine.
#include <algorithm>
#include <cmath>
#include <optional>

#include <fmt/format.h>

#include "core/geo.h"
#include "feed/feed.h"
#include "live/live.h"
#include "params/params.h"
#include "parking/parking.h"
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
            live::AirportPlace{current->latitude, current->longitude, current->elevation, current->iata});
    else
        live::setCurrentAirport(std::nullopt);
}

int autoRadiusNm(bool onGround, double altitudeFt, std::optional<double> nearestNm) {
    if (onGround) return 10;
    if (altitudeFt > params::gParams.AR_ABOVE_HEIGHT.load()) return 100;
    if (altitudeFt > params::gParams.AIRP_HEIGHT.load()) return 40;
    const double d = nearestNm.value_or(10000.0);
    if (d <= 7) return 10;
    if (d >= 37) return 40;
    const int n = static_cast<int>(std::lround(d));
    constexpr std::pair<int, int> kFromNm[] = {{33, 35}, {28, 30}, {23, 25}, {19, 20}, {17, 18},
                                               {15, 16}, {13, 14}, {11, 12}, {9, 10},  {8, 8}};
    for (const auto& [from, radius] : kFromNm)
        if (n >= from) return radius;
    return 8;
}

void applyRange() {
    const auto& range = params::parameter<params::IntParameter>("RANGE");
    int radius = range.value;
    if (params::gParams.AUTO_RANGE) {
        const auto user = sim::userPosition();
        if (!user) return;
        const auto nearest = parking::refreshDistances({user->latitude, user->longitude});
        radius =
            std::clamp(autoRadiusNm(user->onGround, user->altitude, nearest), range.minimum, range.maximum);
    }
    if (params::gParams.radiusNm.exchange(radius) != radius)
        core::log(fmt::format("traffic radius {} nm{}", radius, params::gParams.AUTO_RANGE ? " (auto)" : ""));
}

void sendUserPositionToRealTraffic() {
    feed::sendUserPosition(reportOf(sim::lastUserData()));
}

void sendTimeToRealTraffic() {
    feed::sendTimeToRealTraffic(sim::epochTime());
}

} // namespace orv::run
