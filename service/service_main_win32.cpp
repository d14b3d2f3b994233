// ServiceMain and ServiceControlHandler: the service's status, the takeover of the clock, the
// supervision loop that delivers troubles every 100 ms and re-checks the configured role once a
// minute, and the shutdown order. The handler runs on the dispatcher's thread (the main thread).
#include <windows.h>

#include "config/directories.h"
#include "runtime/runtime.h"
#include "runtime/handles_win32.h"
#include "service/service.h"
#include "sntp/sntp_control.h"
#include "trouble/trouble_queue.h"
#include "trouble/workstation_report.h"

Lock controlLock;

namespace {
// Made before main runs and deleted at process exit, so both threads always find it.
struct ControlLockLifetime {
    ControlLockLifetime() { InitLock(&controlLock); }
    ~ControlLockLifetime() { DeleteLock(&controlLock); }
} controlLockLifetime;

// Own-process and share-process bits both set, deliberately not the 0x10 used at installation.
const DWORD REPORTED_SERVICE_TYPE = SERVICE_WIN32;
const DWORD ACCEPTED_WHEN_RUNNING = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
const char SYSTEM_TIME_PRIVILEGE[] = "SeSystemtimePrivilege";
const DWORD ONE_PRIVILEGE_SIZE = sizeof(TOKEN_PRIVILEGES);  // 16 bytes

SERVICE_STATUS serviceStatus;
SERVICE_STATUS_HANDLE statusHandle = nullptr;
UniqueKernelHandle stopEvent;

void ReportState(DWORD state) {
    serviceStatus.dwCurrentState = state;
    SetServiceStatus(statusHandle, &serviceStatus);
}

// Gives the process the right to set the clock. A privilege that was not granted goes
// unnoticed here; the clock setting then simply fails.
void EnableSystemTimePrivilege() {
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token);
    UniqueTokenHandle owned(token);
    LUID privilege;
    if (LookupPrivilegeValueA(nullptr, SYSTEM_TIME_PRIVILEGE, &privilege)) {
        TOKEN_PRIVILEGES privileges;
        privileges.PrivilegeCount = 1;
        privileges.Privileges[0].Luid = privilege;
        privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
        if (AdjustTokenPrivileges(token, FALSE, &privileges, ONE_PRIVILEGE_SIZE, nullptr, nullptr)) {
            GetLastError();  // ERROR_NOT_ALL_ASSIGNED would be here; deliberately not acted on
        }
    }
}

void WINAPI ServiceControlHandler(DWORD control) {
    switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
        ReportState(SERVICE_STOP_PENDING);
        SetEvent(stopEvent.Get());
        return;
    case CONTROL_FORCE_RESTART:
        // The whole restart, its 1200 ms pause included, runs before the manager is answered.
        EnterLock(&controlLock);
        RestartSntp();
        LeaveLock(&controlLock);
        SetServiceStatus(statusHandle, &serviceStatus);
        return;
    default:
        // Pause, continue, interrogate and the other user controls: report, change nothing.
        SetServiceStatus(statusHandle, &serviceStatus);
        return;
    }
}

void RecheckRole(uint32_t* address) {
    char directory[PATH_CAPACITY];
    GetDataDirectory(directory, PATH_CAPACITY);
    char setting[SNTP_SETTING_SIZE];
    ReadSntpIp(setting, directory);
    if (RoleChangeNeeded(setting, address, serverRole.load()) != 0) {
        EnterLock(&controlLock);
        RestartSntp();
        LeaveLock(&controlLock);
    }
}

void WINAPI ServiceMain(DWORD, LPSTR*) {
    serviceStatus.dwServiceType = REPORTED_SERVICE_TYPE;
    serviceStatus.dwCurrentState = SERVICE_STOPPED;
    serviceStatus.dwControlsAccepted = 0;
    serviceStatus.dwWin32ExitCode = 0;
    serviceStatus.dwServiceSpecificExitCode = 0;
    serviceStatus.dwCheckPoint = 0;
    serviceStatus.dwWaitHint = 0;

    statusHandle = RegisterServiceCtrlHandlerA(NORVIK_SERVICE_NAME, ServiceControlHandler);
    if (statusHandle == nullptr) {
        return;
    }
    // Made before stop is accepted: a stop that arrives right after "running" is then never lost
    // on an event that does not exist yet.
    stopEvent.Reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    ReportState(SERVICE_START_PENDING);
    // Running is reported before any of the service's own work, so that the manager never
    // waits on the takeover of W32Time or on the first reading of the setting.
    serviceStatus.dwControlsAccepted |= ACCEPTED_WHEN_RUNNING;
    ReportState(SERVICE_RUNNING);

    DisableWindowsTimeService();
    EnableSystemTimePrivilege();
    SetReportCallback(SendWorkstationReport);
    StartSntp();
    TickTimer recheckTimer;
    StartTimer(&recheckTimer, RECHECK_INTERVAL_MS);

    // 0.0.0.0 is never this host's, so until a setting parses every re-check sees a change.
    uint32_t address = 0;
    for (;;) {
        DrainTroubles();
        if (TimerExpired(&recheckTimer)) {
            RecheckRole(&address);
            RestartTimer(&recheckTimer);
        }
        if (WaitForSingleObject(stopEvent.Get(), SUPERVISION_STEP_MS) == WAIT_OBJECT_0) {
            break;
        }
    }

    ReportState(SERVICE_STOP_PENDING);
    stopEvent.Reset();
    // The clears that StopSntp queues are never drained: a trouble that is still true when the
    // service stops must not read as resolved on the operator's workstation.
    StopSntp();
    serviceStatus.dwControlsAccepted &= ~ACCEPTED_WHEN_RUNNING;
    ReportState(SERVICE_STOPPED);
    ReleaseTimer(&recheckTimer);
}
}  // namespace

void RunServiceDispatcher() {
    char name[] = NORVIK_SERVICE_NAME;
    SERVICE_TABLE_ENTRYA table[] = {{name, ServiceMain}, {nullptr, nullptr}};
    StartServiceCtrlDispatcherA(table);  // its result is not needed: the process just exits
}
