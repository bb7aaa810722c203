#include "platform/platform.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orv::platform {

std::string errorText(int err) {
    char buf[256];
    // GNU strerror_r returns the text, which may or may not live in buf.
    const char* text = strerror_r(err, buf, sizeof buf);
    return text ? std::string(text) : std::string("error ") + std::to_string(err);
}

namespace {
std::string lastError() {
    return errorText(errno);
}

bool resolveIpv4(std::string_view host, std::uint16_t port, sockaddr_in& out) {
    out = {};
    out.sin_family = AF_INET;
    out.sin_port = htons(port);
    const std::string h(host);
    if (inet_pton(AF_INET, h.c_str(), &out.sin_addr) == 1) return true;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    if (getaddrinfo(h.c_str(), nullptr, &hints, &res) != 0 || !res) return false;
    out.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
    return true;
}

std::uint16_t boundPort(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (fd < 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

bool isTransient(int err) {
    return err == EINTR || err == EAGAIN || err == EWOULDBLOCK || err == ETIMEDOUT;
}
} // namespace

// ---- UDP ------------------------------------------------------------------------------------

std::string UdpSocket::open() {
    close();
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return lastError();
    fd_.store(fd);
    return {};
}

std::string UdpSocket::bind(std::uint16_t port, bool localOnly) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(localOnly ? INADDR_LOOPBACK : INADDR_ANY);
    if (::bind(fd_.load(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return lastError();
    return {};
}

std::string UdpSocket::setReceiveTimeout(int milliseconds) {
    timeval tv{milliseconds / 1000, (milliseconds % 1000) * 1000};
    if (setsockopt(fd_.load(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) return lastError();
    return {};
}

RecvResult UdpSocket::receive(char* buffer, std::size_t capacity) {
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    const ssize_t n =
        ::recvfrom(fd_.load(), buffer, capacity, MSG_TRUNC, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n >= 0)
        return {RecvStatus::Data, static_cast<std::size_t>(n), 0,
                from.sin_family == AF_INET ? ntohl(from.sin_addr.s_addr) : 0u};
    const int err = errno;
    return {isTransient(err) ? RecvStatus::Transient : RecvStatus::Failed, 0, err};
}

std::uint16_t UdpSocket::localPort() const {
    return boundPort(fd_.load());
}

void UdpSocket::shutdownBoth() {
    const int fd = fd_.load();
    if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

void UdpSocket::close() {
    const int fd = fd_.exchange(-1);
    if (fd >= 0) ::close(fd);
}

std::string UdpSocket::sendTo(std::string_view host, std::uint16_t port, std::string_view data) {
    sockaddr_in a{};
    if (!resolveIpv4(host, port, a)) return "unknown host " + std::string(host);
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return lastError();
    const ssize_t n = ::sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    std::string err = n < 0 ? lastError() : std::string{};
    ::close(fd);
    return err;
}

// ---- TCP ------------------------------------------------------------------------------------

TcpStream& TcpStream::operator=(TcpStream&& o) noexcept {
    if (this != &o) {
        close();
        fd_ = o.fd_;
        o.fd_ = -1;
    }
    return *this;
}

std::string TcpStream::connect(std::string_view host, std::uint16_t port) {
    close();
    sockaddr_in a{};
    if (!resolveIpv4(host, port, a)) return "unknown host " + std::string(host);
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return lastError();
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        std::string err = lastError();
        ::close(fd);
        return err;
    }
    fd_ = fd;
    return {};
}

std::string TcpStream::sendAll(std::string_view data, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    const int flags = MSG_NOSIGNAL | (timeoutMs >= 0 ? MSG_DONTWAIT : 0);
    while (!data.empty()) {
        const ssize_t n = ::send(fd_, data.data(), data.size(), flags);
        if (n >= 0) {
            data.remove_prefix(static_cast<std::size_t>(n));
            continue;
        }
        if (errno == EINTR) continue;
        if (timeoutMs < 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return lastError();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd_, POLLOUT, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) == 0)
            return "no room to send for " + std::to_string(timeoutMs) + " ms: the other end does not read";
    }
    return {};
}

RecvResult TcpStream::receive(char* buffer, std::size_t capacity, int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    const int r = ::poll(&p, 1, timeoutMs);
    if (r == 0) return {RecvStatus::Transient, 0, ETIMEDOUT};
    if (r < 0) return {isTransient(errno) ? RecvStatus::Transient : RecvStatus::Failed, 0, errno};
    const ssize_t n = ::recv(fd_, buffer, capacity, 0);
    if (n > 0) return {RecvStatus::Data, static_cast<std::size_t>(n), 0};
    if (n == 0) return {RecvStatus::Failed, 0, 0};
    return {isTransient(errno) ? RecvStatus::Transient : RecvStatus::Failed, 0, errno};
}

void TcpStream::setNoDelay() {
    const int yes = 1;
    if (fd_ >= 0) setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
}

void TcpStream::shutdownBoth() {
    if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
}

void TcpStream::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

std::string TcpListener::listen(std::string_view address, std::uint16_t port) {
    close();
    sockaddr_in a{};
    if (!resolveIpv4(address, port, a)) return "unknown address " + std::string(address);
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return lastError();
    const int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 4) != 0) {
        std::string err = lastError();
        ::close(fd);
        return err;
    }
    fd_ = fd;
    return {};
}

std::uint32_t TcpStream::peerIpv4() const {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (fd_ < 0 || ::getpeername(fd_, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
        peer.sin_family != AF_INET)
        return 0;
    return ntohl(peer.sin_addr.s_addr);
}

std::optional<TcpStream> TcpListener::accept(int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0) return std::nullopt;
    const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return std::nullopt;
    return TcpStream(fd);
}

std::uint16_t TcpListener::localPort() const {
    return boundPort(fd_);
}

void TcpListener::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

} // namespace orv::platform
