#include <chrono>
#include <stdexcept>
#include <thread>

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

using namespace std::chrono_literals;

LoopProbe gLoopProbe;

namespace {

std::atomic<bool> gEngineRunning{false}; // the worker is in its 100 Hz loop

// The loop's own bookkeeping: the worker's alone.
struct LoopState {
    bool paused = false;
    int pausedPasses = 0;
    int parkingCountdown = 20; // minutes to the next adjustment of the static aircraft
};
LoopState loop;

platform::Clock& clk() {
    return platform::clock();
}

bool stopping() {
    return core::gRun.stopRequested.load(std::memory_order_acquire);
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

void userStop() {
    core::gRun.userStopRequested = true;
    feed::realTrafficFarewell();
    if (!core::gRun.stopRequested.exchange(true, std::memory_order_acq_rel))
        core::gRun.exitReason = core::ExitReason::UserClosedSim;
}

void resetRunState() {
    core::gRun.reset();
    loop = {};
    feed::resetForRun();
    sim::reset();
    live::reset();
    parking::reset();
    liveries::reset();
    ui::clearCounters();
}

// ---- Start-up -------------------------------------------------------------------------------

bool readEverything() {
    ui::clearCounters();
    if (!core::gRun.isRestart) {
        versionStep(core::gPaths.dataFolder / params::names::kParameters);
        params::gParams.takeFromCatalogue();
    }
    for (const char* sub : {"output", "airports", "input"}) {
        std::error_code ec;
        fs::create_directories(core::gPaths.programFolder / sub, ec);
    }
    if (!core::gRun.isRestart && !refdata::versionStep()) return false;

    static bool dataRead = false; // once per process
    if (!dataRead) {
        if (!refdata::readDataFiles()) throw std::runtime_error("reading data files failed!");
        dataRead = true;
    }
    if (!refdata::readAirports()) throw std::runtime_error("reading airports failed!");
    if (sim::installPath().empty())
        throw core::UserErrorException(
            150,
            "No install path detected. Type the full path to your Community folder above, then press Enter");

    if (!core::gOptions.production) {
        try {
            core::log("Non-production mode: start sequence done, stopping");
            userStop();
            core::gRun.processExitCode = 0;
        } catch (const std::exception& e) {
            core::log(fmt::format("exception {}", e.what()));
            core::gRun.processExitCode = 1;
        }
        return false;
    }
    const bool rt = fs::exists(platform::localDataFolder() / "RealTraffic" / "RealTraffic.jar");
    core::gRun.realTrafficInstalled = rt;
    core::message(fmt::format("RealTraffic {}detected at this PC", rt ? "" : "not "), true);
    return true;
}

bool startThreads() {
    live::reserveContainers();
    sim::clearLists();
    sim::startClient();

    // Wait for the simulator, then for the user's position.
    if (!waitFor([] { return core::gRun.simRunning.load() && !core::gRun.simError.load(); }, 100ms))
        return false;
    sim::requestUserOnGround();
    const auto positionKnown = [] {
        const auto p = sim::userPosition();
        return p && (std::fabs(p->latitude) > 0.0001 || std::fabs(p->longitude) > 0.0001);
    };
    if (!waitFor(positionKnown, 500ms)) return false;
    if (!waitFor([] { return sim::userTitleKnown(); }, 200ms)) return false;
    applyRange();

    if (!core::gRun.realTrafficInstalled || params::gParams.AEROWINX) core::gRun.realTrafficNeeded = false;
    if (core::gRun.realTrafficNeeded && !params::gParams.AEROWINX) {
        feed::startRealTrafficServer(core::gOptions.realTrafficBind,
                                     static_cast<std::uint16_t>(params::gParams.PORT_NUMBER.load()));
        if (!waitFor([] { return feed::waitForRealTraffic(); }, 500ms)) return false;
    }

    feed::setAcceptTraffic(false);
    copyUserPositionForReaders();
    // Both readers listen on 127.0.0.1 when RealTraffic runs on this PC, else on every address.
    feed::startQnhReader(core::gOptions.weatherPort, core::gRun.realTrafficInstalled);
    clk().sleepFor(2s);
    feed::startTrafficReader(core::gOptions.trafficPort, core::gRun.realTrafficInstalled);
    sendUserPositionToRealTraffic();
    if (!waitFor([] { return feed::gQnhReader.received.load(); }, 100ms, 150) && !stopping())
        core::message("No traffic in this region?", true);
    return !stopping();
}

void installHooks() {
    feed::setOnLinkLost([] {
        live::removeAllLive();
        live::resetSamplesTaken();
    });
    sim::setOnUserLeaving([] { parking::saveUserStand(); });
    parking::gParking.live.callsignInUse = live::callsignInUse;
    parking::gParking.live.parkedOn = live::parkedOn;
}

void startUpORVL() {
    installHooks();
    try {
        if (!fs::is_directory(core::gPaths.programFolder))
            throw core::UserErrorException(41,
                                           fmt::format("{} must be run from the {} folder!", core::kAppName,
                                                       core::gPaths.programFolder.string()));
        bool ended = true;
        if (readEverything()) {
            const int hw = static_cast<int>(std::thread::hardware_concurrency());
            core::gRun.hardwareThreads = hw > 0 ? std::max(hw, 2) : 2;
            if (params::gParams.SCAN_LIVERIES || !liveries::liveriesFileExists()) liveries::scan();
            // Asked for, or the installed add-ons changed since the last scan.
            if (!stopping() && (params::gParams.SCAN_AIRPORTS || scan::addonsChanged())) {
                ui::clearCounters();
                (void)scan::scanAirports(!params::gParams.SCAN_AIRPORTS);
            }
            if (!stopping()) {
                liveries::read();
                core::log(fmt::format("{} liveries, {} airport files", liveries::count(),
                                      scan::airportFileCount()));
                if (!sim::createFlightPlanFolder()) core::log("live aircraft fly without flight plan files");
                if (!parking::readMyParkAirports()) core::log("the park airports list was not read");
                if (parking::checkParkAirports()) core::log("park airports and stands are okay");
                ui::enableControls();
                if (!params::gParams.DESTINATION.empty()) {
                    const auto code = refdata::AirportCode::tryMake(params::gParams.DESTINATION);
                    if (!code || !refdata::airportKnown(*code))
                        throw core::UserErrorException(
                            44, fmt::format("Invalid airport '{}'", params::gParams.DESTINATION));
                    params::set(params::parameter<params::StringParameter>("DESTINATION"),
                                std::string(code->view()));
                }
                if (startThreads()) {
                    mainLoop();
                    ended = false;
                }
            }
        }
        if (ended) userStop();
    } catch (const core::UserErrorException& e) {
        core::error(e.what());
        core::requestStop(core::ExitReason::SystemError, 0);
    } catch (const std::exception& e) {
        core::error(fmt::format("startUpORVL exception {}", e.what()));
        core::requestStop(core::ExitReason::SystemError, 0);
    } catch (...) {
        core::error("startUpORVL exception unknown");
        core::requestStop(core::ExitReason::SystemError, 0);
    }
    core::logFlush("start-up sequence ended");
    closingDown();
}

// ---- The loop -------------------------------------------------------------------------------

bool engineRunning() noexcept {
    return gEngineRunning.load(std::memory_order_acquire);
}

void mainLoop() {
    gEngineRunning = true;
    core::gRun.secondsCounter = 0;
    feed::setAcceptTraffic(true);
    platform::timeBeginPeriod(1);
    auto target = clk().steadyNow();
    while (true) {
        const auto now = clk().steadyNow();
        // After a stall the loop starts afresh rather than running the missed passes at once.
        target = (now - target > 100ms) ? now + 10ms : target + 10ms;
        if (target - clk().steadyNow() >= 1ms) clk().sleepUntil(target);
        if (core::gRun.secondElapsed.load(std::memory_order_acquire)) target = clk().steadyNow();
        if (gLoopProbe.onPass) gLoopProbe.onPass();
        if (!step()) break;
    }
    platform::timeEndPeriod(1);
    gEngineRunning = false;
}

bool step() {
    if (core::gRun.simRunning.load(std::memory_order_acquire) &&
        !core::gRun.simError.load(std::memory_order_acquire)) {
        if (loop.paused) {
            loop.paused = false;
            core::log(fmt::format("{} Flight resumed", core::timeText()));
            feed::setAcceptTraffic(true);
        }
        live::engineFrame();
        if (!core::gRun.secondElapsed.exchange(false, std::memory_order_acq_rel)) return true;
        onSecond();
        if (stopping()) return false;
        const int c = core::gRun.secondsCounter;
        if (c % 5 == 0) {
            scheduled(c, Scheduled::Every5);
            copyUserPositionForReaders();
            if (feed::realTrafficConnected()) sendTimeToRealTraffic();
            live::removeAtReservedStand();
            core::repaint(core::Region::MessageLine);
            if (c % 15 == 0) {
                scheduled(c, Scheduled::Every15);
                parking::followUp();
            }
            if (c % 30 == 0) {
                scheduled(c, Scheduled::Every30);
                every30Seconds();
            }
        } else {
            if (c % 16 == 0) {
                scheduled(c, Scheduled::Idle16);
                parking::idleRefresh();
            }
            if (c % 59 == 0) {
                scheduled(c, Scheduled::Qnh59);
                feed::qnhUpdate();
            }
            if (c % 61 == 0) {
                scheduled(c, Scheduled::Duplicates61);
                live::duplicatesSweep();
            }
        }
        return true;
    }
    pausedStep();
    return !stopping();
}

void onSecond() {
    core::messageSecond();
    core::logTick();
    ui::refreshCounters();
    core::gRun.secondsCounter.fetch_add(1, std::memory_order_relaxed);
    // Once a second, beside the frame rather than in it: a socket send has no place in the frame.
    sendUserPositionToRealTraffic();
    live::routeQueueStep();
    live::writeFlightPlans();
    live::publishCallsignLookup();
    live::collisionChecks();
    ui::handleCommands();
    ui::publishSnapshot();
}

void pausedStep() {
    if (!loop.paused) {
        loop.paused = true;
        loop.pausedPasses = 0;
        core::log(fmt::format("{} Flight not running", core::timeText()));
        feed::setAcceptTraffic(false);
        sim::clearLists();
    }
    live::drainEvents();
    if (++loop.pausedPasses % 100 == 0) {
        sendUserPositionToRealTraffic();
        ui::refreshCounters();
    }
}

void every30Seconds() {
    const int c = core::gRun.secondsCounter;
    if (c % 60 == 0 && --loop.parkingCountdown <= 0) {
        loop.parkingCountdown = 20;
        if (!params::gParams.INITIAL_LOAD_ONLY) {
            core::message(
                fmt::format("{} will update static parking in {} second{} ...", core::kAppName, 5, "s"),
                true);
            parking::recalculate();
        }
    }
    if (params::gParams.AUTO_RANGE) applyRange();
    if (params::gParams.OBJECTID_LIST) live::writeObjectIdList();
    if (c % 1200 == 0) {
        refdata::writeUnknownLists();
        live::logNoMatchList();
    }
    if (c % 86400 == 0) core::gRun.secondsCounter = 0;
}

// ---- Closing --------------------------------------------------------------------------------

void restartCountdown() {
    const int delay = core::gRun.restartDelaySeconds;
    if (delay < 1) return;
    core::log(fmt::format("Restarting after {} seconds", delay));
    core::log(std::string(48, '-'));
    for (int s = delay; s > 0; --s) {
        core::message(fmt::format("Restarting after {} second{}", s, s == 1 ? "" : "s"));
        clk().sleepFor(1s);
    }
    core::log("Restart countdown finished");
}

void closingDown() {
    try {
        const core::ExitReason reason = core::gRun.exitReason;
        core::logFlush(fmt::format("Exiting: {}", core::exitReasonName(reason)));
        feed::setAcceptTraffic(false);
        sim::stopClient();
        feed::stopReaders();
        clk().sleepFor(500ms);
        feed::realTrafficFarewell();
        if (reason == core::ExitReason::SystemError) {
            while (!core::gRun.userStopRequested) clk().sleepFor(500ms);
            core::log(fmt::format("User closed {}", core::kAppName));
        }
        airportfile::flushLiveAirports();
        liveries::saveFailedList();
        if (auto err = sim::removeFlightPlanFolder(); !err.empty())
            core::log(fmt::format("removeFlightPlanFolder: {}", err));
        for (const char* name : {"DESTINATION", "BLOCK_CALLSIGN"})
            params::set(params::parameter<params::StringParameter>(name), "", params::Save::no);
        live::clearGhosts();
        refdata::writeUnknownLists();
        live::logNoMatchList();

        const bool restart = reason == core::ExitReason::NewSettings ||
                             reason == core::ExitReason::SimconnectError ||
                             reason == core::ExitReason::ReaderError;
        if (restart) {
            core::gRun.isRestart = true;
            core::clearMessage();
            core::message("Prepare for a restart ...", true);
            if (reason != core::ExitReason::NewSettings) {
                for (const char* name : {"SCAN_LIVERIES", "SCAN_AIRPORTS"})
                    params::set(params::parameter<params::BoolParameter>(name), false, params::Save::no);
            }
            restartCountdown();
            resetRunState();
        } else {
            core::gRun.isRestart = false;
            if (reason == core::ExitReason::NewFlight) {
                core::message(fmt::format("New flight detected, {} will close, please restart manually ...",
                                          core::kAppName),
                              true);
                clk().sleepFor(10s);
            }
        }
        core::logFlush(restart ? "restarting" : "ending");
        postWindowMessage(restart ? WindowMessage::StartWorker : WindowMessage::End);
    } catch (const std::exception& e) {
        core::logFlush(fmt::format("{} exception {}", "closingDown", e.what()));
        postWindowMessage(WindowMessage::End);
    }
}

} // namespace orv::run
