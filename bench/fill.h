// What more than one benchmark sets up.
#pragma once

#include <random>

namespace orv::bench {

// 1,000 live aircraft spread over 40 nm, each on a straight track with a point every 8 s for 20
// minutes; the first `taxiing` of them on the ground instead, zig-zagging at 15 kt with a turn
// every 100 m, so that every segment is a curve.
void fillLiveTable(std::mt19937& rng, int taxiing);

} // namespace orv::bench
