// Fuzzes the configuration file store end to end: the input becomes a file on disk, which is
// loaded, queried and saved unchanged; the saved file is loaded and saved again, then changed
// (one key set, one deleted), saved and reloaded. Beyond crashes, leaks and undefined behaviour
// it checks what holds for any input:
//  - every save succeeds and every line it writes ends with a line break;
//  - a well-formed file (every line ends with a line break and fits one line buffer) whose keys
//    are all different comes back byte for byte from a save without changes (as text mode
//    reads it: Windows writes each line break as CR LF), so in particular the second round of
//    load and save changes nothing;
//  - in such a file, after a save the set key reads back as set, the deleted key is gone and
//    every other key keeps its value.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <system_error>

#include "config/config_file.h"

namespace {
const size_t LINE_BUFFER_CHARACTERS = 4146;  // a longer line is read as two
const size_t LOOKUP_KEY_MAX = 49;            // longer keys cannot be looked up or deleted
const char SET_KEY[] = "FUZZ_KEY";
const char SET_VALUE[] = "fuzz value \"q\"";

#define CHECK(condition)                                                        \
    do {                                                                        \
        if (!(condition)) {                                                     \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                            \
        }                                                                       \
    } while (0)

const int SCRATCH_NAME_ATTEMPTS = 100;

std::filesystem::path scratchDirectory;

void RemoveScratch() {
    std::error_code ignored;
    std::filesystem::remove_all(scratchDirectory, ignored);
}

// A fresh directory of this process's own in the system's temporary directory (mkdtemp is not
// there on Windows, where the replay of this target also runs).
std::string ScratchPath() {
    static std::string path;
    if (path.empty()) {
        std::error_code error;
        const std::filesystem::path temporary = std::filesystem::temp_directory_path(error);
        CHECK(!error);
        std::random_device entropy;
        for (int attempt = 0; attempt < SCRATCH_NAME_ATTEMPTS && scratchDirectory.empty(); ++attempt) {
            const std::filesystem::path candidate =
                temporary / ("config_file_fuzzer." + std::to_string(entropy()));
            if (std::filesystem::create_directory(candidate, error)) {
                scratchDirectory = candidate;
            }
        }
        CHECK(!scratchDirectory.empty());
        atexit(RemoveScratch);
        path = (scratchDirectory / "fuzz.dat").string();
    }
    return path;
}

void WriteBytes(const std::string& path, const uint8_t* data, size_t size) {
    FILE* stream = fopen(path.c_str(), "wb");
    CHECK(stream != nullptr);
    CHECK(fwrite(data, 1, size, stream) == size);
    fclose(stream);
}

// In text mode, as the store reads and writes: the checks are about what the store sees.
std::string ReadText(const std::string& path) {
    std::string text;
    FILE* stream = fopen(path.c_str(), "r");
    CHECK(stream != nullptr);
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, stream)) > 0) {
        text.append(buffer, got);
    }
    fclose(stream);
    return text;
}

bool IsWellFormed(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos || end - start + 1 > LINE_BUFFER_CHARACTERS) {
            return false;
        }
        start = end + 1;
    }
    return true;
}

// Key to value, or false when a key occurs twice (the list is in key order).
bool CollectUniqueEntries(ConfigFile* file, std::map<std::string, std::string>* entries) {
    entries->clear();
    for (PtrListNode* node = file->entries->head; node != nullptr; node = node->next) {
        const ConfigEntry* entry = static_cast<const ConfigEntry*>(node->item);
        if (!entries->emplace(entry->key, entry->value).second) {
            return false;
        }
    }
    return true;
}

void QueryAFew(ConfigFile* file) {
    char value[256];
    GetConfigString(file, "SNTP_IP", value, sizeof value, "");
    GetConfigString(file, "a", value, 4, nullptr);
    GetConfigString(file, "a", value, 1, "default");
    GetConfigString(file, "a", value, 0, "default");
    if (file->entries->head != nullptr) {
        GetConfigString(file, static_cast<ConfigEntry*>(file->entries->head->item)->key, value,
                        sizeof value, nullptr);
    }
}

// Loads path, saves it unchanged, and checks the result; returns the saved text.
std::string SaveUnchanged(const std::string& path) {
    std::string before = ReadText(path);
    ConfigFile file;
    CHECK(OpenConfigFile(&file, path.c_str()) == 0);
    QueryAFew(&file);
    std::map<std::string, std::string> entries;
    bool unique = CollectUniqueEntries(&file, &entries);
    CHECK(SaveConfigFile(&file, nullptr) == 0);
    CloseConfigFile(&file);
    std::string after = ReadText(path);
    CHECK(after.empty() || after.back() == '\n');
    if (unique && IsWellFormed(before)) {
        CHECK(after == before);
    }
    return after;
}

void SetDeleteAndCheck(const std::string& path) {
    ConfigFile file;
    CHECK(OpenConfigFile(&file, path.c_str()) == 0);
    std::map<std::string, std::string> expected;
    bool checkable = CollectUniqueEntries(&file, &expected) && IsWellFormed(ReadText(path));
    std::string deleted;
    for (const auto& entry : expected) {
        if (entry.first.size() <= LOOKUP_KEY_MAX && entry.first != SET_KEY) {
            deleted = entry.first;
            break;
        }
    }
    CHECK(SetConfigString(&file, SET_KEY, SET_VALUE) == 0);
    expected[SET_KEY] = SET_VALUE;
    if (!deleted.empty()) {
        CHECK(SetConfigString(&file, deleted.c_str(), nullptr) == 0);
        expected.erase(deleted);
    }
    CHECK(SaveConfigFile(&file, nullptr) == 0);
    CloseConfigFile(&file);
    if (!checkable || !IsWellFormed(ReadText(path))) {
        return;
    }
    CHECK(OpenConfigFile(&file, path.c_str()) == 0);
    std::map<std::string, std::string> reloaded;
    CHECK(CollectUniqueEntries(&file, &reloaded));
    CHECK(reloaded == expected);
    CloseConfigFile(&file);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = ScratchPath();
    WriteBytes(path, data, size);
    SaveUnchanged(path);
    SaveUnchanged(path);  // the second round: stable if the first left a well-formed file
    SetDeleteAndCheck(path);
    return 0;
}
