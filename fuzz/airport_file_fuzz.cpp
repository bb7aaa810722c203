// Any airport file or hour text: read, or refused with a message, never a crash or a hang.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <pugixml.hpp>

#include "airportfile/airportfile.h"
#include "core/core.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orv;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (size > 0 && data[0] == 'h') {
        const auto bits = airportfile::hours2bitset(text.substr(1));
        if (const auto back = airportfile::bitset2hours(bits);
            back && airportfile::hours2bitset(*back) != bits)
            __builtin_trap(); // the written form must read back the same
        (void)airportfile::bitset2list(bits);
        return 0;
    }
    pugi::xml_document doc;
    if (!doc.load_buffer(data, size)) return 0;
    try {
        auto stands = airportfile::readStands(doc, 1);
        airportfile::numberAndLinkStands(stands);
        (void)airportfile::qualityFactors(stands);
    } catch (const core::UserErrorException&) {
        // A refused stand list is an answer, not a finding.
    }
    return 0;
}
