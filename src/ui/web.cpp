// The local web front end: the page's files, the status as JSON and as a stream of changes, the
// settings and the commands. Only the snapshot is read, so no request touches the engine.
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include <fmt/format.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "params/params.h"
#include "platform/platform.h"
#include "ui/ui.h"

namespace orv::ui {

namespace {

constexpr std::size_t kMaxBodyBytes = 16 * 1024;
constexpr std::uintmax_t kLogTailBytes = 32 * 1024;
constexpr auto kStreamPeriod = std::chrono::milliseconds(1000);

struct Web {
    std::unique_ptr<httplib::Server> server;
    std::thread thread;
    std::string token, address;
    std::vector<std::string> hosts; // what a request's Host may say
    std::atomic<bool> stopping{false};
};
Web& web() {
    static Web w;
    return w;
}

std::string newToken() {
    std::random_device rd;
    std::string t;
    for (int i = 0; i < 4; ++i) t += fmt::format("{:08x}", rd());
    return t;
}

fs::path webFolder() {
    return core::gPaths.programFolder / "web";
}

bool hostAllowed(const httplib::Request& req) {
    const auto host = req.get_header_value("Host");
    const auto& hosts = web().hosts;
    return std::find(hosts.begin(), hosts.end(), host) != hosts.end();
}

void refuse(httplib::Response& res, int status, std::string_view why) {
    res.status = status;
    res.set_content(nlohmann::json{{"ok", false}, {"message", why}}.dump(), "application/json");
}

// A request that changes something must come from the served page: its token, its origin.
bool changeAllowed(const httplib::Request& req, httplib::Response& res) {
    if (req.get_header_value("X-Orvelline-Token") != web().token) {
        refuse(res, 403, "missing or wrong token");
        return false;
    }
    if (req.get_header_value("Origin") != "http://" + req.get_header_value("Host")) {
        refuse(res, 403, "foreign origin");
        return false;
    }
    return true;
}

std::string valueText(const nlohmann::json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_boolean()) return v.get<bool>() ? "true" : "false";
    if (v.is_number_integer()) return std::to_string(v.get<std::int64_t>());
    if (v.is_number()) return fmt::format("{}", v.get<double>());
    return {};
}

void answer(httplib::Response& res, const CommandResult& r) {
    nlohmann::json j{{"ok", r.ok}, {"message", r.message}};
    res.status = r.ok ? 200 : 422;
    res.set_content(j.dump(), "application/json");
}

std::string logTail() {
    const fs::path file = core::gPaths.dataFolder / "Log.txt";
    std::ifstream in(file, std::ios::binary);
    if (!in) return {};
    std::error_code ec;
    const auto size = fs::file_size(file, ec);
    if (ec) return {};
    const auto from = size > kLogTailBytes ? size - kLogTailBytes : 0;
    in.seekg(static_cast<std::streamoff>(from));
    std::string text(static_cast<std::size_t>(size - from), '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (from > 0)
        if (const auto nl = text.find('\n'); nl != std::string::npos) text.erase(0, nl + 1);
    return text;
}

void routes(httplib::Server& s) {
    s.set_payload_max_length(kMaxBodyBytes);
    s.set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
        if (hostAllowed(req)) return httplib::Server::HandlerResponse::Unhandled;
        refuse(res, 403, "unknown host"); // a name that points here from elsewhere (DNS rebinding)
        return httplib::Server::HandlerResponse::Handled;
    });
    s.set_default_headers({{"X-Content-Type-Options", "nosniff"}, {"Cache-Control", "no-store"}});
    const auto page = [](const httplib::Request&, httplib::Response& res) {
        std::ifstream in(webFolder() / "page.html", std::ios::binary);
        std::string html((std::istreambuf_iterator<char>(in)), {});
        if (html.empty()) {
            res.status = 404;
            res.set_content("the page's files are missing beside the program", "text/plain");
            return;
        }
        if (const auto at = html.find("{{TOKEN}}"); at != std::string::npos) html.replace(at, 9, web().token);
        res.set_header("Content-Security-Policy",
                       "default-src 'self'; img-src 'self' data: https://tile.openstreetmap.org "
                       "https://*.tile.openstreetmap.org; "
                       "style-src 'self' 'unsafe-inline'; frame-ancestors 'none'");
        res.set_content(html, "text/html; charset=utf-8");
    };
    s.Get("/", page);
    s.Get("/favicon.ico", [](const httplib::Request&, httplib::Response& res) { res.status = 204; });
    s.Get("/index.html", page);
    if (!s.set_mount_point("/assets", webFolder().string()))
        core::log(fmt::format("the web page's folder {} is missing", webFolder().string()));
    s.Get("/api/status", [](const httplib::Request& req, httplib::Response& res) {
        StatusSnapshot snap;
        std::string out;
        if (!copySnapshot(snap)) {
            res.set_content(R"({"sequence":0})", "application/json");
            return;
        }
        appendSnapshotJson(out, snap, req.has_param("map"));
        res.set_content(out, "application/json");
    });
    s.Get("/api/aircraft", [](const httplib::Request& req, httplib::Response& res) {
        StatusSnapshot snap;
        std::uint32_t hexid = 0;
        try {
            hexid = static_cast<std::uint32_t>(std::stoul(req.get_param_value("hexid")));
        } catch (const std::exception&) {
            return refuse(res, 400, "hexid is a number");
        }
        const auto json = copySnapshot(snap) ? aircraftJson(snap, hexid) : std::string();
        if (json.empty()) return refuse(res, 404, "no such aircraft");
        res.set_content(json, "application/json");
    });
    s.Get("/api/events", [](const httplib::Request& req, httplib::Response& res) {
        const bool withMap = req.has_param("map");
        auto last = std::make_shared<std::uint64_t>(0);
        res.set_chunked_content_provider(
            "text/event-stream", [last, withMap](std::size_t, httplib::DataSink& sink) {
                StatusSnapshot snap;
                if (web().stopping) return false;
                if (copySnapshot(snap) && snap.sequence != *last) {
                    *last = snap.sequence;
                    std::string out = "data: ";
                    appendSnapshotJson(out, snap, withMap);
                    out += "\n\n";
                    if (!sink.write(out.data(), out.size())) return false;
                } else {
                    constexpr std::string_view kIdle = ": idle\n\n"; // keeps the connection known alive
                    if (!sink.write(kIdle.data(), kIdle.size())) return false;
                }
                std::this_thread::sleep_for(kStreamPeriod / 4);
                return true;
            });
    });
    s.Get("/api/settings", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(settingsJson(), "application/json");
    });
    s.Get("/api/log", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(logTail(), "text/plain; charset=utf-8");
    });
    s.Post("/api/settings", [](const httplib::Request& req, httplib::Response& res) {
        if (!changeAllowed(req, res)) return;
        const auto j = nlohmann::json::parse(req.body, nullptr, false);
        if (j.is_discarded() || !j.is_object() || !j.contains("name") || !j["name"].is_string() ||
            !j.contains("value"))
            return refuse(res, 400, R"(a setting is {"name": ..., "value": ...})");
        answer(res, changeSetting(j["name"].get<std::string>(), valueText(j["value"])));
    });
    s.Post("/api/command", [](const httplib::Request& req, httplib::Response& res) {
        if (!changeAllowed(req, res)) return;
        const auto j = nlohmann::json::parse(req.body, nullptr, false);
        if (j.is_discarded() || !j.is_object() || !j.contains("name") || !j["name"].is_string())
            return refuse(res, 400, R"(a command is {"name": ...})");
        answer(res, runCommand(j["name"].get<std::string>(),
                               j.contains("argument") ? valueText(j["argument"]) : ""));
    });
}

} // namespace

std::string webToken() {
    return web().token;
}

std::string startWebServer(const WebOptions& options) {
    auto& w = web();
    if (!options.enabled || w.server) return w.address;
    w.token = newToken();
    w.stopping = false;
    w.server = std::make_unique<httplib::Server>();
    routes(*w.server);
    int port = options.port;
    if (port == 0) {
        port = w.server->bind_to_any_port(options.address);
    } else if (!w.server->bind_to_port(options.address, port)) {
        port = -1;
    }
    if (port <= 0) {
        core::log(fmt::format("the web page could not listen on {}:{}", options.address, options.port));
        w.server.reset();
        return {};
    }
    w.hosts = {fmt::format("{}:{}", options.address, port)};
    if (options.address == "127.0.0.1") w.hosts.push_back(fmt::format("localhost:{}", port));
    w.address = fmt::format("http://{}:{}/", options.address, port);
    w.thread = std::thread([&w] { w.server->listen_after_bind(); });
    // A stop that came before the listening loop began would be missed and the loop never end.
    for (int i = 0; i < 200 && !w.server->is_running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    core::log(fmt::format("the web page is at {}", w.address));
    if (options.openBrowser && !platform::openInShell(w.address)) core::log("no browser could be opened");
    return w.address;
}

void stopWebServer() {
    auto& w = web();
    if (!w.server) return;
    w.stopping = true;
    w.server->stop();
    if (w.thread.joinable()) w.thread.join();
    w.server.reset();
    w.address.clear();
}

} // namespace orv::ui
