// Positions on the earth and the units they come in: latitude and longitude in degrees, distances
// in nautical miles, angles in radians unless a name says degrees.
#pragma once

namespace orv::core {

inline constexpr double kPi = 3.14159265358979323846;
inline constexpr double kRadPerDeg = kPi / 180.0;
inline constexpr double kDegPerRad = 180.0 / kPi;
inline constexpr double kMetresPerNm = 1852.0;
inline constexpr double kFeetPerNm = 6076.11549;
inline constexpr double kMetresPerFoot = 0.3048;

struct LatLon {
    double latitude = 0.0;
    double longitude = 0.0;
};

// Great-circle distance in nautical miles (haversine, one minute of arc = one nautical mile).
double distanceNm(const LatLon& a, const LatLon& b) noexcept;
double distanceNm(double lat0, double lon0, double lat1, double lon1) noexcept;
// Initial great-circle bearing from the first point to the second, 0 to 2 pi.
double bearingRad(double lat0, double lon0, double lat1, double lon1) noexcept;
// The turn from one angle to another, -pi to pi.
double angleDiff(double from, double to) noexcept;

} // namespace orv::core
