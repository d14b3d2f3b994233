// The installation root a test takes as its own for the life of the object (its setting file and
// resource libraries are found there), forgotten again after it, also when an ASSERT ends the test.
#pragma once

#include "config/config_test_seams.h"

class ScopedInstallRoot {
public:
    explicit ScopedInstallRoot(const char* root) { OverrideInstallRoot(root); }
    ~ScopedInstallRoot() { OverrideInstallRoot(nullptr); }
    ScopedInstallRoot(const ScopedInstallRoot&) = delete;
    ScopedInstallRoot& operator=(const ScopedInstallRoot&) = delete;
};
