// IPv4 routines against a scripted platform table (resolution retries in virtual time), the first
// IPv4 answer of a list, and on Windows the registry readers on values the test writes itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "net/ipv4.h"
#include "net/ipv4_platform.h"
#include "net/net_test_seams.h"
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
        *adapters = static_cast<AdapterSetting*>(calloc((*count = script.adapters.size()) + 1, sizeof(AdapterSetting)));
        std::copy(script.adapters.begin(), script.adapters.end(), *adapters);
        return 0;
    },
};

// An answer list as getaddrinfo hands it over; the field names are all the selection reads.
struct Answer { int ai_family; size_t ai_addrlen; const uint8_t* ai_addr; const Answer* ai_next; };
}  // namespace

// The system platform, in virtual time so that a "try again" costs no real seconds.
TEST(Ipv4, ParsesAllOnesAsAFailureAndResolvesToTheFirstIpv4AnswerPastIpv6OnesAndShortOnes) {
    const struct { const char* text; int32_t result; uint32_t address; } cases[] = {
        {"10.0.0.1", 0, 0x0100000Au}, {"255.255.255.255", 1, UNTOUCHED},  // all ones: inet_addr's failure
        {"ntp.example", 1, UNTOUCHED}, {nullptr, 1, UNTOUCHED},
    };
    for (const auto& c : cases) {
        uint32_t address = UNTOUCHED;
        EXPECT_EQ(c.result, ParseIPv4(c.text, &address)) << (c.text != nullptr ? c.text : "null");
        EXPECT_EQ(c.address, address) << (c.text != nullptr ? c.text : "null");
    }
    EXPECT_EQ(1, ParseIPv4("10.0.0.1", nullptr));
    // Family (AF_INET 2, AF_INET6 10) and port, then the address: one offset in both layouts.
    const uint8_t ipv6Loopback[28] = {10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t ipv4Loopback[8] = {2, 0, 0, 0, 127, 0, 0, 2};
    const Answer ipv4 = {2, sizeof(ipv4Loopback), ipv4Loopback, nullptr};  // just long enough
    const Answer truncated = {2, 7, ipv4Loopback, &ipv4};
    const Answer empty = {2, sizeof(ipv4Loopback), nullptr, &truncated};
    const Answer ipv6 = {10, sizeof(ipv6Loopback), ipv6Loopback, &empty};
    uint32_t address = UNTOUCHED;
    EXPECT_EQ(1, FirstIpv4Answer(&empty, 10, &address));  // none of the family asked for
    InstallVirtualTime();
    EXPECT_EQ(1, ResolveHost("::1", &address));
    EXPECT_EQ(1, ResolveHost("no-such-host.invalid", &address));
    EXPECT_EQ(0, ResolveHost("localhost", &address));
    EXPECT_EQ(0, ResolveHost("127.0.0.1", &address));
    RemoveVirtualTime();
    EXPECT_EQ(Address(127, 0, 0, 1), address);
    EXPECT_EQ(0, FirstIpv4Answer(&ipv6, 2, &address));
    EXPECT_EQ(Address(127, 0, 0, 2), address);
}

// Resolution retries only "try again", three times one second apart; each row starts on the
// failure flag the row above left. 127.0.0.1 is local without a lookup; GetLocalAddress reads
// the host name into 40 characters. The adapter rows run in order: the cache the later rows fall
// back on is filled by the earlier ones.
TEST(Ipv4, ResolvesFindsLocalAddressesAndSearchesAdaptersStaticFirstOnAScriptedPlatform) {
    InstallIpv4Platform(&scriptedPlatform);  // its start-up call is made: no NetSocket runs here
    ForgetAdapterCache();
    InstallVirtualTime();
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

    ForgetAdapterCache();
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
    uint32_t address = UNTOUCHED;
    EXPECT_EQ(1, GetAdapterAddress(nullptr, &address));
    EXPECT_EQ(0, SelectAdapterAddress(nullptr, 2, &address, &address));
    AdapterSetting unterminated;
    memset(&unterminated, '1', sizeof(unterminated));  // no NUL anywhere: still bounded
    EXPECT_EQ(1, SelectAdapterAddress(&unterminated, 1, &address, &address));
    RemoveVirtualTime();
    InstallIpv4Platform(nullptr);
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
