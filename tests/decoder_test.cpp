#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "core/geo.h"
#include "feed/feed.h"
#include "params/params.h"
#include "support.h"

namespace orv::feed {
namespace {

const core::LatLon kKmsp{44.8820, -93.2218};
constexpr double kKmspElevation = 841.0;

TrafficArea kmspArea() {
    return {kKmsp, kKmspElevation, kKmsp};
}

std::vector<std::string> baseFields() {
    return {"RTTFC",   "11298587", "44.9",   "-93.2", "5000", "-700",         "0",    "120.5", "180",
            "DAL1812", "B739",     "N899DN", "MSP",   "ATL",  "1738717900.5", "adsb", "null",  "adsb_icao",
            "5000",    "-1",       "250",    "-1",    "-1",   "2.5",          "-1",   "121.0", "0",
            "none",    "A3"};
}

std::string join(const std::vector<std::string>& f) {
    std::string s;
    for (std::size_t i = 0; i < f.size(); ++i) s += (i ? "," : "") + f[i];
    return s;
}

enum class Outcome { Queued, Dropped, Failed, Ignored };

struct Case {
    const char* name;
    std::map<int, std::string> set;
    Outcome outcome;
    std::string log = {};
    std::function<void(const TrafficSample&)> check = {};
    std::function<void(TrafficArea&)> area = {};
    bool airborneOnly = false;
    std::int32_t qnh = 1013;
};

class Decoder : public ::testing::Test {
  protected:
    void SetUp() override {
        params::gParams.reset();
        setAcceptTraffic(true);
        std::lock_guard lock(gTraffic.trafficLock);
        gTraffic.trafficQueue.clear();
    }
    void TearDown() override {
        params::gParams.reset();
        setAcceptTraffic(false);
        std::lock_guard lock(gTraffic.trafficLock);
        gTraffic.trafficQueue.clear();
    }
    static std::optional<TrafficSample> popOne() {
        std::lock_guard lock(gTraffic.trafficLock);
        if (gTraffic.trafficQueue.empty()) return std::nullopt;
        auto s = gTraffic.trafficQueue.front();
        gTraffic.trafficQueue.pop_front();
        return s;
    }
};

TEST_F(Decoder, EveryStepOfTheLine) {
    const auto near = [](double v, double want) { return std::fabs(v - want) < 1e-9; };
    const std::vector<Case> cases = {
        {"valid airborne",
         {},
         Outcome::Queued,
         "",
         [&](const TrafficSample& s) {
             EXPECT_EQ(s.hexid, 11298587u);
             EXPECT_EQ(s.callsign, "DAL1812");
             EXPECT_EQ(s.registration, "N899DN");
             EXPECT_EQ(refdata::modelCode(s.modelCode), "B739");
             EXPECT_EQ(s.airlineCode, 0);
             EXPECT_EQ(s.origin.view(), "MSP");
             EXPECT_EQ(s.destination.view(), "ATL");
             EXPECT_TRUE(s.airborne);
             EXPECT_EQ(s.altitude, 5000.0);
             EXPECT_TRUE(s.hasTrueHeading);
             EXPECT_TRUE(near(*s.heading, 121.0 * core::kRadPerDeg));
             EXPECT_TRUE(near(*s.roll, -2.5 * core::kRadPerDeg));
             EXPECT_EQ(s.track, 120.5);
             EXPECT_EQ(s.verticalSpeed, -700.0);
             EXPECT_EQ(s.trueAirspeed, 250.0);
             EXPECT_EQ(s.timestamp, 1738717900.5);
             EXPECT_EQ(s.tick, core::gRun.engineTick + 3000);
         }},
        {"vehicle marker", {{9, "OPS VEH1"}}, Outcome::Ignored},
        {"too few fields", {{-1, "28"}}, Outcome::Failed, "traffic line refused: 28 fields, 29 needed"},
        {"bad timestamp", {{14, "abc"}}, Outcome::Failed, "exception in processLineSub: timestamp:abc"},
        {"leading blank", {{2, " 44.9"}}, Outcome::Failed, "lat: 44.9"},
        {"plus sign", {{3, "+93.2"}}, Outcome::Failed, "lon:+93.2"},
        {"trailing text tolerated", {{2, "44.9deg"}}, Outcome::Queued},
        {"position at the null island",
         {{2, "0.00005"}, {3, "-0.00005"}},
         Outcome::Failed,
         "invalid lalo: 0.000050,-0.000050",
         {},
         [](TrafficArea& a) {
             a.reference = {0, 0};
         }},
        {"just off the null island",
         {{2, "0.00005"}, {3, "0.2"}},
         Outcome::Queued,
         "",
         {},
         [](TrafficArea& a) {
             a.reference = {0, 0};
         }},
        {"latitude out of range", {{2, "90.5"}}, Outcome::Failed, "invalid lalo: 90.500000,-93.200000"},
        {"not a number", {{2, "nan"}}, Outcome::Failed, "invalid lalo: nan"},
        {"out of range", {{2, "46.0"}}, Outcome::Dropped},
        {"registration of 13", {{11, "ABCDEFGHIJKLM"}}, Outcome::Dropped},
        {"no registration",
         {{11, "null"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.registration, ""); }},
        {"type null", {{10, "null"}}, Outcome::Dropped},
        {"type empty", {{10, ""}}, Outcome::Dropped},
        {"type too long", {{10, "B7399"}}, Outcome::Dropped},
        {"glider", {{10, "GLID"}}, Outcome::Dropped},
        {"tower", {{10, "TWR"}}, Outcome::Dropped},
        {"lower-case glider is a type", {{10, "glid"}}, Outcome::Queued},
        {"category B2", {{28, "B2"}}, Outcome::Dropped},
        {"category C1", {{28, "C1"}}, Outcome::Dropped},
        {"true heading 0",
         {{25, "0"}, {7, "0"}},
         Outcome::Queued,
         "",
         [&](const TrafficSample& s) {
             EXPECT_TRUE(near(*s.heading, 2 * M_PI));
             EXPECT_TRUE(near(s.track, 360.0));
         }},
        {"empty track takes the heading",
         {{7, ""}},
         Outcome::Queued,
         "",
         [&](const TrafficSample& s) { EXPECT_TRUE(near(s.track, 121.0)); }},
        {"empty track without heading",
         {{7, ""}, {25, "-1"}},
         Outcome::Queued,
         "",
         [&](const TrafficSample& s) {
             EXPECT_EQ(s.track, 0.0);
             EXPECT_FALSE(s.hasTrueHeading);
             EXPECT_FALSE(s.heading);
         }},
        {"true heading 361", {{25, "361"}}, Outcome::Failed, "trueheading: 361.00"},
        {"heading not read for mlat",
         {{17, "mlat"}, {25, "garbage"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_FALSE(s.hasTrueHeading); }},
        {"heading unparsable", {{25, "x"}}, Outcome::Failed, "trueheading:x"},
        {"hexid 10000", {{1, "10000"}}, Outcome::Dropped},
        {"hexid 10001", {{1, "10001"}}, Outcome::Queued},
        {"hexid past 32 bits", {{1, "4294967296"}}, Outcome::Failed, "hexid incorrect4294967296"},
        {"hexid not a number", {{1, "ac671b"}}, Outcome::Failed, "hexid incorrectac671b"},
        {"hexid with tail",
         {{1, "20000x"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.hexid, 20000u); }},
        {"gs empty", {{8, ""}}, Outcome::Failed, "gs:"},
        {"altitude bad", {{4, "x"}}, Outcome::Failed, "altitude x incorrect, from: RTTFC,11298587"},
        {"80 ft at 70 kt is on the ground",
         {{4, "921"}, {8, "70"}, {2, "44.89"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) {
             EXPECT_EQ(s.altitude, 0.0);
             EXPECT_FALSE(s.airborne);
             EXPECT_FALSE(s.roll);
         }},
        {"100 ft at 40 kt is on the ground",
         {{4, "941"}, {8, "40"}, {2, "44.89"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_FALSE(s.airborne); }},
        {"50 ft at 130 kt flies",
         {{4, "891"}, {8, "130"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.altitude, 891.0); }},
        {"100 ft at 100 kt flies",
         {{4, "941"}, {8, "100"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_TRUE(s.airborne); }},
        {"slow means on the ground",
         {{4, "3000"}, {8, "35"}, {2, "44.89"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_FALSE(s.airborne); }},
        {"no elevation: measured from -1000 ft",
         {{4, "30"}, {8, "100"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.altitude, 30.0); },
         [](TrafficArea& a) { a.referenceElevation.reset(); }},
        {"below the airport is on the ground",
         {{4, "30"}, {8, "100"}, {2, "44.89"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_FALSE(s.airborne); }},
        // Pressure altitudes become true ones with the weather's QNH before the ground test.
        {"a high QNH lifts a pressure altitude, 27.3 ft a hectopascal",
         {{4, "5000"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_NEAR(s.altitude, 5000 + 22 * 27.3, 1e-9); },
         {},
         false,
         1035},
        {"a high QNH: a reading below the field is a final approach",
         {{4, "800"}, {8, "140"}, {2, "44.89"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) {
             EXPECT_TRUE(s.airborne);
             EXPECT_NEAR(s.altitude, 800 + 17 * 27.3, 1e-9);
         },
         {},
         false,
         1030},
        {"a low QNH: a reading above the field is on the runway",
         {{4, "900"}, {8, "130"}, {2, "44.89"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_FALSE(s.airborne); },
         {},
         false,
         1000},
        {"ground far from the airport", {{4, "0"}, {2, "44.99"}}, Outcome::Dropped},
        {"ground without an airport",
         {{4, "0"}, {2, "44.89"}},
         Outcome::Dropped,
         "",
         {},
         [](TrafficArea& a) { a.airport.reset(); }},
        {"callsign with @",
         {{9, "DAL@1"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.callsign, ""); }},
        {"callsign with @ and no registration", {{9, "DAL@1"}, {11, "null"}}, Outcome::Dropped},
        {"blocked callsign", {{9, "AIRPORT1"}}, Outcome::Dropped},
        {"no callsign, no registration", {{9, "null"}, {11, "null"}}, Outcome::Dropped},
        {"track bad", {{7, "abc"}}, Outcome::Failed, "track incorrect abc"},
        {"vs empty", {{5, ""}}, Outcome::Failed, "vs:"},
        {"origin empty", {{12, ""}}, Outcome::Failed, "FixedCode: invalid string (length/charset)"},
        {"destination of 4", {{13, "KATL"}}, Outcome::Failed, "FixedCode: invalid string (length/charset)"},
        {"route null and lower case",
         {{12, "null"}, {13, "atl"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) {
             EXPECT_TRUE(s.origin.empty());
             EXPECT_EQ(s.destination.view(), "ATL");
         }},
        {"roll -1", {{23, "-1"}}, Outcome::Queued, "", [](const TrafficSample& s) { EXPECT_FALSE(s.roll); }},
        {"roll 0", {{23, "0"}}, Outcome::Queued, "", [](const TrafficSample& s) { EXPECT_FALSE(s.roll); }},
        {"roll bad", {{23, ""}}, Outcome::Failed, "roll:"},
        {"tas unknown low",
         {{20, "-1"}, {4, "2000"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.trueAirspeed, 180.0); }},
        {"tas unknown mid",
         {{20, "-1"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.trueAirspeed, 220.0); }},
        {"tas unknown high",
         {{20, "-1"}, {4, "30000"}},
         Outcome::Queued,
         "",
         [](const TrafficSample& s) { EXPECT_EQ(s.trueAirspeed, 430.0); }},
        {"tas bad", {{20, "fast"}}, Outcome::Failed, "TAS incorrectfast"},
        {"airborne only, ground", {{4, "0"}, {2, "44.89"}}, Outcome::Dropped, "", {}, {}, true},
        {"airborne only, low over airport", {{4, "1000"}}, Outcome::Dropped, "", {}, {}, true},
        {"airborne only, high", {}, Outcome::Queued, "", {}, {}, true},
    };

    test::LogCapture log;
    auto reader = std::make_unique<TrafficReader>();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto f = baseFields();
        for (const auto& [i, v] : c.set) {
            if (i == -1)
                f.resize(static_cast<std::size_t>(std::stoi(v)));
            else
                f[static_cast<std::size_t>(i)] = v;
        }
        TrafficArea area = kmspArea();
        if (c.area) c.area(area);
        reader->setArea(area);
        reader->qnh = c.qnh;
        params::gParams.AIRBORNE_ONLY = c.airborneOnly;
        reader->counts.clear();
        const std::string before = log.text();
        reader->decode(join(f));
        const std::string added = log.text().substr(before.size());

        EXPECT_EQ(reader->counts.queued, c.outcome == Outcome::Queued ? 1u : 0u);
        EXPECT_EQ(reader->counts.dropped, c.outcome == Outcome::Dropped ? 1u : 0u);
        EXPECT_EQ(reader->counts.failed, c.outcome == Outcome::Failed ? 1u : 0u);
        EXPECT_EQ(reader->counts.ignored, c.outcome == Outcome::Ignored ? 1u : 0u);
        const auto sample = popOne();
        EXPECT_EQ(sample.has_value(), c.outcome == Outcome::Queued);
        if (!c.log.empty()) {
            EXPECT_NE(added.find(c.log), std::string::npos) << added;
        }
        // Dropping is silent: only the read-back marker is new.
        if (c.outcome == Outcome::Dropped || c.outcome == Outcome::Queued) {
            EXPECT_EQ(added.find("exception"), std::string::npos) << added;
        }
        if (sample && c.check) c.check(*sample);
    }
}

// Without a true airspeed in the line, one is estimated from the altitude in bands.
// The queue to the engine: every report while it keeps up, only the newest of an aircraft once
// a backlog builds, and the oldest lines make room when it is full.
TEST(SampleRingTest, MergesOnlyInABacklogAndEvictsTheOldest) {
    using Push = SampleRing::Push;
    const auto sample = [](std::uint32_t hexid, double timestamp) {
        TrafficSample s;
        s.hexid = hexid;
        s.timestamp = timestamp;
        return s;
    };
    auto ring = std::make_unique<SampleRing>();
    EXPECT_EQ(ring->push(sample(1, 1)), Push::Queued);
    EXPECT_EQ(ring->push(sample(1, 2)), Push::Queued) << "no backlog: both points kept";
    ring->pop_front();
    ring->pop_front();
    for (std::uint32_t h = 1; h <= SampleRing::kBacklogLines + 1; ++h) ring->push(sample(h, 10));
    const std::size_t backlog = ring->size();
    EXPECT_EQ(ring->push(sample(5, 11)), Push::Replaced);
    EXPECT_EQ(ring->size(), backlog);
    ring->pop_front(); // hexid 1 taken: a newer point of it is a new line, not a change of a taken one
    EXPECT_EQ(ring->push(sample(1, 11)), Push::Queued);
    for (std::size_t i = 0; i < 3; ++i) ring->pop_front();
    EXPECT_EQ(ring->front().hexid, 5u);
    EXPECT_EQ(ring->front().timestamp, 11.0) << "the newer point in the older one's place";

    ring->clear();
    for (std::uint32_t h = 1; h <= SampleRing::kCapacity; ++h)
        ASSERT_EQ(ring->push(sample(h, 1)), Push::Queued);
    EXPECT_EQ(ring->push(sample(SampleRing::kCapacity + 1, 1)), Push::Evicted);
    EXPECT_EQ(ring->size(), SampleRing::kCapacity);
    EXPECT_EQ(ring->front().hexid, 2u);
}

TEST_F(Decoder, EstimatedTrueAirspeedBands) {
    const std::pair<const char*, double> bands[] = {
        {"1500", 180},  {"2000", 180},  {"2001", 220},  {"5000", 220},  {"5001", 250},
        {"10000", 250}, {"10001", 350}, {"20000", 350}, {"20001", 430}, {"41000", 430}};
    auto reader = std::make_unique<TrafficReader>();
    reader->setArea(kmspArea());
    for (const auto& [altitude, tas] : bands) {
        auto f = baseFields();
        f[20] = "-1";
        f[4] = altitude;
        reader->decode(join(f));
        const auto s = popOne();
        ASSERT_TRUE(s.has_value()) << altitude;
        EXPECT_EQ(s->trueAirspeed, tas) << altitude;
    }
}

TEST_F(Decoder, TimestampCountsEvenWhenTheLineIsDropped) {
    auto reader = std::make_unique<TrafficReader>();
    reader->setArea(kmspArea());
    auto f = baseFields();
    f[2] = "50.0"; // far out of range
    f[14] = "1234.5";
    reader->decode(join(f));
    EXPECT_EQ(reader->lastTimestamp.load(), 1234.5);
    f[14] = "bad";
    test::LogCapture log;
    reader->decode(join(f));
    EXPECT_EQ(reader->lastTimestamp.load(), 1234.5);
}

TEST_F(Decoder, NothingIsQueuedWhileTrafficIsRefused) {
    auto reader = std::make_unique<TrafficReader>();
    reader->setArea(kmspArea());
    setAcceptTraffic(false);
    reader->decode(join(baseFields()));
    EXPECT_FALSE(popOne());
}

TEST_F(Decoder, CallsignsAreCollectedOnlyWhenAsked) {
    auto reader = std::make_unique<TrafficReader>();
    reader->setArea(kmspArea());
    auto f = baseFields();
    f[9] = "SWR1";
    reader->decode(join(f));
    EXPECT_TRUE(reader->seenCallsigns.empty());
    reader->collectCallsigns = true;
    for (const char* cs : {"SWR1", "SWR@2", "null", "KLM3"}) {
        f[9] = cs;
        f[10] = "GLID"; // collected before the type filter
        reader->decode(join(f));
    }
    EXPECT_EQ(reader->seenCallsigns, (std::unordered_set<std::string>{"SWR1", "KLM3"}));
}

// ---- Recordings -----------------------------------------------------------------------------

std::vector<std::string> recording(const std::string& name) {
    std::vector<std::string> lines;
    const auto n = core::readAllLines(fs::path(ORV_SOURCE_DIR) / "data" / "recordings" / name, lines, 4096);
    EXPECT_TRUE(std::holds_alternative<std::size_t>(n)) << name;
    return lines;
}

// Distance and altitude straight from the text, without the decoder.
struct Plain {
    double lat, lon, alt;
};
Plain plain(const std::string& line) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    for (std::string x; std::getline(ss, x, ',');) f.push_back(x);
    return {std::stod(f[2]), std::stod(f[3]), std::stod(f[4])};
}
double haversineNm(double lat1, double lon1, double lat2, double lon2) {
    const double p1 = lat1 * core::kRadPerDeg, p2 = lat2 * core::kRadPerDeg;
    const double a =
        std::pow(std::sin((p2 - p1) / 2), 2) +
        std::cos(p1) * std::cos(p2) * std::pow(std::sin((lon2 - lon1) * core::kRadPerDeg / 2), 2);
    return 2 * 3437.7467707849396 * std::atan2(std::sqrt(a), std::sqrt(1 - a));
}

TEST_F(Decoder, RecordedLinesAllDecodeAndTheFiltersCountRight) {
    struct Case {
        const char* file;
        core::LatLon airport;
        double elevation;
        int range;
        std::size_t lines;
    };
    const Case cases[] = {
        {"kmsp-n899dn.rttfc", kKmsp, kKmspElevation, 40, 2500},
        {"kmsp-n899dn.rttfc", kKmsp, kKmspElevation, 10, 2500},
        {"lszh-3flights.rttfc", {47.4647, 8.5492}, 1416.0, 40, 2261},
        {"lszh-3flights.rttfc", {47.4647, 8.5492}, 1416.0, 5, 2261},
    };
    test::LogCapture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " range " + std::to_string(c.range));
        const auto lines = recording(c.file);
        ASSERT_EQ(lines.size(), c.lines);
        params::gParams.radiusNm = c.range;
        auto reader = std::make_unique<TrafficReader>();
        reader->setArea({c.airport, c.elevation, c.airport});
        std::size_t inRange = 0, groundFar = 0;
        for (const auto& l : lines) {
            const auto p = plain(l);
            const double d = haversineNm(c.airport.latitude, c.airport.longitude, p.lat, p.lon);
            if (d > c.range) continue;
            ++inRange;
            if (p.alt <= 0.0 && d > 5.0) ++groundFar;
            reader->decode(l);
        }
        EXPECT_EQ(reader->counts.failed, 0u) << "every recorded line decodes";
        EXPECT_EQ(reader->counts.ignored, 0u);
        EXPECT_EQ(reader->counts.queued + reader->counts.dropped, inRange);
        // In range, the only lines the filters may drop are ground reports away from the airport
        // (and low, slow airborne ones that count as on the ground, which these tracks lack).
        EXPECT_EQ(reader->counts.dropped, groundFar);
        EXPECT_GT(reader->counts.queued, 100u);
        std::lock_guard lock(gTraffic.trafficLock);
        EXPECT_EQ(gTraffic.trafficQueue.size() + reader->counts.superseded, reader->counts.queued);
        gTraffic.trafficQueue.clear();
    }
    EXPECT_FALSE(log.contains("exception"));
}

// ---- Over the wire --------------------------------------------------------------------------

bool waitUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 500; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

TEST_F(Decoder, DatagramsOnALoopbackPortReachTheQueue) {
    test::LogCapture log;
    for (const bool localOnly : {true, false}) {
        SCOPED_TRACE(localOnly ? "bound to 127.0.0.1" : "bound to any address");
        gTrafficReader.clearForRun();
        gTrafficReader.setArea(kmspArea());
        startTrafficReader(0, localOnly);
        ASSERT_TRUE(waitUntil([] { return gTrafficReader.boundPort != 0; }));
        const auto port = gTrafficReader.boundPort.load();

        const std::string line = join(baseFields());
        auto other = baseFields();
        other[1] = "20001";
        const std::vector<std::string> datagrams = {
            line,
            line, // the same datagram twice
            "garbage",
            "a,b,c",                 // too short
            std::string(20000, 'x'), // larger than the buffer
            std::string(30000, 'y'), // again: counted, not said again
            std::string(40, ','),    // enough fields, all empty
            join(other),             // still decoding after all that
        };
        for (const auto& d : datagrams) ASSERT_EQ(platform::UdpSocket::sendTo("127.0.0.1", port, d), "");
        const std::uint32_t expectedLines = localOnly ? 6 : 5;
        ASSERT_TRUE(waitUntil([&] { return gTrafficReader.lineCount >= expectedLines; }))
            << gTrafficReader.lineCount;
        ASSERT_TRUE(waitUntil(
            [&] { return gTrafficReader.counts.queued + gTrafficReader.counts.failed >= expectedLines; }));
        EXPECT_EQ(gTrafficReader.lineCount, expectedLines);
        EXPECT_EQ(gTrafficReader.counts.queued, localOnly ? 3u : 2u);
        EXPECT_EQ(gTrafficReader.counts.failed, 3u);
        EXPECT_EQ(gTrafficReader.counts.overruns, 2u);

        stopReaders();
        ASSERT_TRUE(waitReadersStopped(std::chrono::milliseconds(3000)));
        std::vector<std::uint32_t> ids;
        while (auto s = popOne()) ids.push_back(s->hexid);
        EXPECT_EQ(ids.back(), 20001u);
        EXPECT_EQ(ids.size(), localOnly ? 3u : 2u);
    }
    const auto text = log.text();
    EXPECT_NE(text.find("Traffic Reader connected"), std::string::npos);
    EXPECT_NE(text.find("buffer overrun: 20000 bytes (1 so far)"), std::string::npos);
    EXPECT_EQ(text.find("30000 bytes"), std::string::npos) << "only the 1st, 10th, 100th ... are said";
    EXPECT_NE(text.find("Traffic Reader has stopped"), std::string::npos);
}

// Listening on every address, only RealTraffic's host may send: others are counted and said once.
TEST_F(Decoder, BeyondLoopbackOnlyRealTrafficsHostIsHeard) {
    test::LogCapture log;
    gTrafficReader.clearForRun();
    gTrafficReader.setArea(kmspArea());
    gTrafficSource = 0x0A010203; // RealTraffic's control link came from 10.1.2.3
    startTrafficReader(0, false);
    ASSERT_TRUE(waitUntil([] { return gTrafficReader.boundPort != 0; }));
    const auto port = gTrafficReader.boundPort.load();
    const std::string line = join(baseFields());
    for (int i = 0; i < 3; ++i) ASSERT_EQ(platform::UdpSocket::sendTo("127.0.0.1", port, line), "");
    ASSERT_TRUE(waitUntil([] { return gTrafficReader.counts.refused >= 3; }));
    EXPECT_EQ(gTrafficReader.lineCount, 0u);
    gTrafficSource = 0x7F000001; // now the link is on this host
    ASSERT_EQ(platform::UdpSocket::sendTo("127.0.0.1", port, line), "");
    ASSERT_TRUE(waitUntil([] { return gTrafficReader.counts.queued >= 1; }));
    stopReaders();
    ASSERT_TRUE(waitReadersStopped(std::chrono::milliseconds(3000)));
    gTrafficSource = 0;
    EXPECT_EQ(log.count("Traffic datagrams from 127.0.0.1 are refused"), 1u);
    while (popOne()) {
    }
}

TEST_F(Decoder, APortInUseStopsTheRunWithReaderError) {
    test::LogCapture log;
    platform::UdpSocket holder;
    ASSERT_EQ(holder.open(), "");
    ASSERT_EQ(holder.bind(0, true), "");
    core::gRun.reset();
    core::resetMessages();
    startTrafficReader(holder.localPort(), true);
    ASSERT_TRUE(waitUntil([] { return core::gRun.stopRequested.load(); }));
    EXPECT_EQ(core::gRun.exitReason, core::ExitReason::ReaderError);
    EXPECT_EQ(core::gRun.restartDelaySeconds, 15);
    EXPECT_NE(
        core::messageLine().find("The Traffic Reader has stopped with error: bind to stream socket failed"),
        std::string::npos)
        << core::messageLine();
    ASSERT_TRUE(waitReadersStopped(std::chrono::milliseconds(3000)));
    core::gRun.reset();
    core::resetMessages();
}

TEST(Distance, HaversineOnTheNauticalMileSphere) {
    EXPECT_NEAR(core::distanceNm({0, 0}, {0, 1}), 60.0, 1e-9);
    EXPECT_NEAR(core::distanceNm({0, 0}, {1, 0}), 60.0, 1e-9);
    EXPECT_EQ(core::distanceNm(kKmsp, kKmsp), 0.0);
    EXPECT_NEAR(core::distanceNm({0, 0}, {0, 180}), 10800.0, 1e-6);
    EXPECT_NEAR(core::distanceNm({47.4647, 8.5492}, {52.3086, 4.7639}), 325.3, 0.1); // LSZH-EHAM
}

} // namespace
} // namespace orv::feed
