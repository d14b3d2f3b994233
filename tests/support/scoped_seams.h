// The product's test seams, replaced for the life of an object.
#pragma once

#include "config/config_test_seams.h"
#include "net/net_test_seams.h"
#include "runtime/runtime_test_seams.h"

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
using ScopedIpv4Platform = ScopedTable<Ipv4Platform, InstallIpv4Platform>;

// Forgotten after, so the next use computes it from the executable again.
class ScopedInstallRoot {
public:
    explicit ScopedInstallRoot(const char* root) { OverrideInstallRoot(root); }
    ~ScopedInstallRoot() { OverrideInstallRoot(nullptr); }
    ScopedInstallRoot(const ScopedInstallRoot&) = delete;
    ScopedInstallRoot& operator=(const ScopedInstallRoot&) = delete;
};
