// ProcessProbe: what a process holds as Windows counts it, for the end-to-end tests that watch the
// service across restarts: "threads N handles M" for the first process of the image name, or "none".
#include <windows.h>
#include <winternl.h>
#include <tlhelp32.h>

#include <cstdio>
#include <vector>

namespace {
// One entry of the system's handle table (NtQuerySystemInformation class 16): Wine answers this
// where GetProcessHandleCount answers 0.
struct HandleEntry { USHORT process, creatorBackTrace; UCHAR objectType, attributes; USHORT handle; PVOID object; ULONG access; };

// Handles the process holds, or -1 when the table cannot be read.
long CountHandles(DWORD processId) {
    typedef NTSTATUS(NTAPI * QuerySystem)(ULONG, PVOID, ULONG, PULONG);
    const QuerySystem query = reinterpret_cast<QuerySystem>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    NTSTATUS status = -1;
    std::vector<ULONG_PTR> table;  // a count, then the entries
    for (ULONG size = 1 << 16; query != nullptr && size <= (1u << 26); size *= 2) {
        table.assign(size / sizeof(ULONG_PTR), 0);
        ULONG needed = 0;
        if ((status = query(16, table.data(), size, &needed)) != static_cast<NTSTATUS>(0xC0000004L)) {  // too small
            break;
        }
    }
    const HandleEntry* entries = status < 0 ? nullptr : reinterpret_cast<const HandleEntry*>(&table[1]);
    long count = entries == nullptr ? -1 : 0;
    for (ULONG at = 0; entries != nullptr && at < static_cast<ULONG>(table[0]); ++at) {
        count += entries[at].process == static_cast<USHORT>(processId);
    }
    return count;
}
}  // namespace

int main(int argc, char** argv) {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32 entry;
    entry.dwSize = sizeof entry;
    for (BOOL more = argc >= 2 && Process32First(snapshot, &entry); more; more = Process32Next(snapshot, &entry)) {
        if (lstrcmpiA(entry.szExeFile, argv[1]) == 0) {
            std::printf("threads %lu handles %ld\n", entry.cntThreads, CountHandles(entry.th32ProcessID));
            return 0;
        }
    }
    std::printf("none\n");
    return 1;
}
