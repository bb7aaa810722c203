#include "core/core.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <mutex>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "platform/platform.h"

namespace orv::core {

namespace {
std::mutex logLock;
std::ofstream logStream;

std::mutex messageLock;
std::string gMessageLine;
std::string gErrorLine;
int gMessageSecond = 0;
int gSecondCount = 0;

std::time_t utcSeconds() {
    return std::chrono::system_clock::to_time_t(platform::clock().utcNow());
}
} // namespace

void openLog(const fs::path& file) {
    std::lock_guard lock(logLock);
    if (logStream.is_open()) logStream.close();
    logStream.open(file, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!logStream.is_open()) throw std::runtime_error("Failed to write file " + file.string());
    logStream << fmt::format("{:%Y-%m-%d %H:%M:%S} (utc) {} version {}.{}.{} for {}\n",
                             fmt::gmtime(utcSeconds()), kAppName, kVersion.major, kVersion.minor,
                             kVersion.patch, kSimName);
    logStream.flush();
}

void closeLog() {
    std::lock_guard lock(logLock);
    if (logStream.is_open()) logStream.close();
}

void log(std::string_view text) {
    std::lock_guard lock(logLock);
    if (!logStream.is_open()) return;
    logStream << text << '\n';
}

void logFlush(std::string_view text) {
    std::lock_guard lock(logLock);
    if (!logStream.is_open()) return;
    logStream << "==> " << text << '\n';
    logStream.flush();
}

std::string timeText() {
    return fmt::format("{:%H:%M:%S}", fmt::gmtime(utcSeconds()));
}

// ---- Message and error lines ----------------------------------------------------------------

void message(std::string_view text, bool alsoLog) {
    {
        std::lock_guard lock(messageLock);
        if (!gErrorLine.empty()) return;
        gMessageLine = text;
        gMessageSecond = text.empty() ? 0 : std::max(gSecondCount, 1);
    }
    if (alsoLog && !text.empty()) log(text);
    core::repaint(core::Region::MessageLine);
}

void clearMessage() {
    message({}, false);
}

void error(std::string_view text) {
    {
        std::lock_guard lock(messageLock);
        gMessageLine.clear();
        gMessageSecond = 0;
        gErrorLine = text;
    }
    log(fmt::format("Error {}", text));
    core::repaint(core::Region::MessageLine);
}

std::string messageLine() {
    std::lock_guard lock(messageLock);
    return gMessageLine;
}

std::string errorLine() {
    std::lock_guard lock(messageLock);
    return gErrorLine;
}

void messageSecond() {
    bool cleared = false;
    {
        std::lock_guard lock(messageLock);
        ++gSecondCount;
        if (gMessageSecond > 0 && gSecondCount - gMessageSecond >= 25) {
            gMessageLine.clear();
            gMessageSecond = 0;
            cleared = true;
        }
    }
    if (cleared) core::repaint(core::Region::MessageLine);
}

void resetMessages() {
    std::lock_guard lock(messageLock);
    gMessageLine.clear();
    gErrorLine.clear();
    gMessageSecond = 0;
    gSecondCount = 0;
}

} // namespace orv::core
