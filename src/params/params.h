// Parameters the running program reads. The values live here with their catalogue defaults;
// the reading and writing of parameters.xml comes with the parameter model.
#pragma once

#include <atomic>
#include <string>

namespace orv {

struct Parameters {
    std::atomic<int> RANGE{40};         // traffic radius, nautical miles
    std::atomic<bool> AUTO_RANGE{true}; // radius follows height and airport distance
    std::atomic<bool> AIRBORNE_ONLY{false};
    std::atomic<bool> SCAN_LIVERIES{false};
    std::atomic<bool> SCAN_AIRPORTS{false};
    std::atomic<bool> INITIAL_LOAD_ONLY{false};
    std::atomic<bool> OBJECTID_LIST{false};
    std::atomic<bool> AEROWINX{false};
    std::atomic<bool> ALWAYS_ON_TOP{false};
    std::atomic<int> PORT_NUMBER{10747};
    // Written by the worker only.
    std::string DESTINATION;
    std::string BLOCK_CALLSIGN;
    std::string MSFS_PATH;

    void reset();
};

extern Parameters gParams;

} // namespace orv
