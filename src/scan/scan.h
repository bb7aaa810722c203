// The airport scan: scenery files into airport files.
#pragma once

#include <cstddef>

namespace orv::scan {

void scanAirports();
std::size_t airportFileCount();

} // namespace orv::scan
