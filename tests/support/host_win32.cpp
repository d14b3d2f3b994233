// Wine twin of the host calls: threads from a toolhelp snapshot.
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
