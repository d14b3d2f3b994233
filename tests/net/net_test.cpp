// The network layer: the IPv4 routines against a scripted platform table (resolution retries in
// virtual time) and the first IPv4 answer of a list; the peer registry, its ageing thread held at
// each sleep; NetSocket over real UDP sockets on loopback; on Windows the registry readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "net/ipv4.h"
#include "net/ipv4_platform.h"
#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "net/peer_registry.h"
#include "net/socket_platform.h"
#include "tests/support/virtual_time.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {
const uint32_t UNTOUCHED = 0x12345678u;

// a.b.c.d in network order on the little-endian hosts we build for.
uint32_t Address(uint32_t a, uint32_t b, uint32_t c, uint32_t d) { return a | b << 8 | c << 16 | d << 24; }

// What the scripted platform answers. A lookup answers "try again" tryAgains times, then lookupResult.
struct Script {
    int32_t startResult = 0;
    std::string hostName = "workstation";  // empty: gethostname fails
    std::vector<uint32_t> hostEntry = {};  // empty: no entry
    std::vector<AdapterSetting> adapters = {};
    int32_t tryAgains = 0, lookupResult = 0, lookups = 0;
    bool adaptersFail = false;
} script;

const Ipv4Platform scriptedPlatform = {
    [] { return script.startResult; }, systemIpv4Platform.parseText,
    [](const char*, uint32_t* address) {
        *address = Address(10, 0, 0, 9);
        return script.lookups++ < script.tryAgains ? RESOLVE_TRY_AGAIN : script.lookupResult;
    },
    [](char* buffer, size_t size) {
        memcpy(buffer, script.hostName.c_str(), std::min(script.hostName.size() + 1, size));
        return script.hostName.empty() || script.hostName.size() >= size ? 1 : 0;
    },
    [](const char*, uint32_t* addresses, size_t capacity, size_t* count) {
        std::copy_n(script.hostEntry.begin(), *count = std::min(capacity, script.hostEntry.size()), addresses);
        return script.hostEntry.empty() ? 1 : 0;
    },
    [](AdapterSetting** adapters, size_t* count) {
        if (script.adaptersFail) return 1;
        *adapters = static_cast<AdapterSetting*>(calloc((*count = script.adapters.size()) + 1, sizeof(AdapterSetting)));
        std::copy(script.adapters.begin(), script.adapters.end(), *adapters);
        return 0;
    },
};

// An answer list as getaddrinfo hands it over; the field names are all the selection reads.
struct Answer { int ai_family; size_t ai_addrlen; const uint8_t* ai_addr; const Answer* ai_next; };

const int64_t T = 1767225600;  // 2026-01-01 00:00:00 UTC, where virtual time starts

// A registry-only socket: never created or opened, just a table owner. Addresses are opaque here.
struct TableOwner : NetSocket {
    explicit TableOwner(uint64_t limit) : NetSocket{0, 0, 0, {}, 0, 0, nullptr, limit, nullptr} { RegisterPeerSocket(this); }
    ~TableOwner() { UnregisterPeerSocket(this); }
};

template <class Reached> bool WaitUntil(const Reached& reached) {
    for (int tick = 0; tick < 10000 && !reached(); ++tick) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return reached();
}

const uint64_t SERVER_LIMIT = 201;
const uint32_t TO = Address(127, 0, 0, 1);

// A created datagram NetSocket, closed and destroyed at the end of its scope.
struct Socket : NetSocket {
    int32_t created = CreateNetSocket(this, NET_SOCKET_DATAGRAM);
    NetSocketHold hold{created == 0 ? this : nullptr};
};
}  // namespace

// Virtual time, so a "try again" costs nothing; each row starts on the flag and cache the rows above left.
TEST(Ipv4, ParsesResolvesFindsLocalAddressesSearchesAdaptersStaticFirstAndTakesTheFirstIpv4Answer) {
    InstallVirtualTime();
    uint32_t got = UNTOUCHED;
    EXPECT_EQ(1, ParseIPv4(nullptr, &got));
    EXPECT_EQ(1, ParseIPv4("10.0.0.1", nullptr));
    EXPECT_EQ(1, ParseIPv4("255.255.255.255", &got));  // all ones: inet_addr's failure
    EXPECT_EQ(UNTOUCHED, got);
    EXPECT_EQ(0, ParseIPv4("10.0.0.1", &got));
    EXPECT_EQ(0x0100000Au, got);  // first octet in the lowest byte
    // Family (AF_INET 2, AF_INET6 10) and port, then the address: one offset in both layouts.
    const uint8_t ipv6Loopback[28] = {10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t ipv4Loopback[8] = {2, 0, 0, 0, 127, 0, 0, 2};
    const Answer ipv4 = {2, sizeof(ipv4Loopback), ipv4Loopback, nullptr};  // just long enough
    const Answer truncated = {2, 7, ipv4Loopback, &ipv4};
    const Answer empty = {2, sizeof(ipv4Loopback), nullptr, &truncated};
    const Answer ipv6 = {10, sizeof(ipv6Loopback), ipv6Loopback, &empty};
    EXPECT_EQ(1, FirstIpv4Answer(&empty, 10, &got));  // none of the family asked for
    EXPECT_EQ(0, ResolveHost("localhost", &got));  // the system's own list, which may name ::1 first
    EXPECT_EQ(Address(127, 0, 0, 1), got);
    EXPECT_EQ(0, FirstIpv4Answer(&ipv6, 2, &got));
    EXPECT_EQ(Address(127, 0, 0, 2), got);

    InstallIpv4Platform(&scriptedPlatform);  // its start-up call is made: no NetSocket runs here
    const struct { const char* name; Script script; int32_t result, lookups, elapsedMs, failure; } resolves[] = {
        {"ntp.example", {0, "", {}, {}, 99}, 1, 4, 3000, 1},
        {"ntp.example", {0, "", {}, {}, 2}, 0, 3, 2000, 0},
        {"ntp.example", {1}, 1, 0, 0, 0},  // the socket library would not start
        {"no.such.host", {0, "", {}, {}, 0, 11001}, 1, 1, 0, 1},  // host not found: no retry
        {nullptr, {}, 1, 0, 0, 1},
    };
    for (const auto& c : resolves) {
        SCOPED_TRACE(testing::Message() << "resolve row " << (&c - resolves));
        script = c.script;
        const uint64_t start = VirtualElapsedMs();
        uint32_t address = UNTOUCHED;
        EXPECT_EQ(c.result, ResolveHost(c.name, &address));
        EXPECT_EQ(c.lookups, script.lookups);
        EXPECT_EQ(static_cast<uint64_t>(c.elapsedMs), VirtualElapsedMs() - start);
        EXPECT_EQ(c.failure, GetResolveFailure());
        EXPECT_EQ(c.result == 0 ? Address(10, 0, 0, 9) : UNTOUCHED, address);
    }

    const uint32_t LISTED = Address(127, 0, 0, 2);
    const std::vector<uint32_t> entry = {Address(10, 0, 0, 5), LISTED};
    const struct { Script script; uint32_t probe; int32_t local, result; uint32_t address; } locals[] = {
        {{0, "workstation"}, Address(127, 0, 0, 1), 1, 1, UNTOUCHED},
        {{0, "workstation", entry}, LISTED, 1, 0, Address(10, 0, 0, 5)},
        {{0, "workstation", entry}, Address(127, 0, 0, 3), 0, 0, Address(10, 0, 0, 5)},
        {{0, "", entry}, LISTED, 0, 1, UNTOUCHED},
        {{1, "workstation", entry}, LISTED, 0, 1, UNTOUCHED},
        {{0, "workstation", {}, {{0, "192.168.0.10", "255.255.255.0"}}}, LISTED, 0, 0, Address(192, 168, 0, 10)},
        {{0, "10.0.0.7"}, Address(10, 0, 0, 7), 0, 0, Address(10, 0, 0, 7)},
        {{0, std::string(40, 'w'), entry}, LISTED, 1, 0, Address(10, 0, 0, 5)},
        {{0, std::string(41, 'w'), entry}, LISTED, 1, 1, UNTOUCHED},
        {{0, std::string(255, 'w'), entry}, LISTED, 1, 1, UNTOUCHED},
        {{0, std::string(256, 'w'), entry}, LISTED, 0, 1, UNTOUCHED},
    };
    for (const auto& c : locals) {
        SCOPED_TRACE(testing::Message() << "local row " << (&c - locals));
        ForgetAdapterCache();
        script = c.script;
        uint32_t address = UNTOUCHED;
        EXPECT_EQ(c.local, IsLocalAddress(&c.probe));
        EXPECT_EQ(c.result, GetLocalAddress(&address));
        EXPECT_EQ(c.address, address);
    }
    EXPECT_EQ(1, IsLocalAddress(nullptr));

    const uint32_t LAST = Address(192, 168, 0, 10);
    const struct { std::vector<AdapterSetting> adapters; int32_t result; uint32_t address, mask; } searches[] = {
        {{{1, "0.0.0.0", ""}, {0, "", "255.0.0.0"}}, 1, Address(127, 0, 0, 1), Address(255, 255, 255, 0)},
        {{{1, "10.1.1.5", "255.0.0.0"}, {0, "192.168.0.10", "255.255.255.0"}, {0, "192.168.1.10", "255.255.0.0"}}, 0,
         LAST, Address(255, 255, 255, 0)},
        {{{1, "0.0.0.0", "0.0.0.0"}, {1, "10.1.1.5", "255.0.0.0"}, {1, "10.2.2.6", "255.255.0.0"}, {0, "", ""}}, 0,
         Address(10, 1, 1, 5), Address(255, 0, 0, 0)},
        // A static adapter's unparsable mask leaves the lease's.
        {{{1, "10.1.1.5", "255.0.0.0"}, {0, "192.168.0.10", "255.255.255.255"}}, 0, LAST, Address(255, 0, 0, 0)},
        {{}, 0, LAST, Address(255, 0, 0, 0)},
    };
    for (const auto& c : searches) {
        SCOPED_TRACE(testing::Message() << "adapter row " << (&c - searches));
        script.adapters = c.adapters;
        uint32_t address = UNTOUCHED, mask = UNTOUCHED;
        EXPECT_EQ(c.result, GetAdapterAddress(&address, &mask));
        EXPECT_EQ(c.address, address);
        EXPECT_EQ(c.mask, mask);
    }
    ForgetAdapterCache();  // an unreadable adapter list: loopback, and nothing cached from it
    script.adaptersFail = true;
    uint32_t mask = UNTOUCHED;
    EXPECT_EQ(1, GetAdapterAddress(&got, &mask));
    EXPECT_EQ(Address(127, 0, 0, 1), got);
    EXPECT_EQ(1, GetAdapterAddress(nullptr, &got));
    EXPECT_EQ(0, SelectAdapterAddress(nullptr, 2, &got, &got));
    AdapterSetting unterminated;
    memset(&unterminated, '1', sizeof(unterminated));  // no NUL anywhere: still bounded
    EXPECT_EQ(1, SelectAdapterAddress(&unterminated, 1, &got, &got));
    RemoveVirtualTime();
    InstallIpv4Platform(nullptr);
}

// The last destroy must not return while the thread is still inside its sleep (held by the hook).
TEST(PeerRegistry, AdmitsUpToTheLimitAgesPeersAndBlockedPairsAndItsThreadSweepsEachSecondUntilJoined) {
    InstallVirtualTime();
    BlockPeer(1, 123);  // at T
    EXPECT_EQ(1, IsPeerBlocked(1, 123));
    EXPECT_EQ(0, IsPeerBlocked(1, 124));
    EXPECT_EQ(0, IsPeerBlocked(2, 123));
    TableOwner server(2);
    EXPECT_EQ(1, AdmitPeerAt(&server, 1, T));
    EXPECT_EQ(1, AdmitPeerAt(&server, 2, T));
    EXPECT_EQ(0, AdmitPeerAt(&server, 3, T));      // full: a new sender is refused
    EXPECT_EQ(1, AdmitPeerAt(&server, 1, T + 4));  // known: admitted and refreshed
    SweepPeerRegistry(T + 5);
    EXPECT_EQ(2u, CountPeers(&server));
    SweepPeerRegistry(T + 6);
    EXPECT_EQ(1u, CountPeers(&server));  // 2 goes at six seconds, the refreshed 1 stays
    EXPECT_EQ(1, AdmitPeerAt(&server, 3, T + 6));  // room again
    SweepPeerRegistry(INT64_MIN);  // a clock gone backwards forgets nothing
    EXPECT_EQ(2u, CountPeers(&server));
    SweepPeerRegistry(T + 30);
    EXPECT_EQ(1, IsPeerBlocked(1, 123));
    SweepPeerRegistry(T + 31);
    EXPECT_EQ(0u, CountBlockedPeers());

    static std::atomic<int> entered{0}, permits{0};  // static: the hook may outlive a failed test
    SetSleepHook([](uint32_t) {
        entered.fetch_add(1);
        WaitUntil([] { return permits.load() > 0; });
        permits.fetch_sub(1);
    });
    NetSocket library;  // starts the library and its thread; never opened
    ASSERT_EQ(0, CreateNetSocket(&library, NET_SOCKET_DATAGRAM));
    EXPECT_TRUE(WaitUntil([] { return entered.load() == 1; }));  // first sweep done at T, now asleep
    TableOwner client(1);
    EXPECT_EQ(1, AdmitPeer(&client, 1));
    for (int second = 1; second <= 6; ++second) {
        permits.fetch_add(1);
        EXPECT_TRUE(WaitUntil([second] { return entered.load() == second + 1; }));
        EXPECT_EQ(second < 6 ? 1u : 0u, CountPeers(&client)) << "sweep at T + " << second;
    }
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] { destroyed = DestroyNetSocket(&library) == 0; });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(destroyed.load()) << "the stop must wait for the thread to end";
    permits.fetch_add(1);
    destroyer.join();
    EXPECT_EQ(0, PeerThreadRunning());
    EXPECT_EQ(0u, CountAgeingThreads());
    EXPECT_EQ(7, entered.load());
    SetSleepHook({});
    RemoveVirtualTime();
}


// Destroy after close leaves the handed-on handle alone; full or blocking peer tables drop and zero.
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
    ASSERT_EQ(1, AdmitPeer(&full, Address(127, 0, 0, 99)));
    BlockPeer(TO, receiver.localPort);  // the receiver already knows the sender: blocking comes first
    for (NetSocket* dropping : {static_cast<NetSocket*>(&full), static_cast<NetSocket*>(&receiver)}) {
        ASSERT_EQ(12, SendNetSocket(&sender, "0123456789AB", 12, &TO, dropping->localPort, SERVER_LIMIT));
        ASSERT_EQ(1, WaitNetSocketReadable(dropping, 2000));
        EXPECT_EQ(0, ReceiveNetSocket(dropping, buffer, sizeof(buffer), &address, &port, 1));
        EXPECT_EQ(0, memcmp(buffer, "\0\0\0\0\0\0\0\0" "89AB", 12));
    }
}

#ifdef _WIN32
// Bars become bangs in names and data alike; a list cut off at the buffer still ends in two NULs.
TEST(RegistryValues, ReadersWantTheirTypeAndNarrowWithBarsAsBangs) {
    const char KEY[] = "SOFTWARE\\NorvikTimeTest";
    HKEY key = nullptr;
    ASSERT_EQ(0, RegCreateKeyExA(HKEY_LOCAL_MACHINE, KEY, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr));
    std::wstring many;
    for (int index = 0; index < 150; ++index) many += std::wstring(L"abcdefghi|\0", 11);  // 1650 units: > 1024 bytes
    const struct { const wchar_t* name; DWORD type; std::wstring data; } values[] = {
        {L"Odd!Name", REG_SZ, L"a|b!c\x0141"}, {L"Number", REG_DWORD, L"\x0001"}, {L"Many", REG_MULTI_SZ, many},
        {L"List", REG_MULTI_SZ, std::wstring(L"192.168.0.10\0" L"10.0.0.1\0", 22)},
        {L"TooLong", REG_SZ, std::wstring(300, L'9')},  // more than the 520 bytes a string may have
    };
    for (const auto& value : values) {
        const DWORD bytes = static_cast<DWORD>((value.data.size() + 1) * sizeof(wchar_t));
        RegSetValueExW(key, value.name, 0, value.type, reinterpret_cast<const BYTE*>(value.data.c_str()), bytes);
    }
    RegCloseKey(key);
    char buffer[REGISTRY_TEXT_SIZE];
    memset(buffer, 'x', sizeof(buffer));  // so that every NUL checked below was written
    EXPECT_STREQ("a!b!cA", ReadRegistryString(KEY, "Odd|Name", buffer));  // U+0141 gives 0x41
    for (const char* refused : {"Number", "List", "TooLong", "Missing"}) {
        EXPECT_STREQ("", ReadRegistryString(KEY, refused, buffer)) << refused;
    }
    EXPECT_STREQ("", ReadRegistryStringList(KEY, "Odd|Name", buffer));
    EXPECT_EQ(0, memcmp(ReadRegistryStringList(KEY, "List", buffer), "192.168.0.10\0" "10.0.0.1\0\0", 23));
    EXPECT_EQ(0, memcmp(ReadRegistryStringList(KEY, "Many", buffer), "abcdefghi!\0abcdefghi!\0", 22));
    EXPECT_EQ(0, memcmp(buffer + REGISTRY_TEXT_SIZE - 2, "\0\0", 2));
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, KEY);
}
#endif

namespace {
// Socket calls that touch no platform socket: open gives a made-up handle until opens are told to
// fail, and every receive reads one datagram from 127.0.0.9.
const uint64_t SCRIPTED_HANDLE = 0x5C0C;
const int32_t SCRIPTED_OPEN_ERROR = 10024;  // WSAEMFILE: no more sockets
std::atomic<bool> scriptedOpensFail{false};

class ScriptedSockets {
public:
    ScriptedSockets() : platform_(systemSocketPlatform) {
        scriptedOpensFail = false;
        platform_.open = [](int32_t* error) -> uint64_t {
            if (scriptedOpensFail.load()) {
                *error = SCRIPTED_OPEN_ERROR;
                return NET_INVALID_HANDLE;
            }
            return SCRIPTED_HANDLE;
        };
        platform_.close = [](uint64_t) {};
        platform_.setOption = [](uint64_t, int32_t, int32_t) -> int32_t { return 0; };
        platform_.bind = [](uint64_t, const NetAddress*, int32_t*) -> int32_t { return 0; };
        platform_.readName = [](uint64_t, NetAddress*) -> int32_t { return 0; };
        platform_.receive = [](uint64_t, void* buffer, int32_t capacity, NetAddress* from, int32_t*) -> int32_t {
            std::memset(buffer, 0x1C, static_cast<size_t>(capacity));
            from->address = Address(127, 0, 0, 9);
            from->port = NetworkPort(123);
            return capacity;
        };
        previous_ = InstallSocketPlatform(&platform_);
    }
    ~ScriptedSockets() { InstallSocketPlatform(previous_); }
    ScriptedSockets(const ScriptedSockets&) = delete;
    ScriptedSockets& operator=(const ScriptedSockets&) = delete;

private:
    SocketPlatform platform_;
    const SocketPlatform* previous_ = nullptr;
};
}  // namespace

// Heard from, then reopened without success: the socket has no handle but is in the registry, whose
// ageing sweep would read it after its storage is gone unless the destroy takes it out.
TEST(NetSocket, ADestroyTakesASocketWithoutAHandleOutOfTheRegistry) {
    NetSocket keeper;  // keeps the library up: the last destroy would empty the registry anyway
    ASSERT_EQ(0, CreateNetSocket(&keeper, NET_SOCKET_DATAGRAM));
    const size_t socketsBefore = CountPeerSockets();
    {
        ScriptedSockets scripted;
        NetSocket socket;
        ASSERT_EQ(0, CreateNetSocket(&socket, NET_SOCKET_DATAGRAM));
        ASSERT_EQ(0, OpenNetSocket(&socket, 0, 1));
        uint8_t datagram[48];
        uint32_t from = 0;
        uint16_t port = 0;
        ASSERT_EQ(48, ReceiveNetSocket(&socket, datagram, sizeof datagram, &from, &port, 1));
        scriptedOpensFail = true;
        ASSERT_EQ(SCRIPTED_OPEN_ERROR, OpenNetSocket(&socket, 0, 1));
        ASSERT_EQ(NET_INVALID_HANDLE, socket.handle);
        DestroyNetSocket(&socket);
    }
    EXPECT_EQ(socketsBefore, CountPeerSockets());
    DestroyNetSocket(&keeper);
}
