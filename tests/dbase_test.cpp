#include <cmath>
#include <map>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "refdata/refdata.h"
#include "support.h"

namespace orv::refdata {
namespace {

// A dbase.xml with every required section; `replace` swaps a section's text, "" drops it.
std::string dbaseXml(const std::map<std::string, std::string>& replace = {}) {
    const std::vector<std::pair<std::string, std::string>> sections = {
        {"aircrafts", R"(<aircraft types="B738, A320,B744"/><aircraft types="H60,C172,F16,C56X"/>)"},
        {"cargo_types", R"(<cargo_type types="B744"/>)"},
        {"heavy", R"(<hvy types="B744"/>)"},
        {"large", R"(<lar types="B738,A320"/>)"},
        {"buzjet", R"(<bzj types="C56X"/>)"},
        {"high_performance", R"(<hpf types="F16"/>)"},
        {"rotorcraft", R"(<rot types="H60"/>)"},
        {"similar_types", R"(<similar types="B738,A320"/>)"},
        {"ICAO_airlines", R"(<ICAO codes="KLM,DAL"/>)"},
        {"cargo_operators", R"(<ICAO codes="FDX"/>)"},
        {"publishers", R"(<pub names="Orbx,ORBX"/><pub names="Aerosoft"/><pub names="Orbx,ORBX"/>)"},
        {"wingspans", R"(<wingspan type="B738" meters="60"/><wingspan type="XXXX" meters="1"/>)"
                      R"(<wingspan type="B738" meters="10"/>)"},
        {"fixes", R"(<fx wro="B38M" cor="B738"/><fx wro="B38M" cor="A320"/><fx wro="Z" cor="NOPE"/>)"},
        {"simaddons20", R"(<simaddon20 arpts="LSZH,EHAM"/>)"},
        {"thirdparties20", R"(<thirdpartie20 pub="Orbx" arpts=""/>)"},
        {"dbase", R"(<d r="PH-BXA" a="KLM" m="B738" o="" c="false"/><d r="N899DN" a="DAL" m="B739"/>)"
                  R"(<d r="PH-BXA" a="DAL" m="A320"/><d r="D-AIMA" a="DLH" m="A388" c="true"/>)"},
    };
    std::string xml = "<root>";
    for (const auto& [name, body] : sections) {
        const auto r = replace.find(name);
        if (r != replace.end() && r->second.empty()) continue;
        xml += fmt::format("<{0}>{1}</{0}>", name, r != replace.end() ? r->second : body);
    }
    return xml + "</root>";
}

class Dbase : public ::testing::Test {
  protected:
    void TearDown() override { clearDbase(); }
    bool load(const std::string& xml) {
        test::writeBytes(dir / "dbase.src", xml);
        EXPECT_EQ(streamEncrypt(dir / "dbase.src", dir / "dbase.enc"), "");
        return loadDbase(dir / "dbase.enc");
    }
    test::TempDir dir;
};

TEST_F(Dbase, ReadsEverySection) {
    test::LogCapture log;
    ASSERT_TRUE(load(dbaseXml()));
    const auto& db = dbase();
    EXPECT_EQ(db.models.size(), 7u);
    EXPECT_EQ(category(modelId("B744")), Category::Heavy);
    EXPECT_EQ(category(modelId("A320")), Category::Large);
    EXPECT_EQ(category(modelId("C56X")), Category::Buzjets);
    EXPECT_EQ(category(modelId("H60")), Category::Rotorcraft);
    EXPECT_EQ(category(modelId("F16")), Category::HighPerf);
    EXPECT_EQ(category(modelId("C172")), Category::Light);
    EXPECT_TRUE(isModel("B738"));
    EXPECT_FALSE(isModel(""));
    EXPECT_TRUE(isAirline("KLM"));
    EXPECT_FALSE(isAirline("FDX")); // a cargo operator, not in the airline list
    EXPECT_EQ(db.similarGroups, (std::vector<std::vector<std::string>>{{"A320", "B738"}}));
    EXPECT_EQ(db.publisherSpellings.size(), 2u);             // the double dropped
    EXPECT_NEAR(halfSpan(modelId("B738")), 0.0161987, 1e-7); // 60 m, the first value kept
    EXPECT_EQ(halfSpan(2700), 35.0);
    EXPECT_EQ(db.modelFixes.at("B38M"), "B738");
    EXPECT_EQ(db.thirdparties20.at(0).airports.size(), 0u);
    EXPECT_EQ(db.records.size(), 3u); // the second PH-BXA dropped
    const auto klm = dbaseRecordOf("PHBXA");
    ASSERT_TRUE(klm);
    EXPECT_EQ(airlineCode(klm->airline), "KLM");
    EXPECT_EQ(airlineOfRegcode("DAIMA"), "DLH"); // unknown codes are interned all the same
    EXPECT_TRUE(dbaseRecordOf("D-AIMA")->cargo);
    EXPECT_FALSE(dbaseRecordOf(""));
    EXPECT_FALSE(dbaseRecordOf("G-ABCD"));
    EXPECT_EQ(regcodeInTitle("AI Boeing 737 N899DN"), ""); // six characters: too long for a title match
    for (const char* line :
         {"    7 ICAO model codes", "wingspan model XXXX is not valid, skipped",
          "wrong part of fix: 'B38M', already exists, skipped",
          "wrong fix Z -> NOPE, the latter is not valid", "    3 dbase records read", "hwsp: 2700 what: "})
        EXPECT_TRUE(log.contains(line)) << line;
    EXPECT_FALSE(fs::exists(dir / "dbase.xml"));
}

TEST_F(Dbase, MissingOrEmptySectionsStopTheStart) {
    struct Case {
        std::map<std::string, std::string> replace;
        std::string message;
    };
    const Case cases[] = {
        {{{"heavy", ""}}, "61: Missing section: heavy"},
        {{{"large", R"(<lar types=""/><lar types=" , "/>)"}},
         "61: In XML file section [large], element [lar], attribute [types] is empty."},
        {{{"simaddons20", ""}}, "61: Missing section: simaddons20"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        try {
            load(dbaseXml(c.replace));
            ADD_FAILURE() << "no exception";
        } catch (const core::UserErrorException& e) {
            EXPECT_EQ(std::string(e.what()), c.message);
        }
        EXPECT_FALSE(fs::exists(dir / "dbase.xml"));
    }
    // One element without the attribute among others with items is fine.
    EXPECT_TRUE(load(dbaseXml({{"large", R"(<lar/><lar types="A320"/>)"}})));
    test::LogCapture log;
    EXPECT_FALSE(load("<root><aircrafts>"));
    EXPECT_TRUE(log.contains("not read because of"));
    EXPECT_THROW((void)loadDbase(dir / "none.enc"), std::runtime_error);
}

TEST_F(Dbase, TheShippedDatabase) {
    ASSERT_TRUE(loadDbase(test::shippedCopy("dbase.enc", dir.path())));
    EXPECT_FALSE(fs::exists(dir / "dbase.xml"));
    const auto& db = dbase();
    EXPECT_GT(db.models.size(), 2500u);
    EXPECT_GT(db.airlines.size(), 6000u);
    struct TypeCase {
        const char* type;
        Category category;
    };
    for (const auto& c : {TypeCase{"B739", Category::Large}, TypeCase{"B744", Category::Heavy},
                          TypeCase{"A388", Category::Heavy}, TypeCase{"C525", Category::Buzjets},
                          TypeCase{"EC35", Category::Rotorcraft}, TypeCase{"F16", Category::HighPerf},
                          TypeCase{"C172", Category::Light}}) {
        EXPECT_EQ(category(modelId(c.type)), c.category) << c.type;
    }
    EXPECT_NEAR(halfSpan(modelId("B738")), 34.32 / 2 / 1852, 1e-9);
    // The recorded Delta 737-900 and a demo aircraft, as the feed spells them.
    const auto n899dn = dbaseRecordOf("N899DN");
    ASSERT_TRUE(n899dn);
    EXPECT_EQ(airlineCode(n899dn->airline), "DAL");
    EXPECT_EQ(modelCode(n899dn->model), "B739");
    const auto demo = dbaseRecordOf("DAAHA");
    ASSERT_TRUE(demo);
    EXPECT_EQ(airlineCode(demo->airline), "DLH");
    EXPECT_EQ(airlineOfRegcode("HBJHA"), "SWR");
    const auto freighter = dbaseRecordOf("N200AL"); // the first demo FedEx aircraft
    ASSERT_TRUE(freighter);
    EXPECT_EQ(airlineCode(freighter->airline), "FDX");
    EXPECT_TRUE(freighter->cargo);
    EXPECT_GT(dbase().records.size(), 20000u);
}

TEST(Regcodes, SpellingsToTry) {
    const std::map<std::string, std::vector<std::string>> cases = {
        {"DAIMA", {"DA-IMA", "D-AIMA", "DAIMA"}},
        {"PHBXA", {"PH-BXA", "P-HBXA", "PHBXA"}},
        {"N12345", {"N12345"}},
        {"G-ABCD", {"G-ABCD"}},
        {"GABC", {"GABC"}},
        {"", {""}},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(regcodeVariants(in), out) << in;
}

} // namespace
} // namespace orv::refdata
