#include <fstream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "params/params.h"
#include "program_home.h"
#include "ui/ui.h"

namespace orv {
namespace {

// The server of a run on a free loopback port, with the page's files of the build.
class WebTest : public test::ProgramHome {
  protected:
    void SetUp() override {
        ProgramHome::SetUp();
        fs::create_directories(dir.path() / "web");
        std::ofstream(dir.path() / "web/page.html") << "<meta name=\"orv-token\" content=\"{{TOKEN}}\">";
        address = ui::startWebServer({"127.0.0.1", 0, true, false});
        ASSERT_FALSE(address.empty());
        port = std::stoi(address.substr(address.rfind(':') + 1));
        host = fmt::format("127.0.0.1:{}", port);
        ui::publishSnapshot(false);
    }
    void TearDown() override {
        ui::stopWebServer();
        ProgramHome::TearDown();
    }
    httplib::Result post(const std::string& path, const std::string& body, httplib::Headers headers) {
        httplib::Client c("127.0.0.1", port);
        return c.Post(path.c_str(), headers, body, "application/json");
    }
    httplib::Headers good() const {
        return {{"Host", host}, {"Origin", "http://" + host}, {"X-Orvelline-Token", ui::webToken()}};
    }
    std::string address, host;
    int port = 0;
};

TEST_F(WebTest, RequestsFromElsewhereAreRefused) {
    httplib::Client c("127.0.0.1", port);
    const auto page = c.Get("/", {{"Host", host}});
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->body.find(ui::webToken()), std::string::npos) << "the served page carries the token";
    EXPECT_EQ(page->body.find("{{TOKEN}}"), std::string::npos);
    const auto named = c.Get("/api/status", {{"Host", fmt::format("localhost:{}", port)}});
    ASSERT_TRUE(named);
    EXPECT_EQ(named->status, 200);

    struct Case {
        const char* what;
        httplib::Headers headers;
        int status;
    };
    const std::string body = R"({"name":"RANGE","value":"50"})";
    const std::vector<Case> cases{
        {"a name that points here from elsewhere", {{"Host", fmt::format("attacker.example:{}", port)}}, 403},
        {"no token", {{"Host", host}, {"Origin", "http://" + host}}, 403},
        {"a wrong token", {{"Host", host}, {"Origin", "http://" + host}, {"X-Orvelline-Token", "0123"}}, 403},
        {"a foreign origin",
         {{"Host", host}, {"Origin", "http://attacker.example"}, {"X-Orvelline-Token", ui::webToken()}},
         403},
        {"no origin", {{"Host", host}, {"X-Orvelline-Token", ui::webToken()}}, 403},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        const auto r = post("/api/settings", body, k.headers);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, k.status);
        EXPECT_EQ(params::gParams.RANGE.load(), 40) << "nothing changed";
    }
    const auto status = c.Get("/api/status", {{"Host", "attacker.example"}});
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 403) << "reading is refused to other names too";
    const auto r = post("/api/settings", body, good());
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(params::gParams.RANGE.load(), 50);
    const auto big = post("/api/settings", std::string(64 * 1024, ' '), good());
    ASSERT_TRUE(big);
    EXPECT_NE(big->status, 200) << "a body past the cap is refused";
}

TEST_F(WebTest, OnlyLoopbackByDefault) {
    const ui::WebOptions defaults;
    EXPECT_EQ(defaults.address, "127.0.0.1");
    EXPECT_EQ(defaults.port, 8610);
    EXPECT_EQ(address.rfind("http://127.0.0.1:", 0), 0u);
}

// Settings and commands as the page sends them: the rules, the messages, parameters.xml.
TEST_F(WebTest, SettingsAndCommandsKeepTheirRules) {
    struct Case {
        const char* name;
        std::string value;
        bool ok;
        std::string message;
    };
    const std::vector<Case> cases{
        {"RANGE", "65", true, "Radius (nm) 65"},
        {"RANGE", "47", false, "'47' is not a value of Radius (nm): it takes 2, 3, 4, 5, 6, 8"},
        {"RANGE", "50abc", false, "'50abc' is not a value"},
        {"COLLISION_USER_AIR", "false", true,
         "Be aware, user aircraft may collide with (run through) live aircraft in the air"},
        {"COLLISION_USER_AIR", "maybe", false, "User air is on or off, not 'maybe'"},
        {"SCAN_LIVERIES", "true", true, "Your liveries will be scanned at the next start of Orvelline"},
        {"MAX_FIT_FL", "2.5", true, "Max fit (hrs): 2.5"},
        {"MAX_FIT_FL", "2.75", false, "'2.75' is not a value"},
        {"BLOCK_CALLSIGN", "ab", false, "callsign 'AB' is not valid"},
        {"DESTINATION", "kmsp", true, "New destination: KMSP"},
        {"DESTINATION", "ZZZZ", false, "destination 'ZZZZ' is unknown ..."},
        {"DESTINATION", "KMS", false, "destination 'KMS' is not valid"},
        {"PORT_NUMBER", "1", false, "There is no setting 'PORT_NUMBER'"},
        {"AI_PACKAGE_SELECTOR", "FSLTL, AIG, JF, MTL", true,
         "If you want to make this choice effective, you must start a Scan for liveries"},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(fmt::format("{} = {}", k.name, k.value));
        const auto r =
            post("/api/settings", nlohmann::json{{"name", k.name}, {"value", k.value}}.dump(), good());
        ASSERT_TRUE(r);
        const auto j = nlohmann::json::parse(r->body);
        EXPECT_EQ(j["ok"].get<bool>(), k.ok);
        EXPECT_EQ(j["message"].get<std::string>().rfind(k.message, 0), 0u) << j["message"];
        EXPECT_EQ(r->status, k.ok ? 200 : 422);
    }
    EXPECT_EQ(params::gParams.RANGE.load(), 65);
    EXPECT_EQ(params::parameter<params::IntParameter>("MAX_FIT").value, 4);
    std::ifstream in(dir.path() / "parameters.xml");
    const std::string xml((std::istreambuf_iterator<char>(in)), {});
    EXPECT_NE(xml.find(R"(name="RANGE" value="65")"), std::string::npos);
    EXPECT_NE(xml.find(R"(name="COLLISION_USER_AIR" value="false")"), std::string::npos);

    // Texts reach the worker, which stores them in its next second.
    auto r = post("/api/command", R"({"name":"Block","argument":"dal1812"})", good());
    ASSERT_TRUE(r);
    EXPECT_EQ(params::gParams.BLOCK_CALLSIGN, "") << "not yet: the worker takes it";
    ui::handleCommands();
    EXPECT_EQ(params::gParams.BLOCK_CALLSIGN, "DAL1812");
    EXPECT_EQ(params::gParams.DESTINATION, "KMSP");
    r = post("/api/command", R"({"name":"Block","argument":"DAL1812"})", good());
    EXPECT_NE(r->body.find("callsign 'DAL1812' was already set ..."), std::string::npos) << r->body;
    r = post("/api/command", R"({"name":"Unblock"})", good());
    EXPECT_NE(r->body.find("no more blocking of live aircraft 'DAL1812'"), std::string::npos) << r->body;
    ui::handleCommands();
    EXPECT_EQ(params::gParams.BLOCK_CALLSIGN, "");
    r = post("/api/command", R"({"name":"Unblock"})", good());
    EXPECT_NE(r->body.find("Nothing to block or unblock..."), std::string::npos) << r->body;
    params::gParams.INITIAL_LOAD_ONLY = true;
    r = post("/api/command", R"({"name":"Now"})", good());
    EXPECT_NE(r->body.find(R"("message":"")"), std::string::npos) << "Now with ILO on only clears the line";
    r = post("/api/command", R"({"name":"Explode"})", good());
    EXPECT_EQ(r->status, 422);

    const auto settings = nlohmann::json::parse(
        httplib::Client("127.0.0.1", port).Get("/api/settings", {{"Host", host}})->body);
    bool rangeListed = false;
    for (const auto& s : settings)
        if (s["name"] == "RANGE") {
            rangeListed = true;
            EXPECT_EQ(s["value"], 65);
            EXPECT_EQ(s["allowed"].size(), 20u);
            EXPECT_EQ(s["group"], "Traffic injection");
        }
    EXPECT_TRUE(rangeListed);
}

TEST_F(WebTest, TheStatusStreamSendsEachSnapshotOnce) {
    httplib::Client c("127.0.0.1", port);
    int events = 0;
    std::string seen;
    c.set_read_timeout(std::chrono::seconds(5));
    std::thread publisher([] {
        for (int i = 0; i < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(400));
            ui::publishSnapshot(false);
        }
    });
    (void)c.Get("/api/events", {{"Host", host}}, [&](const char* data, std::size_t n) {
        seen.append(data, n);
        events = 0;
        for (auto at = seen.find("data: "); at != std::string::npos; at = seen.find("data: ", at + 1))
            ++events;
        return events < 4;
    });
    publisher.join();
    EXPECT_EQ(events, 4) << "the one there was and the three published after it";
    EXPECT_EQ(seen.find('\0'), std::string::npos);
    EXPECT_NE(seen.find("\n\n"), std::string::npos);
}

} // namespace
} // namespace orv
