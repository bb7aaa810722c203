// Static parking: how many aircraft stand at the park airport now, which flight on which stand,
// and the static aircraft made from that in the simulator.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <random>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "parking/parking.h"
#include "platform/platform.h"
#include "sim/sim.h"

namespace orv::parking {

ParkingState gParking;

void ParkingState::reset() {
    LiveView keep = std::move(live);
    *this = {};
    live = std::move(keep);
}

namespace {

namespace af = airportfile;
using af::DayHalfHour;

constexpr std::uint32_t kStaticHexidCount = 10000;

bool flag(const char* name) {
    return params::parameter<params::BoolParameter>(name).value;
}
std::int32_t number(const char* name) {
    return params::parameter<params::IntParameter>(name).value;
}

std::mt19937& rng() {
    thread_local std::mt19937 generator{std::random_device{}()};
    return generator;
}

const char* dayName(int day) {
    static constexpr const char* kNames[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    return day >= 1 && day <= 7 ? kNames[day - 1] : "???";
}

af::Stand* standByNumber(std::uint32_t number) {
    auto& s = af::gPark.stands;
    const auto it = std::lower_bound(s.begin(), s.end(), number,
                                     [](const af::Stand& a, std::uint32_t n) { return a.number < n; });
    return it != s.end() && it->number == number ? &*it : nullptr;
}

bool adjacentTo(const af::Stand& s, std::uint32_t other) {
    return std::find(s.adjacent.begin(), s.adjacent.end(), other) != s.adjacent.end();
}

// A static aircraft on a neighbouring stand that a plane of this type would touch.
bool neighbourTooClose(const af::Stand& s, refdata::ModelId type) {
    for (const auto& a : gParking.statics) {
        if (a.state != 2 || !adjacentTo(s, a.stand)) continue;
        const double d = core::distanceNm(a.latitude, a.longitude, s.latitude, s.longitude);
        if (refdata::halfSpan(type) + refdata::halfSpan(a.type) > d) return true;
    }
    return false;
}

bool eligible(const af::StandOption& o, const af::Stand& s, DayHalfHour at, bool real, bool sameDay) {
    return o.number != 0 && (!sameDay || o.day == static_cast<std::uint32_t>(at.day)) &&
           (o.real == 1) == real && o.hours.test(at.halfHour) && (!s.heli || flag("HELICOPTERS")) &&
           !s.neighbourTaken && !neighbourTooClose(s, o.type);
}

bool nameInUse(std::string_view name) {
    if (name.empty()) return false;
    for (const auto& i : gParking.stack)
        if (i.reg == name || i.cs == name || i.cs2 == name) return true;
    for (const auto& a : gParking.statics)
        if (a.reg == name || a.cs == name) return true;
    return false;
}

// Its registration or a callsign already stands, is on the stack or flies live.
bool duplicate(const af::StandOption& o) {
    const auto& live = gParking.live.callsignInUse;
    for (const std::string* cs : {&o.cs, &o.cs2})
        if (!cs->empty() && live && live(*cs)) return true;
    return nameInUse(o.reg) || nameInUse(o.cs) || nameInUse(o.cs2);
}

// Whether the flight of `o` still stands in the half hour after `at`.
bool staysNext(const af::Stand& s, const af::StandOption& o, DayHalfHour at) {
    if (at.halfHour < 47) return o.hours.test(at.halfHour + 1);
    const std::uint32_t next = at.day == 7 ? 1 : static_cast<std::uint32_t>(at.day + 1);
    return std::any_of(s.options.begin(), s.options.end(), [&](const af::StandOption& x) {
        return x.number != 0 && x.day == next && x.airline == o.airline && x.type == o.type &&
               x.hours.test(0);
    });
}

std::size_t takenCount() {
    return static_cast<std::size_t>(std::count_if(af::gPark.stands.begin(), af::gPark.stands.end(),
                                                  [](const af::Stand& s) { return s.taken; }));
}

void searchStands(DayHalfHour t, bool real, bool sameDay, std::int32_t offset, std::vector<StaticItem>& out) {
    const DayHalfHour at = af::stepBack(t, offset);
    std::vector<std::uint32_t> numbers;
    numbers.reserve(64);
    try {
        for (auto& s : af::gPark.stands) {
            if (s.reserved || s.taken) continue;
            numbers.clear();
            for (const auto& o : s.options)
                if (eligible(o, s, at, real, sameDay)) numbers.push_back(o.number);
            if (numbers.empty()) continue;
            if (numbers.size() > 1 && flag("RANDOM")) {
                // The one already standing here keeps its place; otherwise any of them.
                auto standing = std::find_if(numbers.begin(), numbers.end(), [&](std::uint32_t n) {
                    const auto& o = s.options[n - 1];
                    return std::any_of(
                        gParking.statics.begin(), gParking.statics.end(), [&](const StaticAc& a) {
                            return a.stand == s.number && a.airline == o.airline && a.type == o.type &&
                                   (a.cs == o.cs || (!o.cs2.empty() && a.cs == o.cs2));
                        });
                });
                if (standing != numbers.end())
                    std::iter_swap(numbers.begin(), standing);
                else
                    std::shuffle(numbers.begin(), numbers.end(), rng());
            }
            auto& o = s.options[numbers.front() - 1];
            if (duplicate(o)) {
                o.number = 0; // out until the next adjustment numbers the options again
                continue;
            }
            StaticItem item;
            item.stand = s.number;
            item.offset = offset;
            item.airline = o.airline, item.type = o.type;
            item.cs = o.cs, item.cs2 = o.cs2, item.reg = o.reg;
            item.firstCs = o.cs2.empty() || staysNext(s, o, at);
            out.push_back(std::move(item));
            s.taken = true;
            for (const auto n : s.adjacent)
                if (auto* a = standByNumber(n)) a->neighbourTaken = true;
        }
    } catch (const std::exception& e) {
        core::log(fmt::format("{}: day: {}, offset {}: {}", "searchStands",
                              fmt::format("[{},{}]", at.day, at.halfHour), offset, e.what()));
    }
}

// Options are numbered from 1 within their stand; a removed one has 0 until numbered again.
void renumberOptions() {
    for (auto& s : af::gPark.stands)
        for (std::size_t i = 0; i < s.options.size(); ++i)
            s.options[i].number = static_cast<std::uint32_t>(i + 1);
}

bool fillAtOffsets(DayHalfHour t, bool real, bool sameDay, std::size_t wanted, std::vector<StaticItem>& out) {
    if (wanted == 0) return true;
    const std::size_t before = takenCount();
    const std::int32_t maxFit = number("MAX_FIT");
    bool ok = false;
    std::int32_t offset = 0;
    for (;; ++offset) {
        searchStands(t, real, sameDay, offset, out);
        if (takenCount() >= wanted) {
            ok = true;
            break;
        }
        gParking.stack.insert(gParking.stack.end(), std::make_move_iterator(out.begin()),
                              std::make_move_iterator(out.end()));
        out.clear();
        if (offset >= maxFit) break;
    }
    gParking.lastFit = std::max(gParking.lastFit, std::min(offset, 47));
    const std::size_t found = takenCount() - before;
    if (found > 0) {
        const char* label = real ? (sameDay ? "real" : "week/real") : (sameDay ? "soft" : "week/soft");
        const float maxFitHours = params::parameter<params::ChoiceFloatParameter>("MAX_FIT_FL").value;
        core::log(fmt::format("{} {} position{} found, Max fit={:.1F} hours{}{}", found, label,
                              found == 1 ? "" : "s", maxFitHours,
                              fmt::format(", hh:{} or {:.1F} hrs, fit: {:.1F} hour", t.halfHour,
                                          t.halfHour / 2.0, fitHours(offset)),
                              fmt::format(", day {}", t.day)));
    }
    gParking.softMark = gParking.softMark || !real;
    gParking.weekMark = gParking.weekMark || !sameDay;
    return ok;
}

void fillPass(DayHalfHour t, std::size_t wanted, std::size_t already, bool real, bool sameDay) {
    std::vector<StaticItem> out;
    out.reserve(512);
    if (!fillAtOffsets(t, real, sameDay, wanted, out)) return;
    auto& stack = gParking.stack;
    const auto surplus = static_cast<std::int64_t>(stack.size()) - static_cast<std::int64_t>(wanted) +
                         static_cast<std::int64_t>(already);
    if (surplus > 0 && !out.empty()) {
        if (flag("RANDOM")) std::shuffle(out.begin(), out.end(), rng());
        out.resize(out.size() - std::min<std::size_t>(static_cast<std::size_t>(surplus), out.size()));
    }
    stack.insert(stack.end(), std::make_move_iterator(out.begin()), std::make_move_iterator(out.end()));
    const std::size_t room = wanted > already ? wanted - already : 0;
    if (stack.size() > room) stack.resize(room);
}

void fillAllPasses(DayHalfHour t, std::size_t wanted, std::size_t already) {
    const auto short_ = [&] { return gParking.stack.size() + already < wanted; };
    if (short_()) fillPass(t, wanted, already, true, true);
    if (short_() && flag("WEEK")) fillPass(t, wanted, already, true, false);
    if (short_() && flag("PARK_SOFT")) fillPass(t, wanted, already, false, true);
    if (short_() && flag("PARK_SOFT") && flag("WEEK")) fillPass(t, wanted, already, false, false);
}

void clearStandMarks() {
    for (auto& s : af::gPark.stands) s.taken = s.reserved = s.neighbourTaken = false;
}

void applyReservedStand() {
    for (auto& s : af::gPark.stands)
        if (!gParking.reservedStand.empty() && s.id == gParking.reservedStand) s.reserved = true;
    if (const auto user = sim::userPosition()) {
        const auto under = userStand({user->latitude, user->longitude}, user->onGround);
        for (auto& s : af::gPark.stands)
            if (!under.empty() && s.id == under) s.reserved = true;
    }
}

void logTime(DayHalfHour t) {
    const auto secs =
        std::chrono::duration_cast<std::chrono::seconds>(platform::clock().utcNow().time_since_epoch())
            .count();
    core::log(fmt::format("\n{:%Y-%m-%d %H:%M:%S} (utc) It is day {} ({}), {:.1F} hours",
                          fmt::gmtime(static_cast<std::time_t>(secs)), t.day, dayName(t.day),
                          (secs % 86400) / 3600.0));
}

int startOf(DayHalfHour t) {
    return t.day * 48 + t.halfHour;
}

void removeStatic(std::size_t index) {
    auto& a = gParking.statics[index];
    if (a.objectId != 0) gParking.removals.push_back(a.objectId);
    a.state = 0; // gone from the list once the simulator reports it removed, or at once if never made
}

void dropGone() {
    std::erase_if(gParking.statics, [](const StaticAc& a) { return a.state == 0 && a.objectId == 0; });
}

bool optionStillFits(DayHalfHour t, const af::Stand& s, const StaticAc& a) {
    const int fit = std::min(gParking.lastFit, 47);
    for (int k = 0; k <= fit; ++k) {
        const DayHalfHour at = af::stepBack(t, k);
        for (const auto& o : s.options)
            if (o.reg == a.reg && (o.cs == a.cs || o.cs2 == a.cs) &&
                o.day == static_cast<std::uint32_t>(at.day) && o.hours.test(at.halfHour))
                return true;
    }
    return false;
}

} // namespace

double fitHours(std::int32_t steps) {
    if (steps < 0) return 0.5;
    if (steps <= 9) return (steps + 1) / 2.0;
    static constexpr struct {
        std::int32_t upTo;
        double hours;
    } kWide[] = {{11, 6},  {13, 7},  {15, 8},  {17, 9},  {19, 10},
                 {21, 11}, {25, 12}, {31, 15}, {37, 18}, {43, 21}};
    for (const auto& w : kWide)
        if (steps <= w.upTo) return w.hours;
    return 24;
}

std::int32_t wantedPositions() {
    const std::int32_t maxPark = number("MAX_PARK_SEL");
    if (maxPark <= 0) {
        gParking.shownPercentage = 0;
        return 0;
    }
    const std::int32_t custom = number("CUSTOM_PARKING_PERCENTAGE");
    const std::int32_t p = custom >= 0 ? custom : number("parking_percentage");
    const auto n = static_cast<std::int32_t>(af::gPark.stands.size());
    const std::int32_t wanted =
        n > 1 && (n > 3 || p >= 50) ? static_cast<std::int32_t>(std::lround(p * n / 100.0)) : 1;
    const std::int32_t result = std::min(maxPark, wanted);
    gParking.shownPercentage = n > 0 ? static_cast<std::int32_t>(std::lround(100.0 * result / n)) : 0;
    return result;
}

void calcStatics() {
    const DayHalfHour t = af::nowDayHalfHour();
    logTime(t);
    auto& P = gParking;
    P.stack.clear();
    P.softMark = P.weekMark = false;
    P.lastFit = 0;
    P.loading = true;
    clearStandMarks();
    applyReservedStand();
    const auto wanted = static_cast<std::size_t>(wantedPositions());
    P.wanted = static_cast<std::int32_t>(wanted);
    if (wanted > P.stack.size()) fillAllPasses(t, wanted, 0);
    std::stable_sort(P.stack.begin(), P.stack.end(),
                     [](const StaticItem& a, const StaticItem& b) { return a.offset < b.offset; });
    if (P.stack.size() > wanted) P.stack.resize(wanted);
    P.planned = P.stack.size();
    if (P.stack.empty()) {
        core::log("no parking positions found");
        return;
    }
    const auto n = af::gPark.stands.size();
    core::log(fmt::format("{} positions ({}% vs wanted {}%, with Max fit={:.1F} hours)\n", P.stack.size(),
                          std::lround(100.0 * static_cast<double>(P.stack.size()) / static_cast<double>(n)),
                          number("parking_percentage"),
                          params::parameter<params::ChoiceFloatParameter>("MAX_FIT_FL").value));
    // The engine takes from the end: the closest fits go first.
    std::stable_sort(P.stack.begin(), P.stack.end(),
                     [](const StaticItem& a, const StaticItem& b) { return a.offset > b.offset; });
}

void adjustStatics() {
    auto& P = gParking;
    if (af::gPark.code.empty() || af::gPark.stands.empty()) return;
    const DayHalfHour t = af::nowDayHalfHour();
    logTime(t);
    P.wantedOut.clear();
    P.stack.clear();
    P.survivors.clear();
    clearStandMarks();
    renumberOptions();
    applyReservedStand();
    const auto wanted = static_cast<std::size_t>(wantedPositions());
    P.wanted = static_cast<std::int32_t>(wanted);
    std::size_t already = 0;
    for (const auto& a : P.statics) {
        if (a.state == 0) continue;
        if (auto* s = standByNumber(a.stand)) {
            s->taken = true;
            for (const auto n : s->adjacent)
                if (auto* b = standByNumber(n)) b->neighbourTaken = true;
        }
        ++already;
    }
    if (wanted != already) fillAllPasses(t, wanted, already);
    // Each static aircraft stays while its flight still fits, or makes way for the item on its stand.
    for (std::size_t i = 0; i < P.statics.size(); ++i) {
        auto& a = P.statics[i];
        if (a.state != 2) continue;
        const auto item = std::find_if(P.stack.begin(), P.stack.end(),
                                       [&](const StaticItem& it) { return it.stand == a.stand; });
        const auto* s = standByNumber(a.stand);
        if (item == P.stack.end()) {
            if (s && optionStillFits(t, *s, a))
                P.survivors.push_back(i);
            else
                P.wantedOut.emplace_back(a.reg, a.stand);
        } else if (item->airline == a.airline && item->type == a.type &&
                   (item->cs == a.cs || item->cs2 == a.cs)) {
            P.survivors.push_back(i);
            P.stack.erase(item);
        } else if (startOf(af::stepBack(t, item->offset)) <= startOf({a.startDay, a.startHalfHour})) {
            P.survivors.push_back(i);
            P.stack.erase(item);
        } else {
            P.wantedOut.emplace_back(a.reg, a.stand);
        }
    }
    // Callsign change: a survivor in its flight's last half hour comes back under its second callsign.
    for (auto it = P.survivors.begin(); it != P.survivors.end();) {
        auto& a = P.statics[*it];
        const auto* s = standByNumber(a.stand);
        const af::StandOption* o = nullptr;
        if (s)
            for (const auto& x : s->options)
                if (x.day == static_cast<std::uint32_t>(t.day) && x.cs == a.cs && !x.cs2.empty() &&
                    x.airline == a.airline && x.type == a.type)
                    o = &x;
        if (o && !staysNext(*s, *o, t)) {
            StaticItem item{a.stand, 0, a.airline, a.type, o->cs, o->cs2, a.reg, false};
            P.stack.push_back(std::move(item));
            P.wantedOut.emplace_back(a.reg, a.stand);
            it = P.survivors.erase(it);
        } else {
            ++it;
        }
    }
    auto excess =
        static_cast<std::int64_t>(P.survivors.size() + P.stack.size()) - static_cast<std::int64_t>(wanted);
    while (excess-- > 0) {
        if (!P.stack.empty()) {
            P.stack.pop_back();
        } else if (!P.survivors.empty()) {
            const auto& a = P.statics[P.survivors.back()];
            P.wantedOut.emplace_back(a.reg, a.stand);
            P.survivors.pop_back();
        }
    }
    std::stable_sort(P.stack.begin(), P.stack.end(),
                     [](const StaticItem& a, const StaticItem& b) { return a.offset > b.offset; });
    P.planned = P.survivors.size() + P.stack.size();
    core::log(fmt::format("Parking adjustments: {} to be removed, {} to be added\n", P.wantedOut.size(),
                          P.stack.size()));
    for (const auto& [reg, stand] : P.wantedOut)
        for (std::size_t i = 0; i < P.statics.size(); ++i)
            if (P.statics[i].reg == reg && P.statics[i].stand == stand && P.statics[i].state == 2)
                removeStatic(i);
    dropGone();
}

std::optional<StaticCreate> nextStatic() {
    auto& P = gParking;
    if (P.stack.empty() || af::gPark.stands.empty()) return std::nullopt;
    StaticItem item = std::move(P.stack.back());
    P.stack.pop_back();
    const auto* s = standByNumber(item.stand);
    if (!s) {
        core::log(fmt::format("stand with id {} not found", item.stand));
        return std::nullopt;
    }
    // A live aircraft parked here or beside it keeps the stand free of statics.
    if (P.live.parkedOn) {
        if (const auto cs = P.live.parkedOn(s->number); !cs.empty()) {
            core::log(fmt::format("{:8}: no static parking for {}, live aircraft {} standing here", s->id,
                                  item.cs, cs));
            return std::nullopt;
        }
        for (const auto n : s->adjacent)
            if (const auto cs = P.live.parkedOn(n); !cs.empty()) {
                const auto* other = standByNumber(n);
                core::log(fmt::format(
                    "{:8}: no static parking for {}, live aircraft {} is adjacent at {}, possibly "
                    "colliding",
                    s->id, item.cs, cs, other ? other->id : std::string()));
                return std::nullopt;
            }
    }
    for (const auto& a : P.statics) {
        if (a.state == 0 || !adjacentTo(*s, a.stand)) continue;
        const auto* other = standByNumber(a.stand);
        core::log(fmt::format(
            "{:8}: no static parking for {}, static aircraft {} is adjacent at {}, possibly colliding", s->id,
            item.cs, a.cs, other ? other->id : std::string()));
        return std::nullopt;
    }
    P.madeUpCounter = (P.madeUpCounter + 1) % 10000;
    if (item.reg.empty())
        item.reg = fmt::format("{}{}{}", refdata::airlineCode(item.airline), P.madeUpCounter, "*");
    const auto clean = [](std::string cs) {
        while (!cs.empty() && cs.back() == '_') cs.pop_back();
        return cs;
    };
    std::string cs = clean(item.firstCs ? item.cs : item.cs2);
    if (cs.empty()) cs = clean(item.firstCs ? item.cs2 : item.cs);
    if (cs.empty()) core::log(fmt::format("{} callsign is empty..", "nextStatic"));
    StaticAc a;
    P.nextHexid = P.nextHexid % kStaticHexidCount + 1;
    a.hexid = P.nextHexid;
    a.stand = s->number;
    a.reg = item.reg;
    a.cs = cs;
    a.airline = item.airline, a.type = item.type;
    a.latitude = s->latitude, a.longitude = s->longitude, a.headingRad = s->headingRad;
    liveries::MatchAircraft m;
    m.key = refdata::airlineModelKey(item.airline, item.type);
    m.regcode = a.reg;
    m.category = refdata::category(item.type);
    m.describe(
        fmt::format("{} {} {}", refdata::airlineCode(item.airline), refdata::modelCode(item.type), a.reg));
    if (!liveries::matchStaticLivery(m, s->id, s->cargo)) return std::nullopt;
    a.title = m.title;
    const DayHalfHour start = af::stepBack(af::nowDayHalfHour(), item.offset);
    a.startDay = start.day, a.startHalfHour = start.halfHour;
    StaticCreate c{a.hexid,
                   a.latitude,
                   a.longitude,
                   static_cast<double>(af::gPark.airport.altitudeFt),
                   a.headingRad * core::kDegPerRad,
                   a.cs,
                   a.title};
    P.statics.push_back(std::move(a));
    return c;
}

void onStaticCreated(std::uint32_t hexid, std::uint32_t objectId) {
    for (auto& a : gParking.statics)
        if (a.hexid == hexid && a.objectId == 0) {
            a.objectId = objectId;
            if (a.state == 0) {
                gParking.removals.push_back(objectId); // left while the simulator made it
            } else {
                a.state = 2;
            }
            return;
        }
    gParking.removals.push_back(objectId); // nobody wants it any more
}

bool onObjectRemoved(std::uint32_t objectId) {
    const auto before = gParking.statics.size();
    std::erase_if(gParking.statics, [&](const StaticAc& a) { return a.objectId == objectId; });
    return gParking.statics.size() != before;
}

void leaveParkAirport() {
    auto& P = gParking;
    for (std::size_t i = 0; i < P.statics.size(); ++i) removeStatic(i);
    dropGone();
    af::flushLiveAirports();
    P.stack.clear();
    P.wantedOut.clear();
    P.survivors.clear();
    P.pendingLoad = P.loading = false;
    P.reservedStand.clear();
}

void clearStaticsFor(std::uint32_t standNumber, double halfSizeNm) {
    const auto* s = standByNumber(standNumber);
    if (!s) return;
    for (std::size_t i = 0; i < gParking.statics.size(); ++i) {
        auto& a = gParking.statics[i];
        if (a.state == 0) continue;
        const bool here = a.stand == standNumber;
        const bool touching = adjacentTo(*s, a.stand) &&
                              halfSizeNm + refdata::halfSpan(a.type) >
                                  core::distanceNm(a.latitude, a.longitude, s->latitude, s->longitude);
        if (!here && !touching) continue;
        core::log(fmt::format("{:8}: static aircraft {} removed for a live arrival", s->id, a.cs));
        removeStatic(i);
    }
    dropGone();
}

void removeStaticAircraft(std::size_t index, std::string_view why) {
    if (index >= gParking.statics.size()) return;
    const auto& a = gParking.statics[index];
    const auto* s = standByNumber(a.stand);
    core::log(
        fmt::format("{:8}: static aircraft {} {} removed, {}", s ? s->id : std::string(), a.cs, a.reg, why));
    removeStatic(index);
    dropGone();
}

bool staticWanted(std::uint32_t hexid) {
    return std::any_of(gParking.statics.begin(), gParking.statics.end(),
                       [&](const StaticAc& a) { return a.hexid == hexid && a.state != 0; });
}

void flushStatics() {
    if (gParking.loading) return;
    leaveParkAirport();
}

} // namespace orv::parking
