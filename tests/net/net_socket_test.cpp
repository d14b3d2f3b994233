// NetSocket over real UDP sockets on loopback: implicit opens, close and reopen, handle
// ownership, platform errors, and admission of real datagrams by the peer registry (its limit and
// the ageing thread are tested on the registry itself).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "net/peer_registry.h"
#include "net/socket_platform.h"
#include "runtime/runtime.h"

namespace {
const uint32_t WAIT_MS = 2000;
const uint64_t CLIENT_LIMIT = 1;
const uint64_t SERVER_LIMIT = 201;
const int32_t NOT_READABLE = -2;
const uint8_t FILL = 0xAA;

uint32_t Loopback(uint8_t last) {
    const uint8_t bytes[4] = {127, 0, 0, last};
    uint32_t value = 0;
    memcpy(&value, bytes, sizeof(value));
    return value;
}

// A NetSocket that is always closed and destroyed, so a failed assertion cannot leave the
// library running for the next test.
class ScopedNetSocket {
public:
    explicit ScopedNetSocket(uint32_t type = NET_SOCKET_DATAGRAM) { created_ = CreateNetSocket(&socket_, type); }
    ~ScopedNetSocket() {
        if (created_ == 0) {
            CloseNetSocket(&socket_);
            DestroyNetSocket(&socket_);
        }
    }
    ScopedNetSocket(const ScopedNetSocket&) = delete;
    ScopedNetSocket& operator=(const ScopedNetSocket&) = delete;
    NetSocket* get() { return &socket_; }
    NetSocket* operator->() { return &socket_; }

private:
    NetSocket socket_;
    int32_t created_ = 1;
};

NetAddress Inet(uint32_t address, uint16_t port) {
    NetAddress inet;
    memset(&inet, 0, sizeof(inet));
    inet.family = NET_FAMILY_INET;
    inet.port = NetworkPort(port);
    inet.address = address;
    return inet;
}

// A plain platform socket bound to one loopback source address, to send from.
class Sender {
public:
    explicit Sender(uint32_t source) {
        int32_t error = 0;
        handle_ = OpenPlatformSocket(&error);
        const NetAddress local = Inet(source, 0);
        if (handle_ != NET_INVALID_HANDLE && BindPlatformSocket(handle_, &local, &error) != 0) {
            ClosePlatformSocket(handle_);
            handle_ = NET_INVALID_HANDLE;
        }
    }
    ~Sender() { ClosePlatformSocket(handle_); }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;
    bool ok() const { return handle_ != NET_INVALID_HANDLE; }
    uint16_t port() const {
        NetAddress bound = Inet(0, 0);
        return ReadPlatformSocketName(handle_, &bound) == 0 ? HostPort(bound.port) : 0;
    }
    bool SendTo(uint16_t port, const void* data, int32_t length) const {
        const NetAddress to = Inet(Loopback(1), port);
        int32_t error = 0;
        return SendPlatformSocket(handle_, data, length, &to, &error) == length;
    }

private:
    uint64_t handle_ = NET_INVALID_HANDLE;
};

struct Received {
    int32_t result = NOT_READABLE;
    uint8_t buffer[64];
    uint32_t address = 0;
    uint16_t port = 0;
};

// Receive with a bound on the wait: NOT_READABLE when nothing arrived in time.
Received ReceiveWithin(NetSocket* socket, uint64_t limit) {
    Received got;
    memset(got.buffer, FILL, sizeof(got.buffer));
    if (WaitNetSocketReadable(socket, WAIT_MS) == 1) {
        got.result = ReceiveNetSocket(socket, got.buffer, sizeof(got.buffer), &got.address, &got.port, limit);
    }
    return got;
}

class NetSocketTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0u, NetLibraryUsers()); }
    void TearDown() override {
        EXPECT_EQ(0u, NetLibraryUsers());
        EXPECT_EQ(0u, CountPeerSockets());
    }
};
}  // namespace

TEST_F(NetSocketTest, SendOpensAFreshOrClosedSocketOnAnEphemeralPort) {
    ScopedNetSocket receiver;
    ASSERT_EQ(0, OpenNetSocket(receiver.get(), 0, SERVER_LIMIT));
    ASSERT_EQ(NET_STATE_BOUND, receiver->state);
    ASSERT_NE(0, receiver->localPort);
    EXPECT_EQ(SERVER_LIMIT, receiver->peerLimit);

    ScopedNetSocket sender;
    const uint32_t to = Loopback(1);
    const char first[] = "first";
    ASSERT_EQ(static_cast<int32_t>(sizeof(first)), SendNetSocket(sender.get(), first, sizeof(first), &to,
                                                                 receiver->localPort, CLIENT_LIMIT));
    EXPECT_EQ(NET_STATE_BOUND, sender->state);
    EXPECT_EQ(CLIENT_LIMIT, sender->peerLimit);

    Received got = ReceiveWithin(receiver.get(), SERVER_LIMIT);
    ASSERT_EQ(static_cast<int32_t>(sizeof(first)), got.result);
    EXPECT_STREQ(first, reinterpret_cast<const char*>(got.buffer));
    EXPECT_EQ(to, got.address);
    EXPECT_EQ(sender->localPort, got.port);

    EXPECT_EQ(0, CloseNetSocket(sender.get()));
    EXPECT_EQ(NET_INVALID_HANDLE, sender->handle);

    const char second[] = "second";
    ASSERT_EQ(static_cast<int32_t>(sizeof(second)), SendNetSocket(sender.get(), second, sizeof(second), &to,
                                                                  receiver->localPort, CLIENT_LIMIT));
    EXPECT_EQ(NET_STATE_BOUND, sender->state);
    got = ReceiveWithin(receiver.get(), SERVER_LIMIT);
    ASSERT_EQ(static_cast<int32_t>(sizeof(second)), got.result);
    EXPECT_EQ(sender->localPort, got.port);
}

TEST_F(NetSocketTest, ReceiveOnAFreshSocketBindsItsStoredPortFirst) {
    uint16_t freePort = 0;
    {
        ScopedNetSocket probe;
        ASSERT_EQ(0, OpenNetSocket(probe.get(), 0, 1));
        freePort = probe->localPort;
    }
    ScopedNetSocket receiver;
    receiver->localPort = freePort;  // a fresh socket keeps 0 here; any stored port is bound
    Received got;
    std::atomic<bool> done{false};
    std::thread waiting([&] {
        got.result = ReceiveNetSocket(receiver.get(), got.buffer, sizeof(got.buffer), &got.address, &got.port, 1);
        done = true;
    });

    // Datagrams sent before the bind are lost, so keep sending until the receive returns.
    Sender sender(Loopback(1));
    const char text[] = "bound";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done && std::chrono::steady_clock::now() < deadline) {
        sender.SendTo(freePort, text, sizeof(text));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    waiting.join();
    ASSERT_EQ(static_cast<int32_t>(sizeof(text)), got.result);
    EXPECT_EQ(NET_STATE_BOUND, receiver->state);
    EXPECT_EQ(freePort, receiver->localPort);
    EXPECT_EQ(sender.port(), got.port);
    EXPECT_EQ(1u, CountPeers(receiver.get()));  // the first receive made the peer table
}

TEST_F(NetSocketTest, CloseThenDestroyLeavesALaterSocketsHandleAlone) {
    ScopedNetSocket receiver;
    ASSERT_EQ(0, OpenNetSocket(receiver.get(), 0, SERVER_LIMIT));
    const uint32_t to = Loopback(1);
    const char text[] = "x";

    NetSocket early;
    ASSERT_EQ(0, CreateNetSocket(&early, NET_SOCKET_DATAGRAM));
    ASSERT_EQ(2, SendNetSocket(&early, text, 2, &to, receiver->localPort, 1));
    EXPECT_EQ(0, CloseNetSocket(&early));

    // The platform hands the freed handle to the next socket; a second close of it by destroy
    // would take that socket away.
    ScopedNetSocket later;
    ASSERT_EQ(2, SendNetSocket(later.get(), text, 2, &to, receiver->localPort, 1));
    EXPECT_EQ(0, DestroyNetSocket(&early));
    EXPECT_EQ(0, WaitNetSocketReadable(later.get(), 0));
    EXPECT_EQ(2, SendNetSocket(later.get(), text, 2, &to, receiver->localPort, 1));
    EXPECT_EQ(NET_STATE_BOUND, later->state);
    for (int datagram = 0; datagram < 3; ++datagram) {
        EXPECT_EQ(2, ReceiveWithin(receiver.get(), SERVER_LIMIT).result) << "datagram " << datagram;
    }
}

TEST_F(NetSocketTest, OpenOnABusyPortReportsThePlatformError) {
    ScopedNetSocket socket;
    Sender holder(0);  // bound to every interface, without address reuse
    ASSERT_TRUE(holder.ok());
    const int32_t result = OpenNetSocket(socket.get(), holder.port(), 1);
    if (result == 0) {
        GTEST_SKIP() << "this platform lets an address-reusing socket share a port held without reuse";
    }
    EXPECT_NE(1, result);  // a platform code, not the null-object status
    EXPECT_EQ(NET_STATE_FAILED, socket->state);
    EXPECT_EQ(0, CloseNetSocket(socket.get()));
    EXPECT_EQ(NET_STATE_CLOSED, socket->state);
}

// The table of a limit-1 socket filled by another peer: a real datagram is dropped (0, first 8
// bytes zero, the rest as received) until a sweep has aged that peer out.
TEST_F(NetSocketTest, FullPeerTableDropsADatagramUntilTheSweepFreesIt) {
    ScopedNetSocket client;
    ASSERT_EQ(0, OpenNetSocket(client.get(), 0, CLIENT_LIMIT));
    RegisterPeerSocket(client.get());
    const int64_t now = ReadWallClock(nullptr);
    ASSERT_EQ(1, AdmitPeerAt(client.get(), Loopback(99), now));

    Sender server(Loopback(1));
    ASSERT_TRUE(server.ok());
    const char answer[] = "0123456789AB";
    ASSERT_TRUE(server.SendTo(client->localPort, answer, 12));
    Received got = ReceiveWithin(client.get(), CLIENT_LIMIT);
    ASSERT_EQ(0, got.result);
    for (int index = 0; index < 8; ++index) {
        EXPECT_EQ(0, got.buffer[index]) << index;
    }
    EXPECT_EQ(0, memcmp(got.buffer + 8, "89AB", 4));
    EXPECT_EQ(FILL, got.buffer[12]);
    EXPECT_EQ(0u, got.address);  // outputs untouched on a drop
    EXPECT_EQ(NET_STATE_BOUND, client->state);

    SweepPeerRegistry(now + PEER_KEEP_SECONDS + 2);
    ASSERT_TRUE(server.SendTo(client->localPort, answer, 12));
    got = ReceiveWithin(client.get(), CLIENT_LIMIT);
    EXPECT_EQ(12, got.result);
    EXPECT_EQ(Loopback(1), got.address);
    EXPECT_EQ(server.port(), got.port);
}

TEST_F(NetSocketTest, BlockedSenderIsDroppedForTheSocketsOwnPortOnly) {
    ScopedNetSocket blocking;
    ScopedNetSocket other;
    ASSERT_EQ(0, OpenNetSocket(blocking.get(), 0, SERVER_LIMIT));
    ASSERT_EQ(0, OpenNetSocket(other.get(), 0, SERVER_LIMIT));
    BlockPeer(Loopback(1), blocking->localPort);

    Sender sender(Loopback(1));
    ASSERT_TRUE(sender.ok());
    const char text[] = "hello";
    ASSERT_TRUE(sender.SendTo(blocking->localPort, text, sizeof(text)));
    ASSERT_TRUE(sender.SendTo(other->localPort, text, sizeof(text)));
    EXPECT_EQ(0, ReceiveWithin(blocking.get(), SERVER_LIMIT).result);
    EXPECT_EQ(static_cast<int32_t>(sizeof(text)), ReceiveWithin(other.get(), SERVER_LIMIT).result);
    EXPECT_EQ(0u, CountPeers(blocking.get()));  // a blocked sender never reaches admission

    SweepPeerRegistry(ReadWallClock(nullptr) + BLOCKED_KEEP_SECONDS + 2);
    ASSERT_TRUE(sender.SendTo(blocking->localPort, text, sizeof(text)));
    EXPECT_EQ(static_cast<int32_t>(sizeof(text)), ReceiveWithin(blocking.get(), SERVER_LIMIT).result);
}
