#include <csignal>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/core.h"
#include "emulator.h"
#include "feed/feed.h"
#include "params/params.h"
#include "platform/platform.h"
#include "refdata/refdata.h"
#include "run/run.h"
#include "sim/sim.h"
#include "support.h"

extern char** environ;

namespace orv::run {
namespace {

using namespace std::chrono_literals;

TEST(ExitReasons, FixedTableOfNine) {
    const char* names[] = {"NOT YET SET",  "SIM WAS CLOSED",  "NEW FLIGHT",
                           "NEW SETTINGS", "USER CLOSED SIM", "SIMCONNECT ERROR",
                           "READER ERROR", "SYSTEM ERROR",    "NEW VERSION"};
    for (std::uint32_t i = 0; i < 9; ++i)
        EXPECT_EQ(core::exitReasonName(static_cast<core::ExitReason>(i)), names[i]);
    EXPECT_THROW(core::exitReasonName(static_cast<core::ExitReason>(9)), std::logic_error);
}

TEST(ExitReasons, FirstStopWinsAndLaterReasonsAreLost) {
    for (int round = 0; round < 20; ++round) {
        core::gRun.reset();
        std::atomic<int> winners{0};
        std::vector<std::thread> threads;
        for (std::uint32_t r = 1; r <= 8; ++r)
            threads.emplace_back([r, &winners] {
                if (core::requestStop(static_cast<core::ExitReason>(r), static_cast<std::int32_t>(r * 10)))
                    ++winners;
            });
        for (auto& t : threads) t.join();
        EXPECT_EQ(winners, 1);
        // Reason and delay come from the same caller.
        EXPECT_EQ(core::gRun.restartDelaySeconds,
                  static_cast<std::int32_t>(static_cast<std::uint32_t>(core::gRun.exitReason.load()) * 10));
    }
    core::gRun.reset();
    core::requestStop(core::ExitReason::ReaderError, 15);
    userStop(); // the close button after a reader error changes nothing
    EXPECT_EQ(core::gRun.exitReason, core::ExitReason::ReaderError);
    EXPECT_TRUE(core::gRun.userStopRequested);
    core::gRun.reset();
}

// Drives the loop on virtual time; the "simulator" raises secondElapsed each virtual second.
class Loop : public ::testing::Test {
  protected:
    void SetUp() override {
        resetRunState();
        params::gParams.reset();
        platform::setClock(&clock);
        core::gRun.simRunning = true;
        clock.onAdvance = [this](platform::SteadyTime now) {
            const auto t = now.time_since_epoch();
            while (t >= nextSecond) {
                nextSecond += 1s;
                core::gRun.secondElapsed = true;
            }
            if (stallAt && t >= *stallAt) {
                stallAt.reset();
                clock.advance(stall);
            }
            if (t >= endAt) core::requestStop(core::ExitReason::UserClosedSim, 0);
        };
        gLoopProbe.onScheduled = [this](int second, Scheduled what) { seen[what].push_back(second); };
        gLoopProbe.onPass = [this] { passes.push_back(clock.steadyNow().time_since_epoch()); };
    }
    void TearDown() override {
        gLoopProbe = {};
        platform::setClock(nullptr);
        resetRunState();
    }

    platform::VirtualClock clock;
    std::chrono::nanoseconds nextSecond = 1s;
    std::chrono::nanoseconds endAt = 3600s + 500ms; // a stop is seen on the next second: 3601
    std::optional<std::chrono::nanoseconds> stallAt;
    std::chrono::nanoseconds stall{};
    std::map<Scheduled, std::vector<int>> seen;
    std::vector<std::chrono::nanoseconds> passes;
};

TEST_F(Loop, AnHourKeepsTheScheduleAndTheSecondsCounter) {
    const auto wall = std::chrono::steady_clock::now();
    mainLoop();
    const auto took = std::chrono::steady_clock::now() - wall;
    std::cout << "an hour of loop passes took "
              << std::chrono::duration_cast<std::chrono::milliseconds>(took).count() << " ms\n";

    EXPECT_EQ(core::gRun.secondsCounter, 3601);
    EXPECT_NEAR(static_cast<double>(passes.size()), 360100.0, 5.0);
    EXPECT_EQ(core::gRun.engineTick, static_cast<std::int32_t>(passes.size())); // one frame per pass
    EXPECT_EQ(seen[Scheduled::Every5].size(), 720u);
    EXPECT_EQ(seen[Scheduled::Every15].size(), 240u);
    EXPECT_EQ(seen[Scheduled::Every30].size(), 120u);
    // The idle refresh, QNH update and duplicates sweep skip the seconds the 5 s tasks use.
    EXPECT_EQ(seen[Scheduled::Idle16].size(), 180u);
    EXPECT_EQ(seen[Scheduled::Qnh59].size(), 49u);
    EXPECT_EQ(seen[Scheduled::Duplicates61].size(), 48u);
    const auto first = [&](Scheduled s, std::size_t n) {
        return std::vector<int>(seen[s].begin(), seen[s].begin() + static_cast<std::ptrdiff_t>(n));
    };
    EXPECT_EQ(first(Scheduled::Every5, 3), (std::vector<int>{5, 10, 15}));
    EXPECT_EQ(first(Scheduled::Every15, 2), (std::vector<int>{15, 30}));
    EXPECT_EQ(first(Scheduled::Idle16, 5), (std::vector<int>{16, 32, 48, 64, 96}));
    EXPECT_EQ(first(Scheduled::Qnh59, 5), (std::vector<int>{59, 118, 177, 236, 354}));
    EXPECT_EQ(first(Scheduled::Duplicates61, 5), (std::vector<int>{61, 122, 183, 244, 366}));
}

TEST_F(Loop, NoCatchUpAfterAStallOverATenthOfASecond) {
    struct Case {
        std::chrono::milliseconds stall;
        bool catchUp;
    };
    for (const Case c : {Case{500ms, false}, Case{150ms, false}, Case{50ms, true}}) {
        SCOPED_TRACE(c.stall.count());
        resetRunState();
        core::gRun.simRunning = true;
        clock.advance(10s - clock.steadyNow().time_since_epoch() % 10s + 10s);
        nextSecond = clock.steadyNow().time_since_epoch() + 1s;
        const auto stallTime = clock.steadyNow().time_since_epoch() + 2s + 3ms;
        stallAt = stallTime;
        stall = c.stall;
        endAt = stallTime + 3s;
        passes.clear();
        mainLoop();
        // Passes that ran at one instant are catch-up passes.
        int sameInstant = 0;
        for (std::size_t i = 1; i < passes.size(); ++i)
            if (passes[i] == passes[i - 1]) ++sameInstant;
        if (c.catchUp) {
            EXPECT_GE(sameInstant, 3);
        } else {
            EXPECT_EQ(sameInstant, 0);
        }
        // Whatever the stall, the loop is back to one pass per 10 ms afterwards.
        const auto n = passes.size();
        EXPECT_EQ(passes[n - 1] - passes[n - 2], 10ms);
    }
}

TEST_F(Loop, SecondsCounterWrapsAfterADay) {
    core::gRun.secondsCounter = 86399;
    core::gRun.secondElapsed = true;
    ASSERT_TRUE(step());
    EXPECT_EQ(seen[Scheduled::Every30], std::vector<int>{86400});
    EXPECT_EQ(core::gRun.secondsCounter, 0);
}

TEST_F(Loop, PauseStopsTrafficAndResumeTakesItAgain) {
    test::LogCapture log;
    feed::setAcceptTraffic(true);
    core::gRun.simRunning = false;
    for (int i = 0; i < 150; ++i) ASSERT_TRUE(step());
    EXPECT_FALSE(feed::gTraffic.acceptTraffic);
    core::gRun.simRunning = true;
    core::gRun.secondElapsed = true;
    ASSERT_TRUE(step());
    EXPECT_TRUE(feed::gTraffic.acceptTraffic);
    const auto text = log.text();
    EXPECT_EQ(text.find("Flight not running"), text.rfind("Flight not running")) << "logged once";
    EXPECT_NE(text.find("Flight resumed"), std::string::npos);
}

// ---- Closing down ---------------------------------------------------------------------------

class Closing : public Loop {};

TEST_F(Closing, RestartsForSettingsSimConnectAndReaderErrorsOnly) {
    struct Case {
        core::ExitReason reason;
        std::int32_t delay;
        bool restart;
        bool scanFlagsKept;
    };
    const Case cases[] = {
        {core::ExitReason::SimWasClosed, 0, false, true},
        {core::ExitReason::NewFlight, 45, false, true},
        {core::ExitReason::NewSettings, 2, true, true},
        {core::ExitReason::UserClosedSim, 0, false, true},
        {core::ExitReason::SimconnectError, 9, true, false},
        {core::ExitReason::ReaderError, 15, true, false},
        {core::ExitReason::SystemError, 0, false, true},
        {core::ExitReason::NewVersion, 0, false, true},
    };
    for (const auto& c : cases) {
        const auto reason = c.reason;
        SCOPED_TRACE(core::exitReasonName(reason));
        test::LogCapture log;
        resetRunState();
        core::resetMessages();
        while (nextWindowMessage(0ms)) {
        }
        params::gParams.SCAN_LIVERIES = true;
        params::gParams.SCAN_AIRPORTS = true;
        params::gParams.DESTINATION = "KMSP";
        core::gRun.isRestart = false;
        core::requestStop(c.reason, c.delay);
        if (c.reason == core::ExitReason::SystemError)
            core::gRun.userStopRequested = true; // the user has read the error
        const auto before = clock.steadyNow();
        closingDown();
        const auto waited = clock.steadyNow() - before;

        const auto msg = nextWindowMessage(0ms);
        ASSERT_TRUE(msg);
        EXPECT_EQ(*msg, c.restart ? WindowMessage::StartWorker : WindowMessage::End);
        EXPECT_EQ(core::gRun.isRestart.load(), c.restart);
        EXPECT_EQ(params::gParams.SCAN_LIVERIES.load(), c.scanFlagsKept);
        EXPECT_EQ(params::gParams.SCAN_AIRPORTS.load(), c.scanFlagsKept);
        EXPECT_EQ(params::gParams.DESTINATION, "");
        const auto text = log.text();
        EXPECT_NE(text.find(fmt::format("==> Exiting: {}\n", core::exitReasonName(reason))),
                  std::string::npos);
        if (c.restart) {
            // The countdown ran on the clock, and the run state starts afresh.
            EXPECT_GE(waited, std::chrono::seconds(c.delay));
            EXPECT_NE(
                text.find(fmt::format("Restarting after {} seconds\n{}\n", c.delay, std::string(48, '-'))),
                std::string::npos);
            EXPECT_NE(text.find("Restart countdown finished"), std::string::npos);
            EXPECT_EQ(core::messageLine(), "Restarting after 1 second");
            EXPECT_FALSE(core::gRun.stopRequested);
            EXPECT_EQ(core::gRun.exitReason, core::ExitReason::NotYetSet);
        } else {
            EXPECT_EQ(text.find("Restarting after"), std::string::npos);
            EXPECT_TRUE(core::gRun.stopRequested);
        }
        if (c.reason == core::ExitReason::NewFlight) {
            EXPECT_NE(core::messageLine().find(
                          "New flight detected, Orvelline will close, please restart manually"),
                      std::string::npos);
            EXPECT_GE(waited, 10s);
        }
        if (c.reason == core::ExitReason::SystemError) {
            EXPECT_NE(text.find("User closed Orvelline"), std::string::npos);
        }
    }
    core::gRun.isRestart = false;
    core::resetMessages();
}

TEST_F(Closing, SystemErrorWaitsForTheUserToClose) {
    test::LogCapture log;
    core::requestStop(core::ExitReason::SystemError, 0);
    std::chrono::nanoseconds closeAt = clock.steadyNow().time_since_epoch() + 30s;
    clock.onAdvance = [&](platform::SteadyTime now) {
        if (now.time_since_epoch() >= closeAt) core::gRun.userStopRequested = true;
    };
    const auto before = clock.steadyNow();
    closingDown();
    EXPECT_GE(clock.steadyNow() - before, 30s);
    EXPECT_EQ(nextWindowMessage(0ms), WindowMessage::End);
}

// ---- The process ----------------------------------------------------------------------------

struct Child {
    Child() = default;
    Child(Child&& o) noexcept : pid(std::exchange(o.pid, -1)), waited(o.waited) {}
    Child& operator=(Child&&) = delete;
    pid_t pid = -1;
    bool waited = false;
    int wait() {
        int status = 0;
        waited = true;
        if (waitpid(pid, &status, 0) < 0) return -1000;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -100 - WTERMSIG(status);
    }
    ~Child() { // a failed assertion must not leave the program running
        if (pid > 0 && !waited) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

// A program folder with the reference files the build made beside the program.
// With a Steam-style simulator install under `appData` beside it.
void makeHome(const fs::path& home) {
    fs::create_directories(home / "input");
    for (const char* name : {"dbase.enc", "airports.enc", "AIG-regcodes.enc"})
        test::shippedCopy(name, home / "input");
    const auto packages = home.parent_path() / "appdata" / "Microsoft Flight Simulator" / "Packages";
    fs::create_directories(packages / "Official");
    fs::copy(fs::path(ORV_SOURCE_DIR) / "data/liveries/Community", packages / "Community",
             fs::copy_options::recursive);
}
std::vector<std::string> simFolders(const fs::path& dir) {
    return {"--appdata", (dir / "appdata").string(), "--localappdata", (dir / "local").string()};
}

Child spawn(const std::vector<std::string>& args, const std::vector<std::string>& env,
            const std::string& stderrFile = "/dev/null") {
    std::vector<std::string> all = {ORV_PROGRAM};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envs = env;
    for (char** e = environ; *e; ++e) {
        const std::string s(*e);
        if (s.rfind("XDG_", 0) != 0) envs.push_back(s);
    }
    std::vector<char*> envp;
    for (auto& e : envs) envp.push_back(e.data());
    envp.push_back(nullptr);
    Child c;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_EQ(posix_spawn(&c.pid, ORV_PROGRAM, &actions, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    return c;
}

bool waitFor(const std::function<bool()>& done) {
    return test::waitUntil(done, 20s, 20ms);
}

// The start: the simulator and the user first, then the weather reader, two seconds later the
// traffic reader, and at most 15 s for the first weather before traffic is taken anyway.
TEST(StartSequence, ReadersFollowTheSimulatorAndWeatherIsAwaited15Seconds) {
    test::TempDir dir;
    test::LogCapture log;
    core::gPaths.dataFolder = core::gPaths.programFolder = dir.path();
    ASSERT_TRUE(refdata::loadDbase(test::shippedCopy("dbase.enc", dir.path())));
    emu::Config config;
    config.airports = {{"KMSP", 44.882, -93.2218, 841}};
    config.user.latitude = 44.882, config.user.longitude = -93.2218;
    emu::Emulator emulator(config);
    emu::Server server(emulator);
    ASSERT_EQ(server.start("127.0.0.1", 0), "");
    const auto savedOptions = core::gOptions;
    core::gOptions.simHost = "127.0.0.1", core::gOptions.simPort = server.port();
    core::gOptions.weatherPort = 0, core::gOptions.trafficPort = 0;
    core::gRun.reset();
    sim::reset();
    sim::setApiFactory({});
    core::gRun.realTrafficInstalled = false; // no RealTraffic link to wait for
    platform::VirtualClock clock;
    // From the moment the user is known: 2 s between the readers, then 15 s for the first weather.
    // The simulator's and the readers' threads step the same clock, so only a floor is exact.
    std::mutex mutex;
    std::optional<platform::SteadyTime> userKnownAt;
    clock.onAdvance = [&](platform::SteadyTime now) {
        {
            std::lock_guard lock(mutex);
            if (!userKnownAt && sim::userPosition()) userKnownAt = now;
        }
        // Virtual time runs ahead of the real emulator at most so far that the client's own
        // time-outs (15 s for the open's answer) keep their meaning.
        std::this_thread::sleep_for(200us);
    };
    platform::setClock(&clock);
    EXPECT_TRUE(startThreads());
    {
        std::lock_guard lock(mutex);
        ASSERT_TRUE(userKnownAt.has_value());
        // 2 s + 15 s; the user may first be seen known only at the 2 s sleep.
        EXPECT_GE(clock.steadyNow() - *userKnownAt, 15s);
    }
    EXPECT_TRUE(log.contains("No traffic in this region?"));
    feed::stopReaders();
    EXPECT_TRUE(feed::waitReadersStopped(5s));
    sim::stopClient();
    server.stop();
    platform::setClock(nullptr);
    sim::reset();
    core::gRun.reset();
    core::gOptions = savedOptions;
}

TEST(Process, SecondInstanceLeavesWithMinusOneAndWritesNoLog) {
    test::TempDir dir;
    makeHome(dir / "home");
    const std::string runtime = "XDG_RUNTIME_DIR=" + (dir / "").string();
    const auto log1 = dir / "cfg1" / "Orvelline" / "Log.txt";
    const auto log2 = dir / "cfg2" / "Orvelline" / "Log.txt";

    std::vector<std::string> args = {"--home",         (dir / "home").string(),
                                     "--stop-after",   "60",
                                     "--traffic-port", "0",
                                     "--weather-port", "0",
                                     "--sim",          "127.0.0.1:1"};
    for (const auto& a : simFolders(dir.path())) args.push_back(a);
    auto first = spawn(args, {runtime, "XDG_CONFIG_HOME=" + (dir / "cfg1").string()});
    // The lock is taken before the log opens, so a log header means the lock is held.
    ASSERT_TRUE(waitFor([&] { return test::readBytes(log1).find("(utc)") != std::string::npos; }));

    auto second =
        spawn({"--home", (dir / "home").string()}, {runtime, "XDG_CONFIG_HOME=" + (dir / "cfg2").string()});
    EXPECT_EQ(second.wait(), 255);
    EXPECT_FALSE(fs::exists(log2));

    kill(first.pid, SIGTERM); // the window's close button
    EXPECT_EQ(first.wait(), 0);
    const auto text = test::readBytes(log1);
    EXPECT_NE(text.find("Close window button clicked, closing Orvelline ..."), std::string::npos) << text;
    EXPECT_NE(text.find("==> Exiting: USER CLOSED SIM"), std::string::npos) << text;
    // The start read the real reference files, and no plain copy of them stays behind.
    for (const char* counted :
         {" ICAO model codes", " ICAO airline codes", " dbase records read", " airports read"})
        EXPECT_NE(text.find(counted), std::string::npos) << counted;
    for (const auto& e : fs::directory_iterator(dir / "home" / "input"))
        EXPECT_NE(e.path().extension(), ".xml");
}

TEST(Process, StartSequenceOutcomes) {
    struct Case {
        const char* name;
        std::vector<std::string> args;
        std::string shownError; // what the user reads on the terminal; empty: the run just ends
        std::string logHas;
        bool damageDbase = false;
    };
    const Case cases[] = {
        {"damaged reference database",
         {},
         "dbase.enc stream decrypt failed",
         "==> Exiting: SYSTEM ERROR",
         true},
        {"non-production stops after reading", {"/NO-PRODUCTION"}, "", "==> Exiting: USER CLOSED SIM"},
        {"no simulator folders is the user's to fix",
         {"--production", "--appdata", "/nonexistent/appdata"},
         "Error: 150: No install path detected. Type the full path to your Community folder above, then "
         "press "
         "Enter",
         "==> Exiting: SYSTEM ERROR"},
        {"missing program folder",
         {"--home", "/nonexistent/orvelline"},
         "Error: 41: Orvelline must be run from the /nonexistent/orvelline folder!",
         "==> Exiting: SYSTEM ERROR"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::TempDir dir;
        makeHome(dir / "home");
        auto args = c.args;
        for (const char* a : {"--traffic-port", "0", "--weather-port", "0"}) args.push_back(a);
        if (std::find(args.begin(), args.end(), "--appdata") == args.end())
            for (const auto& a : simFolders(dir.path())) args.push_back(a);
        if (std::find(args.begin(), args.end(), "--localappdata") == args.end())
            for (const char* a : {"--localappdata", "/nonexistent/local"}) args.push_back(a);
        if (std::find(args.begin(), args.end(), "--home") == args.end()) {
            args.push_back("--home");
            args.push_back((dir / "home").string());
        }
        if (c.damageDbase) {
            auto bytes = test::readBytes(dir / "home" / "input" / "dbase.enc");
            bytes[100] = static_cast<char>(bytes[100] ^ 0x40);
            test::writeBytes(dir / "home" / "input" / "dbase.enc", bytes);
        }
        const auto log = dir / "cfg" / "Orvelline" / "Log.txt";
        const auto err = dir / "stderr.txt";
        auto child = spawn(
            args, {"XDG_RUNTIME_DIR=" + dir.path().string(), "XDG_CONFIG_HOME=" + (dir / "cfg").string()},
            err.string());
        if (!c.shownError.empty()) {
            // An error keeps the program open until the user has read it and closes it.
            ASSERT_TRUE(waitFor([&] { return test::readBytes(err).find(c.shownError) != std::string::npos; }))
                << test::readBytes(err);
            kill(child.pid, SIGTERM);
        }
        EXPECT_EQ(child.wait(), 0);
        const auto text = test::readBytes(log);
        EXPECT_NE(text.find(c.logHas), std::string::npos) << text;
        EXPECT_FALSE(fs::exists(dir / "home" / "input" / "dbase.xml"));
        EXPECT_FALSE(fs::exists(dir / "home" / "input" / "airports.xml"));
    }
}

TEST(Options, CommandLine) {
    struct Case {
        std::vector<std::string> args;
        bool production, given;
        std::string error;
    };
    const Case cases[] = {
        {{}, true, false, ""},
        {{"--no-production"}, false, true, ""},
        {{"/No-Production", "--PRODUCTION"}, true, true, ""},
        {{"--production", "/no-production"}, false, true, ""},
        {{"--stop-after", "x"}, true, false, "--stop-after: 'x' is not a number of seconds"},
        {{"--home"}, true, false, "--home: 1 required TEXT missing (see --help)"},
        {{"--bogus"}, true, false, "The following argument was not expected: --bogus (see --help)"},
        {{"--traffic-port", "70000"},
         true,
         false,
         "--traffic-port: Value 70000 not in range 0 to 65535 (see --help)"},
        {{"--sim", "localhost"}, true, false, "--sim: 'localhost' is not HOST:PORT"},
        {{"--sim", ":500"}, true, false, "--sim: ':500' is not HOST:PORT"},
        {{"--sim", "msfs-pc:70000"}, true, false, "--sim: 'msfs-pc:70000' is not HOST:PORT"},
        {{"--sim", "msfs-pc:500", "--appdata", "/a"}, true, false, ""},
    };
    for (const auto& c : cases) {
        core::Options o;
        EXPECT_EQ(parseOptions(c.args, o).error, c.error);
        if (!c.error.empty()) continue;
        EXPECT_EQ(o.production, c.production);
        EXPECT_EQ(o.productionGiven, c.given);
    }
    core::Options o;
    const auto help = parseOptions({"--help"}, o).help;
    EXPECT_NE(help.find("--realtraffic-bind"), std::string::npos) << help;
}

} // namespace
} // namespace orv::run
