// ProcessProbe: what a process holds, as Windows counts it, for the end-to-end tests that watch
// the service across restarts: "threads N handles M" for the first process of the given image
// name, or "none" when no such process runs.
#include <windows.h>
#include <winternl.h>
#include <tlhelp32.h>

#include <cstdio>
#include <cstdlib>

namespace {
// The system's handle table, as NtQuerySystemInformation gives it (class 16); Wine answers this
// one, where GetProcessHandleCount answers 0.
struct HandleEntry {
    USHORT process;
    USHORT creatorBackTrace;
    UCHAR objectType;
    UCHAR attributes;
    USHORT handle;
    PVOID object;
    ULONG access;
};

struct HandleTable {
    ULONG count;
    HandleEntry entries[1];
};

const ULONG SYSTEM_HANDLE_INFORMATION = 16;
const NTSTATUS INFO_LENGTH_MISMATCH = static_cast<NTSTATUS>(0xC0000004L);

typedef NTSTATUS(NTAPI* QuerySystem)(ULONG, PVOID, ULONG, PULONG);

// Handles the process holds, or -1 when the table cannot be read.
long CountHandles(DWORD processId) {
    const QuerySystem query =
        reinterpret_cast<QuerySystem>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    if (query == nullptr) {
        return -1;
    }
    for (ULONG size = 1 << 16; size <= (1u << 26); size *= 2) {
        HandleTable* table = static_cast<HandleTable*>(std::malloc(size));
        if (table == nullptr) {
            return -1;
        }
        ULONG needed = 0;
        const NTSTATUS status = query(SYSTEM_HANDLE_INFORMATION, table, size, &needed);
        if (status == INFO_LENGTH_MISMATCH) {
            std::free(table);
            continue;
        }
        long count = -1;
        if (status >= 0) {
            count = 0;
            for (ULONG at = 0; at < table->count; ++at) {
                count += table->entries[at].process == static_cast<USHORT>(processId) ? 1 : 0;
            }
        }
        std::free(table);
        return count;
    }
    return -1;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: ProcessProbe IMAGE.exe\n");
        return 2;
    }
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE) {
        std::printf("none\n");
        return 1;
    }
    PROCESSENTRY32 entry;
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32First(snapshot, &entry); more; more = Process32Next(snapshot, &entry)) {
        if (lstrcmpiA(entry.szExeFile, argv[1]) != 0) {
            continue;
        }
        std::printf("threads %lu handles %ld\n", entry.cntThreads, CountHandles(entry.th32ProcessID));
        CloseHandle(snapshot);
        return 0;
    }
    CloseHandle(snapshot);
    std::printf("none\n");
    return 1;
}
