// Wine twin of the host calls: threads from a toolhelp snapshot; CreateProcess of a Unix path
// starts the host's own /bin/sh, with no usable process handle (hence the status files).
#include <windows.h>
#include <tlhelp32.h>

#include "tests/support/host.h"

size_t CountProcessThreads() {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return 0;
    size_t count = 0;
    THREADENTRY32 entry;
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == GetCurrentProcessId() ? 1 : 0;
    }
    CloseHandle(snapshot);
    return count;
}

uint32_t CurrentProcessNumber() { return static_cast<uint32_t>(GetCurrentProcessId()); }

// Wine maps the host's root to drive Z:.
std::string LocalPathOf(const std::string& hostPath) {
    std::string local = "Z:" + hostPath;
    for (char& c : local) c = c == '/' ? '\\' : c;
    return local;
}

bool LaunchHostShell(const std::string& scriptHostPath) {
    std::string commandLine = "/bin/sh " + scriptHostPath;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(nullptr, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
        return false;
    }
    if (process.hThread != nullptr) CloseHandle(process.hThread);
    if (process.hProcess != nullptr) CloseHandle(process.hProcess);
    return true;
}
