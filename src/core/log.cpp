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
std::mutex logLock; // guards logStream: any thread logs
std::ofstream logStream;

// The window's message and error lines: any thread sets them, the front end reads them.
struct MessageLines {
    std::string message, error;
    int messageSecond = 0; // when the message was set, in seconds of the run
    int secondCount = 0;
};
std::mutex messageLock; // guards messages
MessageLines messages;

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
        if (!messages.error.empty()) return;
        messages.message = text;
        messages.messageSecond = text.empty() ? 0 : std::max(messages.secondCount, 1);
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
        messages.message.clear();
        messages.messageSecond = 0;
        messages.error = text;
    }
    log(fmt::format("Error {}", text));
    core::repaint(core::Region::MessageLine);
}

std::string messageLine() {
    std::lock_guard lock(messageLock);
    return messages.message;
}

std::string errorLine() {
    std::lock_guard lock(messageLock);
    return messages.error;
}

void messageSecond() {
    bool cleared = false;
    {
        std::lock_guard lock(messageLock);
        ++messages.secondCount;
        if (messages.messageSecond > 0 && messages.secondCount - messages.messageSecond >= 25) {
            messages.message.clear();
            messages.messageSecond = 0;
            cleared = true;
        }
    }
    if (cleared) core::repaint(core::Region::MessageLine);
}

void resetMessages() {
    std::lock_guard lock(messageLock);
    messages = {};
}

} // namespace orv::core
