// Fuzzes the config store: the input is loaded and saved unchanged twice, then with a key set. Every save
// succeeds and ends its lines; a well-formed file with distinct keys survives an unchanged save and reloads.
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
#define CHECK(condition) \
    ((condition) ? (void)0 : (fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition), abort()))

// This process's own directory (no mkdtemp on Windows, where the replay also runs).
const std::filesystem::path scratch =
    std::filesystem::temp_directory_path() / ("config_file_fuzzer." + std::to_string(std::random_device()()));

std::string ReadText(const std::string& path) {  // in text mode, as the store reads and writes
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Every line ends with a line break and fits the line buffer (a longer line is read as two).
bool IsWellFormed(const std::string& text) {
    for (size_t start = 0, end; start < text.size(); start = end + 1)
        if ((end = text.find('\n', start)) == std::string::npos || end - start + 1 > 4146) return false;
    return true;
}

// Opens the store at path and collects its entries; *unique is false when a key occurs twice.
std::map<std::string, std::string> OpenAndCollect(ConfigFile* file, const std::string& path, bool* unique) {
    CHECK(OpenConfigFile(file, path.c_str()) == 0);
    std::map<std::string, std::string> entries;
    for (PtrListNode* node = file->entries->head; node != nullptr; node = node->next) {
        const ConfigEntry* entry = static_cast<const ConfigEntry*>(node->item);
        *unique = entries.emplace(entry->key, entry->value).second && *unique;
    }
    return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::filesystem::create_directories(scratch);
    const std::string path = (scratch / "fuzz.dat").string();
    CHECK(std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data), size).good());
    for (int round = 0; round < 3; ++round) {  // unchanged twice (stable once well-formed), then with a key set
        const std::string before = ReadText(path);
        ConfigFile file;
        bool checkable = IsWellFormed(before);
        auto expected = OpenAndCollect(&file, path, &checkable);
        if (round == 2) {
            CHECK(SetConfigString(&file, "FUZZ_KEY", "fuzz value \"q\"") == 0);
            expected["FUZZ_KEY"] = "fuzz value \"q\"";
        }
        CHECK(SaveConfigFile(&file, nullptr) == 0 && CloseConfigFile(&file) == 0);
        const std::string after = ReadText(path);
        CHECK(after.empty() || after.back() == '\n');
        CHECK(!checkable || round == 2 || after == before);
        if (checkable && IsWellFormed(after)) {
            CHECK(OpenAndCollect(&file, path, &checkable) == expected && CloseConfigFile(&file) == 0);
        }
    }
    std::filesystem::remove_all(scratch);
    return 0;
}
