// Live heap allocations of the whole process, counted by the simulator's own malloc, free,
// calloc and realloc (which pass to the C library's): the simulator allocates nothing after its
// start, so what changes this count is the service's code and the C library working for it.
#pragma once

#include <cstdint>

extern int64_t liveAllocations;
extern int64_t peakAllocations;  // since the last ResetAllocationPeak
void ResetAllocationPeak();
