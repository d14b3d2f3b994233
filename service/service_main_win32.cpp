// ServiceMain and the control handler as the service manager sees them: registration, the
// status structure, the stop event and the takeover of the clock. What the service does between
// start and stop is the portable host's (service_host.cpp).
#include <windows.h>

#include "config/directories.h"
#include "runtime/handles_win32.h"
#include "runtime/runtime.h"
#include "runtime/text.h"
#include "service/service.h"
#include "service/service_host.h"
#include "sntp/sntp_control.h"
#include "trouble/trouble_queue.h"
#include "trouble/workstation_report.h"

namespace {
// Own-process and share-process bits both set, deliberately not the 0x10 used at installation.
const DWORD REPORTED_SERVICE_TYPE = SERVICE_WIN32;

SERVICE_STATUS serviceStatus;
SERVICE_STATUS_HANDLE statusHandle = nullptr;
UniqueKernelHandle stopEvent;

void ReportStatus(uint32_t state, uint32_t controlsAccepted) {
    serviceStatus.dwCurrentState = state;
    serviceStatus.dwControlsAccepted = controlsAccepted;
    SetServiceStatus(statusHandle, &serviceStatus);
}

void CreateStopSignal() { stopEvent.Reset(CreateEventA(nullptr, FALSE, FALSE, nullptr)); }
void SignalStop() { SetEvent(stopEvent.Get()); }
void CloseStopSignal() { stopEvent.Reset(); }

int32_t WaitForStop(uint32_t timeoutMs) {
    if (!stopEvent.Valid()) {
        // No event could be made: a wait on nothing would fail at once and spin the loop.
        SleepFor(timeoutMs);
        return 0;
    }
    return WaitForSingleObject(stopEvent.Get(), timeoutMs) == WAIT_OBJECT_0 ? 1 : 0;
}

void TakeOverClock() {
    DisableWindowsTimeService();
    EnableSystemTimePrivilege();
}

void InstallTroubleSink() { SetReportCallback(SendWorkstationReport); }

// The controller reads the whole setting; the caller gets what its buffer holds, cut, never
// overrun.
void ReadSetting(char* setting, uint32_t capacity) {
    char directory[PATH_CAPACITY];
    GetDataDirectory(directory, PATH_CAPACITY);
    char value[SNTP_SETTING_SIZE] = {0};
    ReadSntpIp(value, directory);
    CopyText(setting, value, capacity);
}

uint8_t ServerRole() { return serverRole.load(); }

const ServiceHostCalls HOST_CALLS = {
    ReportStatus, CreateStopSignal, SignalStop, WaitForStop, CloseStopSignal, TakeOverClock,
    InstallTroubleSink, DrainTroubles, ReadSetting, ServerRole, StartSntp, RestartSntp, StopSntp,
};

void WINAPI ServiceControlHandler(DWORD control) { HandleServiceControl(&HOST_CALLS, control); }

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
    RunServiceHost(&HOST_CALLS);
}
}  // namespace

void RunServiceDispatcher() {
    char name[] = NORVIK_SERVICE_NAME;
    SERVICE_TABLE_ENTRYA table[] = {{name, ServiceMain}, {nullptr, nullptr}};
    StartServiceCtrlDispatcherA(table);  // its result is not needed: the process just exits
}
