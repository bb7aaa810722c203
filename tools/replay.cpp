// orvelline-replay: stands in for RealTraffic. It connects to the program's control port,
// answers the version query, shows the user positions it is told, and sends a recording's
// traffic lines as UDP datagrams at their recorded pace, their times moved to now, with weather.
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <ctime>
#include <iostream>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "core/core.h"
#include "platform/platform.h"

namespace {

using namespace orv;
using namespace std::chrono_literals;

std::atomic<bool> stopSignal{false};
void onSignal(int) {
    stopSignal = true;
}

struct ReplayOptions {
    std::string file, host = "127.0.0.1", edition = "prof", version = "9.0.0";
    int controlPort = 10747, port = 49005, weatherPort = 49004, qnh = 1013;
    double speed = 1.0, maxGap = 0;
    std::size_t skip = 0;
    bool loop = false;
};

// The field after the 14th comma is the time of the point, in seconds since 1970.
std::optional<std::pair<std::size_t, std::size_t>> timeField(const std::string& l) {
    std::size_t p = 0;
    for (int k = 0; k < 14; ++k)
        if ((p = l.find(',', p)) == std::string::npos)
            return std::nullopt;
        else
            ++p;
    const auto end = l.find(',', p);
    if (end == std::string::npos) return std::nullopt;
    return std::pair{p, end};
}

// The control link: connect, answer, print positions; again after the program went away.
void controlLink(const ReplayOptions& o) {
    while (!stopSignal) {
        platform::TcpStream link;
        if (!link.connect(o.host, static_cast<std::uint16_t>(o.controlPort)).empty()) {
            std::this_thread::sleep_for(1s);
            continue;
        }
        std::cout << fmt::format("replay: connected to {}:{}\n", o.host, o.controlPort) << std::flush;
        std::string pending;
        char buf[4096];
        while (!stopSignal) {
            const auto r = link.receive(buf, sizeof buf, 200);
            if (r.status == platform::RecvStatus::Failed) break;
            if (r.status != platform::RecvStatus::Data) continue;
            pending.append(buf, r.size);
            for (auto nl = pending.find("\r\n"); nl != std::string::npos; nl = pending.find("\r\n")) {
                const std::string line = pending.substr(0, nl);
                pending.erase(0, nl + 2);
                if (line == "Qs999=version") {
                    if (auto err = link.sendAll(fmt::format(R"({{"level":{},"version":"{}"}})",
                                                            o.edition == "prof" ? 2 : 1, o.version));
                        !err.empty())
                        std::cerr << "orvelline-replay: the version answer was not sent: " << err << "\n";
                } else if (line.starts_with("Qs121=")) {
                    double v[7] = {};
                    if (std::sscanf(line.c_str() + 6, "%lf;%lf;%lf;%lf;%lf;%lf;%lf", &v[0], &v[1], &v[2],
                                    &v[3], &v[4], &v[5], &v[6]) == 7)
                        std::cout << fmt::format("replay: user at {:.5f},{:.5f}, {:.0f} ft, heading {:.0f}\n",
                                                 v[5] * 180 / M_PI, v[6] * 180 / M_PI, v[3] / 1000,
                                                 v[2] * 180 / M_PI)
                                  << std::flush;
                } else if (line.starts_with("Qs123=")) {
                    std::cout << fmt::format("replay: simulator time {}\n", line.substr(6)) << std::flush;
                } else if (line == "exit") {
                    std::cout << "replay: Orvelline said goodbye\n" << std::flush;
                }
            }
        }
        std::cout << "replay: control link closed, waiting for Orvelline\n" << std::flush;
    }
}

int run(const ReplayOptions& o) {
    std::vector<std::string> lines;
    if (!std::holds_alternative<std::size_t>(core::readAllLines(o.file, lines, 4096)))
        throw std::runtime_error("cannot read " + o.file);
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    std::thread link;
    if (o.controlPort > 0) link = std::thread([&] { controlLink(o); });
    auto nextWeather = std::chrono::steady_clock::now();
    double last = -1.0;
    std::size_t sent = 0;
    for (std::size_t n = o.skip; !stopSignal; ++n) {
        if (n >= lines.size()) {
            if (!o.loop || o.skip >= lines.size()) break;
            n = o.skip; // round again: each line's time is made now anyway
            last = -1.0;
        }
        std::string l = lines[n];
        const auto field = timeField(l);
        double t = last;
        if (field) t = std::atof(l.c_str() + field->first);
        if (last >= 0.0 && t > last) {
            const double gap = o.maxGap > 0 ? std::min(t - last, o.maxGap) : t - last;
            const auto until =
                std::chrono::steady_clock::now() + std::chrono::duration<double>(gap / o.speed);
            while (!stopSignal && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(20ms);
        }
        last = t;
        if (std::chrono::steady_clock::now() >= nextWeather) {
            platform::UdpSocket::sendTo(o.host, static_cast<std::uint16_t>(o.weatherPort),
                                        fmt::format(R"({{"QNH":{}}})", o.qnh));
            nextWeather += 5s;
        }
        if (field) {
            const double now =
                std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
            l.replace(field->first, field->second - field->first, fmt::format("{:.2f}", now));
        }
        if (auto err = platform::UdpSocket::sendTo(o.host, static_cast<std::uint16_t>(o.port), l);
            !err.empty())
            throw std::runtime_error("send failed: " + err);
        ++sent;
    }
    std::cout << fmt::format("replay: sent {} lines of {} to {}:{}\n", sent, o.file, o.host, o.port);
    stopSignal = true;
    if (link.joinable()) link.join();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    ReplayOptions o;
    CLI::App app{
        "Stands in for RealTraffic: connects to Orvelline's control port, answers its version query, "
        "prints the user positions it receives, and sends the recording's traffic lines as UDP "
        "datagrams at their recorded pace, each line's time moved to the moment it is sent, plus a "
        "weather datagram with a QNH every 5 seconds.",
        "orvelline-replay"};
    app.footer(
        "A recording holds one traffic line per point in RealTraffic's format (orvelline-data convert makes "
        "them). The program's \"exit\" ends the link; the replay then waits for it to come back.");
    const auto port = CLI::Range(0, 65535);
    app.add_option("RECORDING", o.file, "the traffic recording to play")->required();
    app.add_option("--host", o.host, "where Orvelline runs (127.0.0.1)");
    app.add_option("--control-port", o.controlPort, "Orvelline's control port (10747); 0: no control link")
        ->check(port);
    app.add_option("--edition", o.edition, "the edition the version answer gives (prof)")
        ->check(CLI::IsMember({"prof", "stnd"}));
    app.add_option("--version", o.version, "the version the answer gives (9.0.0)");
    app.add_option("--port", o.port, "UDP port of the traffic lines (49005)")->check(port);
    app.add_option("--weather-port", o.weatherPort, "UDP port of the weather datagrams (49004)")->check(port);
    app.add_option("--qnh", o.qnh, "the QNH of the weather datagrams in hPa (1013)");
    app.add_option("--speed", o.speed, "play X times faster than recorded (1)")
        ->check(CLI::Validator(
            [](const std::string& v) { return std::stod(v) > 0 ? std::string() : "must be above 0"; },
            "X>0"));
    app.add_option("--max-gap", o.maxGap,
                   "cut longer gaps between lines to this many seconds, before the "
                   "speed-up (none)");
    app.add_option("--skip", o.skip, "start at line N of the recording (0)");
    app.add_flag("--loop", o.loop, "play the recording again from line N when it ends, until stopped");
    CLI11_PARSE(app, argc, argv);
    try {
        return run(o);
    } catch (const std::exception& e) {
        std::cerr << "orvelline-replay: " << e.what() << "\n";
        return 2;
    }
}
