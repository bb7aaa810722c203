// orvelline-simemu: an emulated MSFS that speaks SimConnect's network protocol.
#include <charconv>
#include <csignal>
#include <fstream>
#include <iostream>
#include <poll.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

#include "core/core.h"
#include "emulator.h"
#include "refdata/refdata.h"

namespace {

using namespace orv;

constexpr std::string_view kHelp = R"(Usage: orvelline-simemu [options]

An emulated Microsoft Flight Simulator for tests and demonstrations. It serves SimConnect's
network protocol on TCP, so Orvelline (orvelline --sim HOST:PORT) or any SimConnect network
client can connect to it.

  --bind ADDR            listen address (127.0.0.1)
  --port N               TCP port (50500; 0 picks a free one, printed at start)
  --sim 2020|2024        answer as MSFS 2020 "KittyHawk" (default) or MSFS 2024 "SunRise"
  --frame-rate HZ        "Frame" events per second (30)
  --max-objects N        AI objects at once before exception 11 (1000)
  --title TEXT           a container title that can be created (repeatable)
  --titles FILE          container titles, one per line
  --community DIR        the titles of every aircraft.cfg under DIR
  --added-first          send ObjectAdded before ASSIGNED_OBJECT_ID (default: after)
  --user-at LAT,LON[,HDG]        the user aircraft parked there
  --user-path LAT,LON,ALT;...    the user aircraft flying these waypoints
  --user-speed KTS       speed along the path (250)
  --user-title TEXT      the user aircraft's TITLE ("Airbus A320 Neo Asobo")
  --user-model TEXT      its ATC MODEL ("TT:ATCCOM.AC_MODEL_A20N.0.text")
  --user-lights MASK     its LIGHT STATES (0)
  --airport ID,LAT,LON,ELEV_FT   an airport whose elevation is the ground near it (repeatable;
                         default KMSP, LSZH and EHAM)
  --zulu SECONDS         UTC time at start, in seconds since 1970 (default: now)
  --paused               start with "Sim" not running
  --record FILE          write every object's positions and events as JSON lines at exit
  --quit-after SECONDS   send QUIT to the clients and exit after this long
  --help                 this text

Lines on standard input: "quit", "run", "pause", "flight PATH" (a FlightLoaded event),
"teleport LAT,LON". Ctrl-C quits as the simulator closing would.
)";

std::atomic<bool> stopSignal{false};
void onSignal(int) {
    stopSignal = true;
}

bool numbers(std::string_view text, std::vector<double>& out, char sep = ',') {
    out.clear();
    while (!text.empty()) {
        const auto cut = text.find(sep);
        const auto part = orv::core::trim(text.substr(0, cut));
        double v;
        if (std::from_chars(part.data(), part.data() + part.size(), v).ec != std::errc{}) return false;
        out.push_back(v);
        if (cut == std::string_view::npos) break;
        text.remove_prefix(cut + 1);
    }
    return true;
}

int run(const std::vector<std::string>& args) {
    emu::Config config;
    config.zuluStart = std::time(nullptr);
    config.airports = {
        {"KMSP", 44.8820, -93.2218, 841}, {"LSZH", 47.4581, 8.5481, 1417}, {"EHAM", 52.3086, 4.7639, -11}};
    bool airportsGiven = false;
    std::string bind = "127.0.0.1", record;
    int port = 50500;
    double quitAfter = 0;
    config.user.speedKts = 250;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= args.size()) throw std::invalid_argument(fmt::format("{} needs a value", a));
            return args[++i];
        };
        std::vector<double> n;
        const auto number = [&](double& out) {
            const auto v = value();
            if (!numbers(v, n) || n.size() != 1)
                throw std::invalid_argument(fmt::format("{}: '{}' is not a number", a, v));
            out = n[0];
        };
        double d = 0;
        // A number that must lie in a range, as the option's type needs it.
        const auto ranged = [&](double lo, double hi) {
            number(d);
            if (!(d >= lo && d <= hi)) throw std::invalid_argument(fmt::format("{} is {} to {}", a, lo, hi));
            return d;
        };
        if (a == "--help") {
            std::cout << kHelp;
            return 0;
        } else if (a == "--bind")
            bind = value();
        else if (a == "--port")
            port = static_cast<int>(ranged(0, 65535));
        else if (a == "--sim") {
            const auto v = value();
            if (v != "2020" && v != "2024") throw std::invalid_argument("--sim is 2020 or 2024");
            config.msfs2024 = v == "2024";
        } else if (a == "--frame-rate")
            number(config.frameRate);
        else if (a == "--max-objects")
            config.maxObjects = static_cast<std::size_t>(ranged(0, 1e6));
        else if (a == "--title")
            config.titles.push_back(value());
        else if (a == "--titles") {
            std::ifstream in(value());
            for (std::string line; std::getline(in, line);)
                if (!core::trim(line).empty()) config.titles.push_back(core::trim(line));
        } else if (a == "--community") {
            const auto t = emu::titlesUnder(value());
            config.titles.insert(config.titles.end(), t.begin(), t.end());
        } else if (a == "--added-first")
            config.addedBeforeAssigned = true;
        else if (a == "--user-at") {
            const auto v = value();
            if (!numbers(v, n) || n.size() < 2 || n.size() > 3)
                throw std::invalid_argument("--user-at needs LAT,LON[,HDG]");
            config.user.latitude = n[0], config.user.longitude = n[1],
            config.user.headingDeg = n.size() > 2 ? n[2] : 0;
        } else if (a == "--user-path") {
            std::string v = value();
            for (std::size_t start = 0; start <= v.size();) {
                const auto end = std::min(v.find(';', start), v.size());
                if (!numbers(std::string_view(v).substr(start, end - start), n) || n.size() != 3)
                    throw std::invalid_argument("--user-path needs LAT,LON,ALT;LAT,LON,ALT...");
                config.user.path.push_back({n[0], n[1], n[2]});
                start = end + 1;
            }
        } else if (a == "--user-speed")
            number(config.user.speedKts);
        else if (a == "--user-title")
            config.user.title = value();
        else if (a == "--user-model")
            config.user.atcModel = value();
        else if (a == "--user-lights")
            config.user.lightStates = static_cast<std::int64_t>(ranged(0, 4294967295.0));
        else if (a == "--airport") {
            const auto v = value();
            const auto comma = v.find(',');
            if (comma == std::string::npos || !numbers(std::string_view(v).substr(comma + 1), n) ||
                n.size() != 3)
                throw std::invalid_argument("--airport needs ID,LAT,LON,ELEV_FT");
            if (!airportsGiven) config.airports.clear(), airportsGiven = true;
            config.airports.push_back({v.substr(0, comma), n[0], n[1], n[2]});
        } else if (a == "--zulu")
            config.zuluStart = static_cast<std::int64_t>(ranged(0, 4102444800.0)); // to 2100
        else if (a == "--paused")
            config.running = false;
        else if (a == "--record")
            record = value();
        else if (a == "--quit-after")
            number(quitAfter);
        else
            throw std::invalid_argument(fmt::format("unknown option '{}' (see --help)", a));
    }

    emu::Emulator emulator(config);
    emu::Server server(emulator);
    if (auto err = server.start(bind, static_cast<std::uint16_t>(port)); !err.empty()) {
        std::cerr << fmt::format("orvelline-simemu: cannot listen on {}:{}: {}\n", bind, port, err);
        return 1;
    }
    std::cout << fmt::format("orvelline-simemu: MSFS {} (\"{}\") listening on {}:{}, {} container titles\n",
                             config.msfs2024 ? 2024 : 2020, config.msfs2024 ? "SunRise" : "KittyHawk", bind,
                             server.port(), config.titles.size())
              << std::flush;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    const auto start = std::chrono::steady_clock::now();
    bool stdinOpen = true;
    std::string pending;
    while (!stopSignal) {
        if (quitAfter > 0 &&
            std::chrono::steady_clock::now() - start >= std::chrono::duration<double>(quitAfter))
            break;
        pollfd p{0, POLLIN, 0};
        if (!stdinOpen || ::poll(&p, 1, 100) <= 0) {
            if (!stdinOpen) std::this_thread::sleep_for(std::chrono::milliseconds(100));
            continue;
        }
        char buf[512];
        const ssize_t got = ::read(0, buf, sizeof buf);
        if (got <= 0) {
            stdinOpen = false;
            continue;
        }
        pending.append(buf, static_cast<std::size_t>(got));
        for (auto nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n')) {
            const std::string line = core::trim(pending.substr(0, nl));
            pending.erase(0, nl + 1);
            std::vector<double> n;
            if (line == "quit")
                stopSignal = true;
            else if (line == "run")
                emulator.setRunning(true);
            else if (line == "pause")
                emulator.setRunning(false);
            else if (line.starts_with("flight "))
                emulator.loadFlight(line.substr(7));
            else if (line.starts_with("teleport ") && numbers(line.substr(9), n) && n.size() == 2)
                emulator.moveUser(n[0], n[1]);
            else if (!line.empty())
                std::cerr << fmt::format("orvelline-simemu: unknown command '{}'\n", line);
        }
    }
    server.stop();
    std::cout << "orvelline-simemu: " << emulator.summary() << "\n";
    if (!record.empty()) {
        if (auto err = emulator.writeRecording(record); !err.empty()) {
            std::cerr << "orvelline-simemu: " << err << "\n";
            return 1;
        }
        std::cout << "orvelline-simemu: recording written to " << record << "\n";
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        std::cerr << "orvelline-simemu: " << e.what() << "\n";
        return 2;
    }
}
