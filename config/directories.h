// Installation directories: the root is the drive and first directory of the executable's own
// path (C:\Plant\Applications\Time\x.exe gives C:\Plant), computed once and cached; the data
// directory is <root>\Data\System. Narrow paths, 260-byte buffers.
#pragma once

#include <cstdint>

const uint32_t PATH_CAPACITY = 260;

// Copies the root into destination (at most capacity bytes, the last byte forced to NUL;
// nothing with capacity 0). Returns 0.
int32_t GetInstallRoot(char* destination, uint32_t capacity);
// <root>\Data\System into destination. 1 for a null destination, else 0.
int32_t GetDataDirectory(char* destination, uint32_t capacity);

// The rule, as a pure function of the module path: cut at the first backslash at or after
// index 3, keep the low byte of each unit, '|' becomes '!', at most 259 characters and a NUL.
// root must hold PATH_CAPACITY bytes; a null modulePath gives the empty root.
void ComputeInstallRoot(const char16_t* modulePath, char* root);


// The module whose path gives the root. Null (the service never sets it) names the running
// executable; a host that loads this code as a library would set its own module handle.
extern void* moduleHandle;

// The installation's paths are Windows paths: this makes one a path this platform opens
// (unchanged on Windows; backslashes as slashes on POSIX). In place, NUL-terminated.
void ToPlatformPath(char* path);

// The platform half: the path of moduleHandle's file (GetModuleFileNameW; /proc/self/exe on
// POSIX, one unit per byte), at most capacity-1 units and a NUL; empty when it cannot be read.
void ReadModulePath(char16_t* path, uint32_t capacity);
