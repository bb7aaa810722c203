#include <fmt/format.h>
#include <pugixml.hpp>

#include <gtest/gtest.h>

#include "core/core.h"
#include "params/params.h"
#include "run/run.h"
#include "support.h"

namespace orv::run {
namespace {

TEST(VersionStep, StoredVersionDecidesWhatHappens) {
    struct Case {
        const char* stored; // nullptr: no parameters.xml yet
        int range;          // RANGE afterwards (10 was stored)
        bool scanLiveries;  // SCAN_LIVERIES afterwards (false was stored)
        bool filesCleared;  // the earlier layout's files are gone
        std::string log;
    };
    const Case cases[] = {
        {nullptr, 40, true, false, "not found, creating new with default values"},
        {"11.12.1", 10, false, false, ""},
        {"11.0.1", 40, true, false, "re-starts with default parameter values"},
        {"not a version", 40, true, false, "This is a version update from not a version -> 11.12.1"},
        {"11.0.2", 10, true, true, "This is a version update from 11.0.2 -> 11.12.1"},
        {"12.0.0", 10, false, false, ""},
    };
    const core::Paths saved = core::gPaths;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stored ? c.stored : "first start");
        test::LogCapture log;
        test::TempDir dir;
        core::gPaths.programFolder = dir / "home";
        fs::create_directories(dir / "home" / "output");
        fs::create_directories(dir / "home" / "new_version");
        test::writeBytes(dir / "home" / "output" / "LiveriesScanned.xml", "<x/>");
        test::writeBytes(dir / "home" / "stray.xml", "<x/>");
        const auto file = dir / "parameters.xml";
        if (c.stored) {
            test::writeBytes(file,
                             fmt::format(R"(<root><parameters><parameter name="PROGRAM_VERSION" value="{}"/>)"
                                         R"(<parameter name="RANGE" value="10"/>)"
                                         R"(<parameter name="SCAN_LIVERIES" value="false"/>)"
                                         R"(</parameters></root>)",
                                         c.stored));
        }
        versionStep(file);

        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_file(file.c_str()));
        EXPECT_EQ(params::readStringParameter(doc, "PROGRAM_VERSION"), "11.12.1");
        EXPECT_EQ(params::readIntParameter(doc, "RANGE"), c.range);
        EXPECT_EQ(params::readBoolParameter(doc, "SCAN_LIVERIES"), c.scanLiveries);
        EXPECT_EQ(dynamic_cast<params::IntParameter*>(params::findParameter("RANGE"))->value, c.range);
        EXPECT_EQ(dynamic_cast<params::BoolParameter*>(params::findParameter("SCAN_LIVERIES"))->value,
                  c.scanLiveries);
        EXPECT_EQ(fs::exists(dir / "home" / "output" / "LiveriesScanned.xml"), !c.filesCleared);
        EXPECT_EQ(fs::exists(dir / "home" / "stray.xml"), !c.filesCleared);
        EXPECT_EQ(fs::exists(dir / "home" / "new_version"), !c.filesCleared);
        if (!c.log.empty()) {
            EXPECT_TRUE(log.contains(c.log)) << log.text();
        }
        if (c.stored && std::string(c.stored) == "11.12.1") {
            EXPECT_FALSE(log.contains("version update"));
        }
    }
    core::gPaths = saved;
    params::saveParameters(fs::temp_directory_path() / "orv-reset-parameters.xml", params::parameterLists(),
                           true);
    fs::remove(fs::temp_directory_path() / "orv-reset-parameters.xml");
}

} // namespace
} // namespace orv::run
