#include <atomic>
#include <functional>
#include <map>
#include <thread>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <pugixml.hpp>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "live/internal.h"
#include "params/params.h"
#include "parking/parking.h"
#include "program_home.h"
#include "recording.h"
#include "scenario.h"
#include "support.h"

namespace orv {
namespace {

namespace af = airportfile;

TEST(StaticParkingTest, FitHoursAndWantedPositions) {
    struct Fit {
        int steps;
        double hours;
    };
    for (const auto& f : {Fit{0, 0.5}, Fit{1, 1.0}, Fit{9, 5.0}, Fit{10, 6}, Fit{11, 6}, Fit{25, 12},
                          Fit{26, 15}, Fit{43, 21}, Fit{44, 24}, Fit{47, 24}})
        EXPECT_EQ(parking::fitHours(f.steps), f.hours) << f.steps;

    struct Wanted {
        int stands, percentage, maxPark, wanted;
    };
    const Wanted cases[] = {{2, 30, 500, 1},    {3, 50, 500, 2},    {4, 30, 500, 1}, {1, 10, 500, 1},
                            {199, 30, 500, 60}, {199, 100, 50, 50}, {199, 100, 0, 0}};
    for (const auto& c : cases) {
        af::gPark.stands.assign(static_cast<std::size_t>(c.stands), {});
        params::set(params::parameter<params::ChoiceIntParameter>("parking_percentage"), c.percentage,
                    params::Save::no);
        params::set(params::parameter<params::ChoiceIntParameter>("MAX_PARK_SEL"), c.maxPark,
                    params::Save::no);
        EXPECT_EQ(parking::wantedPositions(), c.wanted) << c.stands << " stands at " << c.percentage << "%";
    }
    af::gPark.reset();
    params::set(params::parameter<params::ChoiceIntParameter>("parking_percentage"), 30, params::Save::no);
    params::set(params::parameter<params::ChoiceIntParameter>("MAX_PARK_SEL"), 500, params::Save::no);
}

TEST(StaticParkingTest, TheUsersStandIsTheNearestWithin55Metres) {
    af::gPark.reset();
    af::Stand a;
    a.id = "A1", a.latitude = 44.88, a.longitude = -93.2;
    af::gPark.stands = {a};
    struct Case {
        double metresNorth;
        bool onGround;
        const char* stand;
    };
    for (const auto& c : {Case{54, true, "A1"}, Case{56, true, ""}, Case{10, false, ""}, Case{0, true, "A1"}})
        EXPECT_EQ(parking::userStand({44.88 + c.metresNorth / 1852.0 / 60.0, -93.2}, c.onGround), c.stand)
            << c.metresNorth << " m, on the ground " << c.onGround;
    af::gPark.reset();
    parking::reset();
}

// A static is not placed on a stand a live aircraft is parked on, nor beside it.
TEST(StaticParkingTest, NoStaticOnOrBesideALiveAircraftsStand) {
    test::LogCapture log;
    af::gPark.reset();
    parking::reset();
    const auto stand = [](const char* id, double northM) {
        af::Stand s;
        s.id = id, s.latitude = 44.88 + northM / 1852.0 / 60.0, s.longitude = -93.2,
        s.radiusNm = 20 * af::kNmPerMetre;
        return s;
    };
    af::gPark.stands = {stand("A1", 0), stand("A2", 35), stand("B1", 500)};
    af::numberAndLinkStands(af::gPark.stands);
    parking::gParking.live.parkedOn = [](std::uint32_t n) {
        return n == 1 ? std::string("DAL1") : std::string();
    };
    for (const std::uint32_t n : {1u, 2u}) {
        parking::StaticItem item;
        item.stand = n, item.cs = fmt::format("KLM{}", n);
        parking::gParking.stack = {item};
        EXPECT_FALSE(parking::nextStatic());
    }
    EXPECT_TRUE(log.contains("A1      : no static parking for KLM1, live aircraft DAL1 standing here"));
    EXPECT_TRUE(log.contains("A2      : no static parking for KLM2, live aircraft DAL1 is adjacent at A1"));
    parking::StaticItem far;
    far.stand = 3, far.cs = "KLM3";
    parking::gParking.stack = {far};
    (void)parking::nextStatic();
    EXPECT_FALSE(log.contains("no static parking for KLM3"));
    parking::gParking.live.parkedOn = nullptr;
    af::gPark.reset();
    parking::reset();
}

// The user parks at KMSP; the data site serves the stock file; statics come and go with the
// made-up traffic week over a day, and go when the user flies away.
class ParkAirportScenario : public test::ProgramHome {
  protected:
    void SetUp() override {
        ProgramHome::SetUp();
        const fs::path site = dir.path() / "site";
        ASSERT_EQ(
            tools::airportsMain("site", {site.string(), "--data", std::string(ORV_SOURCE_DIR) + "/data"}), 0);
        server.set_mount_point("/", site.string());
        server.set_logger([this](const httplib::Request& r, const httplib::Response&) {
            if (r.path.find("KMSP.xml") != std::string::npos) ++asked;
        });
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
        params::set(params::parameter<params::StringParameter>("DATA_SITE"),
                    fmt::format("http://127.0.0.1:{}/", port), params::Save::no);
        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_file((site / "downloads/MSFS/archive/stock/KMSP.xml").c_str()));
        stands = af::readStands(doc, 1);
        af::numberAndLinkStands(stands);
    }
    void TearDown() override {
        server.stop();
        thread.join();
        params::set(params::parameter<params::StringParameter>("DATA_SITE"), "", params::Save::no);
        ProgramHome::TearDown();
    }
    const af::Stand& stand(std::string_view id) const {
        const auto it =
            std::find_if(stands.begin(), stands.end(), [&](const af::Stand& s) { return s.id == id; });
        if (it == stands.end()) throw std::runtime_error(fmt::format("no stand {} at KMSP", id));
        return *it;
    }
    // N899DN's KMSP recording from `from` to `to` (seconds from its start), with the user parked
    // at E1 and static parking on; run 30 s past the data plus `after`.
    scenario::Config kmspRun(double from, double to, double after) const {
        scenario::Config c;
        c.recording = fs::path(ORV_SOURCE_DIR) / "data/recordings/kmsp-n899dn.rttfc";
        c.airport = "KMSP";
        c.fromSeconds = from;
        c.toSeconds = to;
        c.runSeconds = to - from + 30 + after;
        c.titles = titles;
        c.parking.on = true;
        parkUserAtE1(c);
        return c;
    }
    void parkUserAtE1(scenario::Config& c) const {
        const auto& e1 = stand("E1");
        c.parking.user.latitude = e1.latitude, c.parking.user.longitude = e1.longitude;
        c.parking.user.altitudeFt = 841;
    }
    const af::Stand& standAt(double lat, double lon, double& metres) const {
        const af::Stand* best = &stands.front();
        metres = 1e9;
        for (const auto& s : stands) {
            const double d = core::distanceNm(lat, lon, s.latitude, s.longitude) * core::kMetresPerNm;
            if (d < metres) metres = d, best = &s;
        }
        return *best;
    }

    // N899DN's recording with its lines changed by `edit` (fields split at commas; return false to
    // drop the line) and more lines after them, as a recording of its own.
    fs::path madeUp(std::string_view name, const std::function<bool(std::vector<std::string>&)>& edit,
                    std::vector<std::string> more = {}) const {
        std::vector<std::string> lines;
        (void)core::readAllLines(fs::path(ORV_SOURCE_DIR) / "data/recordings/kmsp-n899dn.rttfc", lines, 4096);
        const fs::path out = dir.path() / fmt::format("{}.rttfc", name);
        std::string text;
        for (const auto& l : lines) {
            auto f = fields(l);
            if (!edit(f)) continue;
            text += fmt::format("{}\n", fmt::join(f, ","));
        }
        for (const auto& l : more) text += l + "\n";
        if (!core::writeText(text, out, false)) throw std::runtime_error("cannot write " + out.string());
        return out;
    }
    static std::vector<std::string> fields(std::string_view line) {
        std::vector<std::string> f;
        for (std::size_t a = 0;;) {
            const auto b = line.find(',', a);
            f.emplace_back(line.substr(a, b == std::string_view::npos ? b : b - a));
            if (b == std::string_view::npos) return f;
            a = b + 1;
        }
    }
    static double recordingSeconds(const std::vector<std::string>& f) {
        return std::stod(f[14]) - kRecordingStart;
    }
    // The phases N899DN goes through in a run, each as it changes.
    static void recordPhases(scenario::Config& c, std::vector<live::Phase>& phases) {
        c.onFrame = [&phases](double) {
            const live::LiveAc* ac = live::findByHexid(0xac671b);
            if (ac && (phases.empty() || phases.back() != ac->phase)) phases.push_back(ac->phase);
        };
    }
    // Where an aircraft came to rest against the stand it parked on: within 1 m and 2 degrees.
    static void expectRestsOn(const emu::ObjectRecord& o, const af::Stand& s) {
        const double off =
            core::distanceNm(o.now.latitude, o.now.longitude, s.latitude, s.longitude) * core::kMetresPerNm;
        const double headingOff = std::fabs(core::angleDiff(o.now.heading, s.headingRad)) * core::kDegPerRad;
        std::printf("%s rests %.2f m and %.1f deg off %s\n", o.tail.c_str(), off, headingOff, s.id.c_str());
        EXPECT_LT(off, 1.0);
        EXPECT_LT(headingOff, 2.0);
    }
    // The object of that name that moved most: a static of the same name stands still.
    static const emu::ObjectRecord* object(const scenario::Result& r, std::string_view tail) {
        const emu::ObjectRecord* best = nullptr;
        for (const auto& o : r.objects)
            if (o.tail == tail && (!best || o.positions.size() > best->positions.size())) best = &o;
        return best;
    }
    static constexpr double kRecordingStart = 1738703622.62; // the time of its first line

    httplib::Server server;
    std::thread thread;
    int port = 0;
    std::atomic<int> asked{0};
    std::vector<af::Stand> stands;
};

TEST_F(ParkAirportScenario, StaticsFollowTheScheduleAndLeaveWithTheUser) {
    const af::Stand* userStand = &stand("E1");
    constexpr double kDaySeconds = 24 * 3600.0;
    scenario::Config c;
    c.airport = "KMSP";
    c.titles = titles;
    c.runSeconds = kDaySeconds + 15 * 60;
    c.parking.on = true;
    parkUserAtE1(c);
    // After a day parked, it flies off north-west to 40 nm at 300 kt.
    c.parking.user.path = {{userStand->latitude, userStand->longitude, 841},
                           {userStand->latitude + 0.01, userStand->longitude, 841},
                           {userStand->latitude + 0.6, userStand->longitude - 0.6, 6000}};
    c.parking.user.speedKts = 300;
    c.parking.user.departAtSeconds = kDaySeconds;
    struct Check {
        double t;
        std::size_t planned, active;
    };
    std::vector<Check> checks;
    c.parking.onSecond = [&](double t) {
        // Two and a half minutes after each adjustment its stack has been worked off.
        if (static_cast<long>(t) % 1200 == 150 && t < kDaySeconds &&
            af::gPark.code == refdata::AirportCode("KMSP")) {
            std::size_t active = 0;
            for (const auto& a : parking::gParking.statics) active += a.state == 2;
            checks.push_back({t, parking::gParking.planned, active});
        }
    };
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    EXPECT_GE(asked.load(), 1) << "the site was asked for KMSP.xml";
    EXPECT_TRUE(log.contains("The park airport is KMSP"));
    if (std::getenv("ORV_SHOW_LOG")) std::printf("%s\n", log.text().c_str());

    // Each static on its stand, never on the user's, never beside another at the same time.
    std::size_t statics = 0, removedBeforeLeaving = 0;
    std::map<std::uint32_t, std::vector<const emu::ObjectRecord*>> byStand;
    for (const auto& o : r.objects) {
        double metres = 0;
        const auto& s = standAt(o.now.latitude, o.now.longitude, metres);
        ++statics;
        EXPECT_LT(metres, 1.0) << o.tail;
        EXPECT_LT(std::fabs(core::angleDiff(o.now.heading, s.headingRad)) * core::kDegPerRad, 2.0) << o.tail;
        EXPECT_NE(s.id, userStand->id) << o.tail << " on the reserved stand";
        if (o.removedAt >= 0 && o.removedAt < kDaySeconds) ++removedBeforeLeaving;
        EXPECT_GE(o.removedAt, 0.0) << o.tail << " still there after the user left";
        EXPECT_TRUE(o.released) << o.tail << ": the simulator's AI never had it";
        byStand[s.number].push_back(&o);
    }
    for (const auto& [number, objects] : byStand)
        for (const auto n : stands[number - 1].adjacent)
            for (const auto* a : objects)
                for (const auto* b : byStand[n])
                    EXPECT_FALSE(a->createdAt < b->removedAt && b->createdAt < a->removedAt)
                        << a->tail << " and " << b->tail << " on adjacent stands at once";
    EXPECT_GT(statics, 60u);
    EXPECT_GT(removedBeforeLeaving, 10u) << "statics leave with the schedule";
    ASSERT_GE(checks.size(), 60u);
    for (const auto& k : checks) EXPECT_EQ(k.active, k.planned) << "at " << k.t << " s";
    EXPECT_TRUE(log.contains("is out of sight"));
    std::vector<std::string> lines;
    (void)core::readAllLines(core::gPaths.programFolder / "airports/my_park_airports.txt", lines, 4);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "KMSP,E1") << "the user's stand is kept for the next visit";
    EXPECT_TRUE(fs::exists(core::gPaths.programFolder / "airports/learned/stock/KMSP.xml"))
        << "the learned file is written on leaving";
    std::printf("%zu statics in a day, %zu left before the user did\n", statics, removedBeforeLeaving);
}

// The real landing of DAL1812 with KMSP's airport file: it taxis in and parks on G11.
TEST_F(ParkAirportScenario, Dal1812ParksOnG11) {
    const af::Stand* g11 = &stand("G11");
    auto c = kmspRun(14000, 14500, 300); // from 5 minutes before touchdown to the gate
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    const emu::ObjectRecord* dal = nullptr;
    for (const auto& o : r.objects)
        if (o.tail == "DAL1812") dal = &o;
    ASSERT_TRUE(dal);
    expectRestsOn(*dal, *g11);
    EXPECT_TRUE(std::any_of(dal->events.begin(), dal->events.end(), [](const emu::EventRecord& e) {
        return e.name == "ENGINE_AUTO_SHUTDOWN";
    })) << "engines off at the stand";
    EXPECT_TRUE(log.contains("G11     : DAL1812  arrived at stand"));
    for (const auto& o : r.objects) {
        if (&o == dal || o.removedAt >= 0) continue;
        EXPECT_GT(core::distanceNm(o.now.latitude, o.now.longitude, g11->latitude, g11->longitude) * 1852.0,
                  20.0)
            << o.tail << " still stands on G11";
    }
}

// The loop closes: DAL1812's stay on G11 on a Thursday, when the stock file has no flight of it
// there, is learned; after a restart, the next Thursday's statics at that half hour put N899DN on G11.
TEST_F(ParkAirportScenario, AStayLearnedComesBackAsAStaticTheNextWeek) {
    const af::Stand* g11 = &stand("G11");
    constexpr std::int64_t kThursday = 1738717920 + 86400; // 6 Feb 2025 01:12 UTC
    auto c = kmspRun(14000, 14500, 300);
    c.parking.utcStart = kThursday;
    ASSERT_EQ(scenario::run(c).error, "");
    pugi::xml_document learned;
    ASSERT_TRUE(learned.load_file((core::gPaths.programFolder / "airports/learned/stock/KMSP.xml").c_str()));
    const auto opt = learned.select_node("//parkpos[@id='G11']/opt[@reg='N899DN']").node();
    ASSERT_TRUE(opt) << "N899DN's stay on G11 is in the learned file";
    EXPECT_EQ(opt.attribute("day").as_int(), 4);
    EXPECT_EQ(std::string(opt.attribute("hh").as_string()), "2");

    // The next week: no traffic, the same half hour.
    scenario::Config next;
    next.airport = "KMSP";
    next.titles = titles;
    next.runSeconds = 240;
    next.parking = c.parking;
    next.parking.utcStart = kThursday + 7 * 86400;
    const auto r = scenario::run(next);
    ASSERT_EQ(r.error, "");
    bool onG11 = false;
    for (const auto& o : r.objects) {
        const double m = core::distanceNm(o.now.latitude, o.now.longitude, g11->latitude, g11->longitude) *
                         core::kMetresPerNm;
        if (m < 1.0) onG11 = o.title.find("N899DN") != std::string::npos;
    }
    EXPECT_TRUE(onG11) << "a static N899DN stands on G11";
}

// DAL2418's real departure from its start at the gate: found on G11, it leaves with a push-back.
TEST_F(ParkAirportScenario, Dal2418StartsOnG11AndPushesBack) {
    const af::Stand* g11 = &stand("G11");
    auto c = kmspRun(22560, 23300, 0); // parked at G11, a minute and a half before the push-back
    std::vector<live::Phase> phases;
    recordPhases(c, phases);
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    const emu::ObjectRecord* dal = nullptr;
    for (const auto& o : r.objects)
        if (o.tail == "DAL1812" || o.tail == "DAL2418") dal = &o;
    ASSERT_TRUE(dal);
    ASSERT_FALSE(dal->positions.empty());
    const auto& first = dal->positions.front();
    const double off =
        core::distanceNm(first.latitude, first.longitude, g11->latitude, g11->longitude) * 1852.0;
    std::printf("created %.2f m and %.1f deg off G11; phases:", off,
                std::fabs(core::angleDiff(first.heading, g11->headingRad)) * core::kDegPerRad);
    for (auto p : phases) std::printf(" %s", std::string(live::phaseName(p)).c_str());
    std::printf("\n");
    if (std::getenv("ORV_SHOW_LOG")) std::printf("%s\n", log.text().c_str());
    EXPECT_LT(off, 1.0);
    ASSERT_GE(phases.size(), 3u);
    EXPECT_EQ(phases[1], live::Phase::Parked);
    EXPECT_TRUE(std::find(phases.begin(), phases.end(), live::Phase::PushingBack) != phases.end());
    const auto report = scenario::motionReport(r, {});
    ASSERT_FALSE(report.empty());
    EXPECT_LE(report[0].maxStepGroundKt, 40.0) << "no jump off the stand";
}

// N899DN's second day at KMSP: DAL1615 lands and parks on F8. The next morning's data of DAL2927
// begin 32 m off F8 already rolling at 17 kt (the push-back was not recorded): it is not put on
// the stand it has left, but taxis on from where its data begin.
TEST_F(ParkAirportScenario, TheSecondDayParksOnF8AndDoesNotPutTheNextDepartureBack) {
    const af::Stand* f8 = &stand("F8");
    {
        const auto r = scenario::run(kmspRun(70900, 71380, 300));
        ASSERT_EQ(r.error, "");
        const emu::ObjectRecord* dal = object(r, "DAL1615");
        ASSERT_TRUE(dal);
        expectRestsOn(*dal, *f8);
        EXPECT_TRUE(log.contains("F8      : DAL1615  arrived at stand"));
    }
    auto c = kmspRun(74790, 75300, 0);
    std::vector<live::Phase> phases;
    recordPhases(c, phases);
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    const emu::ObjectRecord* dal = object(r, "DAL2927");
    ASSERT_TRUE(dal);
    ASSERT_FALSE(dal->positions.empty());
    const auto& first = dal->positions.front();
    EXPECT_GT(core::distanceNm(first.latitude, first.longitude, f8->latitude, f8->longitude) * 1852.0, 25.0);
    EXPECT_TRUE(std::find(phases.begin(), phases.end(), live::Phase::Parked) == phases.end());
    const auto report = scenario::motionReport(r, {});
    ASSERT_FALSE(report.empty());
    EXPECT_LE(report[0].maxStepGroundKt, 40.0);
}

// At LSZH, with its stock file: CAI3208's data end 78 m from the nearest stand of the list (the
// stand it used is not in it), beyond the 55 m in which a landed aircraft looks for one: it stays
// where its data end instead of being pulled onto a stand it did not use.
TEST_F(ParkAirportScenario, Cai3208RestsWhereItsDataEndWithNoStandInReach) {
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file((dir.path() / "site/downloads/MSFS/archive/stock/LSZH.xml").c_str()));
    auto lszh = af::readStands(doc, 1);
    scenario::Config c;
    c.recording = fs::path(ORV_SOURCE_DIR) / "data/recordings/lszh-3flights.rttfc";
    c.airport = "LSZH";
    c.overlayFlights = true;
    c.callsigns = {"CAI3208"};
    c.runSeconds = 1053;
    c.titles = titles;
    c.parking.on = true;
    c.parking.utcStart = 1561000000;
    // The user parked at the far end of the stand list.
    c.parking.user.latitude = lszh.back().latitude, c.parking.user.longitude = lszh.back().longitude;
    c.parking.user.altitudeFt = 1417;
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    ASSERT_FALSE(r.fed.empty());
    const auto& last = r.fed.back();
    double nearestM = 1e9;
    for (const auto& s : lszh)
        nearestM = std::min(
            nearestM, core::distanceNm(last.latitude, last.longitude, s.latitude, s.longitude) * 1852.0);
    const emu::ObjectRecord* cai = nullptr;
    for (const auto& o : r.objects)
        if (o.tail == "CAI3208") cai = &o;
    ASSERT_TRUE(cai);
    const double off =
        core::distanceNm(cai->now.latitude, cai->now.longitude, last.latitude, last.longitude) * 1852.0;
    std::printf(
        "CAI3208's last report is %.1f m from the nearest listed stand; it rests %.2f m from that report\n",
        nearestM, off);
    EXPECT_GT(nearestM, 55.0);
    EXPECT_LT(off, 5.0);
    EXPECT_FALSE(log.contains("CAI3208  arrived at stand"));
}

// A ghost copy of DAL1812 ("DAL1812_", another hexid) flies the same landing: whichever of the two
// came first, one DAL1812 parks on G11 and the copy is gone.
TEST_F(ParkAirportScenario, AGhostCopyGoesAndItsOriginalParks) {
    const af::Stand* g11 = &stand("G11");
    for (const bool ghostFirst : {true, false}) {
        SCOPED_TRACE(ghostFirst ? "the ghost came first" : "the real one came first");
        const double realFrom = ghostFirst ? 14060 : 14000, ghostFrom = ghostFirst ? 14000 : 14060;
        std::vector<std::string> ghost;
        const auto keep = [&](std::vector<std::string>& f, bool collect) {
            if (f[9] != "DAL1812") return true;
            const double t = recordingSeconds(f);
            if (collect && t >= ghostFrom) {
                auto g = f;
                g[1] = "11298588", g[9] = "DAL1812_";
                ghost.push_back(fmt::format("{}", fmt::join(g, ",")));
            }
            return t >= realFrom;
        };
        (void)madeUp("ghost-lines", [&](auto& f) { return keep(f, true); });
        auto c = kmspRun(14000, 14500, 300);
        c.recording = madeUp(
            "ghost", [&](auto& f) { return keep(f, false); }, ghost);
        const auto r = scenario::run(c);
        if (std::getenv("ORV_SHOW_LOG")) std::printf("%s\n", log.text().c_str());
        ASSERT_EQ(r.error, "");
        const auto* real = object(r, "DAL1812");
        ASSERT_TRUE(real);
        EXPECT_LT(core::distanceNm(real->now.latitude, real->now.longitude, g11->latitude, g11->longitude) *
                      core::kMetresPerNm,
                  1.0);
        const auto* copy = object(r, "DAL1812_");
        if (ghostFirst) {
            ASSERT_TRUE(copy) << "the ghost was made before its twin came";
            EXPECT_GE(copy->removedAt, 0.0);
            EXPECT_LT(copy->removedAt, real->createdAt + 5);
            EXPECT_TRUE(log.contains("DAL1812_ is a ghost and will be removed, continue with DAL1812"));
        } else {
            EXPECT_FALSE(copy) << "a ghost of a live aircraft is never made";
        }
        for (const auto& p : r.parked) std::printf("%s", scenario::formatParked({p}).c_str());
    }
}

// Wednesday 17:12, when the schedule puts N899DN on F8 as a static: the live N899DN (DAL1812)
// lands and taxis to G11, and its static double is removed once.
TEST_F(ParkAirportScenario, AStaticDoubleOfALiveAircraftIsRemovedOnce) {
    auto c = kmspRun(14000, 14500, 300);
    c.parking.utcStart = 1738713600 + 17 * 3600 + 12 * 60;
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    const auto* live = object(r, "DAL1812");
    ASSERT_TRUE(live);
    std::vector<const emu::ObjectRecord*> doubles;
    for (const auto& o : r.objects)
        if (&o != live && o.title.find("N899DN") != std::string::npos) doubles.push_back(&o);
    ASSERT_EQ(doubles.size(), 1u) << "one static N899DN, never made again";
    EXPECT_GE(doubles[0]->removedAt, live->createdAt);
    EXPECT_EQ(log.count("live DAL1812 is the same"), 1u) << log.text();
}

// The user stands on the taxiway DAL1812 takes to G11: the aircraft is removed before it runs into
// the user, rather than driving through.
TEST_F(ParkAirportScenario, ALiveAircraftThatWouldTaxiThroughTheParkedUserIsRemoved) {
    auto c = kmspRun(14000, 14500, 300);
    c.parking.user.latitude = 44.878452, c.parking.user.longitude = -93.212324; // 38 s after touchdown
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    EXPECT_TRUE(log.contains("DAL1812  removed, it would run into the user on the ground"));
    // Made again once the track has gone past the user, it may go on to its stand.
    double closest = 1e9;
    for (const auto& o : r.objects) {
        if (o.tail != "DAL1812" || o.positions.size() < 2) continue;
        for (const auto& p : o.positions)
            closest = std::min(closest, core::distanceNm(p.latitude, p.longitude, c.parking.user.latitude,
                                                         c.parking.user.longitude) *
                                            core::kMetresPerNm);
    }
    std::printf("DAL1812 came within %.1f m of the user\n", closest);
    EXPECT_GT(closest, 17.2) << "it never ran into the user";
}

// A static stands on G11 when DAL1812 comes to park there: the static makes way. The stock file
// gets another Delta 737 on G11 on Thursday nights for it.
TEST_F(ParkAirportScenario, ALiveArrivalRemovesTheStaticOnItsStand) {
    const af::Stand* g11 = &stand("G11");
    const fs::path file = dir.path() / "site/downloads/MSFS/archive/stock/KMSP.xml";
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file(file.c_str()));
    auto opt = doc.select_node("//parkpos[@id='G11']").node().append_child("opt");
    for (const auto& [name, value] : {std::pair{"reg", "N810DN"},
                                      {"airl", "DAL"},
                                      {"type", "B739"},
                                      {"day", "4"},
                                      {"hh", "2:7"},
                                      {"cs", "DAL999:DAL998"}})
        opt.append_attribute(name) = value;
    ASSERT_TRUE(doc.save_file(file.c_str(), "  "));
    auto c = kmspRun(14000, 14500, 300);
    c.parking.utcStart = 1738717920 + 86400; // Thursday 01:12
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    const auto* dal = object(r, "DAL1812");
    ASSERT_TRUE(dal);
    const emu::ObjectRecord* onG11 = nullptr;
    for (const auto& o : r.objects)
        if (&o != dal && core::distanceNm(o.now.latitude, o.now.longitude, g11->latitude, g11->longitude) *
                                 core::kMetresPerNm <
                             1.0)
            onG11 = &o;
    ASSERT_TRUE(onG11) << "a static stood on G11";
    EXPECT_EQ(onG11->tail, "DAL999");
    EXPECT_LT(onG11->createdAt, 300.0);
    EXPECT_GE(onG11->removedAt, 0.0);
    EXPECT_TRUE(log.contains("G11     : static aircraft " + onG11->tail + " removed for a live arrival"));
    EXPECT_TRUE(log.contains("G11     : DAL1812  arrived at stand"));
    for (const auto& p : r.parked) std::printf("%s", scenario::formatParked({p}).c_str());
}

} // namespace
} // namespace orv
