// The client's side of the wire: a stream of server bytes cut into messages and decoded, and
// the data blocks of object data read the way the simulator link reads them.
#include <cstddef>
#include <cstdint>

#include "simconnect/simconnect.h"

using namespace orv::simconnect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reassembler r(kServerHeaderSize);
    // The first byte decides where the stream is split, as TCP would.
    const std::size_t cut = size ? data[0] % (size + 1) : 0;
    for (const Bytes part : {Bytes(data, cut), Bytes(data + cut, size - cut)}) {
        r.feed(part);
        while (const auto packet = r.next()) {
            const auto decoded = decodeServer(*packet);
            const auto* m = std::get_if<Received>(&decoded);
            if (!m) continue;
            if (const auto* d = std::get_if<RecvSimObjectData>(&m->body)) {
                DataReader in(d->data);
                (void)in.f64(), (void)in.i64(), (void)in.fixed(32), (void)in.stringV();
            }
            (void)encodeServer(m->body, m->version);
        }
    }
    return 0;
}
