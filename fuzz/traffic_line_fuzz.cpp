// Any datagram at all must decode, be dropped or be refused with a log line; never crash.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "feed/feed.h"
#include "params/params.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orv;
    static auto* reader = [] {
        auto* r = new feed::TrafficReader();
        r->setArea({{44.8820, -93.2218}, 841.0, core::LatLon{44.8820, -93.2218}});
        params::gParams.RANGE = 100;
        feed::setAcceptTraffic(true);
        return r;
    }();
    if (size >= feed::UdpReader::kBufferSize) return 0; // the receive loop never passes these on
    std::memcpy(reader->buffer, data, size);
    reader->buffer[size] = 0;
    reader->line = reader->buffer;
    reader->lineLength = size;
    reader->collectCallsigns = (size % 2) == 1;
    reader->processLine();
    feed::TrafficSample out[2];
    while (feed::takeTraffic(out, 2) > 0) {
    }
    if (reader->seenCallsigns.size() > 1000) reader->seenCallsigns.clear();
    return 0;
}
