#include "core/core.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <thread>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "platform/platform.h"

namespace orv::core {

namespace {
std::mutex logLock; // guards the log's state: any thread logs
std::ofstream logStream;

// The log's own limits, so that no flood of input can fill the disk or hide what came before it.
struct LogState {
    fs::path file;
    std::uintmax_t written = 0;
    std::uintmax_t capBytes = 50u << 20;
    std::string lastLine;
    std::uint64_t repeats = 0; // of lastLine, not yet written
    std::chrono::steady_clock::time_point lastFlush{};
};
LogState state;
constexpr std::size_t kMaxLineBytes = 2000;
bool echo = false; // each line also to standard error, as it is logged
bool unflushed = false;

// Flushes what was logged within the last second even when nothing more is logged after it,
// so that a killed process leaves all it said but its last second.
class Flusher {
  public:
    ~Flusher() { stop(); }
    void start() {
        std::lock_guard lock(mutex_);
        if (thread_.joinable()) return;
        stop_ = false;
        thread_ = std::thread([this] { loop(); });
    }
    void stop() {
        {
            std::lock_guard lock(mutex_);
            if (!thread_.joinable()) return;
            stop_ = true;
        }
        signal_.notify_all();
        thread_.join();
    }

  private:
    void loop();
    std::mutex mutex_;
    std::condition_variable signal_;
    bool stop_ = false;
    std::thread thread_;
};

// Log.txt -> Log.1.txt -> Log.2.txt -> Log.3.txt, the oldest dropped.
void keepGenerations(const fs::path& file) {
    const auto generation = [&](int n) {
        fs::path p = file;
        p.replace_extension(fmt::format(".{}{}", n, file.extension().string()));
        return p;
    };
    std::error_code ec;
    for (int n = 2; n >= 1; --n)
        if (fs::exists(generation(n), ec)) fs::rename(generation(n), generation(n + 1), ec);
    if (fs::exists(file, ec)) fs::rename(file, generation(1), ec);
}

// Under logLock.
void writeLine(std::string_view text) {
    logStream << text << '\n';
    state.written += text.size() + 1;
}
void writeRepeats() {
    if (state.repeats == 0) return;
    writeLine(fmt::format("    (the line above came {} more time{})", state.repeats,
                          state.repeats == 1 ? "" : "s"));
    state.repeats = 0;
}
void flushNow() {
    writeRepeats();
    logStream.flush();
    state.lastFlush = std::chrono::steady_clock::now();
    unflushed = false;
}

void Flusher::loop() {
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            if (signal_.wait_for(lock, std::chrono::milliseconds(250), [this] { return stop_; })) return;
        }
        // Its own lock is let go first: openLog holds the log's lock while it starts this thread.
        std::lock_guard logGuard(logLock);
        if (logStream.is_open() && unflushed &&
            std::chrono::steady_clock::now() - state.lastFlush >= std::chrono::milliseconds(500))
            flushNow();
    }
}
Flusher flusher;

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
    keepGenerations(file);
    const auto cap = state.capBytes;
    state = {};
    state.file = file;
    state.capBytes = cap;
    logStream.open(file, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!logStream.is_open()) throw std::runtime_error("Failed to write file " + file.string());
    logStream << fmt::format("{:%Y-%m-%d %H:%M:%S} (utc) {} version {}.{}.{} for {}\n",
                             fmt::gmtime(utcSeconds()), kAppName, kVersion.major, kVersion.minor,
                             kVersion.patch, kSimName);
    logStream.flush();
    state.lastFlush = std::chrono::steady_clock::now();
    flusher.start();
}

void closeLog() {
    flusher.stop();
    std::lock_guard lock(logLock);
    if (logStream.is_open()) {
        flushNow();
        logStream.close();
    }
}

void setLogEcho(bool on) {
    std::lock_guard lock(logLock);
    echo = on;
}

void log(std::string_view text) {
    std::lock_guard lock(logLock);
    if (!logStream.is_open()) return;
    if (echo) {
        std::fwrite(text.data(), 1, text.size(), stderr);
        std::fputc('\n', stderr);
    }
    unflushed = true;
    if (text == state.lastLine && !text.empty()) {
        ++state.repeats;
    } else {
        writeRepeats();
        if (text.size() > kMaxLineBytes)
            writeLine(fmt::format("{}... ({} more bytes cut)", text.substr(0, kMaxLineBytes),
                                  text.size() - kMaxLineBytes));
        else
            writeLine(text);
        state.lastLine.assign(text.substr(0, std::min(text.size(), kMaxLineBytes)));
    }
    if (state.written > state.capBytes) {
        // Full: this file becomes the first generation and a new one goes on.
        flushNow();
        logStream.close();
        keepGenerations(state.file);
        logStream.open(state.file, std::ios::out | std::ios::trunc | std::ios::binary);
        state.written = 0;
        writeLine(
            fmt::format("{} (utc) the log went on beyond {} bytes; the earlier lines are in the .1 file",
                        fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::gmtime(utcSeconds())), state.capBytes));
    }
    // At least once a second, so that a killed process leaves what it said.
    if (std::chrono::steady_clock::now() - state.lastFlush >= std::chrono::seconds(1)) flushNow();
}

void logFlush(std::string_view text) {
    std::lock_guard lock(logLock);
    if (!logStream.is_open()) return;
    writeRepeats();
    writeLine(fmt::format("==> {}", text));
    state.lastLine.clear();
    flushNow();
}

void logTick() {
    std::lock_guard lock(logLock);
    if (logStream.is_open()) flushNow();
}

void setLogCapBytes(std::uintmax_t bytes) {
    std::lock_guard lock(logLock);
    state.capBytes = bytes;
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
    logTick(); // an error may be the last thing the process says
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
