// Builds the encrypted reference files of the program folder from the sources in data/refdata.
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "recording.h"
#include "refdata/refdata.h"

namespace orv::tools {

// Lines of a small source file without comments (#) and blank lines, split at commas.
std::vector<std::vector<std::string>> readRows(const fs::path& file, bool header) {
    std::vector<std::string> lines;
    if (!std::holds_alternative<std::size_t>(core::readAllLines(file, lines, 8192)))
        throw std::runtime_error("cannot read " + file.string());
    std::vector<std::vector<std::string>> rows;
    bool skipped = !header;
    for (const auto& l : lines) {
        if (l.empty() || l[0] == '#') continue;
        if (!skipped) {
            skipped = true;
            continue;
        }
        rows.push_back(core::splitList(l));
    }
    return rows;
}

std::vector<FleetAircraft> demoFleet(const fs::path& sourceFolder) {
    std::vector<FleetAircraft> fleet;
    std::map<std::string, unsigned> counters; // per prefix, so registrations stay unique
    for (const auto& r : readRows(sourceFolder / "demo-fleet.csv", false)) {
        const std::string &prefix = r.at(0), &airline = r.at(2), &type = r.at(3);
        const int nLetters = std::stoi(r.at(1));
        const int count = std::stoi(r.at(4));
        for (int i = 0; i < count; ++i) {
            const unsigned n = counters[prefix]++;
            // US style N123AB; elsewhere the prefix and letters, as in D-AHAA.
            const auto letters = [](unsigned k, int width) {
                std::string t(static_cast<std::size_t>(width), 'A');
                for (int j = width - 1; j >= 0; --j, k /= 26)
                    t[static_cast<std::size_t>(j)] = static_cast<char>('A' + k % 26);
                return t;
            };
            fleet.push_back({nLetters == 0 ? fmt::format("{}{}{}", prefix, 100 + n % 900, letters(n / 900, 2))
                                           : prefix + letters(n + 7 * 26, nLetters),
                             airline, type, r.at(5) == "true"});
        }
    }
    return fleet;
}

namespace {

std::string joined(const std::vector<std::string>& v) {
    std::string out;
    for (const auto& s : v) out += (out.empty() ? "" : ",") + s;
    return out;
}

// The plain text lives on disk only for the moment the encryption reads it.
void writeEncrypted(const std::string& xml, const fs::path& encrypted) {
    fs::path plain = encrypted;
    plain += ".src.xml";
    if (!core::writeText(xml, plain, false)) throw std::runtime_error("cannot write " + plain.string());
    const auto err = refdata::streamEncrypt(plain, encrypted);
    refdata::removeFile(plain);
    if (!err.empty()) throw std::runtime_error(err);
}

} // namespace

std::string airportsXml(const fs::path& airportsCsv, const fs::path& standCountsCsv, std::size_t& skipped) {
    // icao, stands, stock: the stock status says the data site has the airport's file.
    std::map<std::string, std::pair<int, int>> stands;
    for (const auto& r : readRows(standCountsCsv, true))
        if (r.size() >= 2) stands[r[0]] = {std::stoi(r[1]), r.size() >= 3 ? std::stoi(r[2]) : 0};
    pugi::xml_document doc;
    auto section = doc.append_child("root").append_child("airports");
    std::set<std::string> seen;
    skipped = 0;
    for (const auto& r : readRows(airportsCsv, true)) {
        // ident, gps_code, iata_code, latitude_deg, longitude_deg, elevation_ft
        if (r.size() < 6) throw std::runtime_error("airports source: a row with fewer than 6 columns");
        // The ident is the ICAO code where it is one; else the GPS code often is.
        std::string icao =
            refdata::AirportCode::tryMake(r[0]) ? r[0] : (refdata::AirportCode::tryMake(r[1]) ? r[1] : "");
        if (icao.empty() || r[5].empty() || !seen.insert(icao).second) {
            ++skipped;
            continue;
        }
        auto ap = section.append_child("ap");
        ap.append_attribute("c") = icao.c_str();
        ap.append_attribute("la") = r[3].c_str();
        ap.append_attribute("lo") = r[4].c_str();
        ap.append_attribute("a") = r[5].c_str();
        const auto s = stands.find(icao);
        ap.append_attribute("i") = s == stands.end() ? 0 : s->second.first;
        if (s != stands.end() && s->second.second > 0) ap.append_attribute("k") = s->second.second;
        if (refdata::IataCode::tryMake(r[2])) ap.append_attribute("s") = r[2].c_str();
    }
    std::ostringstream out;
    doc.save(out, "  ");
    return out.str();
}

int refdataMain(const std::vector<std::string>& args) {
    if (args.size() != 2) throw std::runtime_error("refdata needs SOURCE_FOLDER and INPUT_FOLDER");
    const fs::path src = args[0], out = args[1];
    fs::create_directories(out);
    std::size_t skipped = 0;
    const auto xml = airportsXml(src / "airports.csv", src / "stand-counts.csv", skipped);
    writeEncrypted(xml, out / "airports.enc");
    writeEncrypted(dbaseXml(src), out / "dbase.enc");
    writeEncrypted(aigRegcodesXml(src / "aig-regcodes.txt"), out / params::names::kRegcodesEnc);
    // Public facts, for the page's map: plain.
    fs::copy_file(src / "runways.csv", out / "runways.csv", fs::copy_options::overwrite_existing);
    std::cout << fmt::format("{}: reference database\n", (out / "dbase.enc").string());
    std::cout << fmt::format("{}: airports ({} source rows without an ICAO code or elevation left out)\n",
                             (out / "airports.enc").string(), skipped);
    return 0;
}

std::string aigRegcodesXml(const fs::path& source) {
    std::vector<std::string> lines;
    if (!std::holds_alternative<std::size_t>(core::readAllLines(source, lines, 1024)))
        throw std::runtime_error("cannot read " + source.string());
    pugi::xml_document doc;
    auto root = doc.append_child("root");
    params::appendMeta(root);
    auto aig = root.append_child("aig");
    for (const auto& line : lines) {
        if (line.empty() || line[0] == '#') continue;
        liveries::RegcodeRecord r;
        std::string wrong;
        if (!liveries::parseRegcodeLine(line, r, wrong) || !wrong.empty())
            throw std::runtime_error(fmt::format("{}: bad line '{}'", source.string(), line));
        auto l = aig.append_child("l");
        l.append_attribute("t").set_value(r.title.c_str());
        if (!r.regcodes.empty()) l.append_attribute("r").set_value(joined(r.regcodes).c_str());
        if (r.special) l.append_attribute("s").set_value("true");
    }
    std::ostringstream text;
    doc.save(text, "  ");
    return text.str();
}

std::string dbaseXml(const fs::path& src) {
    pugi::xml_document doc;
    auto root = doc.append_child("root");
    // Types: the ICAO list; categories from its description (H/G rotorcraft, third character J for
    // jets) and wake class (H or J heavy; M jets large; L jets business jets).
    pugi::xml_document extra;
    if (!extra.load_file((src / "dbase-sections.xml").c_str()))
        throw std::runtime_error("cannot read " + (src / "dbase-sections.xml").string());
    // Military fast jets are listed by hand and belong to no size category.
    std::set<std::string> highPerf;
    for (const auto h : extra.child("root").child("high_performance").children("hpf"))
        for (auto& t : core::splitList(h.attribute("types").as_string())) highPerf.insert(t);
    std::vector<std::string> all, heavy, large, buzjet, rotor;
    for (const auto& r : readRows(src / "aircraft-types.csv", true)) {
        if (r.size() < 3) continue;
        const std::string &type = r[0], &desc = r[1], &wtc = r[2];
        all.push_back(type);
        if (highPerf.contains(type)) continue;
        if (!desc.empty() && (desc[0] == 'H' || desc[0] == 'G'))
            rotor.push_back(type);
        else if (wtc == "H" || wtc == "J")
            heavy.push_back(type);
        else if (desc.size() >= 3 && desc[2] == 'J' && wtc == "M")
            large.push_back(type);
        else if (desc.size() >= 3 && desc[2] == 'J' && wtc == "L")
            buzjet.push_back(type);
    }
    const auto listSection = [&](const char* sec, const char* el, const char* attr,
                                 const std::vector<std::string>& v) {
        root.append_child(sec).append_child(el).append_attribute(attr) = joined(v).c_str();
    };
    listSection("aircrafts", "aircraft", "types", all);
    listSection("heavy", "hvy", "types", heavy);
    listSection("large", "lar", "types", large);
    listSection("buzjet", "bzj", "types", buzjet);
    listSection("rotorcraft", "rot", "types", rotor);

    std::vector<std::string> airlines;
    for (const auto& r : readRows(src / "airlines.csv", true)) airlines.push_back(r.at(0));
    listSection("ICAO_airlines", "ICAO", "codes", airlines);

    for (const auto s : extra.child("root").children()) root.append_copy(s);

    auto spans = root.append_child("wingspans");
    for (const auto& r : readRows(src / "wingspans.csv", true)) {
        auto w = spans.append_child("wingspan");
        w.append_attribute("type") = r.at(0).c_str();
        w.append_attribute("meters") = r.at(1).c_str();
    }

    auto records = root.append_child("dbase");
    const auto record = [&](const std::string& reg, const std::string& a, const std::string& m,
                            const std::string& o, const std::string& c) {
        auto d = records.append_child("d");
        d.append_attribute("r") = reg.c_str();
        d.append_attribute("a") = a.c_str();
        d.append_attribute("m") = m.c_str();
        d.append_attribute("o") = o.c_str();
        d.append_attribute("c") = c.c_str();
    };
    for (const auto& r : readRows(src / "registrations.csv", false))
        record(r.at(0), r.at(1), r.at(2), r.at(3), r.at(4));
    for (const auto& a : demoFleet(src))
        record(a.reg, a.airline, a.type, a.airline, a.cargo ? "true" : "false");
    std::ostringstream out;
    doc.save(out, "  ");
    return out.str();
}

} // namespace orv::tools
