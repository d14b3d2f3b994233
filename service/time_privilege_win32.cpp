// The right to set the clock: enabled in the service's own token before synchronisation starts.
#include <windows.h>

#include "runtime/handles_win32.h"
#include "service/service.h"

namespace {
const char SYSTEM_TIME_PRIVILEGE[] = "SeSystemtimePrivilege";
const DWORD ONE_PRIVILEGE_SIZE = sizeof(TOKEN_PRIVILEGES);  // 16 bytes
}  // namespace

// A privilege that was not granted goes unnoticed here; the clock setting then simply fails.
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
