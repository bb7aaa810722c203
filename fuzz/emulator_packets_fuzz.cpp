// The emulator's side of the wire: any bytes from a client, after a proper Open, must be
// answered or refused without harm to the emulator.
#include <cstddef>
#include <cstdint>

#include "emulator.h"

using namespace orv;
using namespace orv::simconnect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    emu::Config config;
    config.titles = {"Known"};
    config.maxObjects = 4;
    config.airports = {{"KMSP", 44.882, -93.2218, 841}};
    config.user.latitude = 44.882;
    config.user.longitude = -93.2218;
    emu::Emulator e(config);
    std::size_t answered = 0;
    const int client = e.connect([&](Bytes b) {
        answered += b.size();
        return true;
    });
    e.receive(client, encodeClient(OpenPacket{"fuzz", 0, 0, {'H', 'K', 0}, 11, 0, 62651, 3}, 5, 1));
    e.receive(client, Bytes(data, size));
    e.advanceTo(1.5); // periodic requests and frames run on whatever the input set up
    e.disconnect(client);
    (void)answered;
    return 0;
}
