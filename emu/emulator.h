// An emulated MSFS for tests and the demo: the server side of the SimConnect network protocol,
// a scripted user aircraft, AI objects made from known container titles, and a recording of
// everything the clients did to those objects.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "simconnect/simconnect.h"

namespace orv::emu {

namespace sc = orv::simconnect;

struct Waypoint {
    double latitude = 0, longitude = 0, altitudeFt = 0;
};

// The user's aircraft: parked where it stands, or flying its waypoints at a speed.
struct UserScript {
    std::string title = "Airbus A320 Neo Asobo";
    std::string atcModel = "TT:ATCCOM.AC_MODEL_A20N.0.text";
    double latitude = 0, longitude = 0;
    std::optional<double> altitudeFt; // parked: the ground's altitude when not given
    double headingDeg = 0;
    std::vector<Waypoint> path;
    double speedKts = 0;
    double departAtSeconds = 0; // stands at the path's first point until then
    std::int64_t lightStates = 0;
};

struct AirportElevation {
    std::string ident;
    double latitude = 0, longitude = 0, elevationFt = 0;
};

struct Config {
    bool msfs2024 = false; // answers as "SunRise" and accepts protocol 6
    double frameRate = 30;
    std::size_t maxObjects = 1000;
    std::vector<std::string> titles;  // container titles that can be created
    bool addedBeforeAssigned = false; // order of ObjectAdded and ASSIGNED_OBJECT_ID
    bool running = true;              // the "Sim" state
    UserScript user;
    std::vector<AirportElevation> airports; // ground altitude: the nearest one's elevation
    std::int64_t zuluStart = 1738700000;    // UTC seconds at simulated time 0
    double staticCgFt = 8;                  // "Static CG to Ground" of every AI aircraft
    sc::DWORD userObjectId = 1;
    sc::DWORD firstAiObjectId = 100;
};

struct PositionRecord {
    double t = 0;
    double latitude = 0, longitude = 0, altitudeFt = 0, pitch = 0, bank = 0, heading = 0; // radians
    double verticalSpeed = 0, airspeed = 0;
};
struct EventRecord {
    double t = 0;
    std::string name; // the sim event, or "ReleaseControl", "FlightPlan"
    std::uint32_t data = 0;
};
struct ObjectRecord {
    sc::DWORD id = 0;
    int client = 0;
    std::string title, tail;
    double createdAt = 0, removedAt = -1;
    bool released = false;
    std::string flightPlan;
    PositionRecord created, now; // where it was made, and the latest state
    double spoilers = 0, throttle1 = 0, throttle2 = 0;
    std::vector<PositionRecord> positions; // every SetDataOnSimObject, with its frame time
    std::vector<EventRecord> events;
};

class Emulator {
  public:
    using Sink = std::function<bool(sc::Bytes)>; // false: the client is gone
    explicit Emulator(Config config);
    ~Emulator();

    int connect(Sink sink);
    void receive(int client, sc::Bytes bytes);
    void disconnect(int client); // removes the client's objects, as the simulator does
    // Runs every frame up to `seconds` of simulated time: frame events, periodic data, the user.
    void advanceTo(double seconds);
    void setRunning(bool running);
    void loadFlight(std::string_view path); // "FlightLoaded" with the file name
    void moveUser(double latitude, double longitude);
    void quit();                                           // QUIT to every client
    void raise(sc::DWORD exception, sc::DWORD sendId = 0); // an exception message to every client
    // An aircraft of the simulator's own traffic (no client made it), on the ground or above it.
    sc::DWORD addTraffic(double latitude, double longitude, const std::string& tail,
                         double aboveGroundFt = 0);

    double now() const;
    std::vector<ObjectRecord> objects() const; // every object made, removed ones too
    std::size_t liveObjectCount() const;
    std::vector<std::pair<sc::DWORD, sc::DWORD>> exceptions() const; // (exception, send id) sent
    std::string summary() const;
    std::string writeRecording(const std::filesystem::path& file) const; // empty on success
    double groundAltitude(double latitude, double longitude) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Serves an emulator on TCP: a thread accepts clients, one thread per client reads, and one
// runs the frames in real time.
class Server {
  public:
    explicit Server(Emulator& emulator);
    ~Server();
    std::string start(std::string_view address, std::uint16_t port); // empty on success
    std::uint16_t port() const { return port_; }
    void stop(); // QUIT to the clients, then closes everything

  private:
    struct Connection;
    void acceptLoop();
    void frameLoop();
    Emulator& emu_;
    platform::TcpListener listener_;
    std::uint16_t port_ = 0;
    std::atomic<bool> running_{false};
    std::thread acceptThread_, frameThread_;
    std::mutex connectionsMutex_;
    std::vector<std::unique_ptr<Connection>> connections_;
};

// Titles of the [fltsim.N] sections of every aircraft.cfg under a folder.
std::vector<std::string> titlesUnder(const std::filesystem::path& folder);

} // namespace orv::emu
