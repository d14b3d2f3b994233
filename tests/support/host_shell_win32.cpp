// Wine twin of the host-script launcher: CreateProcess of a Unix path starts the host's own
// /bin/sh. Wine returns no usable process handle for it, hence the status files.
#include <windows.h>

#include <string>

#include "tests/support/host_shell.h"

bool LaunchHostShell(const std::string& scriptHostPath) {
    std::string commandLine = "/bin/sh " + scriptHostPath;
    STARTUPINFOA startup;
    ZeroMemory(&startup, sizeof startup);
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process;
    ZeroMemory(&process, sizeof process);
    if (!CreateProcessA(nullptr, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
        return false;
    }
    if (process.hThread != nullptr) CloseHandle(process.hThread);
    if (process.hProcess != nullptr) CloseHandle(process.hProcess);
    return true;
}

uint32_t CurrentProcessNumber() { return static_cast<uint32_t>(GetCurrentProcessId()); }
