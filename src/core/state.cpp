#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

#include "core/core.h"

namespace orv::core {

RunState gRun;
Paths gPaths;
Options gOptions;

namespace {
constexpr std::string_view kReasonNames[] = {"NOT YET SET",  "SIM WAS CLOSED",  "NEW FLIGHT",
                                             "NEW SETTINGS", "USER CLOSED SIM", "SIMCONNECT ERROR",
                                             "READER ERROR", "SYSTEM ERROR",    "NEW VERSION"};
} // namespace

std::string_view exitReasonName(ExitReason reason) {
    const auto i = static_cast<std::uint32_t>(reason);
    if (i >= std::size(kReasonNames)) throw std::logic_error(fmt::format("no exit reason {}", i));
    return kReasonNames[i];
}

void RunState::reset() {
    stopRequested = false;
    userStopRequested = false;
    exitReason = ExitReason::NotYetSet;
    restartDelaySeconds = 0;
    simRunning = false;
    simError = false;
    secondElapsed = false;
    secondsCounter = 0;
    engineTick = 0;
    realTrafficNeeded = true;
}

bool requestStop(ExitReason reason, std::int32_t restartDelaySeconds) {
    if (gRun.stopRequested.exchange(true, std::memory_order_acq_rel)) return false;
    gRun.exitReason = reason;
    gRun.restartDelaySeconds = restartDelaySeconds;
    return true;
}

} // namespace orv::core
