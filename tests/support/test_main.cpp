// The main of every test binary: no test may ever set the real system clock, so the guard
// driver, whose clock writer only counts, is installed before any test runs.
#include <gtest/gtest.h>

#include "tests/support/virtual_time.h"

int main(int argc, char** argv) {
    InstallGuardDriver();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
