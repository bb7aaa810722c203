// The control link with RealTraffic: this program is the TCP server, RealTraffic connects, and
// once a second it learns where the user is, so that it sends the traffic around that place.
#include <cmath>
#include <mutex>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "feed/feed.h"
#include "params/params.h"
#include "platform/platform.h"

namespace orv::feed {

namespace {

// The link with one RealTraffic. The worker sends and waits; the window thread may say farewell:
// linkMutex keeps them apart and guards all but the two flags, which any thread reads.
struct Link {
    platform::TcpListener listener;
    platform::TcpStream client;
    bool waitAnnounced = false;
    std::string statusText;
    std::function<void()> onLinkLost; // installed by the run sequence
};
std::mutex linkMutex;
Link link;
std::atomic<bool> clientConnected{false};
std::atomic<bool> rtProfessional{false};

// Everything the feed learned from the last RealTraffic, forgotten for the next one.
void resetFeed() {
    gQnhReader.reset();
    gTrafficReader.clearForRun();
    gTrafficReader.stop = false;
}

// Under linkMutex.
bool waitForClient() {
    if (clientConnected) return true;
    auto accepted = link.listener.accept(0);
    if (!accepted) return false;
    accepted->setNoDelay();
    gTrafficSource = accepted->peerIpv4();
    link.client = std::move(*accepted);
    clientConnected = true;
    return true;
}

// Under linkMutex. False when RealTraffic has gone.
bool sendDataPacket(std::string_view text) {
    if (!link.client.isOpen()) return false;
    if (auto err = link.client.sendAll(text); !err.empty()) {
        core::log(fmt::format("sendDataPacket to RealTraffic failed: {}", err));
        clientConnected = false;
        link.client.close();
        core::log("RealTraffic client socket closed");
        return false;
    }
    return true;
}

// Under linkMutex. One receive of at most 16,384 bytes; empty on nothing or an error.
std::string receive() {
    constexpr std::size_t kMax = 16384;
    std::string buffer(kMax, '\0');
    const auto r = link.client.receive(buffer.data(), kMax, 3000);
    if (r.status == platform::RecvStatus::Failed && r.error != 0) {
        core::log(fmt::format("receive: {}", platform::errorText(r.error)));
        return {};
    }
    if (r.status != platform::RecvStatus::Data) return {};
    if (r.size >= kMax) {
        core::log(fmt::format("receive: buffer overrun: {}", r.size));
        return {};
    }
    buffer.resize(r.size);
    return buffer;
}

} // namespace

void startRealTrafficServer(const std::string& address, std::uint16_t port) {
    std::lock_guard lock(linkMutex);
    link.listener.close();
    if (auto err = link.listener.listen(address, port); !err.empty())
        throw std::runtime_error(fmt::format("Bind failed at port {} with error {}", port, err));
}

std::uint16_t realTrafficPort() {
    std::lock_guard lock(linkMutex);
    return link.listener.localPort();
}

void processRTVersion(std::string_view text) {
    rtProfessional = false;
    const auto unknownEdition = [] {
        std::lock_guard lock(linkMutex);
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
            std::lock_guard lock(linkMutex);
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
    std::string answer;
    {
        std::lock_guard lock(linkMutex);
        if (!link.waitAnnounced) {
            link.waitAnnounced = true;
            core::message(fmt::format("Waiting for RealTraffic to connect to {} ...", core::kAppName), true);
            resetFeed();
        }
        if (!waitForClient()) return false;
        if (!sendDataPacket("Qs999=version\r\n")) return false;
        answer = receive();
    }
    processRTVersion(answer);
    core::setIndicator(core::Indicator::RealTraffic, 1);
    core::log("RealTraffic connected");
    return true;
}

bool realTrafficConnected() {
    return clientConnected;
}

bool realTrafficProfessional() {
    return rtProfessional;
}

std::string realTrafficStatus() {
    std::lock_guard lock(linkMutex);
    return link.statusText;
}

std::string qs121(const UserReport& u) {
    return fmt::format("Qs121={:.0f};{:.0f};{:.6f};{:.0f};{};{:.6f};{:.6f}\r\n", u.pitch * 100000.0,
                       u.bank * 100000.0, u.heading, u.altitude * 1000.0, u.groundVelocity * 1000.0,
                       u.latitude * core::kRadPerDeg, u.longitude * core::kRadPerDeg);
}

void sendUserPosition(const UserReport& u) {
    if (!core::gRun.realTrafficInstalled) return;
    if (std::fabs(u.latitude) <= 0.0001 && std::fabs(u.longitude) <= 0.0001) return;
    std::lock_guard lock(linkMutex);
    if (!clientConnected && !core::gRun.stopRequested && waitForClient()) {
        core::setIndicator(core::Indicator::RealTraffic, 1);
        core::log(fmt::format("{} RealTraffic re-connected", core::timeText()));
        core::clearMessage();
    }
    if (!clientConnected || sendDataPacket(qs121(u))) return;
    // The link is gone: what RealTraffic sent belongs to it, and the next one starts afresh.
    core::setIndicator(core::Indicator::RealTraffic, 0);
    if (!core::gRun.stopRequested && link.onLinkLost) link.onLinkLost();
    resetFeed();
    core::message(
        fmt::format("{} RealTraffic gone? Wait for RealTraffic to re-connect ...", core::timeText()), true);
}

void setOnLinkLost(std::function<void()> action) {
    std::lock_guard lock(linkMutex);
    link.onLinkLost = std::move(action);
}

void sendTimeToRealTraffic(std::int64_t epoch) {
    if (!rtProfessional) return;
    if (epoch < 1) return;
    std::lock_guard lock(linkMutex);
    if (clientConnected) sendDataPacket(fmt::format("Qs123={}\r\n", epoch * 1000));
}

void realTrafficFarewell() {
    std::lock_guard lock(linkMutex);
    if (clientConnected) (void)link.client.sendAll("exit\r\n");
    clientConnected = false;
    link.client.close();
    link.listener.close();
    link.waitAnnounced = false;
}

void qnhUpdate() {}

} // namespace orv::feed
