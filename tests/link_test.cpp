// The weather datagrams' pressure, and the control link with RealTraffic over real TCP.
#include <cstdlib>
#include <future>
#include <thread>

#include <fmt/format.h>

#include <gtest/gtest.h>

#include "emulator.h"
#include "feed/feed.h"
#include "live/internal.h"
#include "platform/platform.h"
#include "refdata/refdata.h"
#include "run/run.h"
#include "sim/sim.h"
#include "support.h"

namespace orv::feed {
namespace {

using namespace std::chrono_literals;

void weather(const std::string& datagram) {
    gQnhReader.line = datagram.data();
    gQnhReader.lineLength = datagram.size();
    gQnhReader.processLine();
}

TEST(QnhReader, DatagramsToHectopascals) {
    test::LogCapture log;
    struct Case {
        const char* datagram;
        std::int32_t qnh; // after the datagram, starting from 1013
        const char* logged = nullptr;
    };
    const Case cases[] = {
        {R"({"QNH":1008})", 1008},
        {R"({"QNH":1013.25,"wind":"270/10"})", 1013},
        {R"({"QNH":29.92})", 900}, // small numbers are not converted, only clamped
        {R"({"QNH":2992})", 1013}, // inches of mercury times 100
        {R"({"QNH":1101})", 900},  // converted first, then clamped
        {R"({"QNH":"1008"})", 1008},
        {R"({"QNH":"abc"})", 1013, "QNH string parse error: abc in {\"QNH\":\"abc\"}"},
        {R"({"QNH":"1008hPa"})", 1013, "QNH string parse error: 1008hPa"},
        {R"({"QNH":null})", 1013, "no QNH {\"QNH\":null}"},
        {R"({"wind":"calm"})", 1013, "no QNH {\"wind\":\"calm\"}"},
        {R"({"QNH":[1008]})", 1013, "no QNH"},
        {R"({"QNH":1e12})", 1013, "Exception "},
        {"not json", 1013, "Exception "},
        {R"({"QNH":1200.4})", 900}, // 1200 inHg*100 is 406 hPa, clamped to 900
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.datagram);
        gQnhReader.reset();
        gQnh = 1013;
        weather(c.datagram);
        EXPECT_EQ(gQnh.load(), c.qnh);
        EXPECT_EQ(gQnhReader.lastQnh.load(), c.qnh);
        if (c.logged) {
            EXPECT_TRUE(log.contains(c.logged));
        }
    }
}

TEST(QnhReader, RepeatsArePublishedOnlyFor1013) {
    gQnhReader.reset();
    weather(R"({"QNH":1008})");
    gQnh = 0; // a mark: a publication overwrites it
    weather(R"({"QNH":1008})");
    EXPECT_EQ(gQnh.load(), 0) << "a repeated value other than 1013 is not published again";
    weather(R"({"QNH":1013})");
    gQnh = 0;
    weather(R"({"QNH":1013})");
    EXPECT_EQ(gQnh.load(), 1013) << "1013 is, so the weather light stays fresh";
    gQnhReader.reset();
}

// Only a datagram with a pressure counts as weather received, and a new run starts from 1013.
TEST(QnhReader, ReceivedMeansAPressureAndARestartForgetsIt) {
    resetForRun();
    weather(R"({"wind":12})");
    EXPECT_FALSE(gQnhReader.received.load()) << "no QNH in it";
    weather(R"({"QNH":1002})");
    EXPECT_TRUE(gQnhReader.received.load());
    EXPECT_EQ(gQnh.load(), 1002);
    resetForRun();
    EXPECT_FALSE(gQnhReader.received.load());
    EXPECT_EQ(gQnh.load(), 1013);
    EXPECT_EQ(gTrafficReader.qnh.load(), 1013);
}

// The weather of a RealTraffic on another PC arrives: without a local RealTraffic the reader
// listens on every address (127.0.0.2 stands for another host's address here).
TEST(QnhReader, ListensBeyondLoopbackWhenRealTrafficIsElsewhere) {
    test::LogCapture log;
    for (const bool localOnly : {true, false}) {
        SCOPED_TRACE(localOnly ? "RealTraffic on this PC" : "RealTraffic elsewhere");
        resetForRun();
        startQnhReader(0, localOnly);
        for (int i = 0; i < 300 && gQnhReader.boundPort == 0; ++i) std::this_thread::sleep_for(10ms);
        ASSERT_NE(gQnhReader.boundPort.load(), 0);
        (void)platform::UdpSocket::sendTo("127.0.0.2", gQnhReader.boundPort, R"({"QNH":1021})");
        for (int i = 0; i < 100 && !gQnhReader.received; ++i) std::this_thread::sleep_for(10ms);
        EXPECT_EQ(gQnhReader.received.load(), !localOnly);
        stopReaders();
        ASSERT_TRUE(waitReadersStopped(3000ms));
    }
    resetForRun();
}

// ---- The control link -------------------------------------------------------------------------

// Reads one CR-LF line from RealTraffic's side; empty after `ms` without one.
std::string readLine(platform::TcpStream& s, int ms = 2000) {
    std::string line;
    char c;
    while (line.size() < 200) {
        const auto r = s.receive(&c, 1, ms);
        if (r.status != platform::RecvStatus::Data) break;
        line += c;
        if (line.ends_with("\r\n")) break;
    }
    return line;
}

class LinkTest : public testing::Test {
  protected:
    void SetUp() override {
        core::gRun.reset();
        core::gRun.realTrafficInstalled = true;
        startRealTrafficServer("127.0.0.1", 0);
        port = realTrafficPort();
    }
    void TearDown() override {
        realTrafficFarewell();
        core::gRun.realTrafficInstalled = false;
    }
    // RealTraffic connects and answers the version query with `answer`.
    platform::TcpStream connectRealTraffic(const std::string& answer) {
        platform::TcpStream rt;
        EXPECT_EQ(rt.connect("127.0.0.1", port), "");
        std::thread side([&] {
            EXPECT_EQ(readLine(rt), "Qs999=version\r\n");
            EXPECT_EQ(rt.sendAll(answer), "");
        });
        bool connected = false;
        for (int i = 0; i < 100 && !connected; ++i) {
            connected = waitForRealTraffic();
            if (!connected) std::this_thread::sleep_for(10ms);
        }
        side.join();
        EXPECT_TRUE(connected);
        return rt;
    }
    static UserReport user() {
        UserReport u;
        u.latitude = 44.882, u.longitude = -93.2218, u.pitch = 0.01, u.bank = -0.02, u.heading = 1.5;
        u.altitude = 841, u.groundVelocity = 12.5;
        return u;
    }
    test::LogCapture log;
    std::uint16_t port = 0;
};

TEST_F(LinkTest, VersionAnswers) {
    auto rt = connectRealTraffic(R"({"level":2,"version":"9.0.1"})");
    EXPECT_TRUE(realTrafficProfessional());
    EXPECT_EQ(realTrafficStatus(), "RT prof edition: 9.0.1");
    struct Case {
        const char* answer;
        bool professional;
        const char* status;
        const char* logged;
    };
    // Each answer after one that set an edition text: none of them may keep it.
    const Case cases[] = {
        {R"({"level":1,"version":"8.0.2"})", false, "RT stnd edition: 8.0.2", nullptr},
        {R"({"level":"2","version":"8.0.2"})", false, "", nullptr}, // wrong shape
        {R"({"level":2,"version":"9.0.1"})", true, "RT prof edition: 9.0.1", nullptr},
        {"garbage", false, "", "processRTVersion: JSON parse failed"},
        {R"({"level":2,"version":"9.0.1"})", true, "RT prof edition: 9.0.1", nullptr},
        {"", false, "", "No RealTraffic version received?"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer);
        processRTVersion(c.answer);
        EXPECT_EQ(realTrafficProfessional(), c.professional);
        EXPECT_EQ(realTrafficStatus(), c.status);
        if (c.logged) {
            EXPECT_TRUE(log.contains(c.logged));
        }
    }
}

TEST_F(LinkTest, PositionsGoOutAndALostLinkIsTakenUpAgain) {
    auto first = connectRealTraffic(R"({"level":1,"version":"8.0"})");
    sendUserPosition(user());
    EXPECT_EQ(readLine(first), "Qs121=1000;-2000;1.500000;841000;12500;0.783339;-1.627027\r\n");
    sendUserPosition(UserReport{}); // 0,0: the simulator has no position yet
    run::sendTimeToRealTraffic();   // the standard edition gets no time
    EXPECT_EQ(readLine(first, 200), "");

    // What RealTraffic sent belongs to it: when it goes, so do the aircraft.
    live::reset();
    run::installHooks();
    for (const auto state : {live::SimState::Active, live::SimState::Buffer}) {
        live::AcIdentity id;
        id.callsign = state == live::SimState::Active ? "DAL1" : "DAL2";
        live::gEngine.liveTable.push_back(
            live::makeLiveAc(id, state == live::SimState::Active ? 20001 : 20002, live::gEngine.rng));
        live::gEngine.liveTable.back().simState = state;
        live::gEngine.liveTable.back().objectId = state == live::SimState::Active ? 300 : 0;
    }
    // What the feed learned from it goes too.
    gQnh = 1020;
    gQnhReader.lineCount = 7;
    gTrafficReader.lineCount = 9;
    gTrafficReader.counts.queued = 4;
    gTrafficReader.seenCallsigns.insert("DAL1");
    live::gEngine.taken = 12;
    first.close(); // RealTraffic goes
    for (int i = 0; i < 400 && !log.contains("RealTraffic gone?"); ++i) {
        sendUserPosition(user());
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_FALSE(realTrafficConnected());
    EXPECT_TRUE(log.contains("RealTraffic gone? Wait for RealTraffic to re-connect ..."));
    EXPECT_EQ(gQnh.load(), 1013);
    EXPECT_EQ(gQnhReader.lineCount.load(), 0u);
    EXPECT_EQ(gTrafficReader.lineCount.load(), 0u);
    EXPECT_EQ(gTrafficReader.counts.queued, 0u);
    EXPECT_TRUE(gTrafficReader.seenCallsigns.empty());
    EXPECT_EQ(live::gEngine.taken, 0u) << "the engine's count starts again with the next RealTraffic";
    EXPECT_EQ(live::samplesTaken(), 0u);
    ASSERT_EQ(live::gEngine.liveTable.size(), 1u) << "the waiting one is dropped";
    EXPECT_EQ(live::gEngine.liveTable[0].simState, live::SimState::RemovingFromSim);
    EXPECT_EQ(live::gEngine.removeQueue, std::vector<std::uint32_t>{300});
    live::reset();

    // Connections left waiting from before and one that never answers are no RealTraffic; the
    // next one that answers the version query is, and gets the positions.
    {
        platform::TcpStream stale;
        ASSERT_EQ(stale.connect("127.0.0.1", port), "");
    }
    platform::TcpStream silent, second;
    ASSERT_EQ(silent.connect("127.0.0.1", port), "");
    ASSERT_EQ(second.connect("127.0.0.1", port), "");
    EXPECT_EQ(readLine(silent), "Qs999=version\r\n");
    EXPECT_EQ(readLine(second, 6000), "Qs999=version\r\n");
    ASSERT_EQ(second.sendAll(R"({"level":1,"version":"8.0"})"), "");
    for (int i = 0; i < 400 && !log.contains("RealTraffic re-connected"); ++i) {
        sendUserPosition(user());
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_TRUE(readLine(second).starts_with("Qs121="));
    EXPECT_EQ(log.count("RealTraffic re-connected"), 1u);
    EXPECT_EQ(log.count("did not answer the version query"), 2u);
    realTrafficFarewell();
    std::string rest;
    for (std::string l; !(l = readLine(second, 500)).empty();) rest = l;
    EXPECT_EQ(rest, "exit\r\n");
}

// A RealTraffic that stops reading holds up nobody: positions are only posted, the link thread's
// sends give up after a second, and the farewell comes back at once.
TEST_F(LinkTest, APeerThatStopsReadingFreezesNothing) {
    auto rt = connectRealTraffic(R"({"level":2,"version":"9.0.1"})");
    auto posting = std::async(std::launch::async, [&] {
        UserReport u = user();
        for (int i = 0; i < 200000; ++i) {
            u.latitude = 44 + i * 1e-6; // 14 MB of lines if each went out
            sendUserPosition(u);
            sendTimeToRealTraffic(1738727306 + i);
        }
    });
    ASSERT_EQ(posting.wait_for(20s), std::future_status::ready) << "a position send waited on the peer";
    auto farewell = std::async(std::launch::async, [] { realTrafficFarewell(); });
    ASSERT_EQ(farewell.wait_for(5s), std::future_status::ready) << "the farewell waited on the peer";
}

// The professional edition gets the simulator's time as an epoch in milliseconds; the time comes
// from the user aircraft's zulu time, here from the emulated simulator over the in-memory pipe.
TEST_F(LinkTest, TheProfessionalEditionGetsTheSimulatorTime) {
    sim::reset();
    test::TempDir dir; // the user's model must be a known one
    core::gPaths.programFolder = core::gPaths.dataFolder = dir.path();
    ASSERT_TRUE(refdata::loadDbase(test::shippedCopy("dbase.enc", dir.path())));
    emu::Config config;
    config.user.latitude = 44.882, config.user.longitude = -93.2218;
    config.airports = {{"KMSP", 44.882, -93.2218, 841}};
    emu::Emulator e(config);
    auto [clientEnd, serverEnd] = simconnect::makeMemoryPipe();
    const int id = e.connect([end = serverEnd.get()](simconnect::Bytes b) { return end->send(b); });
    sim::setApiFactory([once = simconnect::transportOnce(std::move(clientEnd))](bool protocol2024) {
        return simconnect::makeNetworkClient(once, protocol2024 ? simconnect::kProtocolMsfs2024
                                                                : simconnect::kProtocolMsfs2020);
    });
    std::uint8_t buffer[8192];
    double t = 0;
    const auto pass = [&] {
        sim::pollOnce();
        for (long n; (n = serverEnd->receive(buffer, sizeof buffer, 0)) > 0;)
            e.receive(id, simconnect::Bytes(buffer, static_cast<std::size_t>(n)));
        e.advanceTo(t += 0.01);
    };
    auto rt = connectRealTraffic(R"({"level":2,"version":"9.0.1"})");
    ASSERT_TRUE(realTrafficProfessional());
    for (int i = 0; i < 10 && !core::gRun.simRunning; ++i) pass();
    sim::requestUserOnGround();
    for (int i = 0; i < 20 && sim::epochTime() == 0; ++i) pass();
    ASSERT_GT(sim::epochTime(), 0) << log.text();
    run::sendTimeToRealTraffic();
    const auto line = readLine(rt);
    ASSERT_TRUE(line.starts_with("Qs123=")) << line;
    const double ms = std::stod(line.substr(6));
    EXPECT_NEAR(ms / 1000.0, static_cast<double>(config.zuluStart) + t, 2.0) << line;
    e.quit();
    serverEnd->close();
    for (int i = 0; i < 5; ++i) pass();
    sim::setApiFactory({});
    sim::reset();
}

TEST_F(LinkTest, TheReplayToolStandsInForRealTraffic) {
    test::TempDir dir;
    const std::string lines[] = {"RTTFC,11298587,44.684190,-93.556221,11275,2560,0,243.7,338.1,DAL2927,B739,"
                                 "N899DN,MSP,ATL,1738779569.94,adsb,x",
                                 "RTTFC,11298587,44.685190,-93.557221,11275,2560,0,243.7,338.1,DAL2927,B739,"
                                 "N899DN,MSP,ATL,1738779570.94,adsb,x"};
    test::writeBytes(dir / "rec.rttfc", lines[0] + "\n" + lines[1] + "\n");
    platform::UdpSocket traffic, weather;
    ASSERT_EQ(traffic.open(), "");
    ASSERT_EQ(traffic.bind(0, true), "");
    ASSERT_EQ(weather.open(), "");
    ASSERT_EQ(weather.bind(0, true), "");
    ASSERT_EQ(traffic.setReceiveTimeout(5000), "");
    ASSERT_EQ(weather.setReceiveTimeout(5000), "");
    const auto cmd =
        fmt::format("{} {} --control-port {} --port {} --weather-port {} --edition stnd --version 8.1 "
                    "--qnh 1008 --speed 4 > {} 2>&1",
                    ORV_REPLAY, (dir / "rec.rttfc").string(), port, traffic.localPort(), weather.localPort(),
                    (dir / "out.txt").string());
    std::thread replay([&] { EXPECT_EQ(std::system(cmd.c_str()), 0); });
    bool connected = false;
    for (int i = 0; i < 300 && !connected; ++i) {
        connected = waitForRealTraffic();
        if (!connected) std::this_thread::sleep_for(10ms);
    }
    EXPECT_TRUE(connected);
    EXPECT_EQ(realTrafficStatus(), "RT stnd edition: 8.1");
    char buf[512];
    const auto w = weather.receive(buf, sizeof buf);
    ASSERT_EQ(w.status, platform::RecvStatus::Data);
    EXPECT_EQ(std::string(buf, w.size), R"({"QNH":1008})");
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    for (const auto& original : lines) {
        const auto r = traffic.receive(buf, sizeof buf);
        ASSERT_EQ(r.status, platform::RecvStatus::Data);
        const std::string got(buf, r.size);
        // Everything but the time stands as recorded; the time is moved to now.
        EXPECT_EQ(got.substr(0, 89), original.substr(0, 89));
        EXPECT_NEAR(std::atof(got.c_str() + 89), now, 30.0) << got;
    }
    replay.join();
}

} // namespace
} // namespace orv::feed
