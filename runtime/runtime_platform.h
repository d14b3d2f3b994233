// The runtime's own edge: what runtime_win32.cpp and runtime_posix.cpp provide to runtime.cpp,
// and what runtime.cpp provides to them. Not for other folders, which use runtime.h.
#pragma once

#include <cstdint>

#include "runtime/runtime.h"

// The platform lock calls, handed a Lock that is never null.
void InitPlatformLock(Lock* lock);
void DeletePlatformLock(Lock* lock);
void EnterPlatformLock(Lock* lock);
void LeavePlatformLock(Lock* lock);

// What a new thread is handed: its function and argument, allocated by the starter.
struct ThreadStartBlock {
    ThreadFunction function;
    uint64_t argument;
};

// A block for function(argument), or null for a null function or when it cannot be allocated.
ThreadStartBlock* NewThreadStartBlock(ThreadFunction function, uint64_t argument);
void FreeThreadStartBlock(ThreadStartBlock* block);
// The new thread's body: frees the block and runs the function. An exception that escapes it ends
// the process with status 1, as nothing above a thread could handle it.
uint32_t RunThreadStartBlock(void* block);
