// Bounded text copies and appends, narrow and UTF-16, and the locale-free upper-casing.
#include "runtime/text.h"

namespace {
template <typename Unit>
uint32_t BoundedLength(const Unit* text, uint32_t capacity) {
    uint32_t length = 0;
    while (length < capacity && text[length] != 0) {
        ++length;
    }
    return length;
}

// Writes suffix from index at on, then the terminator; the last unit is NUL whatever happened.
template <typename Unit>
void WriteFrom(Unit* destination, uint32_t at, const Unit* suffix, uint32_t capacity) {
    if (destination == nullptr || capacity == 0) {
        return;
    }
    for (uint32_t i = 0; suffix != nullptr && suffix[i] != 0 && at + 1 < capacity; ++i) {
        destination[at++] = suffix[i];
    }
    if (at < capacity) {
        destination[at] = 0;
    }
    destination[capacity - 1] = 0;
}
}  // namespace

void CopyText(char* destination, const char* source, uint32_t capacity) {
    WriteFrom(destination, 0, source, capacity);
}

void AppendText(char* destination, const char* suffix, uint32_t capacity) {
    if (destination != nullptr) {
        WriteFrom(destination, BoundedLength(destination, capacity), suffix, capacity);
    }
}

void CopyText16(char16_t* destination, const char16_t* source, uint32_t capacity) {
    WriteFrom(destination, 0, source, capacity);
}

void AppendText16(char16_t* destination, const char16_t* suffix, uint32_t capacity) {
    if (destination != nullptr) {
        WriteFrom(destination, BoundedLength(destination, capacity), suffix, capacity);
    }
}

char UpperAscii(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

void UpperCaseText(char* text) {
    for (; text != nullptr && *text != '\0'; ++text) {
        *text = UpperAscii(*text);
    }
}
