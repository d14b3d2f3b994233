// The right to set the clock, as the token shows it before and after the service enables it.
#include <windows.h>

#include <gtest/gtest.h>

#include "service/service.h"

TEST(TimePrivilege, IsEnabledByTheService) {
    HANDLE token = nullptr;
    const BOOL opened = OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    ASSERT_TRUE(opened);
    PRIVILEGE_SET set = {1, PRIVILEGE_SET_ALL_NECESSARY, {}};
    LookupPrivilegeValueA(nullptr, "SeSystemtimePrivilege", &set.Privilege[0].Luid);
    BOOL before = TRUE;
    BOOL after = FALSE;
    PrivilegeCheck(token, &set, &before);
    EnableSystemTimePrivilege();
    PrivilegeCheck(token, &set, &after);
    CloseHandle(token);
    EXPECT_FALSE(before) << "off in a fresh token";
    EXPECT_TRUE(after);
}
