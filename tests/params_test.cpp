#include <algorithm>
#include <atomic>
#include <map>

#include <fmt/format.h>
#include <pugixml.hpp>

#include <gtest/gtest.h>

#include "core/core.h"
#include "params/params.h"
#include "support.h"

namespace orv::params {
namespace {

using test::readBytes;
using test::writeBytes;

struct FakeControls : ControlSink {
    std::map<std::uint16_t, std::string> shown;
    void setChecked(std::uint16_t id, bool c) override { shown[id] = c ? "checked" : "unchecked"; }
    void setText(std::uint16_t id, const std::string& t) override { shown[id] = t; }
};

// A small catalogue of every kind, as the real one is built.
struct SmallCatalogue {
    BoolParameter flag{"FLAG", false};
    CheckBoxParameter box{"BOX", true, 32801, 100};
    IntParameter count{"COUNT", 5, 0, 10};
    ChoiceIntParameter range{"RANGE", 40, {2, 5, 10, 40, 100}, 32818, 231};
    StringParameter version{"PROGRAM_VERSION", ""};
    TextParameter dest{"DESTINATION", "", 32900, 300};
    FakeControls controls;
    ParameterLists lists;
    SmallCatalogue() {
        box.windowHandle = &controls;
        range.windowHandle = &controls;
        dest.windowHandle = &controls;
        lists = {{&flag}, {&box}, {&count}, {&range}, {&version}, {&dest}, &version};
    }
};

std::string fileOf(const std::string& body, bool withRoot = true) {
    const std::string params = "<parameters>" + body + "</parameters>";
    return withRoot ? "<root>" + params + "</root>" : params;
}

TEST(Parameters, MissingFileIsCreatedWithDefaults) {
    test::TempDir dir;
    SmallCatalogue c;
    c.count.value = 9;
    EXPECT_TRUE(loadParameters(dir / "parameters.xml", c.lists));
    EXPECT_EQ(c.count.value, 5);
    EXPECT_EQ(c.version.value,
              fmt::format("{}.{}.{}", core::kVersion.major, core::kVersion.minor, core::kVersion.patch));
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file((dir / "parameters.xml").c_str()));
    EXPECT_EQ(readIntParameter(doc, "RANGE"), 40);
    EXPECT_EQ(readBoolParameter(doc, "BOX"), true);
    EXPECT_EQ(readStringParameter(doc, "PROGRAM_VERSION"), c.version.value);
    EXPECT_EQ(c.controls.shown[32801], "checked");
    EXPECT_EQ(c.controls.shown[32818], "40");
}

TEST(Parameters, ReadingClampsTakesFirstAndAddsWhatIsNew) {
    test::TempDir dir;
    for (const bool withRoot : {true, false}) {
        SCOPED_TRACE(withRoot ? "with root" : "older form without root");
        SmallCatalogue c;
        writeBytes(dir / "parameters.xml",
                   fileOf(R"(<parameter name="COUNT" value="99"/><parameter name="FLAG" value="true"/>)"
                          R"(<parameter name="FLAG" value="false"/><parameter name="RANGE" value="1"/>)"
                          R"(<parameter name="DESTINATION" value="eham"/><parameter name="OLD" value="x"/>)",
                          withRoot));
        EXPECT_FALSE(loadParameters(dir / "parameters.xml", c.lists));
        EXPECT_EQ(c.count.value, 10); // clamped to the maximum
        EXPECT_EQ(c.range.value, 2);  // clamped to the first allowed value
        EXPECT_TRUE(c.flag.value);    // the first occurrence wins
        EXPECT_EQ(c.dest.value, "eham");
        EXPECT_TRUE(c.box.value); // absent: the default, now added to the file
        EXPECT_EQ(c.controls.shown[32900], "eham");
        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_file((dir / "parameters.xml").c_str()));
        EXPECT_EQ(readBoolParameter(doc, "BOX"), true);
        EXPECT_EQ(readIntParameter(doc, "COUNT"), 99); // the file keeps its text until an update
    }
}

TEST(Parameters, UpdateChangesEveryMatchKeepsUnknownsAndAddsTheRoot) {
    test::TempDir dir;
    const auto file = dir / "parameters.xml";
    SmallCatalogue c;
    writeBytes(file, fileOf(R"(<parameter name="COUNT" value="1"/><parameter name="COUNT"/>)"
                            R"(<parameter name="OLD" value="x"/>)"));
    c.count.value = 7;
    updateParameter(file, c.lists, c.count);
    auto text = readBytes(file);
    EXPECT_EQ(text.find("value=\"1\""), std::string::npos) << text;
    EXPECT_NE(text.find("name=\"OLD\""), std::string::npos) << "unknown elements survive an update";
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file(file.c_str()));
    int sevens = 0;
    for (auto e : doc.child("root").child("parameters").children("parameter"))
        if (std::string(e.attribute("value").as_string()) == "7") ++sevens;
    EXPECT_EQ(sevens, 2);

    // The older form is rewritten whole, with the root and the current values.
    writeBytes(file, fileOf(R"(<parameter name="OLD" value="x"/>)", false));
    c.dest.value = "KMSP";
    updateParameter(file, c.lists, c.dest);
    ASSERT_TRUE(doc.load_file(file.c_str()));
    EXPECT_TRUE(doc.child("root").child("parameters"));
    EXPECT_EQ(readStringParameter(doc, "DESTINATION"), "KMSP");
    EXPECT_EQ(readIntParameter(doc, "COUNT"), 7);
    EXPECT_FALSE(readStringParameter(doc, "OLD"));

    // A file that can't be read: the settings in use replace it whole, never the one alone.
    writeBytes(file, "<root><parameters><parameter name=");
    c.count.value = 3;
    updateParameter(file, c.lists, c.flag);
    ASSERT_TRUE(doc.load_file(file.c_str()));
    EXPECT_EQ(readIntParameter(doc, "COUNT"), 3);
    EXPECT_EQ(readStringParameter(doc, "DESTINATION"), "KMSP");

    // No file at all: one parameter in a new file.
    fs::remove(file);
    updateParameter(file, c.lists, c.flag);
    ASSERT_TRUE(doc.load_file(file.c_str()));
    EXPECT_EQ(readBoolParameter(doc, "FLAG"), false);
}

TEST(Parameters, SavingDefaultsKeepsTheVersionDefaultAndValuelessElementsAreFilledInPlace) {
    test::TempDir dir;
    const auto file = dir / "parameters.xml";
    SmallCatalogue c;
    saveParameters(file, c.lists, true);
    EXPECT_EQ(c.version.defaultValue, "") << "migration tells a fresh file by the empty default";
    EXPECT_FALSE(c.version.value.empty());
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file(file.c_str()));
    EXPECT_EQ(readStringParameter(doc, "PROGRAM_VERSION"), c.version.value);

    writeBytes(file, fileOf(R"(<parameter name="COUNT"/>)"));
    EXPECT_FALSE(loadParameters(file, c.lists));
    ASSERT_TRUE(doc.load_file(file.c_str()));
    int counts = 0;
    for (auto e : doc.child("root").child("parameters").children("parameter"))
        if (std::string_view(e.attribute("name").as_string()) == "COUNT") ++counts;
    EXPECT_EQ(counts, 1);
    EXPECT_EQ(readIntParameter(doc, "COUNT"), 5);
    for (const auto& e : fs::directory_iterator(dir.path()))
        EXPECT_NE(e.path().extension(), ".tmp") << "no temporary file stays behind";
}

// A change goes to the catalogue, the mirror the threads read, the control and the file at once.
TEST(Parameters, OneChangeReachesEveryCopy) {
    test::TempDir dir;
    const auto saved = core::gPaths.dataFolder;
    core::gPaths.dataFolder = dir.path();
    struct Case {
        const char* name;
        bool value;
        std::atomic<bool>& mirror;
    } cases[] = {{"LIGHT_AIRCRAFT", false, gParams.LIGHT_AIRCRAFT},
                 {"HELICOPTERS", false, gParams.HELICOPTERS},
                 {"HIGH_PERF_AIRCRAFT", false, gParams.HIGH_PERF_AIRCRAFT},
                 {"SCAN_LIVERIES", true, gParams.SCAN_LIVERIES},
                 {"SCAN_AIRPORTS", true, gParams.SCAN_AIRPORTS},
                 {"AIRBORNE_ONLY", true, gParams.AIRBORNE_ONLY},
                 {"AUTO_RANGE", false, gParams.AUTO_RANGE}};
    FakeControls controls;
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        auto& p = parameter<CheckBoxParameter>(k.name);
        p.windowHandle = &controls;
        k.mirror = !k.value;
        set(p, k.value);
        p.windowHandle = nullptr;
        EXPECT_EQ(p.value, k.value);
        EXPECT_EQ(k.mirror.load(), k.value);
        EXPECT_EQ(controls.shown[p.controlId], k.value ? "checked" : "unchecked");
        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_file((dir / "parameters.xml").c_str()));
        EXPECT_EQ(readBoolParameter(doc, k.name), k.value);
        set(p, p.defaultValue, Save::no);
    }
    auto& dest = parameter<StringParameter>("DESTINATION");
    set(dest, "EHAM", Save::no);
    EXPECT_EQ(gParams.DESTINATION, "EHAM");
    set(dest, "");
    auto& range = parameter<IntParameter>("RANGE");
    set(range, 1000, Save::no);
    EXPECT_EQ(gParams.RANGE, 100) << "clamped to the largest choice";
    set(range, 40, Save::no);
    core::gPaths.dataFolder = saved;
}

TEST(Parameters, BrokenFileIsKeptAsGenerationZero) {
    test::LogCapture log;
    test::TempDir dir;
    const auto file = dir / "parameters.xml";
    writeBytes(file, "<root><parameters><parameter name=");
    checkParameterFile(file);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(readBytes(dir / "parameters.0.xml"), "<root><parameters><parameter name=");
    EXPECT_TRUE(log.contains("parameters.xml failed to load ("));
    EXPECT_TRUE(log.contains("). Saved as 0.xml and removed."));
    SmallCatalogue c;
    EXPECT_TRUE(loadParameters(file, c.lists));

    // An empty one has nothing to keep: the copy kept before stays.
    for (const char* empty : {"", " \n\t"}) {
        writeBytes(file, empty);
        checkParameterFile(file);
        EXPECT_FALSE(fs::exists(file));
        EXPECT_EQ(readBytes(dir / "parameters.0.xml"), "<root><parameters><parameter name=");
    }
    EXPECT_TRUE(log.contains("parameters.xml is empty: removed"));
}

TEST(Parameters, WindowPositionBeforeTheWindow) {
    test::TempDir dir;
    const auto file = dir / "parameters.xml";
    EXPECT_FALSE(readWindowPosition(file));
    writeBytes(
        file,
        fileOf(
            R"(<parameter name="MAIN_WINDOW_X" value="99999"/><parameter name="MAIN_WINDOW_Y" value="-5"/>)"));
    const auto p = readWindowPosition(file);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->x, 30000);
    EXPECT_EQ(p->y, -5);
    writeBytes(file, fileOf(R"(<parameter name="MAIN_WINDOW_X" value="1"/>)", false));
    EXPECT_FALSE(readWindowPosition(file));
}

TEST(Parameters, SelectedIndex) {
    SmallCatalogue c;
    EXPECT_EQ(selectedIndex(c.range), 3u);
    c.range.value = 7;
    EXPECT_FALSE(selectedIndex(c.range));
}

} // namespace
} // namespace orv::params

namespace orv::params {
namespace {

TEST(ParameterCatalogue, ListsInFileOrderWithTheirDefaultsAndRanges) {
    const auto& l = parameterLists();
    EXPECT_EQ(l.bools.size(), 1u);
    EXPECT_EQ(l.checkBoxes.size(), 21u);
    EXPECT_EQ(l.ints.size(), 7u);
    EXPECT_EQ(l.choiceInts.size(), 7u);
    EXPECT_EQ(l.strings.size(), 23u);
    EXPECT_EQ(l.texts.size(), 2u);
    EXPECT_EQ(buttons().size(), 7u);
    EXPECT_EQ(l.checkBoxes.front()->name, "ALWAYS_ON_TOP");
    EXPECT_EQ(l.checkBoxes.back()->name, "PARK_SOFT");
    EXPECT_EQ(l.ints[2]->name, "LAST_EPOCH_TIME:");
    EXPECT_EQ(l.strings.back()->name, "DESTINATION");
    EXPECT_EQ(l.texts.back()->name, "SIM_CHOICE");

    struct IntCase {
        const char* name;
        int def, lo, hi;
    };
    for (const auto& c : {IntCase{"RANGE", 40, 2, 100}, IntCase{"AR_ABOVE_HEIGHT", 48000, 18000, 48000},
                          IntCase{"MAX_FIT", 47, 0, 47}, IntCase{"CUSTOM_PARKING_PERCENTAGE", -1, -1, 100},
                          IntCase{"parking_percentage", 30, 0, 100}}) {
        SCOPED_TRACE(c.name);
        const auto* p = dynamic_cast<IntParameter*>(findParameter(c.name));
        ASSERT_TRUE(p);
        EXPECT_EQ(p->defaultValue, c.def);
        EXPECT_EQ(p->minimum, c.lo);
        EXPECT_EQ(p->maximum, c.hi);
    }
    const auto* selector = dynamic_cast<ChoiceTextParameter*>(findParameter("AI_PACKAGE_SELECTOR"));
    ASSERT_TRUE(selector);
    EXPECT_EQ(selector->allowedValues.size(), 24u);
    EXPECT_TRUE(std::is_sorted(selector->allowedValues.begin(), selector->allowedValues.end()));
    EXPECT_EQ(selector->allowedValues.front(), "AIG, FSLTL, JF, MTL");
    EXPECT_EQ(dynamic_cast<StringParameter*>(findParameter("PORT_NUMBER"))->defaultValue, "10747");
    EXPECT_FALSE(findParameter("NO_SUCH"));
}

TEST(ParameterCatalogue, AFreshFileHoldsEveryListedParameterInOrder) {
    test::TempDir dir;
    EXPECT_TRUE(loadParameters(dir / "parameters.xml", parameterLists()));
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file((dir / "parameters.xml").c_str()));
    std::vector<std::string> names;
    for (auto e : doc.child("root").child("parameters").children("parameter"))
        names.emplace_back(e.attribute("name").as_string());
    ASSERT_EQ(names.size(), 61u);
    EXPECT_EQ(names.front(), "RANDOM");
    EXPECT_EQ(names[1], "ALWAYS_ON_TOP");
    EXPECT_EQ(names.back(), "SIM_CHOICE");
    EXPECT_EQ(readStringParameter(doc, "PROGRAM_VERSION"), "11.12.1");
    EXPECT_EQ(readIntParameter(doc, "LAST_EPOCH_TIME:"), 0);
    EXPECT_EQ(readStringParameter(doc, "AI_PACKAGE_SELECTOR"), "AIG, FSLTL, JF, MTL");
    EXPECT_FALSE(readStringParameter(doc, "ALL_INSTALL_PATH")) << "objects in no list are not written";
}

} // namespace
} // namespace orv::params
