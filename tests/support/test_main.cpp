// The main of every test binary: the guard driver first, so no test can set the real clock.
#include <gtest/gtest.h>

#include "tests/support/virtual_time.h"

int main(int argc, char** argv) {
    InstallGuardDriver();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
