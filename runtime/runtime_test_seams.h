// The runtime's test seam: what only tests (and the tools that drive the service's parts alone)
// call. A test replaces the platform driver with one of virtual time whose clock writer only
// records; nothing in the service ever calls this.
#pragma once

#include "runtime/platform.h"

// Installs a driver for the whole process; null restores systemDriver. Returns the previous one.
const PlatformDriver* InstallPlatformDriver(const PlatformDriver* driver);

// The driver in force, for a test that replaces one of its entries in a copy.
const PlatformDriver* ActivePlatformDriver();
