// The SimClient thread against the emulated simulator over TCP, and the simulator's folders and
// flight plan files.
#include <chrono>
#include <future>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "emulator.h"
#include "feed/feed.h"
#include "params/params.h"
#include "parking/parking.h"
#include "platform/platform.h"
#include "refdata/refdata.h"
#include "run/run.h"
#include "sim/sim.h"
#include "support.h"

namespace orv::sim {
namespace {

using namespace std::chrono_literals;
namespace sc = simconnect;

bool eventually(const std::function<bool()>& done) {
    return test::waitUntil(done, 10s);
}

void setSimChoice(const char* value) {
    dynamic_cast<params::StringParameter&>(*params::findParameter("SIM_CHOICE")).value = value;
}

// A running emulator on a free port, the reference data the client needs, and a clean run.
class SimClientTest : public testing::Test {
  protected:
    void SetUp() override {
        core::gPaths.dataFolder = dir.path();
        core::gPaths.programFolder = dir.path();
        ASSERT_TRUE(refdata::loadDbase(test::shippedCopy("dbase.enc", dir.path())));
        setSimChoice("MSFS 2020");
        core::gRun.reset();
        sim::reset();
        sim::setApiFactory({});
    }
    void TearDown() override {
        sim::stopClient();
        if (server) server->stop();
        sim::reset();
        core::gRun.reset();
        setSimChoice("MSFS 2020");
    }
    void start(emu::Config config) {
        config.frameRate = 50;
        config.airports = {{"KMSP", 44.882, -93.2218, 841}};
        if (config.user.latitude == 0 && config.user.longitude == 0) {
            config.user.latitude = 44.882;
            config.user.longitude = -93.2218;
        }
        emulator = std::make_unique<emu::Emulator>(config);
        server = std::make_unique<emu::Server>(*emulator);
        ASSERT_EQ(server->start("127.0.0.1", 0), "");
        core::gOptions.simHost = "127.0.0.1";
        core::gOptions.simPort = server->port();
        sim::startClient();
    }
    // The start sequence's part: the simulator runs, and the user's data is known.
    void connectAndReadUser() {
        ASSERT_TRUE(eventually([] { return core::gRun.simRunning.load(); }));
        sim::requestUserOnGround();
        ASSERT_TRUE(eventually(
            [] { return sim::userPosition() && sim::userTitleKnown() && !sim::userModel().empty(); }));
    }
    template <typename Kind>
    std::optional<Kind> waitEvent() {
        std::optional<Kind> found;
        eventually([&] {
            std::vector<sim::SimEvent> events;
            sim::takeEvents(events);
            for (const auto& e : events)
                if (std::holds_alternative<Kind>(e) && !found) found = std::get<Kind>(e);
            return found.has_value();
        });
        return found;
    }

    test::TempDir dir;
    test::LogCapture log;
    std::unique_ptr<emu::Emulator> emulator;
    std::unique_ptr<emu::Server> server;
};

// A Delta A321 to create at 3,000 ft just north-east of KMSP.
sim::CreateRecord a321At3000Ft(const char* tail, std::uint32_t hexid) {
    sim::CreateRecord create;
    create.init = {44.89, -93.20, 3000, 0, 0, 300, 0, 180};
    create.tailNumber = tail;
    create.title = "Airbus A321 Delta";
    create.hexid = hexid;
    return create;
}

TEST_F(SimClientTest, FlowsAnAircraftThroughTheEmulator) {
    emu::Config config;
    config.titles = {"Airbus A321 Delta"};
    config.user.title = "Aerosoft A320 Professional Lufthansa with a title longer than forty-eight bytes";
    config.user.atcModel = "TT:ATCCOM.AC_MODEL_A20N.0.text";
    start(config);
    connectAndReadUser();
    EXPECT_EQ(sim::simulatorText(), "KittyHawk (11.0.282174.999) connected");
    EXPECT_EQ(sim::userModel(), "A20N");
    EXPECT_EQ(sim::userTitle().size(), 48u);
    const auto user = *sim::userPosition();
    EXPECT_NEAR(user.latitude, 44.882, 1e-9);
    EXPECT_NEAR(user.altitude, 841, 1e-9);
    EXPECT_TRUE(user.onGround);
    EXPECT_EQ(sim::userObjectId(), 1u);
    EXPECT_TRUE(eventually([] { return core::gRun.secondElapsed.load(); }))
        << "the every-second on-ground answer";

    // Create: matched through the pending creation by its tail number once the range query sees it.
    sim::CreateRecord create = a321At3000Ft("DAL123", 0xA1B2C3);
    ASSERT_TRUE(sim::addCreate(create));
    ASSERT_TRUE(eventually([&] { return emulator->liveObjectCount() == 1; }));
    std::optional<sim::LiveCreated> created;
    ASSERT_TRUE(eventually([&] {
        sim::requestInRange(40);
        std::vector<sim::SimEvent> events;
        sim::takeEvents(events);
        for (const auto& e : events)
            if (std::holds_alternative<sim::LiveCreated>(e)) created = std::get<sim::LiveCreated>(e);
        return created.has_value();
    }));
    EXPECT_EQ(created->hexid, 0xA1B2C3u);
    EXPECT_NEAR(created->heightAgl, 3000 - 841, 1e-6) << "height above ground";
    const sc::DWORD objectId = created->objectId;

    // Released and frozen, then moved frame by frame.
    for (int i = 0; i < 20; ++i) {
        sim::PositionRecord p;
        p.objectId = objectId;
        p.latitude = 44.89 + i * 0.0001;
        p.longitude = -93.20;
        p.altitude = 3000 - i;
        p.heading = 5.2;
        p.airspeed = 180;
        while (!sim::addPosition(p)) std::this_thread::yield();
        std::this_thread::sleep_for(25ms); // about one frame at 50 Hz
    }
    ASSERT_TRUE(eventually([&] { return emulator->objects()[0].positions.size() >= 10; }));
    ASSERT_TRUE(sim::addRemove(objectId));
    ASSERT_TRUE(waitEvent<sim::ObjectRemoved>().has_value());
    const auto o = emulator->objects()[0];
    EXPECT_TRUE(o.released);
    EXPECT_GE(o.removedAt, 0);
    std::vector<std::string> names;
    for (const auto& e : o.events) names.push_back(e.name);
    ASSERT_GE(names.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + 4),
              (std::vector<std::string>{"ReleaseControl", "FREEZE_LATITUDE_LONGITUDE_SET",
                                        "FREEZE_ALTITUDE_SET", "FREEZE_ATTITUDE_SET"}));
    // Positions arrive in order and none is lost or invented.
    for (std::size_t i = 1; i < o.positions.size(); ++i)
        EXPECT_GT(o.positions[i].latitude, o.positions[i - 1].latitude);
    EXPECT_NEAR(o.positions.back().latitude, 44.89 + 19 * 0.0001, 1e-9);
    EXPECT_NEAR(o.positions.back().heading, 5.2, 1e-9);

    // A title the simulator doesn't know comes back as a failed creation for that hexid.
    create.title = "No Such Livery";
    create.hexid = 0x123456;
    ASSERT_TRUE(sim::addCreate(create));
    const auto refused = waitEvent<sim::CreationFailed>();
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->hexid, 0x123456u);

    // The simulator closing ends the run with reason 1.
    server->stop();
    ASSERT_TRUE(eventually([] { return core::gRun.stopRequested.load(); }));
    EXPECT_EQ(core::gRun.exitReason.load(), core::ExitReason::SimWasClosed);
    EXPECT_FALSE(core::gRun.simRunning.load());
    EXPECT_TRUE(log.contains("Flight Simulator no longer connected, Orvelline will stop ..."));
}

TEST_F(SimClientTest, NewFlightsEndTheRunWithReasonTwo) {
    struct Case {
        const char* name;
        std::function<void(emu::Emulator&)> act;
        const char* logged;
    };
    const Case cases[] = {
        {"flight loaded", [](emu::Emulator& e) { e.loadFlight("flights/other.FLT"); },
         "SimConnect: New file event"},
        {"teleport", [](emu::Emulator& e) { e.moveUser(47.4581, 8.5481); }, "Teleport"},
        {"a short move is no teleport", [](emu::Emulator& e) { e.moveUser(44.95, -93.2218); }, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        start({});
        connectAndReadUser();
        c.act(*emulator);
        if (c.logged) {
            ASSERT_TRUE(eventually([] {
                sim::requestUserPosition();
                return core::gRun.stopRequested.load();
            }));
            EXPECT_EQ(core::gRun.exitReason.load(), core::ExitReason::NewFlight);
            EXPECT_EQ(core::gRun.restartDelaySeconds.load(), 45);
            EXPECT_TRUE(log.contains(c.logged));
        } else {
            ASSERT_TRUE(eventually([] {
                sim::requestUserPosition();
                return sim::userPosition()->latitude > 44.94;
            }));
            EXPECT_FALSE(core::gRun.stopRequested.load());
        }
    }
}

TEST(AutoRadius, FollowsHeightAndAirportDistance) {
    params::gParams.reset();
    struct Case {
        bool onGround;
        double altitudeFt;
        std::optional<double> nearestNm;
        int radius;
    } cases[] = {{true, 40000, 100, 10},  {false, 48001, 3, 100},  {false, 48000, 3, 40},
                 {false, 18001, 3, 40},   {false, 18000, 3, 10},   {false, 5000, std::nullopt, 40},
                 {false, 5000, 7, 10},    {false, 5000, 8, 8},     {false, 5000, 9.4, 10},
                 {false, 5000, 12.4, 12}, {false, 5000, 12.6, 14}, {false, 5000, 17, 18},
                 {false, 5000, 19, 20},   {false, 5000, 22, 20},   {false, 5000, 23, 25},
                 {false, 5000, 32, 30},   {false, 5000, 33, 35},   {false, 5000, 36.4, 35},
                 {false, 5000, 37, 40}};
    for (const auto& c : cases) {
        SCOPED_TRACE(
            fmt::format("ground {} alt {} nearest {}", c.onGround, c.altitudeFt, c.nearestNm.value_or(-1)));
        EXPECT_EQ(run::autoRadiusNm(c.onGround, c.altitudeFt, c.nearestNm), c.radius);
    }
    params::gParams.AR_ABOVE_HEIGHT = 18000; // each height read from its own setting
    EXPECT_EQ(run::autoRadiusNm(false, 18001, 3), 100);
    params::gParams.AIRP_HEIGHT = 2000;
    EXPECT_EQ(run::autoRadiusNm(false, 2001, 3), 40);
    params::gParams.reset();
}

// The radius the decoder and the in-range request use follows the user and the listed airports.
TEST_F(SimClientTest, AutoRadiusIsAppliedFromTheUserAndTheListedAirports) {
    fs::create_directories(dir / "airports");
    ASSERT_GT(refdata::loadAirports(test::shippedCopy("airports.enc", dir.path())), 0u);
    test::writeBytes(dir / "airports" / "my_park_airports.txt", "KMSP,G11\n\nkmsp\nKMSP\nZZZZ\nEHAM,D4,x\n");
    ASSERT_TRUE(parking::readMyParkAirports());
    EXPECT_TRUE(log.contains("my_park_airports.txt:3 wrong syntax, skipped"));
    EXPECT_TRUE(log.contains("my_park_airports.txt:4 double, skipped"));
    EXPECT_TRUE(log.contains("my_park_airports.txt:5 airport ZZZZ is unknown"));
    EXPECT_TRUE(log.contains("my_park_airports.txt:6 wrong syntax, skipped"));
    ASSERT_EQ(parking::parkAirports().size(), 1u);
    EXPECT_EQ(parking::parkAirports()[0].reservedStand, "G11");

    // 12 nm north of KMSP at 5,000 ft.
    emu::Config config;
    config.user.altitudeFt = 5000;
    config.user.latitude = 45.082;
    config.user.longitude = -93.2218;
    config.user.path = {{45.082, -93.2218, 5000}};
    start(config);
    connectAndReadUser();
    params::gParams.radiusNm = 40;
    run::applyRange();
    EXPECT_EQ(params::gParams.radiusNm, 12);
    params::gParams.AUTO_RANGE = false; // off: the radius the user chose
    run::applyRange();
    EXPECT_EQ(params::gParams.radiusNm, params::parameter<params::IntParameter>("RANGE").value);
    params::gParams.AUTO_RANGE = true;
    test::writeBytes(dir / "airports" / "my_park_airports.txt", "");
    ASSERT_TRUE(parking::readMyParkAirports());
    run::applyRange();
    EXPECT_EQ(params::gParams.radiusNm, 40) << "no listed airport counts as far away";
    refdata::clearAirports();
    params::gParams.reset();
}

TEST_F(SimClientTest, RecognitionOfTheSimulator) {
    struct Case {
        const char* selected;
        bool emulate2024;
        const char* expectLog;
        core::ExitReason exitReason; // NotYetSet: the run goes on
        const char* nowSelected;
    };
    const Case cases[] = {
        {"MSFS 2024", true, "SunRise (12.2.282174.999) connected", core::ExitReason::NotYetSet, "MSFS 2024"},
        {"MSFS 2020", true, "MSFS and Orvelline do not match, restarting ...", core::ExitReason::NewSettings,
         "MSFS 2024"},
        {"MSFS 2024", false, "MSFS and Orvelline do not match, restarting ...", core::ExitReason::NewSettings,
         "MSFS 2020"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.selected << (c.emulate2024 ? " on 2024" : " on 2020"));
        TearDown();
        SetUp();
        setSimChoice(c.selected);
        emu::Config config;
        config.msfs2024 = c.emulate2024;
        start(config);
        ASSERT_TRUE(eventually([&] { return log.contains(c.expectLog); }));
        if (c.exitReason != core::ExitReason::NotYetSet) {
            ASSERT_TRUE(eventually([] { return core::gRun.stopRequested.load(); }));
            EXPECT_EQ(core::gRun.exitReason.load(), c.exitReason);
        }
        EXPECT_EQ(dynamic_cast<params::StringParameter&>(*params::findParameter("SIM_CHOICE")).value,
                  c.nowSelected);
    }
}

// simLock held by another thread, as the SimClient holds it through a send loop.
class BusyLock {
  public:
    BusyLock() {
        holder_ = std::thread([this] {
            std::unique_lock lock(sim::simLockForTests());
            locked_.set_value();
            release_.get_future().wait();
        });
        locked_.get_future().wait();
    }
    ~BusyLock() {
        release_.set_value();
        holder_.join();
    }

  private:
    std::promise<void> locked_, release_;
    std::thread holder_;
};

// What scenario runs do: the client's loop body and the emulator driven in turn, one thread, no
// sockets, on simulated time.
struct MemorySim {
    explicit MemorySim(emu::Config config) : e(std::move(config)) {
        auto [clientEnd, end] = sc::makeMemoryPipe();
        serverEnd = std::move(end);
        id = e.connect([end = serverEnd.get()](sc::Bytes b) { return end->send(b); });
        sim::setApiFactory([once = sc::transportOnce(std::move(clientEnd))](bool protocol2024) {
            return sc::makeNetworkClient(once, protocol2024 ? sc::kProtocolMsfs2024 : sc::kProtocolMsfs2020);
        });
    }
    ~MemorySim() { sim::setApiFactory({}); }
    // Passes until the simulator runs, as the start waits for it.
    bool connect() {
        pass();
        for (int i = 0; i < 5 && !core::gRun.simRunning; ++i) pass();
        return core::gRun.simRunning;
    }
    // The user's title, model and position, as the start asks for them.
    bool readUser() {
        sim::requestUserOnGround();
        for (int i = 0; i < 10 && !(sim::userTitleKnown() && !sim::userModel().empty()); ++i) pass();
        return sim::userTitleKnown() && !sim::userModel().empty();
    }
    sim::Pass pass() {
        const auto p = sim::pollOnce();
        for (long n; (n = serverEnd->receive(buf, sizeof buf, 0)) > 0;)
            e.receive(id, sc::Bytes(buf, static_cast<std::size_t>(n)));
        e.advanceTo(t += 0.01);
        return p;
    }
    std::vector<sim::SimEvent> events() {
        std::vector<sim::SimEvent> out;
        sim::takeEvents(out);
        return out;
    }
    emu::Emulator e;
    std::unique_ptr<sc::Transport> serverEnd;
    int id = 0;
    double t = 0;
    std::uint8_t buf[8192];
};

emu::Config atKmsp() {
    emu::Config config;
    config.titles = {"Airbus A321 Delta"};
    config.airports = {{"KMSP", 44.882, -93.2218, 841}};
    config.user.latitude = 44.882;
    config.user.longitude = -93.2218;
    return config;
}

// Until the user's id is known every object may be the simulator's own: none is taken.
TEST_F(SimClientTest, ObjectsBeforeTheUsersIdAreDropped) {
    MemorySim m(atKmsp());
    ASSERT_TRUE(m.connect());
    const auto early = m.e.addTraffic(44.883, -93.222, "N123AB");
    sim::requestInRange(40);
    m.pass(), m.pass(), m.pass();
    EXPECT_TRUE(m.events().empty()) << "dropped while the user's id is unknown";
    ASSERT_TRUE(m.readUser());
    ASSERT_NE(sim::userObjectId(), 0u);
    sim::requestInRange(40);
    m.pass(), m.pass(), m.pass();
    const auto events = m.events();
    ASSERT_EQ(events.size(), 1u);
    ASSERT_TRUE(std::holds_alternative<sim::ForeignInRange>(events[0]));
    EXPECT_EQ(std::get<sim::ForeignInRange>(events[0]).objectId, early) << "taken as foreign traffic now";
    EXPECT_FALSE(log.contains("just spawned, but not by"));
}

TEST_F(SimClientTest, CameraPodsAndBoatsAreNoAircraft) {
    ASSERT_TRUE(refdata::loadDbase(test::shippedCopy("dbase.enc", dir.path())));
    for (const auto& [model, notAircraft] :
         {std::pair{"TT:ATCCOM.AC_MODEL_A20N.0.text", false}, {"camerapod", true}, {"Crew Vessel 2", true}}) {
        SCOPED_TRACE(model);
        sim::reset();
        auto config = atKmsp();
        config.user.atcModel = model;
        MemorySim m(config);
        ASSERT_TRUE(m.connect());
        ASSERT_TRUE(m.readUser());
        ASSERT_FALSE(sim::userModel().empty());
        EXPECT_EQ(sim::userIsNotAnAircraft(), notAircraft);
    }
}

// The reader's area gets the elevation of the airport around the user: a report 39 ft above
// KMSP at taxi speed is on the ground, which only that elevation tells.
TEST_F(SimClientTest, TheReadersAreaHasTheAirportsElevation) {
    ASSERT_GT(refdata::loadAirports(test::shippedCopy("airports.enc", dir.path())), 0u);
    MemorySim m(atKmsp());
    ASSERT_TRUE(m.connect());
    ASSERT_TRUE(m.readUser());
    ASSERT_TRUE(sim::nearestAirport().has_value());
    run::copyUserPositionForReaders();
    feed::setAcceptTraffic(true);
    const double elevation = sim::nearestAirport()->elevation;
    feed::gTrafficReader.decode(
        fmt::format("RTTFC,11298587,44.884,-93.22,{:.0f},0,0,120.5,60,DAL1812,B739,N899DN,"
                    "MSP,ATL,1738717900.5,adsb,null,adsb_icao,0,-1,-1,-1,-1,-1,-1,-1,0,"
                    "none,A3",
                    elevation + 39));
    feed::setAcceptTraffic(false);
    std::lock_guard lock(feed::gTraffic.trafficLock);
    ASSERT_EQ(feed::gTraffic.trafficQueue.size(), 1u);
    EXPECT_EQ(feed::gTraffic.trafficQueue.front().altitude, 0.0);
    feed::gTraffic.trafficQueue.clear();
    refdata::clearAirports();
}

// The simulator's exceptions: each says its own word, none ends the run.
TEST_F(SimClientTest, ExceptionsAreSaidAndSurvived) {
    MemorySim m(atKmsp());
    ASSERT_TRUE(m.connect());
    const auto raised = [&](sc::DWORD exception) {
        const std::string before = log.text();
        m.e.raise(exception);
        m.pass(), m.pass();
        return log.text().substr(before.size());
    };
    EXPECT_EQ(raised(3).find("SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID"), std::string::npos)
        << "unknown ids are normal until the user's position is known";
    ASSERT_TRUE(m.readUser());
    const std::pair<sc::DWORD, const char*> cases[] = {
        {3, "SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID"},
        {11, "SimConnect: too many objects (max 1000)"},
        {19, "SIMCONNECT_EXCEPTION_INVALID_DATA_SIZE"},
        {23, "SimConnect exception: load flight plan failed"},
        {24, "SIMCONNECT_EXCEPTION_OPERATION_INVALID_FOR_OBJECT_TYPE"},
        {31, "SIMCONNECT_EXCEPTION #31"},
    };
    for (const auto& [exception, says] : cases) {
        SCOPED_TRACE(exception);
        EXPECT_NE(raised(exception).find(says), std::string::npos);
    }
    EXPECT_FALSE(core::gRun.stopRequested.load());
}

// Of the objects the simulator reports near the user, only its own traffic on or near the ground
// with a usable ATC id is handed on.
TEST_F(SimClientTest, ForeignObjectsAreFiltered) {
    MemorySim m(atKmsp());
    ASSERT_TRUE(m.connect());
    ASSERT_TRUE(m.readUser());
    const auto kept = m.e.addTraffic(44.883, -93.222, "N123AB");
    m.e.addTraffic(44.90, -93.222, "N456CD", 3000); // flying over
    m.e.addTraffic(44.884, -93.222, "");
    m.e.addTraffic(44.885, -93.222, "N9*");
    m.pass();
    // The first report after an object is added only tells whether it is ours; the next one counts.
    for (int round = 0; round < 2; ++round) {
        (void)m.events();
        sim::requestInRange(40);
        m.pass(), m.pass(), m.pass();
    }
    std::vector<std::uint32_t> foreign;
    for (const auto& e : m.events())
        if (const auto* f = std::get_if<sim::ForeignInRange>(&e)) foreign.push_back(f->objectId);
    EXPECT_EQ(foreign, std::vector<std::uint32_t>{kept});
}

// A request the simulator link cannot send ends the run for a restart in 9 s.
TEST_F(SimClientTest, AFailedRequestRestartsTheRun) {
    MemorySim m(atKmsp());
    ASSERT_TRUE(m.connect());
    ASSERT_TRUE(m.readUser());
    const sim::CreateRecord create = a321At3000Ft("DAL1", 0xABCDEF);
    ASSERT_TRUE(sim::addCreate(create));
    m.e.advanceTo(m.t += 0.05); // frames wait in the pipe
    m.serverEnd->close();       // and nothing can be sent any more
    (void)sim::pollOnce();
    EXPECT_EQ(core::gRun.exitReason.load(), core::ExitReason::SimconnectError);
    EXPECT_EQ(core::gRun.restartDelaySeconds.load(), 9);
    EXPECT_TRUE(sim::simFailed());
    EXPECT_TRUE(log.contains("! Simcon call to create ac in sim failed, hexid:11259375"));
}

// A stream that breaks without the simulator's QUIT is a lost link: said, and the run restarts to
// connect again, instead of ending as if the user had closed the simulator.
TEST_F(SimClientTest, ABrokenStreamRestartsTheRun) {
    MemorySim m(atKmsp());
    ASSERT_TRUE(m.connect());
    const sc::DWORD bad = 3; // a packet size no packet has
    m.serverEnd->send(sc::Bytes(reinterpret_cast<const std::uint8_t*>(&bad), 4));
    EXPECT_EQ(sim::pollOnce(), sim::Pass::End);
    EXPECT_EQ(core::gRun.exitReason.load(), core::ExitReason::SimconnectError);
    EXPECT_EQ(core::gRun.restartDelaySeconds.load(), 9);
    EXPECT_TRUE(log.contains("SimConnect connection lost: "));
    EXPECT_TRUE(log.contains("packet size 3"));
}

// A simulator that stops talking is noticed: no answer to the open within 15 s is tried again,
// 30 s of silence while running is a lost link.
TEST_F(SimClientTest, ASilentSimulatorIsNoticed) {
    platform::VirtualClock clock;
    platform::setClock(&clock);
    {
        MemorySim m(atKmsp());
        EXPECT_EQ(sim::pollOnce(), sim::Pass::Connected); // the open goes out, the emulator never reads it
        clock.advance(10s);
        EXPECT_NE(sim::pollOnce(), sim::Pass::Waiting);
        clock.advance(6s);
        EXPECT_EQ(sim::pollOnce(), sim::Pass::Waiting);
        EXPECT_TRUE(log.contains("has not answered in 15 s; trying again"));
        EXPECT_FALSE(sim::connected());
    }
    sim::reset();
    {
        MemorySim m(atKmsp());
        ASSERT_TRUE(m.connect());
        ASSERT_TRUE(core::gRun.simRunning.load());
        clock.advance(29s);
        EXPECT_EQ(sim::pollOnce(), sim::Pass::Connected) << "the frames that wait in the pipe still count";
        clock.advance(31s); // nothing more comes: the emulator is not advanced
        EXPECT_EQ(sim::pollOnce(), sim::Pass::End);
        EXPECT_EQ(core::gRun.exitReason.load(), core::ExitReason::SimconnectError);
        EXPECT_TRUE(log.contains("has sent nothing for 30 s while running"));
    }
    platform::setClock(nullptr);
}

// A quit message ends the run for the simulator's close at once, even with the socket left open.
TEST_F(SimClientTest, QuitAloneEndsTheRunWithReasonOne) {
    MemorySim m(atKmsp());
    ASSERT_TRUE(m.connect());
    m.e.quit();
    m.pass();
    EXPECT_EQ(core::gRun.exitReason.load(), core::ExitReason::SimWasClosed);
    EXPECT_EQ(m.pass(), sim::Pass::End);
    EXPECT_TRUE(log.contains("Flight Simulator no longer connected"));
}

TEST_F(SimClientTest, PollOnceOverAnInMemoryPipe) {
    MemorySim m(atKmsp());
    auto& e = m.e;
    double& t = m.t;
    const auto pass = [&] { return m.pass(); };
    ASSERT_GT(refdata::loadAirports(test::shippedCopy("airports.enc", dir.path())), 0u);
    EXPECT_EQ(pass(), sim::Pass::Connected);
    for (int i = 0; i < 5 && !core::gRun.simRunning; ++i) pass();
    ASSERT_TRUE(core::gRun.simRunning.load());
    {
        // Asked while the frame holds the lists' lock: the requests wait for the client, not for the lock.
        BusyLock busy;
        sim::requestUserOnGround();
    }
    for (int i = 0; i < 5 && !sim::userTitleKnown(); ++i) pass();
    ASSERT_TRUE(sim::userPosition().has_value());
    EXPECT_EQ(sim::userModel(), "A20N");
    EXPECT_EQ(sim::nearestArea(), "KMSP");
    // 7.8 nm north no airport is within 5 nm: the area goes (not far enough for a teleport).
    e.moveUser(45.012, -93.2218);
    for (int i = 0; i < 10 && sim::userPosition()->latitude < 45; ++i) {
        sim::requestUserPosition();
        pass();
    }
    EXPECT_EQ(sim::nearestArea(), "");
    e.moveUser(44.882, -93.2218);
    for (int i = 0; i < 10 && sim::userPosition()->latitude > 45; ++i) {
        sim::requestUserPosition();
        pass();
    }
    EXPECT_EQ(sim::nearestArea(), "KMSP");

    const sim::CreateRecord create = a321At3000Ft("DAL1", 0xABCDEF);
    ASSERT_TRUE(sim::addCreate(create));
    for (int i = 0; i < 10 && e.liveObjectCount() == 0; ++i) pass();
    ASSERT_EQ(e.liveObjectCount(), 1u);
    {
        BusyLock busy;
        sim::requestInRange(40);
    }
    pass(), pass();
    std::vector<sim::SimEvent> events;
    sim::takeEvents(events);
    ASSERT_EQ(events.size(), 1u);
    ASSERT_TRUE(std::holds_alternative<sim::LiveCreated>(events[0]));
    EXPECT_EQ(std::get<sim::LiveCreated>(events[0]).hexid, 0xABCDEFu);
    EXPECT_NEAR(e.now(), t, 1e-9) << "the emulator ran only on the test's clock";

    e.quit();
    m.serverEnd->close(); // as the simulator does after QUIT
    pass();
    EXPECT_EQ(sim::pollOnce(), sim::Pass::End);
    EXPECT_EQ(core::gRun.exitReason.load(), core::ExitReason::SimWasClosed);
    refdata::clearAirports();
}

TEST(SimLink, ModelTexts) {
    struct Case {
        const char* model;
        const char* title;
        const char* expected;
    };
    const Case cases[] = {
        {"A350-900", "", "A359"},
        {"N738B", "", "B38M"},
        {"777", "", "772"},
        {"A330-200 (RR)", "", "A332"},
        {"TT:ATCCOM.AC_MODEL_A20N.0.text", "", "A20N"},
        {"TT:ATCCOM.AC_MODEL_C17.0.text", "", "C17"},
        {"ATCCOM.AC_MODEL B748.0.text", "", "B748"},
        {"737", "PMDG DG 737-800 Ryanair", "B738"},
        {"737", "DG 737-600 house", "B736"},
        {"737", "Boeing 737 MAX", "737"},
        {"Cessna 172", "", "Cessna 172"},
    };
    for (const auto& c : cases) EXPECT_EQ(sim::normaliseModel(c.model, c.title), c.expected) << c.model;
}

TEST(SimLink, EpochFromZuluTime) {
    struct Case {
        std::int64_t year, day, seconds, epoch;
    };
    const Case cases[] = {
        {1970, 1, 0, 0},
        {2025, 35, 45296, 1738700000 - 1738700000 % 86400 + 45296},
        {2024, 366, 86399, 1735689599}, // the last second of a leap year
        {2000, 60, 0, 951782400},       // 29 February 2000
    };
    for (const auto& c : cases) EXPECT_EQ(sim::epochFromZulu(c.year, c.day, c.seconds), c.epoch) << c.year;
}

// ---- Installation ----------------------------------------------------------------------------

class InstallTest : public testing::Test {
  public:
    void SetUp() override {
        core::gPaths.dataFolder = dir.path();
        core::gPaths.programFolder = dir.path();
        setSimChoice("MSFS 2020");
        for (const char* n : {"MSFS_INSTALL_PATH", "MSFS_2024_INSTALL_PATH", "ALL_INSTALL_PATH"})
            dynamic_cast<params::StringParameter&>(*params::findParameter(n)).value.clear();
        sim::setKnownFolders(sim::KnownFolders{dir / "prefix/drive_c/users/steamuser/AppData/Roaming",
                                               dir / "prefix/drive_c/users/steamuser/AppData/Local"});
    }
    void TearDown() override {
        sim::setKnownFolders(std::nullopt);
        setSimChoice("MSFS 2020");
    }
    fs::path roaming() { return dir / "prefix/drive_c/users/steamuser/AppData/Roaming"; }
    fs::path local() { return dir / "prefix/drive_c/users/steamuser/AppData/Local"; }
    static void packages(const fs::path& p, bool official2024 = false) {
        fs::create_directories(p / "Community");
        fs::create_directories(p / (official2024 ? "Official2024" : "Official"));
    }
    test::TempDir dir;
    test::LogCapture log;
};

TEST_F(InstallTest, SimConnectXmlGivesTheSimulatorsAddress) {
    const fs::path file = dir / "SimConnect.xml";
    const auto doc = [](const std::string& comms) {
        return R"(<?xml version="1.0" encoding="Windows-1252"?><SimBase.Document Type="SimConnect" version="1,0">)"
               "<Descr>SimConnect Server Configuration</Descr>" +
               comms + "</SimBase.Document>";
    };
    const auto comm = [](const char* protocol, const char* address, const char* port, const char* more = "") {
        return fmt::format("<SimConnect.Comm><Protocol>{}</Protocol><Scope>global</Scope>{}<Port>{}</Port>{}"
                           "</SimConnect.Comm>",
                           protocol, address, port, more);
    };
    struct Case {
        const char* name;
        std::optional<std::string> text; // none: no file
        std::string host;                // empty: an error that holds `says`
        int port;
        const char* says;
    };
    const Case cases[] = {
        {"pipe then IPv4", doc(comm("Pipe", "", "") + comm("IPv4", "<Address>192.168.1.20</Address>", "500")),
         "192.168.1.20", 500, ""},
        {"every address is this one", doc(comm("ipv4", "<Address>0.0.0.0</Address>", " 4711 ")), "127.0.0.1",
         4711, ""},
        {"no address", doc(comm("IPv4", "", "500")), "127.0.0.1", 500, ""},
        {"disabled entry skipped",
         doc(comm("IPv4", "", "500", "<Disabled>True</Disabled>") + comm("IPv4", "", "501")), "127.0.0.1",
         501, ""},
        {"IPv6 only", doc(comm("IPv6", "<Address>::1</Address>", "500")), "", 0,
         "has no IPv4 SimConnect.Comm entry: add <SimConnect.Comm>"},
        {"bad port", doc(comm("IPv4", "", "70000") + comm("IPv4", "", "5x")), "", 0, "has no IPv4"},
        {"broken", std::string("<SimBase.Document><SimConnect.Comm>"), "", 0, "is not valid XML"},
        {"missing", std::nullopt, "", 0, "found: create it with <SimBase.Document"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove(file);
        if (c.text) test::writeBytes(file, *c.text);
        const auto r = sim::readSimConnectXml(file);
        if (c.host.empty()) {
            ASSERT_TRUE(std::holds_alternative<std::string>(r));
            EXPECT_NE(std::get<std::string>(r).find(c.says), std::string::npos) << std::get<std::string>(r);
            EXPECT_NE(std::get<std::string>(r).find(file.string()), std::string::npos) << "says where";
        } else {
            ASSERT_TRUE(std::holds_alternative<sim::SimEndpoint>(r));
            EXPECT_EQ(std::get<sim::SimEndpoint>(r).host, c.host);
            EXPECT_EQ(std::get<sim::SimEndpoint>(r).port, c.port);
        }
    }
}

// Without --sim the client reads the file beside UserCfg.opt, says once what is missing, and keeps trying.
TEST_F(InstallTest, WithoutSimOptionTheClientFindsTheSimulatorThroughItsFiles) {
    const std::string savedHost = core::gOptions.simHost;
    core::gOptions.simHost.clear();
    emu::Config config;
    config.airports = {{"KMSP", 44.882, -93.2218, 841}};
    config.user.latitude = 44.882;
    config.user.longitude = -93.2218;
    emu::Emulator emulator(config);
    emu::Server server(emulator);
    ASSERT_EQ(server.start("127.0.0.1", 0), "");
    const fs::path folder = roaming() / "Microsoft Flight Simulator";
    fs::create_directories(folder);
    test::writeBytes(folder / "UserCfg.opt", "InstalledPackagesPath \"C:\\MSFS\"\n");
    test::writeBytes(folder / "SimConnect.xml", "<SimBase.Document Type=\"SimConnect\"/>");
    core::gRun.reset();
    sim::reset();
    sim::setApiFactory({});
    sim::startClient();
    ASSERT_TRUE(eventually([&] { return log.contains("has no IPv4 SimConnect.Comm entry"); }));
    std::this_thread::sleep_for(1500ms); // a few more attempts say nothing new
    EXPECT_EQ(log.count("has no IPv4 SimConnect.Comm entry"), 1u);
    EXPECT_FALSE(core::gRun.simRunning.load());
    test::writeBytes(
        folder / "SimConnect.xml",
        fmt::format("<SimBase.Document><SimConnect.Comm><Protocol>IPv4</Protocol><Address>0.0.0.0"
                    "</Address><Port>{}</Port></SimConnect.Comm></SimBase.Document>",
                    server.port()));
    EXPECT_TRUE(eventually([] { return core::gRun.simRunning.load(); })) << "found once the user fixed it";
    sim::stopClient();
    server.stop();
    sim::reset();
    core::gRun.reset();
    core::gOptions.simHost = savedHost;
}

// The simulator opens plan files by its own path names: Wine's, or a share the user maps.
TEST_F(InstallTest, FlightPlanPathsAsTheSimulatorSeesThem) {
    const auto saved = core::gOptions;
    const fs::path inPrefix = dir / "prefix/drive_c/users/steamuser/AppData/Roaming/Orvelline";
    struct Case {
        const char* name;
        std::string host, mapped;
        fs::path dataFolder;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"inside the prefix: drive C", "127.0.0.1", "", inPrefix,
         "C:\\users\\steamuser\\AppData\\Roaming\\Orvelline\\orig_dest\\11259375.pln"},
        {"elsewhere: drive Z", "", "", dir / "cfg",
         "Z:" + dir.path().string() + "/cfg/orig_dest/11259375.pln"},
        {"a share for a simulator on another PC", "192.168.1.5", "\\\\gamer\\plans", dir / "cfg",
         "\\\\gamer\\plans\\11259375.pln"},
        {"another PC without a share", "192.168.1.5", "", dir / "cfg", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        core::gOptions.simHost = c.host;
        core::gOptions.planFolderForSim = c.mapped;
        core::gPaths.dataFolder = c.dataFolder;
        auto expected = c.expected;
        if (expected && expected->starts_with("Z:"))
            for (auto& ch : *expected)
                if (ch == '/') ch = '\\';
        EXPECT_EQ(sim::planPathForSimulator(sim::planPath(11259375)), expected);
    }
    EXPECT_EQ(sim::removeFlightPlanFolder(), "");
    (void)sim::planPathForSimulator(sim::planPath(1));
    (void)sim::planPathForSimulator(sim::planPath(2));
    // Once per run: the case above and once after the folder went (the log counts the repeat).
    EXPECT_EQ(log.count("Live aircraft get no flight plans: the simulator at 192.168.1.5"), 1u);
    EXPECT_TRUE(log.contains("(the line above came 1 more time)"));
    core::gOptions = saved;
    core::gPaths.dataFolder = dir.path();
}

TEST_F(InstallTest, DetectionFindsThePackagesFolder) {
    struct Case {
        const char* name;
        std::function<void(InstallTest&)> arrange;
        std::string expected; // relative to the temp folder; empty: nothing found
        const char* sim = "MSFS 2020";
    };
    const auto storeCfg = [](InstallTest& t, const std::string& line) {
        const auto f = t.local() / "Packages/Microsoft.FlightSimulator_8wekyb3d8bbwe/LocalCache/UserCfg.opt";
        fs::create_directories(f.parent_path());
        test::writeBytes(f, "Version 66\nInstalledPackagesPath " + line + "\nOther 1\n");
    };
    const Case cases[] = {
        {"nothing installed", [](InstallTest&) {}, ""},
        {"Steam packages folder",
         [](InstallTest& t) { packages(t.roaming() / "Microsoft Flight Simulator/Packages"); },
         "prefix/drive_c/users/steamuser/AppData/Roaming/Microsoft Flight Simulator/Packages"},
        {"Store UserCfg.opt with a Windows path on drive C",
         [&](InstallTest& t) {
             packages(t.dir / "prefix/drive_c/MSFS/Packages");
             storeCfg(t, "\"C:\\MSFS\\Packages\"");
         },
         "prefix/drive_c/MSFS/Packages"},
        {"the key without quotes gives nothing",
         [&](InstallTest& t) {
             packages(t.dir / "prefix/drive_c/MSFS/Packages");
             storeCfg(t, "C:\\MSFS\\Packages");
         },
         ""},
        {"a Steam folder that passes goes before the Store file",
         [&](InstallTest& t) {
             packages(t.dir / "prefix/drive_c/MSFS/Packages");
             storeCfg(t, "\"C:\\MSFS\\Packages\"");
             packages(t.roaming() / "Microsoft Flight Simulator/Packages");
         },
         "prefix/drive_c/users/steamuser/AppData/Roaming/Microsoft Flight Simulator/Packages"},
        {"MSFS 2024 needs Official2024",
         [](InstallTest& t) { packages(t.roaming() / "Microsoft Flight Simulator 2024/Packages"); }, "",
         "MSFS 2024"},
        {"MSFS 2024 with Official2024",
         [](InstallTest& t) { packages(t.roaming() / "Microsoft Flight Simulator 2024/Packages", true); },
         "prefix/drive_c/users/steamuser/AppData/Roaming/Microsoft Flight Simulator 2024/Packages",
         "MSFS 2024"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        fs::remove_all(dir / "prefix");
        SetUp();
        setSimChoice(c.sim);
        c.arrange(*this);
        const auto found = sim::installPath();
        EXPECT_EQ(found, c.expected.empty() ? std::string() : (dir / c.expected).string());
        if (c.expected.empty()) continue;
        EXPECT_EQ(dynamic_cast<params::StringParameter&>(*params::findParameter("ALL_INSTALL_PATH")).value,
                  found);
        EXPECT_NE(test::readBytes(dir / "parameters.xml").find(found), std::string::npos) << "stored";
        EXPECT_EQ(sim::communityPath(), fs::path(found) / "Community");
    }
}

TEST_F(InstallTest, AStoredPathThatLostItsOfficialFolderIsDetectedAgain) {
    packages(dir / "old");
    packages(roaming() / "Microsoft Flight Simulator/Packages");
    dynamic_cast<params::StringParameter&>(*params::findParameter("MSFS_INSTALL_PATH")).value =
        (dir / "old").string();
    EXPECT_EQ(sim::installPath(), (dir / "old").string());
    fs::remove(dir / "old/Official");
    EXPECT_EQ(sim::installPath(), (roaming() / "Microsoft Flight Simulator/Packages").string());
}

// A path stored with its Community folder, as a user types it, is the folder above: kept, not
// detected again.
TEST_F(InstallTest, AStoredPathWithItsCommunityFolderIsTheFolderAbove) {
    packages(dir / "mine");
    packages(roaming() / "Microsoft Flight Simulator/Packages"); // what detection would find
    auto& stored = dynamic_cast<params::StringParameter&>(*params::findParameter("MSFS_INSTALL_PATH"));
    stored.value = (dir / "mine/Community").string();
    EXPECT_EQ(sim::installPath(), (dir / "mine").string());
    EXPECT_EQ(stored.value, (dir / "mine").string());
    EXPECT_EQ(sim::communityPath(), dir / "mine/Community");
}

TEST_F(InstallTest, TypedPaths) {
    packages(dir / "good");
    fs::create_directories(dir / "half/Community");
    fs::create_directories(dir / "plain");
    struct Case {
        std::string typed, answer;
    };
    const Case cases[] = {
        {(dir / "missing").string(), "This install path does not exist: " + (dir / "missing").string()},
        {(dir / "plain").string(), "This path exists but is not a path to Community ..."},
        {(dir / "half/Community").string(),
         "This path does not contain a valid Community folder (unexpected)."},
        {(dir / "good/Community").string(), ""},
    };
    for (const auto& c : cases) EXPECT_EQ(sim::typedInstallPath(c.typed), c.answer) << c.typed;
    EXPECT_EQ(dynamic_cast<params::StringParameter&>(*params::findParameter("MSFS_INSTALL_PATH")).value,
              (dir / "good").string());
    EXPECT_TRUE(log.contains("Community path found, Orvelline will restart ..."));
    core::gRun.reset();
}

// ---- Flight plans ----------------------------------------------------------------------------

TEST(FlightPlans, FilesAndTheirLoading) {
    test::TempDir dir;
    test::LogCapture log;
    core::gPaths.dataFolder = dir.path();
    ASSERT_TRUE(sim::createFlightPlanFolder());
    struct Case {
        sim::PlanAircraft aircraft;
        bool file;
        const char* type;
    };
    const Case cases[] = {
        {{11259375, 0, 2, "MSP", "ATL", "DAL123"}, true, "IFR"},
        {{11259376, 0, 4, "ZRH", "GVA", "HB-ABC"}, true, "VFR"},
        {{11259377, 0, 0, "ZRH", "BRN", "HB-XYZ"}, true, "VFR"},
        {{11259378, 0, 2, "MSP", "", "DAL9"}, false, nullptr},
    };
    for (const auto& c : cases) {
        sim::loadPlan(c.aircraft); // no simulator connected: the file is written, no plan is set
        const auto path = sim::planPath(c.aircraft.hexid);
        EXPECT_EQ(path.filename().string(), std::to_string(c.aircraft.hexid) + ".pln");
        EXPECT_EQ(fs::exists(path), c.file) << c.aircraft.name;
        if (!c.file) continue;
        EXPECT_EQ(test::readBytes(path),
                  fmt::format(
                      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<SimBase.Document Type=\"AceXML\" version=\"4,3\">\n<FlightPlan.FlightPlan>\n"
                      "<FPType>{}</FPType>\n<DepartureID>{}</DepartureID>\n"
                      "<DestinationID>{}</DestinationID>\n</FlightPlan.FlightPlan>\n</SimBase.Document>\n\n",
                      c.type, c.aircraft.origin, c.aircraft.destination));
    }
    EXPECT_EQ(sim::removeFlightPlanFolder(), "");
    EXPECT_FALSE(fs::exists(dir / "orig_dest"));
    // A plan that can't be written leaves the aircraft without one and says so.
    sim::loadPlan({11259379, 0, 2, "MSP", "ATL", "DAL77"});
    EXPECT_TRUE(log.contains("DAL77 creating a flight plan failed"));
}

} // namespace
} // namespace orv::sim
