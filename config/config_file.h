// ConfigFile: a key/value text file loaded into memory (upper-cased keys, values as written),
// answered by key, changed, and written back keeping its layout and comments. Processes that
// share a file serialise each load and save through a mutex named after the file.
#pragma once

#include <cstdint>

#include "runtime/runtime.h"
#include "trouble/ptr_list.h"

struct ConfigEntry {
    char* key;          // owned, upper case
    char* value;        // owned, as read or set; may be empty
    uint32_t modified;  // 1 after a set that created or changed it, 0 once saved
};

struct ConfigFile {
    char* path;         // owned copy, or null
    PtrList* entries;   // ConfigEntry items keyed by their key text, ascending by CompareKeys
    Lock lock;          // taken by get and set
};

// -1, 0 or 1 by unsigned bytes; 1 when either is null.
int32_t CompareKeys(const char* a, const char* b);

// 1 for a null file, else 0 whatever the load gave: a missing file opens as an empty store.
int32_t OpenConfigFile(ConfigFile* file, const char* path);
// 1 when the file cannot be opened for reading, else 0.
int32_t LoadConfigFile(ConfigFile* file, const char* path);
// The value of key (or defaultText, or the empty text) copied into destination; returns
// destination, or defaultText itself for a null file, key or destination or an empty key.
char* GetConfigString(ConfigFile* file, const char* key, char* destination, uint32_t capacity,
                      const char* defaultText);
// Creates or changes an entry; a null value deletes it. 1 for a null file or an empty key.
int32_t SetConfigString(ConfigFile* file, const char* key, const char* value);
// Merges the store into the file as it is on disk now; 0, or 1 on failure.
int32_t SaveConfigFile(ConfigFile* file, const char* path);
int32_t CloseConfigFile(ConfigFile* file);

struct ConfigFileLock;
// The named mutex of the file (its upper-cased file name), waited for without a time limit.
// Null when it cannot be had; the load or save then goes on without it.
ConfigFileLock* LockConfigFile(const char* path);
void ReleaseConfigFileLock(ConfigFileLock* holder);
