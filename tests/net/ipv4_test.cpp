// IPv4 routines: parsing, resolution retries (virtual time), the local-address test and the
// local address fall-backs against a scripted platform table, the adapter precedence and cache,
// and on Windows the registry readers against values the test writes and removes itself.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "net/ipv4.h"
#include "net/ipv4_platform.h"
#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "tests/support/virtual_time.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {
const int32_t HOST_NOT_FOUND_ERROR = 11001;

uint32_t Address(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t bytes[4] = {a, b, c, d};
    uint32_t value = 0;
    memcpy(&value, bytes, sizeof(value));
    return value;
}

AdapterSetting Adapter(int32_t dhcp, const char* address, const char* mask) {
    AdapterSetting setting;
    memset(&setting, 0, sizeof(setting));
    setting.dhcp = dhcp;
    strncpy(setting.address, address, sizeof(setting.address) - 1);
    strncpy(setting.mask, mask, sizeof(setting.mask) - 1);
    return setting;
}

// What the scripted platform answers, and how often it was asked.
struct Script {
    int32_t startResult = 0;
    std::vector<int32_t> lookupResults;  // in order; the last one repeats
    uint32_t lookupAddress = 0;
    int32_t lookups = 0;
    int32_t hostNameResult = 0;
    std::string hostName = "workstation";
    int32_t hostNameReads = 0;
    std::vector<uint32_t> hostEntry;  // empty: no entry
    int32_t hostEntryReads = 0;
    int32_t adaptersResult = 0;
    std::vector<AdapterSetting> adapters;
};
Script script;

int32_t ScriptedStart() { return script.startResult; }

int32_t ScriptedLookup(const char*, uint32_t* address) {
    const size_t index = static_cast<size_t>(script.lookups++);
    const std::vector<int32_t>& results = script.lookupResults;
    const int32_t result = results.empty() ? 0 : results[index < results.size() ? index : results.size() - 1];
    if (result == 0) {
        *address = script.lookupAddress;
    }
    return result;
}

int32_t ScriptedHostName(char* buffer, size_t size) {
    ++script.hostNameReads;
    if (script.hostNameResult != 0 || script.hostName.size() + 1 > size) {
        return 1;
    }
    memcpy(buffer, script.hostName.c_str(), script.hostName.size() + 1);
    return 0;
}

int32_t ScriptedHostEntry(const char*, uint32_t* addresses, size_t capacity, size_t* count) {
    ++script.hostEntryReads;
    if (script.hostEntry.empty()) {
        return 1;
    }
    size_t listed = 0;
    for (; listed < script.hostEntry.size() && listed < capacity; ++listed) {
        addresses[listed] = script.hostEntry[listed];
    }
    *count = listed;
    return 0;
}

int32_t ScriptedAdapters(AdapterSetting** adapters, size_t* count) {
    if (script.adaptersResult != 0) {
        return 1;
    }
    AdapterSetting* copy = static_cast<AdapterSetting*>(calloc(script.adapters.size() + 1, sizeof(AdapterSetting)));
    if (!script.adapters.empty()) {
        memcpy(copy, script.adapters.data(), script.adapters.size() * sizeof(AdapterSetting));
    }
    *adapters = copy;
    *count = script.adapters.size();
    return 0;
}

const Ipv4Platform scriptedPlatform = {
    ScriptedStart, systemIpv4Platform.parseText, ScriptedLookup, ScriptedHostName, ScriptedHostEntry, ScriptedAdapters,
};

class ScriptedIpv4 : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0u, NetLibraryUsers());  // so the start-up call is made
        script = Script();
        InstallIpv4Platform(&scriptedPlatform);
        ForgetAdapterCache();
        InstallVirtualTime();
    }
    void TearDown() override {
        RemoveVirtualTime();
        InstallIpv4Platform(nullptr);
        ForgetAdapterCache();
    }
};
}  // namespace

TEST(Ipv4Parse, FollowsInetAddrAndRefusesAllOnes) {
    uint32_t address = 0;
    ASSERT_EQ(0, ParseIPv4("10.0.0.1", &address));
    EXPECT_EQ(0x0100000Au, address);  // first octet in the lowest byte
    ASSERT_EQ(0, ParseIPv4("127.1", &address));  // short forms are accepted
    EXPECT_EQ(Address(127, 0, 0, 1), address);
    ASSERT_EQ(0, ParseIPv4("0.0.0.0", &address));
    EXPECT_EQ(0u, address);

    address = 0x12345678u;
    // 255.255.255.255 is indistinguishable from a failure.
    for (const char* refused : {"255.255.255.255", "256.1.1.1", "1.2.3.4.5", "ntp.example", ""}) {
        EXPECT_EQ(1, ParseIPv4(refused, &address)) << refused;
    }
    EXPECT_EQ(0x12345678u, address);  // written only on success
    EXPECT_EQ(1, ParseIPv4(nullptr, &address));
    EXPECT_EQ(1, ParseIPv4("10.0.0.1", nullptr));
}

TEST_F(ScriptedIpv4, ResolveRetriesTryAgainThreeTimesOneSecondApart) {
    script.lookupResults = {RESOLVE_TRY_AGAIN};
    uint32_t address = 0x12345678u;
    EXPECT_EQ(1, ResolveHost("ntp.example", &address));
    EXPECT_EQ(4, script.lookups);
    EXPECT_EQ(3000u, VirtualElapsedMs());
    EXPECT_EQ(1, GetResolveFailure());
    EXPECT_EQ(0x12345678u, address);

    script.lookups = 0;
    script.lookupResults = {RESOLVE_TRY_AGAIN, RESOLVE_TRY_AGAIN, 0};
    script.lookupAddress = Address(10, 0, 0, 9);
    EXPECT_EQ(0, ResolveHost("ntp.example", &address));
    EXPECT_EQ(3, script.lookups);
    EXPECT_EQ(5000u, VirtualElapsedMs());
    EXPECT_EQ(Address(10, 0, 0, 9), address);
    EXPECT_EQ(0, GetResolveFailure());
}

TEST_F(ScriptedIpv4, ResolveGivesUpAtOnceOnOtherErrorsAndBadArguments) {
    script.lookupResults = {HOST_NOT_FOUND_ERROR, 0};
    uint32_t address = 0;
    EXPECT_EQ(1, ResolveHost("no.such.host", &address));
    EXPECT_EQ(1, script.lookups);
    EXPECT_EQ(0u, VirtualElapsedMs());
    EXPECT_EQ(1, GetResolveFailure());

    EXPECT_EQ(1, ResolveHost(nullptr, &address));  // the failure flag is left alone
    EXPECT_EQ(1, GetResolveFailure());

    script.startResult = 1;  // the socket library would not start
    script.lookups = 0;
    EXPECT_EQ(1, ResolveHost("ntp.example", &address));
    EXPECT_EQ(0, script.lookups);
}

TEST_F(ScriptedIpv4, IsLocalAnswersLoopbackOneWithoutLookupAndSearchesTheHostEntry) {
    script.hostEntry = {Address(10, 0, 0, 5), Address(127, 0, 0, 2)};
    const uint32_t loopback = Address(127, 0, 0, 1);
    EXPECT_EQ(1, IsLocalAddress(&loopback));
    EXPECT_EQ(1, IsLocalAddress(nullptr));
    EXPECT_EQ(0, script.hostNameReads + script.hostEntryReads);

    const uint32_t listedSecond = Address(127, 0, 0, 2);
    const uint32_t unlisted = Address(127, 0, 0, 3);
    EXPECT_EQ(1, IsLocalAddress(&listedSecond));
    EXPECT_EQ(0, IsLocalAddress(&unlisted));
    EXPECT_EQ(2, script.hostEntryReads);  // no caching: every call looks up

    script.hostEntry.clear();
    EXPECT_EQ(0, IsLocalAddress(&listedSecond));
    script.hostEntry = {listedSecond};
    script.hostNameResult = 1;
    EXPECT_EQ(0, IsLocalAddress(&listedSecond));
    script.hostNameResult = 0;
    script.startResult = 1;
    EXPECT_EQ(0, IsLocalAddress(&listedSecond));
}

TEST_F(ScriptedIpv4, LocalAddressPrefersTheAdapterThenTheHostName) {
    uint32_t address = 0x12345678u;
    script.adapters = {Adapter(0, "192.168.0.10", "255.255.255.0")};
    ASSERT_EQ(0, GetLocalAddress(&address));
    EXPECT_EQ(Address(192, 168, 0, 10), address);
    EXPECT_EQ(0, script.hostNameReads);
    ForgetAdapterCache();

    script.adapters.clear();
    script.hostName = "10.0.0.7";  // a host name that is itself an address needs no lookup
    ASSERT_EQ(0, GetLocalAddress(&address));
    EXPECT_EQ(Address(10, 0, 0, 7), address);
    EXPECT_EQ(0, script.hostEntryReads);

    script.hostName = "workstation";
    script.hostEntry = {Address(10, 0, 0, 8), Address(10, 0, 0, 9)};
    ASSERT_EQ(0, GetLocalAddress(&address));
    EXPECT_EQ(Address(10, 0, 0, 8), address);

    address = 0x12345678u;
    script.hostEntry.clear();
    EXPECT_EQ(1, GetLocalAddress(&address));
    script.hostName = std::string(41, 'w');  // the fall-back's buffer holds 40 characters
    script.hostEntry = {Address(10, 0, 0, 8)};
    EXPECT_EQ(1, GetLocalAddress(&address));
    EXPECT_EQ(0x12345678u, address);
}

TEST(AdapterPrecedence, StaticBeforeDhcpFirstInListOrder) {
    uint32_t address = 0;
    uint32_t mask = 0;
    const AdapterSetting dhcpThenStatic[] = {Adapter(1, "10.1.1.5", "255.0.0.0"), Adapter(0, "192.168.0.10", "255.255.255.0"),
                                             Adapter(0, "192.168.1.10", "255.255.0.0")};
    ASSERT_EQ(1, SelectAdapterAddress(dhcpThenStatic, 3, &address, &mask));
    EXPECT_EQ(Address(192, 168, 0, 10), address);
    EXPECT_EQ(Address(255, 255, 255, 0), mask);

    const AdapterSetting twoLeases[] = {Adapter(1, "0.0.0.0", "0.0.0.0"), Adapter(1, "10.1.1.5", "255.0.0.0"),
                                        Adapter(1, "10.2.2.6", "255.255.0.0"), Adapter(0, "", "")};
    ASSERT_EQ(1, SelectAdapterAddress(twoLeases, 4, &address, &mask));
    EXPECT_EQ(Address(10, 1, 1, 5), address);  // unset leases and empty statics are skipped
    EXPECT_EQ(Address(255, 0, 0, 0), mask);

    // Each part is stored only when it parses: a static adapter with a bad mask keeps the
    // lease's mask, and 255.255.255.255 reads as unparsable.
    const AdapterSetting badMask[] = {Adapter(1, "10.1.1.5", "255.0.0.0"), Adapter(0, "192.168.0.10", "255.255.255.255")};
    ASSERT_EQ(1, SelectAdapterAddress(badMask, 2, &address, &mask));
    EXPECT_EQ(Address(192, 168, 0, 10), address);
    EXPECT_EQ(Address(255, 0, 0, 0), mask);

    address = mask = 0x12345678u;
    const AdapterSetting nothing[] = {Adapter(1, "0.0.0.0", ""), Adapter(0, "", "255.0.0.0")};
    EXPECT_EQ(0, SelectAdapterAddress(nothing, 2, &address, &mask));
    EXPECT_EQ(0, SelectAdapterAddress(nullptr, 2, &address, &mask));
    EXPECT_EQ(0x12345678u, address);
    EXPECT_EQ(0x12345678u, mask);

    AdapterSetting unterminated;
    memset(&unterminated, '1', sizeof(unterminated));  // no NUL anywhere: still bounded
    unterminated.dhcp = 0;
    EXPECT_EQ(1, SelectAdapterAddress(&unterminated, 1, &address, &mask));
}

TEST_F(ScriptedIpv4, AdapterSearchFallsBackToItsCacheThenToLoopback) {
    uint32_t address = 0;
    uint32_t mask = 0;
    script.adapters = {Adapter(1, "0.0.0.0", "0.0.0.0")};
    EXPECT_EQ(1, GetAdapterAddress(&address, &mask));
    EXPECT_EQ(Address(127, 0, 0, 1), address);
    EXPECT_EQ(Address(255, 255, 255, 0), mask);

    script.adapters = {Adapter(1, "10.1.1.5", "255.0.0.0")};
    EXPECT_EQ(0, GetAdapterAddress(&address, &mask));
    EXPECT_EQ(Address(10, 1, 1, 5), address);

    script.adapters.clear();
    address = mask = 0;
    EXPECT_EQ(0, GetAdapterAddress(&address, &mask));  // the last address found
    EXPECT_EQ(Address(10, 1, 1, 5), address);
    EXPECT_EQ(Address(255, 0, 0, 0), mask);
    script.adaptersResult = 1;  // no adapter list at all
    address = mask = 0;
    EXPECT_EQ(0, GetAdapterAddress(&address, &mask));
    EXPECT_EQ(Address(10, 1, 1, 5), address);
    EXPECT_EQ(1, GetAdapterAddress(nullptr, &mask));
}

// An answer list as getaddrinfo hands it over; the field names are all the selection reads.
struct Answer {
    int ai_family;
    size_t ai_addrlen;
    const uint8_t* ai_addr;
    const Answer* ai_next;
};

TEST(FirstIpv4Answer, SkipsIpv6AndShortAnswersAndTakesTheFirstIpv4One) {
    const int IPV4 = 2;
    const int IPV6 = 10;
    // Family and port, then the address: the same offset in both sockaddr layouts.
    const uint8_t ipv6Loopback[28] = {10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t second[16] = {2, 0, 0, 0, 127, 0, 0, 2};
    const uint8_t third[16] = {2, 0, 0, 0, 127, 0, 0, 3};
    const Answer last = {IPV4, sizeof(third), third, nullptr};
    const Answer ipv4 = {IPV4, sizeof(second), second, &last};
    const Answer truncated = {IPV4, 7, second, &ipv4};
    const Answer empty = {IPV4, sizeof(second), nullptr, &truncated};
    const Answer ipv6 = {IPV6, sizeof(ipv6Loopback), ipv6Loopback, &empty};
    uint32_t address = 0x12345678u;
    EXPECT_EQ(0, FirstIpv4Answer(&ipv6, IPV4, &address));
    EXPECT_EQ(Address(127, 0, 0, 2), address);

    const Answer onlyIpv6 = {IPV6, sizeof(ipv6Loopback), ipv6Loopback, nullptr};
    address = 0x12345678u;
    EXPECT_EQ(1, FirstIpv4Answer(&onlyIpv6, IPV4, &address));
    EXPECT_EQ(1, FirstIpv4Answer(static_cast<const Answer*>(nullptr), IPV4, &address));
    EXPECT_EQ(0x12345678u, address);

    // The platform's own list for an IPv6 literal: nothing of it may pass as an IPv4 address.
    InstallVirtualTime();
    EXPECT_EQ(1, ResolveHost("::1", &address));
    RemoveVirtualTime();
    EXPECT_EQ(0x12345678u, address);
}

TEST(Ipv4System, ResolvesNumbersAndFailsOnReservedNames) {
    InstallVirtualTime();  // a "try again" answer costs no real seconds
    uint32_t address = 0;
    EXPECT_EQ(0, ResolveHost("127.0.0.1", &address));
    EXPECT_EQ(Address(127, 0, 0, 1), address);
    EXPECT_EQ(0, GetResolveFailure());
    EXPECT_EQ(0, ResolveHost("localhost", &address));
    EXPECT_EQ(1, ResolveHost("no-such-host.invalid", &address));
    EXPECT_EQ(1, GetResolveFailure());
    RemoveVirtualTime();

    const uint32_t loopback = Address(127, 0, 0, 1);
    EXPECT_EQ(1, IsLocalAddress(&loopback));
    const uint32_t nobody = Address(127, 0, 0, 254);
    EXPECT_EQ(0, IsLocalAddress(&nobody));  // the test machine's name never lists it

    EXPECT_EQ(0, GetLocalAddress(&address));  // from an adapter or, failing that, the host name
}

#ifdef _WIN32
namespace {
const wchar_t TEST_KEY[] = L"SOFTWARE\\NorvikTimeTest";
const char TEST_KEY_NARROW[] = "SOFTWARE\\NorvikTimeTest";

class RegistryValues : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, TEST_KEY, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                                 &key_, nullptr));
    }
    void TearDown() override {
        RegCloseKey(key_);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, TEST_KEY);
    }
    void Write(const wchar_t* name, DWORD type, const std::wstring& data) {
        ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key_, name, 0, type, reinterpret_cast<const BYTE*>(data.c_str()),
                                                static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t))));
    }
    HKEY key_ = nullptr;
};
}  // namespace

TEST_F(RegistryValues, StringReaderWantsRegSzAndNarrowsWithBarsAsBangs) {
    Write(L"DhcpIPAddress", REG_SZ, L"10.1.1.5");
    Write(L"Odd!Name", REG_SZ, L"a|b!c\x0141");  // U+0141 narrows to its low byte 0x41
    Write(L"Number", REG_DWORD, std::wstring(L"\x0001\x0000", 1));
    Write(L"List", REG_MULTI_SZ, std::wstring(L"10.0.0.1\0", 9));
    Write(L"TooLong", REG_SZ, std::wstring(300, L'9'));  // more than the 520-byte read

    char buffer[REGISTRY_TEXT_SIZE];
    EXPECT_STREQ("10.1.1.5", ReadRegistryString(TEST_KEY_NARROW, "DhcpIPAddress", buffer));
    EXPECT_STREQ("a!b!cA", ReadRegistryString(TEST_KEY_NARROW, "Odd|Name", buffer));
    EXPECT_STREQ("", ReadRegistryString(TEST_KEY_NARROW, "Number", buffer));
    EXPECT_STREQ("", ReadRegistryString(TEST_KEY_NARROW, "List", buffer));
    EXPECT_STREQ("", ReadRegistryString(TEST_KEY_NARROW, "TooLong", buffer));
    EXPECT_STREQ("", ReadRegistryString(TEST_KEY_NARROW, "Missing", buffer));
}

TEST_F(RegistryValues, ListReaderWantsRegMultiSzAndEndsWithTwoNuls) {
    Write(L"IPAddress", REG_MULTI_SZ, std::wstring(L"192.168.0.10\0" L"10.0.0.1\0", 22));
    Write(L"Single", REG_SZ, L"192.168.0.10");
    std::wstring many;
    for (int index = 0; index < 150; ++index) {
        many += L"abcdefghi|";  // 11 units with the NUL, 1650 in all: more than the 1024-byte buffer
        many += L'\0';
    }
    Write(L"Many", REG_MULTI_SZ, many);

    char buffer[REGISTRY_TEXT_SIZE];
    memset(buffer, 'x', sizeof(buffer));
    ReadRegistryStringList(TEST_KEY_NARROW, "IPAddress", buffer);
    EXPECT_EQ(0, memcmp(buffer, "192.168.0.10\0" "10.0.0.1\0\0", 23));
    EXPECT_STREQ("", ReadRegistryStringList(TEST_KEY_NARROW, "Single", buffer));

    memset(buffer, 'x', sizeof(buffer));
    ReadRegistryStringList(TEST_KEY_NARROW, "Many", buffer);
    EXPECT_EQ(0, memcmp(buffer, "abcdefghi!\0abcdefghi!\0", 22));
    EXPECT_EQ('\0', buffer[REGISTRY_TEXT_SIZE - 1]);
    EXPECT_EQ('\0', buffer[REGISTRY_TEXT_SIZE - 2]);  // the list still ends in two NULs
}
#endif
