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
#include <system_error>

#include "config/config_file.h"

namespace {
const char FUZZ_VALUE[] = "fuzz value \"q\"";

// This process's own directory (no mkdtemp on Windows, where the replay also runs).
const std::filesystem::path scratch =
    std::filesystem::temp_directory_path() / ("config_file_fuzzer." + std::to_string(std::random_device()()));

// libFuzzer keeps the input that fails a check as a crash; the scratch directory goes first, as
// no later input of this process will remove it.
void Check(bool holds, const char* condition, int line) {
    if (!holds) {
        fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, line, condition);
        std::error_code ignored;
        std::filesystem::remove_all(scratch, ignored);
        abort();
    }
}
#define CHECK(condition) Check((condition), #condition, __LINE__)

std::string ReadText(const std::string& path) {  // in text mode, as the store reads and writes
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Every line ends with a line break and fits the line buffer (a longer line is read as two).
bool IsWellFormed(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        if (end == std::string::npos || end - start + 1 > 4146) return false;
        start = end + 1;
    }
    return true;
}

// *unique is false when a key occurs twice.
std::map<std::string, std::string> Collect(const ConfigFile& file, bool* unique) {
    std::map<std::string, std::string> entries;
    *unique = true;
    for (PtrListNode* node = file.entries->head; node != nullptr; node = node->next) {
        const ConfigEntry* entry = static_cast<const ConfigEntry*>(node->item);
        *unique = entries.emplace(entry->key, entry->value).second && *unique;
    }
    return entries;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::filesystem::create_directories(scratch);
    const std::string path = (scratch / "fuzz.dat").string();
    const bool written = std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data), size).good();
    CHECK(written);
    for (int round = 0; round < 3; ++round) {  // unchanged twice (stable once well-formed), then with a key set
        const std::string before = ReadText(path);
        ConfigFile file;
        const int32_t opened = OpenConfigFile(&file, path.c_str());
        CHECK(opened == 0);
        bool unique = true;
        auto expected = Collect(file, &unique);
        const bool checkable = unique && IsWellFormed(before);
        if (round == 2) {
            const int32_t set = SetConfigString(&file, "FUZZ_KEY", FUZZ_VALUE);
            CHECK(set == 0);
            expected["FUZZ_KEY"] = FUZZ_VALUE;
        }
        const int32_t saved = SaveConfigFile(&file, nullptr);
        const int32_t closed = CloseConfigFile(&file);
        CHECK(saved == 0);
        CHECK(closed == 0);
        const std::string after = ReadText(path);
        CHECK(after.empty() || after.back() == '\n');
        CHECK(!checkable || round == 2 || after == before);
        if (checkable && IsWellFormed(after)) {
            ConfigFile reloaded;
            OpenConfigFile(&reloaded, path.c_str());
            const auto entries = Collect(reloaded, &unique);
            CloseConfigFile(&reloaded);
            CHECK(entries == expected);
        }
    }
    std::filesystem::remove_all(scratch);
#ifndef _WIN32
    // The store never removes its lock files; the one of fuzz.dat is this target's.
    std::error_code ignored;
    std::filesystem::remove("/tmp/NorvikConfig.FUZZ.DAT.lock", ignored);
#endif
    return 0;
}
