#include <gtest/gtest.h>

#include "refdata/refdata.h"
#include "support.h"

namespace orv::refdata {
namespace {

class Airports : public ::testing::Test {
  protected:
    void TearDown() override {
        clearAirports();
        setStandDistance(nullptr);
    }
    // Encrypts an airports.xml text the way the shipped file is made, and reads it.
    std::size_t load(const std::string& aps) {
        test::writeBytes(dir / "src.xml", "<root><airports>" + aps + "</airports></root>");
        EXPECT_EQ(streamEncrypt(dir / "src.xml", dir / "airports.enc"), "");
        return loadAirports(dir / "airports.enc");
    }
    test::TempDir dir;
};

TEST_F(Airports, TheShippedDirectory) {
    const auto n = loadAirports(test::shippedCopy("airports.enc", dir.path()));
    EXPECT_GT(n, 4900u);
    EXPECT_FALSE(fs::exists(dir / "airports.xml"));
    const auto* kmsp = airportByName("kmsp");
    ASSERT_TRUE(kmsp);
    EXPECT_EQ(kmsp->iata.view(), "MSP");
    EXPECT_EQ(kmsp->elevation, 841.0f);
    EXPECT_EQ(kmsp->stands, 179);
    const auto* eham = airportByName("EHAMxyz");
    ASSERT_TRUE(eham);
    EXPECT_EQ(eham->elevation, -11.0f); // below sea level
    EXPECT_TRUE(airportKnown(AirportCode("LSZH")));
    EXPECT_TRUE(airportKnown(AirportCode("OAKS"))); // ident "AF-0005": the GPS code is the ICAO code
    EXPECT_FALSE(airportKnown(AirportCode("ZZZZ")));
    // Sorted by code, so a binary search by code works.
    const auto& all = airports();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), [](auto& a, auto& b) { return a.code < b.code; }));
    // At the gate, KMSP; over the Atlantic, nothing.
    EXPECT_EQ(closestAirport(44.8810, -93.2180)->code.view(), "KMSP");
    EXPECT_FALSE(closestAirport(45.0, -30.0));
}

TEST_F(Airports, AttributesMissingOrWrong) {
    test::LogCapture log;
    const auto n = load(R"(<ap c="EHAM" la="52.3" lo="4.76" a="-11" i="199" s="AMS"/>)"
                        R"(<ap c="AAAA" lo="1" a="1" i="0"/>)"
                        R"(<ap c="BBBB" la="1" lo="1" i="0"/>)"
                        R"(<ap c="CCCC" la="1" lo="1" a="5"/>)"
                        R"(<ap c="DDDD" la="1" lo="1" a="5" i="2" s="D-D"/>)"
                        R"(<ap c="eeee" la="2" lo="2" a="5" i="1"/>)");
    EXPECT_EQ(n, 3u);
    EXPECT_TRUE(log.contains("Missing latLons for airport 'AAAA'"));
    EXPECT_TRUE(log.contains("Missing alt for airport 'BBBB'"));
    EXPECT_TRUE(log.contains("Missing stands for airport 'CCCC'"));
    EXPECT_TRUE(
        log.contains("Error storing airport 'DDDD' 'D-D': FixedCode: invalid string (length/charset)"));
    EXPECT_TRUE(log.contains("    3 airports read"));
    EXPECT_EQ(airportByName("CCCC")->stands, 0);
    EXPECT_EQ(airportByName("EEEE")->iata.view(), "   ");
    EXPECT_FALSE(airportKnown(AirportCode("DDDD")));
    EXPECT_FALSE(fs::exists(dir / "airports.xml"));
}

TEST_F(Airports, BrokenFilesStopTheReadingWithAUserError) {
    struct Case {
        const char* name;
        std::string xml;
        std::string message;
    };
    const Case cases[] = {
        {"bad ICAO code", R"(<root><airports><ap c="EH1" la="1" lo="1" a="1"/></airports></root>)",
         "88: FixedCode: invalid string (length/charset)"},
        {"no airports section", "<root><other/></root>", "88: Missing <airports> root in: "},
        {"not XML", "<root><airports><ap", " not loaded: "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::writeBytes(dir / "src.xml", c.xml);
        ASSERT_EQ(streamEncrypt(dir / "src.xml", dir / "airports.enc"), "");
        try {
            loadAirports(dir / "airports.enc");
            ADD_FAILURE() << "no exception";
        } catch (const core::UserErrorException& e) {
            EXPECT_EQ(e.number(), 88);
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
        EXPECT_FALSE(fs::exists(dir / "airports.xml")) << "no plain copy stays behind";
    }
}

TEST_F(Airports, ClosestAirportAndItsNeighbour) {
    // AAAA and BBBB lie 3 nm apart on a meridian; the walk goes in code order, AAAA first.
    load(R"(<ap c="BBBB" la="10.05" lo="20" a="0" i="1"/><ap c="AAAA" la="10" lo="20" a="0" i="1"/>)");
    struct Case {
        const char* name;
        double lat;
        bool aStandNearer;
        const char* expected;
        bool neighbourLogged;
    };
    const Case cases[] = {
        {"the later, nearer one wins", 10.0 + 2.0 / 60, false, "BBBB", true},
        {"the neighbour's stand is nearer", 10.0 + 2.0 / 60, true, "AAAA", true},
        // The nearest comes first, so no later airport improves on it and no neighbour is seen.
        {"nearest comes first", 10.0 + 1.0 / 60, false, "AAAA", false},
        {"4 nm south of AAAA: within 5 nautical miles", 10.0 - 4.0 / 60, false, "AAAA", false},
        {"farther than 5 nm from both", 10.0 - 6.0 / 60, false, nullptr, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::LogCapture log;
        setStandDistance([&](const AirportRecord& ap, double, double) -> std::optional<StandDistance> {
            const bool a = ap.code.view() == "AAAA";
            return StandDistance{a ? "A1" : "B1", (a == c.aStandNearer) ? 0.01 : 0.5};
        });
        const auto r = closestAirport(c.lat, 20.0);
        if (!c.expected) {
            EXPECT_FALSE(r);
            continue;
        }
        ASSERT_TRUE(r);
        EXPECT_EQ(r->code.view(), c.expected);
        EXPECT_EQ(log.contains("Airport BBBB is closest, neighbour is AAAA"), c.neighbourLogged);
        if (c.aStandNearer) {
            EXPECT_TRUE(log.contains("Airport BBBB is closest, but stand A1 at neighbouring airport AAAA is "
                                     "closer at 19 meters ..."));
        }
    }
}

} // namespace
} // namespace orv::refdata
