// The takeover from the Windows Time service: only one program may set the clock and own UDP
// port 123, so W32Time is stopped and disabled at every start of this service. Nothing here
// stops the caller; the one trace is the last-error line.
#include <windows.h>

#include <cstring>

#include "runtime/text.h"
#include "runtime/handles_win32.h"
#include "service/service.h"

namespace {
const char SERVICES_KEY[] = "System\\CurrentControlSet\\services\\";
const char WINDOWS_TIME_SERVICE[] = "W32Time";
const uint32_t KEY_PATH_SIZE = 512;
const DWORD START_DISABLED = SERVICE_DISABLED;  // 4
const DWORD WINDOWS_TIME_ACCESS = SERVICE_CHANGE_CONFIG | SERVICE_QUERY_STATUS | SERVICE_STOP;
}  // namespace

void DisableWindowsTimeService() {
    char keyPath[KEY_PATH_SIZE] = "";
    CopyText(keyPath, SERVICES_KEY, KEY_PATH_SIZE);
    AppendText(keyPath, WINDOWS_TIME_SERVICE, KEY_PATH_SIZE);

    DWORD start = 0;
    {
        HKEY opened = nullptr;
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_READ, &opened) != ERROR_SUCCESS) {
            return;  // not installed: nothing to take over
        }
        UniqueKey key(opened);
        DWORD size = sizeof start;
        if (RegQueryValueExA(key.Get(), "Start", nullptr, nullptr, reinterpret_cast<BYTE*>(&start), &size) !=
            ERROR_SUCCESS) {
            return;
        }
    }
    if (start == START_DISABLED) {
        return;  // already disabled: neither the manager nor the service is touched
    }
    UniqueServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager.Valid()) {
        return;
    }
    UniqueServiceHandle service(OpenServiceA(manager.Get(), WINDOWS_TIME_SERVICE, WINDOWS_TIME_ACCESS));
    if (!service.Valid()) {
        return;
    }
    SERVICE_STATUS status;
    if (!QueryServiceStatus(service.Get(), &status)) {
        return;
    }
    BOOL disabled = FALSE;
    // No wait for the stop to complete: disabling is what keeps it from coming back.
    if (status.dwCurrentState == SERVICE_STOPPED || ControlService(service.Get(), SERVICE_CONTROL_STOP, &status)) {
        disabled = ChangeServiceConfigA(service.Get(), SERVICE_NO_CHANGE, START_DISABLED, SERVICE_NO_CHANGE, nullptr,
                                        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    ConsolePrint("%lu\n", GetLastError());
    if (disabled) {
        ConsolePrint("W32 Time Service successfully disabled...");
    }
    service.Reset();  // the service handle first, then the manager
    manager.Reset();
}
