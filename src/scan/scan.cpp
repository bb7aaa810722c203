#include "scan/scan.h"

namespace orv::scan {

void scanAirports() {}
std::size_t airportFileCount() {
    return 0;
}

} // namespace orv::scan
