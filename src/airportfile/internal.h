// What the airport-file sources share and tests may use; the rest of the folder is private.
#pragma once

#include <optional>
#include <string_view>

#include <pugixml.hpp>

#include "airportfile/airportfile.h"

namespace orv::airportfile {

// A path relative to the program folder, with the files' "\" separators.
fs::path onDisk(std::string_view relative);
// One `opt` element: nothing when it has no half hours or no weekday 1..7 (it takes no number).
std::optional<StandOption> readOption(pugi::xml_node opt, std::uint32_t archived);

} // namespace orv::airportfile
