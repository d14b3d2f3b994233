// libFuzzer target for the string-table reader: any bytes as a resource file, read from memory
// through the same stdio calls as a file on disk. The table is freed with the count the reader set.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "config/message_texts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // fmemopen wants a writable buffer and rejects an empty one.
    std::vector<uint8_t> bytes(data, data + size);
    FILE* file = size == 0 ? tmpfile() : fmemopen(bytes.data(), size, "rb");
    if (file == nullptr) {
        return 0;
    }
    char16_t** table = ReadStringTable(file);
    FreeStringTable(table, MessageTextCount());
    return 0;
}
