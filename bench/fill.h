// What more than one benchmark sets up.
#pragma once

#include <filesystem>
#include <random>
#include <vector>

#include "airportfile/airportfile.h"

namespace orv::bench {

// 1,000 live aircraft spread over 40 nm, each on a straight track with a point every 8 s for 20
// minutes; the first `taxiing` of them on the ground instead, zig-zagging at 15 kt with a turn
// every 100 m, so that every segment is a curve.
void fillLiveTable(std::mt19937& rng, int taxiing);

// EHAM's stands as the data site serves them, from a program folder made in `dir`.
std::vector<airportfile::Stand> ehamStands(const std::filesystem::path& dir);

} // namespace orv::bench
