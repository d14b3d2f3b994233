// The command line's decisions: which command word runs and which control numbers may be sent.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "service/service.h"

TEST(CommandLine, TheFirstWordDecidesAndAnythingElseRunsTheDispatcher) {
    struct Case {
        std::vector<const char*> argv;
        CommandAction action;
    };
    const Case cases[] = {
        {{"NorvikTime.exe", "install"}, COMMAND_INSTALL},     {{"NorvikTime.exe", "install", "now"}, COMMAND_INSTALL},
        {{"NorvikTime.exe", "uninstall"}, COMMAND_UNINSTALL}, {{"NorvikTime.exe", "stopWTS"}, COMMAND_STOP_WTS},
        {{"NorvikTime.exe", "command", "130"}, COMMAND_SEND_CONTROL},
        {{"NorvikTime.exe", "command"}, COMMAND_DISPATCH},  // without its number
        {{"NorvikTime.exe"}, COMMAND_DISPATCH},             {{"NorvikTime.exe", "installs"}, COMMAND_DISPATCH},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.action, ChooseCommand(static_cast<int>(c.argv.size()), c.argv.data(), std::strcmp))
            << c.argv.back() << " " << c.argv.size();
    }
    // Only user controls may be sent.
    for (int32_t number : {127, 128, 255, 256, 0, -1, INT32_MIN}) {
        EXPECT_EQ(number >= 128 && number <= 255 ? 1 : 0, ControlNumberAllowed(number)) << number;
    }
}
