// Traffic feed: the UDP receive loop shared by the readers, the traffic line decoder and its
// queue to the engine.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/geo.h"
#include "platform/platform.h"
#include "refdata/refdata.h"

namespace orv::feed {

using core::LatLon;
using refdata::IataCode;

// The engine flies each point 30 s after it came: the tick the decoder gives it is this far ahead.
inline constexpr std::int32_t kDelayTicks = 3000;

// Near the ground a hectopascal of pressure is this many feet of height.
inline constexpr double kFeetPerHpa = 27.3;
// Traffic reports pressure altitude; the simulator places objects at true altitude. With the
// weather's QNH (whole hectopascals, 1013 standing for standard and for no weather yet) the one
// becomes the other.
inline double trueAltitudeFt(double pressureAltitudeFt, std::int32_t qnhHpa) {
    return pressureAltitudeFt + (qnhHpa - 1013) * kFeetPerHpa;
}

// One decoded traffic line. The part from `latitude` on is the engine's position record.
struct TrafficSample {
    std::uint16_t airlineCode = 0; // filled by the engine
    std::uint16_t modelCode = 0;
    refdata::IataCode origin;
    refdata::IataCode destination;
    std::string callsign;
    std::string flightA; // filled by the engine
    std::string flightB; // filled by the engine
    std::string registration;
    double latitude = 0.0;
    double longitude = 0.0;
    double altitude = 0.0; // 0.0 marks an aircraft on the ground
    double groundSpeed = 0.0;
    double track = 0.0;
    double verticalSpeed = 0.0;
    double trueAirspeed = 0.0;
    std::int32_t tick = 0;
    bool airborne = false;
    bool stationary = false; // set by the engine
    bool hasTrueHeading = false;
    std::optional<double> roll;    // radians, the sent bank with its sign changed
    std::optional<double> heading; // radians
    double timestamp = 0.0;
    std::uint32_t hexid = 0;
};

// The decoded lines on their way to the engine: a ring of fixed room, so a flood neither grows
// the memory nor leaves the engine working through minutes of lines that are stale by then.
class SampleRing {
  public:
    static constexpr std::size_t kCapacity = 8192;
    // With more lines than this waiting, a new report replaces the waiting one of its aircraft:
    // the engine wants where an aircraft is now, not every point it passed while it was behind.
    static constexpr std::size_t kBacklogLines = 256;

    enum class Push { Queued, Replaced, Evicted }; // Evicted: the oldest line went to make room
    SampleRing();
    Push push(TrafficSample&& s);
    std::size_t size() const { return static_cast<std::size_t>(tail_ - head_); }
    bool empty() const { return tail_ == head_; }
    TrafficSample& front() { return ring_[head_ % kCapacity]; }
    void pop_front() { ++head_; }
    void clear();

  private:
    static constexpr std::size_t kIndexSize = 16384; // power of two; a collision only merges less
    struct Latest {
        std::uint32_t hexid = 0;
        std::uint64_t seq = 0;
    };
    std::vector<TrafficSample> ring_;
    std::vector<Latest> latest_; // by hexid: where its last line went
    std::uint64_t head_ = 0, tail_ = 0;
};

// The queue to the engine, and whether the engine takes any now.
struct TrafficQueue {
    std::mutex trafficLock;
    SampleRing trafficQueue;
    bool acceptTraffic = false;
};
extern TrafficQueue gTraffic;
void setAcceptTraffic(bool accept);
// The queue, the readers' counts and flags as a new run wants them.
void resetForRun();
// Moves up to `max` samples into out (which keeps its capacity); returns how many. Never waits.
std::size_t takeTraffic(TrafficSample* out, std::size_t max);

// The receive loop that the Traffic Reader and the QNH Reader share: one datagram is one line.
class UdpReader {
  public:
    static constexpr std::size_t kBufferSize = 16384;

    virtual ~UdpReader() = default;
    virtual void processLine() = 0;
    virtual void onStopped() {}
    virtual void onBound() {}
    virtual void onOverrun() {}                    // a datagram larger than the buffer was dropped
    virtual void onRefusedSender(std::uint32_t) {} // a datagram from another host than RealTraffic's
    virtual std::string_view threadName() const = 0;

    // Opens and binds the socket, then receives until `stop`. Throws on a socket failure.
    void run(std::uint16_t port, bool localOnly);
    // The loop alone, on a socket already bound.
    void receiveLoop(bool localOnly);

    const char* line = nullptr;
    std::uint64_t lineLength = 0;
    std::atomic<bool> stop{false};
    std::atomic<std::uint32_t> lineCount{0};
    std::atomic<std::uint64_t> overrunsSeen{0}; // said at the 1st, 10th, 100th ...
    char buffer[kBufferSize + 1] = {};
    std::string previous;
    platform::UdpSocket socket;
    std::atomic<std::uint16_t> boundPort{0}; // the port actually bound, for tests on port 0
    std::atomic<bool> running{false};        // between the thread's start and its end

  protected:
    void closeAndNotify();
};

// Where the user is and what airport is current; the run sequence writes it before the reader
// starts and when the traffic area moves.
struct TrafficArea {
    core::LatLon reference;
    std::optional<double> referenceElevation; // feet, of the current airport
    std::optional<core::LatLon> airport;      // the current airport's position
};

class TrafficReader final : public UdpReader {
  public:
    TrafficReader();
    void processLine() override;
    void onStopped() override;
    void onBound() override;
    void onOverrun() override { counts.overruns.fetch_add(1, std::memory_order_relaxed); }
    void onRefusedSender(std::uint32_t from) override;
    std::string_view threadName() const override { return "Traffic Reader"; }
    void processLineSub();

    // Decodes one line as if it had arrived as a datagram (tests, benchmarks, fuzzing).
    void decode(std::string_view text);

    // Outcome counters: a line ends in exactly one of them.
    struct Counts {
        std::atomic<std::uint64_t> queued{0}, ignored{0}, dropped{0}, failed{0}, overruns{0}, refused{0};
        // Queued lines the engine never saw: a newer one of the aircraft took their place while
        // the engine was behind, or the full queue let its oldest go.
        std::atomic<std::uint64_t> superseded{0};
        void clear() { queued = ignored = dropped = failed = overruns = refused = superseded = 0; }
    };

    std::unordered_set<std::string> seenCallsigns;
    std::vector<std::string_view> fields;
    TrafficArea area; // the reader thread's own copy
    std::atomic<bool> collectCallsigns{false};
    std::atomic<std::int32_t> qnh{1013};
    std::atomic<double> lastTimestamp{0.0};
    Counts counts;

    void clearForRun(); // at every wait for a RealTraffic connection
    // Any thread may move the area; the reader picks it up before its next line.
    void setArea(const TrafficArea& a);

  private:
    void pickUpArea();
    std::mutex areaMutex_;
    TrafficArea pendingArea_;
    std::atomic<std::uint32_t> areaVersion_{0};
    std::uint32_t seenAreaVersion_ = 0;
    // The steps of a line, in order; false when a filter drops it, an exception when a field is broken.
    bool readPlace(TrafficSample& s);
    bool readIdentity(TrafficSample& s);
    void readMotion(TrafficSample& s);
    bool checkAltitude(TrafficSample& s);
    std::string decodeCopy_; // the text of decode() lives here while its fields are used
};

extern TrafficReader gTrafficReader;

// The weather reader: the pressure of each datagram as whole hectopascals.
class QnhReader final : public UdpReader {
  public:
    void processLine() override;
    void onStopped() override;
    void onBound() override;
    std::string_view threadName() const override { return "QNH Reader"; }
    void reset(); // back to 1013, at every wait for RealTraffic
    std::atomic<bool> received{false};
    std::atomic<std::int32_t> lastQnh{1013};
};
extern QnhReader gQnhReader;
// The QNH the altitude code and the status display read; 1013 until weather arrives.
extern std::atomic<std::int32_t> gQnh;

// Listening beyond loopback, the readers take datagrams only from the host of RealTraffic's
// control link (host byte order; 0 while none has connected: any sender).
extern std::atomic<std::uint32_t> gTrafficSource;

// The reader threads: names "Traffic Reader" and "QNH Reader". They are detached; a failure is
// shown to the user and stops the run with ReaderError.
void startTrafficReader(std::uint16_t port, bool localOnly);
void startQnhReader(std::uint16_t port, bool localOnly);
void stopReaders();
// Waits up to `timeout` for both reader threads to end; false if one is still running.
[[nodiscard]] bool waitReadersStopped(std::chrono::milliseconds timeout);

// The RealTraffic link: this program is the TCP server. Throws the bind failure's text.
void startRealTrafficServer(const std::string& address, std::uint16_t port);
std::uint16_t realTrafficPort();
// One try: accept, ask the version, read the answer. True once RealTraffic is connected.
[[nodiscard]] bool waitForRealTraffic();
void processRTVersion(std::string_view text);
bool realTrafficProfessional();
std::string realTrafficStatus(); // "RT prof edition: 9.0.1"
bool realTrafficConnected();
// RealTraffic's clock: the simulator's time as epoch seconds, sent to the professional edition.
void sendTimeToRealTraffic(std::int64_t epochSeconds);
void realTrafficFarewell(); // "exit", and both sockets closed
// What the link does when RealTraffic goes: the run sequence installs it (the live aircraft go).
void setOnLinkLost(std::function<void()> action);
void qnhUpdate();

// The user's aircraft as RealTraffic wants it: degrees, feet, knots, radians for the attitude.
struct UserReport {
    double latitude = 0, longitude = 0, pitch = 0, bank = 0, heading = 0, altitude = 0, groundVelocity = 0;
};
// The Qs121 line of a user position, and its sending (a lost link is taken up again here).
std::string qs121(const UserReport& user);
void sendUserPosition(const UserReport& user);

} // namespace orv::feed
