// What a test asks of the host it runs on, natively or under Wine alike: its threads as the
// operating system counts them (starts and stops must leave none behind), its process number, and
// detached shell scripts on the Linux host (Wine's CreateProcess starts a Unix program directly but
// gives no handle to wait on, so scripts report their end through files: see chrony_peer.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

size_t CountProcessThreads();
uint32_t CurrentProcessNumber();
// Starts /bin/sh with the script's host path, detached. True when started.
bool LaunchHostShell(const std::string& scriptHostPath);
