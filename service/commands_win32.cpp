// The command words: install, uninstall and the sending of a user-defined control, each one
// action on the local service control manager, told on standard output only.
#include <windows.h>

#include <cstdlib>

#include "runtime/handles_win32.h"
#include "service/service.h"

namespace {
const DWORD MODULE_PATH_LIMIT = MAX_PATH;               // GetModuleFileNameA's limit
const size_t QUOTED_PATH_SIZE = MODULE_PATH_LIMIT + 3;  // quote, path, quote, NUL
}  // namespace

void InstallService() {
    UniqueServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    if (!manager.Valid()) {
        ConsolePrint("no manager: %lu\n", GetLastError());
        return;
    }
    char quoted[QUOTED_PATH_SIZE];
    quoted[0] = '"';
    const DWORD length = GetModuleFileNameA(nullptr, quoted + 1, MODULE_PATH_LIMIT);
    if (length == 0) {
        return;
    }
    const size_t end = 1 + static_cast<size_t>(length) + 1;
    if (end >= QUOTED_PATH_SIZE) {
        abort();  // cannot happen with the 260 limit; a broken invariant must not go on
    }
    quoted[end - 1] = '"';
    quoted[end] = '\0';

    UniqueServiceHandle service(CreateServiceA(manager.Get(), NORVIK_SERVICE_NAME, NORVIK_SERVICE_NAME,
                                               SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START,
                                               SERVICE_ERROR_NORMAL, quoted, nullptr, nullptr, nullptr, nullptr,
                                               nullptr));
    if (!service.Valid()) {
        ConsolePrint("no service: %lu\n", GetLastError());
        return;
    }
    SERVICE_DELAYED_AUTO_START_INFO delayed = {TRUE};
    ChangeServiceConfig2A(service.Get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed);  // best effort
    StartServiceA(service.Get(), 0, nullptr);  // a start failure is not reported
    service.Reset();
    ConsolePrint("Service successfully added...");
}

void UninstallService() {
    UniqueServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager.Valid()) {
        ConsolePrint("no manager: %lu\n", GetLastError());
        return;
    }
    UniqueServiceHandle service(OpenServiceA(manager.Get(), NORVIK_SERVICE_NAME, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS));
    if (!service.Valid()) {
        ConsolePrint("no service: %lu\n", GetLastError());
        return;
    }
    SERVICE_STATUS status;
    if (!QueryServiceStatus(service.Get(), &status)) {
        ConsolePrint("no query: %lu\n", GetLastError());
        return;
    }
    if (status.dwCurrentState == SERVICE_STOPPED) {
        ConsolePrint("stopped : %lu\n", GetLastError());  // informational: whatever the last error is
    } else if (!ControlService(service.Get(), SERVICE_CONTROL_STOP, &status)) {
        // Both lines tell the refused stop's error; read once, before printing could change it.
        const DWORD refused = GetLastError();
        ConsolePrint("no service : %lu\n", refused);
        ConsolePrint("no remove: %lu\n", refused);
        return;
    }
    // No wait for the stopped state: the manager deletes the service once it has stopped.
    if (DeleteService(service.Get())) {
        ConsolePrint("Service successfully removed...");
    } else {
        ConsolePrint("no remove: %lu\n", GetLastError());
    }
}

void SendServiceCommand(int32_t number) {
    if (ControlNumberAllowed(number) == 0) {
        ConsolePrint("Invalid command...");
        return;
    }
    UniqueServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager.Valid()) {
        return;
    }
    UniqueServiceHandle service(OpenServiceA(manager.Get(), NORVIK_SERVICE_NAME, SERVICE_USER_DEFINED_CONTROL | SERVICE_QUERY_STATUS));
    if (!service.Valid()) {
        return;
    }
    SERVICE_STATUS status;
    if (!QueryServiceStatus(service.Get(), &status)) {
        return;
    }
    // A stopped service is sent nothing, and the command still counts as performed.
    if (status.dwCurrentState == SERVICE_STOPPED ||
        ControlService(service.Get(), static_cast<DWORD>(number), &status)) {
        ConsolePrint("Service command performed...");
    }
}
