// The application's core, which every layer above uses: the log and message lines, the window's
// status fields, text files, the run state shared by all threads and its exit reasons, folders,
// command-line options, string helpers and the user-facing error type.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace orv {
namespace fs = std::filesystem;
}

namespace orv::core {

struct VersionData {
    int major, minor, patch;
};
inline constexpr VersionData kVersion{ORV_VERSION_MAJOR, ORV_VERSION_MINOR, ORV_VERSION_PATCH};
inline constexpr std::string_view kAppName = "Orvelline";
inline constexpr std::string_view kSimName = "MSFS 2020/2024";

// ---- Log ------------------------------------------------------------------------------------

// Truncates the file and writes the header line; throws std::runtime_error if it can't.
void openLog(const fs::path& file);
void closeLog();
void log(std::string_view text);
void logFlush(std::string_view text);      // "==> " + text, then flush
void logTick();                            // once a second: what was logged reaches the file
void setLogCapBytes(std::uintmax_t bytes); // past it Log.txt becomes Log.1.txt and starts again
void setLogEcho(bool on);                  // each line also to standard error as it is logged
std::string timeText();                    // "HH:MM:SS", UTC

// ---- Message and error lines ----------------------------------------------------------------

void message(std::string_view text, bool alsoLog = false);
void clearMessage();
void error(std::string_view text);
std::string messageLine();
std::string errorLine();
void messageSecond(); // once a second: a message disappears after 25 s
void resetMessages();

// ---- Text files -----------------------------------------------------------------------------

enum class Encoding : int {
    Ansi = 0,
    Unicode = 1,
    UnicodeBigEndian = 2,
    Utf8WithBom = 3,
    Utf8WithoutBom = 4,
    NoneFound = 5
};
Encoding detectEncoding(const fs::path& path);
bool validUtf8(std::string_view text) noexcept; // well-formed UTF-8, by the same rules as the detection
// Any encoding to UTF-8 lines; false (with the message line set) if the file can't be read.
[[nodiscard]] bool readLines(Encoding encoding, const fs::path& path, std::vector<std::string>& out);
// The same lines one at a time, read in pieces, so a big file never sits in memory whole; a line
// beyond kMaxTextLineBytes is cut there. `fn` returns false to stop. False (with the message line
// set) if the file can't be read.
inline constexpr std::size_t kMaxTextLineBytes = 65536;
[[nodiscard]] bool streamLines(Encoding encoding, const fs::path& path,
                               const std::function<bool(std::string_view)>& fn);
// Bytes as they are; the number of lines, or "open_failed".
std::variant<std::size_t, std::string> readAllLines(const fs::path& path, std::vector<std::string>& out,
                                                    std::size_t reserve);
// Writes the whole file under a temporary name and renames it; false if it could not.
[[nodiscard]] bool writeText(std::string_view text, const fs::path& path, bool withNewline);

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
// "SIM WAS CLOSED" and the others; a value outside the enum is an internal error (std::logic_error).
std::string_view exitReasonName(ExitReason reason);

// What every thread polls. Any thread may set the stop flags (the first through requestStop);
// the worker resets the rest between runs, the SimClient and the readers report into it.
struct RunState {
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> userStopRequested{false};
    std::atomic<ExitReason> exitReason{ExitReason::NotYetSet};
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

    void reset(); // everything but isRestart, realTrafficInstalled, hardwareThreads and processExitCode
};
extern RunState gRun;

// First caller wins: sets stopRequested, exitReason and restartDelaySeconds; later callers
// change nothing. Returns whether this call won.
bool requestStop(ExitReason reason, std::int32_t restartDelaySeconds);

// ---- Folders and options --------------------------------------------------------------------

struct Paths {
    fs::path programFolder; // data files, airports, output
    fs::path dataFolder;    // parameters.xml, Log.txt, orig_dest
};
extern Paths gPaths;

// The command line, read once by the process entry before anything else runs.
struct Options {
    bool production = true;
    bool productionGiven = false;
    fs::path home;       // the program folder, if not the install folder
    std::string simHost; // the simulator's SimConnect on TCP; empty: from its SimConnect.xml
    std::uint16_t simPort = 0;
    fs::path appData, localAppData; // stand-ins for Windows' known folders; empty: the defaults
    std::string planFolderForSim;   // the flight plan folder as a simulator on another PC names it
    int stopAfterSeconds = 0;       // close as the user would after this many seconds (0: never)
    bool status = false;            // print a status line to the terminal every few seconds
    bool echoLog = false;           // each log line also to standard error
    std::uint16_t trafficPort = 49005;
    std::uint16_t weatherPort = 49004;
    std::string realTrafficBind = "127.0.0.1"; // RealTraffic connects from this machine
    std::string uiAddress = "127.0.0.1";       // the web page; only this machine by default
    int uiPort = 8610;                         // 0: any free port
    bool uiEnabled = true;
    bool openBrowser = true;
};
extern Options gOptions;

// ---- The window's status fields -------------------------------------------------------------
// Logic writes them and asks for repaints; a front end (the null window, the web page) reads them.

// Connection lights: 0 off, 1 connected, 2 receiving, 3 stopped.
enum class Indicator : std::uint8_t { Traffic, Weather, Simulator, RealTraffic, Count };
void setIndicator(Indicator which, int value) noexcept;
int indicator(Indicator which) noexcept;

enum class Region : std::uint8_t { MessageLine, Counters, Indicators, All };
void repaint(Region region) noexcept;
std::uint64_t repaintCount(Region region) noexcept;

// ---- Strings --------------------------------------------------------------------------------

std::string trim(std::string_view text);
std::vector<std::string> splitList(std::string_view text);
std::string trimList(std::string_view text);
std::string toUpper(std::string_view text);
std::string toLower(std::string_view text);
bool iequals(std::string_view a, std::string_view b) noexcept;

// Strict: invalid input throws std::runtime_error, nothing is replaced.
std::u16string utf8_to_wide(std::string_view text);
std::string wide_to_utf8(std::u16string_view text);
// One line of the ANSI code page to UTF-8: strict first, then lenient, else empty.
std::string ansiToUtf8(std::string_view line);

// ---- User errors ----------------------------------------------------------------------------

// An error the user must read and act on; code 99 shows its text alone.
class UserErrorException : public std::runtime_error {
  public:
    UserErrorException(std::int32_t number, const std::string& text);
    std::int32_t number() const noexcept { return number_; }
    const std::string& text() const noexcept { return text_; }

  private:
    std::int32_t number_;
    std::string text_;
};

} // namespace orv::core
