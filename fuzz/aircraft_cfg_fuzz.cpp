// Any aircraft.cfg text must give liveries or report lines, never a crash: the input is split
// into lines as the text reader gives them and parsed as a normal and as an IVAO file would be.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/core.h"
#include "liveries/internal.h"
#include "refdata/refdata.h"

namespace {
// A small reference database: the types and airlines the corpus uses, one registration.
void loadDbase() {
    const auto plain =
        std::filesystem::temp_directory_path() / ("orv-fuzz-dbase-" + std::to_string(::getpid()) + ".xml");
    std::ofstream(plain)
        << "<root><aircrafts><aircraft types=\"B738,B739,A320,B77W,C172,A20N\"/></aircrafts>"
           "<cargo_types><cargo_type types=\"B77W\"/></cargo_types>"
           "<heavy><hvy types=\"B77W\"/></heavy><large><lar types=\"B738,B739,A320,A20N\"/></large>"
           "<buzjet><bzj types=\"C172\"/></buzjet><high_performance><hpf types=\"A20N\"/></high_performance>"
           "<rotorcraft><rot types=\"C172\"/></rotorcraft>"
           "<ICAO_airlines><ICAO codes=\"KLM,DAL,UAL,ZZZ,RFO\"/></ICAO_airlines>"
           "<cargo_operators><ICAO codes=\"UAL\"/></cargo_operators>"
           "<simaddons20><simaddon20 arpts=\"EHAM\"/></simaddons20>"
           "<fixes><fx wro=\"B73H\" cor=\"B738\"/></fixes>"
           "<dbase><d r=\"PH-BXA\" a=\"KLM\" m=\"B738\" o=\"\" c=\"false\"/></dbase></root>";
    if (!orv::refdata::parseDbaseXml(plain)) std::abort(); // the fixed database must parse
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orv::liveries;
    static const bool ready = (loadDbase(), true);
    (void)ready;
    std::vector<std::string> lines;
    std::string current;
    for (std::size_t i = 0; i < size; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == '\n')
            lines.push_back(std::move(current)), current.clear();
        else if (c != '\r')
            current += c;
    }
    lines.push_back(current);
    orv::liveries::clearTitleSet();
    orv::liveries::clearReports();
    (void)orv::liveries::parseAircraftCfg(1, "Community/pkg/SimObjects/Airplanes/X/aircraft.cfg", lines);
    return 0;
}
