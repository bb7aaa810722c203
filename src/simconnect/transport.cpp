#include <condition_variable>
#include <deque>
#include <mutex>

#include "simconnect/simconnect.h"

namespace orv::simconnect {

namespace {

class TcpTransport final : public Transport {
  public:
    explicit TcpTransport(platform::TcpStream s) : stream_(std::move(s)) { stream_.setNoDelay(); }
    bool send(Bytes bytes) override {
        if (!stream_.isOpen()) return false;
        return stream_.sendAll({reinterpret_cast<const char*>(bytes.data()), bytes.size()}).empty();
    }
    long receive(std::uint8_t* buffer, std::size_t capacity, int timeoutMs) override {
        if (!stream_.isOpen()) return -1;
        const auto r = stream_.receive(reinterpret_cast<char*>(buffer), capacity, timeoutMs);
        if (r.status == platform::RecvStatus::Data) return static_cast<long>(r.size);
        return r.status == platform::RecvStatus::Transient ? 0 : -1;
    }
    void close() override { stream_.shutdownBoth(); }

  private:
    platform::TcpStream stream_;
};

struct PipeState {
    std::mutex mutex;
    std::condition_variable signal;
    std::deque<std::uint8_t> toEnd[2];
    bool closed = false;
};

class PipeEnd final : public Transport {
  public:
    PipeEnd(std::shared_ptr<PipeState> s, int side) : s_(std::move(s)), side_(side) {}
    ~PipeEnd() override { close(); }
    bool send(Bytes bytes) override {
        std::lock_guard lock(s_->mutex);
        if (s_->closed) return false;
        s_->toEnd[1 - side_].insert(s_->toEnd[1 - side_].end(), bytes.begin(), bytes.end());
        s_->signal.notify_all();
        return true;
    }
    long receive(std::uint8_t* buffer, std::size_t capacity, int timeoutMs) override {
        std::unique_lock lock(s_->mutex);
        auto& q = s_->toEnd[side_];
        if (timeoutMs > 0)
            s_->signal.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                [&] { return !q.empty() || s_->closed; });
        if (q.empty()) return s_->closed ? -1 : 0;
        const std::size_t n = std::min(capacity, q.size());
        std::copy_n(q.begin(), n, buffer);
        q.erase(q.begin(), q.begin() + static_cast<std::ptrdiff_t>(n));
        return static_cast<long>(n);
    }
    void close() override {
        std::lock_guard lock(s_->mutex);
        s_->closed = true;
        s_->signal.notify_all();
    }

  private:
    std::shared_ptr<PipeState> s_;
    int side_;
};

} // namespace

std::unique_ptr<Transport> connectTcp(std::string_view host, std::uint16_t port, std::string& error) {
    platform::TcpStream s;
    error = s.connect(host, port);
    if (!error.empty()) return nullptr;
    return std::make_unique<TcpTransport>(std::move(s));
}

std::unique_ptr<Transport> wrapTcp(platform::TcpStream stream) {
    return std::make_unique<TcpTransport>(std::move(stream));
}

TransportFactory transportOnce(std::unique_ptr<Transport> transport) {
    auto holder = std::make_shared<std::unique_ptr<Transport>>(std::move(transport));
    return [holder](std::string& error) {
        if (!*holder) error = "this connection was used already";
        return std::move(*holder);
    };
}

std::pair<std::unique_ptr<Transport>, std::unique_ptr<Transport>> makeMemoryPipe() {
    auto s = std::make_shared<PipeState>();
    return {std::make_unique<PipeEnd>(s, 0), std::make_unique<PipeEnd>(s, 1)};
}

} // namespace orv::simconnect
