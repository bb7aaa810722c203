// The control link with RealTraffic: this program is the TCP server, RealTraffic connects, and
// once a second it learns where the user is, so that it sends the traffic around that place.
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "feed/feed.h"
#include "params/params.h"
#include "platform/platform.h"

namespace orv::feed {

namespace {

constexpr int kSendTimeoutMs = 1000; // a RealTraffic that takes no line in a second is gone
constexpr int kVersionWaitMs = 3000; // a connection that does not answer by then is no RealTraffic
constexpr int kSliceMs = 100;        // the link thread looks at its stop flag this often

// A line waiting for the link thread; a newer one of its kind replaces it.
struct Outgoing {
    std::string text;
    bool waiting = false;
};

// The link with one RealTraffic. All socket work is done by the link thread, so that neither the
// engine's thread nor the window's ever waits on a peer; they post lines and read flags.
struct Link {
    platform::TcpListener listener; // the link thread's while it runs
    platform::TcpStream client;     // the link thread's
    std::thread thread;
    std::mutex mailMutex; // guards the three below; held only to copy a line
    std::condition_variable mailSignal;
    Outgoing position, time;
    bool stop = false;
    std::mutex statusMutex; // guards statusText
    std::string statusText;
    std::function<void()> onLinkLost; // installed by the run sequence, run by the thread that sends
    bool waitAnnounced = false;
    bool connectReported = false;
};
std::mutex lifeMutex; // starting and stopping the link thread; never held by the link thread
Link link;
std::atomic<bool> clientConnected{false};
std::atomic<bool> rtProfessional{false};
std::atomic<std::uint16_t> listeningPort{0};
// What the link thread saw, for the thread that sends positions to act on.
std::atomic<bool> lostPending{false}, reconnectedPending{false};
std::atomic<bool> everConnected{false};

// Everything the feed learned from the last RealTraffic, forgotten for the next one.
void resetFeed() {
    gQnhReader.reset();
    gTrafficReader.clearForRun();
    gTrafficReader.stop = false;
}

bool stopAsked() {
    std::lock_guard lock(link.mailMutex);
    return link.stop;
}

// The link thread's. One receive of at most 16,384 bytes within `ms`, waking for a stop;
// empty on nothing, a closed peer or an error.
std::string receiveAnswer(int ms) {
    constexpr std::size_t kMax = 16384;
    std::string buffer(kMax, '\0');
    for (int waited = 0; waited < ms && !stopAsked(); waited += kSliceMs) {
        const auto r = link.client.receive(buffer.data(), kMax, kSliceMs);
        if (r.status == platform::RecvStatus::Transient) continue;
        if (r.status == platform::RecvStatus::Failed) {
            if (r.error != 0) core::log(fmt::format("receive: {}", platform::errorText(r.error)));
            return {};
        }
        if (r.size >= kMax) {
            core::log(fmt::format("receive: buffer overrun: {}", r.size));
            return {};
        }
        buffer.resize(r.size);
        return buffer;
    }
    return {};
}

// The link thread's: the connection is gone, said to the thread that sends positions.
void dropClient(std::string_view why) {
    core::log(why);
    link.client.close();
    core::log("RealTraffic client socket closed");
    clientConnected = false;
    lostPending = true;
}

// The link thread's: a new connection must answer the version query to count as RealTraffic;
// one left over from a RealTraffic that went, or anything else, does not.
void takeConnection(platform::TcpStream stream) {
    stream.setNoDelay();
    link.client = std::move(stream);
    std::string answer;
    if (link.client.sendAll("Qs999=version\r\n", kSendTimeoutMs).empty())
        answer = receiveAnswer(kVersionWaitMs);
    processRTVersion(answer);
    if (answer.empty()) {
        link.client.close();
        core::log("A connection that did not answer the version query was closed: not RealTraffic");
        return;
    }
    gTrafficSource = link.client.peerIpv4();
    clientConnected = true;
    if (everConnected.exchange(true)) reconnectedPending = true;
}

// The link thread's: sends what waits, the position first; false when the link went.
bool sendWaiting() {
    Outgoing lines[2];
    {
        std::lock_guard lock(link.mailMutex);
        lines[0] = std::exchange(link.position, {});
        lines[1] = std::exchange(link.time, {});
    }
    for (const auto& o : lines) {
        if (!o.waiting) continue;
        if (auto err = link.client.sendAll(o.text, kSendTimeoutMs); !err.empty()) {
            dropClient(fmt::format("sendDataPacket to RealTraffic failed: {}", err));
            return false;
        }
    }
    return true;
}

// The link thread's: RealTraffic sends nothing on this link, so something readable is its close.
void noticeClose() {
    char scrap[256];
    const auto r = link.client.receive(scrap, sizeof scrap, 0);
    if (r.status == platform::RecvStatus::Failed)
        dropClient(fmt::format("RealTraffic closed the link{}",
                               r.error ? ": " + platform::errorText(r.error) : std::string()));
}

void linkThread() {
    for (;;) {
        {
            std::unique_lock lock(link.mailMutex);
            link.mailSignal.wait_for(lock, std::chrono::milliseconds(kSliceMs),
                                     [] { return link.stop || link.position.waiting || link.time.waiting; });
            if (link.stop) break;
        }
        if (!clientConnected) {
            if (core::gRun.stopRequested) continue;
            if (auto accepted = link.listener.accept(0)) takeConnection(std::move(*accepted));
            continue;
        }
        if (sendWaiting()) noticeClose();
    }
    if (clientConnected) (void)link.client.sendAll("exit\r\n", kSendTimeoutMs);
    clientConnected = false;
    link.client.close();
}

// Under lifeMutex.
void stopLinkThread() {
    if (!link.thread.joinable()) return;
    {
        std::lock_guard lock(link.mailMutex);
        link.stop = true;
    }
    link.mailSignal.notify_all();
    link.thread.join();
    std::lock_guard lock(link.mailMutex);
    link.stop = false;
    link.position.waiting = link.time.waiting = false;
}

void post(Outgoing& slot, std::string_view text) {
    // The engine's thread posts: a link thread busy with the mailbox costs this line, not a wait.
    std::unique_lock lock(link.mailMutex, std::try_to_lock);
    if (!lock.owns_lock()) return;
    slot.text.assign(text);
    slot.waiting = true;
    lock.unlock();
    link.mailSignal.notify_one();
}

} // namespace

void startRealTrafficServer(const std::string& address, std::uint16_t port) {
    std::lock_guard lock(lifeMutex);
    stopLinkThread();
    link.listener.close();
    listeningPort = 0;
    if (auto err = link.listener.listen(address, port); !err.empty())
        throw std::runtime_error(fmt::format("Bind failed at port {} with error {}", port, err));
    listeningPort = link.listener.localPort();
}

std::uint16_t realTrafficPort() {
    return listeningPort;
}

void processRTVersion(std::string_view text) {
    rtProfessional = false;
    const auto unknownEdition = [] {
        std::lock_guard lock(link.statusMutex);
        link.statusText.clear(); // the edition of an earlier RealTraffic says nothing of this one
    };
    if (text.empty()) {
        unknownEdition();
        core::message("No RealTraffic version received?", true);
        return;
    }
    try {
        const auto j = nlohmann::json::parse(text);
        const bool prof = j.at("level").get<int>() == 2;
        const std::string version = j.at("version").get<std::string>();
        rtProfessional = prof;
        {
            std::lock_guard lock(link.statusMutex);
            link.statusText = fmt::format("RT {} edition: {}", prof ? "prof" : "stnd", version);
        }
        core::repaint(core::Region::Indicators);
    } catch (const nlohmann::json::parse_error& e) {
        unknownEdition();
        core::log(fmt::format("{}: JSON parse failed: {}", "processRTVersion", e.what()));
    } catch (const std::exception&) {
        rtProfessional = false; // a value of the wrong shape: the standard edition
        unknownEdition();
    }
}

bool waitForRealTraffic() {
    std::lock_guard lock(lifeMutex);
    if (!link.waitAnnounced) {
        link.waitAnnounced = true;
        link.connectReported = false;
        everConnected = false;
        lostPending = reconnectedPending = false;
        core::message(fmt::format("Waiting for RealTraffic to connect to {} ...", core::kAppName), true);
        resetFeed();
    }
    if (!link.thread.joinable()) link.thread = std::thread(linkThread);
    if (!clientConnected) return false;
    if (!link.connectReported) {
        link.connectReported = true;
        core::setIndicator(core::Indicator::RealTraffic, 1);
        core::log("RealTraffic connected");
    }
    return true;
}

bool realTrafficConnected() {
    return clientConnected;
}

bool realTrafficProfessional() {
    return rtProfessional;
}

std::string realTrafficStatus() {
    std::lock_guard lock(link.statusMutex);
    return link.statusText;
}

std::string qs121(const UserReport& u) {
    return fmt::format("Qs121={:.0f};{:.0f};{:.6f};{:.0f};{};{:.6f};{:.6f}\r\n", u.pitch * 100000.0,
                       u.bank * 100000.0, u.heading, u.altitude * 1000.0, u.groundVelocity * 1000.0,
                       u.latitude * core::kRadPerDeg, u.longitude * core::kRadPerDeg);
}

void sendUserPosition(const UserReport& u) {
    if (!core::gRun.realTrafficInstalled) return;
    if (reconnectedPending.exchange(false)) {
        core::setIndicator(core::Indicator::RealTraffic, 1);
        core::log(fmt::format("{} RealTraffic re-connected", core::timeText()));
        core::clearMessage();
    }
    if (lostPending.exchange(false)) {
        // The link is gone: what RealTraffic sent belongs to it, and the next one starts afresh.
        core::setIndicator(core::Indicator::RealTraffic, 0);
        if (!core::gRun.stopRequested && link.onLinkLost) link.onLinkLost();
        resetFeed();
        core::message(
            fmt::format("{} RealTraffic gone? Wait for RealTraffic to re-connect ...", core::timeText()),
            true);
    }
    if (std::fabs(u.latitude) <= 0.0001 && std::fabs(u.longitude) <= 0.0001) return;
    if (!clientConnected) return;
    post(link.position, qs121(u));
}

void setOnLinkLost(std::function<void()> action) {
    std::lock_guard lock(lifeMutex);
    link.onLinkLost = std::move(action);
}

void sendTimeToRealTraffic(std::int64_t epoch) {
    if (!rtProfessional) return;
    if (epoch < 1) return;
    if (clientConnected) post(link.time, fmt::format("Qs123={}\r\n", epoch * 1000));
}

void realTrafficFarewell() {
    std::lock_guard lock(lifeMutex);
    stopLinkThread(); // says "exit" to RealTraffic, within a second
    clientConnected = false;
    link.client.close();
    link.listener.close();
    listeningPort = 0;
    link.waitAnnounced = false;
}

void qnhUpdate() {}

} // namespace orv::feed
