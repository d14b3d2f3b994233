// Threads of this process: a toolhelp snapshot of the system's threads, those owned by this one.
#include <windows.h>
#include <tlhelp32.h>

#include "tests/support/process_threads.h"

size_t CountProcessThreads() {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return 0;
    const DWORD self = GetCurrentProcessId();
    size_t count = 0;
    THREADENTRY32 entry;
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == self ? 1 : 0;
    }
    CloseHandle(snapshot);
    return count;
}
