#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "support.h"

namespace orv::platform {
namespace {

TEST(InstanceLock, OnlyOneHolderAtATime) {
    test::TempDir dir;
    setenv("XDG_RUNTIME_DIR", dir.path().c_str(), 1);
    InstanceLock a, b;
    EXPECT_TRUE(a.acquire("orv-test"));
    EXPECT_FALSE(b.acquire("orv-test"));
    EXPECT_TRUE(b.acquire("orv-other"));
    a.release();
    InstanceLock c;
    EXPECT_TRUE(c.acquire("orv-test"));
    unsetenv("XDG_RUNTIME_DIR");
}

TEST(KnownFolders, FollowXdgAndIgnoreRelativeValues) {
    setenv("XDG_CONFIG_HOME", "/tmp/cfg-x", 1);
    EXPECT_EQ(configFolder(), "/tmp/cfg-x");
    setenv("XDG_CONFIG_HOME", "relative/path", 1);
    EXPECT_EQ(configFolder(), homeFolder() / ".config");
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(configFolder(), homeFolder() / ".config");
    setenv("XDG_DATA_HOME", "/tmp/data-x", 1);
    EXPECT_EQ(localDataFolder(), "/tmp/data-x");
    unsetenv("XDG_DATA_HOME");
    EXPECT_TRUE(std::filesystem::is_directory(executableFolder()));
}

TEST(CodePage, Windows1252StrictAndLenient) {
    EXPECT_EQ(ansiToUtf16("A\xE9\x80\x9F", true), std::u16string(u"A\u00E9\u20AC\u0178"));
    for (const char* unassigned : {"\x81", "\x8D", "\x8F", "\x90", "\x9D"}) {
        EXPECT_FALSE(ansiToUtf16(unassigned, true));
        EXPECT_EQ(ansiToUtf16(unassigned, false),
                  std::u16string(1, static_cast<char16_t>(static_cast<unsigned char>(unassigned[0]))));
    }
}

TEST(VirtualClock, MovesOnlyWhenSleptOn) {
    VirtualClock c(UtcTime{std::chrono::seconds{1000}});
    const auto t0 = c.steadyNow();
    c.sleepFor(std::chrono::milliseconds(250));
    EXPECT_EQ(c.steadyNow() - t0, std::chrono::milliseconds(250));
    c.sleepUntil(t0); // the past: no move
    EXPECT_EQ(c.steadyNow() - t0, std::chrono::milliseconds(250));
    EXPECT_EQ(c.utcNow(), UtcTime{std::chrono::seconds{1000}} + std::chrono::milliseconds(250));
}

TEST(Sockets, TcpRoundTripOnLoopback) {
    TcpListener server;
    ASSERT_EQ(server.listen("127.0.0.1", 0), "");
    const auto port = server.localPort();
    ASSERT_NE(port, 0);
    std::thread client([port] {
        TcpStream s;
        ASSERT_EQ(s.connect("127.0.0.1", port), "");
        ASSERT_EQ(s.sendAll("Qs121"), "");
        char buf[16];
        const auto r = s.receive(buf, sizeof buf, 2000);
        ASSERT_EQ(r.status, RecvStatus::Data);
        EXPECT_EQ(std::string(buf, r.size), "ok");
    });
    auto conn = server.accept(2000);
    ASSERT_TRUE(conn);
    char buf[16];
    std::size_t got = 0;
    while (got < 5) {
        const auto r = conn->receive(buf + got, sizeof buf - got, 2000);
        ASSERT_EQ(r.status, RecvStatus::Data);
        got += r.size;
    }
    EXPECT_EQ(std::string(buf, got), "Qs121");
    EXPECT_EQ(conn->sendAll("ok"), "");
    client.join();
    const auto r = conn->receive(buf, sizeof buf, 2000);
    EXPECT_EQ(r.status, RecvStatus::Failed); // the peer closed
    EXPECT_FALSE(server.accept(10));         // nobody else: a time-out, not a hang
}

// A peer that does not read: a send with a time-out gives up and says why, instead of waiting
// for ever once the buffers are full.
TEST(Sockets, SendToAPeerThatDoesNotReadTimesOut) {
    TcpListener server;
    ASSERT_EQ(server.listen("127.0.0.1", 0), "");
    TcpStream peer;
    ASSERT_EQ(peer.connect("127.0.0.1", server.localPort()), "");
    auto conn = server.accept(2000);
    ASSERT_TRUE(conn);
    const std::string lots(64 << 20, 'x');
    auto sending = std::async(std::launch::async, [&] { return conn->sendAll(lots, 300); });
    ASSERT_EQ(sending.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_NE(sending.get().find("does not read"), std::string::npos);
}

TEST(Sockets, UdpTimeoutIsTransient) {
    UdpSocket s;
    ASSERT_EQ(s.open(), "");
    ASSERT_EQ(s.bind(0, true), "");
    ASSERT_EQ(s.setReceiveTimeout(20), "");
    char buf[8];
    EXPECT_EQ(s.receive(buf, sizeof buf).status, RecvStatus::Transient);
    EXPECT_NE(UdpSocket::sendTo("no.such.host.invalid", 1, "x"), "");
}

} // namespace
} // namespace orv::platform
