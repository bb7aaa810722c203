#include "feed/feed.h"

#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "core/core.h"

namespace orv::feed {

void UdpReader::closeAndNotify() {
    socket.close();
    onStopped();
}

void UdpReader::run(std::uint16_t port, bool localOnly) {
    if (auto err = socket.open(); !err.empty())
        throw std::runtime_error(fmt::format("failed to create the socket, error: {}", err));
    if (auto err = socket.bind(port, localOnly); !err.empty()) {
        socket.close();
        throw std::runtime_error(fmt::format("bind to stream socket failed, error: {}", err));
    }
    boundPort = socket.localPort();
    onBound();
    core::log(fmt::format("{} connected", threadName()));
    receiveLoop(localOnly);
}

void UdpReader::receiveLoop(bool localOnly) {
    if (auto err = socket.setReceiveTimeout(1000); !err.empty())
        core::log(fmt::format("{}: no receive timeout: {}", threadName(), err));
    if (stop) return closeAndNotify();
    while (true) {
        const auto r = socket.receive(buffer, kBufferSize);
        if (r.status == platform::RecvStatus::Failed) {
            if (!stop)
                throw std::runtime_error(fmt::format("receive error: {}", platform::errorText(r.error)));
            return closeAndNotify();
        }
        const std::uint32_t source = gTrafficSource.load(std::memory_order_relaxed);
        if (r.status == platform::RecvStatus::Data && r.size > 0 && !localOnly && source != 0 &&
            r.fromIpv4 != source) {
            onRefusedSender(r.fromIpv4);
        } else if (r.status == platform::RecvStatus::Data && r.size > 0) {
            if (r.size >= kBufferSize) {
                // A flood of them must not become a flood of log lines.
                onOverrun();
                const std::uint64_t n = ++overrunsSeen;
                bool round = true;
                for (std::uint64_t k = n; k > 1; k /= 10) round = round && k % 10 == 0;
                if (!stop && round) core::log(fmt::format("buffer overrun: {} bytes ({} so far)", r.size, n));
            } else {
                buffer[r.size] = 0;
                const std::string_view text(buffer, r.size);
                bool duplicate = false;
                if (!localOnly) {
                    // Off the loopback the same datagram may arrive twice (several interfaces).
                    duplicate = text == previous;
                    if (!duplicate) previous.assign(text);
                }
                if (!duplicate) {
                    line = buffer;
                    lineLength = r.size;
                    lineCount.fetch_add(1, std::memory_order_relaxed);
                    processLine();
                }
            }
        }
        if (stop) {
            socket.shutdownBoth();
            return closeAndNotify();
        }
    }
}

namespace {

void startThread(UdpReader& reader, std::uint16_t port, bool localOnly) {
    reader.stop = false;
    reader.boundPort = 0;
    reader.running = true;
    std::thread([&reader, port, localOnly] {
        const std::string name(reader.threadName());
        try {
            reader.run(port, localOnly);
        } catch (const std::exception& e) {
            core::message(fmt::format("The {} has stopped with error: {}", name, e.what()), true);
            core::requestStop(core::ExitReason::ReaderError, 15);
        } catch (...) {
            core::message(fmt::format("The {} has stopped with error: {}", name, "Unknown exception"), true);
            core::requestStop(core::ExitReason::ReaderError, 15);
        }
        reader.running = false;
    }).detach();
}

} // namespace

void startTrafficReader(std::uint16_t port, bool localOnly) {
    startThread(gTrafficReader, port, localOnly);
}
void startQnhReader(std::uint16_t port, bool localOnly) {
    startThread(gQnhReader, port, localOnly);
}

void stopReaders() {
    gTrafficReader.stop = true;
    gQnhReader.stop = true;
}

bool waitReadersStopped(std::chrono::milliseconds timeout) {
    // Real time on purpose: the readers block in the socket, not on the program's clock.
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (gTrafficReader.running || gQnhReader.running) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

} // namespace orv::feed
