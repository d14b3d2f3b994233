// The service host's decisions: which command word runs, which control numbers may be sent,
// and when the once-a-minute re-check restarts synchronisation.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>

#include "net/ipv4.h"
#include "service/service.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {
int CompareWords(const char* a, const char* b) {
#ifdef _WIN32
    return lstrcmpiA(a, b);
#else
    for (;; ++a, ++b) {
        const int difference = std::tolower(static_cast<unsigned char>(*a)) - std::tolower(static_cast<unsigned char>(*b));
        if (difference != 0 || *a == '\0') {
            return difference;
        }
    }
#endif
}

CommandAction Choose(std::initializer_list<const char*> words) {
    std::vector<const char*> argv(words);
    return ChooseCommand(static_cast<int>(argv.size()), argv.data(), CompareWords);
}

uint32_t Address(const char* text) {
    uint32_t address = 0;
    EXPECT_EQ(0, ParseIPv4(text, &address)) << text;
    return address;
}
}  // namespace

TEST(CommandWords, AreCaseInsensitiveAndAnythingElseRunsTheDispatcher) {
    EXPECT_EQ(COMMAND_INSTALL, Choose({"NorvikTime.exe", "INSTALL"}));
    EXPECT_EQ(COMMAND_UNINSTALL, Choose({"NorvikTime.exe", "Uninstall"}));
    EXPECT_EQ(COMMAND_STOP_WTS, Choose({"NorvikTime.exe", "StopWts"}));
    EXPECT_EQ(COMMAND_SEND_CONTROL, Choose({"NorvikTime.exe", "COMMAND", "abc", "extra"}));
    EXPECT_EQ(COMMAND_INSTALL, Choose({"NorvikTime.exe", "install", "now"}));  // the word decides

    EXPECT_EQ(COMMAND_DISPATCH, Choose({"NorvikTime.exe"}));
    EXPECT_EQ(COMMAND_DISPATCH, Choose({"NorvikTime.exe", "command"}));  // without its number
    EXPECT_EQ(COMMAND_DISPATCH, Choose({"NorvikTime.exe", "installs"}));
    EXPECT_EQ(COMMAND_DISPATCH, Choose({"NorvikTime.exe", ""}));
}

TEST(CommandWords, OnlyUserControlsMayBeSent) {
    for (int32_t refused : {127, 256, std::atoi("abc"), -1, INT32_MIN}) {
        EXPECT_EQ(0, ControlNumberAllowed(refused)) << refused;
    }
    EXPECT_EQ(1, ControlNumberAllowed(128));
    EXPECT_EQ(1, ControlNumberAllowed(255));
}

TEST(RoleRecheck, RestartsWhenTheSettingNoLongerFitsTheRunningRole) {
    uint32_t address = 0;  // never parsed yet
    // A server for an empty setting or the any-address is restarted every time.
    EXPECT_EQ(1, RoleChangeNeeded("", &address, 1));
    EXPECT_EQ(1, RoleChangeNeeded("0.0.0.0", &address, 1));
    EXPECT_EQ(0u, address);

    EXPECT_EQ(0, RoleChangeNeeded("127.0.0.1", &address, 1));
    EXPECT_EQ(Address("127.0.0.1"), address);
    EXPECT_EQ(1, RoleChangeNeeded("127.0.0.1", &address, 0));  // client running, server wanted
    EXPECT_EQ(0, RoleChangeNeeded("127.0.0.2", &address, 0));  // not this host's: stays client
    EXPECT_EQ(1, RoleChangeNeeded("127.0.0.2", &address, 1));

    // A remote server was configured and then the setting was emptied or made a name: the
    // previous address, and with it the client, stays.
    EXPECT_EQ(0, RoleChangeNeeded("", &address, 0));
    EXPECT_EQ(0, RoleChangeNeeded("time.example.invalid", &address, 0));
    EXPECT_EQ(Address("127.0.0.2"), address);
}
