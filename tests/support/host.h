// The test process's threads as the operating system counts them, and its number.
#pragma once

#include <cstddef>
#include <cstdint>

size_t CountProcessThreads();
uint32_t CurrentProcessNumber();
