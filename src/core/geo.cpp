#include "core/geo.h"

#include <algorithm>
#include <cmath>

namespace orv::core {

namespace {
// Nautical miles per radian of arc: one minute of arc is one nautical mile.
constexpr double kNmPerRadian = 6875.493541569878 / 2.0;
} // namespace

double distanceNm(const LatLon& a, const LatLon& b) noexcept {
    const double dLat = (b.latitude - a.latitude) * kRadPerDeg;
    const double dLon = (b.longitude - a.longitude) * kRadPerDeg;
    const double s1 = std::sin(dLat / 2), s2 = std::sin(dLon / 2);
    const double h =
        s1 * s1 + std::cos(a.latitude * kRadPerDeg) * std::cos(b.latitude * kRadPerDeg) * s2 * s2;
    return 2.0 * kNmPerRadian * std::asin(std::sqrt(std::min(1.0, h)));
}

double distanceNm(double lat0, double lon0, double lat1, double lon1) noexcept {
    return distanceNm(LatLon{lat0, lon0}, LatLon{lat1, lon1});
}

double bearingRad(double lat0, double lon0, double lat1, double lon1) noexcept {
    const double p0 = lat0 * kRadPerDeg, p1 = lat1 * kRadPerDeg, dl = (lon1 - lon0) * kRadPerDeg;
    const double y = std::sin(dl) * std::cos(p1);
    const double x = std::cos(p0) * std::sin(p1) - std::sin(p0) * std::cos(p1) * std::cos(dl);
    double b = std::atan2(y, x);
    if (b < 0) b += 2 * kPi;
    return b;
}

double angleDiff(double from, double to) noexcept {
    double d = std::fmod(to - from, 2 * kPi);
    if (d > kPi) d -= 2 * kPi;
    if (d < -kPi) d += 2 * kPi;
    return d;
}

} // namespace orv::core
