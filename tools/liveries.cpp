// Writes a Community folder of AI livery packages shaped like the real ones, with the quirks
// real files have: the fixed set the tests and the demo use, or a large corpus for benchmarks.
#include <fstream>
#include <iostream>
#include <random>

#include <fmt/format.h>

#include "core/core.h"
#include "recording.h"
#include "refdata/refdata.h"

namespace orv::tools {

namespace {

enum class Enc { Utf8, Utf16, Cp1252 };

void writeFile(const fs::path& path, const std::string& text, Enc enc) {
    fs::create_directories(path.parent_path());
    std::string bytes;
    if (enc == Enc::Utf16) {
        bytes = "\xFF\xFE";
        for (const char c : text) bytes += c, bytes += '\0'; // the fixed set's UTF-16 file is ASCII
    } else if (enc == Enc::Cp1252) {
        // The fixed set's accented letters are all U+00C0..U+00FF, one byte each in Windows-1252.
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text[i] == '\xC3' && i + 1 < text.size())
                bytes += static_cast<char>(static_cast<unsigned char>(text[++i]) + 0x40);
            else
                bytes += text[i];
        }
    } else {
        bytes = text;
    }
    if (!core::writeText(bytes, path, false)) throw std::runtime_error("cannot write " + path.string());
}

struct Section {
    std::string title, airline, atcId, parking = "GATE", texture;
};

std::string cfg(const std::string& general, const std::vector<Section>& sections, bool upperHeaders) {
    std::string t = "[VERSION]\nmajor = 1\nminor = 0\n\n[GENERAL]\n" + general + "\n";
    for (std::size_t i = 0; i < sections.size(); ++i) {
        const auto& s = sections[i];
        t += fmt::format("[{}.{}]\n", upperHeaders ? "FLTSIM" : "fltsim", i);
        t += fmt::format("title = \"{}\" ; the name the simulator knows it by\n", s.title);
        if (!s.texture.empty()) t += fmt::format("texture = \"{}\";\n", s.texture);
        if (!s.airline.empty()) t += fmt::format("icao_airline = {} ; operator\n", s.airline);
        if (!s.atcId.empty()) t += fmt::format("atc_id = {}\n", s.atcId);
        if (!s.parking.empty()) t += fmt::format("atc_parking_types = \"{}\"\n", s.parking);
        t += "ui_variation = \"livery\"\n\n";
    }
    return t;
}

std::string designator(const std::string& type) {
    return fmt::format("icao_type_designator = \"{}\"\nicao_manufacturer = \"\"\n", type);
}

void fixedSet(const fs::path& out) {
    const fs::path aig = out / "aig-aitraffic-oci-beta" / "SimObjects" / "Airplanes";
    const fs::path fsltl = out / "fsltl-traffic-base" / "SimObjects" / "Airplanes";
    const fs::path jf = out / "justflight-aircraft-traffic-fleet" / "SimObjects" / "Airplanes";
    const fs::path ivao = out / "IVAO_MTL" / "SimObjects" / "Airplanes";
    const fs::path user = out / "user-aitraffic" / "SimObjects" / "Airplanes";

    writeFile(aig / "AIG_B739" / "aircraft.cfg",
              cfg(designator("B739"),
                  {{"AIG Boeing 737-900 Delta Air Lines N899DN", "DAL", "N899DN"},
                   {"AIG Boeing 737-900 Delta Air Lines", "DALX"},
                   {"AIG Boeing 737-900 United Airlines", "UAL"},
                   {"AIG Boeing 737-900 placeholder-STUB", "DAL"},
                   {"Delta Air Lines special colours", "DAL", "N801DZ"}},
                  true),
              Enc::Utf8);
    writeFile(aig / "AIG_B738" / "aircraft.cfg",
              cfg(designator("B738"),
                  {{"AIG Boeing 737-800 KLM", "KLMC", "", "GATE", "KLM"},
                   {"AIG Boeing 737-800 United Airlines", "UAL", "", "GATE", "UAL"},
                   {"AIG Boeing 737-800 Corendon Airlines", "CAI", "", "GATE", "CAI"},
                   {"AIG Boeing 737-800 Unknown Operator", "XQX"}},
                  true),
              Enc::Utf8);
    writeFile(aig / "AIG_A320" / "aircraft.cfg",
              cfg(designator("A320"),
                  {{"AIG Airbus A320 Swiss", "SWR"},
                   {"AIG Airbus A320 Lufthansa", "DLH"},
                   {"AIG Airbus A320 British Airways", "BAW"},
                   {"AIG Airbus A320 Generic", "ZZZZ"}},
                  false),
              Enc::Utf16);
    writeFile(aig / "AIG_A321" / "aircraft.cfg",
              cfg("base_container = \"..\\Asobo_A320_NEO\"\n" + designator("A321"),
                  {{"AIG Airbus A321 Delta Air Lines", "DAL"}, {"AIG Airbus A321 American Airlines", "AAL"}},
                  false),
              Enc::Utf8);
    writeFile(out / "aig-aitraffic-oci-beta_CVT_" / "SimObjects" / "Airplanes" / "AIG_B739" / "aircraft.cfg",
              cfg(designator("B739"), {{"Converted copy that must not be read", "DAL"}}, false), Enc::Utf8);

    writeFile(
        fsltl / "FSLTL_B77W" / "aircraft.cfg",
        cfg(designator("B77W"), {{"FSLTL_B77W_SWR Swiss", "SWR"}, {"FSLTL_B77W_ZZZZ Generic", "ZZZZ"}}, true),
        Enc::Utf8);
    writeFile(fsltl / "FSLTL_B789" / "aircraft.cfg",
              cfg(designator("B789"), {{"FSLTL_B789_ACA Air Canada", "ACA"}}, true), Enc::Utf8);
    writeFile(fsltl / "FSLTL_B772" / "aircraft.cfg",
              cfg(designator("B772"), {{"FSLTL_B772_KLM KLM", "KLM"}}, true), Enc::Utf8);
    writeFile(fsltl / "FSLTL_A388" / "aircraft.cfg",
              cfg(designator("A388"), {{"FSLTL_A388 no airline no registration"}}, true), Enc::Utf8);

    writeFile(jf / "JF_B752" / "aircraft.cfg",
              cfg(designator("B752"), {{"JF Boeing 757-200 Delta Air Lines", "DAL"}}, false), Enc::Utf8);
    writeFile(jf / "JF_B763F" / "aircraft.cfg",
              cfg(designator("B763"),
                  {{"JF Boeing 767-300F FedEx Express", "FDX", "", "CARGO"},
                   {"JF Boeing 767-300 FedEx Pilot Trainer", "FDX", "", "GATE,CARGO"},
                   {"JF Boeing 767-300F Frachtflug Genève", "FDX", "", "RAMP,CARGO"}},
                  false),
              Enc::Cp1252);

    for (const char* airline : {"DLH"}) {
        const fs::path folder = ivao / "IVAO_A388";
        // A texture folder holds a texture.cfg, as the real ones do (and git keeps no empty folder).
        writeFile(folder / fmt::format("texture.{}", airline) / "texture.cfg",
                  "[fltsim]\nfallback.1=..\\..\\IVAO_A388_base\\texture\n", Enc::Utf8);
        writeFile(folder / "aircraft.cfg",
                  cfg("",
                      {{fmt::format("A388 {} Lufthansa", airline), "", "", "GATE", airline},
                       {"A388 XXX Missing Texture", "", "", "GATE", "XXX"}},
                      true),
                  Enc::Utf8);
    }

    // What a typical install adds: generic paints of the common families, a few more airlines,
    // and at least one model of every category, so that runs see the matches users get.
    for (const char* type :
         {"A319", "A20N", "A21N", "A321", "B737", "B38M", "B738", "BCS3", "CRJ9", "E190", "E195",
          "DH8D", "AT76", "A332", "A333", "A359", "B744", "B748", "B763", "B788", "B789", "B77L"})
        writeFile(fsltl / fmt::format("FSLTL_{}_Generic", type) / "aircraft.cfg",
                  cfg(designator(type), {{fmt::format("FSLTL_{}_ZZZZ Generic", type), "ZZZZ"}}, true),
                  Enc::Utf8);
    writeFile(aig / "AIG_BCS3" / "aircraft.cfg",
              cfg(designator("BCS3"),
                  {{"AIG Airbus A220-300 Swiss", "SWR"}, {"AIG Airbus A220-300 airBaltic", "BTI"}}, true),
              Enc::Utf8);
    writeFile(aig / "AIG_A20N" / "aircraft.cfg",
              cfg(designator("A20N"),
                  {{"AIG Airbus A320neo Swiss", "SWR"}, {"AIG Airbus A320neo Lufthansa", "DLH"}}, true),
              Enc::Utf8);
    writeFile(aig / "AIG_C56X" / "aircraft.cfg",
              cfg(designator("C56X"), {{"AIG Cessna Citation Excel NetJets", "EJA"}}, true), Enc::Utf8);
    writeFile(aig / "AIG_C25B" / "aircraft.cfg",
              cfg(designator("C25B"), {{"AIG Cessna Citation CJ3 private"}}, true), Enc::Utf8);
    writeFile(aig / "AIG_EC35" / "aircraft.cfg",
              cfg(designator("EC35"), {{"AIG Eurocopter EC135 Rega", "RGA"}}, true), Enc::Utf8);
    writeFile(user / "my_F16" / "aircraft.cfg",
              cfg(designator("F16"), {{"F-16 Fighting Falcon demo team"}}, false), Enc::Utf8);

    writeFile(user / "my_C172" / "aircraft.cfg",
              cfg("base_container = \"..\\Asobo_C172sp_classic\"\n", {{"Cessna 172 private N12345"}}, false),
              Enc::Utf8);
    writeFile(user / "my_unknown_type" / "aircraft.cfg",
              cfg(designator("Z99Z"), {{"Unknown type", "DAL"}}, false), Enc::Utf8);
    writeFile(user / "my_empty" / "aircraft.cfg", "[VERSION]\nmajor = 1\n\n[GENERAL]\natc_type = \"TBM\"\n",
              Enc::Utf8);
}

// A large corpus: `files` aircraft.cfg files of five sections each, spread over the packages.
void corpus(const fs::path& out, int files) {
    const char* packages[] = {"aig-aitraffic-oci-beta", "fsltl-traffic-base",
                              "justflight-aircraft-traffic-fleet", "user-aitraffic"};
    const char* types[] = {"B738", "B739", "A320", "A321", "B77W", "B789", "B752", "B763", "A388", "E190"};
    const char* airlines[] = {"DAL", "UAL", "AAL", "KLM", "DLH", "SWR",
                              "BAW", "ACA", "CAI", "FDX", "AFR", "EZY"};
    std::mt19937 rng(20250205);
    for (int f = 0; f < files; ++f) {
        const char* type = types[static_cast<std::size_t>(f) % std::size(types)];
        std::vector<Section> sections;
        for (int s = 0; s < 5; ++s) {
            const char* airline = airlines[rng() % std::size(airlines)];
            sections.push_back({fmt::format("Corpus {} {} livery {}-{}", type, airline, f, s),
                                f % 7 == 0 ? fmt::format("{}X", airline) : std::string(airline), "",
                                f % 11 == 0 ? "CARGO" : "GATE", airline});
        }
        const fs::path file = out / packages[static_cast<std::size_t>(f) % std::size(packages)] /
                              "SimObjects" / "Airplanes" / fmt::format("{}_{:05}", type, f) / "aircraft.cfg";
        writeFile(file, cfg(designator(type), sections, f % 2 == 0), Enc::Utf8);
    }
}

} // namespace

int liveriesMain(const std::vector<std::string>& args) {
    if (args.empty()) throw std::runtime_error("liveries needs OUT_FOLDER [--files N]");
    const fs::path out = args[0];
    int files = 0;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--files" && i + 1 < args.size())
            files = std::stoi(args[++i]);
        else
            throw std::runtime_error("unknown option " + args[i]);
    }
    if (files > 0) {
        corpus(out, files);
        std::cout << fmt::format("{}: {} aircraft.cfg files, {} sections\n", out.string(), files, files * 5);
    } else {
        fixedSet(out);
        std::cout << fmt::format("{}: the fixed set of AI livery packages\n", out.string());
    }
    return 0;
}

} // namespace orv::tools
