// libFuzzer target for the string-table reader: any bytes as a resource file, the table freed with
// the count the reader set, so that a count that does not fit the table shows as a leak or a bad read.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "config/message_texts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* file = tmpfile();  // not fmemopen, which Windows (where the replay also runs) lacks
    if (file == nullptr || fwrite(data, 1, size, file) != size || fseek(file, 0, SEEK_SET) != 0) abort();  // unread: no pass
    char16_t** table = ReadStringTable(file);
    FreeStringTable(table, MessageTextCount());
    return 0;
}
