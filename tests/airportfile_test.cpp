#include <chrono>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "program_home.h"
#include "support.h"

namespace orv {
namespace {

namespace af = airportfile;
using test::LogCapture;
using test::TempDir;

af::HourBits bits(std::initializer_list<int> hs) {
    af::HourBits b;
    for (int h : hs) b.set(h);
    return b;
}

TEST(HourBitsTest, TextsBothWays) {
    struct Case {
        const char* text;
        af::HourBits read;
        const char* written; // nullptr: no single or range form
        const char* logged;  // a part of the log line, or nullptr for none
    };
    af::HourBits all;
    for (int h = 0; h < 48; ++h) all.set(h);
    const Case cases[] = {
        {"", {}, nullptr, nullptr},
        {"47", bits({47}), "47", nullptr},
        {"48", {}, nullptr, "invalid hour '48' in 48"},
        {"0:47", all, "0:47", nullptr},
        {"12:8", {}, nullptr, "descending range not allowed (12:8 in 12:8)"},
        {"4:4", bits({4}), "4", nullptr},
        {"1:2:3", {}, nullptr, "more than one colon char in: 1:2:3"},
        {"3,x,7", bits({3, 7}), nullptr, "invalid hour 'x' in 3,x,7"},
        {" 5 : 9 ", bits({5, 6, 7, 8, 9}), "5:9", nullptr},
        {"2:x", {}, nullptr, "invalid hour 'x'"},
        {"-1", {}, nullptr, "invalid hour '-1'"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        const auto got = af::hours2bitset(c.text);
        EXPECT_EQ(got.word(), c.read.word()) << c.text;
        const auto text = af::bitset2hours(got);
        EXPECT_EQ(text.value_or("none"), c.written ? c.written : "none") << c.text;
        if (c.logged)
            EXPECT_TRUE(log.contains(c.logged)) << c.text;
        else
            EXPECT_FALSE(log.contains("invalid hour") || log.contains("hours2bitset")) << c.text;
    }
    EXPECT_EQ(af::bitset2list(bits({3, 7, 20})), "3,7,20");
    EXPECT_EQ(af::bitset2list({}), "");
}

TEST(HourBitsTest, DaysAndHalfHoursWrapBackwards) {
    // 2025-02-05 01:12 UTC was a Wednesday, half hour 2.
    EXPECT_EQ(af::dayHalfHour(1738717920), (af::DayHalfHour{3, 2}));
    struct Case {
        af::DayHalfHour from;
        int back;
        af::DayHalfHour to;
    };
    for (const auto& c : {Case{{1, 8}, 5, {1, 3}}, Case{{1, 0}, 1, {7, 47}}, Case{{3, 2}, 100, {7, 46}}})
        EXPECT_EQ(af::stepBack(c.from, c.back), c.to)
            << c.from.day << " " << c.from.halfHour << " " << c.back;
}

af::Stand stand(const char* id, double lat, double lon, double radiusM) {
    af::Stand s;
    s.id = id;
    s.latitude = lat, s.longitude = lon;
    s.radiusNm = radiusM * af::kNmPerMetre;
    return s;
}

TEST(AirportFileTest, StandsOverlapWhenTheirRadiiExceedATenthMoreThanTheirDistance) {
    struct Case {
        double metresApart;
        bool adjacent;
    };
    for (const auto& c : {Case{35, true}, Case{37, false}}) {
        std::vector<af::Stand> stands = {stand("A", 47.45, 8.55, 20),
                                         stand("B", 47.45 + c.metresApart / 1852.0 / 60.0, 8.55, 20),
                                         stand("C", 47.46, 8.55, 20)};
        af::numberAndLinkStands(stands);
        EXPECT_EQ(stands[0].adjacent,
                  c.adjacent ? std::vector<std::uint32_t>{2} : std::vector<std::uint32_t>{});
        EXPECT_EQ(stands[1].adjacent,
                  c.adjacent ? std::vector<std::uint32_t>{1} : std::vector<std::uint32_t>{});
        EXPECT_TRUE(stands[2].adjacent.empty());
        EXPECT_EQ(stands[2].number, 3u);
    }
}

class AirportFileHome : public test::ProgramHome {
  protected:
    fs::path at(std::string_view relative) {
        std::string p(relative);
        std::replace(p.begin(), p.end(), '\\', '/');
        return core::gPaths.programFolder / p;
    }
    static af::Apf sample() {
        af::Apf apf;
        apf.code = refdata::AirportCode("KMSP");
        apf.airportName = "Minneapolis";
        apf.publisher = "stock";
        apf.altitudeFt = 841;
        auto g11 = stand("G11", 44.880426, -93.209817, 30);
        g11.headingRad = 31.9 * core::kRadPerDeg;
        af::StandOption o;
        o.reg = "N899DN";
        o.airline = refdata::airlineId("DAL"), o.type = refdata::modelId("B739");
        o.cs = "DAL1812", o.cs2 = "DAL2418";
        o.day = 3, o.hours = af::hours2bitset("2:7"), o.real = 1, o.number = 1;
        g11.options.push_back(o);
        o.reg = "N123ZZ", o.cs = "DAL5", o.cs2.clear(), o.day = 7, o.hours = af::hours2bitset("40"),
        o.real = 0;
        o.number = 2;
        g11.options.push_back(o);
        o.number = 0; // removed: not written
        o.reg = "N999ZZ";
        g11.options.push_back(o);
        auto c1 = stand("C1", 44.8811, -93.2100, 45);
        c1.cargo = c1.ramp = true;
        auto h1 = stand("H1", 44.8820, -93.2110, 15);
        h1.heli = true;
        apf.stands = {g11, c1, h1};
        return apf;
    }
    void setPark(const char* code) {
        af::gPark.reset();
        af::gPark.code = refdata::AirportCode(code);
    }
};

TEST_F(AirportFileHome, AnArchivedFileReadsBackAsItWasWritten) {
    const auto apf = sample();
    const fs::path file = at("airports/my_thirdparty/KMSP.xml");
    ASSERT_TRUE(af::writeApf(apf, file, af::WriteMode::Archived, af::SimVersion::Msfs2020));
    EXPECT_NE(test::readBytes(file).find("radius=\"30.0\""), std::string::npos)
        << "30 m written back as 30.0";
    setPark("KMSP");
    ASSERT_EQ(af::readApf("airports\\my_thirdparty\\KMSP.xml"), "");
    const auto& got = af::gPark.stands;
    ASSERT_EQ(got.size(), 3u);
    for (std::size_t i = 0; i < got.size(); ++i) {
        const auto &a = apf.stands[i], &b = got[i];
        EXPECT_EQ(b.id, a.id);
        EXPECT_NEAR(b.latitude, a.latitude, 1e-6);
        EXPECT_NEAR(b.longitude, a.longitude, 1e-6);
        EXPECT_NEAR(b.headingRad, a.headingRad, 0.05 * core::kRadPerDeg);
        EXPECT_NEAR(b.radiusNm, a.radiusNm, 1e-9);
        EXPECT_EQ(std::tie(b.cargo, b.ramp, b.heli), std::tie(a.cargo, a.ramp, a.heli)) << a.id;
        EXPECT_EQ(b.number, i + 1);
    }
    EXPECT_NEAR(got[0].radiusNm, 0.016198704103671, 1e-12);
    ASSERT_EQ(got[0].options.size(), 2u) << "the removed option is not written";
    const auto& o = got[0].options[0];
    EXPECT_EQ(std::tie(o.reg, o.cs, o.cs2, o.day, o.real, o.archived),
              std::tie(apf.stands[0].options[0].reg, apf.stands[0].options[0].cs,
                       apf.stands[0].options[0].cs2, apf.stands[0].options[0].day,
                       apf.stands[0].options[0].real, o.archived));
    EXPECT_EQ(o.archived, 1u);
    EXPECT_EQ(o.hours, af::hours2bitset("2:7"));
    EXPECT_EQ(refdata::airlineCode(o.airline), "DAL");
    EXPECT_EQ(refdata::modelCode(o.type), "B739");
    EXPECT_EQ(got[0].options[1].real, 0u);
    EXPECT_EQ(got[0].options[1].cs2, "");
    EXPECT_EQ(af::gPark.airport.altitudeFt, 841);
    EXPECT_EQ(af::gPark.rtTrafficWeek, 1);
    EXPECT_TRUE(log.contains("Airport file read from 'airports\\my_thirdparty\\KMSP.xml' for stock"));
}

TEST_F(AirportFileHome, ALearnedFileHoldsOnlyChangesAndOptions) {
    auto apf = sample();
    apf.stands[1].radiusChange = true;
    apf.stands[2].manual = true;
    const fs::path file = at("airports/learned/stock/KMSP.xml");
    ASSERT_TRUE(af::writeApf(apf, file, af::WriteMode::Learned, af::SimVersion::Msfs2020));
    const auto text = test::readBytes(file);
    EXPECT_NE(text.find("<parkpos id=\"G11\">"), std::string::npos)
        << "no change: a bare stand with its options";
    EXPECT_NE(text.find("<parkpos id=\"C1\" radius_change=\"true\" radius=\"45.0\""), std::string::npos);
    EXPECT_NE(text.find("<parkpos id=\"H1\" latitude="), std::string::npos) << "a manual stand in full";
    EXPECT_NE(text.find("cs=\"DAL1812:DAL2418\""), std::string::npos);
    EXPECT_NE(text.find("soft=\"true\" day=\"7\" hh=\"40\" cs=\"DAL5\""), std::string::npos);
    EXPECT_EQ(text.find("N999ZZ"), std::string::npos);
    EXPECT_NE(text.find("name=\"MAX_FIT\""), std::string::npos);
    EXPECT_EQ(text.find("name=\"altitude\""), std::string::npos);
    // An option whose hours are no single run is left out, with a line.
    apf.stands[0].options[0].hours = bits({3, 7});
    ASSERT_TRUE(af::writeApf(apf, file, af::WriteMode::Learned, af::SimVersion::Msfs2020));
    EXPECT_TRUE(log.contains("bit set problem: N899DN DAL1812"));
    EXPECT_EQ(test::readBytes(file).find("reg=\"N899DN\""), std::string::npos);
}

TEST_F(AirportFileHome, OptionsAndStandsTheReaderSkipsOrRefuses) {
    const auto write = [&](const std::string& stands, const std::string& params =
                                                          "<parameter name=\"altitude\" "
                                                          "value=\"841\"/>") {
        fs::create_directories(at("airports/my_thirdparty"));
        test::writeBytes(at("airports/my_thirdparty/KMSP.xml"),
                         "<meta><info name=\"copyright\" value=\"c\"/><info name=\"sim\" value=\"1\"/></meta>"
                         "<parameters>" +
                             params + "</parameters><parkpositions>" + stands + "</parkpositions>");
    };
    setPark("KMSP");
    // No root element: the parts at the top level read as usual; a day 8 and a missing hh are
    // skipped and the next option takes their number.
    write("<parkpos id=\" A1 \" latitude=\"44.88\" longitude=\"-93.2\" radius=\"20\">"
          "<opt reg=\"N1\" day=\"8\" hh=\"3\"/><opt reg=\"N2\" day=\"1\"/><opt reg=\"N3\" day=\"1\" hh=\"3\" "
          "airl=\"DAL\" type=\"B739\" cs=\"DAL1:DAL2\"/></parkpos>"
          "<parkpos id=\"Z\" latitude=\"0\" longitude=\"0\"/>");
    ASSERT_EQ(af::readApf("airports\\my_thirdparty\\KMSP.xml"), "");
    ASSERT_EQ(af::gPark.stands.size(), 1u);
    EXPECT_EQ(af::gPark.stands[0].id, "A1");
    ASSERT_EQ(af::gPark.stands[0].options.size(), 1u);
    EXPECT_EQ(af::gPark.stands[0].options[0].reg, "N3");
    EXPECT_EQ(af::gPark.stands[0].options[0].number, 1u);
    EXPECT_TRUE(log.contains("stand Z has no valid lat/lon"));

    struct Broken {
        const char* name;
        std::string stands, params;
        int userError; // 0: a returned text
        const char* text;
    };
    const std::string alt = "<parameter name=\"altitude\" value=\"841\"/>";
    const Broken cases[] = {
        {"no id", "<parkpos latitude=\"1\" longitude=\"1\"/>", alt, 93,
         "Parking position #1 has no 'id' attribute."},
        {"empty id", "<parkpos id=\" \t\"/>", alt, 93, "Stand #1 has empty 'id' attribute."},
        {"twice", "<parkpos id=\"A\" latitude=\"1\" longitude=\"1\"/><parkpos id=\"A\"/>", alt, 94,
         "Stand 'A' appears more than once."},
        {"no altitude", "", "", 65, "Parameter altitude not found"},
        {"all at 0,0", "<parkpos id=\"A\"/>", alt, 0, "no stands found"},
    };
    for (const auto& c : cases) {
        write(c.stands, c.params);
        if (c.userError) {
            try {
                (void)af::readApf("airports\\my_thirdparty\\KMSP.xml");
                ADD_FAILURE() << c.name;
            } catch (const core::UserErrorException& e) {
                EXPECT_EQ(e.number(), c.userError) << c.name;
                EXPECT_EQ(e.text(), c.text) << c.name;
            }
        } else {
            EXPECT_EQ(af::readApf("airports\\my_thirdparty\\KMSP.xml"), c.text) << c.name;
        }
    }
    struct Refused {
        const char* name;
        std::string text;
        const char* returned;
    };
    const Refused refused[] = {
        {"not XML", "<root><parkpos", "airports\\my_thirdparty\\KMSP.xml: could not load file: "},
        {"no copyright", "<root><meta><info name=\"sim\" value=\"1\"/></meta></root>",
         "airports\\my_thirdparty\\KMSP.xml: refused to load"},
        {"no sim row", "<root><meta><info name=\"copyright\" value=\"c\"/></meta></root>",
         "airports\\my_thirdparty\\KMSP.xml: refused to load"},
    };
    for (const auto& c : refused) {
        test::writeBytes(at("airports/my_thirdparty/KMSP.xml"), c.text);
        EXPECT_EQ(af::readApf("airports\\my_thirdparty\\KMSP.xml").rfind(c.returned, 0), 0u) << c.name;
    }
    EXPECT_TRUE(log.contains("no copyright info in the file?"));
    EXPECT_EQ(af::readApf(""), "readApf: xml is empty");
    af::gPark.reset();
    EXPECT_EQ(af::readApf("archive/stock/KMSP.xml"), "readApf: no park airport set");
}

TEST_F(AirportFileHome, TheFileOfAnAirportIsFoundAlongTheFolderOrder) {
    struct Case {
        const char* name;
        std::vector<std::pair<const char*, const char*>> files; // relative path, content
        const char* code;
        const char* found;
    };
    const Case cases[] = {
        {"stock, from the directory", {}, "KMSP", "archive/stock/KMSP.xml"},
        {"not stock, no file", {}, "KORD", ""},
        {"a scanned add-on",
         {{"airports/my_simaddon/KORD.xml", "x"}},
         "KORD",
         "airports\\my_simaddon\\KORD.xml"},
        {"third party before sim add-on",
         {{"airports/my_simaddon/KMSP.xml", "x"}, {"airports/my_thirdparty/KMSP.xml", "x"}},
         "KMSP",
         "airports\\my_thirdparty\\KMSP.xml"},
        {"a link before the file",
         {{"airports/my_thirdparty/KMSP.xml", "x"},
          {"airports/my_thirdparty/KMSP.txt", "archive\\thirdparty\\Fly Tampa\\KMSP.XML  \r\n"}},
         "KMSP",
         "archive\\thirdparty\\Fly Tampa\\KMSP.XML"},
        {"a link to no XML file is passed over",
         {{"airports/my_thirdparty/KMSP.txt", "archive/x.bgl"}, {"airports/my_simaddon/KMSP.xml", "x"}},
         "KMSP",
         "airports\\my_simaddon\\KMSP.xml"},
    };
    for (const auto& c : cases) {
        std::error_code ec;
        fs::remove_all(at("airports/my_thirdparty"), ec);
        fs::remove_all(at("airports/my_simaddon"), ec);
        for (const auto& [path, text] : c.files) {
            fs::create_directories(at(path).parent_path());
            test::writeBytes(at(path), text);
        }
        EXPECT_EQ(af::findApf(refdata::AirportCode(c.code)), c.found) << c.name;
        EXPECT_EQ(af::hasApf(refdata::AirportCode(c.code)), *c.found != '\0') << c.name;
    }
}

TEST(AirportFileTest, LearnedPaths) {
    struct Case {
        const char *xml, *publisher, *learned;
    };
    const Case cases[] = {
        {"", "", ""},
        {"archive/stock/KMSP.xml", "", "airports\\learned\\stock\\KMSP.xml"},
        {"archive/stock/KMSP.txt", "", ""},
        {"archive\\simaddon\\EGLL.XML", "", "airports\\learned\\simaddon\\EGLL.XML"},
        {"archive/thirdparty/Fly%20Tampa/KBOS.xml", "", "airports\\learned\\thirdparty\\Fly Tampa\\KBOS.xml"},
        {"archive/thirdparty/KBOS.xml", "", ""},
        {"airports/stock/KMSP.xml", "", "airports\\learned\\stock\\KMSP.xml"},
        {"airports/my_simaddon/KORD.xml", "", "airports\\learned\\my_simaddon\\KORD.xml"},
        {"airports/my_thirdparty/KORD.xml", " iniBuilds ",
         "airports\\learned\\thirdparty\\iniBuilds\\KORD.xml"},
        {"airports/my_thirdparty2024/KORD.xml", "", ""},
        {"airports/other/KORD.xml", "", "airports\\learned\\other\\KORD.xml"},
        {"somewhere/KORD.xml", "", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(af::learnedPath(c.xml, c.publisher), c.learned) << c.xml;
}

TEST(AirportFileTest, QualityFactors) {
    auto s = stand("A", 1, 1, 20);
    EXPECT_EQ(af::qualityFactors({s}), (std::pair<std::int32_t, std::int32_t>{-1, -1}));
    af::StandOption o;
    o.real = 1, o.day = 1, o.number = 1, o.hours = af::hours2bitset("0:3");
    s.options = {o, o};
    s.options[1].day = 2;
    // One stand, two real options on two days over 8 half hours: (40 + 10000 + 200 + 16) x 0.00625.
    EXPECT_EQ(af::qualityFactors({s}), (std::pair<std::int32_t, std::int32_t>{64, 0}));
    EXPECT_EQ(af::qualityFactors({s, stand("B", 2, 2, 20)}), (std::pair<std::int32_t, std::int32_t>{32, 0}));
    EXPECT_EQ(af::qualityText(-1, -1), "  ");
    EXPECT_EQ(af::qualityText(64, 0), "64");
    EXPECT_EQ(af::qualityText(32, 5), "32/ 5");
}

// The data site down, missing a file, serving garbage, slow or too big: a line, no half file,
// and a good file that was there stays.
class DataSiteTest : public AirportFileHome {
  protected:
    void SetUp() override {
        AirportFileHome::SetUp();
        server.Get("/downloads/MSFS/archive/stock/KMSP.xml",
                   [this](const httplib::Request&, httplib::Response& r) {
                       r.set_content(body, "application/xml");
                   });
        server.Get("/slow", [](const httplib::Request&, httplib::Response& r) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            r.set_content("late", "text/plain");
        });
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
        base = fmt::format("http://127.0.0.1:{}/", port);
    }
    void TearDown() override {
        server.stop();
        thread.join();
        params::set(params::parameter<params::StringParameter>("DATA_SITE"), "", params::Save::no);
        AirportFileHome::TearDown();
    }
    void site(const std::string& url) {
        params::set(params::parameter<params::StringParameter>("DATA_SITE"), url, params::Save::no);
    }
    bool leftovers() {
        for (const auto& e : fs::recursive_directory_iterator(core::gPaths.programFolder / "airports"))
            if (e.path().extension() == ".part") return true;
        return false;
    }
    httplib::Server server;
    std::thread thread;
    int port = 0;
    std::string base, body;
};

TEST_F(DataSiteTest, TheParkAirportsFileComesFromTheSiteOrTheReasonIsLogged) {
    auto apf = sample();
    const fs::path good = at("good.xml");
    ASSERT_TRUE(af::writeApf(apf, good, af::WriteMode::Archived, af::SimVersion::Msfs2020));
    body = test::readBytes(good);
    setPark("KMSP");
    site(base);
    ASSERT_EQ(af::readApf("archive/stock/KMSP.xml"), "");
    EXPECT_EQ(af::gPark.stands.size(), 3u);
    EXPECT_TRUE(fs::exists(at("airports/park_airport.xml")));

    struct Case {
        const char* name;
        std::string site, body;
        const char* returned;
        const char* logged;
    };
    const Case cases[] = {
        {"no site set", "", "", "failed to download: 'archive/stock/KMSP.xml'", "no data site set"},
        {"site down", "http://127.0.0.1:1/", "", "failed to download: 'archive/stock/KMSP.xml'",
         "download failed"},
        {"404", base + "nothing/", "", "failed to download: 'archive/stock/KMSP.xml'", "HTTP status 404"},
        {"garbage", base, "\x01\x02garbage<<", "archive/stock/KMSP.xml: could not load file", nullptr},
    };
    for (const auto& c : cases) {
        site(c.site);
        body = c.body;
        EXPECT_EQ(af::readApf("archive/stock/KMSP.xml").rfind(c.returned, 0), 0u) << c.name;
        if (c.logged) {
            EXPECT_TRUE(log.contains(c.logged)) << c.name;
        }
        EXPECT_FALSE(leftovers()) << c.name;
    }

    // A slow or oversized answer leaves the good file in place.
    const fs::path kept = at("airports/kept.xml");
    test::writeBytes(kept, "good");
    EXPECT_NE(refdata::download(base + "slow", kept, {.totalTimeout = std::chrono::milliseconds(300)}), "");
    body = std::string(5000, 'x');
    const auto why =
        refdata::download(base + "downloads/MSFS/archive/stock/KMSP.xml", kept, {.maxBytes = 1000});
    EXPECT_NE(why.find("larger than 1000 bytes"), std::string::npos) << why;
    EXPECT_EQ(test::readBytes(kept), "good");
    EXPECT_FALSE(leftovers());
}

} // namespace
} // namespace orv

namespace orv {
namespace {

namespace af = airportfile;

class LearningTest : public test::ProgramHome {
  protected:
    void SetUp() override {
        ProgramHome::SetUp();
        af::gPark.reset();
        af::gPark.code = refdata::AirportCode("KMSP");
        af::Stand g11;
        g11.id = "G11", g11.latitude = 44.880426, g11.longitude = -93.209817,
        g11.radiusNm = 20 * af::kNmPerMetre;
        af::Stand f8 = g11;
        f8.id = "F8", f8.latitude = 44.8831412;
        af::gPark.stands = {g11, f8};
        af::numberAndLinkStands(af::gPark.stands);
    }
    void TearDown() override {
        af::gPark.reset();
        ProgramHome::TearDown();
    }
    static af::LearnedAircraft n899dn(const char* cs = "DAL1812") {
        af::LearnedAircraft a;
        a.reg = "N899DN", a.cs = cs;
        return a;
    }
    static std::vector<std::pair<std::uint32_t, std::string>> options(const af::Stand& s) {
        std::vector<std::pair<std::uint32_t, std::string>> out;
        for (const auto& o : s.options) out.emplace_back(o.day, af::bitset2hours(o.hours).value_or("?"));
        return out;
    }
};

TEST_F(LearningTest, AStayOnAStandBecomesOptionsOfItsDayAndHalfHours) {
    ASSERT_TRUE(liveries::registrationKey("N899DN")) << "the fixture's N899DN livery";
    using Seen = std::vector<std::pair<af::DayHalfHour, af::LearnKind>>;
    using K = af::LearnKind;
    struct Case {
        const char* name;
        Seen seen;
        std::vector<std::pair<std::uint32_t, std::string>> options;
        int updates;
    };
    const Case cases[] = {
        {"two half hours are one option", {{{3, 2}, K::Arrival}, {{3, 3}, K::FoundAtSpawn}}, {{3, "2:3"}}, 2},
        {"an arrival and a departure 2 h later",
         {{{3, 2}, K::Arrival}, {{3, 6}, K::Departure}},
         {{3, "2:6"}},
         2},
        {"over midnight, two days",
         {{{2, 46}, K::Arrival}, {{3, 1}, K::Departure}},
         {{2, "46:47"}, {3, "0:1"}},
         3},
        {"over Sunday midnight", {{{7, 47}, K::Arrival}, {{1, 0}, K::Departure}}, {{7, "47"}, {1, "0"}}, 3},
        {"a gap of 6 half hours starts anew",
         {{{3, 2}, K::Arrival}, {{3, 8}, K::Departure}},
         {{3, "2"}, {3, "8"}},
         2},
        {"the same half hour twice is one update",
         {{{3, 2}, K::Arrival}, {{3, 2}, K::FoundAtSpawn}},
         {{3, "2"}},
         1},
    };
    for (const auto& c : cases) {
        af::gPark.stands[0].options.clear();
        af::gPark.updateCount = 0;
        for (const auto& [at, kind] : c.seen) af::addRealStandOption(1, n899dn(), kind, at);
        EXPECT_EQ(options(af::gPark.stands[0]), c.options) << c.name;
        EXPECT_EQ(af::gPark.updateCount, c.updates) << c.name;
    }
    // An archived option of the same registration that holds the half hour teaches nothing.
    af::gPark.stands[0].options.clear();
    af::gPark.updateCount = 0;
    af::StandOption archived;
    archived.reg = "N899DN", archived.day = 3, archived.hours = af::hours2bitset("2:7"), archived.real = 1;
    archived.archived = 1, archived.number = 1;
    af::gPark.stands[0].options.push_back(archived);
    af::addRealStandOption(1, n899dn(), K::Arrival, {3, 4});
    EXPECT_EQ(af::gPark.updateCount, 0);
    EXPECT_EQ(af::gPark.stands[0].options.size(), 1u);
    // Unknown registrations and stands are passed over.
    auto unknown = n899dn();
    unknown.reg = "N000ZZ";
    af::addRealStandOption(1, unknown, K::Arrival, {3, 9});
    af::addRealStandOption(9, n899dn(), K::Arrival, {3, 9});
    EXPECT_EQ(af::gPark.updateCount, 0);
}

TEST_F(LearningTest, WhatWasLearnedComesBackOnTheNextVisit) {
    af::gPark.airport = {"KMSP", "stock", 841};
    af::gPark.loadedFrom = "airports\\park_airport.xml";
    af::addRealStandOption(1, n899dn(), af::LearnKind::Arrival, {3, 2});
    af::addRealStandOption(1, n899dn("DAL2418"), af::LearnKind::Departure, {3, 6});
    af::gPark.stands[1].radiusNm = 30 * af::kNmPerMetre, af::gPark.stands[1].radiusChange = true;
    params::set(params::parameter<params::ChoiceIntParameter>("parking_percentage"), 55, params::Save::no);
    ASSERT_TRUE(af::saveUpdatedApf(af::SimVersion::Msfs2020));
    EXPECT_TRUE(log.contains("'airports\\learned\\stock\\KMSP.xml' saved with 2 updates"));
    const fs::path file = core::gPaths.programFolder / "airports/learned/stock/KMSP.xml";
    ASSERT_TRUE(fs::exists(file));

    // The next visit: the archived stands again, then the learned file over them.
    const auto merge = [&] {
        SetUp();
        af::gPark.airport = {"KMSP", "stock", 841};
        params::set(params::parameter<params::ChoiceIntParameter>("parking_percentage"), 30,
                    params::Save::no);
        af::readLearned("airports\\learned\\stock\\KMSP.xml");
    };
    merge();
    ASSERT_EQ(af::gPark.stands[0].options.size(), 1u);
    const auto& o = af::gPark.stands[0].options[0];
    EXPECT_EQ(o.reg + " " + o.cs + ":" + o.cs2, "N899DN DAL1812:DAL2418");
    EXPECT_EQ(o.day, 3u);
    EXPECT_EQ(o.archived, 0u);
    EXPECT_EQ(o.hours, af::hours2bitset("2:6"));
    EXPECT_TRUE(o.cpl);
    EXPECT_NEAR(af::gPark.stands[1].radiusNm * 1852.0, 30.0, 1e-9);
    EXPECT_EQ(params::parameter<params::ChoiceIntParameter>("parking_percentage").value, 55)
        << "the airport's own setting comes back with it";

    // A file of an older version keeps its stand changes and settings, not its options.
    auto text = test::readBytes(file);
    const auto at = text.find("name=\"version\" value=\"");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, text.find('"', at + 22) - at, "name=\"version\" value=\"11.9.9");
    test::writeBytes(file, text);
    merge();
    EXPECT_TRUE(af::gPark.stands[0].options.empty());
    EXPECT_NEAR(af::gPark.stands[1].radiusNm * 1852.0, 30.0, 1e-9);
    EXPECT_TRUE(log.contains("older ORVL version than 11.10.0"));

    // A broken one is kept as KMSP.0.xml, and the airport stays usable.
    test::writeBytes(file, "<root><parkpositions><parkpos id=");
    merge();
    EXPECT_TRUE(fs::exists(core::gPaths.programFolder / "airports/learned/stock/KMSP.0.xml"));
    EXPECT_TRUE(log.contains("found, but could not be loaded, saved as *.0.xml"));
    EXPECT_EQ(af::gPark.stands.size(), 2u);
    EXPECT_EQ(test::readBytes(core::gPaths.programFolder / "airports/learned/stock/KMSP.0.xml"),
              "<root><parkpositions><parkpos id=");
}

} // namespace
} // namespace orv

#include <csignal>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

namespace orv {
namespace {

// A child saves the learned file over and over, alternating between two versions, and is killed
// at a random moment: the file is always one of them, whole.
TEST(LearnedFileTest, AKillWhileSavingLeavesTheOldOrTheNewFileWhole) {
    test::TempDir dir;
    const fs::path file = dir.path() / "airports/learned/stock/KMSP.xml";
    const auto version = [](int n) {
        af::Apf apf;
        apf.code = refdata::AirportCode("KMSP");
        apf.publisher = "stock";
        for (int i = 0; i < 400; ++i) {
            af::Stand s;
            s.id = fmt::format("S{}", i);
            s.radiusChange = true, s.radiusNm = (20 + n) * af::kNmPerMetre;
            af::StandOption o;
            o.reg = fmt::format("N{}V{}", i, n), o.day = 1, o.hours.set(n), o.real = 1, o.number = 1;
            s.options.push_back(o);
            apf.stands.push_back(std::move(s));
        }
        return apf;
    };
    const af::Apf versions[2] = {version(1), version(2)};
    ASSERT_TRUE(af::writeApf(versions[0], file, af::WriteMode::Learned, af::SimVersion::Msfs2020));
    // The time of writing in the meta rows differs from save to save; the rest must not.
    const auto undated = [](std::string text) {
        const auto at = text.find("name=\"date\" value=\"");
        if (at != std::string::npos) text.erase(at, text.find('"', at + 20) - at);
        return text;
    };
    const std::string texts[2] = {
        undated(test::readBytes(file)), [&] {
            EXPECT_TRUE(af::writeApf(versions[1], file, af::WriteMode::Learned, af::SimVersion::Msfs2020));
            return undated(test::readBytes(file));
        }()};
    std::mt19937 rng(11);
    for (int kill = 0; kill < 50; ++kill) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int n = 0;; ++n)
                (void)af::writeApf(versions[n % 2], file, af::WriteMode::Learned, af::SimVersion::Msfs2020);
        }
        ::usleep(static_cast<useconds_t>(2000 + rng() % 20000));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        const auto text = undated(test::readBytes(file));
        EXPECT_TRUE(text == texts[0] || text == texts[1])
            << "kill " << kill << ": " << text.size() << " bytes";
    }
    // What killed saves leave behind goes with the next clean-up; other files stay.
    test::writeBytes(fs::path(file) += ".99.tmp", "<root><parkpos");
    af::removeLeftoverTemps(file);
    for (const auto& e : fs::directory_iterator(file.parent_path()))
        EXPECT_EQ(e.path().filename(), "KMSP.xml") << "left behind";
}

} // namespace
} // namespace orv
