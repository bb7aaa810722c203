// Any bytes as a BGL file: its airports read or nothing, never a crash, a read beyond the data or a
// hang; the quick pre-check agrees with itself on the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "scan/scan.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orv;
    std::vector<std::uint32_t> words(size / 4);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = static_cast<std::uint32_t>(data[4 * i]) |
                   static_cast<std::uint32_t>(data[4 * i + 1]) << 8 |
                   static_cast<std::uint32_t>(data[4 * i + 2]) << 16 |
                   static_cast<std::uint32_t>(data[4 * i + 3]) << 24;
    (void)scan::hasAirportSection({data, size}, size);
    for (const bool msfs2024 : {false, true}) {
        const auto got = scan::decodeBgl(words, msfs2024, "fuzz.bgl");
        for (const auto& a : got.airports)
            if (a.code.size() < 3 || a.code.size() > 4 || a.helipads > static_cast<int>(a.stands.size()))
                __builtin_trap();
    }
    return 0;
}
