// A program folder with the shipped reference files and the livery store of the fixed set, for
// tests that run the engine.
#pragma once

#include <gtest/gtest.h>

#include "emulator.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "refdata/refdata.h"
#include "support.h"

namespace orv::test {

// A program folder with the shipped reference files and the livery store of the fixed set.
class ProgramHome : public testing::Test {
  protected:
    void SetUp() override {
        gPaths.programFolder = dir.path();
        gPaths.dataFolder = dir.path();
        fs::create_directories(dir / "input");
        gf_loadDbase(shippedCopy("dbase.enc", dir / "input"));
        gf_loadAirports(shippedCopy("airports.enc", dir / "input"));
        shippedCopy("AIG-regcodes.enc", dir / "input");
        liveries::gStore.reset();
        liveries::gf_clearReports();
        liveries::gf_clearTitleSet();
        liveries::gf_resetMatching();
        liveries::gf_seedMatching(7);
        gParams.reset();
        gParams.RANDOM = false;
        liveries::gf_readDontUseTitles();
        const fs::path community = fs::path(ORV_SOURCE_DIR) / "data/liveries/Community";
        ASSERT_TRUE(liveries::lf_scanFolders(liveries::lf_collectAutomaticFolders(community)));
        liveries::gf_processLiveries();
        titles = emu::titlesUnder(community);
    }
    void TearDown() override {
        liveries::gStore.reset();
        gParams.reset();
    }
    static fs::path recording(const char* name) {
        return fs::path(ORV_SOURCE_DIR) / "data/recordings" / name;
    }

    TempDir dir;
    LogCapture log;
    std::vector<std::string> titles;
};

} // namespace orv::test
