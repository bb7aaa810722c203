#include <chrono>

#include "core/core.h"
#include "emulator.h"
#include "refdata/refdata.h"

namespace orv::emu {

struct Server::Connection {
    std::unique_ptr<sc::Transport> transport;
    int client = 0;
    std::thread reader;
};

Server::Server(Emulator& emulator) : emu_(emulator) {}

Server::~Server() {
    stop();
}

std::string Server::start(std::string_view address, std::uint16_t port) {
    if (auto err = listener_.listen(address, port); !err.empty()) return err;
    port_ = listener_.localPort();
    running_ = true;
    acceptThread_ = std::thread([this] { acceptLoop(); });
    frameThread_ = std::thread([this] { frameLoop(); });
    return {};
}

void Server::acceptLoop() {
    while (running_) {
        auto stream = listener_.accept(100);
        if (!stream) continue;
        auto c = std::make_unique<Connection>();
        c->transport = sc::wrapTcp(std::move(*stream));
        auto* transport = c->transport.get();
        c->client = emu_.connect([transport](sc::Bytes b) { return transport->send(b); });
        c->reader = std::thread([this, transport, client = c->client] {
            std::vector<std::uint8_t> buffer(16384);
            while (running_) {
                const long n = transport->receive(buffer.data(), buffer.size(), 100);
                if (n < 0) break;
                if (n > 0) emu_.receive(client, sc::Bytes(buffer.data(), static_cast<std::size_t>(n)));
            }
            emu_.disconnect(client);
        });
        std::lock_guard lock(connectionsMutex_);
        connections_.push_back(std::move(c));
    }
}

void Server::frameLoop() {
    const auto start = std::chrono::steady_clock::now();
    while (running_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        emu_.advanceTo(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}

void Server::stop() {
    if (!running_.exchange(false)) return;
    emu_.quit();
    if (acceptThread_.joinable()) acceptThread_.join();
    if (frameThread_.joinable()) frameThread_.join();
    std::lock_guard lock(connectionsMutex_);
    for (auto& c : connections_) {
        if (c->reader.joinable()) c->reader.join();
        c->transport->close();
    }
    connections_.clear();
    listener_.close();
}

std::vector<std::string> titlesUnder(const std::filesystem::path& folder) {
    std::vector<std::string> titles;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(folder, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        // A link that loops or points nowhere is skipped, not fatal.
        std::error_code entry;
        if (!it->is_regular_file(entry) || entry ||
            !core::iequals(it->path().filename().string(), "aircraft.cfg"))
            continue;
        std::vector<std::string> lines;
        if (!core::readLines(core::detectEncoding(it->path()), it->path(), lines)) continue;
        bool inFltsim = false;
        for (const auto& raw : lines) {
            const std::string line = core::trim(raw);
            if (line.starts_with('[')) {
                inFltsim = core::toUpper(line).starts_with("[FLTSIM.");
                continue;
            }
            if (!inFltsim) continue;
            const auto eq = line.find('=');
            if (eq == std::string::npos || !core::iequals(core::trim(line.substr(0, eq)), "title")) continue;
            std::string value = line.substr(eq + 1);
            if (const auto cut = value.find(';'); cut != std::string::npos) value.resize(cut);
            if (const auto cut = value.find("//"); cut != std::string::npos) value.resize(cut);
            value = core::trim(value);
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
                value = value.substr(1, value.size() - 2);
            if (!value.empty()) titles.push_back(value);
        }
    }
    return titles;
}

} // namespace orv::emu
