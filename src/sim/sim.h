// The simulator link: the SimConnect client thread, the simulator's folders, flight plans.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "refdata/refdata.h"
#include "simconnect/simconnect.h"

namespace orv::sim {

// ---- Ids of the client's definitions, requests, events and group -----------------------------

enum Definition : std::uint32_t {
    kDefControls = 401,
    kDefAiPosition = 402,
    kDefUserPosition = 403,
    kDefInRange = 404,
    kDefStatic = 405,
    kDefLightOn = 406,
    kDefTitle = 407,
    kDefModel = 408,
    kDefOnGround = 409
};
enum Request : std::uint32_t {
    kReqInRange = 101,
    kReqStatic = 102,
    kReqRelease = 103,
    kReqCreate = 104,
    kReqRemove = 105,
    kReqTitle = 106,
    kReqModel = 107,
    kReqOnGround = 108,
    kReqUserPosition = 109,
    kReqFlightPlan = 110
};
enum SystemEvent : std::uint32_t {
    kEvSim = 201,
    kEvObjectAdded = 202,
    kEvObjectRemoved = 203,
    kEvFrame = 204,
    kEvFlightLoaded = 205
};
enum ClientEvent : std::uint32_t {
    kBeaconLights = 206,
    kNavLights = 207,
    kTaxiLights = 208,
    kStrobes = 209,
    kLandingLights = 210,
    kCabinLights = 211,
    kLogoLights = 212,
    kAllLightsToggle = 213,
    kFreezeLatLon = 214,
    kFreezeAltitude = 215,
    kFreezeAttitude = 216,
    kFlapsSet = 217,
    kSpoilersSet = 218,
    kGearSet = 219,
    kEngineAutoStart = 220,
    kEngineAutoShutdown = 221,
    kThrottleSet = 222
};
inline constexpr std::uint32_t kGroup = 301;

// ---- Work lists from the engine, and messages back -------------------------------------------

// The eight values of kDefAiPosition, in its order, and the object they go to.
struct PositionRecord {
    double latitude = 0, longitude = 0, pitch = 0, bank = 0, heading = 0, altitude = 0, verticalSpeed = 0,
           airspeed = 0;
    std::uint32_t objectId = 0;
};
struct EventRecord {
    std::uint32_t objectId = 0, eventId = 0, data = 0;
};
// The three values of kDefControls (percent): spoilers handle and both throttle levers;
// negative throttle is reverse thrust.
struct ControlsRecord {
    std::uint32_t objectId = 0;
    double spoilers = 0, throttle1 = 0, throttle2 = 0;
};
struct CreateRecord {
    simconnect::SIMCONNECT_DATA_INITPOSITION init;
    std::string tailNumber; // the callsign
    std::string_view title; // the container title: a view into the livery store
    std::uint32_t hexid = 0;
};

// Messages from the SimClient to the engine, one struct a kind.
struct LiveCreated { // a live aircraft's object exists
    std::uint32_t objectId = 0, hexid = 0;
    double heightAgl = 0; // feet
};
struct StaticCreated {
    std::uint32_t objectId = 0, hexid = 0;
};
struct ObjectRemoved {
    std::uint32_t objectId = 0;
};
struct ForeignInRange { // the simulator's own report of an object near the user
    std::uint32_t objectId = 0;
    bool onGround = false;
    double groundAltitude = 0, heightAgl = 0; // feet
};
struct StaticData { // "Static CG to Ground" and "Static Pitch" of an object
    std::uint32_t objectId = 0;
    double cgHeightFt = 0, staticPitch = 0;
};
struct Blocked {
    std::uint32_t hexid = 0;
};
struct CreationFailed {
    std::uint32_t hexid = 0;
};
using SimEvent = std::variant<LiveCreated, StaticCreated, ObjectRemoved, ForeignInRange, StaticData, Blocked,
                              CreationFailed>;

// The twelve fields of kDefUserPosition.
struct UserData {
    double latitude = 0, longitude = 0, pitch = 0, bank = 0, heading = 0, altitude = 0, altAboveGround = 0,
           groundVelocity = 0;
    std::int64_t zuluTime = 0, zuluDayOfYear = 0, zuluYear = 0, lightStates = 0;
};

struct UserPosition {
    double latitude = 0.0;
    double longitude = 0.0;
    double altitude = 0.0;
    bool onGround = true;
};

// ---- The client ------------------------------------------------------------------------------

// The simulator's SimConnect is at --sim HOST:PORT. Makes the SimConnect handle; tests and scenario runs put
// an in-memory connection here.
using ApiFactory = std::function<std::unique_ptr<simconnect::Api>(bool protocol2024)>;
void setApiFactory(ApiFactory factory); // empty: the network client to --sim
bool msfs2020Selected();                // SIM_CHOICE is "MSFS 2020"

void startClient(); // the "SimClient" thread
void stopClient();  // sets its stop token and joins it
// One pass of the thread's loop: open or dispatch. False when the thread would end.
enum class Pass { Waiting, Connected, End };
Pass pollOnce();
bool connected();

// Operations for the engine and the start sequence. Requests are only marked: the client thread
// sends them on its next pass, so none is lost and none waits. The lists only try simLock and
// report false when the client holds it; the caller tries again.
// Asks for a fresh position and gives the last one: fit for the frame.
UserData requestUserPosition();
UserData lastUserData(); // the last answer, without a new request
void requestTitleAndModel();
void requestUserOnGround(); // the every-second on-ground request, and the first position, title, model
void requestInRange(int rangeNm);
[[nodiscard]] bool addCreate(const CreateRecord& record);
// What one engine frame has for the simulator. Positions are swapped in (the frame's buffer comes
// back empty, with its capacity); the other lists are moved in and emptied. False when the lock
// was busy: then nothing moved.
struct FrameLists {
    std::vector<PositionRecord> positions;
    std::vector<EventRecord> events;
    std::vector<CreateRecord> creates;
    std::vector<std::uint32_t> removes;
    std::vector<ControlsRecord> controls;
    std::vector<std::uint32_t> staticData; // objects whose "Static CG to Ground" and pitch are wanted
    void reserve(std::size_t n);
    void clear();
};
[[nodiscard]] bool handOver(FrameLists& lists);
std::mutex& simLockForTests(); // the lock of the lists, to make it busy
[[nodiscard]] bool addRemove(std::uint32_t objectId);
[[nodiscard]] bool addPosition(const PositionRecord& record);
[[nodiscard]] bool addEvent(std::uint32_t objectId, std::uint32_t eventId, std::uint32_t data);
[[nodiscard]] bool engineStart(std::uint32_t objectId);
[[nodiscard]] bool engineShutdown(std::uint32_t objectId);
[[nodiscard]] bool navLights(std::uint32_t objectId, bool on);
[[nodiscard]] bool cabinLights(std::uint32_t objectId, bool on);
// Nav, beacon, landing, taxi, strobes, logo, cabin: one event each.
[[nodiscard]] bool setLights(std::uint32_t objectId, const bool (&states)[7]);
// Sets an AI aircraft's flight plan file; false if the call failed.
[[nodiscard]] bool setFlightPlan(std::uint32_t objectId, const std::string& path);

// Messages for the engine, taken in one swap.
void takeEvents(std::vector<SimEvent>& out);

std::optional<UserPosition> userPosition();
bool userTitleKnown();
std::string userTitle();
std::string userModel();
double userHalfSpanNm();
bool userOnGround() noexcept; // the simulator's own flag, as last asked; true until known
std::string simulatorText();  // "KittyHawk (11.0.282174.999) connected"
std::string nearestArea();
// The airport within 5 nm of the user, looked for again when the user has moved half a mile.
std::optional<refdata::AirportRecord> nearestAirport();
std::uint32_t userObjectId();
bool userIsNotAnAircraft(); // the user flies a camera pod or sails a crew vessel
bool simFailed();
// What happens when the user leaves the flight or the simulator (the user's stand is kept); set
// before the client starts.
void setOnUserLeaving(std::function<void()> action);
// The epoch from the user's zulu time, computed while a professional RealTraffic is connected.
std::int64_t epochTime();
std::int64_t epochFromZulu(std::int64_t year, std::int64_t dayOfYear, std::int64_t zuluSeconds);
// The ICAO type of a model text as the simulator reports it.
std::string normaliseModel(const std::string& model, const std::string& title);

void clearLists(); // positions and commands waiting for the simulator
void reset();

// ---- Installation ----------------------------------------------------------------------------

// The folders that stand for Windows' %APPDATA% and %LOCALAPPDATA% on this machine; by default
// those of the simulator's Proton prefix under Steam.
struct KnownFolders {
    std::filesystem::path appData, localAppData;
};
KnownFolders knownFolders();
void setKnownFolders(std::optional<KnownFolders> folders); // nullopt: the defaults

std::filesystem::path findUserCfg(bool logMissing = true);
// Where the simulator's SimConnect listens: --sim, else the IPv4 entry of the SimConnect.xml beside
// UserCfg.opt. Without one, a text that says what to add and where.
struct SimEndpoint {
    std::string host;
    std::uint16_t port = 0;
};
std::variant<SimEndpoint, std::string> simConnectEndpoint();
std::variant<SimEndpoint, std::string> readSimConnectXml(const std::filesystem::path& file);
std::filesystem::path steamPackagesPath();
std::filesystem::path installedPackagesPath();
bool isPackagesFolder(const std::filesystem::path& path);
std::filesystem::path detectInstallPath(); // stores a result in the parameters
std::filesystem::path communityPath();
std::filesystem::path officialPath();
// At start: the stored path of the selected simulator, else the detected one; empty if none.
std::string installPath();
// A path the user typed; empty when it was taken (the program restarts), else the reason.
[[nodiscard]] std::string typedInstallPath(const std::string& text);
void switchSimulator();

// ---- Flight plans ----------------------------------------------------------------------------

struct PlanAircraft {
    std::uint32_t hexid = 0, objectId = 0;
    int category = 2;
    std::string origin, destination; // three-letter codes
    std::string name;                // for the log
};
// A path of this machine as a simulator under Wine or Proton names it: C: inside its prefix, else Z:.
std::string windowsPathOf(const std::filesystem::path& path);
// The plan file as the simulator opens it; none when a simulator on another PC cannot reach it.
std::optional<std::string> planPathForSimulator(const std::filesystem::path& local);
[[nodiscard]] bool createFlightPlanFolder();
std::filesystem::path planPath(std::uint32_t hexid);
// Writes the aircraft's plan file and hands it to the simulator; logs what failed.
void loadPlan(const PlanAircraft& aircraft);
[[nodiscard]] std::string removeFlightPlanFolder(); // empty on success, else the reason

} // namespace orv::sim
