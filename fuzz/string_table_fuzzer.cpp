// libFuzzer target for the string-table reader: any bytes as a resource file, read through the
// same stdio calls as a file on disk. The table is freed with the count the reader set, so that
// a count that does not fit the table shows as a leak or a bad read.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "config/message_texts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A temporary file rather than fmemopen, which Windows (where the replay also runs) lacks.
    FILE* file = tmpfile();
    if (file == nullptr || fwrite(data, 1, size, file) != size || fseek(file, 0, SEEK_SET) != 0) {
        fprintf(stderr, "string_table_fuzzer: no scratch file, so the input cannot be read\n");
        abort();  // an input that was never read must not pass as tested
    }
    char16_t** table = ReadStringTable(file);
    FreeStringTable(table, MessageTextCount());
    return 0;
}
