// The command line's decisions, which need no service manager: which command word was given and
// which control numbers a command may send.
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
