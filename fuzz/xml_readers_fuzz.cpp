// Any plain dbase.xml, airports.xml or parameters.xml: read or refused with a message, never a crash.
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <unistd.h>

#include "params/params.h"
#include "refdata/refdata.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orv;
    static const auto dir = [] {
        auto d = std::filesystem::temp_directory_path() / ("orv-fuzz-xml-" + std::to_string(::getpid()));
        std::filesystem::create_directories(d);
        return d;
    }();
    const auto write = [&](const std::filesystem::path& p) {
        std::ofstream(p, std::ios::binary)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    };
    const int which = size > 0 ? data[0] % 3 : 0;
    try {
        if (which == 0) {
            write(dir / "dbase.xml");
            (void)refdata::parseDbaseXml(dir / "dbase.xml"); // refusing a broken file is the expected outcome
        } else if (which == 1) {
            write(dir / "airports.xml");
            refdata::parseAirportsXml(dir / "airports.xml");
        } else {
            write(dir / "parameters.xml");
            params::checkParameterFile(dir / "parameters.xml");
            params::loadParameters(dir / "parameters.xml", params::parameterLists());
        }
    } catch (const std::exception&) {
        // A refused file is an answer, not a finding.
    }
    return 0;
}
