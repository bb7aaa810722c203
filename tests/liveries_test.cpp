// The livery scan, the store built from its file, the registration lists, and matching.
#include <algorithm>
#include <fstream>
#include <map>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "liveries/internal.h"
#include "params/params.h"
#include "recording.h"
#include "refdata/refdata.h"
#include "sim/sim.h"
#include "support.h"

namespace orv::liveries {
namespace {

template <class P>
P& parameter(const char* name) {
    return dynamic_cast<P&>(*params::findParameter(name));
}

// A program folder with the shipped reference files and a clean livery state.
class LiveriesTest : public testing::Test {
  protected:
    void SetUp() override {
        core::gPaths.programFolder = dir.path();
        core::gPaths.dataFolder = dir.path();
        fs::create_directories(dir / "input");
        ASSERT_TRUE(refdata::loadDbase(test::shippedCopy("dbase.enc", dir / "input")));
        test::shippedCopy("AIG-regcodes.enc", dir / "input");
        gStore.reset();
        clearReports();
        clearTitleSet();
        resetMatching();
        seedMatching(7);
        params::gParams.RANDOM = false;
        params::gParams.MATCHING_DEPTH = 4;
        parameter<params::BoolParameter>("LIG_PRIORITIZE").value = true;
        for (const char* p : {"LIGHT_AIRCRAFT", "HIGH_PERF_AIRCRAFT", "HELICOPTERS"})
            params::set(parameter<params::BoolParameter>(p), true, params::Save::no);
        readDontUseTitles();
    }
    void TearDown() override {
        gStore.reset();
        clearReports();
        params::gParams.RANDOM = true;
    }
    static fs::path community() { return fs::path(ORV_SOURCE_DIR) / "data/liveries/Community"; }
    std::vector<LiveryData> parse(const std::string& text) {
        std::vector<std::string> lines;
        for (std::size_t start = 0; start < text.size();) {
            const auto nl = text.find('\n', start);
            lines.push_back(text.substr(start, nl - start));
            start = nl == std::string::npos ? text.size() : nl + 1;
        }
        return parseAircraftCfg(1, "X/aircraft.cfg", lines);
    }
    // Scans the fixed set and builds the store from the file the scan wrote.
    void scanAndProcess() {
        ASSERT_TRUE(scanFolders(collectAutomaticFolders(community())));
        processLiveries();
    }
    test::TempDir dir;
    test::LogCapture log;
};

TEST_F(LiveriesTest, SectionRules) {
    struct Case {
        const char* rule;
        std::string file;
        std::vector<std::string> liveries; // "title|airline|model|regcode|cargo"
        std::pair<Report, std::string> reported = {Report::Count, ""};
    };
    const std::string b738 = "[GENERAL]\nicao_type_designator = \"B738\"\n";
    const auto one = [&](const std::string& keys) { return b738 + "[fltsim.0]\ntitle = T1\n" + keys; };
    const Case cases[] = {
        {"header 10000 is valid",
         b738 + "[fltsim.10000]\ntitle = T1\nicao_airline = KLM\n",
         {"T1|KLM|B738||0"}},
        {"header above 10000 rejects the file",
         b738 + "[fltsim.10001]\ntitle = T1\nicao_airline = KLM\n",
         {},
         {Report::InvalidAircraftCfgFiles,
          "X/aircraft.cfg contains a [fltsim.x] section with a number < 0 or > 10000"}},
        {"upper case and letters count as 10000",
         b738 + "[FLTSIM.a]\ntitle = T1\nicao_airline = KLM\n",
         {"T1|KLM|B738||0"}},
        {"no section at all", b738, {}, {Report::NoFltsimSection, "X/aircraft.cfg"}},
        {"four letters ending in C", one("icao_airline = KLMC\n"), {"T1|KLM|B738||0"}},
        {"four letters ending in X", one("icao_airline = dalx ; comment\n"), {"T1|DAL|B738||0"}},
        {"ZZZZ is generic and loses its registration",
         one("icao_airline = ZZZZ\natc_id = PH-BXA\n"),
         {"T1|ZZZ|B738||0"}},
        {"unknown airline is reported, then private",
         one("icao_airline = XQX\n"),
         {"T1|PVT|B738||0"},
         {Report::InvalidAirlineCodes, "XQX          in X/aircraft.cfg [fltsim.0]"}},
        {"RFO drops the section quietly", one("icao_airline = RFO\n"), {}},
        {"several registrations give none",
         one("icao_airline = KLM\natc_id = PH-ABC,PH-DEF\n"),
         {"T1|KLM|B738||0"}},
        {"a comment ends the registration",
         one("icao_airline = KLM\natc_id = PH-ABC ;comment\n"),
         {"T1|KLM|B738|PH-ABC|0"}},
        {"stars make it invalid",
         one("icao_airline = KLM\natc_id = PH-***\n"),
         {"T1|KLM|B738||0"},
         {Report::IncompleteSections, "invalid atc_id=PH-*** in: X/aircraft.cfg"}},
        {"an empty atc_parking_types counts as one",
         one("icao_airline = FDX\natc_parking_types =\natc_parking_types = CARGO\n"),
         {"T1|FDX|B738||0"},
         {Report::IncompleteSections, "X/aircraft.cfg [fltsim.0] has more than one atc_parking_types key"}},
        {"a heavy without airline and with an unknown registration has no livery",
         "[GENERAL]\nicao_type_designator = \"B77W\"\n[fltsim.0]\ntitle = T1\natc_id = XX-NOPE\n",
         {}},
        {"a heavy without airline or registration has no livery",
         "[GENERAL]\nicao_type_designator = \"B77W\"\n[fltsim.0]\ntitle = T1\n",
         {}},
        {"a smaller type without airline is private", one("atc_id = XX-NOPE\n"), {"T1|PVT|B738|XX-NOPE|0"}},
        {"a title with a control character is refused",
         b738 + "[fltsim.0]\ntitle = T\x01X\nicao_airline = KLM\n",
         {},
         {Report::IncompleteSections,
          "X/aircraft.cfg [fltsim.0] has a title with control characters or broken text"}},
        {"a title of broken UTF-8 is refused",
         b738 + "[fltsim.0]\ntitle = T\xC3\nicao_airline = KLM\n",
         {},
         {Report::IncompleteSections,
          "X/aircraft.cfg [fltsim.0] has a title with control characters or broken text"}},
        {"CARGO alone is cargo", one("icao_airline = FDX\natc_parking_types = CARGO\n"), {"T1|FDX|B738||1"}},
        {"GATE,CARGO is passenger",
         one("icao_airline = FDX\natc_parking_types = \"GATE,CARGO\"\n"),
         {"T1|FDX|B738||0"}},
        {"a title is taken as written, ';' and '//' included",
         b738 + "[fltsim.0]\ntitle = Boeing 737; KLM // new\nicao_airline = KLM\n",
         {"Boeing 737; KLM // new|KLM|B738||0"}},
        {"a -STUB title is generic",
         b738 + "[fltsim.0]\ntitle = T1-STUB\nicao_airline = KLM\n",
         {"T1-STUB|ZZZ|B738||0"}},
        {"no title",
         b738 + "[fltsim.0]\nicao_airline = KLM\n",
         {},
         {Report::IncompleteSections, "X/aircraft.cfg [fltsim.0] misses title"}},
        {"two titles end the section's keys",
         one("title = T2\nicao_airline = KLM\n"),
         {"T1|PVT|B738||0"},
         {Report::IncompleteSections, "X/aircraft.cfg [fltsim.0] has more than one title key"}},
        {"a title seen before",
         one("icao_airline = KLM\n") + "[fltsim.1]\ntitle = T1\nicao_airline = DLH\n",
         {"T1|KLM|B738||0"},
         {Report::IncompleteSections, "X/aircraft.cfg [fltsim.1] title 'T1' already exists"}},
        {"a heavy type needs an airline or a registration",
         "[GENERAL]\nicao_type_designator = \"B77W\"\n[fltsim.0]\ntitle = T1\n",
         {}},
        {"a model fix or an unknown type",
         "[GENERAL]\nicao_type_designator = \"Z99Z\"\n[fltsim.0]\ntitle = T1\n",
         {},
         {Report::InvalidAircraftCodes, "Z99Z             in X/aircraft.cfg"}},
        {"base_container of an Asobo aircraft",
         "[GENERAL]\nbase_container = \"..\\Asobo_C172sp_classic\"\n[fltsim.0]\ntitle = T1\n",
         {"T1|PVT|C172||0"}},
        {"a title on the list not to use",
         b738 + "[fltsim.0]\ntitle = AIG Boeing 737-900 United Airlines\nicao_airline = UAL\n",
         {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        clearReports();
        clearTitleSet();
        std::vector<std::string> got;
        for (const auto& l : parse(c.file))
            got.push_back(fmt::format("{}|{}|{}|{}|{}", l.title, refdata::airlineCode(l.airline),
                                      refdata::modelCode(l.model), l.regcode, l.cargo ? 1 : 0));
        EXPECT_EQ(got, c.liveries);
        if (c.reported.first != Report::Count) {
            const auto lines = reportLines(c.reported.first);
            EXPECT_NE(std::find(lines.begin(), lines.end(), c.reported.second), lines.end())
                << (lines.empty() ? "(no lines)" : lines.front());
        }
    }
}

// The committed set is the generator's output, byte for byte, so neither drifts from the other.
TEST_F(LiveriesTest, TheFixedSetIsWhatTheGeneratorWrites) {
    testing::internal::CaptureStdout();
    tools::liveriesMain({(dir / "generated").string()});
    testing::internal::GetCapturedStdout();
    const auto files = [](const fs::path& root) {
        std::map<std::string, std::string> out;
        for (const auto& e : fs::recursive_directory_iterator(root))
            if (e.is_regular_file()) out[fs::relative(e.path(), root).string()] = test::readBytes(e.path());
        return out;
    };
    const auto generated = files(dir / "generated");
    EXPECT_EQ(generated.size(), 44u);
    EXPECT_TRUE(generated == files(community())) << "run: orvelline-data liveries data/liveries/Community";
}

TEST_F(LiveriesTest, TheRealAircraftCfg) {
    const auto got = searchLiveriesInFile(3, fs::path(ORV_SOURCE_DIR) /
                                                 "data/liveries/real/flybywire-a320neo.aircraft.cfg");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(refdata::modelCode(got[0].model), "A20N");
    EXPECT_EQ(got[0].folder, 3);
    EXPECT_FALSE(got[0].cargo) << "GATE,RAMP,CARGO serves passengers";
    // No icao_airline and a registration the database doesn't know: a private livery.
    EXPECT_EQ(refdata::airlineCode(got[0].airline), "PVT");
}

TEST_F(LiveriesTest, TheFixedSetScansWritesAndReadsBack) {
    const auto folders = collectAutomaticFolders(community());
    std::vector<std::string> names;
    for (const auto& f : folders) names.push_back(f.filename().string());
    EXPECT_EQ(names,
              (std::vector<std::string>{"aig-aitraffic-oci-beta", "fsltl-traffic-base",
                                        "justflight-aircraft-traffic-fleet", "IVAO_MTL", "user-aitraffic"}));
    ASSERT_TRUE(scanFolders(folders));
    readLiveries();
    std::map<std::string, std::string> byTitle;
    for (const auto& l : gStore.list)
        byTitle[l.title] = fmt::format("{} {} {} {}", refdata::airlineCode(l.airline),
                                       refdata::modelCode(l.model), l.regcode, l.cargo ? "cargo" : "pax");
    const std::map<std::string, std::string> expected = {
        {"A388 DLH Lufthansa", "DLH A388  pax"},
        {"AIG Airbus A320 British Airways", "BAW A320  pax"},
        {"AIG Airbus A320 Generic", "ZZZ A320  pax"},
        {"AIG Airbus A320 Lufthansa", "DLH A320  pax"},
        {"AIG Airbus A320 Swiss", "SWR A320  pax"},
        {"AIG Airbus A321 American Airlines", "AAL A321  pax"},
        {"AIG Airbus A321 Delta Air Lines", "DAL A321  pax"},
        {"AIG Boeing 737-800 Corendon Airlines", "CAI B738  pax"},
        {"AIG Boeing 737-800 KLM", "KLM B738  pax"},
        {"AIG Boeing 737-800 United Airlines", "UAL B738  pax"},
        {"AIG Boeing 737-800 Unknown Operator", "PVT B738  pax"},
        {"AIG Boeing 737-900 Delta Air Lines", "DAL B739  pax"},
        {"AIG Boeing 737-900 Delta Air Lines N899DN", "DAL B739 N899DN pax"},
        {"AIG Boeing 737-900 placeholder-STUB", "ZZZ B739  pax"},
        {"Cessna 172 private N12345", "PVT C172  pax"},
        {"Delta Air Lines special colours", "DAL B739 N801DZ pax"},
        {"FSLTL_B772_KLM KLM", "KLM B772  pax"},
        {"FSLTL_B77W_SWR Swiss", "SWR B77W  pax"},
        {"FSLTL_B77W_ZZZZ Generic", "ZZZ B77W  pax"},
        {"FSLTL_B789_ACA Air Canada", "ACA B789  pax"},
        {"JF Boeing 757-200 Delta Air Lines", "DAL B752  pax"},
        {"JF Boeing 767-300 FedEx Pilot Trainer", "FDX B763  pax"},
        {"JF Boeing 767-300F Frachtflug Gen\xC3\xA8ve", "FDX B763  cargo"},
        {"JF Boeing 767-300F FedEx Express", "FDX B763  cargo"},
    };
    // The quirky files read as they must; the rest is the breadth of a typical install.
    for (const auto& [title, what] : expected) EXPECT_EQ(byTitle[title], what) << title;
    EXPECT_EQ(byTitle["FSLTL_B744_ZZZZ Generic"], "ZZZ B744  pax");
    EXPECT_EQ(byTitle["AIG Eurocopter EC135 Rega"], "RGA EC35  pax");
    EXPECT_EQ(byTitle.size(), 54u);
    // The UTF-16 and Windows-1252 files were read; the _CVT_ copy, the United title (not to
    // use) and the IVAO livery without its texture folder were not.
    const auto errors = [&](Report r) { return reportPath(r); };
    EXPECT_TRUE(fs::exists(errors(Report::InvalidAirlineCodes)));
    EXPECT_TRUE(fs::exists(errors(Report::InvalidAircraftCodes)));
    EXPECT_TRUE(fs::exists(errors(Report::NoFltsimSection)));
    EXPECT_FALSE(fs::exists(errors(Report::Fixes)));
    const auto incomplete = test::readBytes(errors(Report::IncompleteSections));
    EXPECT_NE(incomplete.find("IVAO_A388/aircraft.cfg [FLTSIM.1] does not exist"), std::string::npos)
        << incomplete;
    EXPECT_TRUE(log.contains("    1 invalid airline code, see "));
    EXPECT_TRUE(log.contains("    1 empty aircraft.cfg file, see "));
    EXPECT_TRUE(log.contains("54 liveries in "));
}

TEST_F(LiveriesTest, FolderPriority) {
    // The same airline and type in two folders: with priority only the first folder's survive.
    const auto write = [&](const char* folder, const char* title) {
        fs::create_directories(dir / folder / "p");
        test::writeBytes(
            dir / folder / "p/aircraft.cfg",
            fmt::format("[GENERAL]\nicao_type_designator = B738\n[fltsim.0]\ntitle = {}\nicao_airline = KLM\n"
                        "[fltsim.1]\ntitle = {} two\nicao_airline = DLH\n",
                        title, title));
    };
    write("first", "First KLM");
    write("second", "Second KLM");
    for (const bool prioritize : {true, false}) {
        SCOPED_TRACE(prioritize);
        parameter<params::BoolParameter>("LIG_PRIORITIZE").value = prioritize;
        gStore.reset();
        ASSERT_TRUE(scanFolders({dir / "first", dir / "nonexistent", dir / "second"}));
        readLiveries();
        std::vector<std::string> titles;
        for (const auto& l : gStore.list) titles.push_back(l.title);
        if (prioritize)
            EXPECT_EQ(titles, (std::vector<std::string>{"First KLM two", "First KLM"}));
        else
            EXPECT_EQ(titles.size(), 4u);
    }
    EXPECT_TRUE(log.contains("/nonexistent does not exist, skipped!"));
}

// One file the scan can't use costs its own liveries only: one far too big is skipped unread, a
// section of endless lines is reported, and the rest of the package and of the file is found.
TEST_F(LiveriesTest, OneHugeFileOrSectionLosesNothingElse) {
    const auto pkg = dir / "pkg";
    fs::create_directories(pkg / "huge");
    fs::create_directories(pkg / "long");
    {
        std::ofstream(pkg / "huge/aircraft.cfg") << "[GENERAL]\nicao_type_designator = B738\n";
        fs::resize_file(pkg / "huge/aircraft.cfg", 40u << 20); // sparse: no disk, but 40 MB to read
    }
    std::string text = "[GENERAL]\nicao_type_designator = B738\n[fltsim.0]\ntitle = Endless\n";
    for (std::size_t i = 0; i < kMaxSectionLines + 10; ++i) text += "; a comment\n";
    text += "icao_airline = KLM\n[fltsim.1]\ntitle = After The Long One\nicao_airline = DLH\n";
    test::writeBytes(pkg / "long/aircraft.cfg", text);
    ASSERT_TRUE(scanFolders({pkg}));
    readLiveries();
    std::vector<std::string> titles;
    for (const auto& l : gStore.list) titles.push_back(l.title);
    EXPECT_EQ(titles, std::vector<std::string>{"After The Long One"});
    EXPECT_TRUE(
        log.contains("huge/aircraft.cfg has 40 MB, more than an aircraft.cfg can have (16 MB): skipped"))
        << log.text();
    EXPECT_NE(
        test::readBytes(reportPath(Report::IncompleteSections)).find("[fltsim.0] has more than 2000 lines"),
        std::string::npos);
}

TEST_F(LiveriesTest, IvaoFiles) {
    const auto folder = dir / "IVAO_MTL/SimObjects/Airplanes/IVAO_B738";
    fs::create_directories(folder / "texture.KLM");
    fs::create_directories(folder / "texture.XQX");
    struct Case {
        const char* name;
        std::string section;
        std::string livery; // "title|airline|regcode", empty: none
        std::string reported;
    };
    const Case cases[] = {
        {"airline from the title", "title = B738 KLM Royal Dutch\ntexture = KLM\n",
         "B738 KLM Royal Dutch|KLM|", ""},
        {"spaces around the title", "title =   B738 KLM spaced  \ntexture = KLM\n", "B738 KLM spaced|KLM|",
         ""},
        {"texture folder missing", "title = B738 KLM no texture\ntexture = DLH\n", "", " does not exist"},
        {"airline not known", "title = B738 XQX Unknown\ntexture = XQX\n", "", "XQX"},
        {"no texture key: the folder 'texture.' must be there too", "title = B738 KLM no key\n", "",
         "[fltsim.0] does not exist"},
        {"no airline in the title, registration known",
         "title = KLM PH-BXA\natc_id = PH-BXA\ntexture = KLM\n", "KLM PH-BXA|KLM|PH-BXA", ""},
        {"no airline and no registration", "title = Plain paint\ntexture = KLM\n", "",
         " misses airlinecode in title: Plain paint, and no regcode"},
        {"a second atc_parking_types",
         "title = B738 KLM two\ntexture = KLM\natc_parking_types=\natc_parking_types=GATE\n", "",
         " has more than one atc_parking_types key"},
        {"no title", "texture = KLM\n", "", " misses title"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        clearReports();
        clearTitleSet();
        test::writeBytes(folder / "aircraft.cfg", "[fltsim.0]\n" + c.section);
        const auto got = searchLiveriesInIvaoFile(2, folder / "aircraft.cfg");
        std::string livery;
        for (const auto& l : got)
            livery = fmt::format("{}|{}|{}", l.title, refdata::airlineCode(l.airline), l.regcode);
        EXPECT_EQ(livery, c.livery);
        for (const auto& l : got) EXPECT_EQ(refdata::modelCode(l.model), "B738");
        std::string reports;
        for (const auto r : {Report::IncompleteSections, Report::InvalidAirlineCodes})
            for (const auto& l : reportLines(r)) reports += l + "\n";
        if (c.reported.empty()) {
            EXPECT_EQ(reports, "");
        } else {
            EXPECT_NE(reports.find(c.reported), std::string::npos) << reports;
        }
    }
}

TEST_F(LiveriesTest, AnIvaoFileWithoutReadableTextIsSaidSo) {
    const auto folder = dir / "IVAO_MTL/SimObjects/Airplanes/IVAO_B738";
    fs::create_directories(folder);
    fs::create_symlink(folder / "gone.cfg", folder / "aircraft.cfg");
    EXPECT_TRUE(searchLiveriesInIvaoFile(2, folder / "aircraft.cfg").empty());
    EXPECT_TRUE(log.contains("! No text encoding detected for " + (folder / "aircraft.cfg").string()));
}

// The registration lists win over what an aircraft.cfg says, and say so.
TEST_F(LiveriesTest, AListRecordReplacesAnInlineRegistration) {
    fs::create_directories(dir / "my_regcodes");
    test::writeBytes(dir / "my_regcodes" / "mine.txt", "AIG Boeing 737-900 Delta Air Lines;N899DN\n");
    scanAndProcess();
    EXPECT_EQ(gStore.regcodeTitles.at("N899DN"), "AIG Boeing 737-900 Delta Air Lines");
    const auto offline = test::readBytes(reportPath(Report::OfflineRegcodes));
    EXPECT_NE(offline.find("regcode N899DN for 'AIG Boeing 737-900 Delta Air Lines', instead of the same for "
                           "'AIG Boeing 737-900 Delta Air Lines N899DN'"),
              std::string::npos)
        << offline;
    EXPECT_NE(offline.find("1 regcode replaced"), std::string::npos) << offline;
}

// A damaged list of scanned liveries is kept aside and scanned anew instead of stopping the start.
TEST_F(LiveriesTest, ADamagedScannedListIsScannedAgain) {
    fs::create_directories(liveriesFile().parent_path());
    test::writeBytes(liveriesFile(), "<root><liveries><l a=\"KLM\" t=\"x");
    EXPECT_FALSE(liveriesFileExists());
    EXPECT_FALSE(fs::exists(liveriesFile()));
    fs::path kept = liveriesFile();
    kept.replace_extension(".0.xml");
    EXPECT_EQ(test::readBytes(kept), "<root><liveries><l a=\"KLM\" t=\"x");
    EXPECT_TRUE(log.contains("is damaged"));
    EXPECT_TRUE(log.contains("your liveries will be scanned again"));
}

// Categories without liveries switch their traffic off, in the file and in the engine.
TEST_F(LiveriesTest, CategoriesWithoutLiveriesAreSwitchedOff) {
    fs::create_directories(dir / "pkg/a");
    test::writeBytes(
        dir / "pkg/a/aircraft.cfg",
        "[GENERAL]\nicao_type_designator = C172\n[fltsim.0]\ntitle = Skyhawk\nicao_airline = DLH\n");
    ASSERT_TRUE(scanFolders({dir / "pkg"})) << log.text();
    processLiveries();
    EXPECT_FALSE(parameter<params::BoolParameter>("HELICOPTERS").value);
    EXPECT_FALSE(parameter<params::BoolParameter>("HIGH_PERF_AIRCRAFT").value);
    EXPECT_TRUE(parameter<params::BoolParameter>("LIGHT_AIRCRAFT").value);
    EXPECT_FALSE(params::gParams.HELICOPTERS) << "the switch reaches the engine";
    EXPECT_FALSE(params::gParams.HIGH_PERF_AIRCRAFT);
    EXPECT_TRUE(params::gParams.LIGHT_AIRCRAFT);
    EXPECT_NE(test::readBytes(dir / "parameters.xml").find(R"(name="HELICOPTERS" value="false")"),
              std::string::npos);
}

TEST_F(LiveriesTest, InlineRegistrationClash) {
    fs::create_directories(dir / "pkg/a");
    test::writeBytes(
        dir / "pkg/a/aircraft.cfg",
        "[GENERAL]\nicao_type_designator = B738\n[fltsim.0]\ntitle = KLM one\nicao_airline = KLM\natc_id = "
        "PH-BXC\n[fltsim.1]\ntitle = KLM two\nicao_airline = KLM\natc_id = PH-BXC\n");
    ASSERT_TRUE(scanFolders({dir / "pkg"}));
    processLiveries();
    EXPECT_EQ(gStore.regcodeTitles.at("PH-BXC"), "KLM one") << "the first in sort order owns it";
    EXPECT_EQ(test::readBytes(reportPath(Report::InlineRegcodes)),
              "PH-BXC 'KLM two' => already in use by 'KLM one'\n");
    EXPECT_TRUE(log.contains("    1 in-line regcode clash, see '"));
}

TEST_F(LiveriesTest, ProcessingBuildsTheMaps) {
    scanAndProcess();
    auto& s = gStore;
    // Registrations: in-line N899DN, the AIG list's KLM pair and the special DAL pair's first.
    EXPECT_EQ(s.regcodeTitles.at("N899DN"), "AIG Boeing 737-900 Delta Air Lines N899DN");
    EXPECT_EQ(s.regcodeTitles.at("PH-BXA"), "AIG Boeing 737-800 KLM");
    EXPECT_EQ(s.regcodeTitles.at("N802DZ"), "Delta Air Lines special colours");
    EXPECT_FALSE(s.regcodeTitles.contains("N999ZZ")) << "its title is not installed";
    EXPECT_EQ(s.uniqueRegcodes, (std::set<std::string, std::less<>>{"N899DN"}));
    EXPECT_EQ(s.specialRegcodes, (std::set<std::string, std::less<>>{"N801DZ", "N802DZ", "N899DN"}));
    EXPECT_EQ(s.specialTitles.size(), 2u);
    const auto offline = test::readBytes(reportPath(Report::OfflineRegcodes));
    EXPECT_NE(offline.find("Processing file AIG-regcodes.enc"), std::string::npos) << offline;
    EXPECT_NE(offline.find("3 new regcodes added, 2 regcodes defined as special"), std::string::npos)
        << offline;
    // Cargo and passenger titles are kept apart; generic liveries by model.
    const refdata::AirlineId fdx = refdata::airlineId("FDX");
    const refdata::ModelId b763 = refdata::modelId("B763");
    EXPECT_EQ(s.airlineTitles[1].at(fdx).at(b763).size(), 2u);
    EXPECT_EQ(s.airlineTitles[0].at(fdx).at(b763).size(), 1u);
    EXPECT_EQ(s.genericTitles[0].at(refdata::modelId("B739")).size(), 4u);
    // Similar types: KLM has a B738, so a B739 of KLM may take it.
    EXPECT_EQ(similarOfAirline(refdata::airlineModelKey(refdata::airlineId("KLM"), refdata::modelId("B739"))),
              std::vector<refdata::ModelId>{refdata::modelId("B738")});
    EXPECT_EQ(s.categoryModels[0],
              (std::vector<refdata::ModelId>{refdata::modelId("AT76"), refdata::modelId("C172"),
                                             refdata::modelId("DH8D")}));
    EXPECT_TRUE(log.contains("25 models have a generic livery"));
    // A second processing in the same process only says so.
    processLiveries();
    EXPECT_TRUE(log.contains("Processing scanned liveries skipped; already done in previous start-up"));
}

TEST_F(LiveriesTest, BrokenLiveryFiles) {
    struct Case {
        const char* text;
        int code;
    };
    const Case cases[] = {
        {"not xml at all <", 51},
        {"<root><meta/></root>", 52},
        {"<root><liveries></liveries></root>", 533},
        {"<root><liveries><l a=\"KLM\" t=\"T\"/></liveries></root>", 999},
    };
    for (const auto& c : cases) {
        fs::create_directories(dir / "output");
        test::writeBytes(liveriesFile(), c.text);
        try {
            readLiveries();
            ADD_FAILURE() << c.text;
        } catch (const core::UserErrorException& e) {
            EXPECT_EQ(e.number(), c.code) << c.text;
        }
    }
}

TEST_F(LiveriesTest, RegcodeLines) {
    struct Case {
        const char* line;
        bool record;
        std::vector<std::string> regcodes;
        bool special;
        const char* wrong = "";
    };
    const Case cases[] = {
        {"KLM B738 PH-BXA;PH-BXA", true, {"PH-BXA"}, true},
        {"KLM B738 many;PH-BXA,PH-BXB", true, {"PH-BXA", "PH-BXB"}, false},
        {"KLM B738 many;PH-BXA,PH-BXB;#", true, {"PH-BXA", "PH-BXB"}, true},
        {"Some title;", true, {}, false},
        {"short", false, {}, false},
        {"a;b;c;d", false, {}, false},
        {"no separator at all", false, {}, false},
        {"Bad length;AB,PH-BXC", true, {"PH-BXC"}, true, "AB"},
    };
    for (const auto& c : cases) {
        RegcodeRecord r;
        std::string wrong;
        EXPECT_EQ(parseRegcodeLine(c.line, r, wrong), c.record) << c.line;
        EXPECT_EQ(wrong, c.wrong) << c.line;
        if (!c.record) continue;
        EXPECT_EQ(r.regcodes, c.regcodes) << c.line;
        EXPECT_EQ(r.special, c.special) << c.line;
    }
}

// ---- Matching --------------------------------------------------------------------------------

class MatchingTest : public LiveriesTest {
  protected:
    void SetUp() override {
        LiveriesTest::SetUp();
        scanAndProcess();
    }
    std::string match(const char* airline, const char* model, const char* regcode = "", bool cargo = false,
                      int* step = nullptr) {
        MatchAircraft a;
        a.key = refdata::airlineModelKey(refdata::airlineId(airline), refdata::modelId(model));
        a.regcode = regcode;
        a.category = refdata::category(refdata::modelId(model));
        a.cargo = cargo;
        a.describe(fmt::format("{} {} {}", airline, model, regcode));
        const auto before = gMatchStepCount;
        matchLiveLivery(a);
        if (step) {
            *step = -1;
            for (int i = 0; i < 7; ++i)
                if (gMatchStepCount[static_cast<std::size_t>(i)] != before[static_cast<std::size_t>(i)])
                    *step = i;
        }
        return std::string(a.title);
    }
};

TEST_F(MatchingTest, TheLadderAtEachDepth) {
    struct Case {
        const char* name;
        int depth;
        const char *airline, *model, *regcode;
        bool cargo;
        std::string title; // empty: no match
        int step;
    };
    const Case cases[] = {
        {"unique special registration", 4, "DAL", "B739", "N899DN", false,
         "AIG Boeing 737-900 Delta Air Lines N899DN", 0},
        {"listed registration", 4, "KLM", "B738", "PH-BXB", false, "AIG Boeing 737-800 KLM", 1},
        {"registration wins over airline", 1, "UAL", "B738", "PH-BXA", false, "AIG Boeing 737-800 KLM", 1},
        {"depth 1 matches registrations only", 1, "KLM", "B738", "PH-ZZZ", false, "", -1},
        {"airline and model", 2, "KLM", "B738", "", false, "AIG Boeing 737-800 KLM", 2},
        {"special paint only for its registrations", 2, "DAL", "B739", "", false,
         "AIG Boeing 737-900 Delta Air Lines", 2},
        {"dbase airline of the registration", 2, "XXX", "B739", "N899DN", false,
         "AIG Boeing 737-900 Delta Air Lines N899DN", 0},
        {"depth 2 stops before similar types", 2, "KLM", "B739", "", false, "", -1},
        {"similar type of the airline", 3, "KLM", "B739", "", false, "AIG Boeing 737-800 KLM", 3},
        {"heavy with an unknown airline at depth 3", 3, "AFR", "B77W", "", false, "", -1},
        {"heavy with an unknown airline at depth 4", 4, "AFR", "B77W", "", false, "FSLTL_B77W_ZZZZ Generic",
         4},
        {"large takes a generic paint of its type", 4, "AFR", "B738", "", false, "FSLTL_B738_ZZZZ Generic",
         4},
        {"large never takes another airline", 4, "AFR", "B752", "", false, "", -1},
        {"light type falls to any airline", 3, "ABC", "C172", "", false, "Cessna 172 private N12345", 5},
        {"private prefers a generic paint", 2, "PVT", "A320", "", false, "AIG Airbus A320 Generic", 4},
        {"cargo takes its airline's cargo paint", 2, "FDX", "B763", "", true,
         "JF Boeing 767-300F FedEx Express", 2},
        {"cargo may wear a passenger paint", 2, "DAL", "B752", "", true, "JF Boeing 757-200 Delta Air Lines",
         2},
        {"passenger never wears a cargo paint", 2, "FDX", "B763", "", false,
         "JF Boeing 767-300 FedEx Pilot Trainer", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        params::gParams.MATCHING_DEPTH = c.depth;
        int step = -2;
        EXPECT_EQ(match(c.airline, c.model, c.regcode, c.cargo, &step), c.title);
        EXPECT_EQ(step, c.step);
    }
}

// Rules of the ladder that show on single cases.
TEST_F(MatchingTest, LadderRulesOfSingleCases) {
    params::gParams.MATCHING_DEPTH = 4;
    // Step 2: the flight's airline comes before the registration record's airline: a United flight
    // in a KLM aircraft (a KLM registration of the reference data) wears United's B738.
    std::string klm;
    for (char a = 'A'; a <= 'Z' && klm.empty(); ++a)
        for (char b = 'A'; b <= 'Z' && klm.empty(); ++b) {
            const std::string reg = fmt::format("PH-{}{}A", a, b);
            const auto rec = refdata::dbaseRecordOf(reg);
            if (rec && refdata::airlineCode(rec->airline) == "KLM" && !gStore.regcodeTitles.contains(reg))
                klm = reg;
        }
    ASSERT_FALSE(klm.empty());
    int step = -2;
    EXPECT_EQ(match("UAL", "B738", klm.c_str(), false, &step), "AIG Boeing 737-800 United Airlines");
    EXPECT_EQ(step, 2);
    EXPECT_EQ(match("", "B738", klm.c_str(), false, &step), "AIG Boeing 737-800 KLM") << "else the record's";
    // The similar-type step takes only types of the aircraft's own category.
    MatchAircraft a;
    a.key = refdata::airlineModelKey(refdata::airlineId("KLM"), refdata::modelId("B739"));
    a.category = refdata::Category::Heavy; // not the category of KLM's B738
    a.describe("KLM B739 as heavy");
    params::gParams.MATCHING_DEPTH = 3;
    matchLiveLivery(a);
    EXPECT_EQ(a.title, "") << "a B738 is no similar type of another category";
    // Smaller types at depth 3 take a ZZZ generic paint of the type (step 4) before any airline's
    // paint of it (step 5). The fixed set has ZZZ paints of airliners only: an A320 filed as Light.
    MatchAircraft light;
    light.key = refdata::airlineModelKey(refdata::airlineId("ABC"), refdata::modelId("A320"));
    light.category = refdata::Category::Light;
    light.describe("ABC A320 as light");
    const auto before = gMatchStepCount;
    matchLiveLivery(light);
    EXPECT_EQ(light.title, "AIG Airbus A320 Generic");
    EXPECT_EQ(gMatchStepCount[4], before[4] + 1);
}

TEST_F(MatchingTest, RefusedTitlesStayOffTheStaticPath) {
    refuseTitle("AIG Airbus A320 Swiss");
    MatchAircraft a;
    a.key = refdata::airlineModelKey(refdata::airlineId("SWR"), refdata::modelId("A320"));
    a.category = refdata::Category::Large;
    a.describe("HB-JLA A320");
    params::gParams.MATCHING_DEPTH = 4;
    (void)matchStaticLivery(a, "E12", false);
    EXPECT_NE(a.title, "AIG Airbus A320 Swiss");
}

TEST_F(MatchingTest, RandomPicksStayAmongTheNonSpecialTitles) {
    params::gParams.RANDOM = true;
    seedMatching(12345);
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) seen.insert(match("DAL", "B739"));
    // Two special paints and the STUB (filed as generic) never show up for a plain DAL B739.
    EXPECT_EQ(seen, (std::set<std::string>{"AIG Boeing 737-900 Delta Air Lines"}));
    params::gParams.RANDOM = false;
    EXPECT_EQ(match("DAL", "B739"), match("DAL", "B739")) << "without RANDOM the same livery every time";
}

TEST_F(MatchingTest, RefusedTitlesAreNeverGivenAgain) {
    params::gParams.MATCHING_DEPTH = 4;
    refuseTitle("AIG Boeing 737-800 KLM");
    int step = -2;
    // The registration finds the refused title; the ladder goes on, finds the same title again
    // at step 2 for KLM B738, and ends at the generic paint.
    EXPECT_EQ(match("KLM", "B738", "PH-BXA", false, &step), "FSLTL_B738_ZZZZ Generic");
    EXPECT_EQ(gMatchStepCount[1], 0);
    EXPECT_EQ(step, 4);
    resetMatching();
    refuseTitle("AIG Boeing 737-800 KLM");
    logMatchingSummary();
    EXPECT_FALSE(log.contains("Could not be created")) << "nothing matched yet: no summary";
    match("DLH", "A320");
    logMatchingSummary();
    EXPECT_TRUE(log.contains("Could not be created\n  AIG Boeing 737-800 KLM"));
    EXPECT_TRUE(log.contains(" live traffic livery matching summary "));
}

TEST_F(MatchingTest, StaticAircraft) {
    MatchAircraft a;
    a.key = refdata::airlineModelKey(refdata::airlineId("SWR"), refdata::modelId("A320"));
    a.category = refdata::Category::Large;
    a.describe("HB-JLA A320");
    params::gParams.MATCHING_DEPTH = 1;
    EXPECT_FALSE(matchStaticLivery(a, "E12", false));
    EXPECT_TRUE(log.contains("E12     : HB-JLA A320 no livery match ..."));
    params::gParams.MATCHING_DEPTH = 4;
    EXPECT_TRUE(matchStaticLivery(a, "E12", false));
    EXPECT_EQ(a.title, "AIG Airbus A320 Swiss");
    EXPECT_TRUE(matchStaticLivery(a, "E12", false)) << "a title restored from a saved file stands";
    EXPECT_TRUE(log.contains("HB-JLA A320 =s= AIG Airbus A320 Swiss"));
    EXPECT_EQ(gMatchStepCount, (std::array<std::int32_t, 7>{})) << "static matches are not counted";
}

} // namespace
} // namespace orv::liveries
