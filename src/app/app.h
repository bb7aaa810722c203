// Application core: the log and message lines, text files, the run state shared by all
// threads, the run sequence and the process entry.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace orv {

namespace fs = std::filesystem;

struct VersionData {
    int major, minor, patch;
};
inline constexpr VersionData kVersion{ORV_VERSION_MAJOR, ORV_VERSION_MINOR, ORV_VERSION_PATCH};
inline constexpr std::string_view kAppName = "Orvelline";
inline constexpr std::string_view kSimName = "MSFS 2020/2024";

// ---- Log ------------------------------------------------------------------------------------

// Truncates the file and writes the header line; throws std::runtime_error if it can't.
void gf_openLog(const fs::path& file);
void gf_closeLog();
void gf_log(std::string_view text);
void gf_logFlush(std::string_view text); // "==> " + text, then flush
std::string gf_timeText();               // "HH:MM:SS", UTC

// ---- Message and error lines ----------------------------------------------------------------

void gf_message(std::string_view text, bool alsoLog = false);
void gf_clearMessage();
void gf_error(std::string_view text);
std::string gf_messageLine();
std::string gf_errorLine();
void gf_messageSecond(); // once a second: a message disappears after 25 s
void gf_resetMessages();

// ---- Text files -----------------------------------------------------------------------------

enum class Encoding : int {
    Ansi = 0,
    Unicode = 1,
    UnicodeBigEndian = 2,
    Utf8WithBom = 3,
    Utf8WithoutBom = 4,
    NoneFound = 5
};
Encoding gf_detectEncoding(const fs::path& path);
// Any encoding to UTF-8 lines; false (with the message line set) if the file can't be read.
bool gf_readLines(Encoding encoding, const fs::path& path, std::vector<std::string>& out);
// Bytes as they are; the number of lines, or "open_failed".
std::variant<std::size_t, std::string> gf_readAllLines(const fs::path& path, std::vector<std::string>& out,
                                                       std::size_t reserve);
// Writes the whole file under a temporary name and renames it; false if it could not.
bool gf_writeText(std::string_view text, const fs::path& path, bool withNewline);

// ---- Run state ------------------------------------------------------------------------------

enum class ExitReason : std::uint32_t {
    NotYetSet = 0,
    SimWasClosed = 1,
    NewFlight = 2,
    NewSettings = 3,
    UserClosedSim = 4,
    SimconnectError = 5,
    ReaderError = 6,
    SystemError = 7,
    NewVersion = 8
};
// The name of a reason; any value outside the table is an internal error (std::logic_error).
std::string_view gf_exitReasonName(std::uint32_t reason);

struct RunState {
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> userStopRequested{false};
    std::atomic<std::uint32_t> exitReason{0};
    std::atomic<std::int32_t> restartDelaySeconds{0};
    std::atomic<bool> isRestart{false};
    std::atomic<bool> simRunning{false};
    std::atomic<bool> simError{false};
    std::atomic<bool> secondElapsed{false};
    std::atomic<std::int32_t> secondsCounter{0};
    std::atomic<std::int32_t> engineTick{0};
    std::atomic<bool> realTrafficInstalled{false};
    std::atomic<bool> realTrafficNeeded{true};
    std::atomic<int> hardwareThreads{2};
    std::atomic<int> processExitCode{0};
    // The loop's private bookkeeping.
    bool paused = false;
    int pausedPasses = 0;
    int parkingCountdown = 20;

    void reset(); // everything but isRestart and processExitCode
};
extern RunState gRun;

// First caller wins: sets stopRequested, exitReason and restartDelaySeconds; later callers
// change nothing. Returns whether this call won.
bool gf_requestStop(ExitReason reason, std::int32_t restartDelaySeconds);
// The window close button: the user stop, the farewell, and reason 4 if none is set yet.
void gf_userStop();

// ---- Folders --------------------------------------------------------------------------------

struct Paths {
    fs::path programFolder; // data files, airports, output
    fs::path dataFolder;    // parameters.xml, Log.txt, orig_dest
};
extern Paths gPaths;

// ---- The window's message queue -------------------------------------------------------------

enum class WindowMessage : std::uint32_t {
    Close = 0x0010,
    StartWorker = 0x8001,
    End = 0x8002,
    Repaint = 0x8060
};
void gf_postWindowMessage(WindowMessage message);
// The next posted message, waiting up to `wait`; nullopt if none came.
std::optional<WindowMessage> gf_nextWindowMessage(std::chrono::milliseconds wait);

// ---- Run sequence ---------------------------------------------------------------------------

void lf_startUpORVL();
bool lf_readEverything();
bool lf_startThreads();
void lf_mainLoop();
bool lf_step();
void lf_onSecond();
void lf_every30Seconds();
void lf_pausedStep();
void lf_closingDown();
void lf_restartCountdown();
void gf_resetRunState(); // every subsystem's run state, as a restart needs it
// Reads parameters.xml and brings it and the stored data in line with the running version.
void lf_versionStep(const fs::path& parametersFile);
bool lf_versionUpdate(const fs::path& parametersFile); // true: too old to convert

// What the loop ran, for tests and diagnosis; empty in normal runs.
enum class Scheduled { Every5, Every15, Every30, Idle16, Qnh59, Duplicates61 };
struct LoopProbe {
    std::function<void(int second, Scheduled what)> onScheduled;
    std::function<void()> onPass;
};
extern LoopProbe gLoopProbe;

// ---- Process --------------------------------------------------------------------------------

struct Options {
    bool production = true;
    bool productionGiven = false;
    fs::path home;                     // the program folder, if not the install folder
    std::string simHost = "127.0.0.1"; // the simulator's SimConnect on TCP
    std::uint16_t simPort = 50500;
    fs::path appData, localAppData; // stand-ins for Windows' known folders; empty: the defaults
    int stopAfterSeconds = 0;       // close as the user would after this many seconds (0: never)
    bool status = false;            // print a status line to the terminal every few seconds
    std::uint16_t trafficPort = 49005;
    std::uint16_t weatherPort = 49004;
    std::string realTrafficBind = "127.0.0.1"; // RealTraffic connects from this machine
};
extern Options gOptions;

// Parses the command line; returns an error text, empty on success. Sets `help` for --help.
std::string gf_parseOptions(const std::vector<std::string>& args, Options& out, bool& help);
int gf_runProcess(int argc, char** argv);

} // namespace orv
