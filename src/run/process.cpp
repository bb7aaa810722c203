#include <charconv>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <iostream>
#include <mutex>
#include <thread>

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "core/core.h"
#include "feed/feed.h"
#include "live/live.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "parking/parking.h"
#include "platform/platform.h"
#include "refdata/refdata.h"
#include "run/run.h"
#include "scan/scan.h"
#include "sim/sim.h"
#include "ui/ui.h"

namespace orv::run {

namespace {

// The null window's message queue: any thread posts, the process entry's loop takes.
std::mutex queueMutex; // guards queue
std::condition_variable queueSignal;
std::deque<WindowMessage> queue;
std::atomic<bool> closeSignal{false}; // set by the signal handler, read by the message loop

void onSignal(int) {
    closeSignal = true;
}

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
    if (const auto& a = scan::gScanProgress; a.running) {
        std::cout << fmt::format("[{}] scanning add-on airports: folder {} of {}, {} scenery files read, {} "
                                 "airports, {} generated, {} linked",
                                 core::timeText(), std::min(a.foldersDone + 1, a.foldersTotal.load()),
                                 a.foldersTotal.load(), a.filesRead.load(), a.airportsFound.load(),
                                 a.generated.load(), a.linked.load())
                  << std::endl;
        return;
    }
    const auto live = live::liveCounts();
    const auto park = parking::parkStatus();
    const std::string parkText =
        park.airport.empty()
            ? std::string("; no park airport")
            : fmt::format(
                  "; park airport {} (quality {}): {} static aircraft of {} planned{}", park.airport,
                  core::trim(park.quality).empty() ? std::string("not known yet") : core::trim(park.quality),
                  park.statics, park.planned,
                  park.reservedStand.empty() ? std::string()
                                             : fmt::format(", stand {} kept free", park.reservedStand));
    std::cout << fmt::format(
                     "[{}] simulator: {}{}; {} liveries; RealTraffic: {}; traffic lines {} (queued {}, "
                     "dropped {}, ignored {}, failed {}{}), engine took {}; live aircraft: {} active, {} "
                     "waiting, {} being created, {} leaving; weather: {}{}",
                     core::timeText(), simText.empty() ? "waiting" : simText,
                     user ? fmt::format(", user at {:.4f},{:.4f} near {}", user->latitude, user->longitude,
                                        sim::nearestArea())
                          : std::string(),
                     liveries::count(),
                     feed::realTrafficConnected() ? feed::realTrafficStatus() : std::string("not connected"),
                     feed::gTrafficReader.lineCount.load(), c.queued.load(), c.dropped.load(),
                     c.ignored.load(), c.failed.load(),
                     fmt::format("{}{}{}",
                                 c.refused ? fmt::format(", refused from other hosts {}", c.refused.load())
                                           : std::string(),
                                 c.overruns ? fmt::format(", too long {}", c.overruns.load()) : std::string(),
                                 c.superseded
                                     ? fmt::format(", replaced by newer while behind {}", c.superseded.load())
                                     : std::string()),
                     live::samplesTaken(), live.active, live.buffered, live.creating, live.leaving,
                     feed::gQnhReader.received ? fmt::format("QNH {} hPa", feed::gQnh.load())
                                               : std::string("none yet"),
                     parkText)
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

namespace {

// "HOST:PORT" with a port from `lowestPort` to 65535; none when it is not that.
std::optional<std::pair<std::string, int>> hostPort(const std::string& text, int lowestPort) {
    const auto colon = text.rfind(':');
    int port = -1;
    if (colon == std::string::npos || colon == 0) return std::nullopt;
    const auto* end = text.data() + text.size();
    if (const auto r = std::from_chars(text.data() + colon + 1, end, port);
        r.ec != std::errc{} || r.ptr != end)
        return std::nullopt;
    if (port < lowestPort || port > 65535) return std::nullopt;
    return std::pair{text.substr(0, colon), port};
}

} // namespace

CommandLine parseOptions(const std::vector<std::string>& args, core::Options& out) {
    CLI::App app{"Fills a running flight simulator with real-world air traffic.", "orvelline"};
    app.footer("Parameters and Log.txt live in $XDG_CONFIG_HOME/Orvelline (default ~/.config/Orvelline).");
    app.allow_windows_style_options(); // "/production", as on Windows
    app.option_defaults()->ignore_case();
    bool production = true;
    std::string sim, stopAfter;
    int trafficPort = out.trafficPort, weatherPort = out.weatherPort;
    app.add_flag("--production,!--no-production", production,
                 "run everything (the default), or only the start sequence and then stop");
    app.add_option("--home", out.home,
                   "the program folder (data files, airports, output); default: the folder "
                   "of the executable");
    app.add_option("--sim", sim,
                   "HOST:PORT where the simulator's SimConnect listens on TCP (default: the IPv4 "
                   "entry of the SimConnect.xml beside the simulator's UserCfg.opt)");
    app.add_option("--appdata", out.appData,
                   "the folder that stands for Windows' %APPDATA% when looking for the "
                   "simulator's UserCfg.opt (default: in Steam's Proton prefix)");
    app.add_option("--localappdata", out.localAppData, "the folder that stands for Windows' %LOCALAPPDATA%");
    app.add_option("--plan-folder-as", out.planFolderForSim,
                   "the Windows path under which a simulator on another PC reaches this program's flight "
                   "plan folder (a share of it); without it such a simulator gets no flight plans");
    app.add_option("--stop-after", stopAfter, "close as the user would, after this many SECONDS");
    app.add_flag("--status", out.status, "print a status line every 5 seconds");
    app.add_flag("--echo-log", out.echoLog,
                 "also write each line of Log.txt to standard error as it is logged");
    app.add_option("--traffic-port", trafficPort, "UDP port of the traffic lines (49005)")
        ->check(CLI::Range(0, 65535));
    app.add_option("--weather-port", weatherPort, "UDP port of the weather datagrams (49004)")
        ->check(CLI::Range(0, 65535));
    std::string ui;
    app.add_option("--ui", ui, "ADDR:PORT of the web page (127.0.0.1:8610; port 0: any free port), or off");
    bool noBrowser = false;
    app.add_flag("--no-browser", noBrowser, "print the web page's address without opening a browser");
    app.add_option("--realtraffic-bind", out.realTrafficBind,
                   "where the server for RealTraffic's control link listens (127.0.0.1; its port is the "
                   "parameter PORT_NUMBER, 10747)");
    try {
        std::vector<std::string> reversed(args.rbegin(), args.rend()); // CLI11 takes them last first
        app.parse(reversed);
    } catch (const CLI::CallForHelp&) {
        return {{}, app.help()};
    } catch (const CLI::ParseError& e) {
        return {fmt::format("{} (see --help)", e.what()), {}};
    }
    if (app.get_option("--production")->count() > 0) {
        out.production = production;
        out.productionGiven = true;
    }
    out.openBrowser = !noBrowser;
    if (ui == "off") {
        out.uiEnabled = false;
    } else if (!ui.empty()) {
        const auto at = hostPort(ui, 0);
        if (!at) return {fmt::format("--ui: '{}' is not ADDR:PORT or off", ui), {}};
        out.uiAddress = at->first;
        out.uiPort = at->second;
    }
    out.trafficPort = static_cast<std::uint16_t>(trafficPort);
    out.weatherPort = static_cast<std::uint16_t>(weatherPort);
    if (!sim.empty()) {
        const auto at = hostPort(sim, 1);
        if (!at) return {fmt::format("--sim: '{}' is not HOST:PORT", sim), {}};
        out.simHost = at->first;
        out.simPort = static_cast<std::uint16_t>(at->second);
    }
    if (!stopAfter.empty()) {
        const auto* end = stopAfter.data() + stopAfter.size();
        if (auto r = std::from_chars(stopAfter.data(), end, out.stopAfterSeconds);
            r.ec != std::errc{} || r.ptr != end)
            return {fmt::format("--stop-after: '{}' is not a number of seconds", stopAfter), {}};
    }
    return {};
}

int runProcess(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    const auto line = parseOptions(args, core::gOptions);
    if (!line.error.empty()) {
        std::cerr << "orvelline: " << line.error << '\n';
        return 2;
    }
    if (!line.help.empty()) {
        std::cout << line.help;
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
        core::setLogEcho(core::gOptions.echoLog);
        core::openLog(core::gPaths.dataFolder / params::names::kLog);
    } catch (const std::exception& e) {
        std::cerr << e.what() << '\n';
        return 1;
    }
    core::log(fmt::format("program folder {}, data folder {}", core::gPaths.programFolder.string(),
                          core::gPaths.dataFolder.string()));

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    // The web page; a browser is opened only for a user at a desktop.
    const bool desktop =
        ::isatty(STDOUT_FILENO) && (std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY"));
    const auto page = ui::startWebServer({core::gOptions.uiAddress, core::gOptions.uiPort,
                                          core::gOptions.uiEnabled, core::gOptions.openBrowser && desktop});
    if (!page.empty())
        std::cout << fmt::format("{}: the web page is at {}", core::kAppName, page) << std::endl;

    // The null window: the message loop of a window without one.
    postWindowMessage(WindowMessage::StartWorker);
    std::thread worker;
    auto& clock = platform::clock();
    const auto started = clock.steadyNow();
    auto nextStatus = started + std::chrono::seconds(5);
    auto nextSnapshot = started;
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
        // Before the engine runs (and while it waits) the page still sees the status.
        if (now >= nextSnapshot) {
            nextSnapshot = now + std::chrono::seconds(1);
            if (!run::engineRunning()) ui::publishSnapshot(false);
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
    ui::stopWebServer();
    feed::stopReaders();
    if (!feed::waitReadersStopped(std::chrono::milliseconds(2000)))
        core::log("a reader did not stop within 2 s");
    if (core::gOptions.status) printStatus();
    core::logFlush("process ends");
    core::closeLog();
    return exitCode;
}

} // namespace orv::run
