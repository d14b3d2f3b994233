// A stand-in service for the end-to-end tests: under another service's name (W32Time) it reports
// running and stops when told, so the takeover can be watched without the real one. With
// "refuse-stop" after the name it accepts no stop and ends by itself after 20 s, as a stuck
// service would meet uninstall.
#include <windows.h>

namespace {
SERVICE_STATUS status;
SERVICE_STATUS_HANDLE statusHandle = nullptr;
HANDLE stopEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
char* serviceName = nullptr;
bool refuseStop = false;

void WINAPI Handler(DWORD control) {
    const bool stop = control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN;
    status.dwCurrentState = stop ? SERVICE_STOP_PENDING : status.dwCurrentState;
    SetServiceStatus(statusHandle, &status);
    if (stop) {  // only now: the service thread then reports stopped, which must come last
        SetEvent(stopEvent);
    }
}

void WINAPI StandInMain(DWORD, LPSTR*) {
    statusHandle = RegisterServiceCtrlHandlerA(serviceName, Handler);
    status = {SERVICE_WIN32_OWN_PROCESS, SERVICE_RUNNING,
              refuseStop ? 0ul : SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN, 0, 0, 0, 0};
    SetServiceStatus(statusHandle, &status);
    WaitForSingleObject(stopEvent, refuseStop ? 20000 : INFINITE);
    status.dwCurrentState = SERVICE_STOPPED;
    status.dwControlsAccepted = 0;
    SetServiceStatus(statusHandle, &status);
}
}  // namespace

int main(int argc, char** argv) {
    serviceName = argv[argc >= 2 ? 1 : 0];
    refuseStop = argc >= 3 && lstrcmpA(argv[2], "refuse-stop") == 0;
    SERVICE_TABLE_ENTRYA table[] = {{serviceName, StandInMain}, {nullptr, nullptr}};
    StartServiceCtrlDispatcherA(table);
}
