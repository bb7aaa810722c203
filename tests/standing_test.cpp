// Telling a standing aircraft whose reports scatter from one that moves.
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "core/geo.h"
#include "live/internal.h"

namespace orv::live {
namespace {

constexpr double kLat = 47.45, kLon = 8.56;
constexpr double kMetresPerDegree = 60.0 * core::kMetresPerNm;

struct Report {
    double t, east, north;
    bool airborne = false;
};

struct Outcome {
    int anchors = 0;          // moves to a held place
    double anchorTravelM = 0; // how far the held place went in all
    double firstHeldAt = -1;  // when it was first held
    double letGoAt = -1;      // the first report taken again after a hold
    int drops = 0, passes = 0;
    std::vector<std::pair<double, double>> heldAt; // metres from the origin, and when
};

Outcome watch(const std::vector<Report>& reports) {
    LiveAc::StandWatch w;
    Outcome o;
    bool held = false, anchored = false;
    LatLonPos last;
    for (const auto& r : reports) {
        const double lat = kLat + r.north / kMetresPerDegree;
        const double lon = kLon + r.east / (kMetresPerDegree * std::cos(kLat * core::kRadPerDeg));
        switch (watchStanding(w, r.t, lat, lon, r.airborne)) {
        case StandVerdict::Anchor: {
            const LatLonPos at = anchorOf(w);
            if (anchored)
                o.anchorTravelM += core::distanceNm(last.lat, last.lon, at.lat, at.lon) * core::kMetresPerNm;
            last = at, anchored = true, held = true, ++o.anchors;
            o.heldAt.emplace_back(core::distanceNm(kLat, kLon, at.lat, at.lon) * core::kMetresPerNm, r.t);
            if (o.firstHeldAt < 0) o.firstHeldAt = r.t;
            break;
        }
        case StandVerdict::Drop:
            ++o.drops;
            break;
        case StandVerdict::Pass:
            ++o.passes;
            if (held && o.letGoAt < 0) o.letGoAt = r.t;
            held = false;
            break;
        }
    }
    return o;
}

// A parked aircraft heard once a second whose positions scatter `scatterM` about its place, with
// strays of a few seconds 100-150 m off, and the feed repeating a place for a second or two.
std::vector<Report> scatteredStand(double fromS, double seconds, double scatterM, std::mt19937& rng,
                                   double east = 0, double north = 0) {
    std::normal_distribution<double> jitter(0.0, scatterM);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<Report> out;
    double e = east, n = north;
    for (double t = fromS; t < fromS + seconds; t += 1.0) {
        if (unit(rng) < 0.6) e = east + jitter(rng), n = north + jitter(rng); // else the feed repeats
        if (unit(rng) < 0.01) {
            const double bearing = unit(rng) * 6.283, far = 100 + 50 * unit(rng);
            for (int k = 0; k < 4 && t < fromS + seconds; ++k, t += 1.0)
                out.push_back({t, east + far * std::sin(bearing), north + far * std::cos(bearing)});
        }
        out.push_back({t, e, n});
    }
    return out;
}

std::vector<Report> line(double fromS, double seconds, double east, double north, double mps,
                         double bearingDeg, double scatterM, std::mt19937& rng, double stepS = 1.0) {
    std::normal_distribution<double> jitter(0.0, scatterM > 0 ? scatterM : 1.0);
    std::vector<Report> out;
    const double b = bearingDeg * core::kRadPerDeg;
    for (double t = 0; t < seconds; t += stepS) {
        const double d = mps * t;
        const double je = scatterM > 0 ? jitter(rng) : 0, jn = scatterM > 0 ? jitter(rng) : 0;
        out.push_back({fromS + t, east + d * std::sin(b) + je, north + d * std::cos(b) + jn});
    }
    return out;
}

std::vector<Report> operator+(std::vector<Report> a, const std::vector<Report>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(StandWatch, HoldsOnlyWhatStandsScatteredAndLetsGoWhenItMoves) {
    std::mt19937 rng(7);
    // A parked aircraft scattering ±30 m for 20 minutes.
    const auto parked = watch(scatteredStand(0, 1200, 30, rng));
    EXPECT_GE(parked.firstHeldAt, 0);
    EXPECT_LT(parked.firstHeldAt, 90);
    EXPECT_LT(parked.letGoAt, 0) << "let go at " << parked.letGoAt;
    EXPECT_LT(parked.anchorTravelM, 100) << parked.anchors << " moves";

    // Clean reports of a stop: nothing to hold, each report is the aircraft itself.
    std::vector<Report> still;
    for (double t = 0; t < 300; t += 1) still.push_back({t, 3.0, 4.0});
    EXPECT_LT(watch(still).firstHeldAt, 0);

    // A frozen feed of a taxiing aircraft: one place repeated for 30 s, then a jump of 250 m.
    std::vector<Report> frozen;
    for (double t = 0; t < 300; t += 1) frozen.push_back({t, 250.0 * std::floor(t / 30), 0});
    EXPECT_LT(watch(frozen).firstHeldAt, 0);

    // A queue creeping at 0.5 m/s that the feed moves in steps every 10 to 25 s, repeating the
    // place between: its reports spread over a few metres each minute, but one way.
    std::vector<Report> creep;
    for (double t = 0, at = 0, step = 10; t < 300; t += 1) {
        if (std::fmod(t, step) == 0) at = 0.5 * t, step = step == 10 ? 25 : 10;
        creep.push_back({t, at, 0});
    }
    EXPECT_LT(watch(creep).firstHeldAt, 0);

    // A sparse feed, a report every 10 s, scattering: too few reports to judge.
    std::vector<Report> sparse;
    for (const auto& r : scatteredStand(0, 600, 30, rng))
        if (std::fmod(r.t, 10.0) == 0) sparse.push_back(r);
    EXPECT_LT(watch(sparse).firstHeldAt, 0);
}

TEST(StandWatch, LetsGoOfAnAircraftThatMovesOff) {
    struct Case {
        const char* name;
        double mps, scatterM, withinS;
    };
    const Case cases[] = {
        // Its first 1.5 times the stand's scatter look like scatter: 35 m here.
        {"a clean push-back at 1.5 m/s", 1.5, 0, 35},
        {"a clean taxi at 5 m/s", 5, 0, 12},
        {"a taxi at 5 m/s scattering like its stand", 5, 15, 45},
    };
    for (const auto& c : cases) {
        std::mt19937 rng(11);
        const auto reports =
            scatteredStand(0, 300, 20, rng) + line(300, 120, 0, 0, c.mps, 90, c.scatterM, rng);
        const auto o = watch(reports);
        EXPECT_GE(o.firstHeldAt, 0) << c.name;
        EXPECT_GE(o.letGoAt, 300) << c.name;
        EXPECT_LE(o.letGoAt, 300 + c.withinS) << c.name;
    }
}

TEST(StandWatch, AReportOrTwoInTheAirDoNotLiftAHeldAircraft) {
    std::mt19937 rng(3);
    auto reports = scatteredStand(0, 200, 25, rng);
    reports.push_back({200, 0, 0, true});
    reports.push_back({201, 0, 0, true});
    const auto blip = watch(reports + scatteredStand(202, 100, 25, rng));
    EXPECT_LT(blip.letGoAt, 0);

    // A helicopter lifting off from a pad keeps reporting from the air.
    auto lift = scatteredStand(0, 200, 25, rng);
    for (double t = 200; t < 215; t += 1) lift.push_back({t, 0, 0, true});
    const auto o = watch(lift);
    EXPECT_GE(o.letGoAt, 200);
    EXPECT_LE(o.letGoAt, 207);
}

TEST(StandWatch, AHeldAircraftFollowsItsReportsWhenTheySettleElsewhere) {
    // Reports scattering about one spot for two minutes, then about another 25 m off (a tow, or
    // the receiver's fix moving): held on the first, then moved to the second within a minute
    // and a half, in a step or two, not a wander.
    std::mt19937 rng(5);
    const auto heldAt =
        watch(scatteredStand(0, 120, 10, rng) + scatteredStand(120, 240, 10, rng, 15, 20)).heldAt;
    ASSERT_GE(heldAt.size(), 2u);
    EXPECT_LT(heldAt.front().first, 6.0);
    EXPECT_NEAR(heldAt.back().first, 25.0, 6.0);
    EXPECT_LT(heldAt.back().second, 210);
    EXPECT_LE(heldAt.size(), 3u);
}

} // namespace
} // namespace orv::live
