// What the test process itself holds: its threads, as the operating system counts them, so that
// a test can show that starts and stops leave none behind.
#pragma once

#include <cstddef>

// Threads of this process now.
size_t CountProcessThreads();
