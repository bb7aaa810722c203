// The data site: stock airport files built from stand lists, the real stays we know and a made-up
// traffic week, in the tree the program downloads from; and a loopback server for that tree.
#include <csignal>
#include <iostream>
#include <map>
#include <random>

#include <fmt/format.h>
#include <httplib.h>
#include <pugixml.hpp>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "recording.h"

namespace orv::tools {

namespace {

namespace af = airportfile;

struct Draw {
    std::string airline, type;
    int weight = 1;
};

// Half hours a made-up stay lasts, and the gap before the next, per kind of stand.
struct StayRule {
    int minStay, maxStay, minGap, maxGap;
};
StayRule stayRule(const std::string& kind) {
    if (kind == "cargo") return {4, 12, 2, 10};
    if (kind == "ga") return {6, 24, 4, 20};
    return {2, 6, 1, 5};
}

int between(std::mt19937& rng, int lo, int hi) {
    return lo + static_cast<int>(rng() % static_cast<unsigned>(hi - lo + 1));
}

class Registrations {
  public:
    explicit Registrations(const std::vector<FleetAircraft>& fleet) {
        for (const auto& a : fleet) pools_[a.airline + "/" + a.type].push_back(a.reg);
    }
    // The next registration of the pool in turn: a pool far larger than the stands keeps one
    // aircraft from standing in two places at once.
    std::string next(const Draw& d) {
        auto& pool = pools_[d.airline + "/" + d.type];
        if (pool.empty()) throw std::runtime_error(fmt::format("no demo fleet for {} {}", d.airline, d.type));
        return pool[turn_[d.airline + "/" + d.type]++ % pool.size()];
    }

  private:
    std::map<std::string, std::vector<std::string>> pools_;
    std::map<std::string, std::size_t> turn_;
};

void addWeek(af::Stand& stand, const std::string& kind, const std::vector<Draw>& draws, Registrations& regs,
             std::mt19937& rng, unsigned& flightNumber) {
    if (draws.empty()) return;
    int total = 0;
    for (const auto& d : draws) total += d.weight;
    const auto rule = stayRule(kind);
    for (std::uint32_t day = 1; day <= 7; ++day) {
        for (int h = between(rng, 0, rule.maxGap); h < af::HourBits::kHalfHours;) {
            int pick = between(rng, 1, total);
            const Draw* d = &draws.front();
            for (const auto& c : draws)
                if ((pick -= c.weight) <= 0) {
                    d = &c;
                    break;
                }
            const int last =
                std::min(h + between(rng, rule.minStay, rule.maxStay) - 1, af::HourBits::kHalfHours - 1);
            af::StandOption o;
            o.airline = refdata::airlineId(d->airline);
            o.type = refdata::modelId(d->type);
            o.reg = regs.next(*d);
            o.cs = fmt::format("{}{}", d->airline, 100 + flightNumber % 8900);
            o.cs2 = fmt::format("{}{}", d->airline, 100 + (flightNumber + 1) % 8900);
            flightNumber += 2;
            o.day = day;
            for (int k = h; k <= last; ++k) o.hours.set(k);
            o.real = 1;
            o.number = static_cast<std::uint32_t>(stand.options.size() + 1);
            stand.options.push_back(std::move(o));
            h = last + 1 + between(rng, rule.minGap, rule.maxGap);
        }
    }
}

// One airport's stock file, from data/stands/CODE.csv and the week's sources beside it.
af::Apf stockAirport(const fs::path& dataFolder, const std::string& code,
                     const std::vector<FleetAircraft>& fleet) {
    const fs::path standsFolder = dataFolder / "stands";
    af::Apf apf;
    apf.code = refdata::AirportCode(code);
    apf.publisher = "stock";
    for (const auto& r : readRows(dataFolder / "refdata" / "airports.csv", true))
        if (r.size() >= 6 && r[0] == code) apf.altitudeFt = std::stoi(r[5]);
    apf.airportName = code;
    std::map<std::string, std::vector<Draw>> draws; // by kind of stand
    for (const auto& r : readRows(standsFolder / "traffic-week.csv", false))
        if (r.size() >= 5 && r[0] == code) draws[r[1]].push_back({r[2], r[3], std::stoi(r[4])});
    std::map<std::string, std::vector<af::StandOption>> real; // by stand
    for (const auto& r : readRows(standsFolder / "real-flights.csv", false)) {
        if (r.size() < 8 || r[0] != code) continue;
        af::StandOption o;
        o.reg = r[2];
        o.airline = refdata::airlineId(r[3]);
        o.type = refdata::modelId(r[4]);
        o.day = static_cast<std::uint32_t>(std::stoul(r[5]));
        o.hours = af::hours2bitset(r[6]);
        const auto colon = r[7].find(':');
        o.cs = r[7].substr(0, colon);
        if (colon != std::string::npos) o.cs2 = r[7].substr(colon + 1);
        o.real = 1;
        real[r[1]].push_back(std::move(o));
    }
    Registrations regs(fleet);
    std::mt19937 rng(static_cast<std::uint32_t>(refdata::fnv1a(code)));
    unsigned flightNumber = 0;
    for (const auto& r : readRows(standsFolder / (code + ".csv"), true)) {
        if (r.size() < 6)
            throw std::runtime_error(fmt::format("{}.csv: a row with fewer than 6 columns", code));
        af::Stand s;
        s.id = r[0];
        const std::string& kind = r[1];
        s.latitude = std::stod(r[2]);
        s.longitude = std::stod(r[3]);
        s.headingRad = std::stod(r[4]) * core::kRadPerDeg;
        s.radiusNm = std::stod(r[5]) * af::kNmPerMetre;
        s.cargo = kind == "cargo";
        s.ramp = kind == "ga" || kind == "cargo";
        s.heli = kind == "heli";
        if (auto it = real.find(s.id); it != real.end()) {
            s.options = it->second; // the stays we know, alone on their stand
            for (std::size_t i = 0; i < s.options.size(); ++i)
                s.options[i].number = static_cast<std::uint32_t>(i + 1);
        } else {
            addWeek(s, kind, draws[kind], regs, rng, flightNumber);
        }
        apf.stands.push_back(std::move(s));
    }
    return apf;
}

int siteMain(const std::vector<std::string>& args) {
    if (args.empty()) throw std::runtime_error("site needs OUT [--data DIR]");
    const fs::path out = args[0];
    fs::path data = "data";
    for (std::size_t i = 1; i + 1 < args.size(); ++i)
        if (args[i] == "--data") data = args[i + 1];
    const auto fleet = demoFleet(data / "refdata");
    const fs::path stock = out / "downloads" / "MSFS" / "archive" / "stock";
    for (const auto& r : readRows(data / "refdata" / "stand-counts.csv", true)) {
        if (r.size() < 3 || std::stoi(r[2]) < 1) continue;
        const auto apf = stockAirport(data, r[0], fleet);
        std::size_t options = 0;
        for (const auto& s : apf.stands) options += s.options.size();
        const fs::path file = stock / (r[0] + ".xml");
        if (!af::writeApf(apf, file, af::WriteMode::Archived, af::SimVersion::Msfs2020))
            throw std::runtime_error(fmt::format("cannot write {}", file.string()));
        // What the program will read: every stand, under an id of its own.
        pugi::xml_document doc;
        if (!doc.load_file(file.c_str()) || af::readStands(doc, 1).size() != apf.stands.size())
            throw std::runtime_error(
                fmt::format("{} does not read back with its {} stands", file.string(), apf.stands.size()));
        std::cout << fmt::format("{}: {} stands, {} flights\n", r[0], apf.stands.size(), options);
    }
    std::error_code ec;
    fs::create_directories(out / "downloads" / "MSFS2024", ec);
    fs::copy(data / "stands" / "README.md", out / "downloads" / "MSFS" / "archive" / "stock" / "LICENCE.md",
             fs::copy_options::overwrite_existing, ec);
    return 0;
}

httplib::Server* gServer = nullptr;

int serveMain(const std::vector<std::string>& args) {
    if (args.empty()) throw std::runtime_error("serve needs DIR [--port N]");
    int port = 8611;
    for (std::size_t i = 1; i + 1 < args.size(); ++i)
        if (args[i] == "--port") port = std::stoi(args[i + 1]);
    httplib::Server server;
    if (!server.set_mount_point("/", args[0])) throw std::runtime_error(fmt::format("no folder {}", args[0]));
    const int bound = port == 0 ? server.bind_to_any_port("127.0.0.1")
                                : (server.bind_to_port("127.0.0.1", port) ? port : -1);
    if (bound < 0) throw std::runtime_error(fmt::format("cannot listen on 127.0.0.1:{}", port));
    gServer = &server;
    std::signal(SIGTERM, [](int) { gServer->stop(); });
    std::signal(SIGINT, [](int) { gServer->stop(); });
    std::cout << fmt::format("serving {} on http://127.0.0.1:{}/", args[0], bound) << std::endl;
    server.listen_after_bind();
    return 0;
}

} // namespace

int airportsMain(const std::string& command, const std::vector<std::string>& args) {
    if (command == "site") return siteMain(args);
    return serveMain(args);
}

} // namespace orv::tools
