// NetSocket over real UDP sockets on loopback: implicit opens, close and reopen, handle ownership,
// platform errors, and the datagrams the peer registry drops (its rules are tested on it alone).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "net/peer_registry.h"
#include "net/socket_platform.h"

namespace {
const uint64_t SERVER_LIMIT = 201;
const uint32_t TO = 127u | 1u << 24;  // 127.0.0.1 in network order on our little-endian hosts

// A created datagram NetSocket, closed and destroyed at the end of its scope.
struct Socket : NetSocket {
    int32_t created = CreateNetSocket(this, NET_SOCKET_DATAGRAM);
    NetSocketHold hold{created == 0 ? this : nullptr};
};
}  // namespace

// The destroy after a close must leave the handle number alone: the platform has handed it on.
// A full or blocking peer table drops a datagram and zeroes its start ("nothing usable arrived").
TEST(NetSocket, OpenReportsErrorsSendAndReceiveOpenAFreshOrClosedSocketAndPeerTablesDropDatagrams) {
    NetSocket early;
    ASSERT_EQ(0, CreateNetSocket(&early, NET_SOCKET_DATAGRAM));  // starts the socket library
    int32_t error = 0;
    const uint64_t holder = OpenPlatformSocket(&error);  // on every interface, without address reuse
    NetAddress held = {NET_FAMILY_INET, 0, 0, {}};
    ASSERT_EQ(0, BindPlatformSocket(holder, &held, &error));
    ASSERT_EQ(0, ReadPlatformSocketName(holder, &held));
    const uint16_t freePort = HostPort(held.port);
    const int32_t busy = OpenNetSocket(&early, freePort, SERVER_LIMIT);  // Linux and Wine both refuse it
    EXPECT_TRUE(busy != 0 && busy != 1) << busy;  // the platform's code, not the null-object status
    EXPECT_EQ(NET_STATE_FAILED, early.state);
    ClosePlatformSocket(holder);
    EXPECT_EQ(0, CloseNetSocket(&early));

    Socket receiver;
    Socket sender;
    receiver.localPort = freePort;
    ASSERT_EQ(6, SendNetSocket(&sender, "first", 6, &TO, freePort, 1));  // opens the sender; lost, as nothing is bound
    std::atomic<bool> done{false};
    std::thread sending([&] {  // datagrams sent before the receive has bound are lost: repeat
        for (int attempt = 0; attempt < 250 && !done; ++attempt) {
            SendNetSocket(&sender, "first", 6, &TO, freePort, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    uint8_t buffer[64] = {};
    uint32_t address = 0;
    uint16_t port = 0;
    EXPECT_EQ(6, ReceiveNetSocket(&receiver, buffer, sizeof(buffer), &address, &port, SERVER_LIMIT));
    done = true;
    sending.join();
    EXPECT_STREQ("first", reinterpret_cast<const char*>(buffer));
    EXPECT_EQ(TO, address);
    EXPECT_EQ(sender.localPort, port);
    EXPECT_EQ(freePort, receiver.localPort);

    EXPECT_EQ(0, DestroyNetSocket(&early));
    EXPECT_NE(-1, WaitNetSocketReadable(&sender, 0));  // still open
    EXPECT_EQ(0, CloseNetSocket(&sender));
    EXPECT_EQ(7, SendNetSocket(&sender, "second", 7, &TO, freePort, 1));
    EXPECT_EQ(NET_STATE_BOUND, sender.state);
    int32_t received = 0;
    for (int datagram = 0; datagram < 4 && received != 7; ++datagram) {  // past any queued "first"
        ASSERT_EQ(1, WaitNetSocketReadable(&receiver, 2000));
        received = ReceiveNetSocket(&receiver, buffer, sizeof(buffer), &address, &port, SERVER_LIMIT);
    }
    EXPECT_EQ(7, received);
    EXPECT_EQ(sender.localPort, port);

    Socket full;
    ASSERT_EQ(0, OpenNetSocket(&full, 0, 1));
    RegisterPeerSocket(&full);
    ASSERT_EQ(1, AdmitPeer(&full, 127u | 99u << 24));
    BlockPeer(TO, receiver.localPort);  // the receiver already knows the sender: blocking comes first
    for (NetSocket* dropping : {static_cast<NetSocket*>(&full), static_cast<NetSocket*>(&receiver)}) {
        ASSERT_EQ(12, SendNetSocket(&sender, "0123456789AB", 12, &TO, dropping->localPort, SERVER_LIMIT));
        ASSERT_EQ(1, WaitNetSocketReadable(dropping, 2000));
        EXPECT_EQ(0, ReceiveNetSocket(dropping, buffer, sizeof(buffer), &address, &port, 1));
        EXPECT_EQ(0, memcmp(buffer, "\0\0\0\0\0\0\0\0" "89AB", 12));
    }
}
