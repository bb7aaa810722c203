// SimConnect over its TCP network protocol: the operations, constants and message layouts of
// the published SimConnect header, a field-by-field wire codec, byte transports and a client.
// Knows nothing of Orvelline, so the emulator and the tests use it as they would the real one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/platform.h"

namespace orv::simconnect {

using DWORD = std::uint32_t;
using HRESULT = std::int32_t;
inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);

inline constexpr DWORD SIMCONNECT_UNUSED = 0xFFFFFFFFu;
inline constexpr DWORD SIMCONNECT_OBJECT_ID_USER = 0;
inline constexpr DWORD SIMCONNECT_GROUP_PRIORITY_HIGHEST = 1;

enum SIMCONNECT_RECV_ID : DWORD {
    SIMCONNECT_RECV_ID_NULL = 0,
    SIMCONNECT_RECV_ID_EXCEPTION = 1,
    SIMCONNECT_RECV_ID_OPEN = 2,
    SIMCONNECT_RECV_ID_QUIT = 3,
    SIMCONNECT_RECV_ID_EVENT = 4,
    SIMCONNECT_RECV_ID_EVENT_OBJECT_ADDREMOVE = 5,
    SIMCONNECT_RECV_ID_EVENT_FILENAME = 6,
    SIMCONNECT_RECV_ID_EVENT_FRAME = 7,
    SIMCONNECT_RECV_ID_SIMOBJECT_DATA = 8,
    SIMCONNECT_RECV_ID_SIMOBJECT_DATA_BYTYPE = 9,
    SIMCONNECT_RECV_ID_ASSIGNED_OBJECT_ID = 12,
    SIMCONNECT_RECV_ID_CLIENT_DATA = 16,
    SIMCONNECT_RECV_ID_EVENT_EX1 = 27,
};

enum SIMCONNECT_DATATYPE : DWORD {
    SIMCONNECT_DATATYPE_INVALID = 0,
    SIMCONNECT_DATATYPE_INT32 = 1,
    SIMCONNECT_DATATYPE_INT64 = 2,
    SIMCONNECT_DATATYPE_FLOAT32 = 3,
    SIMCONNECT_DATATYPE_FLOAT64 = 4,
    SIMCONNECT_DATATYPE_STRING8 = 5,
    SIMCONNECT_DATATYPE_STRING32 = 6,
    SIMCONNECT_DATATYPE_STRING64 = 7,
    SIMCONNECT_DATATYPE_STRING128 = 8,
    SIMCONNECT_DATATYPE_STRING256 = 9,
    SIMCONNECT_DATATYPE_STRING260 = 10,
    SIMCONNECT_DATATYPE_STRINGV = 11,
};
// Bytes of one value of a fixed-size type; 0 for STRINGV and INVALID.
std::size_t datatypeSize(DWORD type) noexcept;

enum SIMCONNECT_PERIOD : DWORD {
    SIMCONNECT_PERIOD_NEVER = 0,
    SIMCONNECT_PERIOD_ONCE = 1,
    SIMCONNECT_PERIOD_VISUAL_FRAME = 2,
    SIMCONNECT_PERIOD_SIM_FRAME = 3,
    SIMCONNECT_PERIOD_SECOND = 4,
};

enum SIMCONNECT_SIMOBJECT_TYPE : DWORD {
    SIMCONNECT_SIMOBJECT_TYPE_USER = 0,
    SIMCONNECT_SIMOBJECT_TYPE_ALL = 1,
    SIMCONNECT_SIMOBJECT_TYPE_AIRCRAFT = 2,
    SIMCONNECT_SIMOBJECT_TYPE_HELICOPTER = 3,
    SIMCONNECT_SIMOBJECT_TYPE_BOAT = 4,
    SIMCONNECT_SIMOBJECT_TYPE_GROUND = 5,
};

enum SIMCONNECT_EXCEPTION : DWORD {
    SIMCONNECT_EXCEPTION_NONE = 0,
    SIMCONNECT_EXCEPTION_ERROR = 1,
    SIMCONNECT_EXCEPTION_SIZE_MISMATCH = 2,
    SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID = 3,
    SIMCONNECT_EXCEPTION_UNOPENED = 4,
    SIMCONNECT_EXCEPTION_VERSION_MISMATCH = 5,
    SIMCONNECT_EXCEPTION_NAME_UNRECOGNIZED = 7,
    SIMCONNECT_EXCEPTION_TOO_MANY_OBJECTS = 11,
    SIMCONNECT_EXCEPTION_TOO_MANY_REQUESTS = 12,
    SIMCONNECT_EXCEPTION_INVALID_DATA_SIZE = 19,
    SIMCONNECT_EXCEPTION_DATA_ERROR = 20,
    SIMCONNECT_EXCEPTION_CREATE_OBJECT_FAILED = 22,
    SIMCONNECT_EXCEPTION_LOAD_FLIGHTPLAN_FAILED = 23,
    SIMCONNECT_EXCEPTION_OPERATION_INVALID_FOR_OBJECT_TYPE = 24,
    SIMCONNECT_EXCEPTION_ILLEGAL_OPERATION = 25,
    SIMCONNECT_EXCEPTION_ALREADY_SUBSCRIBED = 26,
    SIMCONNECT_EXCEPTION_OUT_OF_BOUNDS = 31,
    SIMCONNECT_EXCEPTION_OBJECT_OUTSIDE_REALITY_BUBBLE = 33,
};

struct SIMCONNECT_DATA_INITPOSITION {
    double Latitude = 0, Longitude = 0, Altitude = 0, Pitch = 0, Bank = 0, Heading = 0;
    DWORD OnGround = 0;
    std::int32_t Airspeed = 0;
};

// ---- Protocol versions ----------------------------------------------------------------------

inline constexpr DWORD kProtocolFsx = 4;      // FSX SP2, accepted by MSFS
inline constexpr DWORD kProtocolMsfs2020 = 5; // "KittyHawk"
inline constexpr DWORD kProtocolMsfs2024 = 6; // "SunRise"

// What a client of a protocol puts in its Open packet.
struct ProtocolIdentity {
    std::array<char, 3> alias;
    DWORD major, minor, buildMajor, buildMinor;
};
std::optional<ProtocolIdentity> protocolIdentity(DWORD protocol) noexcept;

// ---- Wire layouts ---------------------------------------------------------------------------
// Strings are views into the packet being decoded (or the caller's text when encoding): they
// live as long as that buffer. Fixed-width strings end at their first zero byte.

inline constexpr std::size_t kClientHeaderSize = 16;
inline constexpr std::size_t kServerHeaderSize = 12;
inline constexpr std::size_t kMaxPacketSize = 65536; // well above MaxRecvSize (41088)
inline constexpr DWORD kClientTypeMark = 0xF0000000u;

using Bytes = std::span<const std::uint8_t>;

// Client packets, each with its opcode and its fields in wire order.
struct OpenPacket {
    static constexpr DWORD kOpcode = 0x01;
    std::string_view applicationName;
    DWORD reserved1 = 0;
    std::uint8_t reserved2 = 0;
    std::array<char, 3> alias{};
    DWORD major = 0, minor = 0, buildMajor = 0, buildMinor = 0;
    template <class F>
    void fields(F& f) {
        f.str(applicationName, 256), f.u32(reserved1), f.u8(reserved2), f.chars(alias), f.u32(major),
            f.u32(minor), f.u32(buildMajor), f.u32(buildMinor);
    }
};
struct MapClientEventToSimEventPacket {
    static constexpr DWORD kOpcode = 0x04;
    DWORD eventId = 0;
    std::string_view eventName;
    template <class F>
    void fields(F& f) {
        f.u32(eventId), f.str(eventName, 256);
    }
};
struct TransmitClientEventPacket {
    static constexpr DWORD kOpcode = 0x05;
    DWORD objectId = 0, eventId = 0, data = 0, groupId = 0, flags = 0;
    template <class F>
    void fields(F& f) {
        f.u32(objectId), f.u32(eventId), f.u32(data), f.u32(groupId), f.u32(flags);
    }
};
struct AddClientEventToNotificationGroupPacket {
    static constexpr DWORD kOpcode = 0x07;
    DWORD groupId = 0, eventId = 0, maskable = 0;
    template <class F>
    void fields(F& f) {
        f.u32(groupId), f.u32(eventId), f.u32(maskable);
    }
};
struct SetNotificationGroupPriorityPacket {
    static constexpr DWORD kOpcode = 0x09;
    DWORD groupId = 0, priority = 0;
    template <class F>
    void fields(F& f) {
        f.u32(groupId), f.u32(priority);
    }
};
struct AddToDataDefinitionPacket {
    static constexpr DWORD kOpcode = 0x0C;
    DWORD defineId = 0;
    std::string_view datumName, unitsName;
    DWORD datumType = SIMCONNECT_DATATYPE_FLOAT64;
    float epsilon = 0;
    DWORD datumId = SIMCONNECT_UNUSED;
    template <class F>
    void fields(F& f) {
        f.u32(defineId), f.str(datumName, 256), f.str(unitsName, 256), f.u32(datumType), f.f32(epsilon),
            f.u32(datumId);
    }
};
struct RequestDataOnSimObjectPacket {
    static constexpr DWORD kOpcode = 0x0E;
    DWORD requestId = 0, defineId = 0, objectId = 0, period = 0, flags = 0, origin = 0, interval = 0,
          limit = 0;
    template <class F>
    void fields(F& f) {
        f.u32(requestId), f.u32(defineId), f.u32(objectId), f.u32(period), f.u32(flags), f.u32(origin),
            f.u32(interval), f.u32(limit);
    }
};
struct RequestDataOnSimObjectTypePacket {
    static constexpr DWORD kOpcode = 0x0F;
    DWORD requestId = 0, defineId = 0, radiusMeters = 0, type = 0;
    template <class F>
    void fields(F& f) {
        f.u32(requestId), f.u32(defineId), f.u32(radiusMeters), f.u32(type);
    }
};
struct SetDataOnSimObjectPacket {
    static constexpr DWORD kOpcode = 0x10;
    DWORD defineId = 0, objectId = 0, flags = 0, arrayCount = 0, unitSize = 0;
    Bytes data;
    template <class F>
    void fields(F& f) {
        f.u32(defineId), f.u32(objectId), f.u32(flags), f.u32(arrayCount), f.u32(unitSize), f.rest(data);
    }
};
struct SubscribeToSystemEventPacket {
    static constexpr DWORD kOpcode = 0x17;
    DWORD eventId = 0;
    std::string_view eventName;
    template <class F>
    void fields(F& f) {
        f.u32(eventId), f.str(eventName, 256);
    }
};
struct AICreateNonATCAircraftPacket {
    static constexpr DWORD kOpcode = 0x29;
    std::string_view containerTitle, tailNumber;
    SIMCONNECT_DATA_INITPOSITION init;
    DWORD requestId = 0;
    template <class F>
    void fields(F& f) {
        f.str(containerTitle, 256), f.str(tailNumber, 12), f.f64(init.Latitude), f.f64(init.Longitude),
            f.f64(init.Altitude), f.f64(init.Pitch), f.f64(init.Bank), f.f64(init.Heading),
            f.u32(init.OnGround), f.i32(init.Airspeed), f.u32(requestId);
    }
};
struct AIReleaseControlPacket {
    static constexpr DWORD kOpcode = 0x2B;
    DWORD objectId = 0, requestId = 0;
    template <class F>
    void fields(F& f) {
        f.u32(objectId), f.u32(requestId);
    }
};
struct AIRemoveObjectPacket {
    static constexpr DWORD kOpcode = 0x2C;
    DWORD objectId = 0, requestId = 0;
    template <class F>
    void fields(F& f) {
        f.u32(objectId), f.u32(requestId);
    }
};
struct AISetAircraftFlightPlanPacket {
    static constexpr DWORD kOpcode = 0x2D;
    DWORD objectId = 0;
    std::string_view flightPlanPath;
    DWORD requestId = 0;
    template <class F>
    void fields(F& f) {
        f.u32(objectId), f.str(flightPlanPath, 260), f.u32(requestId);
    }
};

using ClientPacket =
    std::variant<OpenPacket, MapClientEventToSimEventPacket, TransmitClientEventPacket,
                 AddClientEventToNotificationGroupPacket, SetNotificationGroupPriorityPacket,
                 AddToDataDefinitionPacket, RequestDataOnSimObjectPacket, RequestDataOnSimObjectTypePacket,
                 SetDataOnSimObjectPacket, SubscribeToSystemEventPacket, AICreateNonATCAircraftPacket,
                 AIReleaseControlPacket, AIRemoveObjectPacket, AISetAircraftFlightPlanPacket>;

struct ClientHeader {
    DWORD size = 0, version = 0, type = 0, sendId = 0;
    DWORD opcode() const { return type & ~kClientTypeMark; }
};

// Server messages, each with its SIMCONNECT_RECV_ID.
struct RecvException {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_EXCEPTION;
    DWORD exception = 0, sendId = 0, index = 0;
    template <class F>
    void fields(F& f) {
        f.u32(exception), f.u32(sendId), f.u32(index);
    }
};
struct RecvOpen {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_OPEN;
    std::string_view applicationName;
    DWORD applicationVersionMajor = 0, applicationVersionMinor = 0, applicationBuildMajor = 0,
          applicationBuildMinor = 0, simConnectVersionMajor = 0, simConnectVersionMinor = 0,
          simConnectBuildMajor = 0, simConnectBuildMinor = 0, reserved1 = 0, reserved2 = 0;
    template <class F>
    void fields(F& f) {
        f.str(applicationName, 256), f.u32(applicationVersionMajor), f.u32(applicationVersionMinor),
            f.u32(applicationBuildMajor), f.u32(applicationBuildMinor), f.u32(simConnectVersionMajor),
            f.u32(simConnectVersionMinor), f.u32(simConnectBuildMajor), f.u32(simConnectBuildMinor),
            f.u32(reserved1), f.u32(reserved2);
    }
};
struct RecvQuit {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_QUIT;
    template <class F>
    void fields(F&) {}
};
struct RecvEvent {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_EVENT;
    DWORD groupId = SIMCONNECT_UNUSED, eventId = 0, data = 0;
    template <class F>
    void fields(F& f) {
        f.u32(groupId), f.u32(eventId), f.u32(data);
    }
};
struct RecvEventObjectAddRemove {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_EVENT_OBJECT_ADDREMOVE;
    DWORD groupId = SIMCONNECT_UNUSED, eventId = 0, data = 0, objectType = 0;
    template <class F>
    void fields(F& f) {
        f.u32(groupId), f.u32(eventId), f.u32(data), f.u32(objectType);
    }
};
struct RecvEventFilename {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_EVENT_FILENAME;
    DWORD groupId = SIMCONNECT_UNUSED, eventId = 0, data = 0;
    std::string_view fileName;
    DWORD flags = 0;
    template <class F>
    void fields(F& f) {
        f.u32(groupId), f.u32(eventId), f.u32(data), f.str(fileName, 260), f.u32(flags);
    }
};
struct RecvEventFrame {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_EVENT_FRAME;
    DWORD groupId = SIMCONNECT_UNUSED, eventId = 0, data = 0;
    float frameRate = 0, simSpeed = 0;
    template <class F>
    void fields(F& f) {
        f.u32(groupId), f.u32(eventId), f.u32(data), f.f32(frameRate), f.f32(simSpeed);
    }
};
// SIMOBJECT_DATA and SIMOBJECT_DATA_BYTYPE share this layout; `byType` picks the id.
struct RecvSimObjectData {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_SIMOBJECT_DATA;
    bool byType = false;
    DWORD requestId = 0, objectId = 0, defineId = 0, flags = 0, entryNumber = 0, outOf = 0, defineCount = 0;
    Bytes data;
    template <class F>
    void fields(F& f) {
        f.u32(requestId), f.u32(objectId), f.u32(defineId), f.u32(flags), f.u32(entryNumber), f.u32(outOf),
            f.u32(defineCount), f.rest(data);
    }
};
struct RecvAssignedObjectId {
    static constexpr DWORD kId = SIMCONNECT_RECV_ID_ASSIGNED_OBJECT_ID;
    DWORD requestId = 0, objectId = 0;
    template <class F>
    void fields(F& f) {
        f.u32(requestId), f.u32(objectId);
    }
};

// A message whose id this codec does not decode keeps only its id (monostate body).
using ServerBody =
    std::variant<std::monostate, RecvException, RecvOpen, RecvQuit, RecvEvent, RecvEventObjectAddRemove,
                 RecvEventFilename, RecvEventFrame, RecvSimObjectData, RecvAssignedObjectId>;
struct Received {
    DWORD size = 0, version = 0, id = 0;
    ServerBody body;
};

// ---- Codec ----------------------------------------------------------------------------------

std::vector<std::uint8_t> encodeClient(const ClientPacket& packet, DWORD version, DWORD sendId);
std::vector<std::uint8_t> encodeServer(const ServerBody& body, DWORD version);

// A whole packet (as the reassembler gives it) to its fields; an error text when the size field,
// the opcode or the length of the fixed part is wrong. Unknown server ids decode as monostate.
struct DecodedClient {
    ClientHeader header;
    std::optional<ClientPacket> packet; // empty: an opcode this codec does not know
};
std::variant<DecodedClient, std::string> decodeClient(Bytes packet);
std::variant<Received, std::string> decodeServer(Bytes packet);

// Cuts a byte stream into packets by their size field. A size below the header or above the
// maximum can't be resynchronised: the reassembler stops with an error.
class Reassembler {
  public:
    explicit Reassembler(std::size_t headerSize, std::size_t maxSize = kMaxPacketSize);
    void feed(Bytes bytes);
    // The next whole packet, valid until the next feed; nullopt when none is complete.
    std::optional<Bytes> next();
    const std::string& error() const { return error_; }

  private:
    std::size_t headerSize_, maxSize_;
    std::vector<std::uint8_t> buffer_;
    std::size_t start_ = 0;
    std::string error_;
};

// Little-endian helpers for the data block of SIMOBJECT_DATA and SetDataOnSimObject.
class DataWriter {
  public:
    DataWriter& f64(double v);
    DataWriter& i64(std::int64_t v);
    DataWriter& u32(DWORD v);
    DataWriter& fixed(std::string_view s, std::size_t width);
    DataWriter& stringV(std::string_view s); // zero-terminated, padded to 4 bytes
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    void clear() { bytes_.clear(); }

  private:
    std::vector<std::uint8_t> bytes_;
};
class DataReader {
  public:
    explicit DataReader(Bytes b) : b_(b) {}
    // Each returns nullopt when the data is too short for the field.
    std::optional<double> f64();
    std::optional<std::int64_t> i64();
    std::optional<std::string_view> fixed(std::size_t width);
    std::optional<std::string_view> stringV();
    std::size_t remaining() const { return b_.size() - pos_; }

  private:
    Bytes b_;
    std::size_t pos_ = 0;
};

// ---- Transports -----------------------------------------------------------------------------

class Transport {
  public:
    virtual ~Transport() = default;
    virtual bool send(Bytes bytes) = 0; // false: the connection is gone
    // Bytes that arrive within timeoutMs: their count, 0 on none, -1 when the connection is gone.
    virtual long receive(std::uint8_t* buffer, std::size_t capacity, int timeoutMs) = 0;
    virtual void close() = 0;
};
using TransportFactory = std::function<std::unique_ptr<Transport>(std::string& error)>;

// Nagle off: SimConnect traffic is many small packets that must not wait for each other.
std::unique_ptr<Transport> connectTcp(std::string_view host, std::uint16_t port, std::string& error);
// An accepted connection, for servers.
std::unique_ptr<Transport> wrapTcp(platform::TcpStream stream);

// A factory that hands out this one connection, then none (an in-memory end, say).
TransportFactory transportOnce(std::unique_ptr<Transport> transport);

// Two connected ends in memory: what one sends the other receives. Either side closing ends both.
std::pair<std::unique_ptr<Transport>, std::unique_ptr<Transport>> makeMemoryPipe();

// ---- The client operations ------------------------------------------------------------------

using DispatchProc = void (*)(const Received& message, void* context);

// The SimConnect calls, with the meanings of the published functions. A negative result is a
// failure. The handle is the object itself.
class Api {
  public:
    virtual ~Api() = default;
    virtual HRESULT Open(std::string_view name) = 0;
    virtual HRESULT Close() = 0;
    // Runs `proc` for each message waiting now. A lost connection is delivered as one QUIT.
    virtual HRESULT CallDispatch(DispatchProc proc, void* context) = 0;
    virtual HRESULT AddToDataDefinition(DWORD defineId, std::string_view datumName,
                                        std::string_view unitsName,
                                        DWORD datumType = SIMCONNECT_DATATYPE_FLOAT64, float epsilon = 0,
                                        DWORD datumId = SIMCONNECT_UNUSED) = 0;
    virtual HRESULT RequestDataOnSimObject(DWORD requestId, DWORD defineId, DWORD objectId, DWORD period,
                                           DWORD flags = 0, DWORD origin = 0, DWORD interval = 0,
                                           DWORD limit = 0) = 0;
    virtual HRESULT RequestDataOnSimObjectType(DWORD requestId, DWORD defineId, DWORD radiusMeters,
                                               DWORD type) = 0;
    virtual HRESULT SetDataOnSimObject(DWORD defineId, DWORD objectId, DWORD flags, DWORD arrayCount,
                                       DWORD unitSize, const void* data) = 0;
    virtual HRESULT SubscribeToSystemEvent(DWORD eventId, std::string_view systemEventName) = 0;
    virtual HRESULT MapClientEventToSimEvent(DWORD eventId, std::string_view eventName) = 0;
    virtual HRESULT TransmitClientEvent(DWORD objectId, DWORD eventId, DWORD data, DWORD groupId,
                                        DWORD flags) = 0;
    virtual HRESULT AddClientEventToNotificationGroup(DWORD groupId, DWORD eventId, bool maskable) = 0;
    virtual HRESULT SetNotificationGroupPriority(DWORD groupId, DWORD priority) = 0;
    virtual HRESULT AICreateNonATCAircraft(std::string_view containerTitle, std::string_view tailNumber,
                                           const SIMCONNECT_DATA_INITPOSITION& init, DWORD requestId) = 0;
    virtual HRESULT AIReleaseControl(DWORD objectId, DWORD requestId) = 0;
    virtual HRESULT AIRemoveObject(DWORD objectId, DWORD requestId) = 0;
    virtual HRESULT AISetAircraftFlightPlan(DWORD objectId, std::string_view path, DWORD requestId) = 0;
    virtual HRESULT GetLastSentPacketID(DWORD* sendId) = 0;
    // Why the connection ended, if it did; empty while it lives.
    virtual std::string lastError() const = 0;
};

// A client of the network protocol `protocol` (4, 5 or 6) that opens through `connect`.
std::unique_ptr<Api> makeNetworkClient(TransportFactory connect, DWORD protocol);

} // namespace orv::simconnect
