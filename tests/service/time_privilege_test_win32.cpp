// The right to set the clock, as the token shows it before and after the service enables it.
#include <windows.h>

#include <gtest/gtest.h>

#include "service/service.h"

namespace {
BOOL SystemTimePrivilegeEnabled() {
    HANDLE token = nullptr;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    PRIVILEGE_SET set = {};
    set.PrivilegeCount = 1;
    set.Control = PRIVILEGE_SET_ALL_NECESSARY;
    EXPECT_TRUE(LookupPrivilegeValueA(nullptr, "SeSystemtimePrivilege", &set.Privilege[0].Luid));
    BOOL enabled = FALSE;
    EXPECT_TRUE(PrivilegeCheck(token, &set, &enabled));
    CloseHandle(token);
    return enabled;
}

TEST(TimePrivilege, IsEnabledInTheProcessToken) {
    EXPECT_FALSE(SystemTimePrivilegeEnabled());
    EnableSystemTimePrivilege();
    EXPECT_TRUE(SystemTimePrivilegeEnabled());
}
}  // namespace
