// A stand-in service for the end-to-end tests: registered under another service's name (W32Time),
// it reports running and stops when told, so the takeover can be watched without the real one.
// With "refuse-stop" after the name it accepts no stop and ends by itself after a while, as a
// service that is stuck would be met by uninstall.
#include <windows.h>

namespace {
SERVICE_STATUS status;
SERVICE_STATUS_HANDLE statusHandle = nullptr;
HANDLE stopEvent = nullptr;
char serviceName[256] = "W32Time";
bool refuseStop = false;
const DWORD STUCK_MS = 20000;

void WINAPI Handler(DWORD control) {
    if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
        status.dwCurrentState = SERVICE_STOP_PENDING;
        SetServiceStatus(statusHandle, &status);
        SetEvent(stopEvent);
        return;
    }
    SetServiceStatus(statusHandle, &status);
}

void WINAPI StandInMain(DWORD, LPSTR*) {
    statusHandle = RegisterServiceCtrlHandlerA(serviceName, Handler);
    if (statusHandle == nullptr) {
        return;
    }
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwControlsAccepted = refuseStop ? 0 : SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    status.dwCurrentState = SERVICE_RUNNING;
    stopEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    SetServiceStatus(statusHandle, &status);
    WaitForSingleObject(stopEvent, refuseStop ? STUCK_MS : INFINITE);
    status.dwCurrentState = SERVICE_STOPPED;
    status.dwControlsAccepted = 0;
    SetServiceStatus(statusHandle, &status);
}
}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2) {
        lstrcpynA(serviceName, argv[1], sizeof serviceName);
    }
    refuseStop = argc >= 3 && lstrcmpA(argv[2], "refuse-stop") == 0;
    SERVICE_TABLE_ENTRYA table[] = {{serviceName, StandInMain}, {nullptr, nullptr}};
    StartServiceCtrlDispatcherA(table);
    return 0;
}
