// The control link with RealTraffic: this program is the TCP server, RealTraffic connects, and
// once a second it learns where the user is, so that it sends the traffic around that place.
#include <cmath>
#include <mutex>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/app.h"
#include "feed/feed.h"
#include "live/live.h"
#include "params/params.h"
#include "platform/platform.h"
#include "sim/sim.h"
#include "ui/ui.h"

namespace orv {

namespace {

constexpr double kDegToRad = 3.14159265358979323846 / 180.0;

// The worker sends; the window thread may say farewell: one lock keeps them apart.
std::mutex linkMutex;
platform::TcpListener listener;
platform::TcpStream client;
std::atomic<bool> clientConnected{false};
std::atomic<bool> rtProfessional{false};
bool waitAnnounced = false;
std::string statusText;

// Everything the feed learned from the last RealTraffic, forgotten for the next one.
void resetFeed() {
    gQnhReader.reset();
    gTrafficReader.clearForRun();
    gTrafficReader.stop = false;
}

// Under linkMutex.
bool waitForClient() {
    if (clientConnected) return true;
    auto accepted = listener.accept(0);
    if (!accepted) return false;
    accepted->setNoDelay();
    client = std::move(*accepted);
    clientConnected = true;
    return true;
}

// Under linkMutex. False when RealTraffic has gone.
bool sendDataPacket(std::string_view text) {
    if (!client.isOpen()) return false;
    if (auto err = client.sendAll(text); !err.empty()) {
        gf_log(fmt::format("sendDataPacket to RealTraffic failed: {}", err));
        clientConnected = false;
        client.close();
        gf_log("RealTraffic client socket closed");
        return false;
    }
    return true;
}

// Under linkMutex. One receive of at most 16,384 bytes; empty on nothing or an error.
std::string receive() {
    constexpr std::size_t kMax = 16384;
    std::string buffer(kMax, '\0');
    const auto r = client.receive(buffer.data(), kMax, 3000);
    if (r.status == platform::RecvStatus::Failed && r.error != 0) {
        gf_log(fmt::format("receive: {}", platform::errorText(r.error)));
        return {};
    }
    if (r.status != platform::RecvStatus::Data) return {};
    if (r.size >= kMax) {
        gf_log(fmt::format("receive: buffer overrun: {}", r.size));
        return {};
    }
    buffer.resize(r.size);
    return buffer;
}

} // namespace

void gf_startRealTrafficServer(const std::string& address, std::uint16_t port) {
    std::lock_guard lock(linkMutex);
    listener.close();
    if (auto err = listener.listen(address, port); !err.empty())
        throw std::runtime_error(fmt::format("Bind failed at port {} with error {}", port, err));
}

std::uint16_t gf_realTrafficPort() {
    std::lock_guard lock(linkMutex);
    return listener.localPort();
}

void lf_processRTVersion(std::string_view text) {
    rtProfessional = false;
    if (text.empty()) {
        gf_message("No RealTraffic version received?", true);
        return;
    }
    try {
        const auto j = nlohmann::json::parse(text);
        const bool prof = j.at("level").get<int>() == 2;
        const std::string version = j.at("version").get<std::string>();
        rtProfessional = prof;
        {
            std::lock_guard lock(linkMutex);
            statusText = fmt::format("RT {} edition: {}", prof ? "prof" : "stnd", version);
        }
        ui::repaint(ui::Region::Indicators);
    } catch (const nlohmann::json::parse_error& e) {
        std::lock_guard lock(linkMutex);
        statusText.clear();
        gf_log(fmt::format("{}: JSON parse failed: {}", "lf_processRTVersion", e.what()));
    } catch (const std::exception&) {
        rtProfessional = false; // a value of the wrong shape: the standard edition
    }
    sim::setEpochWanted(rtProfessional);
}

bool lf_waitForRealTraffic() {
    std::string answer;
    {
        std::lock_guard lock(linkMutex);
        if (!waitAnnounced) {
            waitAnnounced = true;
            gf_message(fmt::format("Waiting for RealTraffic to connect to {} ...", kAppName), true);
            resetFeed();
        }
        if (!waitForClient()) return false;
        if (!sendDataPacket("Qs999=version\r\n")) return false;
        answer = receive();
    }
    lf_processRTVersion(answer);
    ui::setIndicator(ui::Indicator::RealTraffic, 1);
    gf_log("RealTraffic connected");
    return true;
}

bool gf_realTrafficConnected() {
    return clientConnected;
}

bool gf_realTrafficProfessional() {
    return rtProfessional;
}

std::string gf_realTrafficStatus() {
    std::lock_guard lock(linkMutex);
    return statusText;
}

std::string gf_qs121(const sim::UserData& u) {
    return fmt::format("Qs121={:.0f};{:.0f};{:.6f};{:.0f};{};{:.6f};{:.6f}\r\n", u.pitch * 100000.0,
                       u.bank * 100000.0, u.heading, u.altitude * 1000.0, u.groundVelocity * 1000.0,
                       u.latitude * kDegToRad, u.longitude * kDegToRad);
}

void lf_sendUserPosition(const sim::UserData& u) {
    if (!gRun.realTrafficInstalled) return;
    if (std::fabs(u.latitude) <= 0.0001 && std::fabs(u.longitude) <= 0.0001) return;
    std::lock_guard lock(linkMutex);
    if (!clientConnected && !gRun.stopRequested && waitForClient()) {
        ui::setIndicator(ui::Indicator::RealTraffic, 1);
        gf_log(fmt::format("{} RealTraffic re-connected", gf_timeText()));
        gf_clearMessage();
    }
    if (!clientConnected || sendDataPacket(gf_qs121(u))) return;
    // The link is gone: what RealTraffic sent belongs to it, and the next one starts afresh.
    ui::setIndicator(ui::Indicator::RealTraffic, 0);
    if (!gRun.stopRequested) live::removeAllLive();
    resetFeed();
    gf_message(fmt::format("{} RealTraffic gone? Wait for RealTraffic to re-connect ...", gf_timeText()),
               true);
}

void gf_sendUserPositionToRealTraffic() {
    lf_sendUserPosition(sim::lastUserData());
}

void gf_sendTimeToRealTraffic() {
    if (!rtProfessional) return;
    const std::int64_t epoch = sim::epochTime();
    if (epoch < 1) return;
    std::lock_guard lock(linkMutex);
    if (clientConnected) sendDataPacket(fmt::format("Qs123={}\r\n", epoch * 1000));
}

void gf_realTrafficFarewell() {
    std::lock_guard lock(linkMutex);
    if (clientConnected) (void)client.sendAll("exit\r\n");
    clientConnected = false;
    client.close();
    listener.close();
    waitAnnounced = false;
}

void gf_copyUserPositionForReaders() {
    const auto user = sim::userPosition();
    if (!user) return;
    TrafficArea a;
    a.reference = {user->latitude, user->longitude};
    // Until park airports exist, the current airport is the one the user stands at, if any;
    // it is looked for again only when the user has moved.
    static std::optional<LatLon> searchedAt;
    static std::optional<AirportRecord> current;
    if (!searchedAt || gf_distanceNm(*searchedAt, a.reference) > 0.5) {
        searchedAt = a.reference;
        current = gf_closestAirport(user->latitude, user->longitude);
    }
    if (current) {
        a.airport = LatLon{current->latitude, current->longitude};
        a.referenceElevation = current->elevation;
    }
    gTrafficReader.setArea(a);
    if (current)
        live::setCurrentAirport(
            live::AirportPlace{current->latitude, current->longitude, current->elevation});
    else
        live::setCurrentAirport(std::nullopt);
}

void gf_qnhUpdate() {}

} // namespace orv
