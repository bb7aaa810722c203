// orvelline-simemu: an emulated MSFS that speaks SimConnect's network protocol.
#include <charconv>
#include <csignal>
#include <fstream>
#include <iostream>
#include <optional>
#include <poll.h>
#include <thread>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "core/core.h"
#include "emulator.h"
#include "refdata/refdata.h"

namespace {

using namespace orv;

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

// "LAT,LON[,...]" with `lo` to `hi` numbers.
std::vector<double> numberList(const std::string& text, std::size_t lo, std::size_t hi, const char* shape) {
    std::vector<double> n;
    if (!numbers(text, n) || n.size() < lo || n.size() > hi) throw CLI::ValidationError(shape);
    return n;
}

struct Command {
    emu::Config config;
    std::string bind = "127.0.0.1", record;
    int port = 50500;
    double quitAfter = 0;
};

// The command line into the emulator's configuration; nullopt when the program should end with `exitCode`.
std::optional<Command> parse(int argc, char** argv, int& exitCode) {
    Command c;
    auto& config = c.config;
    config.zuluStart = std::time(nullptr);
    config.airports = {
        {"KMSP", 44.8820, -93.2218, 841}, {"LSZH", 47.4581, 8.5481, 1417}, {"EHAM", 52.3086, 4.7639, -11}};
    config.user.speedKts = 250;
    std::string sim = "2020";
    std::vector<std::string> titleFiles, communities, airports;
    std::string userAt, userPath;
    CLI::App app{
        "An emulated Microsoft Flight Simulator for tests and demonstrations. It serves SimConnect's "
        "network protocol on TCP, so Orvelline (orvelline --sim HOST:PORT) or any SimConnect network "
        "client can connect to it.",
        "orvelline-simemu"};
    app.footer(
        "Lines on standard input: \"quit\", \"run\", \"pause\", \"flight PATH\" (a FlightLoaded event), "
        "\"teleport LAT,LON\". Ctrl-C quits as the simulator closing would.");
    app.add_option("--bind", c.bind, "listen address (127.0.0.1)");
    app.add_option("--port", c.port, "TCP port (50500; 0 picks a free one, printed at start)")
        ->check(CLI::Range(0, 65535));
    app.add_option("--sim", sim, "answer as MSFS 2020 \"KittyHawk\" (default) or MSFS 2024 \"SunRise\"")
        ->check(CLI::IsMember({"2020", "2024"}));
    app.add_option("--frame-rate", config.frameRate, "\"Frame\" events per second (30)");
    app.add_option("--max-objects", config.maxObjects, "AI objects at once before exception 11 (1000)")
        ->check(CLI::Range(0, 1000000));
    app.add_option("--title", config.titles, "a container title that can be created (repeatable)");
    app.add_option("--titles", titleFiles, "a file of container titles, one per line");
    app.add_option("--community", communities, "the titles of every aircraft.cfg under this folder");
    app.add_flag("--added-first", config.addedBeforeAssigned,
                 "send ObjectAdded before ASSIGNED_OBJECT_ID (default: after)");
    app.add_option("--user-at", userAt, "LAT,LON[,HDG]: the user aircraft parked there");
    app.add_option("--user-path", userPath, "LAT,LON,ALT;...: the user aircraft flying these waypoints");
    app.add_option("--user-speed", config.user.speedKts, "speed along the path in knots (250)");
    app.add_option("--user-title", config.user.title,
                   "the user aircraft's TITLE (\"Airbus A320 Neo Asobo\")");
    app.add_option("--user-model", config.user.atcModel,
                   "its ATC MODEL (\"TT:ATCCOM.AC_MODEL_A20N.0.text\")");
    app.add_option("--user-lights", config.user.lightStates, "its LIGHT STATES (0)")
        ->check(CLI::Range(std::int64_t{0}, std::int64_t{4294967295}));
    app.add_option(
        "--airport", airports,
        "ID,LAT,LON,ELEV_FT: an airport whose elevation is the ground near it (repeatable; default "
        "KMSP, LSZH and EHAM)");
    app.add_option("--zulu", config.zuluStart, "UTC time at start, in seconds since 1970 (default: now)")
        ->check(CLI::Range(std::int64_t{0}, std::int64_t{4102444800})); // to 2100
    bool paused = false;
    app.add_flag("--paused", paused, "start with \"Sim\" not running");
    app.add_option("--record", c.record, "write every object's positions and events as JSON lines at exit");
    app.add_option("--quit-after", c.quitAfter, "send QUIT to the clients and exit after this many seconds");
    try {
        app.parse(argc, argv);
        config.msfs2024 = sim == "2024";
        config.running = !paused;
        for (const auto& file : titleFiles) {
            std::ifstream in(file);
            for (std::string line; std::getline(in, line);)
                if (!core::trim(line).empty()) config.titles.push_back(core::trim(line));
        }
        for (const auto& dir : communities) {
            const auto t = emu::titlesUnder(dir);
            config.titles.insert(config.titles.end(), t.begin(), t.end());
        }
        if (!userAt.empty()) {
            const auto n = numberList(userAt, 2, 3, "--user-at needs LAT,LON[,HDG]");
            config.user.latitude = n[0], config.user.longitude = n[1];
            config.user.headingDeg = n.size() > 2 ? n[2] : 0;
        }
        for (std::size_t start = 0; !userPath.empty() && start <= userPath.size();) {
            const auto end = std::min(userPath.find(';', start), userPath.size());
            const auto n = numberList(userPath.substr(start, end - start), 3, 3,
                                      "--user-path needs LAT,LON,ALT;LAT,LON,ALT...");
            config.user.path.push_back({n[0], n[1], n[2]});
            start = end + 1;
        }
        if (!airports.empty()) config.airports.clear();
        for (const auto& a : airports) {
            const auto comma = a.find(',');
            if (comma == std::string::npos) throw CLI::ValidationError("--airport needs ID,LAT,LON,ELEV_FT");
            const auto n = numberList(a.substr(comma + 1), 3, 3, "--airport needs ID,LAT,LON,ELEV_FT");
            config.airports.push_back({a.substr(0, comma), n[0], n[1], n[2]});
        }
    } catch (const CLI::ParseError& e) {
        exitCode = app.exit(e);
        return std::nullopt;
    }
    return c;
}

int run(int argc, char** argv) {
    int exitCode = 0;
    auto command = parse(argc, argv, exitCode);
    if (!command) return exitCode;
    const auto& config = command->config;
    const auto& bind = command->bind;
    const auto port = command->port;
    const auto quitAfter = command->quitAfter;
    const auto& record = command->record;
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
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "orvelline-simemu: " << e.what() << "\n";
        return 2;
    }
}
