// The product's test seams, replaced for the life of an object and put back after it, also when an
// ASSERT ends the test early: the platform driver, the socket calls, the IPv4 calls, the
// installation root.
#pragma once

#include "config/config_test_seams.h"
#include "net/net_test_seams.h"
#include "runtime/runtime_test_seams.h"

// One of the process-wide tables of platform calls; the one in force before comes back.
template <typename Table, const Table* (*Install)(const Table*)>
class ScopedTable {
public:
    explicit ScopedTable(const Table* table) : previous_(Install(table)) {}
    ~ScopedTable() { Install(previous_); }
    ScopedTable(const ScopedTable&) = delete;
    ScopedTable& operator=(const ScopedTable&) = delete;

private:
    const Table* previous_;
};

using ScopedPlatformDriver = ScopedTable<PlatformDriver, InstallPlatformDriver>;
using ScopedSocketPlatform = ScopedTable<SocketPlatform, InstallSocketPlatform>;
using ScopedIpv4Platform = ScopedTable<Ipv4Platform, InstallIpv4Platform>;

// The installation root a test takes as its own (its setting file and resource libraries are
// found there); forgotten after, so the next use computes it from the executable again.
class ScopedInstallRoot {
public:
    explicit ScopedInstallRoot(const char* root) { OverrideInstallRoot(root); }
    ~ScopedInstallRoot() { OverrideInstallRoot(nullptr); }
    ScopedInstallRoot(const ScopedInstallRoot&) = delete;
    ScopedInstallRoot& operator=(const ScopedInstallRoot&) = delete;
};
