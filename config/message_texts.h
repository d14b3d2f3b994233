// Localised message texts: the string table of res<language id>.dll, read once from the file,
// answered by message id with the caller's default when there is no text. Also selects the
// display profile of the operator's language.
#pragma once

#include <cstdint>
#include <cstdio>

// US English: the fallback of every language, and the only one off Windows.
const uint16_t LANGUAGE_ENGLISH_US = 1033;

struct LanguageProfile {
    uint32_t primaryLanguage;  // Windows primary language id, compared in its low 16 bits
    int32_t rightToLeft;
    char fontFace[256];
    int32_t pointSize;
    int32_t reserved1;
    int32_t reserved2;
    int32_t charset;
};

const uint32_t LANGUAGE_PROFILE_COUNT = 9;
extern const LanguageProfile languageProfiles[LANGUAGE_PROFILE_COUNT];
// The selected profile: the first row until a language matches.
extern const LanguageProfile* currentProfile;

typedef void* ModuleHandle;

// First call: reads the table of the thread's language; 0 if the language has a profile row,
// else 1. Later calls only count and return 0.
int32_t InitMessageTexts();
// The same for a given language id (the pure core of InitMessageTexts, used by tests). Loads
// whatever earlier calls did, replacing the table, and counts as one initialisation.
int32_t InitMessageTextsFor(uint16_t languageId);
// The text of id, or defaultText, copied into destination (capacity units); returns destination.
char16_t* GetMessageText(uint32_t id, char16_t* destination, uint32_t capacity, const char16_t* defaultText);
// The first of res<id>.dll, res<primary|0x400>.dll, res1033.dll under <root>\Applications\System
// that loads; its path (narrow) into pathOut when not null. Null when none loads.
ModuleHandle FindResourceDll(uint16_t languageId, char* pathOut);
// LoadLibraryW of name; a name without a backslash is taken from <root>\Applications\Controls\.
ModuleHandle LoadControlModule(const char16_t* name);
// Reads the string table of an open resource file and always closes it. Sets the text count.
char16_t** ReadStringTable(FILE* file);
void FreeMessageTexts();
// The slot count that the last ReadStringTable set (0 after FreeMessageTexts).
uint32_t MessageTextCount();
// Frees a table that ReadStringTable returned, with the count it set.
void FreeStringTable(char16_t** table, uint32_t count);

// The platform half (message_texts_win32.cpp, message_texts_posix.cpp).
// Low 16 bits of GetThreadLocale; POSIX has no thread locale and answers 1033.
uint16_t ReadThreadLanguage();
// LoadLibraryW of path. POSIX: a non-null token when path (backslashes read as slashes) is a
// regular file that can be opened.
ModuleHandle OpenLibraryModule(const char16_t* path);
// FreeLibrary; nothing on POSIX. Null is ignored.
void CloseLibraryModule(ModuleHandle module);
// fopen(path, "rb"); POSIX reads backslashes as slashes first.
FILE* OpenResourceFile(const char* path);
