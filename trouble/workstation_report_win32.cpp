// The workstation mailslot, through the file interface: opened, written once and closed for
// every report, so a workstation application that restarts is found again by the next report.
#include <windows.h>

#include "runtime/handles_win32.h"
#include "trouble/workstation_report.h"


void WriteWorkstationMailslot(const uint8_t* report, uint32_t size) {
    const UniqueKernelHandle mailslot(CreateFileA(WORKSTATION_MAILSLOT, GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!mailslot.Valid()) {
        return;  // no workstation application: lost, no retry (the service thread must not wait)
    }
    DWORD written = 0;
    WriteFile(mailslot.Get(), report, size, &written, nullptr);  // result ignored: nothing could be done
}
