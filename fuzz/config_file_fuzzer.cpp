// Fuzzes the configuration file store end to end: the input becomes a file that is loaded,
// queried and saved unchanged, twice, then changed (one key set, one deleted) and saved. Beyond
// crashes, leaks and undefined behaviour, for any input: every save succeeds and ends its lines
// with a line break; a well-formed file with distinct keys comes back from an unchanged save as it
// was (in text mode), and reloads after any save with the entries the store held.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "config/config_file.h"

namespace {
typedef std::map<std::string, std::string> Entries;
const char SET_KEY[] = "FUZZ_KEY", SET_VALUE[] = "fuzz value \"q\"";

#define CHECK(condition) \
    ((condition) ? (void)0 : (fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition), abort()))

// A fresh directory of this process's own (no mkdtemp on Windows, where the replay also runs).
std::filesystem::path scratch;

void RemoveScratch() {
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
}

std::string ReadText(const std::string& path) {  // in text mode, as the store reads and writes
    std::ifstream file(path);
    CHECK(file.good());
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Every line ends with a line break and fits the line buffer (a longer line is read as two).
bool IsWellFormed(const std::string& text) {
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = text.find('\n', start);
        if (end == std::string::npos || end - start + 1 > 4146) {
            return false;
        }
    }
    return true;
}

// Opens the store and collects its entries; false when a key occurs twice.
bool OpenAndCollect(ConfigFile* file, const std::string& path, Entries* entries) {
    CHECK(OpenConfigFile(file, path.c_str()) == 0);
    bool unique = true;
    for (PtrListNode* node = file->entries->head; node != nullptr; node = node->next) {
        const ConfigEntry* entry = static_cast<const ConfigEntry*>(node->item);
        unique = entries->emplace(entry->key, entry->value).second && unique;
    }
    return unique;
}

// Loads path, changes the store when asked, saves, and checks what the saved file must hold.
void SaveRound(const std::string& path, bool change) {
    const std::string before = ReadText(path);
    ConfigFile file;
    Entries expected;
    const bool checkable = OpenAndCollect(&file, path, &expected) && IsWellFormed(before);
    char value[4];
    GetConfigString(&file, expected.empty() ? "a" : expected.begin()->first.c_str(), value, sizeof value, nullptr);
    if (change) {  // one key set, and the first that can be looked up (49 characters at most) deleted
        CHECK(SetConfigString(&file, SET_KEY, SET_VALUE) == 0);
        expected[SET_KEY] = SET_VALUE;
        const auto deleted = std::find_if(expected.begin(), expected.end(), [](const Entries::value_type& entry) {
            return entry.first.size() <= 49 && entry.first != SET_KEY;
        });
        if (deleted != expected.end()) {
            CHECK(SetConfigString(&file, deleted->first.c_str(), nullptr) == 0);
            expected.erase(deleted);
        }
    }
    CHECK(SaveConfigFile(&file, nullptr) == 0);
    CloseConfigFile(&file);
    const std::string after = ReadText(path);
    CHECK(after.empty() || after.back() == '\n');
    CHECK(!checkable || change || after == before);
    if (checkable && IsWellFormed(after)) {
        Entries reloaded;
        CHECK(OpenAndCollect(&file, path, &reloaded) && reloaded == expected);
        CloseConfigFile(&file);
    }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (scratch.empty()) {
        scratch = std::filesystem::temp_directory_path() / ("config_file_fuzzer." + std::to_string(std::random_device()()));
        CHECK(std::filesystem::create_directory(scratch) && atexit(RemoveScratch) == 0);
    }
    const std::string path = (scratch / "fuzz.dat").string();
    CHECK(std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data), size).good());
    SaveRound(path, false);
    SaveRound(path, false);  // stable if the first left a well-formed file
    SaveRound(path, true);
    return 0;
}
