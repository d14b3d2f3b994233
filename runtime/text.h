// Bounded texts. Every copy and append here writes at most capacity units into its destination
// and forces the destination's last unit to NUL, so over-long text is cut, never rejected, and
// a destination is always terminated. A null source copies as the empty text; a capacity of 0
// writes nothing.
#pragma once

#include <cstdint>

void CopyText(char* destination, const char* source, uint32_t capacity);
// Appends after the first NUL within capacity.
void AppendText(char* destination, const char* suffix, uint32_t capacity);
void CopyText16(char16_t* destination, const char16_t* source, uint32_t capacity);
void AppendText16(char16_t* destination, const char16_t* suffix, uint32_t capacity);

// a..z to A..Z, nothing else: the same in every locale, as the names shared with other
// programs (setting keys, the setting file's lock) must be.
char UpperAscii(char c);
void UpperCaseText(char* text);
