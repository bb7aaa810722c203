// OS layer: time, sockets, the single-instance lock, known folders, code pages, shell.
// Knows nothing of Orvelline, so it can be swapped or faked without touching the logic.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace orv::platform {

// ---- Clock ----------------------------------------------------------------------------------

using SteadyTime = std::chrono::steady_clock::time_point;
using UtcTime = std::chrono::system_clock::time_point;

// Steady time drives the 10 ms loop; UTC time is for log times, half hours and epochs.
class Clock {
  public:
    virtual ~Clock() = default;
    virtual SteadyTime steadyNow() = 0;
    virtual UtcTime utcNow() = 0;
    virtual void sleepUntil(SteadyTime target) = 0;
    void sleepFor(std::chrono::nanoseconds d) { sleepUntil(steadyNow() + d); }
};

class SystemClock final : public Clock {
  public:
    SteadyTime steadyNow() override { return std::chrono::steady_clock::now(); }
    UtcTime utcNow() override { return std::chrono::system_clock::now(); }
    void sleepUntil(SteadyTime target) override;
};

// Time that moves only when somebody sleeps: an hour of loop passes costs no wall time and
// the same input gives the same output. `onAdvance` runs after each move, on the sleeping thread.
class VirtualClock final : public Clock {
  public:
    explicit VirtualClock(UtcTime utcStart = UtcTime{std::chrono::seconds{1738700000}});
    SteadyTime steadyNow() override;
    UtcTime utcNow() override;
    void sleepUntil(SteadyTime target) override;
    void advance(std::chrono::nanoseconds d);
    std::function<void(SteadyTime)> onAdvance;

  private:
    std::atomic<std::int64_t> elapsedNs_{0};
    UtcTime utcStart_;
};

// The process-wide clock. Defaults to the system clock; tests install a virtual one.
Clock& clock();
void setClock(Clock* c); // nullptr restores the system clock

// The Windows timer-resolution calls; Linux sleeps are already fine-grained.
inline void timeBeginPeriod(unsigned) {}
inline void timeEndPeriod(unsigned) {}

// ---- Sockets --------------------------------------------------------------------------------

std::string errorText(int err);

enum class RecvStatus { Data, Transient, Failed };
struct RecvResult {
    RecvStatus status;
    std::size_t size;
    int error;
    std::uint32_t fromIpv4 = 0; // a datagram's sender, host byte order; 0 when not known
};

class UdpSocket {
  public:
    UdpSocket() = default;
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;
    ~UdpSocket() { close(); }

    // Each returns an empty string on success, else the system's error text.
    [[nodiscard]] std::string open();
    [[nodiscard]] std::string bind(std::uint16_t port, bool localOnly);
    [[nodiscard]] std::string setReceiveTimeout(int milliseconds);
    RecvResult receive(char* buffer, std::size_t capacity);
    std::uint16_t localPort() const;
    void shutdownBoth();
    void close();
    int handle() const { return fd_.load(); }

    // One datagram to host:port; for senders (tests, the replay tool).
    static std::string sendTo(std::string_view host, std::uint16_t port, std::string_view data);

  private:
    std::atomic<int> fd_{-1};
};

class TcpStream {
  public:
    TcpStream() = default;
    explicit TcpStream(int fd) : fd_(fd) {}
    TcpStream(TcpStream&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    TcpStream& operator=(TcpStream&& o) noexcept;
    TcpStream(const TcpStream&) = delete;
    TcpStream& operator=(const TcpStream&) = delete;
    ~TcpStream() { close(); }

    [[nodiscard]] std::string connect(std::string_view host, std::uint16_t port);
    // Sends everything, waiting at most timeoutMs in all for room (-1: as long as it takes); the
    // error text on a failure or on the time-out, when part of the data may have gone.
    [[nodiscard]] std::string sendAll(std::string_view data, int timeoutMs = -1);
    std::uint32_t peerIpv4() const; // the other end's IPv4 address, host byte order; 0 if none
    // Waits up to timeoutMs; Transient with size 0 on time-out, Failed with error 0 on a closed peer.
    RecvResult receive(char* buffer, std::size_t capacity, int timeoutMs);
    bool isOpen() const { return fd_ >= 0; }
    void setNoDelay();   // small packets go out at once (Nagle off)
    void shutdownBoth(); // wakes a receiver on another thread; the stream stays to be closed
    void close();

  private:
    int fd_ = -1;
};

class TcpListener {
  public:
    TcpListener() = default;
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;
    ~TcpListener() { close(); }

    [[nodiscard]] std::string listen(std::string_view address, std::uint16_t port);
    // Waits up to timeoutMs for a client; nullopt on time-out or error.
    std::optional<TcpStream> accept(int timeoutMs);
    std::uint16_t localPort() const;
    void close();

  private:
    int fd_ = -1;
};

// ---- Single instance ------------------------------------------------------------------------

// A lock file held with flock in the user's runtime folder: one instance per user.
class InstanceLock {
  public:
    InstanceLock() = default;
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    ~InstanceLock() { release(); }
    [[nodiscard]] bool acquire(std::string_view name); // false when another holder has it
    void release();

  private:
    int fd_ = -1;
};

// ---- Known folders --------------------------------------------------------------------------

std::filesystem::path homeFolder();
std::filesystem::path configFolder();    // $XDG_CONFIG_HOME, default ~/.config
std::filesystem::path localDataFolder(); // $XDG_DATA_HOME, default ~/.local/share
std::filesystem::path runtimeFolder();   // $XDG_RUNTIME_DIR, else the temp folder
std::filesystem::path executableFolder();

// ---- Code pages -----------------------------------------------------------------------------

// Windows-1252, the single-byte "ANSI" page of Western Windows systems. Strict conversion
// refuses its five unassigned bytes; lenient maps them to the C1 controls as Windows does.
std::optional<std::u16string> ansiToUtf16(std::string_view bytes, bool strict);

// ---- Shell ----------------------------------------------------------------------------------

// Opens a file or folder with the desktop's default application; false if none could start.
[[nodiscard]] bool openInShell(const std::filesystem::path& path);

} // namespace orv::platform
