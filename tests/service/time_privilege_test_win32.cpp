// The right to set the clock, as the token shows it before and after the service enables it.
#include <windows.h>

#include <gtest/gtest.h>

#include "service/service.h"

TEST(TimePrivilege, IsEnabledInTheProcessToken) {
    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    PRIVILEGE_SET set = {1, PRIVILEGE_SET_ALL_NECESSARY, {}};
    ASSERT_TRUE(LookupPrivilegeValueA(nullptr, "SeSystemtimePrivilege", &set.Privilege[0].Luid));
    for (BOOL expected : {FALSE, TRUE}) {
        BOOL enabled = !expected;
        EXPECT_TRUE(PrivilegeCheck(token, &set, &enabled));
        EXPECT_EQ(expected, enabled);
        EnableSystemTimePrivilege();
    }
    CloseHandle(token);
}
