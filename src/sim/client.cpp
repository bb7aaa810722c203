// The "SimClient" thread: owns the SimConnect connection, empties the engine's work lists on
// every simulator frame, and turns what the simulator says into state and engine messages.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

#include <fmt/format.h>

#include "core/core.h"
#include "core/geo.h"
#include "feed/feed.h"
#include "params/params.h"
#include "platform/platform.h"
#include "refdata/refdata.h"
#include "sim/sim.h"

namespace orv::sim {

using namespace simconnect;

namespace {

struct Datum {
    std::uint32_t definition;
    const char* name;
    const char* units;
    DWORD type;
};
constexpr DWORD F64 = SIMCONNECT_DATATYPE_FLOAT64, I64 = SIMCONNECT_DATATYPE_INT64;
constexpr Datum kDefinitions[] = {
    {401, "SPOILERS HANDLE POSITION", "percent", F64},
    {401, "GENERAL ENG THROTTLE LEVER POSITION:1", "percent", F64},
    {401, "GENERAL ENG THROTTLE LEVER POSITION:2", "percent", F64},
    {402, "Plane Latitude", "degree", F64},
    {402, "Plane Longitude", "degree", F64},
    {402, "Plane Pitch degrees", "radians", F64},
    {402, "Plane Bank degrees", "radians", F64},
    {402, "Plane Heading degrees true", "radians", F64},
    {402, "Plane Altitude", "feet", F64},
    {402, "Vertical Speed", "feet per second", F64},
    {402, "Airspeed True", "knots", F64},
    {403, "Plane Latitude", "degree", F64},
    {403, "Plane Longitude", "degree", F64},
    {403, "Plane Pitch degrees", "radians", F64},
    {403, "Plane Bank degrees", "radians", F64},
    {403, "Plane Heading degrees true", "radians", F64},
    {403, "Plane Altitude", "feet", F64},
    {403, "Plane Alt Above Ground", "feet", F64},
    {403, "Ground Velocity", "knots", F64},
    {403, "ZULU TIME", "Seconds", I64},
    {403, "ZULU DAY OF YEAR", "Number", I64},
    {403, "ZULU YEAR", "Number", I64},
    {403, "LIGHT STATES", "Mask", I64},
    {404, "Plane Alt Above Ground", "feet", F64},
    {404, "Ground Altitude", "feet", F64},
    {404, "SIM ON GROUND", "Bool", I64},
    {404, "ATC ID", "", SIMCONNECT_DATATYPE_STRING32},
    {405, "Static CG to Ground", "feet", F64},
    {405, "Static Pitch", "radians", F64},
    {406, "Light On States", "Mask", I64},
    {407, "TITLE", "", SIMCONNECT_DATATYPE_STRINGV},
    {408, "ATC MODEL", "", SIMCONNECT_DATATYPE_STRING32},
    {409, "SIM ON GROUND", "Bool", I64},
};
constexpr std::pair<DWORD, const char*> kSystemEvents[] = {{kEvSim, "Sim"},
                                                           {kEvObjectAdded, "ObjectAdded"},
                                                           {kEvObjectRemoved, "ObjectRemoved"},
                                                           {kEvFrame, "Frame"},
                                                           {kEvFlightLoaded, "FlightLoaded"}};
constexpr std::pair<DWORD, const char*> kClientEvents[] = {
    {kBeaconLights, "BEACON_LIGHTS_SET"},
    {kNavLights, "NAV_LIGHTS_SET"},
    {kTaxiLights, "TAXI_LIGHTS_SET"},
    {kStrobes, "STROBES_SET"},
    {kLandingLights, "LANDING_LIGHTS_SET"},
    {kCabinLights, "CABIN_LIGHTS_SET"},
    {kLogoLights, "LOGO_LIGHTS_SET"},
    {kAllLightsToggle, "ALL_LIGHTS_TOGGLE"},
    {kFreezeLatLon, "FREEZE_LATITUDE_LONGITUDE_SET"},
    {kFreezeAltitude, "FREEZE_ALTITUDE_SET"},
    {kFreezeAttitude, "FREEZE_ATTITUDE_SET"},
    {kFlapsSet, "FLAPS_SET"},
    {kSpoilersSet, "SPOILERS_SET"},
    {kGearSet, "GEAR_SET"},
    {kEngineAutoStart, "ENGINE_AUTO_START"},
    {kEngineAutoShutdown, "ENGINE_AUTO_SHUTDOWN"},
    {kThrottleSet, "THROTTLE_SET"},
};

struct PendingCreation {
    DWORD sendId;
    std::uint32_t hexid;
    std::string tailNumber;
};

// Shared with the engine and the start sequence, under simLock.
struct Shared {
    std::mutex simLock;
    std::vector<PositionRecord> positionList;
    std::vector<EventRecord> eventList;
    std::vector<CreateRecord> createList;
    std::vector<DWORD> removeList;
    std::vector<ControlsRecord> controlsList;
    std::vector<DWORD> staticDataList; // objects whose "Static CG to Ground" and pitch are wanted
    UserData userData;
};
Shared shared;

// Messages for the engine: the client thread appends, the engine takes them in one swap.
std::mutex eventLock;
std::vector<SimEvent> eventQueue;

// What the status display shows of the simulator; the client thread writes, any thread reads.
struct Texts {
    std::string title, model, sim, area;
    std::optional<refdata::AirportRecord> airport; // the one `area` names
};
std::mutex textLock; // guards texts
Texts texts;

// The user and the link as the client thread last saw them; the worker and the engine read them.
struct UserStatus {
    std::atomic<bool> titleKnown{false}, onGroundKnown{false}, userOnGround{true}, positionKnown{false};
    std::atomic<bool> failed{false}, isConnected{false};
    std::atomic<bool> notAnAircraft{false}; // a camera pod or a boat: no wing span of its own
    std::atomic<std::int64_t> epoch{0};
    std::atomic<std::uint32_t> userId{0};
    std::atomic<double> halfSpanNm{0};

    void reset() {
        titleKnown = false, onGroundKnown = false, userOnGround = true, positionKnown = false, failed = false;
        notAnAircraft = false;
        epoch = 0, userId = 0, halfSpanNm = 0;
    }
};
UserStatus status;

// Objects at or below the user's id are the simulator's own; until that id is known, so is every object.
bool aboveUser(DWORD objectId) {
    const std::uint32_t user = status.userId.load();
    return user != 0 && objectId > user;
}

// Requests that the worker and the engine ask for: they only mark them, and the client thread
// sends them on its next pass, so none is lost to a busy lock and nobody else waits for one.
struct Wanted {
    std::atomic<bool> position{false}, titleAndModel{false}, onGround{false};
    std::atomic<int> inRangeNm{-1}; // the radius of the next in-range request; -1: none

    void reset() {
        position = false, titleAndModel = false, onGround = false;
        inRangeNm = -1;
    }
};
Wanted wanted;

// The SimClient thread's own state.
constexpr double kAreaSearchMoveNm = 0.5;

struct ThreadState {
    bool firstPass = true;
    bool quitReceived = false;
    bool asGenLogged = false;
    bool protocol2020 = false; // the 2024 protocol was refused
    double previousLat = 0, previousLon = 0;
    std::optional<core::LatLon> areaSearchedAt; // where the airport around the user was last looked for
    std::vector<PendingCreation> pendingCreations;
    std::vector<DWORD> addedObjects;
    std::string endpointProblem; // why the simulator cannot be reached, as last said
    // A simulator that stops talking is noticed: when the connection opened, whether it answered,
    // and when it last sent anything.
    platform::SteadyTime openedAt{}, lastMessageAt{};
    bool answered = false;
};
ThreadState ts;
std::unique_ptr<Api> simApi; // the SimConnect handle: made, used and dropped on the client thread
struct RetryWith2020Protocol {};

// The worker starts and stops the client thread; the factory is set before it starts.
ApiFactory apiFactory;
std::thread clientThread;
std::atomic<bool> stopToken{false}; // the worker sets it, the client thread polls it
// Set by the run sequence before the client thread starts; called on that thread.
std::function<void()> onUserLeaving;

bool stopUnderWay() {
    return core::gRun.stopRequested.load(std::memory_order_acquire);
}

void post(const SimEvent& e) {
    std::lock_guard lock(eventLock);
    eventQueue.push_back(e);
}

void requestFailure() {
    core::message("SimConnect request error", true);
    status.failed = true;
    core::requestStop(core::ExitReason::SimconnectError, 9);
}

void newFlight(std::string_view text) {
    core::log(text);
    if (onUserLeaving) onUserLeaving();
    core::requestStop(core::ExitReason::NewFlight, 45);
}

void lostSimulator() {
    core::gRun.simRunning = false;
    core::log(fmt::format("{} Flight Simulator no longer connected, {} will stop ...", core::timeText(),
                          core::kAppName));
    core::requestStop(core::ExitReason::SimWasClosed, 0);
}

std::string keepPrintable(std::string_view s) {
    std::string out;
    for (const char c : s)
        if (std::isalnum(static_cast<unsigned char>(c)) || c == ' ') out += c;
    return out;
}

// ---- messages ----

void onException(const RecvException& e) {
    switch (e.exception) {
    case SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID:
        if (status.positionKnown && !stopUnderWay()) core::log("SIMCONNECT_EXCEPTION_UNRECOGNIZED_ID");
        break;
    case SIMCONNECT_EXCEPTION_VERSION_MISMATCH:
        // MSFS 2020 doesn't know the 2024 protocol; reopen with the 2020 one, which both accept,
        // so that the simulator can say who it is and the choice can be switched.
        if (!msfs2020Selected() && !ts.protocol2020) {
            ts.protocol2020 = true;
            throw RetryWith2020Protocol{};
        }
        throw core::UserErrorException(95, fmt::format("SimConnect Version Mismatch, dwIndex: {}", e.index));
    case SIMCONNECT_EXCEPTION_TOO_MANY_OBJECTS:
        core::message("SimConnect: too many objects (max 1000)", true);
        break;
    case SIMCONNECT_EXCEPTION_INVALID_DATA_SIZE:
        core::log("SIMCONNECT_EXCEPTION_INVALID_DATA_SIZE");
        break;
    case SIMCONNECT_EXCEPTION_CREATE_OBJECT_FAILED: {
        auto& p = ts.pendingCreations;
        const auto it = std::find_if(p.begin(), p.end(), [&](const auto& c) { return c.sendId == e.sendId; });
        if (it == p.end()) break;
        post(CreationFailed{it->hexid});
        p.erase(it);
        break;
    }
    case SIMCONNECT_EXCEPTION_LOAD_FLIGHTPLAN_FAILED:
        core::log("SimConnect exception: load flight plan failed");
        break;
    case SIMCONNECT_EXCEPTION_OPERATION_INVALID_FOR_OBJECT_TYPE:
        core::log("SIMCONNECT_EXCEPTION_OPERATION_INVALID_FOR_OBJECT_TYPE");
        break;
    default:
        core::log(fmt::format("SIMCONNECT_EXCEPTION #{}", e.exception));
    }
}

void onOpen(const RecvOpen& o) {
    const std::string name = keepPrintable(o.applicationName);
    if (name.empty()) {
        core::log("! Simulator name empty?");
        return;
    }
    bool is2020;
    if (name == "KittyHawk")
        is2020 = true;
    else if (name == "SunRise")
        is2020 = false;
    else
        throw core::UserErrorException(
            77, fmt::format("'{}' not being MSFS 2020 or MSFS 2024 connects ... ?", name));
    if (is2020 != msfs2020Selected())
        throw core::UserErrorException(2024, fmt::format("2024: {} answered, but {} is selected", name,
                                                         msfs2020Selected() ? "MSFS 2020" : "MSFS 2024"));
    const auto text =
        fmt::format("{} connected",
                    fmt::format("{} ({}.{}.{}.{})", name, o.applicationVersionMajor,
                                o.applicationVersionMinor, o.applicationBuildMajor, o.applicationBuildMinor));
    {
        std::lock_guard lock(textLock);
        texts.sim = text;
    }
    core::message(text, true);
    core::setIndicator(core::Indicator::Simulator, 1);
}

void onTitle(DataReader in) {
    std::string title(in.stringV().value_or(""));
    if (title.empty()) core::log("! Title of your aircraft is empty?");
    if (title.size() > 48) title.resize(48);
    bool changed;
    {
        std::lock_guard lock(textLock);
        changed = title != texts.title;
        texts.title = title;
    }
    if (changed) {
        core::repaint(core::Region::All);
        core::log("SimConnect: User aircraft title: " + title);
    }
    status.titleKnown = true;
}

void onModel(DataReader in) {
    std::string raw(in.fixed(32).value_or(""));
    core::log(fmt::format("model raw: {}", raw));
    std::string title;
    {
        std::lock_guard lock(textLock);
        title = texts.title;
    }
    std::string model = normaliseModel(raw, title);
    if (model.empty()) {
        {
            std::lock_guard lock(textLock);
            texts.sim = "Unknown (encrypted?) aircraft";
        }
        core::message(
            "171: No model info from your user aircraft received in SimConnect, CRJ7 is taken instead", true);
        model = "CRJ7";
    }
    const auto spanOf = [](const std::string& m) {
        return m.size() <= 4 ? refdata::halfSpan(refdata::modelId(m)) : 0.0;
    };
    double span = 0;
    if (model.find("camerapod") != std::string::npos || model.find("Crew Vessel") != std::string::npos) {
        core::log("SimConnect: your vehicle is not an aircraft");
        status.notAnAircraft = true;
        span = refdata::halfSpan(refdata::modelId("E190"));
    } else {
        span = spanOf(model);
    }
    bool largest = false;
    if (span <= 0) {
        span = refdata::largestHalfSpan();
        largest = true;
        for (const char* t : {"A319", "A320", "A321"})
            if (title.starts_with(fmt::format("Aerosoft {}", t))) {
                model = t;
                core::log("SimConnect: User aircraft model deduced from title: " + title);
                if (const double s = spanOf(model); s > 0) span = s, largest = false;
            }
    }
    if (span <= 0)
        throw core::UserErrorException(73, "It looks like you have not selected an aircraft as user vehicle");
    if (largest)
        core::message("User aircraft wing span unknown, max is taken instead, please report in my Forum!",
                      true);
    status.halfSpanNm = span;
    {
        std::lock_guard lock(textLock);
        texts.model = model;
    }
    core::log(fmt::format("SimConnect: User aircraft model: {}, half wing span: {:.1F} meter, category: {}",
                          model, span * core::kMetresPerNm,
                          refdata::categoryWord(refdata::category(refdata::modelId(model)))));
}

void onUserPosition(DWORD objectId, DataReader in) {
    UserData u;
    for (double* f : {&u.latitude, &u.longitude, &u.pitch, &u.bank, &u.heading, &u.altitude,
                      &u.altAboveGround, &u.groundVelocity})
        *f = in.f64().value_or(0.0);
    for (std::int64_t* f : {&u.zuluTime, &u.zuluDayOfYear, &u.zuluYear, &u.lightStates})
        *f = in.i64().value_or(0);
    if (u.altitude < 0) u.altitude = 0.0;
    {
        std::lock_guard lock(shared.simLock);
        shared.userData = u;
    }
    const bool nonZero = std::fabs(u.latitude) > 0.0001 || std::fabs(u.longitude) > 0.0001;
    const bool previousNonZero = std::fabs(ts.previousLat) > 0.0001 || std::fabs(ts.previousLon) > 0.0001;
    if (nonZero && previousNonZero &&
        core::distanceNm(core::LatLon{ts.previousLat, ts.previousLon},
                         core::LatLon{u.latitude, u.longitude}) > 10.0) {
        core::log("Teleport");
        core::requestStop(core::ExitReason::NewFlight, 45);
    }
    ts.previousLat = u.latitude;
    ts.previousLon = u.longitude;
    if (nonZero) status.positionKnown = true;
    // The airport around the user, looked for again only when the user has moved; none near
    // clears it.
    const core::LatLon here{u.latitude, u.longitude};
    if (nonZero && (!ts.areaSearchedAt || core::distanceNm(*ts.areaSearchedAt, here) > kAreaSearchMoveNm)) {
        ts.areaSearchedAt = here;
        const auto near = refdata::closestAirport(u.latitude, u.longitude);
        const std::string area = near ? std::string(near->code.view()) : std::string();
        bool changed;
        {
            std::lock_guard lock(textLock);
            changed = area != texts.area;
            texts.area = area;
            texts.airport = near;
        }
        if (changed) core::repaint(core::Region::All);
    }
    if (feed::realTrafficProfessional())
        status.epoch = epochFromZulu(u.zuluYear, u.zuluDayOfYear, u.zuluTime);
    status.userId = objectId;
}

void onInRange(const RecvSimObjectData& m) {
    if (!aboveUser(m.objectId)) return;
    DataReader in(m.data);
    const double above = in.f64().value_or(0), ground = in.f64().value_or(0);
    const bool onGround = in.i64().value_or(0) != 0;
    const std::string atcId(in.fixed(32).value_or(""));
    auto& added = ts.addedObjects;
    const auto it = std::find(added.begin(), added.end(), m.objectId);
    if (it == added.end()) {
        if (above > 2500.0 || atcId.empty() || atcId.back() == '*') return;
        post(ForeignInRange{m.objectId, onGround, ground, above});
        return;
    }
    added.erase(it);
    auto& p = ts.pendingCreations;
    const auto mine = std::find_if(p.begin(), p.end(), [&](const auto& c) { return c.tailNumber == atcId; });
    if (mine == p.end()) {
        if (atcId == "AS-GEN") {
            if (!ts.asGenLogged)
                core::log(fmt::format(
                    "\nSpawned by Asobo, oid: {}, callsign AS-GEN, altaboveGnd:{:.0f} ft, onground:{}, "
                    "gnd_alt:{:.0f} ft\nThis message will be logged only once...\n",
                    m.objectId, above, onGround, ground));
            ts.asGenLogged = true;
        } else {
            core::log(
                fmt::format("just spawned, but not by {}, oid: {}, callsign '{}', altaboveGnd:{:.0f} ft, "
                            "onground:{}, gnd_alt:{:.0f} ft",
                            core::kAppName, m.objectId, atcId, above, onGround, ground));
        }
        return;
    }
    const std::uint32_t hexid = mine->hexid;
    p.erase(mine);
    {
        std::lock_guard lock(shared.simLock);
        simApi->AIReleaseControl(m.objectId, kReqRelease);
        for (const DWORD e : {kFreezeLatLon, kFreezeAltitude, kFreezeAttitude})
            shared.eventList.push_back({m.objectId, e, 1});
    }
    if (hexid <= 10000)
        post(StaticCreated{m.objectId, hexid});
    else
        post(LiveCreated{m.objectId, hexid, above});
}

void onObjectData(const RecvSimObjectData& m) {
    DataReader in(m.data);
    switch (m.requestId) {
    case kReqStatic: {
        const double cg = in.f64().value_or(0), pitch = in.f64().value_or(0);
        post(StaticData{m.objectId, cg, pitch});
        break;
    }
    case kReqTitle:
        onTitle(in);
        break;
    case kReqModel:
        onModel(in);
        break;
    case kReqOnGround:
        if (status.positionKnown) {
            status.userOnGround = in.i64().value_or(1) != 0;
            status.onGroundKnown = true;
        }
        core::gRun.secondElapsed.store(true, std::memory_order_release);
        break;
    case kReqUserPosition:
        onUserPosition(m.objectId, in);
        break;
    default:
        break;
    }
}

void runWorkLists() {
    std::unique_lock lock(shared.simLock, std::try_to_lock);
    if (!lock.owns_lock()) return; // the engine is filling the lists: next frame
    if (status.failed) {
        shared.positionList.clear(), shared.eventList.clear(), shared.createList.clear(),
            shared.removeList.clear(), shared.controlsList.clear(), shared.staticDataList.clear();
        return;
    }
    Api& api = *simApi;
    for (const auto& p : shared.positionList) {
        if (!aboveUser(p.objectId)) continue;
        std::array<std::uint8_t, 64> data;
        const double values[8] = {p.latitude, p.longitude, p.pitch,         p.bank,
                                  p.heading,  p.altitude,  p.verticalSpeed, p.airspeed};
        std::memcpy(data.data(), values, sizeof values);
        api.SetDataOnSimObject(kDefAiPosition, p.objectId, 0, 0, 64, data.data());
    }
    shared.positionList.clear();
    for (const auto& c : shared.controlsList) {
        if (!aboveUser(c.objectId)) continue;
        std::array<std::uint8_t, 24> data;
        const double values[3] = {c.spoilers, c.throttle1, c.throttle2};
        std::memcpy(data.data(), values, sizeof values);
        api.SetDataOnSimObject(kDefControls, c.objectId, 0, 0, 24, data.data());
    }
    shared.controlsList.clear();
    for (const auto& e : shared.eventList) {
        if (e.eventId == kFlapsSet) api.AIReleaseControl(e.objectId, kReqRelease);
        if (api.TransmitClientEvent(e.objectId, e.eventId, e.data, kGroup, 0) < 0)
            core::message(fmt::format("SimConnect TransmitClientEvent: {} fails", e.eventId));
        else if (e.eventId == kFlapsSet)
            api.AIReleaseControl(e.objectId, kReqRelease);
    }
    shared.eventList.clear();
    for (const DWORD id : shared.staticDataList) {
        if (api.RequestDataOnSimObject(kReqStatic, kDefStatic, id, SIMCONNECT_PERIOD_ONCE) < 0) {
            core::log(fmt::format("SimConnect request StaticCG fails: {}", api.lastError()));
            requestFailure();
            break;
        }
    }
    shared.staticDataList.clear();
    for (const auto& c : shared.createList) {
        DWORD sendId = 0;
        if (api.AICreateNonATCAircraft(c.title, c.tailNumber, c.init, kReqCreate) < 0) {
            core::log(
                fmt::format("! Simcon call to create ac in sim failed, hexid:{}, liv: '{}', callsign: {})",
                            c.hexid, c.title, c.tailNumber));
            requestFailure();
            break;
        }
        if (api.GetLastSentPacketID(&sendId) < 0) core::log("GetLastSentPacketID");
        ts.pendingCreations.push_back({sendId, c.hexid, c.tailNumber});
    }
    shared.createList.clear();
    for (const DWORD id : shared.removeList) {
        if (aboveUser(id)) {
            if (api.AIRemoveObject(id, kReqRemove) < 0) {
                core::log(fmt::format("{} !SimConnect call to remove AI ac from sim failed, id {}?",
                                      core::timeText(), id));
                requestFailure();
                break;
            }
        } else {
            core::log(fmt::format("SimConnect call to remove ac with objectid {}", id));
        }
    }
    shared.removeList.clear();
}

void dispatch(const Received& m, void*) {
    ts.lastMessageAt = platform::clock().steadyNow();
    if (m.id == SIMCONNECT_RECV_ID_OPEN) ts.answered = true;
    switch (m.id) {
    case SIMCONNECT_RECV_ID_EXCEPTION:
        onException(std::get<RecvException>(m.body));
        break;
    case SIMCONNECT_RECV_ID_OPEN:
        onOpen(std::get<RecvOpen>(m.body));
        break;
    case SIMCONNECT_RECV_ID_QUIT:
        // The simulator says it goes; whether it also closes the socket is its business.
        if (!ts.quitReceived) lostSimulator();
        ts.quitReceived = true;
        break;
    case SIMCONNECT_RECV_ID_EVENT: {
        const auto& e = std::get<RecvEvent>(m.body);
        if (e.eventId == kEvSim) {
            core::gRun.simRunning = e.data == 1;
            core::repaint(core::Region::Indicators);
        } else if (e.eventId == kEvFlightLoaded && !stopUnderWay()) {
            newFlight("SimConnect: flight loaded event");
        }
        break;
    }
    case SIMCONNECT_RECV_ID_EVENT_OBJECT_ADDREMOVE: {
        const auto& e = std::get<RecvEventObjectAddRemove>(m.body);
        if (e.objectType != SIMCONNECT_SIMOBJECT_TYPE_AIRCRAFT) break;
        if (e.eventId == kEvObjectAdded && aboveUser(e.data))
            ts.addedObjects.push_back(e.data);
        else if (e.eventId == kEvObjectRemoved)
            post(ObjectRemoved{e.data});
        break;
    }
    case SIMCONNECT_RECV_ID_EVENT_FILENAME:
        if (!stopUnderWay()) newFlight("SimConnect: New file event");
        break;
    case SIMCONNECT_RECV_ID_EVENT_FRAME:
        runWorkLists();
        break;
    case SIMCONNECT_RECV_ID_SIMOBJECT_DATA:
        onObjectData(std::get<RecvSimObjectData>(m.body));
        break;
    case SIMCONNECT_RECV_ID_SIMOBJECT_DATA_BYTYPE:
        if (std::get<RecvSimObjectData>(m.body).requestId == kReqInRange)
            onInRange(std::get<RecvSimObjectData>(m.body));
        break;
    case SIMCONNECT_RECV_ID_ASSIGNED_OBJECT_ID:
    case SIMCONNECT_RECV_ID_CLIENT_DATA:
    case SIMCONNECT_RECV_ID_EVENT_EX1:
        break;
    default:
        core::log(fmt::format("! Unknown Dispatch dwID {}", m.id));
    }
}

void definitions(Api& api) {
    for (const auto& [id, name] : kSystemEvents) api.SubscribeToSystemEvent(id, name);
    for (const auto& d : kDefinitions)
        api.AddToDataDefinition(d.definition, d.name, d.units, d.type, 0, SIMCONNECT_UNUSED);
    for (const auto& [id, name] : kClientEvents) api.MapClientEventToSimEvent(id, name);
    for (const auto& [id, name] : kClientEvents)
        if (id != kEngineAutoStart) api.AddClientEventToNotificationGroup(kGroup, id, true);
    api.SetNotificationGroupPriority(kGroup, SIMCONNECT_GROUP_PRIORITY_HIGHEST);
}

// Ends the connection: the thread stops here, or waits for a new simulator.
void closeConnection() {
    if (status.isConnected.exchange(false)) {
        if (onUserLeaving) onUserLeaving();
        {
            std::lock_guard lock(textLock);
            texts.sim.clear();
        }
        // No simulator means no frames: the engine loop sees a stop through its paused step.
        core::gRun.simRunning = false;
        core::setIndicator(core::Indicator::Simulator, 0);
        platform::timeEndPeriod(1);
    }
    if (simApi) {
        std::lock_guard lock(shared.simLock);
        core::log(simApi->Close() >= 0 ? "SimConnect closed ok" : "Closing SimConnect failed?!");
        simApi.reset();
    }
}

std::unique_ptr<Api> makeApi() {
    const bool protocol2024 = !msfs2020Selected() && !ts.protocol2020;
    if (apiFactory) return apiFactory(protocol2024);
    return makeNetworkClient(
        [](std::string& error) -> std::unique_ptr<Transport> {
            const auto where = simConnectEndpoint();
            if (const auto* why = std::get_if<std::string>(&where)) {
                error = *why;
                // Said once per change: the client asks again every pass until the user fixes it.
                if (*why != ts.endpointProblem) {
                    ts.endpointProblem = *why;
                    core::message(*why, true);
                }
                return nullptr;
            }
            ts.endpointProblem.clear();
            const auto& e = std::get<SimEndpoint>(where);
            return connectTcp(e.host, e.port, error);
        },
        protocol2024 ? kProtocolMsfs2024 : kProtocolMsfs2020);
}

// A try-lock for the operations other threads call: they never wait for the frame handler.
template <class F>
bool underSimLock(F f) {
    std::unique_lock lock(shared.simLock, std::try_to_lock);
    if (!lock.owns_lock()) return false;
    f();
    return true;
}

// A request about the user's aircraft, on the client thread under simLock; its failure is a
// request failure.
void requestUser(const char* failText, DWORD requestId, DWORD define, DWORD period) {
    if (simApi->RequestDataOnSimObject(requestId, define, SIMCONNECT_OBJECT_ID_USER, period) < 0) {
        core::log(failText);
        requestFailure();
    }
}

// What the other threads marked since the last pass.
void sendWanted() {
    // Most passes want nothing: they leave simLock to the frame's try.
    if (!wanted.position.load(std::memory_order_acquire) &&
        !wanted.titleAndModel.load(std::memory_order_acquire) &&
        !wanted.onGround.load(std::memory_order_acquire) &&
        wanted.inRangeNm.load(std::memory_order_acquire) < 0)
        return;
    std::lock_guard lock(shared.simLock);
    if (wanted.position.exchange(false, std::memory_order_acq_rel))
        requestUser("SimConnect request user ac position fails", kReqUserPosition, kDefUserPosition,
                    SIMCONNECT_PERIOD_ONCE);
    if (wanted.titleAndModel.exchange(false, std::memory_order_acq_rel)) {
        requestUser("SimConnect request user ac title fails", kReqTitle, kDefTitle, SIMCONNECT_PERIOD_ONCE);
        requestUser("SimConnect reques user ac model fails", kReqModel, kDefModel, SIMCONNECT_PERIOD_ONCE);
    }
    if (wanted.onGround.exchange(false, std::memory_order_acq_rel))
        requestUser("SimConnect request ac gnd/air fails", kReqOnGround, kDefOnGround,
                    SIMCONNECT_PERIOD_SECOND);
    if (const int rangeNm = wanted.inRangeNm.exchange(-1, std::memory_order_acq_rel); rangeNm >= 0) {
        const auto radius = static_cast<DWORD>(rangeNm * core::kMetresPerNm);
        if (simApi->RequestDataOnSimObjectType(kReqInRange, kDefInRange, radius,
                                               SIMCONNECT_SIMOBJECT_TYPE_AIRCRAFT) < 0) {
            core::log("SimConnect request ac within range fails");
            requestFailure();
        }
    }
}

} // namespace

void setApiFactory(ApiFactory factory) {
    apiFactory = std::move(factory);
}

bool msfs2020Selected() {
    const auto* p = dynamic_cast<const params::StringParameter*>(params::findParameter("SIM_CHOICE"));
    return !p || p->value != "MSFS 2024";
}

Pass pollOnce() {
    if (stopUnderWay() || stopToken) {
        closeConnection();
        return Pass::End;
    }
    if (!status.isConnected) {
        if (ts.firstPass) {
            ts.firstPass = false;
            core::message(fmt::format("Waiting for MSFS 20{} ...", msfs2020Selected() ? "20" : "24"), true);
        }
        if (simApi) simApi->Close();
        auto api = makeApi();
        if (api->Open(core::kAppName) < 0) return Pass::Waiting;
        {
            std::lock_guard lock(shared.simLock);
            simApi = std::move(api);
            ts.quitReceived = false;
        }
        definitions(*simApi);
        platform::timeBeginPeriod(1);
        status.isConnected = true;
        ts.openedAt = ts.lastMessageAt = platform::clock().steadyNow();
        ts.answered = false;
        return Pass::Connected;
    }
    sendWanted();
    try {
        const bool dispatched = simApi->CallDispatch(dispatch, nullptr) >= 0;
        if (!dispatched && !ts.quitReceived) {
            // No QUIT: the link broke, not the simulator's end. The run starts again and reconnects.
            core::log(fmt::format("SimConnect connection lost: {}; connecting again", simApi->lastError()));
            closeConnection();
            core::requestStop(core::ExitReason::SimconnectError, 9);
            return Pass::End;
        }
        if (ts.quitReceived) {
            closeConnection();
            return Pass::End;
        }
        using namespace std::chrono_literals;
        const auto now = platform::clock().steadyNow();
        if (!ts.answered && now - ts.openedAt >= 15s) {
            core::message("The simulator took the connection but has not answered in 15 s; trying again",
                          true);
            closeConnection();
            return Pass::Waiting;
        }
        // While it runs the simulator sends every frame and every second; silence is a lost link.
        if (core::gRun.simRunning && now - ts.lastMessageAt >= 30s) {
            core::log(
                "The simulator has sent nothing for 30 s while running: the link is lost, connecting again");
            closeConnection();
            core::requestStop(core::ExitReason::SimconnectError, 9);
            return Pass::End;
        }
    } catch (const RetryWith2020Protocol&) {
        core::log("SimConnect: the simulator refused protocol 6, opening again with protocol 5");
        closeConnection();
        return Pass::Waiting;
    } catch (const core::UserErrorException& e) {
        if (e.number() == 2024) {
            core::log(fmt::format("MSFS and {} do not match, restarting ...", core::kAppName));
            switchSimulator();
        } else {
            core::error(e.what());
            if (e.text().starts_with("791")) {
                platform::clock().sleepFor(std::chrono::seconds(10));
                lostSimulator();
            }
        }
        closeConnection();
        return Pass::End;
    } catch (const std::exception& e) {
        core::error(*e.what() ? std::string(e.what()) : fmt::format("Exception in {}", "SimClient"));
        lostSimulator();
        closeConnection();
        return Pass::End;
    }
    return Pass::Connected;
}

void startClient() {
    stopClient();
    stopToken = false;
    clientThread = std::thread([] {
        try {
            for (;;) {
                const Pass p = pollOnce();
                if (p == Pass::End) break;
                platform::clock().sleepFor(std::chrono::milliseconds(p == Pass::Waiting ? 100 : 1));
            }
        } catch (const std::exception& e) {
            core::error(fmt::format("Exception in {}: {}", "SimClient", e.what()));
            closeConnection();
        }
    });
}

void stopClient() {
    stopToken = true;
    if (clientThread.joinable()) clientThread.join();
}

bool connected() {
    return status.isConnected;
}

// Called from the engine frame: it only marks the request, which the client's own thread sends,
// so the frame does no socket work. The copy is the last one when the lock is busy.
UserData requestUserPosition() {
    wanted.position.store(true, std::memory_order_release);
    thread_local UserData copy;
    underSimLock([&] { copy = shared.userData; });
    return copy;
}

UserData lastUserData() {
    std::lock_guard lock(shared.simLock);
    return shared.userData;
}

void requestTitleAndModel() {
    wanted.titleAndModel.store(true, std::memory_order_release);
}

void requestUserOnGround() {
    wanted.onGround.store(true, std::memory_order_release);
    wanted.position.store(true, std::memory_order_release);
    requestTitleAndModel();
}

void requestInRange(int rangeNm) {
    wanted.inRangeNm.store(std::max(0, rangeNm), std::memory_order_release);
}

bool addCreate(const CreateRecord& r) {
    return underSimLock([&] { shared.createList.push_back(r); });
}
void FrameLists::reserve(std::size_t n) {
    positions.reserve(n), events.reserve(n), creates.reserve(64), removes.reserve(64), controls.reserve(64);
    staticData.reserve(64);
}
void FrameLists::clear() {
    positions.clear(), events.clear(), creates.clear(), removes.clear(), controls.clear(), staticData.clear();
}

bool handOver(FrameLists& l) {
    return underSimLock([&] {
        // The client sends and empties its list each simulator frame; positions it has not sent
        // yet are older than these and go.
        shared.positionList.clear();
        std::swap(shared.positionList, l.positions);
        shared.eventList.insert(shared.eventList.end(), l.events.begin(), l.events.end());
        shared.createList.insert(shared.createList.end(), l.creates.begin(), l.creates.end());
        shared.removeList.insert(shared.removeList.end(), l.removes.begin(), l.removes.end());
        shared.controlsList.insert(shared.controlsList.end(), l.controls.begin(), l.controls.end());
        shared.staticDataList.insert(shared.staticDataList.end(), l.staticData.begin(), l.staticData.end());
        l.events.clear(), l.creates.clear(), l.removes.clear(), l.controls.clear(), l.staticData.clear();
    });
}

std::mutex& simLockForTests() {
    return shared.simLock;
}

bool addRemove(std::uint32_t objectId) {
    return underSimLock([&] { shared.removeList.push_back(objectId); });
}
bool addPosition(const PositionRecord& r) {
    return underSimLock([&] { shared.positionList.push_back(r); });
}
bool addEvent(std::uint32_t objectId, std::uint32_t eventId, std::uint32_t data) {
    return underSimLock([&] { shared.eventList.push_back({objectId, eventId, data}); });
}
bool engineStart(std::uint32_t objectId) {
    return addEvent(objectId, kEngineAutoStart, 0);
}
bool engineShutdown(std::uint32_t objectId) {
    return addEvent(objectId, kEngineAutoShutdown, 0);
}
bool navLights(std::uint32_t objectId, bool on) {
    return addEvent(objectId, kNavLights, on ? 1 : 0);
}
bool cabinLights(std::uint32_t objectId, bool on) {
    return addEvent(objectId, kCabinLights, on ? 1 : 0);
}
bool setLights(std::uint32_t objectId, const bool (&s)[7]) {
    constexpr DWORD order[7] = {kNavLights, kBeaconLights, kLandingLights, kTaxiLights,
                                kStrobes,   kLogoLights,   kCabinLights};
    return underSimLock([&] {
        for (int i = 0; i < 7; ++i) shared.eventList.push_back({objectId, order[i], s[i] ? 1u : 0u});
    });
}

bool setFlightPlan(std::uint32_t objectId, const std::string& path) {
    std::lock_guard lock(shared.simLock);
    return simApi && status.isConnected &&
           simApi->AISetAircraftFlightPlan(objectId, path, kReqFlightPlan) >= 0;
}

void takeEvents(std::vector<SimEvent>& out) {
    out.clear();
    std::lock_guard lock(eventLock);
    std::swap(out, eventQueue);
}

std::optional<UserPosition> userPosition() {
    if (!status.positionKnown) return std::nullopt;
    std::lock_guard lock(shared.simLock);
    const auto& u = shared.userData;
    return UserPosition{u.latitude, u.longitude, u.altitude, status.userOnGround};
}

bool userTitleKnown() {
    return status.titleKnown;
}
std::string userTitle() {
    std::lock_guard lock(textLock);
    return texts.title;
}
std::string userModel() {
    std::lock_guard lock(textLock);
    return texts.model;
}
bool userOnGround() noexcept {
    return status.userOnGround.load(std::memory_order_relaxed);
}
double userHalfSpanNm() {
    return status.halfSpanNm;
}
std::string simulatorText() {
    std::lock_guard lock(textLock);
    return texts.sim;
}
std::optional<refdata::AirportRecord> nearestAirport() {
    std::lock_guard lock(textLock);
    return texts.airport;
}

std::string nearestArea() {
    std::lock_guard lock(textLock);
    return texts.area;
}
bool userIsNotAnAircraft() {
    return status.notAnAircraft;
}

std::uint32_t userObjectId() {
    return status.userId;
}
bool simFailed() {
    return status.failed;
}
void setOnUserLeaving(std::function<void()> action) {
    onUserLeaving = std::move(action);
}
std::int64_t epochTime() {
    return status.epoch;
}

std::int64_t epochFromZulu(std::int64_t year, std::int64_t dayOfYear, std::int64_t zuluSeconds) {
    const std::int64_t y = year - 1;
    const auto days = static_cast<std::int64_t>(std::floor(365.25 * static_cast<double>(y))) + y / 400 -
                      y / 100 + dayOfYear - 719163;
    return days * 86400 + zuluSeconds;
}

std::string normaliseModel(const std::string& model, const std::string& title) {
    static const std::pair<const char*, const char*> exact[] = {
        {"A350-900", "A359"}, {"N738B", "B38M"}, {"777", "772"}, {"A330-200 (RR)", "A332"}};
    for (const auto& [from, to] : exact)
        if (model == from) return to;
    if (const auto at = model.find(".0.text"); at != std::string::npos) {
        const std::string front = model.substr(0, at);
        std::size_t start = front.size() > 4 ? front.size() - 4 : 0;
        if (const auto cut = front.find_last_of("_.:"); cut != std::string::npos && cut + 1 > start)
            start = cut + 1;
        return front.substr(start);
    }
    if (model == "737") {
        static const std::pair<const char*, const char*> dg[] = {
            {"DG 737-800", "B738"}, {"DG 737-700", "B737"}, {"DG 737-600", "B736"}, {"DG 737-900", "B739"}};
        for (const auto& [in, to] : dg)
            if (title.find(in) != std::string::npos) return to;
    }
    return model;
}

void clearLists() {
    std::lock_guard lock(shared.simLock);
    shared.positionList.clear();
    shared.eventList.clear();
    shared.createList.clear();
    shared.removeList.clear();
    shared.controlsList.clear();
    shared.staticDataList.clear();
}

void reset() {
    core::gRun.simRunning = false;
    clearLists();
    {
        std::lock_guard lock(eventLock);
        eventQueue.clear();
    }
    {
        std::lock_guard lock(shared.simLock);
        shared.userData = {};
        shared.positionList.reserve(1024);
        shared.eventList.reserve(1024);
    }
    {
        std::lock_guard lock(textLock);
        texts = {};
    }
    status.reset();
    wanted.reset();
    if (!clientThread.joinable()) {
        stopToken = false; // a stopped client leaves no token behind
        simApi.reset();    // nor a connection of a run that ended without closing it
        status.isConnected = false;
    }
    ts = {};
}

} // namespace orv::sim
