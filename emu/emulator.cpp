#include "emulator.h"
#include "core/geo.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace orv::emu {

using namespace sc;

namespace {

constexpr double kMaxRadiusMeters = 200000.0;

std::string lower(std::string_view s) {
    std::string r(s);
    for (auto& c : r) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return r;
}

double distanceMeters(double lat1, double lon1, double lat2, double lon2) {
    const double dlat = (lat2 - lat1) * core::kRadPerDeg, dlon = (lon2 - lon1) * core::kRadPerDeg;
    const double a = std::sin(dlat / 2) * std::sin(dlat / 2) + std::cos(lat1 * core::kRadPerDeg) *
                                                                   std::cos(lat2 * core::kRadPerDeg) *
                                                                   std::sin(dlon / 2) * std::sin(dlon / 2);
    return 2 * 6371000.0 * std::asin(std::min(1.0, std::sqrt(a)));
}

const std::set<std::string> kSystemEvents = {"1sec",
                                             "4sec",
                                             "6hz",
                                             "aircraftloaded",
                                             "crashed",
                                             "crashreset",
                                             "flightloaded",
                                             "flightsaved",
                                             "flightplanactivated",
                                             "flightplandeactivated",
                                             "frame",
                                             "pause",
                                             "paused",
                                             "pauseframe",
                                             "positionchanged",
                                             "sim",
                                             "simstart",
                                             "simstop",
                                             "sound",
                                             "unpaused",
                                             "view",
                                             "objectadded",
                                             "objectremoved"};

const std::set<std::string> kSimEvents = {"BEACON_LIGHTS_SET",
                                          "NAV_LIGHTS_SET",
                                          "TAXI_LIGHTS_SET",
                                          "STROBES_SET",
                                          "LANDING_LIGHTS_SET",
                                          "CABIN_LIGHTS_SET",
                                          "LOGO_LIGHTS_SET",
                                          "ALL_LIGHTS_TOGGLE",
                                          "FREEZE_LATITUDE_LONGITUDE_SET",
                                          "FREEZE_ALTITUDE_SET",
                                          "FREEZE_ATTITUDE_SET",
                                          "FLAPS_SET",
                                          "SPOILERS_SET",
                                          "GEAR_SET",
                                          "ENGINE_AUTO_START",
                                          "ENGINE_AUTO_SHUTDOWN",
                                          "THROTTLE_SET",
                                          "GEAR_UP",
                                          "GEAR_DOWN",
                                          "FLAPS_UP",
                                          "FLAPS_DOWN",
                                          "PARKING_BRAKES",
                                          "TOGGLE_NAV_LIGHTS",
                                          "TOGGLE_BEACON_LIGHTS",
                                          "LANDING_LIGHTS_ON",
                                          "LANDING_LIGHTS_OFF",
                                          "PAUSE_ON",
                                          "PAUSE_OFF"};

// The simulation variables the emulator knows, with what they read.
enum class Var {
    Latitude,
    Longitude,
    Altitude,
    Pitch,
    Bank,
    Heading,
    VerticalSpeed,
    Airspeed,
    GroundVelocity,
    AltAboveGround,
    GroundAltitude,
    OnGround,
    AtcId,
    Title,
    AtcModel,
    ZuluTime,
    ZuluDay,
    ZuluYear,
    LightStates,
    LightOnStates,
    StaticCg,
    StaticPitch,
    Spoilers,
    Throttle1,
    Throttle2
};
const std::map<std::string, Var> kVars = {
    {"plane latitude", Var::Latitude},
    {"plane longitude", Var::Longitude},
    {"plane altitude", Var::Altitude},
    {"plane pitch degrees", Var::Pitch},
    {"plane bank degrees", Var::Bank},
    {"plane heading degrees true", Var::Heading},
    {"vertical speed", Var::VerticalSpeed},
    {"airspeed true", Var::Airspeed},
    {"ground velocity", Var::GroundVelocity},
    {"plane alt above ground", Var::AltAboveGround},
    {"ground altitude", Var::GroundAltitude},
    {"sim on ground", Var::OnGround},
    {"atc id", Var::AtcId},
    {"title", Var::Title},
    {"atc model", Var::AtcModel},
    {"zulu time", Var::ZuluTime},
    {"zulu day of year", Var::ZuluDay},
    {"zulu year", Var::ZuluYear},
    {"light states", Var::LightStates},
    {"light on states", Var::LightOnStates},
    {"static cg to ground", Var::StaticCg},
    {"static pitch", Var::StaticPitch},
    {"spoilers handle position", Var::Spoilers},
    {"general eng throttle lever position:1", Var::Throttle1},
    {"general eng throttle lever position:2", Var::Throttle2},
};

struct Datum {
    Var var;
    std::string units;
    DWORD type;
};

struct Request {
    DWORD requestId, defineId, objectId, period;
    double nextDue;
};

struct Client {
    Emulator::Sink sink;
    bool open = false;
    bool gone = false;
    DWORD version = 0;
    Reassembler reassembler{kClientHeaderSize};
    std::map<DWORD, std::vector<Datum>> definitions;
    std::vector<Request> requests;
    std::map<DWORD, std::string> subscriptions; // event id -> lower-case system event
    std::map<DWORD, std::string> mapped;        // client event id -> sim event
    std::map<DWORD, std::vector<DWORD>> groups;
    std::map<DWORD, DWORD> priorities;
};

// A value of a variable: a number or a text.
struct Value {
    double number = 0;
    std::string text;
};

// A client may have set any double; reading it as a narrower type saturates instead of
// converting out of range.
template <class T>
T saturate(double v) {
    if (std::isnan(v)) return T{};
    const double lo = static_cast<double>(std::numeric_limits<T>::lowest());
    const double hi = static_cast<double>(std::numeric_limits<T>::max());
    if (v <= lo) return std::numeric_limits<T>::lowest();
    if (v >= hi) return std::numeric_limits<T>::max();
    return static_cast<T>(v);
}

bool angleInDegrees(const std::string& units) {
    return units.rfind("degree", 0) == 0;
}

} // namespace

struct Emulator::Impl {
    Config config;
    mutable std::mutex mutex;
    std::map<int, Client> clients;
    int nextClient = 1;
    std::map<DWORD, ObjectRecord> objects; // every object made; removed ones keep their record
    DWORD nextObjectId;
    double time = 0, nextFrame = 0, nextSecond = 0;
    std::size_t frames = 0;
    std::vector<std::pair<DWORD, DWORD>> exceptions;
    std::vector<std::string> flightsLoaded;
    PositionRecord user; // the scripted user aircraft
    double userOnGroundDistance = 0;

    explicit Impl(Config c) : config(std::move(c)), nextObjectId(config.firstAiObjectId) {
        user.latitude = config.user.latitude;
        user.longitude = config.user.longitude;
        user.heading = config.user.headingDeg * core::kRadPerDeg;
        if (!config.user.path.empty()) {
            user.latitude = config.user.path.front().latitude;
            user.longitude = config.user.path.front().longitude;
            user.altitudeFt = config.user.path.front().altitudeFt;
        } else {
            user.altitudeFt = config.user.altitudeFt.value_or(groundAt(user.latitude, user.longitude));
        }
    }

    double groundAt(double lat, double lon) const {
        const AirportElevation* best = nullptr;
        double bestD = 0;
        for (const auto& a : config.airports) {
            const double d = distanceMeters(lat, lon, a.latitude, a.longitude);
            if (!best || d < bestD) best = &a, bestD = d;
        }
        return best ? best->elevationFt : 0.0;
    }

    // ---- sending ----

    void send(Client& c, const ServerBody& body) {
        if (c.gone) return;
        const auto bytes = encodeServer(body, c.version ? c.version : kProtocolMsfs2020);
        if (!c.sink(bytes)) c.gone = true;
    }
    void exception(Client& c, DWORD code, DWORD sendId, DWORD index = 0) {
        exceptions.emplace_back(code, sendId);
        send(c, RecvException{code, sendId, index});
    }
    template <class F>
    void toSubscribers(std::string_view event, F make) {
        for (auto& [id, c] : clients)
            for (const auto& [eventId, name] : c.subscriptions)
                if (c.open && name == event) send(c, make(eventId));
    }

    // ---- objects and values ----

    bool objectExists(DWORD id) const {
        if (id == config.userObjectId) return true;
        const auto it = objects.find(id);
        return it != objects.end() && it->second.removedAt < 0;
    }
    DWORD resolve(DWORD id) const { return id == SIMCONNECT_OBJECT_ID_USER ? config.userObjectId : id; }

    // What every value of one object's data block shares, worked out once a block.
    struct Situation {
        bool isUser = false;
        const ObjectRecord* o = nullptr;
        const PositionRecord* p = nullptr;
        double ground = 0, above = 0;
        bool onGround = false;
        std::tm tm{};
    };
    Situation situation(DWORD id) const {
        Situation s;
        s.isUser = id == config.userObjectId;
        s.o = s.isUser ? nullptr : &objects.at(id);
        s.p = s.isUser ? &user : &s.o->now;
        s.ground = groundAt(s.p->latitude, s.p->longitude);
        s.above = std::max(0.0, s.p->altitudeFt - s.ground);
        s.onGround =
            s.isUser ? (config.user.path.empty() || s.above < 1.0) : s.above <= config.staticCgFt + 1.0;
        const std::time_t zulu = static_cast<std::time_t>(config.zuluStart + static_cast<std::int64_t>(time));
        gmtime_r(&zulu, &s.tm);
        return s;
    }

    Value value(const Situation& s, const Datum& d) const {
        const bool isUser = s.isUser;
        const ObjectRecord* o = s.o;
        const PositionRecord& p = *s.p;
        const double ground = s.ground, above = s.above;
        const bool onGround = s.onGround;
        const std::tm& tm = s.tm;
        const auto angle = [&](double rad) { return angleInDegrees(d.units) ? rad / core::kRadPerDeg : rad; };
        switch (d.var) {
        case Var::Latitude:
            return {d.units.rfind("radian", 0) == 0 ? p.latitude * core::kRadPerDeg : p.latitude, {}};
        case Var::Longitude:
            return {d.units.rfind("radian", 0) == 0 ? p.longitude * core::kRadPerDeg : p.longitude, {}};
        case Var::Altitude:
            return {p.altitudeFt, {}};
        case Var::Pitch:
            return {angle(p.pitch), {}};
        case Var::Bank:
            return {angle(p.bank), {}};
        case Var::Heading:
            return {angle(p.heading), {}};
        case Var::VerticalSpeed:
            return {p.verticalSpeed, {}};
        case Var::Airspeed:
        case Var::GroundVelocity:
            return {p.airspeed, {}};
        case Var::AltAboveGround:
            return {above, {}};
        case Var::GroundAltitude:
            return {ground, {}};
        case Var::OnGround:
            return {onGround ? 1.0 : 0.0, {}};
        case Var::AtcId:
            return {0, isUser ? std::string("N12345") : o->tail};
        case Var::Title:
            return {0, isUser ? config.user.title : o->title};
        case Var::AtcModel:
            return {0, isUser ? config.user.atcModel : std::string("TT:ATCCOM.AC_MODEL.0.text")};
        case Var::ZuluTime:
            return {static_cast<double>(tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec), {}};
        case Var::ZuluDay:
            return {static_cast<double>(tm.tm_yday + 1), {}};
        case Var::ZuluYear:
            return {static_cast<double>(tm.tm_year + 1900), {}};
        case Var::LightStates:
        case Var::LightOnStates:
            return {isUser ? static_cast<double>(config.user.lightStates) : 0.0, {}};
        case Var::StaticCg:
            return {config.staticCgFt, {}};
        case Var::StaticPitch:
            return {isUser ? 0.0 : 0.02, {}};
        case Var::Spoilers:
            return {isUser ? 0.0 : o->spoilers, {}};
        case Var::Throttle1:
            return {isUser ? 0.0 : o->throttle1, {}};
        case Var::Throttle2:
            return {isUser ? 0.0 : o->throttle2, {}};
        }
        return {};
    }

    std::vector<std::uint8_t> dataBlock(DWORD id, const std::vector<Datum>& def) const {
        DataWriter w;
        const Situation at = situation(id);
        for (const auto& d : def) {
            const Value v = value(at, d);
            switch (d.type) {
            case SIMCONNECT_DATATYPE_INT32:
                w.u32(static_cast<DWORD>(saturate<std::int32_t>(v.number)));
                break;
            case SIMCONNECT_DATATYPE_INT64:
                w.i64(saturate<std::int64_t>(v.number));
                break;
            case SIMCONNECT_DATATYPE_FLOAT32: {
                const float f = saturate<float>(v.number);
                DWORD u;
                std::memcpy(&u, &f, 4);
                w.u32(u);
                break;
            }
            case SIMCONNECT_DATATYPE_FLOAT64:
                w.f64(v.number);
                break;
            case SIMCONNECT_DATATYPE_STRINGV:
                w.stringV(v.text);
                break;
            default:
                w.fixed(v.text, datatypeSize(d.type));
                break;
            }
        }
        return w.bytes();
    }

    void sendData(Client& c, const Request& r, DWORD objectId, bool byType, DWORD entry, DWORD outOf) {
        const auto it = c.definitions.find(r.defineId);
        if (it == c.definitions.end()) return;
        const auto block = dataBlock(objectId, it->second);
        RecvSimObjectData m;
        m.byType = byType;
        m.requestId = r.requestId;
        m.objectId = objectId;
        m.defineId = r.defineId;
        m.entryNumber = entry;
        m.outOf = outOf;
        m.defineCount = static_cast<DWORD>(it->second.size());
        m.data = block;
        send(c, m);
    }

    void removeObject(DWORD objectId) {
        auto& o = objects.at(objectId);
        o.removedAt = time;
        toSubscribers("objectremoved", [&](DWORD eventId) {
            return RecvEventObjectAddRemove{SIMCONNECT_UNUSED, eventId, objectId,
                                            SIMCONNECT_SIMOBJECT_TYPE_AIRCRAFT};
        });
    }

    // ---- the client's packets ----

    void handle(int id, Client& c, const ClientHeader& h, const ClientPacket& packet) {
        if (!c.open && !std::holds_alternative<OpenPacket>(packet)) {
            exception(c, SIMCONNECT_EXCEPTION_UNOPENED, h.sendId);
            return;
        }
        std::visit([&](const auto& p) { on(id, c, h, p); }, packet);
    }

    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h, const OpenPacket&) {
        const DWORD highest = config.msfs2024 ? kProtocolMsfs2024 : kProtocolMsfs2020;
        c.version = h.version;
        if (h.version < 2 || h.version > highest) {
            exception(c, SIMCONNECT_EXCEPTION_VERSION_MISMATCH, h.sendId);
            return;
        }
        c.open = true;
        RecvOpen o;
        o.applicationName = config.msfs2024 ? "SunRise" : "KittyHawk";
        if (config.msfs2024) {
            o.applicationVersionMajor = 12, o.applicationVersionMinor = 2;
            o.simConnectVersionMajor = 12, o.simConnectVersionMinor = 2;
            o.simConnectBuildMajor = 282174, o.simConnectBuildMinor = 999;
        } else {
            o.applicationVersionMajor = 11, o.applicationVersionMinor = 0;
            o.simConnectVersionMajor = 11, o.simConnectVersionMinor = 0;
            o.simConnectBuildMajor = 62651, o.simConnectBuildMinor = 3;
        }
        o.applicationBuildMajor = 282174, o.applicationBuildMinor = 999;
        send(c, o);
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h,
            const SubscribeToSystemEventPacket& p) {
        const auto name = lower(p.eventName);
        if (!kSystemEvents.contains(name))
            return exception(c, SIMCONNECT_EXCEPTION_NAME_UNRECOGNIZED, h.sendId, 2);
        if (c.subscriptions.contains(p.eventId))
            return exception(c, SIMCONNECT_EXCEPTION_ALREADY_SUBSCRIBED, h.sendId, 1);
        c.subscriptions[p.eventId] = name;
        if (name == "sim") send(c, RecvEvent{SIMCONNECT_UNUSED, p.eventId, config.running ? 1u : 0u});
        if (name == "pause") send(c, RecvEvent{SIMCONNECT_UNUSED, p.eventId, 0u});
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h, const AddToDataDefinitionPacket& p) {
        const auto it = kVars.find(lower(p.datumName));
        if (it == kVars.end()) return exception(c, SIMCONNECT_EXCEPTION_NAME_UNRECOGNIZED, h.sendId, 2);
        if (p.datumType == SIMCONNECT_DATATYPE_INVALID || p.datumType > SIMCONNECT_DATATYPE_STRINGV)
            return exception(c, SIMCONNECT_EXCEPTION_DATA_ERROR, h.sendId, 4);
        c.definitions[p.defineId].push_back({it->second, lower(p.unitsName), p.datumType});
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h,
            const RequestDataOnSimObjectPacket& p) {
        if (!c.definitions.contains(p.defineId))
            return exception(c, SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID, h.sendId, 2);
        const DWORD object = resolve(p.objectId);
        if (!objectExists(object)) return exception(c, SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID, h.sendId, 3);
        std::erase_if(c.requests, [&](const Request& r) { return r.requestId == p.requestId; });
        Request r{p.requestId, p.defineId, object, p.period, time};
        if (p.period == SIMCONNECT_PERIOD_NEVER) return;
        sendData(c, r, object, false, 1, 1);
        if (p.period == SIMCONNECT_PERIOD_ONCE) return;
        r.nextDue = time + 1.0;
        c.requests.push_back(r);
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h,
            const RequestDataOnSimObjectTypePacket& p) {
        if (!c.definitions.contains(p.defineId))
            return exception(c, SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID, h.sendId, 2);
        if (p.radiusMeters > kMaxRadiusMeters)
            return exception(c, SIMCONNECT_EXCEPTION_OUT_OF_BOUNDS, h.sendId, 3);
        std::vector<DWORD> found{config.userObjectId};
        if (p.radiusMeters > 0 && p.type != SIMCONNECT_SIMOBJECT_TYPE_USER)
            for (const auto& [oid, o] : objects)
                if (o.removedAt < 0 && distanceMeters(user.latitude, user.longitude, o.now.latitude,
                                                      o.now.longitude) <= p.radiusMeters)
                    found.push_back(oid);
        const Request r{p.requestId, p.defineId, 0, SIMCONNECT_PERIOD_ONCE, time};
        for (std::size_t i = 0; i < found.size(); ++i)
            sendData(c, r, found[i], true, static_cast<DWORD>(i + 1), static_cast<DWORD>(found.size()));
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h, const SetDataOnSimObjectPacket& p) {
        const auto def = c.definitions.find(p.defineId);
        if (def == c.definitions.end())
            return exception(c, SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID, h.sendId, 1);
        const DWORD object = resolve(p.objectId);
        if (!objectExists(object)) return exception(c, SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID, h.sendId, 2);
        std::size_t need = 0;
        for (const auto& d : def->second) need += datatypeSize(d.type);
        if (need == 0 || p.data.size() != need)
            return exception(c, SIMCONNECT_EXCEPTION_INVALID_DATA_SIZE, h.sendId, 6);
        PositionRecord& s = object == config.userObjectId ? user : objects.at(object).now;
        DataReader in(p.data);
        bool moved = false;
        for (const auto& d : def->second) {
            double v = 0;
            if (d.type == SIMCONNECT_DATATYPE_FLOAT64)
                v = *in.f64();
            else if (d.type == SIMCONNECT_DATATYPE_INT64)
                v = static_cast<double>(*in.i64());
            else {
                in.fixed(datatypeSize(d.type));
                continue;
            }
            const auto rad = [&](double x) { return angleInDegrees(d.units) ? x * core::kRadPerDeg : x; };
            switch (d.var) {
            case Var::Latitude:
                s.latitude = v, moved = true;
                break;
            case Var::Longitude:
                s.longitude = v, moved = true;
                break;
            case Var::Altitude:
                s.altitudeFt = v, moved = true;
                break;
            case Var::Pitch:
                s.pitch = rad(v);
                break;
            case Var::Bank:
                s.bank = rad(v);
                break;
            case Var::Heading:
                s.heading = rad(v);
                break;
            case Var::VerticalSpeed:
                s.verticalSpeed = v;
                break;
            case Var::Airspeed:
                s.airspeed = v;
                break;
            case Var::Spoilers:
                if (object != config.userObjectId) objects.at(object).spoilers = v;
                break;
            case Var::Throttle1:
                if (object != config.userObjectId) objects.at(object).throttle1 = v;
                break;
            case Var::Throttle2:
                if (object != config.userObjectId) objects.at(object).throttle2 = v;
                break;
            default:
                break;
            }
        }
        if (moved && object != config.userObjectId) {
            s.t = time;
            objects.at(object).positions.push_back(s);
        }
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h,
            const MapClientEventToSimEventPacket& p) {
        const std::string name(p.eventName);
        const bool custom = name.find('.') != std::string::npos || name.starts_with('#');
        if (!custom && !kSimEvents.contains(name))
            return exception(c, SIMCONNECT_EXCEPTION_NAME_UNRECOGNIZED, h.sendId, 2);
        c.mapped[p.eventId] = name;
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h, const TransmitClientEventPacket& p) {
        const auto ev = c.mapped.find(p.eventId);
        if (ev == c.mapped.end()) return exception(c, SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID, h.sendId, 2);
        const DWORD object = resolve(p.objectId);
        if (!objectExists(object)) return exception(c, SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID, h.sendId, 1);
        if (object != config.userObjectId) objects.at(object).events.push_back({time, ev->second, p.data});
    }
    void on(int, Client& c, const ClientHeader&, const AddClientEventToNotificationGroupPacket& p) {
        c.groups[p.groupId].push_back(p.eventId);
    }
    void on(int, Client& c, const ClientHeader&, const SetNotificationGroupPriorityPacket& p) {
        c.priorities[p.groupId] = p.priority;
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h,
            const AICreateNonATCAircraftPacket& p) {
        const std::string title(p.containerTitle);
        if (std::find(config.titles.begin(), config.titles.end(), title) == config.titles.end())
            return exception(c, SIMCONNECT_EXCEPTION_CREATE_OBJECT_FAILED, h.sendId, 1);
        if (liveCount() >= config.maxObjects)
            return exception(c, SIMCONNECT_EXCEPTION_TOO_MANY_OBJECTS, h.sendId, 1);
        ObjectRecord o;
        o.id = nextObjectId++;
        o.client = id;
        o.title = title;
        o.tail = std::string(p.tailNumber);
        o.createdAt = time;
        o.now = {time,
                 p.init.Latitude,
                 p.init.Longitude,
                 p.init.Altitude,
                 p.init.Pitch * core::kRadPerDeg,
                 p.init.Bank * core::kRadPerDeg,
                 p.init.Heading * core::kRadPerDeg,
                 0,
                 static_cast<double>(std::max(0, p.init.Airspeed))};
        if (p.init.OnGround)
            o.now.altitudeFt = groundAt(p.init.Latitude, p.init.Longitude) + config.staticCgFt;
        o.created = o.now;
        const DWORD objectId = o.id;
        objects.emplace(objectId, std::move(o));
        const auto assigned = [&] { send(c, RecvAssignedObjectId{p.requestId, objectId}); };
        const auto added = [&] {
            toSubscribers("objectadded", [&](DWORD eventId) {
                return RecvEventObjectAddRemove{SIMCONNECT_UNUSED, eventId, objectId,
                                                SIMCONNECT_SIMOBJECT_TYPE_AIRCRAFT};
            });
        };
        if (config.addedBeforeAssigned)
            added(), assigned();
        else
            assigned(), added();
    }
    // A client may act only on the AI objects it made.
    ObjectRecord* own(int id, DWORD objectId) {
        const auto it = objects.find(objectId);
        if (it == objects.end() || it->second.removedAt >= 0 || it->second.client != id) return nullptr;
        return &it->second;
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h, const AIReleaseControlPacket& p) {
        auto* o = own(id, p.objectId);
        if (!o) return exception(c, SIMCONNECT_EXCEPTION_ILLEGAL_OPERATION, h.sendId, 1);
        o->released = true;
        o->events.push_back({time, "ReleaseControl", 0});
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h, const AIRemoveObjectPacket& p) {
        if (!own(id, p.objectId)) return exception(c, SIMCONNECT_EXCEPTION_ILLEGAL_OPERATION, h.sendId, 1);
        removeObject(p.objectId);
    }
    void on([[maybe_unused]] int id, Client& c, const ClientHeader& h,
            const AISetAircraftFlightPlanPacket& p) {
        auto* o = own(id, p.objectId);
        if (!o) return exception(c, SIMCONNECT_EXCEPTION_ILLEGAL_OPERATION, h.sendId, 1);
        std::error_code ec;
        // The simulator runs under Wine here: its Z: drive is the whole file system.
        std::string path(p.flightPlanPath);
        if (path.size() > 2 && (path[0] == 'Z' || path[0] == 'z') && path[1] == ':') {
            path.erase(0, 2);
            std::replace(path.begin(), path.end(), '\\', '/');
        }
        if (!std::filesystem::is_regular_file(path, ec) &&
            !std::filesystem::is_regular_file(path + ".pln", ec))
            return exception(c, SIMCONNECT_EXCEPTION_LOAD_FLIGHTPLAN_FAILED, h.sendId, 2);
        o->flightPlan = path;
        o->events.push_back({time, "FlightPlan", 0});
    }

    std::size_t liveCount() const {
        return static_cast<std::size_t>(std::count_if(objects.begin(), objects.end(),
                                                      [](const auto& e) { return e.second.removedAt < 0; }));
    }

    // ---- time ----

    void moveUserAlongPath() {
        const auto& path = config.user.path;
        if (path.size() < 2 || config.user.speedKts <= 0) return;
        double along =
            config.user.speedKts * 1852.0 / 3600.0 * std::max(0.0, time - config.user.departAtSeconds);
        for (std::size_t i = 0; i + 1 < path.size(); ++i) {
            const auto &a = path[i], &b = path[i + 1];
            const double len = distanceMeters(a.latitude, a.longitude, b.latitude, b.longitude);
            if (along <= len || i + 2 == path.size()) {
                const double f = len > 0 ? std::min(1.0, along / len) : 1.0;
                user.latitude = a.latitude + (b.latitude - a.latitude) * f;
                user.longitude = a.longitude + (b.longitude - a.longitude) * f;
                user.altitudeFt = a.altitudeFt + (b.altitudeFt - a.altitudeFt) * f;
                const double y = std::sin((b.longitude - a.longitude) * core::kRadPerDeg) *
                                 std::cos(b.latitude * core::kRadPerDeg);
                const double x =
                    std::cos(a.latitude * core::kRadPerDeg) * std::sin(b.latitude * core::kRadPerDeg) -
                    std::sin(a.latitude * core::kRadPerDeg) * std::cos(b.latitude * core::kRadPerDeg) *
                        std::cos((b.longitude - a.longitude) * core::kRadPerDeg);
                user.heading = std::fmod(std::atan2(y, x) + 2 * core::kPi, 2 * core::kPi);
                user.airspeed = f < 1.0 ? config.user.speedKts : 0.0;
                return;
            }
            along -= len;
        }
    }

    void frame() {
        ++frames;
        if (config.running) moveUserAlongPath();
        const bool second = time >= nextSecond;
        if (second) nextSecond += 1.0;
        for (auto& [id, c] : clients) {
            if (!c.open) continue;
            for (const auto& [eventId, name] : c.subscriptions) {
                if (name == "frame")
                    send(c, RecvEventFrame{SIMCONNECT_UNUSED, eventId, 0,
                                           static_cast<float>(config.frameRate), 1.0f});
                else if (second && name == "1sec")
                    send(c, RecvEvent{SIMCONNECT_UNUSED, eventId, 0});
            }
            for (auto& r : c.requests) {
                if (!objectExists(r.objectId)) continue;
                const bool everyFrame =
                    r.period == SIMCONNECT_PERIOD_VISUAL_FRAME || r.period == SIMCONNECT_PERIOD_SIM_FRAME;
                if (everyFrame || (r.period == SIMCONNECT_PERIOD_SECOND && time >= r.nextDue)) {
                    if (!everyFrame) r.nextDue += 1.0;
                    sendData(c, r, r.objectId, false, 1, 1);
                }
            }
        }
    }
};

Emulator::Emulator(Config config) : impl_(std::make_unique<Impl>(std::move(config))) {}
Emulator::~Emulator() = default;

int Emulator::connect(Sink sink) {
    std::lock_guard lock(impl_->mutex);
    const int id = impl_->nextClient++;
    impl_->clients[id].sink = std::move(sink);
    return id;
}

void Emulator::receive(int client, sc::Bytes bytes) {
    std::lock_guard lock(impl_->mutex);
    const auto it = impl_->clients.find(client);
    if (it == impl_->clients.end()) return;
    Client& c = it->second;
    c.reassembler.feed(bytes);
    while (const auto packet = c.reassembler.next()) {
        const auto decoded = decodeClient(*packet);
        if (const auto* d = std::get_if<DecodedClient>(&decoded)) {
            if (d->packet)
                impl_->handle(client, c, d->header, *d->packet);
            else
                impl_->exception(c, SIMCONNECT_EXCEPTION_ERROR, d->header.sendId);
        } else {
            // A packet whose size field holds but whose fields don't fit its opcode.
            DWORD sendId = 0;
            if (packet->size() >= kClientHeaderSize) std::memcpy(&sendId, packet->data() + 12, 4);
            impl_->exception(c, SIMCONNECT_EXCEPTION_SIZE_MISMATCH, sendId);
        }
    }
    // A size field that can't be trusted loses the stream: the simulator drops such a client.
    if (!c.reassembler.error().empty()) c.gone = true;
}

void Emulator::disconnect(int client) {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->clients.erase(client)) return;
    for (auto& [id, o] : impl_->objects)
        if (o.client == client && o.removedAt < 0) impl_->removeObject(id);
}

void Emulator::advanceTo(double seconds) {
    std::lock_guard lock(impl_->mutex);
    const double step = 1.0 / std::max(1.0, impl_->config.frameRate);
    while (impl_->nextFrame <= seconds) {
        impl_->time = impl_->nextFrame;
        impl_->frame();
        impl_->nextFrame += step;
    }
    impl_->time = std::max(impl_->time, seconds);
}

void Emulator::setRunning(bool running) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->config.running == running) return;
    impl_->config.running = running;
    impl_->toSubscribers("sim", [&](DWORD e) { return RecvEvent{SIMCONNECT_UNUSED, e, running ? 1u : 0u}; });
    impl_->toSubscribers(running ? "simstart" : "simstop", [&](DWORD e) {
        return RecvEvent{SIMCONNECT_UNUSED, e, 0};
    });
}

void Emulator::loadFlight(std::string_view path) {
    std::lock_guard lock(impl_->mutex);
    impl_->flightsLoaded.emplace_back(path);
    impl_->toSubscribers("flightloaded", [&](DWORD e) {
        return RecvEventFilename{SIMCONNECT_UNUSED, e, 0, path, 0};
    });
}

void Emulator::moveUser(double latitude, double longitude) {
    std::lock_guard lock(impl_->mutex);
    impl_->config.user.path.clear();
    impl_->user.latitude = latitude;
    impl_->user.longitude = longitude;
    impl_->user.altitudeFt = impl_->groundAt(latitude, longitude);
}

sc::DWORD Emulator::addTraffic(double latitude, double longitude, const std::string& tail,
                               double aboveGroundFt) {
    std::lock_guard lock(impl_->mutex);
    auto& m = *impl_;
    ObjectRecord o;
    o.id = m.nextObjectId++;
    o.client = -1; // no client may act on it
    o.title = "Simulator traffic";
    o.tail = tail;
    o.createdAt = m.time;
    o.now = {m.time, latitude, longitude,
             m.groundAt(latitude, longitude) + m.config.staticCgFt + aboveGroundFt};
    o.created = o.now;
    const sc::DWORD objectId = o.id;
    m.objects.emplace(objectId, std::move(o));
    m.toSubscribers("objectadded", [&](sc::DWORD eventId) {
        return sc::RecvEventObjectAddRemove{sc::SIMCONNECT_UNUSED, eventId, objectId,
                                            sc::SIMCONNECT_SIMOBJECT_TYPE_AIRCRAFT};
    });
    return objectId;
}

void Emulator::raise(sc::DWORD exception, sc::DWORD sendId) {
    std::lock_guard lock(impl_->mutex);
    for (auto& [id, c] : impl_->clients)
        if (c.open) impl_->exception(c, exception, sendId);
}

void Emulator::quit() {
    std::lock_guard lock(impl_->mutex);
    for (auto& [id, c] : impl_->clients)
        if (c.open) impl_->send(c, RecvQuit{});
}

double Emulator::now() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->time;
}

std::vector<ObjectRecord> Emulator::objects() const {
    std::lock_guard lock(impl_->mutex);
    std::vector<ObjectRecord> out;
    for (const auto& [id, o] : impl_->objects) out.push_back(o);
    return out;
}

std::size_t Emulator::liveObjectCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->liveCount();
}

std::vector<std::pair<sc::DWORD, sc::DWORD>> Emulator::exceptions() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->exceptions;
}

double Emulator::groundAltitude(double latitude, double longitude) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->groundAt(latitude, longitude);
}

std::string Emulator::summary() const {
    std::lock_guard lock(impl_->mutex);
    std::size_t positions = 0, events = 0;
    for (const auto& [id, o] : impl_->objects) positions += o.positions.size(), events += o.events.size();
    return fmt::format(
        "{:.1f} s simulated, {} frames; {} objects created, {} still there; {} positions and {} "
        "events recorded; {} exceptions sent",
        impl_->time, impl_->frames, impl_->objects.size(), impl_->liveCount(), positions, events,
        impl_->exceptions.size());
}

std::string Emulator::writeRecording(const std::filesystem::path& file) const {
    using nlohmann::json;
    std::string text;
    {
        std::lock_guard lock(impl_->mutex);
        for (const auto& [id, o] : impl_->objects) {
            text += json{{"type", "object"},
                         {"id", id},
                         {"title", o.title},
                         {"tail", o.tail},
                         {"created", o.createdAt},
                         {"removed", o.removedAt},
                         {"lat", o.created.latitude},
                         {"lon", o.created.longitude},
                         {"alt", o.created.altitudeFt},
                         {"released", o.released},
                         {"flightPlan", o.flightPlan}}
                        .dump() +
                    "\n";
            for (const auto& p : o.positions)
                text += json{{"type", "position"},    {"id", id},           {"t", p.t},
                             {"lat", p.latitude},     {"lon", p.longitude}, {"alt", p.altitudeFt},
                             {"pitch", p.pitch},      {"bank", p.bank},     {"heading", p.heading},
                             {"vs", p.verticalSpeed}, {"tas", p.airspeed}}
                            .dump() +
                        "\n";
            for (const auto& e : o.events)
                text += json{{"type", "event"}, {"id", id}, {"t", e.t}, {"name", e.name}, {"data", e.data}}
                            .dump() +
                        "\n";
        }
        for (const auto& [code, sendId] : impl_->exceptions)
            text += json{{"type", "exception"}, {"exception", code}, {"sendId", sendId}}.dump() + "\n";
    }
    const auto temp = std::filesystem::path(file.string() + ".tmp");
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out || !(out << text) || !out.flush()) return fmt::format("cannot write {}", temp.string());
    }
    std::error_code ec;
    std::filesystem::rename(temp, file, ec);
    return ec ? ec.message() : std::string{};
}

} // namespace orv::emu
