// The workstation mailslot, through the file interface: opened, written once and closed for
// every report, so a workstation application that restarts is found again by the next report.
#include <windows.h>

#include "trouble/workstation_report.h"

namespace {
const char WORKSTATION_MAILSLOT[] = "\\\\.\\mailslot\\WORKSTATION";
}

void WriteWorkstationMailslot(const uint8_t* report, uint32_t size) {
    HANDLE mailslot = CreateFileA(WORKSTATION_MAILSLOT, GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
    if (mailslot == INVALID_HANDLE_VALUE) {
        return;  // no workstation application: the report is lost, by design, without retry
    }
    DWORD written = 0;
    WriteFile(mailslot, report, size, &written, nullptr);  // result ignored: nothing could be done
    CloseHandle(mailslot);
}
