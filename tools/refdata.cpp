// Builds the encrypted reference files of the program folder from the sources in data/refdata.
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "app/app.h"
#include "recording.h"
#include "refdata/refdata.h"

namespace orv::tools {

namespace {

std::vector<std::vector<std::string>> readCsv(const fs::path& file) {
    std::vector<std::string> lines;
    if (!std::holds_alternative<std::size_t>(gf_readAllLines(file, lines, 8192)))
        throw std::runtime_error("cannot read " + file.string());
    std::vector<std::vector<std::string>> rows;
    for (std::size_t i = 1; i < lines.size(); ++i) { // the first line names the columns
        if (lines[i].empty()) continue;
        rows.push_back(gf_splitList(lines[i]));
    }
    return rows;
}

} // namespace

std::string gf_airportsXml(const fs::path& airportsCsv, const fs::path& standCountsCsv,
                           std::size_t& skipped) {
    std::map<std::string, int> stands;
    for (const auto& r : readCsv(standCountsCsv))
        if (r.size() >= 2) stands[r[0]] = std::stoi(r[1]);
    pugi::xml_document doc;
    auto section = doc.append_child("root").append_child("airports");
    std::set<std::string> seen;
    skipped = 0;
    for (const auto& r : readCsv(airportsCsv)) {
        // ident, gps_code, iata_code, latitude_deg, longitude_deg, elevation_ft
        if (r.size() < 6) throw std::runtime_error("airports source: a row with fewer than 6 columns");
        // The ident is the ICAO code where it is one; else the GPS code often is.
        std::string icao = AirportCode::tryMake(r[0]) ? r[0] : (AirportCode::tryMake(r[1]) ? r[1] : "");
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
        ap.append_attribute("i") = s == stands.end() ? 0 : s->second;
        if (IataCode::tryMake(r[2])) ap.append_attribute("s") = r[2].c_str();
    }
    std::ostringstream out;
    doc.save(out, "  ");
    return out.str();
}

int gf_refdataMain(const std::vector<std::string>& args) {
    if (args.size() != 2) throw std::runtime_error("refdata needs SOURCE_FOLDER and INPUT_FOLDER");
    const fs::path src = args[0], out = args[1];
    fs::create_directories(out);
    std::size_t skipped = 0;
    const auto xml = gf_airportsXml(src / "airports.csv", src / "stand-counts.csv", skipped);
    const fs::path plain = out / "airports.src.xml";
    if (!gf_writeText(xml, plain, false)) throw std::runtime_error("cannot write " + plain.string());
    const auto err = gf_streamEncrypt(plain, out / "airports.enc");
    gf_removeFile(plain);
    if (!err.empty()) throw std::runtime_error(err);
    std::cout << fmt::format("{}: airports ({} source rows without an ICAO code or elevation left out)\n",
                             (out / "airports.enc").string(), skipped);
    return 0;
}

} // namespace orv::tools
