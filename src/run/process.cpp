#include <condition_variable>
#include <csignal>
#include <deque>
#include <iostream>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "core/core.h"
#include "feed/feed.h"
#include "live/live.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "platform/platform.h"
#include "refdata/refdata.h"
#include "run/run.h"
#include "sim/sim.h"

namespace orv::run {

namespace {

std::mutex queueMutex;
std::condition_variable queueSignal;
std::deque<WindowMessage> queue;
std::atomic<bool> closeSignal{false};

void onSignal(int) {
    closeSignal = true;
}

constexpr std::string_view kHelp = R"(Usage: orvelline [options]

Fills a running flight simulator with real-world air traffic.

  --production, /production         run everything (the default)
  --no-production, /no-production   run the start sequence, then stop
  --home DIR                        the program folder (data files, airports, output);
                                    default: the folder of the executable
  --sim HOST:PORT                    where the simulator's SimConnect listens on TCP
                                    (127.0.0.1:50500, where orvelline-simemu listens)
  --appdata DIR, --localappdata DIR  the folders that stand for Windows' %APPDATA% and
                                    %LOCALAPPDATA% when looking for the simulator's UserCfg.opt
                                    (default: inside Steam's Proton prefix of the simulator,
                                    ~/.local/share/Steam/steamapps/compatdata/1250410/pfx/
                                    drive_c/users/steamuser/AppData/Roaming and .../Local;
                                    2537590 for MSFS 2024)
  --stop-after SECONDS              close as the user would, after this many seconds
  --status                          print a status line every 5 seconds
  --traffic-port N, --weather-port N  UDP ports of the feed (49005 and 49004)
  --realtraffic-bind ADDR           where the server for RealTraffic's control link listens
                                    (127.0.0.1; its port is the parameter PORT_NUMBER, 10747)
  --scenario FILE [--report]        run a scenario file (a recording against the emulated
                                    simulator, on virtual time) and print what was created,
                                    with --report also the motion figures; see data/scenarios
  --help                            this text

params::Parameters and Log.txt live in $XDG_CONFIG_HOME/Orvelline (default ~/.config/Orvelline).
)";

void printStatus() {
    const auto& c = feed::gTrafficReader.counts;
    const auto user = sim::userPosition();
    const auto simText = sim::simulatorText();
    const auto& scan = liveries::gScanProgress;
    if (scan.filesDone < scan.filesFound || (scan.filesFound > 0 && liveries::count() == 0)) {
        std::cout << fmt::format("[{}] scanning liveries: {} of {} aircraft.cfg files", core::timeText(),
                                 scan.filesDone.load(), scan.filesFound.load())
                  << std::endl;
        return;
    }
    const auto live = live::liveCounts();
    std::cout << fmt::format(
                     "[{}] simulator: {}{}; {} liveries; RealTraffic: {}; traffic lines {} (queued {}, "
                     "dropped {}, ignored {}, failed {}), engine took {}; live aircraft: {} active, {} "
                     "waiting, {} being created, {} leaving; weather: {}",
                     core::timeText(), simText.empty() ? "waiting" : simText,
                     user ? fmt::format(", user at {:.4f},{:.4f} near {}", user->latitude, user->longitude,
                                        sim::nearestArea())
                          : std::string(),
                     liveries::count(),
                     feed::realTrafficConnected() ? feed::realTrafficStatus() : std::string("not connected"),
                     feed::gTrafficReader.lineCount.load(), c.queued.load(), c.dropped.load(),
                     c.ignored.load(), c.failed.load(), live::samplesTaken(), live.active, live.buffered,
                     live.creating, live.leaving,
                     feed::gQnhReader.received ? fmt::format("QNH {} hPa", feed::gQnh.load())
                                               : std::string("none yet"))
              << std::endl;
}

} // namespace

void postWindowMessage(WindowMessage message) {
    {
        std::lock_guard lock(queueMutex);
        queue.push_back(message);
    }
    queueSignal.notify_one();
}

std::optional<WindowMessage> nextWindowMessage(std::chrono::milliseconds wait) {
    std::unique_lock lock(queueMutex);
    queueSignal.wait_for(lock, wait, [] { return !queue.empty(); });
    if (queue.empty()) return std::nullopt;
    const auto msg = queue.front();
    queue.pop_front();
    return msg;
}

std::string parseOptions(const std::vector<std::string>& args, core::Options& out, bool& help) {
    help = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        const auto value = [&](std::string& into) -> bool {
            if (i + 1 >= args.size()) return false;
            into = args[++i];
            return true;
        };
        if (core::iequals(a, "--production") || core::iequals(a, "/production")) {
            out.production = true;
            out.productionGiven = true;
        } else if (core::iequals(a, "--no-production") || core::iequals(a, "/no-production")) {
            out.production = false;
            out.productionGiven = true;
        } else if (a == "--help" || a == "-h") {
            help = true;
        } else if (a == "--status") {
            out.status = true;
        } else if (a == "--home") {
            std::string v;
            if (!value(v)) return "--home needs a folder";
            out.home = v;
        } else if (a == "--sim") {
            std::string v;
            if (!value(v)) return "--sim needs HOST:PORT";
            const auto colon = v.rfind(':');
            int port = -1;
            try {
                if (colon != std::string::npos) port = std::stoi(v.substr(colon + 1));
            } catch (const std::exception&) {
            }
            if (colon == std::string::npos || colon == 0 || port < 1 || port > 65535)
                return fmt::format("--sim: '{}' is not HOST:PORT", v);
            out.simHost = v.substr(0, colon);
            out.simPort = static_cast<std::uint16_t>(port);
        } else if (a == "--realtraffic-bind") {
            if (!value(out.realTrafficBind)) return "--realtraffic-bind needs an address";
        } else if (a == "--appdata" || a == "--localappdata") {
            std::string v;
            if (!value(v)) return fmt::format("{} needs a folder", a);
            (a == "--appdata" ? out.appData : out.localAppData) = v;
        } else if (a == "--traffic-port" || a == "--weather-port") {
            std::string v;
            if (!value(v)) return fmt::format("{} needs a port number", a);
            int port = -1;
            try {
                port = std::stoi(v);
            } catch (const std::exception&) {
            }
            if (port < 0 || port > 65535) return fmt::format("{}: '{}' is not a port number", a, v);
            (a == "--traffic-port" ? out.trafficPort : out.weatherPort) = static_cast<std::uint16_t>(port);
        } else if (a == "--stop-after") {
            std::string v;
            if (!value(v)) return "--stop-after needs a number of seconds";
            try {
                out.stopAfterSeconds = std::stoi(v);
            } catch (const std::exception&) {
                return fmt::format("--stop-after: '{}' is not a number of seconds", v);
            }
        } else {
            return fmt::format("unknown option '{}' (see --help)", a);
        }
    }
    return {};
}

int runProcess(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    bool help = false;
    if (auto err = parseOptions(args, core::gOptions, help); !err.empty()) {
        std::cerr << "orvelline: " << err << '\n';
        return 2;
    }
    if (help) {
        std::cout << kHelp;
        return 0;
    }

    // One instance per user; a second one leaves at once and writes nothing.
    platform::InstanceLock instance;
    if (!instance.acquire("orvelline")) return -1;

    core::gPaths.dataFolder = platform::configFolder() / core::kAppName;
    core::gPaths.programFolder =
        core::gOptions.home.empty() ? platform::executableFolder() : fs::absolute(core::gOptions.home);
    std::error_code ec;
    fs::create_directories(core::gPaths.dataFolder, ec);
    if (ec) {
        std::cerr << fmt::format("Failed to create directory: {}", core::gPaths.dataFolder.string()) << '\n';
        return 1;
    }
    try {
        core::openLog(core::gPaths.dataFolder / params::names::kLog);
    } catch (const std::exception& e) {
        std::cerr << e.what() << '\n';
        return 1;
    }
    core::log(fmt::format("program folder {}, data folder {}", core::gPaths.programFolder.string(),
                          core::gPaths.dataFolder.string()));

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    // The null window: the message loop of a window without one.
    postWindowMessage(WindowMessage::StartWorker);
    std::thread worker;
    auto& clock = platform::clock();
    const auto started = clock.steadyNow();
    auto nextStatus = started + std::chrono::seconds(5);
    std::string shownError;
    bool closeSent = false;
    int exitCode = 0;
    bool running = true;
    while (running) {
        const auto msg = nextWindowMessage(std::chrono::milliseconds(100));
        const auto now = clock.steadyNow();
        const bool timeUp = core::gOptions.stopAfterSeconds > 0 &&
                            now - started >= std::chrono::seconds(core::gOptions.stopAfterSeconds);
        if ((closeSignal || timeUp) && !closeSent) {
            closeSent = true;
            postWindowMessage(WindowMessage::Close);
        }
        if (core::gOptions.status && now >= nextStatus) {
            nextStatus += std::chrono::seconds(5);
            printStatus();
        }
        if (auto err = core::errorLine(); err != shownError) {
            shownError = err;
            if (!err.empty()) std::cerr << "Error: " << err << " (Ctrl-C closes)\n";
        }
        if (!msg) continue;
        switch (*msg) {
        case WindowMessage::StartWorker:
            if (worker.joinable()) worker.join();
            if (closeSent) { // the user closed the window while a restart was pending
                core::log(fmt::format("{} window closed", core::timeText()));
                running = false;
                break;
            }
            worker = std::thread(startUpORVL);
            break;
        case WindowMessage::End:
            core::log(fmt::format("{} window closed", core::timeText()));
            exitCode = core::gRun.processExitCode;
            running = false;
            break;
        case WindowMessage::Close:
            core::log(fmt::format("Close window button clicked, closing {} ...", core::kAppName));
            userStop();
            break;
        case WindowMessage::Repaint:
            break;
        }
    }
    if (worker.joinable()) worker.join();
    feed::stopReaders();
    feed::waitReadersStopped(std::chrono::milliseconds(2000));
    if (core::gOptions.status) printStatus();
    core::logFlush("process ends");
    core::closeLog();
    return exitCode;
}

} // namespace orv::run
