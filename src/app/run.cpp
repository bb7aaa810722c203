#include <chrono>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "airportfile/airportfile.h"
#include "app/app.h"
#include "feed/feed.h"
#include "live/live.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "parking/parking.h"
#include "platform/platform.h"
#include "refdata/refdata.h"
#include "scan/scan.h"
#include "sim/sim.h"
#include "ui/ui.h"

namespace orv {

using namespace std::chrono_literals;

RunState gRun;
Paths gPaths;
LoopProbe gLoopProbe;

namespace {
constexpr std::string_view kReasonNames[] = {"NOT YET SET",  "SIM WAS CLOSED",  "NEW FLIGHT",
                                             "NEW SETTINGS", "USER CLOSED SIM", "SIMCONNECT ERROR",
                                             "READER ERROR", "SYSTEM ERROR",    "NEW VERSION"};

platform::Clock& clk() {
    return platform::clock();
}

bool stopping() {
    return gRun.stopRequested.load(std::memory_order_acquire);
}

// Polls `done` every `step` until it holds, a stop is requested, or `tries` run out.
template <typename Pred>
bool waitFor(Pred done, std::chrono::milliseconds step, int tries = -1) {
    for (int i = 0; tries < 0 || i < tries; ++i) {
        if (done()) return true;
        if (stopping()) return false;
        clk().sleepFor(step);
    }
    return done();
}

void scheduled(int second, Scheduled what) {
    if (gLoopProbe.onScheduled) gLoopProbe.onScheduled(second, what);
}
} // namespace

std::string_view gf_exitReasonName(std::uint32_t reason) {
    if (reason >= std::size(kReasonNames)) throw std::logic_error(fmt::format("no exit reason {}", reason));
    return kReasonNames[reason];
}

void RunState::reset() {
    stopRequested = false;
    userStopRequested = false;
    exitReason = 0;
    restartDelaySeconds = 0;
    simRunning = false;
    simError = false;
    secondElapsed = false;
    secondsCounter = 0;
    engineTick = 0;
    realTrafficNeeded = true;
    paused = false;
    pausedPasses = 0;
    parkingCountdown = 20;
}

bool gf_requestStop(ExitReason reason, std::int32_t restartDelaySeconds) {
    if (gRun.stopRequested.exchange(true, std::memory_order_acq_rel)) return false;
    gRun.exitReason = static_cast<std::uint32_t>(reason);
    gRun.restartDelaySeconds = restartDelaySeconds;
    return true;
}

void gf_userStop() {
    gRun.userStopRequested = true;
    gf_realTrafficFarewell();
    if (!gRun.stopRequested.exchange(true, std::memory_order_acq_rel)) gRun.exitReason = 4;
}

void gf_resetRunState() {
    gRun.reset();
    gf_setAcceptTraffic(false);
    {
        std::lock_guard lock(gTraffic.trafficLock);
        gTraffic.trafficQueue.clear();
    }
    gTrafficReader.clearForRun();
    gTrafficReader.stop = false;
    gQnhReader.stop = false;
    gQnhReader.received = false;
    sim::reset();
    live::reset();
    parking::reset();
    liveries::reset();
    ui::clearCounters();
}

// ---- Start-up -------------------------------------------------------------------------------

bool lf_readEverything() {
    ui::clearCounters();
    if (!gRun.isRestart) {
        lf_versionStep(gPaths.dataFolder / names::kParameters);
        gParams.takeFromCatalogue();
    }
    // A Community folder typed in full is stored as the folder above it.
    constexpr std::string_view kCommunity = "/Community";
    if (gParams.MSFS_PATH.ends_with(kCommunity))
        gParams.MSFS_PATH.resize(gParams.MSFS_PATH.size() - kCommunity.size());
    for (const char* sub : {"output", "airports", "input"}) {
        std::error_code ec;
        fs::create_directories(gPaths.programFolder / sub, ec);
    }
    if (!gRun.isRestart && !gf_versionStep()) return false;

    static bool dataRead = false; // once per process
    if (!dataRead) {
        if (!gf_readDataFiles()) throw std::runtime_error("reading data files failed!");
        dataRead = true;
    }
    if (!gf_readAirports()) throw std::runtime_error("reading airports failed!");
    if (sim::installPath().empty())
        throw UserErrorException(
            150,
            "No install path detected. Type the full path to your Community folder above, then press Enter");

    if (!gOptions.production) {
        try {
            gf_log("Non-production mode: start sequence done, stopping");
            gf_userStop();
            gRun.processExitCode = 0;
        } catch (const std::exception& e) {
            gf_log(fmt::format("exception {}", e.what()));
            gRun.processExitCode = 1;
        }
        return false;
    }
    const bool rt = fs::exists(platform::localDataFolder() / "RealTraffic" / "RealTraffic.jar");
    gRun.realTrafficInstalled = rt;
    gf_message(fmt::format("RealTraffic {}detected at this PC", rt ? "" : "not "), true);
    return true;
}

bool lf_startThreads() {
    live::reserveContainers();
    sim::clearLists();
    sim::startClient();

    // Wait for the simulator, then for the user's position.
    if (!waitFor([] { return gRun.simRunning.load() && !gRun.simError.load(); }, 100ms)) return false;
    sim::requestUserOnGround();
    const auto positionKnown = [] {
        const auto p = sim::userPosition();
        return p && (std::fabs(p->latitude) > 0.0001 || std::fabs(p->longitude) > 0.0001);
    };
    if (!waitFor(positionKnown, 500ms)) return false;
    if (!waitFor([] { return sim::userTitleKnown(); }, 200ms)) return false;

    if (!gRun.realTrafficInstalled || gParams.AEROWINX) gRun.realTrafficNeeded = false;
    if (gRun.realTrafficNeeded && !gParams.AEROWINX) {
        gf_startRealTrafficServer(gOptions.realTrafficBind,
                                  static_cast<std::uint16_t>(gParams.PORT_NUMBER.load()));
        if (!waitFor([] { return lf_waitForRealTraffic(); }, 500ms)) return false;
    }

    gf_setAcceptTraffic(false);
    gf_copyUserPositionForReaders();
    gf_startQnhReader(gOptions.weatherPort);
    clk().sleepFor(2s);
    gf_startTrafficReader(gOptions.trafficPort, gRun.realTrafficInstalled);
    gf_sendUserPositionToRealTraffic();
    if (!waitFor([] { return gQnhReader.received.load(); }, 100ms, 150) && !stopping())
        gf_message("No traffic in this region?", true);
    return !stopping();
}

void lf_startUpORVL() {
    try {
        if (!fs::is_directory(gPaths.programFolder))
            throw UserErrorException(41, fmt::format("{} must be run from the {} folder!", kAppName,
                                                     gPaths.programFolder.string()));
        bool ended = true;
        if (lf_readEverything()) {
            const int hw = static_cast<int>(std::thread::hardware_concurrency());
            gRun.hardwareThreads = hw > 0 ? std::max(hw, 2) : 2;
            if (gParams.SCAN_LIVERIES || !liveries::liveriesFileExists()) liveries::scan();
            if (!stopping() && gParams.SCAN_AIRPORTS) {
                ui::clearCounters();
                scan::scanAirports();
            }
            if (!stopping()) {
                liveries::read();
                gf_log(fmt::format("{} liveries, {} airport files", liveries::count(),
                                   scan::airportFileCount()));
                sim::gf_createFlightPlanFolder();
                if (parking::checkParkAirports()) gf_log("park airports and stands are okay");
                ui::enableControls();
                if (!gParams.DESTINATION.empty()) {
                    const auto code = AirportCode::tryMake(gParams.DESTINATION);
                    if (!code || !gf_airportKnown(*code))
                        throw UserErrorException(44,
                                                 fmt::format("Invalid airport '{}'", gParams.DESTINATION));
                    gParams.DESTINATION = std::string(code->view());
                }
                if (lf_startThreads()) {
                    lf_mainLoop();
                    ended = false;
                }
            }
        }
        if (ended) gf_userStop();
    } catch (const UserErrorException& e) {
        gf_error(e.what());
        gf_requestStop(ExitReason::SystemError, 0);
    } catch (const std::exception& e) {
        gf_error(fmt::format("lf_startUpORVL exception {}", e.what()));
        gf_requestStop(ExitReason::SystemError, 0);
    } catch (...) {
        gf_error("lf_startUpORVL exception unknown");
        gf_requestStop(ExitReason::SystemError, 0);
    }
    gf_logFlush("start-up sequence ended");
    lf_closingDown();
}

// ---- The loop -------------------------------------------------------------------------------

void lf_mainLoop() {
    gRun.secondsCounter = 0;
    gf_setAcceptTraffic(true);
    platform::timeBeginPeriod(1);
    auto target = clk().steadyNow();
    while (true) {
        const auto now = clk().steadyNow();
        // After a stall the loop starts afresh rather than running the missed passes at once.
        target = (now - target > 100ms) ? now + 10ms : target + 10ms;
        if (target - clk().steadyNow() >= 1ms) clk().sleepUntil(target);
        if (gRun.secondElapsed.load(std::memory_order_acquire)) target = clk().steadyNow();
        if (gLoopProbe.onPass) gLoopProbe.onPass();
        if (!lf_step()) break;
    }
    platform::timeEndPeriod(1);
}

bool lf_step() {
    if (gRun.simRunning.load(std::memory_order_acquire) && !gRun.simError.load(std::memory_order_acquire)) {
        if (gRun.paused) {
            gRun.paused = false;
            gf_log(fmt::format("{} Flight resumed", gf_timeText()));
            gf_setAcceptTraffic(true);
        }
        live::engineFrame();
        if (!gRun.secondElapsed.exchange(false, std::memory_order_acq_rel)) return true;
        lf_onSecond();
        if (stopping()) return false;
        const int c = gRun.secondsCounter;
        if (c % 5 == 0) {
            scheduled(c, Scheduled::Every5);
            gf_copyUserPositionForReaders();
            if (gf_realTrafficConnected()) gf_sendTimeToRealTraffic();
            live::removeAtReservedStand();
            ui::repaint(ui::Region::MessageLine);
            if (c % 15 == 0) {
                scheduled(c, Scheduled::Every15);
                parking::followUp();
            }
            if (c % 30 == 0) {
                scheduled(c, Scheduled::Every30);
                lf_every30Seconds();
            }
        } else {
            if (c % 16 == 0) {
                scheduled(c, Scheduled::Idle16);
                parking::idleRefresh();
            }
            if (c % 59 == 0) {
                scheduled(c, Scheduled::Qnh59);
                gf_qnhUpdate();
            }
            if (c % 61 == 0) {
                scheduled(c, Scheduled::Duplicates61);
                live::duplicatesSweep();
            }
        }
        return true;
    }
    lf_pausedStep();
    return !stopping();
}

void lf_onSecond() {
    gf_messageSecond();
    ui::refreshCounters();
    gRun.secondsCounter.fetch_add(1, std::memory_order_relaxed);
    // Once a second, beside the frame rather than in it: a socket send has no place in the frame.
    gf_sendUserPositionToRealTraffic();
    live::routeQueueStep();
    live::writeFlightPlans();
    live::publishCallsignLookup();
    live::collisionChecks();
    ui::handleCommands();
}

void lf_pausedStep() {
    if (!gRun.paused) {
        gRun.paused = true;
        gRun.pausedPasses = 0;
        gf_log(fmt::format("{} Flight not running", gf_timeText()));
        gf_setAcceptTraffic(false);
        sim::clearLists();
    }
    live::drainEvents();
    if (++gRun.pausedPasses % 100 == 0) {
        gf_sendUserPositionToRealTraffic();
        ui::refreshCounters();
    }
}

void lf_every30Seconds() {
    const int c = gRun.secondsCounter;
    if (c % 60 == 0 && --gRun.parkingCountdown <= 0) {
        gRun.parkingCountdown = 20;
        if (!gParams.INITIAL_LOAD_ONLY) {
            gf_message(fmt::format("{} will update static parking in {} second{} ...", kAppName, 5, "s"),
                       true);
            parking::recalculate();
        }
    }
    if (gParams.OBJECTID_LIST) live::writeObjectIdList();
    if (c % 1200 == 0) gf_writeUnknownLists();
    if (c % 86400 == 0) gRun.secondsCounter = 0;
}

// ---- Closing --------------------------------------------------------------------------------

void lf_restartCountdown() {
    const int delay = gRun.restartDelaySeconds;
    if (delay < 1) return;
    gf_log(fmt::format("Restarting after {} seconds", delay));
    gf_log(std::string(48, '-'));
    for (int s = delay; s > 0; --s) {
        gf_message(fmt::format("Restarting after {} second{}", s, s == 1 ? "" : "s"));
        clk().sleepFor(1s);
    }
    gf_log("Restart countdown finished");
}

void lf_closingDown() {
    try {
        const std::uint32_t reason = gRun.exitReason;
        gf_logFlush(fmt::format("Exiting: {}", gf_exitReasonName(reason)));
        gf_setAcceptTraffic(false);
        sim::stopClient();
        gf_stopReaders();
        clk().sleepFor(500ms);
        gf_realTrafficFarewell();
        if (reason == 7) {
            while (!gRun.userStopRequested) clk().sleepFor(500ms);
            gf_log(fmt::format("User closed {}", kAppName));
        }
        airportfile::flushLiveAirports();
        liveries::saveFailedList();
        if (auto err = sim::removeFlightPlanFolder(); !err.empty())
            gf_log(fmt::format("gf_removeFlightPlanFolder: {}", err));
        gParams.DESTINATION.clear();
        gParams.BLOCK_CALLSIGN.clear();
        live::clearGhosts();
        gf_writeUnknownLists();

        const bool restart = reason == 3 || reason == 5 || reason == 6;
        if (restart) {
            gRun.isRestart = true;
            gf_clearMessage();
            gf_message("Prepare for a restart ...", true);
            if (reason != 3) {
                gParams.SCAN_LIVERIES = false;
                gParams.SCAN_AIRPORTS = false;
            }
            lf_restartCountdown();
            gf_resetRunState();
        } else {
            gRun.isRestart = false;
            if (reason == 2) {
                gf_message(
                    fmt::format("New flight detected, {} will close, please restart manually ...", kAppName),
                    true);
                clk().sleepFor(10s);
            }
        }
        gf_logFlush(restart ? "restarting" : "ending");
        gf_postWindowMessage(restart ? WindowMessage::StartWorker : WindowMessage::End);
    } catch (const std::exception& e) {
        gf_logFlush(fmt::format("{} exception {}", "lf_closingDown", e.what()));
        gf_postWindowMessage(WindowMessage::End);
    }
}

} // namespace orv
