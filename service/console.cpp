// The console of the command words: every result they report goes to standard output, whole and
// at once, so that an installer script that reads it sees each message as soon as it is printed.
#include <cstdarg>
#include <cstdio>

#include "service/service.h"

void ConsolePrint(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    fflush(stdout);
}
