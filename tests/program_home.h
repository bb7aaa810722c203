// A program folder with the shipped reference files and the livery store of the fixed set, for
// tests that run the engine.
#pragma once

#include <gtest/gtest.h>

#include "liveries/liveries.h"
#include "params/params.h"
#include "refdata/refdata.h"
#include "scenario.h"
#include "support.h"

namespace orv::test {

// A program folder with the shipped reference files and the livery store of the fixed set.
class ProgramHome : public testing::Test {
  protected:
    void SetUp() override {
        params::gParams.reset();
        params::gParams.RANDOM = false;
        titles = scenario::prepareHome(fs::path(ORV_PROGRAM).parent_path() / "input",
                                       fs::path(ORV_SOURCE_DIR) / "data/liveries/Community", dir.path());
        liveries::seedMatching(7);
    }
    void TearDown() override {
        liveries::gStore.reset();
        params::gParams.reset();
    }
    static fs::path recording(const char* name) {
        return fs::path(ORV_SOURCE_DIR) / "data/recordings" / name;
    }

    TempDir dir;
    LogCapture log;
    std::vector<std::string> titles;
};

} // namespace orv::test
