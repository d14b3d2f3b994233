// libFuzzer target for the string-table reader: any bytes as a resource file, read from memory
// through the same stdio calls as a file on disk. The table is freed with the count the reader set.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "config/message_texts.h"

#ifdef _WIN32
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>
#endif

namespace {
#ifdef _WIN32
const int SCRATCH_NAME_ATTEMPTS = 100;

std::filesystem::path scratchDirectory;

void RemoveScratch() {
    std::error_code ignored;
    std::filesystem::remove_all(scratchDirectory, ignored);
}

[[noreturn]] void ScratchFailed() {
    std::fprintf(stderr, "string_table_fuzzer: no scratch file, so the input cannot be read\n");
    std::abort();  // an input that was never read must not pass as tested
}

// Windows has no fmemopen (only the replay of this target runs there): the bytes go through a
// file in a scratch directory of this process, written anew and reopened for reading each time.
FILE* OpenBytes(std::vector<uint8_t>& bytes) {
    static std::string path;
    if (path.empty()) {
        std::error_code error;
        const std::filesystem::path temporary = std::filesystem::temp_directory_path(error);
        std::random_device entropy;
        for (int attempt = 0; !error && attempt < SCRATCH_NAME_ATTEMPTS && scratchDirectory.empty(); ++attempt) {
            const std::filesystem::path candidate = temporary / ("string_table_fuzzer." + std::to_string(entropy()));
            if (std::filesystem::create_directory(candidate, error)) {
                scratchDirectory = candidate;
            }
        }
        if (scratchDirectory.empty()) {
            ScratchFailed();
        }
        atexit(RemoveScratch);
        path = (scratchDirectory / "input.dll").string();
    }
    FILE* output = std::fopen(path.c_str(), "wb");
    if (output == nullptr) {
        ScratchFailed();
    }
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), output) == bytes.size();
    if (std::fclose(output) != 0 || !written) {
        ScratchFailed();
    }
    FILE* input = std::fopen(path.c_str(), "rb");
    if (input == nullptr) {
        ScratchFailed();
    }
    return input;
}
#else
FILE* OpenBytes(std::vector<uint8_t>& bytes) {
    // fmemopen wants a writable buffer and rejects an empty one.
    return bytes.empty() ? tmpfile() : fmemopen(bytes.data(), bytes.size(), "rb");
}
#endif
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);  // must outlive the stream
    FILE* file = OpenBytes(bytes);
    if (file == nullptr) {
        return 0;
    }
    char16_t** table = ReadStringTable(file);
    FreeStringTable(table, MessageTextCount());
    return 0;
}
