// The decisions of the service host that need no service manager: which command word was
// given, which control numbers may be sent, and whether the configured role has changed.
#include <cstdarg>
#include <cstdio>

#include "net/ipv4.h"
#include "service/service.h"

CommandAction ChooseCommand(int argc, const char* const* argv, CompareText compare) {
    if (argc >= 2) {
        if (compare(argv[1], "install") == 0) {
            return COMMAND_INSTALL;
        }
        if (compare(argv[1], "uninstall") == 0) {
            return COMMAND_UNINSTALL;
        }
        if (compare(argv[1], "stopWTS") == 0) {
            return COMMAND_STOP_WTS;
        }
        // "command" without its number falls through to the dispatcher, like any unknown word.
        if (argc >= 3 && compare(argv[1], "command") == 0) {
            return COMMAND_SEND_CONTROL;
        }
    }
    return COMMAND_DISPATCH;
}

int32_t ControlNumberAllowed(int32_t number) {
    return static_cast<uint32_t>(number) - 128u > 127u ? 0 : 1;
}

int32_t RoleChangeNeeded(const char* setting, uint32_t* address, uint8_t serverRole) {
    // An empty or unparsable setting leaves the previous address in force, so that a setting
    // file caught half-written never flips the role. An empty setting or 0.0.0.0 (server by the
    // controller's rule) is never local here, so a server started for them is restarted at
    // every re-check: installations name the server's own address to avoid that.
    ParseIPv4(setting, address);
    const uint8_t local = IsLocalAddress(address) != 0 ? 1 : 0;
    return local != serverRole ? 1 : 0;
}

void ConsolePrint(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    fflush(stdout);
}
