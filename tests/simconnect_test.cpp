// The wire layouts byte by byte, reassembly of a TCP stream, and what the emulator answers.
#include <cstring>

#include <gtest/gtest.h>

#include "emulator.h"
#include "simconnect/simconnect.h"
#include "support.h"

namespace orv::simconnect {
namespace {

using Buffer = std::vector<std::uint8_t>;

DWORD u32At(const Buffer& b, std::size_t at) {
    DWORD v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}
double f64At(const Buffer& b, std::size_t at) {
    double v;
    std::memcpy(&v, b.data() + at, 8);
    return v;
}
float f32At(const Buffer& b, std::size_t at) {
    float v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}
// A fixed-width string field: the text, then zeros to the end of the field.
void expectString(const Buffer& b, std::size_t at, std::size_t width, std::string_view text) {
    ASSERT_LE(at + width, b.size());
    EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(b.data() + at), text.size()), text)
        << "at " << at;
    for (std::size_t i = text.size(); i < width; ++i) ASSERT_EQ(b[at + i], 0) << "padding at " << at + i;
}

struct Probe {
    std::size_t at;
    char kind; // 'u' u32, 'f' f32, 'd' f64, 's' string (width in `width`)
    double number = 0;
    std::string_view text = {};
    std::size_t width = 0;
};
void check(const Buffer& b, const std::vector<Probe>& probes) {
    for (const auto& p : probes) {
        SCOPED_TRACE(p.at);
        switch (p.kind) {
        case 'u':
            EXPECT_EQ(u32At(b, p.at), static_cast<DWORD>(p.number));
            break;
        case 'f':
            EXPECT_EQ(f32At(b, p.at), static_cast<float>(p.number));
            break;
        case 'd':
            EXPECT_EQ(f64At(b, p.at), p.number);
            break;
        case 's':
            expectString(b, p.at, p.width, p.text);
            break;
        }
    }
}

TEST(Codec, ClientPacketsByteByByte) {
    const std::uint8_t data[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    SIMCONNECT_DATA_INITPOSITION init{44.88, -93.22, 841.5, -2.5, 1.25, 118.0, 1, 150};
    struct Case {
        ClientPacket packet;
        DWORD opcode;
        std::size_t size;
        std::vector<Probe> probes;
    };
    const Case cases[] = {
        {OpenPacket{"Orvelline", 0, 0, {'H', 'K', 0}, 11, 0, 62651, 3},
         0x01,
         296,
         {{16, 's', 0, "Orvelline", 256},
          {272, 'u', 0},
          {276, 'u', 0x004B4800},
          {280, 'u', 11},
          {284, 'u', 0},
          {288, 'u', 62651},
          {292, 'u', 3}}},
        {MapClientEventToSimEventPacket{217, "FLAPS_SET"},
         0x04,
         276,
         {{16, 'u', 217}, {20, 's', 0, "FLAPS_SET", 256}}},
        {TransmitClientEventPacket{1234, 219, 1, 301, 0},
         0x05,
         36,
         {{16, 'u', 1234}, {20, 'u', 219}, {24, 'u', 1}, {28, 'u', 301}, {32, 'u', 0}}},
        {AddClientEventToNotificationGroupPacket{301, 206, 1},
         0x07,
         28,
         {{16, 'u', 301}, {20, 'u', 206}, {24, 'u', 1}}},
        {SetNotificationGroupPriorityPacket{301, 1}, 0x09, 24, {{16, 'u', 301}, {20, 'u', 1}}},
        {AddToDataDefinitionPacket{402, "Plane Latitude", "degree", SIMCONNECT_DATATYPE_FLOAT64, 0.5f,
                                   SIMCONNECT_UNUSED},
         0x0C,
         544,
         {{16, 'u', 402},
          {20, 's', 0, "Plane Latitude", 256},
          {276, 's', 0, "degree", 256},
          {532, 'u', 4},
          {536, 'f', 0.5},
          {540, 'u', 0xFFFFFFFFu}}},
        {RequestDataOnSimObjectPacket{109, 403, 0, SIMCONNECT_PERIOD_SECOND, 5, 6, 7, 8},
         0x0E,
         48,
         {{16, 'u', 109},
          {20, 'u', 403},
          {24, 'u', 0},
          {28, 'u', 4},
          {32, 'u', 5},
          {36, 'u', 6},
          {40, 'u', 7},
          {44, 'u', 8}}},
        {RequestDataOnSimObjectTypePacket{101, 404, 74080, 2},
         0x0F,
         32,
         {{16, 'u', 101}, {20, 'u', 404}, {24, 'u', 74080}, {28, 'u', 2}}},
        {SetDataOnSimObjectPacket{402, 77, 0, 0, 12, Bytes(data)},
         0x10,
         48,
         {{16, 'u', 402},
          {20, 'u', 77},
          {24, 'u', 0},
          {28, 'u', 0},
          {32, 'u', 12},
          {36, 'u', 0x04030201},
          {44, 'u', 0x0C0B0A09}}},
        {SubscribeToSystemEventPacket{204, "Frame"}, 0x17, 276, {{16, 'u', 204}, {20, 's', 0, "Frame", 256}}},
        {AICreateNonATCAircraftPacket{"Airbus A320 Delta", "DAL123", init, 104},
         0x29,
         344,
         {{16, 's', 0, "Airbus A320 Delta", 256},
          {272, 's', 0, "DAL123", 12},
          {284, 'd', 44.88},
          {292, 'd', -93.22},
          {300, 'd', 841.5},
          {308, 'd', -2.5},
          {316, 'd', 1.25},
          {324, 'd', 118.0},
          {332, 'u', 1},
          {336, 'u', 150},
          {340, 'u', 104}}},
        // A text as long as its field loses its last character to the terminator.
        {AICreateNonATCAircraftPacket{"Airbus A320 Delta", "ABCDEFGHIJKL", init, 104},
         0x29,
         344,
         {{272, 's', 0, "ABCDEFGHIJK", 12}, {284, 'd', 44.88}}},
        {AIReleaseControlPacket{88, 103}, 0x2B, 24, {{16, 'u', 88}, {20, 'u', 103}}},
        {AIRemoveObjectPacket{88, 105}, 0x2C, 24, {{16, 'u', 88}, {20, 'u', 105}}},
        {AISetAircraftFlightPlanPacket{88, "/tmp/orig_dest/11259375.pln", 110},
         0x2D,
         284,
         {{16, 'u', 88}, {20, 's', 0, "/tmp/orig_dest/11259375.pln", 260}, {280, 'u', 110}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.opcode);
        const auto bytes = encodeClient(c.packet, kProtocolMsfs2020, 4242);
        ASSERT_EQ(bytes.size(), c.size);
        EXPECT_EQ(u32At(bytes, 0), c.size);
        EXPECT_EQ(u32At(bytes, 4), kProtocolMsfs2020);
        EXPECT_EQ(u32At(bytes, 8), 0xF0000000u | c.opcode);
        EXPECT_EQ(u32At(bytes, 12), 4242u);
        check(bytes, c.probes);
        // Decoding gives back the same fields: encoding the decoded packet gives the same bytes.
        const auto decoded = decodeClient(bytes);
        ASSERT_TRUE(std::holds_alternative<DecodedClient>(decoded)) << std::get<std::string>(decoded);
        const auto& d = std::get<DecodedClient>(decoded);
        ASSERT_TRUE(d.packet.has_value());
        EXPECT_EQ(d.packet->index(), c.packet.index());
        EXPECT_EQ(encodeClient(*d.packet, kProtocolMsfs2020, 4242), bytes);
    }
}

// The messages a server sends, in one list: the reassembly test streams them too.
std::vector<std::pair<ServerBody, std::size_t>> serverCases(const std::uint8_t (&data)[16]) {
    RecvOpen open{"KittyHawk", 11, 0, 282174, 999, 11, 0, 62651, 3, 0, 0};
    RecvSimObjectData byType{true, 101, 300, 404, 0, 2, 5, 4, Bytes(data)};
    return {
        {RecvException{22, 17, 1}, 24},
        {open, 308},
        {RecvQuit{}, 12},
        {RecvEvent{SIMCONNECT_UNUSED, 201, 1}, 24},
        {RecvEventObjectAddRemove{SIMCONNECT_UNUSED, 202, 300, 2}, 28},
        {RecvEventFilename{SIMCONNECT_UNUSED, 205, 0, "flights/KMSP.FLT", 7}, 288},
        {RecvEventFrame{SIMCONNECT_UNUSED, 204, 0, 29.5f, 1.0f}, 32},
        {RecvSimObjectData{false, 109, 1, 403, 0, 1, 1, 12, Bytes(data)}, 56},
        {byType, 56},
        {RecvAssignedObjectId{104, 300}, 20},
    };
}

TEST(Codec, ServerMessagesByteByByte) {
    const std::uint8_t data[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const std::vector<std::vector<Probe>> probes = {
        {{8, 'u', 1}, {12, 'u', 22}, {16, 'u', 17}, {20, 'u', 1}},
        {{8, 'u', 2},
         {12, 's', 0, "KittyHawk", 256},
         {268, 'u', 11},
         {272, 'u', 0},
         {276, 'u', 282174},
         {280, 'u', 999},
         {284, 'u', 11},
         {288, 'u', 0},
         {292, 'u', 62651},
         {296, 'u', 3},
         {300, 'u', 0},
         {304, 'u', 0}},
        {{8, 'u', 3}},
        {{8, 'u', 4}, {12, 'u', 0xFFFFFFFFu}, {16, 'u', 201}, {20, 'u', 1}},
        {{8, 'u', 5}, {16, 'u', 202}, {20, 'u', 300}, {24, 'u', 2}},
        {{8, 'u', 6}, {16, 'u', 205}, {24, 's', 0, "flights/KMSP.FLT", 260}, {284, 'u', 7}},
        {{8, 'u', 7}, {16, 'u', 204}, {24, 'f', 29.5}, {28, 'f', 1.0}},
        {{8, 'u', 8},
         {12, 'u', 109},
         {16, 'u', 1},
         {20, 'u', 403},
         {24, 'u', 0},
         {28, 'u', 1},
         {32, 'u', 1},
         {36, 'u', 12},
         {40, 'u', 0x04030201},
         {52, 'u', 0x100F0E0D}},
        {{8, 'u', 9}, {12, 'u', 101}, {16, 'u', 300}, {28, 'u', 2}, {32, 'u', 5}},
        {{8, 'u', 12}, {12, 'u', 104}, {16, 'u', 300}},
    };
    const auto cases = serverCases(data);
    ASSERT_EQ(cases.size(), probes.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const auto bytes = encodeServer(cases[i].first, kProtocolMsfs2020);
        ASSERT_EQ(bytes.size(), cases[i].second);
        EXPECT_EQ(u32At(bytes, 0), cases[i].second);
        EXPECT_EQ(u32At(bytes, 4), kProtocolMsfs2020);
        check(bytes, probes[i]);
        const auto decoded = decodeServer(bytes);
        ASSERT_TRUE(std::holds_alternative<Received>(decoded)) << std::get<std::string>(decoded);
        EXPECT_EQ(encodeServer(std::get<Received>(decoded).body, kProtocolMsfs2020), bytes);
    }
}

TEST(Codec, MalformedPacketsAreRefused) {
    const auto event = encodeServer(RecvEvent{1, 2, 3}, 5);
    struct Case {
        const char* name;
        Buffer bytes;
        bool server;
    };
    auto shortEvent = event;
    shortEvent.resize(20);
    shortEvent[0] = 20;
    auto longEvent = event;
    longEvent.push_back(0);
    longEvent[0] = 25;
    auto lying = event;
    lying[0] = 40; // the size field says more than there is
    auto create = encodeClient(AIReleaseControlPacket{1, 2}, 5, 9);
    auto noMark = create;
    noMark[11] = 0;
    auto shortCreate = create;
    shortCreate.resize(20);
    shortCreate[0] = 20;
    const Case cases[] = {
        {"event body too short", shortEvent, true},   {"event body too long", longEvent, true},
        {"size field disagrees", lying, true},        {"no header", Buffer(8, 0), true},
        {"client type without mark", noMark, false},  {"client body too short", shortCreate, false},
        {"client header only", Buffer(10, 0), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.server)
            EXPECT_TRUE(std::holds_alternative<std::string>(decodeServer(c.bytes)));
        else
            EXPECT_TRUE(std::holds_alternative<std::string>(decodeClient(c.bytes)));
    }
    // Ids and opcodes the codec doesn't know are kept, not refused.
    auto unknown = encodeServer(RecvQuit{}, 5);
    unknown[8] = 16;
    EXPECT_EQ(std::get<Received>(decodeServer(unknown)).body.index(), 0u);
}

TEST(Reassembly, EverySplitOfAStreamGivesTheSamePackets) {
    const std::uint8_t data[16] = {};
    Buffer stream;
    std::vector<Buffer> packets;
    for (const auto& [body, size] : serverCases(data)) {
        packets.push_back(encodeServer(body, 5));
        stream.insert(stream.end(), packets.back().begin(), packets.back().end());
    }
    const auto collect = [](Reassembler& r, std::vector<Buffer>& out) {
        while (const auto p = r.next()) out.emplace_back(p->begin(), p->end());
    };
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        Reassembler r(kServerHeaderSize);
        std::vector<Buffer> got;
        r.feed(Bytes(stream).first(cut));
        collect(r, got);
        r.feed(Bytes(stream).subspan(cut));
        collect(r, got);
        ASSERT_EQ(got, packets) << "cut at " << cut;
        ASSERT_TRUE(r.error().empty());
    }
    Reassembler r(kServerHeaderSize); // one byte at a time
    std::vector<Buffer> got;
    for (const auto b : stream) {
        r.feed(Bytes(&b, 1));
        collect(r, got);
    }
    EXPECT_EQ(got, packets);
}

TEST(Reassembly, ImpossibleSizesStopTheStream) {
    for (const DWORD size : {0u, 4u, 11u, 65537u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(size);
        Buffer bytes(16, 0);
        std::memcpy(bytes.data(), &size, 4);
        Reassembler r(kServerHeaderSize);
        r.feed(bytes);
        EXPECT_FALSE(r.next().has_value());
        EXPECT_FALSE(r.error().empty());
        r.feed(encodeServer(RecvQuit{}, 5)); // nothing after a broken size is trusted
        EXPECT_FALSE(r.next().has_value());
    }
}

TEST(NetworkClient, ABrokenStreamIsAFailureWithItsReasonNotAQuit) {
    auto [ours, theirs] = makeMemoryPipe();
    auto* server = theirs.get();
    auto client = makeNetworkClient(transportOnce(std::move(ours)), kProtocolMsfs2020);
    ASSERT_EQ(client->Open("t"), S_OK);
    std::uint8_t header[16];
    ASSERT_EQ(server->receive(header, sizeof header, 1000), 16);
    EXPECT_EQ(std::memcmp(header + 8, "\x01\x00\x00\xF0", 4), 0);
    const auto good = encodeServer(RecvEvent{SIMCONNECT_UNUSED, 201, 1}, 5);
    server->send(good);
    const DWORD bad = 3;
    server->send(Bytes(reinterpret_cast<const std::uint8_t*>(&bad), 4));
    std::vector<DWORD> ids;
    const auto collect = [](const Received& m, void* ctx) {
        static_cast<std::vector<DWORD>*>(ctx)->push_back(m.id);
    };
    EXPECT_LT(client->CallDispatch(collect, &ids), 0);
    EXPECT_EQ(ids, (std::vector<DWORD>{SIMCONNECT_RECV_ID_EVENT}));
    EXPECT_NE(client->lastError().find("packet size 3"), std::string::npos) << client->lastError();
    EXPECT_LT(client->CallDispatch(collect, &ids), 0);
    EXPECT_EQ(ids.size(), 1u);
    EXPECT_LT(client->AIRemoveObject(1, 2), 0);
}

// The emulator's answers to one client over an in-memory pipe, without threads.
struct EmuHarness {
    emu::Emulator emulator;
    std::unique_ptr<Api> client;
    std::unique_ptr<Transport> serverEnd;
    int id = 0;
    std::vector<Received> got;
    std::vector<Buffer> raw;

    explicit EmuHarness(emu::Config config, DWORD protocol = kProtocolMsfs2020)
        : emulator(std::move(config)) {
        auto [ours, theirs] = makeMemoryPipe();
        serverEnd = std::move(theirs);
        id = emulator.connect([this](Bytes b) { return serverEnd->send(b); });
        client = makeNetworkClient(transportOnce(std::move(ours)), protocol);
        EXPECT_EQ(client->Open("harness"), S_OK);
        pump();
    }
    void pump() {
        std::uint8_t buf[4096];
        for (long n; (n = serverEnd->receive(buf, sizeof buf, 0)) > 0;)
            emulator.receive(id, Bytes(buf, static_cast<std::size_t>(n)));
        client->CallDispatch(
            [](const Received& m, void* ctx) {
                auto* h = static_cast<EmuHarness*>(ctx);
                h->got.push_back(m);
                h->got.back().body =
                    std::monostate{}; // views would dangle; keep ids and copy what tests read
                if (const auto* e = std::get_if<RecvException>(&m.body)) h->got.back().body = *e;
                if (const auto* a = std::get_if<RecvAssignedObjectId>(&m.body)) h->got.back().body = *a;
                if (const auto* e = std::get_if<RecvEventObjectAddRemove>(&m.body)) h->got.back().body = *e;
            },
            this);
    }
    std::vector<DWORD> exceptions() const {
        std::vector<DWORD> out;
        for (const auto& m : got)
            if (const auto* e = std::get_if<RecvException>(&m.body)) out.push_back(e->exception);
        return out;
    }
};

TEST(Emulator, RefusesWhatTheSimulatorRefuses) {
    SIMCONNECT_DATA_INITPOSITION at{44.88, -93.22, 3000, 0, 0, 90, 0, 200};
    struct Case {
        const char* name;
        std::function<void(EmuHarness&)> act;
        std::vector<DWORD> exceptions;
    };
    const Case cases[] = {
        {"unknown title",
         [&](EmuHarness& h) { h.client->AICreateNonATCAircraft("Nope", "N1", at, 1); },
         {22}},
        {"object limit",
         [&](EmuHarness& h) {
             for (int i = 0; i < 3; ++i) h.client->AICreateNonATCAircraft("Known", "N1", at, 1);
         },
         {11}},
        {"radius above 200 km",
         [&](EmuHarness& h) {
             h.client->AddToDataDefinition(1, "ATC ID", "", SIMCONNECT_DATATYPE_STRING32);
             h.client->RequestDataOnSimObjectType(2, 1, 200001, SIMCONNECT_SIMOBJECT_TYPE_AIRCRAFT);
         },
         {31}},
        {"unknown variable",
         [&](EmuHarness& h) { h.client->AddToDataDefinition(1, "NO SUCH VAR", "feet"); },
         {7}},
        {"unknown system event",
         [&](EmuHarness& h) { h.client->SubscribeToSystemEvent(1, "NoSuchEvent"); },
         {7}},
        {"subscribed twice",
         [&](EmuHarness& h) {
             h.client->SubscribeToSystemEvent(1, "Frame");
             h.client->SubscribeToSystemEvent(1, "Frame");
         },
         {26}},
        {"removing an object nobody made", [&](EmuHarness& h) { h.client->AIRemoveObject(555, 1); }, {25}},
        {"flight plan file missing",
         [&](EmuHarness& h) {
             h.client->AICreateNonATCAircraft("Known", "N1", at, 1);
             h.client->AISetAircraftFlightPlan(100, "/nonexistent/plan.pln", 3);
         },
         {23}},
        {"wrong data size",
         [&](EmuHarness& h) {
             h.client->AddToDataDefinition(1, "Plane Latitude", "degree");
             const double v[2] = {1, 2};
             h.client->SetDataOnSimObject(1, 0, 0, 0, 16, v);
         },
         {19}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        emu::Config config;
        config.titles = {"Known"};
        config.maxObjects = 2;
        EmuHarness h(config);
        c.act(h);
        h.pump();
        EXPECT_EQ(h.exceptions(), c.exceptions);
    }
}

TEST(Emulator, NumbersReadAsNarrowerTypesSaturate) {
    EmuHarness h({});
    h.client->AddToDataDefinition(1, "Plane Altitude", "feet", SIMCONNECT_DATATYPE_FLOAT64);
    h.client->AddToDataDefinition(2, "Plane Altitude", "feet", SIMCONNECT_DATATYPE_INT64);
    h.client->AddToDataDefinition(2, "Plane Altitude", "feet", SIMCONNECT_DATATYPE_INT32);
    h.client->AddToDataDefinition(2, "Plane Altitude", "feet", SIMCONNECT_DATATYPE_FLOAT32);
    const double huge = -9.5e301;
    h.client->SetDataOnSimObject(1, SIMCONNECT_OBJECT_ID_USER, 0, 0, 8, &huge);
    std::vector<std::uint8_t> block;
    h.client->RequestDataOnSimObject(7, 2, SIMCONNECT_OBJECT_ID_USER, SIMCONNECT_PERIOD_ONCE);
    std::uint8_t buf[4096];
    for (long n; (n = h.serverEnd->receive(buf, sizeof buf, 0)) > 0;)
        h.emulator.receive(h.id, Bytes(buf, static_cast<std::size_t>(n)));
    h.client->CallDispatch(
        [](const Received& m, void* ctx) {
            if (const auto* d = std::get_if<RecvSimObjectData>(&m.body))
                static_cast<std::vector<std::uint8_t>*>(ctx)->assign(d->data.begin(), d->data.end());
        },
        &block);
    ASSERT_EQ(block.size(), 16u);
    std::int64_t i64;
    std::int32_t i32;
    float f32;
    std::memcpy(&i64, block.data(), 8);
    std::memcpy(&i32, block.data() + 8, 4);
    std::memcpy(&f32, block.data() + 12, 4);
    EXPECT_EQ(i64, std::numeric_limits<std::int64_t>::lowest());
    EXPECT_EQ(i32, std::numeric_limits<std::int32_t>::lowest());
    EXPECT_EQ(f32, std::numeric_limits<float>::lowest());
}

TEST(Emulator, VersionsAndOrderOfCreationMessages) {
    struct Case {
        bool msfs2024;
        DWORD protocol;
        bool addedFirst;
        std::vector<DWORD> afterCreate; // message ids, in order
        bool versionRefused;
    };
    const Case cases[] = {
        {false, kProtocolMsfs2020, false, {12, 5}, false}, {false, kProtocolMsfs2020, true, {5, 12}, false},
        {false, kProtocolFsx, false, {12, 5}, false},      {true, kProtocolMsfs2024, false, {12, 5}, false},
        {false, kProtocolMsfs2024, false, {}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.protocol << (c.msfs2024 ? " on 2024" : " on 2020"));
        emu::Config config;
        config.msfs2024 = c.msfs2024;
        config.addedBeforeAssigned = c.addedFirst;
        config.titles = {"Known"};
        EmuHarness h(config, c.protocol);
        if (c.versionRefused) {
            EXPECT_EQ(h.exceptions(), std::vector<DWORD>{5});
            continue;
        }
        ASSERT_EQ(h.got.size(), 1u);
        EXPECT_EQ(h.got[0].id, SIMCONNECT_RECV_ID_OPEN);
        EXPECT_EQ(h.got[0].version, c.protocol) << "the answer carries the client's version";
        h.client->SubscribeToSystemEvent(9, "ObjectAdded");
        h.client->AICreateNonATCAircraft("Known", "N1", {44.9, -93.2, 900, 0, 0, 0, 1, 0}, 42);
        h.got.clear();
        h.pump();
        std::vector<DWORD> ids;
        for (const auto& m : h.got) ids.push_back(m.id);
        EXPECT_EQ(ids, c.afterCreate);
    }
}

} // namespace
} // namespace orv::simconnect

namespace orv::simconnect {
namespace {

// The emulator's titles come from a Community folder; links that loop or dangle are skipped.
TEST(Emulator, TitlesUnderAFolderWithBrokenLinks) {
    test::TempDir dir;
    const auto plane = dir / "pkg" / "SimObjects" / "Airplanes" / "A";
    std::filesystem::create_directories(plane);
    test::writeBytes(plane / "aircraft.cfg",
                     "[FLTSIM.0]\ntitle = \"Test Livery\" ; note\n[GENERAL]\ntitle = no\n");
    std::filesystem::create_symlink(dir / "pkg" / "loop", dir / "pkg" / "loop"); // loops on itself
    std::filesystem::create_symlink(dir / "nowhere", dir / "pkg" / "aircraft.cfg");
    EXPECT_EQ(emu::titlesUnder(dir.path()), std::vector<std::string>{"Test Livery"});
}

} // namespace
} // namespace orv::simconnect
