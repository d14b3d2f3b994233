// NorvikTime.exe: with a command word it performs one action on the service manager and exits;
// without one it hands ServiceMain to the service control dispatcher. The exit code is always 0.
#include <windows.h>

#include <cstdlib>

#include "service/service.h"

namespace {
int CompareWords(const char* a, const char* b) { return lstrcmpiA(a, b); }
}  // namespace

int main(int argc, char** argv) {
    switch (ChooseCommand(argc, argv, CompareWords)) {
    case COMMAND_INSTALL:
        InstallService();
        break;
    case COMMAND_UNINSTALL:
        UninstallService();
        break;
    case COMMAND_STOP_WTS:
        DisableWindowsTimeService();
        break;
    case COMMAND_SEND_CONTROL:
        SendServiceCommand(atoi(argv[2]));
        break;
    case COMMAND_DISPATCH:
        RunServiceDispatcher();  // fails at once (silently) when run from a console
        break;
    }
    return 0;
}
