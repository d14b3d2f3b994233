// What a test asks of the process it runs in, natively or under Wine alike: its threads as the
// operating system counts them (starts and stops must leave none behind) and its number.
#pragma once

#include <cstddef>
#include <cstdint>

size_t CountProcessThreads();
uint32_t CurrentProcessNumber();
