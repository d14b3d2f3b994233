// The network layer: IPv4 routines, the peer registry, NetSocket, the registry readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "net/ipv4.h"
#include "net/ipv4_platform.h"
#include "net/net_socket.h"
#include "net/peer_registry.h"
#include "tests/support/scoped_seams.h"
#include "tests/support/scripted_sockets.h"
#include "tests/support/virtual_time.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {
const uint32_t UNTOUCHED = 0x12345678u;

// a.b.c.d in network order on the little-endian hosts we build for.
uint32_t Address(uint32_t a, uint32_t b, uint32_t c, uint32_t d) { return a | b << 8 | c << 16 | d << 24; }

const uint32_t LOOPBACK = Address(127, 0, 0, 1);
const uint32_t RESOLVED = Address(10, 0, 0, 9);

// A lookup answers "try again" tryAgains times, then lookupResult.
struct Script {
    int32_t startResult = 0;
    std::string hostName = "workstation";  // empty: gethostname fails
    std::vector<uint32_t> hostEntry = {};  // empty: no entry
    std::vector<AdapterSetting> adapters = {};
    int32_t tryAgains = 0, lookupResult = 0, lookups = 0;
} script;

const Ipv4Platform scriptedPlatform = {
    [] { return script.startResult; },
    systemIpv4Platform.parseText,
    [](const char*, uint32_t* address) {
        *address = RESOLVED;
        return script.lookups++ < script.tryAgains ? RESOLVE_TRY_AGAIN : script.lookupResult;
    },
    [](char* buffer, size_t size) {
        memcpy(buffer, script.hostName.c_str(), std::min(script.hostName.size() + 1, size));
        return script.hostName.empty() || script.hostName.size() >= size ? 1 : 0;
    },
    [](const char*, uint32_t* addresses, size_t capacity, size_t* count) {
        *count = std::min(capacity, script.hostEntry.size());
        std::copy_n(script.hostEntry.begin(), *count, addresses);
        return script.hostEntry.empty() ? 1 : 0;
    },
    [](AdapterSetting** adapters, size_t* count) {
        *count = script.adapters.size();
        *adapters = static_cast<AdapterSetting*>(calloc(*count + 1, sizeof(AdapterSetting)));
        std::copy(script.adapters.begin(), script.adapters.end(), *adapters);
        return 0;
    },
};

struct ScriptedIpv4 {
    ScriptedIpv4() { ForgetAdapterCache(); }
    ~ScriptedIpv4() { ForgetAdapterCache(); }
    ScopedVirtualTime time;
    ScopedIpv4Platform platform{&scriptedPlatform};
};

// getaddrinfo's answer list, as far as the selection reads it.
struct Answer {
    int ai_family;
    size_t ai_addrlen;
    const uint8_t* ai_addr;
    const Answer* ai_next;
};

const int64_t T = 1767225600;  // 2026-01-01 00:00:00 UTC
const uint64_t SERVER_LIMIT = 201;

// Never created or opened: a peer table's owner only.
struct TableOwner : NetSocket {
    explicit TableOwner(uint64_t limit) : NetSocket{0, 0, 0, {}, 0, 0, nullptr, limit, nullptr} { RegisterPeerSocket(this); }
    ~TableOwner() { UnregisterPeerSocket(this); }
};

struct Socket : NetSocket {
    int32_t created = CreateNetSocket(this, NET_SOCKET_DATAGRAM);
    NetSocketHold hold{created == 0 ? this : nullptr};
};
}  // namespace

TEST(Ipv4, ParsesDottedText) {
    uint32_t parsed = UNTOUCHED;
    uint32_t allOnes = UNTOUCHED;
    const struct {
        const char* label;
        int32_t status;
        int32_t expected;
    } calls[] = {
        {"null text", ParseIPv4(nullptr, &parsed), 1},
        {"null output", ParseIPv4("10.0.0.1", nullptr), 1},
        {"all ones: inet_addr's failure", ParseIPv4("255.255.255.255", &allOnes), 1},
        {"an address", ParseIPv4("10.0.0.1", &parsed), 0},
    };
    for (const auto& c : calls) EXPECT_EQ(c.expected, c.status) << c.label;
    EXPECT_EQ(UNTOUCHED, allOnes);
    EXPECT_EQ(0x0100000Au, parsed) << "first octet in the lowest byte";
}

// Family (AF_INET 2, AF_INET6 10) and port, then the address: one offset in both layouts.
TEST(Ipv4, TakesTheFirstIpv4AnswerOfAList) {
    const uint8_t ipv6Loopback[28] = {10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t ipv4Loopback[8] = {2, 0, 0, 0, 127, 0, 0, 2};
    const Answer ipv4 = {2, sizeof(ipv4Loopback), ipv4Loopback, nullptr};  // just long enough
    const Answer truncated = {2, 7, ipv4Loopback, &ipv4};
    const Answer empty = {2, sizeof(ipv4Loopback), nullptr, &truncated};
    const Answer ipv6 = {10, sizeof(ipv6Loopback), ipv6Loopback, &empty};
    uint32_t none = UNTOUCHED;
    uint32_t found = UNTOUCHED;
    const int32_t noneOfTheFamily = FirstIpv4Answer(&empty, 10, &none);
    const int32_t first = FirstIpv4Answer(&ipv6, 2, &found);
    EXPECT_EQ(1, noneOfTheFamily);
    EXPECT_EQ(0, first);
    EXPECT_EQ(Address(127, 0, 0, 2), found);
}

// The system's own list, which may name ::1 first.
TEST(Ipv4, ResolvesLocalhostToLoopback) {
    uint32_t address = UNTOUCHED;
    const int32_t resolved = ResolveHost("localhost", &address);
    EXPECT_EQ(0, resolved);
    EXPECT_EQ(LOOPBACK, address);
}

// "Try again" costs a second of virtual time; three retries at most; not found is no retry.
TEST(Ipv4, ResolutionRetriesATemporaryFailure) {
    ScriptedIpv4 scripted;
    const struct {
        const char* label;
        const char* name;
        Script script;
        int32_t result, lookups, elapsedMs, failure;
    } rows[] = {
        {"always try again", "ntp.example", {0, "", {}, {}, 99}, 1, 4, 3000, 1},
        {"answered on the third", "ntp.example", {0, "", {}, {}, 2}, 0, 3, 2000, 0},
        {"the socket library would not start", "ntp.example", {1}, 1, 0, 0, 0},
        {"host not found", "no.such.host", {0, "", {}, {}, 0, 11001}, 1, 1, 0, 1},
        {"no name", nullptr, {}, 1, 0, 0, 1},
    };
    for (const auto& row : rows) {
        script = row.script;
        const uint64_t start = VirtualElapsedMs();
        uint32_t address = UNTOUCHED;
        const int32_t result = ResolveHost(row.name, &address);
        EXPECT_EQ(row.result, result) << row.label;
        EXPECT_EQ(row.lookups, script.lookups) << row.label;
        EXPECT_EQ(static_cast<uint64_t>(row.elapsedMs), VirtualElapsedMs() - start) << row.label;
        EXPECT_EQ(row.failure, GetResolveFailure()) << row.label;
        EXPECT_EQ(row.result == 0 ? RESOLVED : UNTOUCHED, address) << row.label;
    }
}

// A live socket keeps the library up: a resolution starts it no second time, which could fail.
TEST(Ipv4, AResolutionUsesTheLibraryASocketKeepsUp) {
    ScriptedIpv4 scripted;
    Socket holder;
    script = {1};
    uint32_t address = UNTOUCHED;
    const int32_t result = ResolveHost("ntp.example", &address);
    EXPECT_EQ(0, result);
}

// A name of 41 to 255 characters is no host's.
TEST(Ipv4, FindsThisHostsAddresses) {
    ScriptedIpv4 scripted;
    const uint32_t LISTED = Address(127, 0, 0, 2);
    const std::vector<uint32_t> entry = {Address(10, 0, 0, 5), LISTED};
    const struct {
        const char* label;
        Script script;
        uint32_t probe;
        int32_t local, result;
        uint32_t address;
    } rows[] = {
        {"loopback is always this host", {0, "workstation"}, LOOPBACK, 1, 1, UNTOUCHED},
        {"listed first in the entry", {0, "workstation", entry}, Address(10, 0, 0, 5), 1, 0, Address(10, 0, 0, 5)},
        {"listed in the entry", {0, "workstation", entry}, LISTED, 1, 0, Address(10, 0, 0, 5)},
        {"not listed", {0, "workstation", entry}, Address(127, 0, 0, 3), 0, 0, Address(10, 0, 0, 5)},
        {"no name", {0, "", entry}, LISTED, 0, 1, UNTOUCHED},
        {"no socket library", {1, "workstation", entry}, LISTED, 0, 1, UNTOUCHED},
        {"no entry: the adapter", {0, "workstation", {}, {{0, "192.168.0.10", "255.255.255.0"}}}, LISTED, 0, 0,
         Address(192, 168, 0, 10)},
        {"a name that is an address", {0, "10.0.0.7"}, Address(10, 0, 0, 7), 0, 0, Address(10, 0, 0, 7)},
        {"a name of 40", {0, std::string(40, 'w'), entry}, LISTED, 1, 0, Address(10, 0, 0, 5)},
        {"a name of 41", {0, std::string(41, 'w'), entry}, LISTED, 1, 1, UNTOUCHED},
        {"a name of 255", {0, std::string(255, 'w'), entry}, LISTED, 1, 1, UNTOUCHED},
        {"a name of 256", {0, std::string(256, 'w'), entry}, LISTED, 0, 1, UNTOUCHED},
    };
    for (const auto& row : rows) {
        ForgetAdapterCache();
        script = row.script;
        uint32_t address = UNTOUCHED;
        const int32_t local = IsLocalAddress(&row.probe);
        const int32_t result = GetLocalAddress(&address);
        EXPECT_EQ(row.local, local) << row.label;
        EXPECT_EQ(row.result, result) << row.label;
        EXPECT_EQ(row.address, address) << row.label;
    }
}

// Static adapters first, in list order, then a lease; an adapter without an address is passed over.
TEST(Ipv4, SearchesTheAdaptersStaticFirst) {
    ScriptedIpv4 scripted;
    const uint32_t LAST = Address(192, 168, 0, 10);
    const struct {
        const char* label;
        std::vector<AdapterSetting> adapters;
        int32_t result;
        uint32_t address, mask;
    } rows[] = {
        {"none usable: loopback", {{1, "0.0.0.0", ""}, {0, "", "255.0.0.0"}}, 1, LOOPBACK, Address(255, 255, 255, 0)},
        {"the first static", {{1, "10.1.1.5", "255.0.0.0"}, {0, "192.168.0.10", "255.255.255.0"},
                              {0, "192.168.1.10", "255.255.0.0"}}, 0, LAST, Address(255, 255, 255, 0)},
        {"the first lease", {{1, "0.0.0.0", "0.0.0.0"}, {1, "10.1.1.5", "255.0.0.0"}, {1, "10.2.2.6", "255.255.0.0"},
                             {0, "", ""}}, 0, Address(10, 1, 1, 5), Address(255, 0, 0, 0)},
        {"a static adapter's unparsable mask leaves the lease's",
         {{1, "10.1.1.5", "255.0.0.0"}, {0, "192.168.0.10", "255.255.255.255"}}, 0, LAST, Address(255, 0, 0, 0)},
        {"no adapter: the one found last, cached", {}, 0, LAST, Address(255, 0, 0, 0)},
    };
    for (const auto& row : rows) {
        script.adapters = row.adapters;
        uint32_t address = UNTOUCHED;
        uint32_t mask = UNTOUCHED;
        const int32_t result = GetAdapterAddress(&address, &mask);
        EXPECT_EQ(row.result, result) << row.label;
        EXPECT_EQ(row.address, address) << row.label;
        EXPECT_EQ(row.mask, mask) << row.label;
    }
}

// Null outputs and a list without a single NUL: refused or bounded, never read past.
TEST(Ipv4, AdapterSearchRefusesWhatItCannotUse) {
    uint32_t out = UNTOUCHED;
    AdapterSetting unterminated;
    memset(&unterminated, '1', sizeof(unterminated));
    const struct {
        const char* label;
        int32_t status;
        int32_t expected;
    } calls[] = {
        {"no address output", GetAdapterAddress(nullptr, &out), 1},
        {"no adapters", SelectAdapterAddress(nullptr, 2, &out, &out), 0},
        {"an unterminated adapter", SelectAdapterAddress(&unterminated, 1, &out, &out), 1},
    };
    for (const auto& c : calls) EXPECT_EQ(c.expected, c.status) << c.label;
}

// A pair is an address and a local port.
TEST(PeerRegistry, BlocksAPairForThirtySeconds) {
    ScopedVirtualTime time;  // blocked at T
    BlockPeer(1, 123);
    EXPECT_EQ(1, IsPeerBlocked(1, 123)) << "the pair";
    EXPECT_EQ(0, IsPeerBlocked(1, 124)) << "another port";
    EXPECT_EQ(0, IsPeerBlocked(2, 123)) << "another address";
    SweepPeerRegistry(T + 30);
    EXPECT_EQ(1, IsPeerBlocked(1, 123)) << "after 30 s";
    SweepPeerRegistry(T + 31);
    EXPECT_EQ(0u, CountBlockedPeers()) << "after 31 s";
}

// Each row at its time, after the rows above: a full table refuses a new sender; a known one is
// refreshed; peers go after five seconds of silence; a clock gone backwards forgets nothing.
TEST(PeerRegistry, AdmitsUpToTheLimitAndAgesPeers) {
    TableOwner server(2);
    const struct {
        const char* label;
        int64_t sweepAt;  // 0: none
        uint32_t peer;
        int64_t at;
        int32_t admitted;
        size_t peers;
    } rows[] = {
        {"a first", 0, 1, T, 1, 1},
        {"a second", 0, 2, T, 1, 2},
        {"a third: full", 0, 3, T, 0, 2},
        {"the first again, refreshed", 0, 1, T + 4, 1, 2},
        {"after 5 s all stay", T + 5, 1, T + 5, 1, 2},
        {"after 6 s the second went: room again", T + 6, 3, T + 6, 1, 2},
        {"a clock gone backwards", INT64_MIN, 3, T + 6, 1, 2},
    };
    for (const auto& row : rows) {
        if (row.sweepAt != 0) SweepPeerRegistry(row.sweepAt);
        const int32_t admitted = AdmitPeerAt(&server, row.peer, row.at);
        EXPECT_EQ(row.admitted, admitted) << row.label;
        EXPECT_EQ(row.peers, CountPeers(&server)) << row.label;
    }
}

// Even a socket never taken out of the registry is forgotten when the last socket goes.
TEST(PeerRegistry, TheLastSocketsDestroyEmptiesTheSocketTable) {
    TableOwner stray(1);
    {
        Socket last;
    }
    EXPECT_EQ(0u, CountPeerSockets());
}

// A wait on a real socket: 0 while nothing is queued, 1 once a datagram is.
TEST(NetSocket, AWaitTellsADatagramFromATimeOut) {
    Socket receiver;
    Socket sender;
    OpenNetSocket(&receiver, 0, SERVER_LIMIT);
    const int32_t empty = WaitNetSocketReadable(&receiver, 0);
    SendNetSocket(&sender, "x", 2, &LOOPBACK, receiver.localPort, 1);
    const int32_t queued = WaitNetSocketReadable(&receiver, 2000);
    EXPECT_EQ(0, empty);
    EXPECT_EQ(1, queued);
}

// On real sockets, whose port is the system's choice.
TEST(NetSocket, ASendOnAClosedSocketOpensItAgain) {
    Socket receiver;
    Socket socket;
    OpenNetSocket(&receiver, 0, 1);
    OpenNetSocket(&socket, 0, 1);
    CloseNetSocket(&socket);
    const int32_t sent = SendNetSocket(&socket, "second", 7, &LOOPBACK, receiver.localPort, 1);
    EXPECT_EQ(7, sent);
    EXPECT_EQ(NET_STATE_BOUND, socket.state);
    EXPECT_NE(1, socket.localPort);
}

// The handle a closed socket had may be another socket's by now: a destroy leaves it alone.
TEST(NetSocket, ADestroyAfterACloseClosesNothingMore) {
    ScriptedSockets sockets;
    int closes = 0;
    sockets.OnClose([&closes](uint64_t handle) { closes += handle == SCRIPTED_HANDLE ? 1 : 0; });
    NetSocket socket;
    CreateNetSocket(&socket, NET_SOCKET_DATAGRAM);
    OpenNetSocket(&socket, 0, 1);
    CloseNetSocket(&socket);
    DestroyNetSocket(&socket);
    EXPECT_EQ(1, closes);
}

TEST(NetSocket, ADroppedDatagramReadsAsZeros) {
    ScriptedSockets sockets;
    Socket full;
    Socket blocking;
    OpenNetSocket(&full, 0, 1);
    OpenNetSocket(&blocking, 0, 1);
    RegisterPeerSocket(&full);
    AdmitPeer(&full, Address(127, 0, 0, 99));
    BlockPeer(LOOPBACK, blocking.localPort);
    for (NetSocket* dropping : {static_cast<NetSocket*>(&full), static_cast<NetSocket*>(&blocking)}) {
        sockets.Queue({LOOPBACK, 123, std::vector<uint8_t>{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B'}});
        uint8_t buffer[12];
        uint32_t address = 0;
        uint16_t port = 0;
        const int32_t received = ReceiveNetSocket(dropping, buffer, sizeof(buffer), &address, &port, 1);
        EXPECT_EQ(0, received) << (dropping == &full ? "full" : "blocked");
        EXPECT_EQ(0, memcmp(buffer, "\0\0\0\0\0\0\0\0" "89AB", 12)) << (dropping == &full ? "full" : "blocked");
    }
}

// Heard from, then reopened without success: no handle, but in the registry the sweep reads.
TEST(NetSocket, ADestroyTakesASocketWithoutAHandleOutOfTheRegistry) {
    Socket keeper;  // keeps the library up: the last destroy would empty the registry anyway
    const size_t socketsBefore = CountPeerSockets();
    size_t socketsAfter = 0;
    {
        ScriptedSockets sockets;
        NetSocket socket;
        CreateNetSocket(&socket, NET_SOCKET_DATAGRAM);
        OpenNetSocket(&socket, 0, 1);
        sockets.Queue({Address(127, 0, 0, 9), 123, std::vector<uint8_t>(48, 0x1C)});
        uint8_t datagram[48];
        uint32_t from = 0;
        uint16_t port = 0;
        ReceiveNetSocket(&socket, datagram, sizeof datagram, &from, &port, 1);
        sockets.FailOpens(10024);  // WSAEMFILE: no more sockets
        OpenNetSocket(&socket, 0, 1);
        EXPECT_EQ(NET_INVALID_HANDLE, socket.handle);
        DestroyNetSocket(&socket);
        socketsAfter = CountPeerSockets();
    }
    EXPECT_EQ(socketsBefore, socketsAfter);
}

#ifdef _WIN32
// Bars become bangs in names and data alike; a list cut off at the buffer still ends in two NULs.
TEST(RegistryValues, ReadersWantTheirTypeAndNarrowWithBarsAsBangs) {
    const char KEY[] = "SOFTWARE\\NorvikTimeTest";
    HKEY key = nullptr;
    const LONG created = RegCreateKeyExA(HKEY_LOCAL_MACHINE, KEY, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    ASSERT_EQ(0, created);
    std::wstring many;
    for (int index = 0; index < 150; ++index) many += std::wstring(L"abcdefghi|\0", 11);  // 1650 units: > 1024 bytes
    const struct {
        const wchar_t* name;
        DWORD type;
        std::wstring data;
    } values[] = {
        {L"Odd!Name", REG_SZ, L"a|b!c\x0141"},
        {L"Number", REG_DWORD, L"\x0001"},
        {L"Many", REG_MULTI_SZ, many},
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
