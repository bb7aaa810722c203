// A standing aircraft whose reported positions scatter tens of metres around it (a parked
// aircraft heard through multilateration, or a coarse surface position) is held where the
// median of its reports lies, instead of being driven from one scattered report to the next.
// The hold lets go when the reports show it moving: five clean positions along a line, or the
// median of the last half minute walking steadily away from where it is held.
#include <algorithm>
#include <cmath>

#include "core/geo.h"
#include "live/internal.h"

namespace orv::live {

namespace {

using Spot = LiveAc::StandWatch::Spot;
using Watch = LiveAc::StandWatch;

constexpr double kSpotSpacingSeconds = 0.9; // a faster feed adds nothing to a median
constexpr double kWatchSeconds = 60;        // the reports a standing aircraft is judged on
constexpr double kJudgeAfterSeconds = 30;   // and at least this much of them
constexpr std::size_t kJudgeMinReports = 20;
constexpr double kScatterMinM = 5;  // below this the reports are the aircraft itself
constexpr double kScatterMaxM = 80; // above this they are no position at all
constexpr double kHalvesAgreeM = 15;
constexpr double kHalvesAgreeMaxM = 30;
constexpr double kLatestSeconds = 10;
constexpr double kGapSeconds = 15; // after a silence this long, a report far off has moved
// A clean line of reports moving off.
constexpr double kLineMaxSpanSeconds = 12;
constexpr double kLineMaxOffM = 4;
constexpr double kLineMinMps = 1;
constexpr double kLineMinAwayM = 10;
// The median of the last half minute walking off.
constexpr double kWalkSeconds = 30;
constexpr double kWalkMinAwayM = 25;
constexpr double kWalkStepM = 5;
constexpr double kDriftMinM = 10;
constexpr int kMedianSteps = 12;
constexpr double kMedianFloorM = 0.05;
constexpr double kAirLetGoSeconds = 5;
constexpr double kMinuteTravelM = 3 * kScatterMaxM;
constexpr double kWanderShare = 5; // a standing aircraft's reports wander this many times their drift

struct Point {
    float east = 0, north = 0;
};

double distanceM(Point a, Point b) {
    return std::hypot(a.east - b.east, a.north - b.north);
}

const Spot& spotAt(const Watch& w, std::size_t i) { // 0 is the oldest
    return w.spots[(w.next + Watch::kSpots - w.count + i) % Watch::kSpots];
}

// The median place of the reports from `from` (seconds) up to `to`, and how many there were: the
// median of each axis, or the geometric median.
std::size_t medianOf(const Watch& w, double from, double to, Point& out, bool geometric = false) {
    std::array<float, Watch::kSpots> east{}, north{};
    std::size_t n = 0;
    for (std::size_t i = 0; i < w.count; ++i) {
        const Spot& s = spotAt(w, i);
        if (s.time < from || s.time >= to) continue;
        east[n] = s.eastM, north[n] = s.northM, ++n;
    }
    if (n == 0) return 0;
    // The geometric median starts from the median of each axis. Reports that flip between two spots
    // have their axis medians at a corner of the two, where no report is; the geometric median lies
    // on the spot that holds most of them.
    if (!geometric) {
        out = {medianInPlace(east.begin(), n), medianInPlace(north.begin(), n)};
        return n;
    }
    auto eastSorted = east, northSorted = north; // `medianInPlace` reorders, and the pairs are needed
    out = {medianInPlace(eastSorted.begin(), n), medianInPlace(northSorted.begin(), n)};
    for (int k = 0; k < kMedianSteps; ++k) {
        double se = 0, sn = 0, sw = 0;
        for (std::size_t i = 0; i < n; ++i) {
            const double weight = 1.0 / std::max(distanceM({east[i], north[i]}, out), kMedianFloorM);
            se += weight * east[i], sn += weight * north[i], sw += weight;
        }
        out = {static_cast<float>(se / sw), static_cast<float>(sn / sw)};
    }
    return n;
}

// The median distance of the reports since `from` from `centre`.
double scatterOf(const Watch& w, double from, Point centre) {
    std::array<float, Watch::kSpots> d{};
    std::size_t n = 0;
    for (std::size_t i = 0; i < w.count; ++i) {
        const Spot& s = spotAt(w, i);
        if (s.time >= from) d[n++] = static_cast<float>(distanceM({s.eastM, s.northM}, centre));
    }
    return n == 0 ? 0.0 : medianInPlace(d.begin(), n);
}

// The reports of the last minute: their median, scatter, and how far apart the medians of its
// two halves and of its last seconds lie from each other and from it.
struct Minute {
    Point centre;
    double scatterM = 0, halvesApartM = 0, latestOffM = 0;
    double wanderM = 0;  // the reports' path from one to the next
    double halfFrom = 0; // where its second half begins
    std::size_t reports = 0;
    bool judged = false; // long enough to be judged
};

Minute judgeMinute(const Watch& w, double now) {
    Minute m;
    const double from = now - kWatchSeconds;
    // A minute whose first and last reports lie this far apart went somewhere: not worth a median.
    std::size_t firstIndex = 0;
    while (firstIndex < w.count && spotAt(w, firstIndex).time < from) ++firstIndex;
    if (firstIndex == w.count) return m;
    const Spot &first = spotAt(w, firstIndex), &last = spotAt(w, w.count - 1);
    if (distanceM({first.eastM, first.northM}, {last.eastM, last.northM}) > kMinuteTravelM) return m;
    m.reports = medianOf(w, from, now + 1, m.centre, true);
    const double oldest = first.time;
    m.scatterM = scatterOf(w, from, m.centre);
    Point early, late, latest;
    const double half = m.halfFrom = (oldest + now) / 2;
    if (oldest > now - kJudgeAfterSeconds || !medianOf(w, from, half, early) ||
        !medianOf(w, half, now + 1, late) || !medianOf(w, now - kLatestSeconds, now + 1, latest))
        return m;
    m.halvesApartM = distanceM(early, late);
    for (std::size_t i = firstIndex; i + 1 < w.count; ++i)
        m.wanderM += distanceM({spotAt(w, i).eastM, spotAt(w, i).northM},
                               {spotAt(w, i + 1).eastM, spotAt(w, i + 1).northM});
    m.latestOffM = distanceM(latest, m.centre);
    m.judged = true;
    return m;
}

double agreeFor(double scatterM) {
    return std::max(kHalvesAgreeM, std::min(0.5 * scatterM, kHalvesAgreeMaxM));
}

// Five distinct reports on a line, evenly paced, leaving the held place.
bool movesOffInLine(const Watch& w, Point anchor) {
    if (w.recentCount < w.recent.size()) return false;
    const auto& p = w.recent;
    const std::size_t n = p.size();
    if (p[n - 1].time - p[0].time > kLineMaxSpanSeconds) return false;
    double tm = 0, em = 0, nm = 0;
    for (const Spot& s : p) tm += s.time, em += s.eastM, nm += s.northM;
    tm /= n, em /= n, nm /= n;
    double tt = 0, te = 0, tn = 0;
    for (const Spot& s : p) {
        tt += (s.time - tm) * (s.time - tm);
        te += (s.time - tm) * (s.eastM - em);
        tn += (s.time - tm) * (s.northM - nm);
    }
    if (tt <= 0) return false;
    const double ve = te / tt, vn = tn / tt, v = std::hypot(ve, vn);
    if (v < kLineMinMps) return false;
    for (std::size_t i = 0; i < n; ++i) {
        const double off =
            std::hypot(p[i].eastM - (em + ve * (p[i].time - tm)), p[i].northM - (nm + vn * (p[i].time - tm)));
        if (off > kLineMaxOffM) return false;
        if (i == 0) continue;
        const double dt = p[i].time - p[i - 1].time;
        const double step = distanceM({p[i].eastM, p[i].northM}, {p[i - 1].eastM, p[i - 1].northM});
        if (step < 0.5 * v * dt || step > 2 * v * dt) return false;
    }
    const Point last{p[n - 1].eastM, p[n - 1].northM};
    const bool away = (last.east - anchor.east) * ve + (last.north - anchor.north) * vn > 0;
    return away && distanceM(last, anchor) > std::max(kLineMinAwayM, 1.5 * w.scatterM);
}

// Farther than this from where it is held, the median of its reports says it is elsewhere.
double farFor(double scatterM) {
    return std::max(kWalkMinAwayM, 2.5 * scatterM);
}

// The median of the last half minute far off, and each third of it farther than the one before.
bool walksOff(const Watch& w, double now, Point anchor) {
    Point all;
    if (medianOf(w, now - kWalkSeconds, now + 1, all) < 5) return false;
    if (distanceM(all, anchor) <= farFor(w.scatterM)) return false;
    double before = -1;
    for (int i = 0; i < 3; ++i) {
        const double from = now - kWalkSeconds + i * kWalkSeconds / 3;
        Point part;
        if (medianOf(w, from, i == 2 ? now + 1 : from + kWalkSeconds / 3, part) < 2) return false;
        const double d = distanceM(part, anchor);
        if (i > 0 && d < before + kWalkStepM) return false;
        before = d;
    }
    return true;
}

// The minutes held are kept: a hold taken again where it was goes on from them.
void letGo(Watch& w) {
    w.held = false, w.recentCount = 0;
}

// Where a held aircraft stands: the median of its minutes once there are three, which the
// scatter of a single minute, even a minute-long stray, cannot pull away.
bool longRunCentre(const Watch& w, Point& out) {
    if (w.minuteCount < 3) return false;
    std::array<float, std::tuple_size_v<decltype(Watch::minutes)>> east{}, north{};
    for (std::size_t i = 0; i < w.minuteCount; ++i)
        east[i] = w.minutes[i].eastM, north[i] = w.minutes[i].northM;
    out = {medianInPlace(east.begin(), w.minuteCount), medianInPlace(north.begin(), w.minuteCount)};
    return true;
}

} // namespace

double lastHeard(const LiveAc& ac) {
    const Watch& w = ac.standWatch;
    return w.held && w.count ? std::max(ac.lastTimestamp, spotAt(w, w.count - 1).time) : ac.lastTimestamp;
}

LatLonPos anchorOf(const LiveAc::StandWatch& w) {
    return fromXY(w.origin, w.anchorEastM, w.anchorNorthM);
}

StandVerdict watchStanding(LiveAc::StandWatch& w, double t, double lat, double lon, bool airborne) {
    if (airborne) {
        // A report or two in the air amid the reports of a held aircraft is a wrong altitude or
        // flag: it cannot leave the ground without moving off first. A helicopter may, and keeps
        // reporting from the air.
        if (w.airSince == 0) w.airSince = t;
        if (t - w.airSince < kAirLetGoSeconds) return w.held ? StandVerdict::Drop : StandVerdict::Pass;
        // A flight: the stand is forgotten (the rings need no clearing, only their counts).
        w.count = w.next = w.recentCount = w.minuteCount = w.minuteNext = 0;
        w.held = false, w.scatterM = 0;
        return StandVerdict::Pass;
    }
    w.airSince = 0;
    if (w.count == 0) w.origin = {lat, lon};
    double east = 0, north = 0;
    toXY(w.origin.lat, w.origin.lon, lat, lon, east, north);
    const Spot spot{t, static_cast<float>(east), static_cast<float>(north)};
    const double lastTime = w.count ? spotAt(w, w.count - 1).time : -1e9;
    if (t < lastTime + kSpotSpacingSeconds) return w.held ? StandVerdict::Drop : StandVerdict::Pass;
    const bool gap = w.count && t - lastTime > kGapSeconds;
    w.spots[w.next] = spot;
    w.next = static_cast<std::uint8_t>((w.next + 1) % Watch::kSpots);
    w.count = static_cast<std::uint8_t>(std::min<std::size_t>(w.count + 1u, Watch::kSpots));

    const Minute m = judgeMinute(w, t);
    if (!w.held) {
        const double agreeM = agreeFor(m.scatterM);
        // Reports that scatter go back and forth; a creep that the feed reports in steps goes one way.
        if (gap || !m.judged || m.reports < kJudgeMinReports || m.scatterM <= kScatterMinM ||
            m.scatterM >= kScatterMaxM || m.halvesApartM > agreeM || m.latestOffM > agreeM ||
            m.wanderM < kWanderShare * m.halvesApartM)
            return StandVerdict::Pass;
        // Held where its last half minute stands: the first half may hold the way in.
        Point now;
        medianOf(w, m.halfFrom, t + 1, now, true);
        w.held = true;
        w.scatterM = std::max(w.scatterM, static_cast<float>(m.scatterM));
        Point before;
        if (!longRunCentre(w, before) || distanceM(before, now) > farFor(w.scatterM))
            w.minuteCount = 0, w.minuteNext = 0, before = now;
        w.anchorEastM = before.east, w.anchorNorthM = before.north;
        w.recentCount = 0, w.minuteFrom = t;
        return StandVerdict::Anchor;
    }
    const Point anchor{w.anchorEastM, w.anchorNorthM};
    // After a silence, a report far off says it moved meanwhile.
    if (gap && distanceM({spot.eastM, spot.northM}, anchor) > farFor(w.scatterM)) {
        letGo(w);
        return StandVerdict::Pass;
    }
    if (m.judged && m.halvesApartM <= agreeFor(w.scatterM))
        w.scatterM =
            static_cast<float>(std::min(std::max(static_cast<double>(w.scatterM), m.scatterM), kScatterMaxM));
    auto& r = w.recent;
    if (w.recentCount == 0 || r[w.recentCount - 1].eastM != spot.eastM ||
        r[w.recentCount - 1].northM != spot.northM) {
        if (w.recentCount == r.size()) std::rotate(r.begin(), r.begin() + 1, r.end()), --w.recentCount;
        r[w.recentCount++] = spot;
    }
    if (movesOffInLine(w, anchor) || walksOff(w, t, anchor)) {
        letGo(w);
        return StandVerdict::Pass;
    }
    if (m.reports == 0) return StandVerdict::Drop; // a minute spread too wide to place it by
    if (t - w.minuteFrom >= kWatchSeconds) {
        w.minutes[w.minuteNext] = {t, m.centre.east, m.centre.north};
        w.minuteNext = static_cast<std::uint8_t>((w.minuteNext + 1) % w.minutes.size());
        w.minuteCount =
            static_cast<std::uint8_t>(std::min<std::size_t>(w.minuteCount + 1u, w.minutes.size()));
        w.minuteFrom = t;
    }
    // It moves to where its minutes stand when the last minute, too, lies nearer there than where
    // it is held: a minute astray does not move it, nor do old minutes pull it back from where it
    // settled.
    Point centre = m.centre;
    const bool longRun = longRunCentre(w, centre);
    const double awayM = distanceM(centre, anchor);
    if (longRun ? awayM > kDriftMinM && distanceM(m.centre, centre) < awayM
                : awayM > std::max(kDriftMinM, static_cast<double>(w.scatterM))) {
        w.anchorEastM = centre.east, w.anchorNorthM = centre.north;
        // Minutes from before the move would pull it back: they start again from here.
        w.minutes[0] = {t, centre.east, centre.north};
        w.minuteCount = 1, w.minuteNext = 1, w.minuteFrom = t;
        return StandVerdict::Anchor;
    }
    return StandVerdict::Drop;
}

} // namespace orv::live
