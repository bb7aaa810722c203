#include <cmath>
#include <fstream>
#include <iostream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <pugixml.hpp>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "params/params.h"
#include "program_home.h"
#include "recording.h"
#include "refdata/refdata.h"
#include "scan/scan.h"
#include "sim/sim.h"
#include "support.h"

namespace orv {
namespace {

namespace af = airportfile;

fs::path scenery(const char* name) {
    return fs::path(ORV_SOURCE_DIR) / "data/scenery" / name;
}

std::uint32_t bits(float f) {
    return std::bit_cast<std::uint32_t>(f);
}

TEST(BglTest, PackedCodesAltitudesAndNames) {
    struct Icao {
        std::uint32_t packed;
        std::optional<std::string> code;
    };
    for (const auto& [packed, code] :
         std::vector<Icao>{{0x01B9F701, "EGTK"},
                           {0x0263DFE1, "KTST"},
                           {0x01B9F701 | 0x1F, "EGTK"}, // the low five bits are not part of the code
                           {tools::packIcao("K2A9"), "K2A9"},
                           {tools::packIcao("LFP"), "LFP"},
                           {1u << 5, std::nullopt}, // digit 1 is no character
                           {0, ""}}) {
        SCOPED_TRACE(fmt::format("{:#x}", packed));
        EXPECT_EQ(scan::decodeIcao(packed), code);
    }
    struct Alt {
        std::int32_t mm, ft;
    };
    for (const auto& [mm, ft] : std::vector<Alt>{{73833, 242},
                                                 {-394563, 0}, // -1294 ft: below what a field can be
                                                 {-6096, -20},
                                                 {-6401, -21 * 0},
                                                 {3048000, 10000},
                                                 {3048305, 0}}) // 10001 ft
        EXPECT_EQ(scan::altitudeFeet(mm), ft) << mm;
    EXPECT_EQ(scan::parkingName(0), "");
    EXPECT_EQ(scan::parkingName(10), "g");
    EXPECT_EQ(scan::parkingName(11), "");
    EXPECT_EQ(scan::parkingName(12), "A");
    EXPECT_EQ(scan::parkingName(37), "Z");
    EXPECT_EQ(scan::parkingName(38), "");
    const std::vector<std::uint32_t> header{0x1234'00E7u, 0xABCD'0001u};
    EXPECT_EQ(scan::decodeSizeAtBoundary(header, 0), 0x0001'1234u);
}

// The real files: two builds of one MSFS airport, files without airports, a Prepar3D airport.
TEST(BglTest, RealFiles) {
    struct Case {
        const char* file;
        bool candidate;
        int entries, stands;
        std::int32_t altitudeMm;
    };
    // Of EGTK's 89 parking entries (88 in the older build) 9 are of the kinds that are no stands
    // (fuel, 12 and 13).
    for (const auto& c : std::vector<Case>{{"egtk-a39a6c8a.bgl", true, 89, 80, 73833},
                                           {"egtk-f7847361.bgl", true, 88, 80, -394563},
                                           {"egtk-terrain-only.bgl", false, 0, -1, 0},
                                           {"fpl2scn-objects-only.bgl", false, 0, -1, 0},
                                           {"ktst-p3d-v5.bgl", true, 0, -1, 0},
                                           {"ktst-p3d-v6.bgl", true, 0, -1, 0}}) {
        SCOPED_TRACE(c.file);
        EXPECT_EQ(scan::hasAirportSection(scenery(c.file)), c.candidate);
        const auto words = scan::readBglWords(scenery(c.file));
        ASSERT_TRUE(words);
        const auto got = scan::decodeBgl(*words, false);
        EXPECT_FALSE(got.notRecognised);
        if (c.stands < 0) {
            EXPECT_TRUE(got.airports.empty());
            EXPECT_TRUE(got.notes.empty()) << got.notes.front();
            continue;
        }
        ASSERT_EQ(got.airports.size(), 1u);
        const auto& a = got.airports[0];
        EXPECT_EQ(a.code, "EGTK");
        EXPECT_EQ(a.altitudeMm, c.altitudeMm);
        EXPECT_EQ(a.parkingEntries, c.entries);
        EXPECT_EQ(static_cast<int>(a.stands.size()), c.stands);
        EXPECT_EQ(a.helipads, 0);
        for (const auto& s : a.stands) {
            EXPECT_NEAR(s.latitude, 51.8369, 0.02) << s.id;
            EXPECT_NEAR(s.longitude, -1.32, 0.03) << s.id;
            EXPECT_GT(s.radiusNm * 1852.0, 1.0);
            EXPECT_GT(s.headingRad, 0.0);
            EXPECT_LE(s.headingRad, 2 * M_PI + 1e-9);
        }
    }
}

// A file made word by word: an airport with a parking list and helipads, in cases the real files
// do not show.
class MadeBgl {
  public:
    // One airport section whose records follow the section table; `sectionFlags` bit 16 set means
    // subsection headers of another size.
    explicit MadeBgl(std::uint32_t sectionFlags = 1) {
        w = {0x0201'0019, 0x38, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
        w.insert(w.end(), {scan::kAirportSectionType, sectionFlags, 1, 0, 16}); // entry at word 14
        w[14 + 3] = static_cast<std::uint32_t>(w.size() * 4);                   // subsection header here
        sub = w.size();
        w.insert(w.end(), {0, 1, 0, 0});
    }
    // A parking entry: name code, number, type, radius, heading; the position near EGTK.
    struct Entry {
        std::uint32_t name, number, type;
        float radius, heading;
        std::uint32_t airlines = 0;
    };
    void airport(std::uint32_t packed, std::int32_t altitudeMm, const std::vector<Entry>& entries,
                 int helipads = 0) {
        records = w.size();
        w[sub + 2] = static_cast<std::uint32_t>(records * 4);
        const std::size_t a = w.size();
        w.resize(a + 17, 0);
        w[a] = scan::kAirportRecord;
        w[a + 5] = static_cast<std::uint32_t>(altitudeMm);
        w[a + 10] = packed;
        if (!entries.empty()) {
            const std::size_t p = w.size();
            w.push_back(scan::kParkingListRecord);
            w.push_back(static_cast<std::uint32_t>(entries.size()) << 16);
            for (const auto& e : entries) {
                w.push_back(e.name | e.type << 8 | e.number << 12 | e.airlines << 24);
                w.push_back(bits(e.radius));
                w.push_back(bits(e.heading));
                w.insert(w.end(), {0, 0, 0, 0});
                w.push_back(static_cast<std::uint32_t>((-1.32 + 180.0) / 4.470348358154297e-7));
                w.push_back(static_cast<std::uint32_t>((90.0 - 51.8369) / 3.3527612686157227e-7));
                w.insert(w.end(), {0, 0, 0, 0, 0});
                for (std::uint32_t k = 0; k < e.airlines; ++k) w.push_back(0x4C4C41);
            }
            setSize(p, w.size() - p);
        }
        for (int h = 0; h < helipads; ++h) {
            const std::size_t p = w.size();
            w.resize(p + 9, 0);
            w[p] = scan::kHelipadRecord;
            w[p + 3] = static_cast<std::uint32_t>((-1.32 + 180.0) / 4.470348358154297e-7) + (h > 0 ? 0 : 100);
            w[p + 4] = static_cast<std::uint32_t>((90.0 - 51.8369) / 3.3527612686157227e-7);
            w[p + 7] = bits(20.0f);
            setSize(p, 9);
        }
        setSize(a, w.size() - a);
        w[sub + 3] = static_cast<std::uint32_t>((w.size() - records) * 4);
    }
    void setSize(std::size_t at, std::size_t words) {
        const auto bytes = static_cast<std::uint32_t>(words * 4);
        w[at] = (w[at] & 0xFFFF) | (bytes & 0xFFFF) << 16;
        w[at + 1] = (w[at + 1] & 0xFFFF0000u) | bytes >> 16;
    }
    std::vector<std::uint32_t> w;
    std::size_t sub = 0, records = 0;
};

TEST(BglTest, ParkingEntriesAsTheRulesDecodeThem) {
    MadeBgl f;
    f.airport(tools::packIcao("EGTK"), 73833,
              {{10, 12, 1, 20.0f, 0.0f},    // g12, north is 360
               {10, 12, 1, 20.0f, 90.0f},   // the same name again: g12a
               {12, 3, 5, 1.0f, 0.0f},      // radius 1.0: skipped
               {12, 4, 5, 1.1f, 0.0f},      // A4, cargo
               {12, 5, 5, 199.9f, 0.0f},    // A5
               {12, 6, 5, 200.0f, 0.0f},    // skipped
               {13, 7, 0, 20.0f, 0.0f},     // type 0 (fuel): no stand
               {13, 8, 12, 20.0f, 0.0f},    // type 12: no stand
               {13, 9, 14, 20.0f, 0.0f, 3}, // B9, ramp, with three airline codes stepped over
               {13, 10, 8, 20.0f, 0.0f}},   // B10, a gate: no ramp
              2);
    const auto got = scan::decodeBgl(f.w, false, "made.bgl");
    ASSERT_EQ(got.airports.size(), 1u);
    const auto& s = got.airports[0].stands;
    std::vector<std::string> ids;
    for (const auto& x : s) ids.push_back(x.id);
    EXPECT_EQ(ids,
              (std::vector<std::string>{"g12", "g12a", "A4", "A5", "B9", "B10", "helipad1", "helipad2"}));
    ASSERT_EQ(s.size(), 8u);
    EXPECT_DOUBLE_EQ(s[0].headingRad, 6.283185307179586);
    EXPECT_NEAR(s[1].headingRad, M_PI / 2, 1e-6);
    EXPECT_TRUE(s[2].cargo && s[2].ramp);
    EXPECT_TRUE(s[4].ramp && !s[4].cargo);
    EXPECT_FALSE(s[5].ramp);
    EXPECT_TRUE(s[6].heli && !s[6].ramp && !s[6].cargo);
    EXPECT_NEAR(s[6].radiusNm * 1852.0, 10.0, 1e-6);
    EXPECT_EQ(got.airports[0].helipads, 2);
    EXPECT_EQ(got.airports[0].altitudeFt, 242);
    EXPECT_EQ(got.notes.size(), 2u); // the two radii
    EXPECT_NE(got.notes[0].find("Skipped position with radius 1.0 m in made.bgl"), std::string::npos);
}

// Broken files end a record or the file with a note; none reads beyond its words.
TEST(BglTest, BrokenSizesAndCountsStopAtTheData) {
    const auto good = [] {
        MadeBgl f;
        f.airport(tools::packIcao("EGTK"), 0, {{12, 1, 1, 20.0f, 0.0f}, {12, 2, 1, 20.0f, 0.0f}});
        return f;
    };
    struct Case {
        const char* what;
        std::function<void(MadeBgl&)> breakIt;
        std::size_t airports, stands;
    };
    const std::vector<Case> cases{
        {"intact", [](MadeBgl&) {}, 1, 2},
        {"header size not 0x38", [](MadeBgl& f) { f.w[1] = 0x40; }, 0, 0},
        {"no sections", [](MadeBgl& f) { f.w[5] = 0; }, 0, 0},
        {"more sections than words", [](MadeBgl& f) { f.w[5] = 0x7FFFFFFF; }, 0, 0},
        {"subsection headers of another size", [](MadeBgl& f) { f.w[15] |= 1u << 16; }, 0, 0},
        {"subsection past the end", [](MadeBgl& f) { f.w[17] = 0xFFFFFFF0u; }, 0, 0},
        {"records past the end", [](MadeBgl& f) { f.w[f.sub + 2] = 0xFFFFFFF0u; }, 0, 0},
        {"airport record of size 0", [](MadeBgl& f) { f.setSize(f.records, 0); }, 0, 0},
        {"airport record larger than the file", [](MadeBgl& f) { f.setSize(f.records, 1u << 28); }, 1, 2},
        {"parking count beyond its record", [](MadeBgl& f) { f.w[f.records + 18] |= 0xFFFFu << 16; }, 1, 2},
        {"airline codes beyond the record", [](MadeBgl& f) { f.w[f.records + 19] |= 0xFFu << 24; }, 1, 0},
        {"nested record of size 0", [](MadeBgl& f) { f.setSize(f.records + 17, 0); }, 1, 0},
        {"cut in the middle", [](MadeBgl& f) { f.w.resize(f.w.size() - 10); }, 1, 1},
        {"code that does not decode", [](MadeBgl& f) { f.w[f.records + 10] = 1u << 5; }, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto f = good();
        c.breakIt(f);
        const auto got = scan::decodeBgl(f.w, false);
        ASSERT_EQ(got.airports.size(), c.airports);
        if (c.airports > 0) {
            EXPECT_EQ(got.airports[0].stands.size(), c.stands);
        }
    }
    // A record that does not advance ends the walk instead of looping.
    auto f = good();
    f.setSize(f.records, 2);
    f.w[f.records + 2] = 0; // the next "record" has size 0
    EXPECT_NO_THROW((void)scan::decodeBgl(f.w, false));
    // The form MSFS 2024 writes and this reader does not read: not recognised, on 2024 only.
    auto g = good();
    g.w[g.records] = (g.w[g.records] & 0xFFFF0000u) | scan::kAirportRecord2024;
    EXPECT_FALSE(scan::decodeBgl(g.w, false).notRecognised);
    EXPECT_TRUE(scan::decodeBgl(g.w, true).notRecognised);
}

TEST(BglTest, ThePreCheckReadsTheSectionTableOnly) {
    test::TempDir dir;
    const auto write = [&](const char* name, std::vector<unsigned char> bytes) {
        std::ofstream(dir.path() / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return scan::hasAirportSection(dir.path() / name);
    };
    std::vector<unsigned char> bytes(56 + 20, 0);
    bytes[4] = 0x38, bytes[20] = 1, bytes[56] = 3;
    EXPECT_TRUE(write("one.bgl", bytes));
    EXPECT_FALSE(write("short.bgl", std::vector<unsigned char>(bytes.begin(), bytes.begin() + 56)));
    bytes[20] = 2; // a second entry would lie beyond the end
    EXPECT_FALSE(write("two.bgl", bytes));
    bytes[20] = 1, bytes[56] = 0x65;
    EXPECT_FALSE(write("terrain.bgl", bytes));
    EXPECT_FALSE(scan::hasAirportSection(dir.path() / "missing.bgl"));
}

class ScanTest : public test::ProgramHome {
  protected:
    void SetUp() override { ProgramHome::SetUp(); }
    scan::ScanLog scanLog;
    std::string logText() const {
        std::string s;
        for (const auto& l : scanLog.lines()) (s += l) += '\n';
        return s;
    }
    fs::path writeManifest(const fs::path& package, std::string_view text) {
        fs::create_directories(package);
        std::ofstream(package / "manifest.json") << text;
        return package / "manifest.json";
    }
};

TEST_F(ScanTest, PublishersFromNamesFoldersAndManifests) {
    const fs::path community = dir.path() / "sim" / "Community";
    struct Case {
        const char* what;
        std::string package;
        std::optional<std::string> manifest; // none: no file
        std::string file;
        std::string publisher, manufacturer, creator;
        std::vector<std::string> logged;
    };
    const std::string real = [] {
        std::ifstream in(scenery("fpl2scn-manifest.json"));
        return std::string(std::istreambuf_iterator<char>(in), {});
    }();
    const std::vector<Case> cases{
        {"the simulator's own by its name",
         "anything",
         R"({"manufacturer":"Orbx"})",
         "microsoft-airport-eham.bgl",
         "simaddon",
         "",
         "",
         {"from filename => publisher simaddon"}},
        {"the package folder's word",
         "orbx-airport-eglc",
         std::nullopt,
         "x.bgl",
         "Orbx",
         "",
         "",
         {"publisher 'Orbx' found"}},
        {"the real manifest",
         "visualpoints",
         real,
         "x.bgl",
         "",
         "",
         "ALFONSO SILONIZ",
         {"no valid info found in manifest about publisher, manufacturer:'', creator:'ALFONSO SILONIZ'",
          "===> No publisher found"}},
        {"manufacturer",
         "p1",
         R"({"manufacturer":"flytampa","creator":"Orbx"})",
         "x.bgl",
         "FlyTampa",
         "flytampa",
         "Orbx",
         {"from manifest.json: manufacturer 'flytampa' => publisher 'FlyTampa'"}},
        {"creator when the manufacturer is unknown",
         "p2",
         R"({"manufacturer":"Studio X","creator":"Aerosoft"})",
         "x.bgl",
         "Aerosoft",
         "Studio X",
         "Aerosoft",
         {"from manifest.json: creator 'Aerosoft' => publisher 'Aerosoft'"}},
        {"non-string fields",
         "p3",
         R"({"manufacturer":5,"creator":null,"title":[1]})",
         "x.bgl",
         "",
         "",
         "",
         {"===> No publisher found"}},
        {"empty fields",
         "p4",
         R"({"manufacturer":"","creator":""})",
         "x.bgl",
         "",
         "",
         "",
         {"===> No publisher found"}},
        {"unreadable",
         "p5",
         "{\"manufacturer\": \"Orbx\",",
         "x.bgl",
         "",
         "",
         "",
         {"===> No publisher found"}},
        {"not an object", "p6", "[\"Orbx\"]", "x.bgl", "", "", "", {"===> No publisher found"}},
        {"no manifest", "p7", std::nullopt, "x.bgl", "", "", "", {"===> No publisher found"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        scanLog.clear();
        const fs::path package = community / c.package;
        fs::create_directories(package / "scenery");
        if (c.manifest) writeManifest(package, *c.manifest);
        const auto info = scan::findPublisher(package / "scenery" / c.file, scanLog);
        EXPECT_EQ(info.publisher, c.publisher);
        EXPECT_EQ(info.manufacturer, c.manufacturer);
        EXPECT_EQ(info.creator, c.creator);
        EXPECT_EQ(info.stem, fs::path(c.file).stem().string());
        for (const auto& l : c.logged)
            EXPECT_NE(logText().find(l), std::string::npos) << l << "\n" << logText();
    }
    // No "Community" above the file: no manifest is looked for, even one beside it.
    writeManifest(dir.path() / "elsewhere", R"({"creator":"Orbx"})");
    EXPECT_FALSE(scan::searchManifest(dir.path() / "elsewhere" / "x.bgl", scanLog).valid);
    // A manifest below the package folder is found from the file's folder up.
    writeManifest(community / "deep" / "content", R"({"creator":"Just Flight"})");
    EXPECT_EQ(scan::findPublisher(community / "deep" / "content" / "scenery" / "a.bgl", scanLog).publisher,
              "Just Flight");
    EXPECT_FALSE(scan::readManifest(dir.path() / "none.json").valid);
}

TEST(ScanExclusionTest, FoldersAndFiles) {
    const std::string long249 = "/c/" + std::string(246, 'x');
    EXPECT_FALSE(scan::isExcludedFolder(long249));
    EXPECT_TRUE(scan::isExcludedFolder(long249 + "y"));
    for (const char* p :
         {"/sim/Community/FSLTL-traffic-base", "/sim/Official/OneStore/fs-base-genericairports",
          "/x/SimObjects/Airplanes", "/x/aig-aitraffic-oci"})
        EXPECT_TRUE(scan::isExcludedFolder(p)) << p;
    EXPECT_FALSE(scan::isExcludedFolder("/sim/Community/orbx-airport-eglc/scenery"));
    EXPECT_TRUE(scan::isExcludedFile("/c/p/Statics/a.bgl", false));
    EXPECT_TRUE(scan::isExcludedFile("/c/p/AFCAD updates/a.bgl", true));
    EXPECT_FALSE(scan::isExcludedFile("/c/p/AFCAD updates/a.bgl", false));
    EXPECT_TRUE(scan::isExcludedFile("/c/p/x_heliports/a.bgl", true));
    EXPECT_FALSE(scan::isExcludedFile("/c/p/scenery/a.bgl", true));
}

// EGTK's generated file reads back through the airport file reader with the same stands.
TEST_F(ScanTest, AGeneratedFileReadsBackWithTheSameStands) {
    const fs::path community = dir.path() / "sim" / "Community";
    const fs::path bgl = community / "egtk-oxford" / "scenery" / "egtk.bgl";
    fs::create_directories(bgl.parent_path());
    fs::copy_file(scenery("egtk-a39a6c8a.bgl"), bgl);
    writeManifest(community / "egtk-oxford", R"({"manufacturer":"","creator":"Ben W"})");
    EXPECT_TRUE(scan::scanFolders({community}));
    const fs::path xml = dir.path() / "airports/my_thirdparty/EGTK.xml";
    ASSERT_TRUE(fs::exists(xml));
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file(xml.c_str()));
    EXPECT_TRUE(
        doc.select_node("//parameter[@name='BGLpath'][@value='Community/egtk-oxford/scenery/egtk.bgl']"));
    EXPECT_TRUE(doc.select_node("//parameter[@name='creator'][@value='Ben W']"));
    EXPECT_TRUE(doc.select_node("//parameter[@name='altitude'][@value='242']"))
        << doc.select_node("//parameter[@name='altitude']").node().attribute("value").as_string();
    const auto back = af::readStands(doc, 1);
    auto words = scan::readBglWords(bgl);
    auto original = scan::decodeBgl(*words, false).airports.at(0).stands;
    std::sort(original.begin(), original.end(),
              [](const af::Stand& a, const af::Stand& b) { return a.id < b.id; });
    ASSERT_EQ(back.size(), original.size());
    for (std::size_t i = 0; i < back.size(); ++i) {
        SCOPED_TRACE(original[i].id);
        EXPECT_EQ(back[i].id, original[i].id);
        EXPECT_NEAR(back[i].latitude, original[i].latitude, 1e-6);
        EXPECT_NEAR(back[i].longitude, original[i].longitude, 1e-6);
        EXPECT_NEAR(back[i].headingRad, original[i].headingRad, 0.1 * M_PI / 180);
        EXPECT_NEAR(back[i].radiusNm, original[i].radiusNm, 0.05 / 1852.0);
        EXPECT_EQ(back[i].cargo, original[i].cargo);
        EXPECT_EQ(back[i].ramp, original[i].ramp);
    }
    // An airport the data site knows nothing of is packed for the maintainers.
    EXPECT_TRUE(log.contains("[zip] Added 1 files"));
    EXPECT_TRUE(fs::exists(dir.path() / "tblo.zip"));
    EXPECT_FALSE(fs::exists(dir.path() / "tblo"));
}

// A generated tree end to end: the files it should give, a start with nothing changed does not
// scan again, a changed add-on set does.
TEST_F(ScanTest, AGeneratedTreeEndToEnd) {
    const fs::path sim = dir.path() / "sim";
    const auto tree = tools::writeSceneryTree(sim, fs::path(ORV_SOURCE_DIR) / "data", 300);
    ASSERT_EQ(tree.airports.size(), 3u); // EGLC by Orbx, LSZH the simulator's own, EGTK of no publisher
    EXPECT_TRUE(scan::scanFolders({sim / "Official", sim / "Community"}));
    const fs::path airports = dir.path() / "airports";
    const auto text = [](const fs::path& p) {
        std::ifstream in(p);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    // The generated file, with more stands than the archived one, replaces the link.
    EXPECT_FALSE(fs::exists(airports / "my_thirdparty/EGLC.txt"));
    EXPECT_TRUE(fs::exists(airports / "my_thirdparty/EGLC.xml"));
    EXPECT_EQ(text(airports / "my_simaddon/LSZH.txt"), "archive/simaddon/LSZH.xml");
    EXPECT_FALSE(fs::exists(airports / "my_simaddon/LSZH.xml")) << "the simulator's own: only the link";
    EXPECT_TRUE(fs::exists(airports / "my_thirdparty/EGTK.xml"));
    EXPECT_EQ(scan::gScanProgress.airportsFound.load(), 3);
    EXPECT_EQ(scan::gScanProgress.foldersDone.load(), 2);
    const auto scanned = text(dir.path() / "output/AirportsScanLog.txt");
    EXPECT_NE(scanned.find("simaddon airport LSZH linked to archive/simaddon/LSZH.xml"), std::string::npos);
    EXPECT_NE(scanned.find("thirdparty airport EGLC linked to archive/thirdparty/Orbx/EGLC.xml"),
              std::string::npos);
    EXPECT_NE(scanned.find("===> EGLC has 80 parkpos while archived one has"), std::string::npos);
    EXPECT_NE(scanned.find("Generated EGTK.xml: 80 positions"), std::string::npos);
    EXPECT_EQ(scanned.find("tile"), std::string::npos) << "files without airports are never read";
    EXPECT_EQ(scanned.find("fsltl"), std::string::npos);
    EXPECT_EQ(af::findApf(refdata::AirportCode("LSZH")), "archive/simaddon/LSZH.xml");
    EXPECT_EQ(af::findApf(refdata::AirportCode("EGTK")), "airports\\my_thirdparty\\EGTK.xml");
}

TEST_F(ScanTest, TheScanRunsAgainOnlyWhenTheAddOnsChange) {
    const fs::path sim = dir.path() / "sim";
    (void)tools::writeSceneryTree(sim, fs::path(ORV_SOURCE_DIR) / "data", 20);
    params::set(params::parameter<params::StringParameter>("MSFS_INSTALL_PATH"), sim.string(),
                params::Save::no);
    ASSERT_EQ(sim::communityPath(), sim / "Community");
    EXPECT_TRUE(scan::addonsChanged()) << "never scanned";
    params::set(params::parameter<params::BoolParameter>("SCAN_AIRPORTS"), true, params::Save::no);
    EXPECT_TRUE(scan::scanAirports());
    EXPECT_FALSE(params::gParams.SCAN_AIRPORTS) << "done until asked again";
    EXPECT_FALSE(scan::addonsChanged());
    fs::create_directories(sim / "Community" / "new-airport");
    std::ofstream(sim / "Community" / "new-airport" / "manifest.json") << "{}";
    EXPECT_TRUE(scan::addonsChanged());
    EXPECT_TRUE(scan::scanAirports(true));
    EXPECT_FALSE(scan::addonsChanged());
    fs::remove_all(sim / "Community" / "new-airport");
    EXPECT_TRUE(scan::addonsChanged()) << "one removed is a change too";
}

TEST_F(ScanTest, NoAddOnsGiveAWarningAndNoZip) {
    fs::create_directories(dir.path() / "sim" / "Community");
    EXPECT_FALSE(scan::scanFolders({dir.path() / "sim" / "Community", dir.path() / "sim" / "missing"}));
    EXPECT_TRUE(log.contains("Warning: Scan has not found any add-on airports"));
    EXPECT_TRUE(log.contains("missing does not exist, skipped!"));
    EXPECT_FALSE(fs::exists(dir.path() / "tblo.zip"));
    EXPECT_TRUE(log.contains("All your third party airports are recognised"));
}

} // namespace
} // namespace orv
