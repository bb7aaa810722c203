// Liveries: the scan of installed AI packages, the store, and matching.
#pragma once

#include <cstddef>

namespace orv::liveries {

bool liveriesFileExists();
void scan();
bool read(); // the scanned liveries into memory
std::size_t count();
void saveFailedList();
void reset();

} // namespace orv::liveries
