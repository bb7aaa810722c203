// The top of the program: the process entry, the run sequence on the worker, the step from an
// older version, and the hand-over of the user's position to the feed. The only layer that
// calls every other one.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/core.h"

namespace orv::run {

namespace fs = std::filesystem;

// ---- The window's message queue -------------------------------------------------------------

enum class WindowMessage : std::uint32_t {
    Close = 0x0010,
    StartWorker = 0x8001,
    End = 0x8002,
    Repaint = 0x8060
};
void postWindowMessage(WindowMessage message);
// The next posted message, waiting up to `wait`; nullopt if none came.
std::optional<WindowMessage> nextWindowMessage(std::chrono::milliseconds wait);

// ---- Run sequence ---------------------------------------------------------------------------

// What lower layers do when they must make a higher one act (the link went: the live aircraft
// go); installed before any thread starts.
void installHooks();
void startUpORVL();
[[nodiscard]] bool readEverything();
[[nodiscard]] bool startThreads();
void mainLoop();
bool engineRunning() noexcept; // in the main loop, where the worker publishes the status snapshot
bool step();
void onSecond();
void every30Seconds();
void pausedStep();
void closingDown();
void restartCountdown();
void resetRunState(); // every subsystem's run state, as a restart needs it
// The window close button: the user stop, the farewell, and UserClosedSim if no reason is set yet.
void userStop();
// Reads parameters.xml and brings it and the stored data in line with the running version.
void versionStep(const fs::path& parametersFile);
[[nodiscard]] bool versionUpdate(const fs::path& parametersFile); // true: too old to convert

// The user's position and the current airport, to the Traffic Reader and the engine; the
// position and the time to RealTraffic.
void copyUserPositionForReaders();
void sendUserPositionToRealTraffic();
// The traffic radius: RANGE, or with AUTO_RANGE one that follows the user's height and the
// distance to the nearest listed park airport (none: 10000 nm).
int autoRadiusNm(bool onGround, double altitudeFt, std::optional<double> nearestNm);
void applyRange(); // at the start of the traffic, every 30 s and when AUTO_RANGE or RANGE change
void sendTimeToRealTraffic();

// What the loop ran, for tests and diagnosis; empty in normal runs.
enum class Scheduled { Every5, Every15, Every30, Idle16, Qnh59, Duplicates61 };
struct LoopProbe {
    std::function<void(int second, Scheduled what)> onScheduled;
    std::function<void()> onPass;
};
extern LoopProbe gLoopProbe;

// ---- Process --------------------------------------------------------------------------------

// The command line read into the options: an error text, or the help text for --help; both empty
// when the program runs.
struct CommandLine {
    std::string error, help;
};
[[nodiscard]] CommandLine parseOptions(const std::vector<std::string>& args, core::Options& out);
int runProcess(int argc, char** argv);

} // namespace orv::run
