// What a test asks of the host it runs on, natively or under Wine alike: its threads as the
// operating system counts them (starts and stops must leave none behind), its process number, its
// name for a host path, and detached shell scripts on the Linux host (Wine's CreateProcess starts a
// Unix program but gives no handle to wait on, so scripts report their end through files).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

size_t CountProcessThreads();
uint32_t CurrentProcessNumber();
// The name under which this process opens a path of the Linux host.
std::string LocalPathOf(const std::string& hostPath);
// Starts /bin/sh with the script's host path, detached. True when started.
bool LaunchHostShell(const std::string& scriptHostPath);
