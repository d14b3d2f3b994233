// ConfigFile: the key/value file store. Owns the line format (tokens, quoting, comments), the
// in-memory entry list, lookups and changes, and the save that merges the store back into the
// file on disk through a backup copy. The inter-process lock lives in config_lock_*.cpp.
#include "config/config_file.h"

#include "runtime/text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
const size_t CONFIG_LINE_BUFFER = 4147;                       // bytes per line piece, NUL included
const size_t CONFIG_LINE_MAX = CONFIG_LINE_BUFFER - 1;        // characters per line piece
const size_t CONFIG_KEY_READ_MAX = 55;                        // characters of a key as read
const size_t CONFIG_KEY_LOOKUP_MAX = 49;                      // characters of a key looked up or set
const size_t CONFIG_VALUE_MAX = 4095;                         // characters of a value
const size_t CONFIG_KEY_WRITE_CAPACITY = 50;                  // bytes of a quoted key, NUL included
const size_t CONFIG_VALUE_WRITE_CAPACITY = 4096;              // bytes of a quoted value, NUL included

// The format is defined by the C locale, whatever locale the process may have chosen.
bool IsFormatSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

char* DuplicateText(const char* text, size_t maxLength) {
    size_t length = strnlen(text, maxLength);
    char* copy = static_cast<char*>(malloc(length + 1));
    if (copy != nullptr) {
        memcpy(copy, text, length);
        copy[length] = '\0';
    }
    return copy;
}

int32_t CompareEntryKeys(const void* nodeKey, const void* key) {
    return CompareKeys(static_cast<const char*>(nodeKey), static_cast<const char*>(key));
}

void FreeEntry(ConfigEntry* entry) {
    free(entry->key);
    free(entry->value);
    free(entry);
}

void FreeEntries(PtrList* entries) {
    void* item;
    while ((item = PopFrontPtrList(entries)) != nullptr) {
        FreeEntry(static_cast<ConfigEntry*>(item));
    }
}

ConfigEntry* FindEntry(const ConfigFile* file, const char* key) {
    return static_cast<ConfigEntry*>(FindPtrList(file->entries, key));
}

// The key as lookups and sets see it: its first 49 characters, upper-cased.
void MakeLookupKey(const char* key, char (&lookup)[CONFIG_KEY_LOOKUP_MAX + 1]) {
    CopyText(lookup, key, static_cast<uint32_t>(sizeof lookup));
    UpperCaseText(lookup);
}

// One piece of a line, as fgets would read it into the line buffer: up to and including the
// next LF, or CONFIG_LINE_MAX characters. The length is kept so that NUL bytes inside the
// line survive a save. Returns false at the end of the file.
bool ReadLinePiece(FILE* stream, char (&line)[CONFIG_LINE_BUFFER], size_t* length) {
    size_t used = 0;
    while (used < CONFIG_LINE_MAX) {
        int c = getc(stream);
        if (c == EOF) {
            break;
        }
        line[used++] = static_cast<char>(c);
        if (c == '\n') {
            break;
        }
    }
    line[used] = '\0';
    *length = used;
    return used > 0;
}

enum LineKind {
    LINE_WITHOUT_KEY,       // blank, comment, or an empty key
    LINE_COMMENTED_VALUE,   // a key followed by '#': the whole line is ignored
    LINE_ENTRY,
};

struct ParsedLine {
    char key[CONFIG_KEY_READ_MAX + 1];  // as written, not yet upper-cased
    char value[CONFIG_VALUE_MAX + 1];
    size_t restOffset;                  // where the text after the value token starts
};

// Reads one token starting at offset; keeps at most capacity - 1 of its characters but always
// consumes all of it. Returns the offset just after the token.
size_t ReadToken(const char* text, size_t offset, size_t end, char* token, size_t capacity) {
    size_t used = 0;
    if (offset < end && text[offset] == '"') {
        ++offset;
        while (offset < end) {
            char c = text[offset++];
            if (c == '"') {
                if (offset < end && text[offset] == '"') {
                    ++offset;  // a doubled quote stands for one
                } else {
                    break;     // the next token may follow right after the closing quote
                }
            }
            if (used + 1 < capacity) {
                token[used++] = c;
            }
        }
    } else {
        while (offset < end && !IsFormatSpace(text[offset])) {
            if (used + 1 < capacity) {
                token[used++] = text[offset];
            }
            ++offset;
        }
    }
    token[used] = '\0';
    return offset;
}

size_t SkipSpace(const char* text, size_t offset, size_t end) {
    while (offset < end && IsFormatSpace(text[offset])) {
        ++offset;
    }
    return offset;
}

// Parses the key and value of a line of the given length. The line ends for parsing at its
// first LF, CR or NUL; what follows belongs to the rest of the line.
LineKind ParseLine(const char* line, size_t length, ParsedLine* parsed) {
    size_t end = 0;
    while (end < length && line[end] != '\0' && line[end] != '\n' && line[end] != '\r') {
        ++end;
    }
    size_t offset = SkipSpace(line, 0, end);
    if (offset == end || line[offset] == '#') {
        return LINE_WITHOUT_KEY;
    }
    offset = ReadToken(line, offset, end, parsed->key, sizeof parsed->key);
    if (parsed->key[0] == '\0') {
        return LINE_WITHOUT_KEY;
    }
    offset = SkipSpace(line, offset, end);
    if (offset < end && line[offset] == '#') {
        return LINE_COMMENTED_VALUE;
    }
    parsed->restOffset = ReadToken(line, offset, end, parsed->value, sizeof parsed->value);
    return LINE_ENTRY;
}

// Writes token as the format reads it back: empty stays empty; a token that starts with a
// quote or holds white space is quoted with inner quotes doubled. Cut to capacity - 1 bytes,
// so a very long token can lose its closing quote.
void QuoteToken(const char* token, char* quoted, size_t capacity) {
    bool needsQuotes = token[0] == '"';
    for (const char* c = token; *c != '\0' && !needsQuotes; ++c) {
        needsQuotes = IsFormatSpace(*c);
    }
    if (!needsQuotes) {
        CopyText(quoted, token, static_cast<uint32_t>(capacity));
        return;
    }
    size_t used = 0;
    auto append = [&](char c) {
        if (used + 1 < capacity) {
            quoted[used++] = c;
        }
    };
    append('"');
    for (const char* c = token; *c != '\0'; ++c) {
        if (*c == '"') {
            append('"');
        }
        append(*c);
    }
    append('"');
    quoted[used] = '\0';
}

void WriteEntryLine(FILE* stream, const char* key, const char* value) {
    char quotedValue[CONFIG_VALUE_WRITE_CAPACITY];
    char quotedKey[CONFIG_KEY_WRITE_CAPACITY];
    QuoteToken(key, quotedKey, sizeof quotedKey);
    QuoteToken(value, quotedValue, sizeof quotedValue);
    fputs(quotedKey, stream);
    fputs(" ", stream);
    fputs(quotedValue, stream);
}

// A new entry goes in front of equal keys, so the last occurrence in a file is found first.
int32_t AddEntry(ConfigFile* file, const char* key, const char* value, uint32_t modified) {
    ConfigEntry* entry = static_cast<ConfigEntry*>(calloc(1, sizeof(ConfigEntry)));
    if (entry == nullptr) {
        return 1;
    }
    entry->key = DuplicateText(key, CONFIG_KEY_READ_MAX);
    entry->value = DuplicateText(value, CONFIG_VALUE_MAX);
    entry->modified = modified;
    if (entry->key == nullptr || entry->value == nullptr ||
        InsertOrderedPtrList(file->entries, entry, entry->key) != 0) {
        FreeEntry(entry);
        return 1;
    }
    return 0;
}

// Merges the previous file, line by line, into the new one.
void MergeBackup(ConfigFile* file, FILE* backup, FILE* output) {
    char line[CONFIG_LINE_BUFFER];
    ParsedLine parsed;
    size_t length;
    while (ReadLinePiece(backup, line, &length)) {
        // The last character is taken to be the line break, so a last line without one loses
        // its final character. The platform's other writers of these files do the same, and
        // a file must come out the same whichever of them saved it.
        length -= 1;
        LineKind kind = ParseLine(line, length, &parsed);
        if (kind != LINE_ENTRY) {
            fwrite(line, 1, length, output);
            fputs("\n", output);
            continue;
        }
        UpperCaseText(parsed.key);
        ConfigEntry* entry = FindEntry(file, parsed.key);
        if (entry == nullptr) {
            // Not in the store: this is how deleted keys leave the file. It also drops keys
            // that another process added since the load, so a writer that shares the file
            // holds LockConfigFile from its load to its save.
            continue;
        }
        if (entry->modified == 0 && strcmp(entry->value, parsed.value) == 0) {
            fwrite(line, 1, length, output);
        } else {
            WriteEntryLine(output, entry->key, entry->value);
            fwrite(line + parsed.restOffset, 1, length - parsed.restOffset, output);
        }
        fputs("\n", output);
        entry->modified = 0;
    }
}

// Entries set here whose keys were not in the file go at its end, in key order.
void AppendModified(ConfigFile* file, FILE* output) {
    PtrListCursor cursor;
    OpenPtrListCursor(file->entries, &cursor);
    void* item;
    while ((item = NextPtrListItem(&cursor)) != nullptr) {
        ConfigEntry* entry = static_cast<ConfigEntry*>(item);
        if (entry->modified != 0) {
            WriteEntryLine(output, entry->key, entry->value);
            fputs("\n", output);
            entry->modified = 0;
        }
    }
    ClosePtrListCursor(&cursor);
}

char* MakeBackupName(const char* path) {
    size_t length = strlen(path);
    char* backup = DuplicateText(path, length);
    if (backup != nullptr) {
        backup[length - 1] = backup[length - 1] == '~' ? 'a' : '~';
    }
    return backup;
}

bool FileExists(const char* path) {
    FILE* stream = fopen(path, "r");
    if (stream == nullptr) {
        return false;
    }
    fclose(stream);
    return true;
}

// The save proper, with the lock held and a backup name made.
int32_t WriteConfigFile(ConfigFile* file, const char* backupName) {
    const char* path = file->path;
    remove(backupName);  // may well not exist
    bool backedUp = rename(path, backupName) == 0;
    if (!backedUp && FileExists(path)) {
        // The file is there but could not be moved aside (on Windows, someone holds it open):
        // writing over it now would lose it, since no backup of it exists.
        return 1;
    }
    FILE* output = fopen(path, "w");
    if (output == nullptr) {
        if (backedUp) {
            // Bring the previous file back. Nothing may hold the backup open here: Windows
            // does not rename an open file.
            remove(path);
            rename(backupName, path);
        }
        return 1;
    }
    FILE* backup = fopen(backupName, "r");
    if (backup != nullptr) {
        MergeBackup(file, backup, output);
        fclose(backup);
    }
    AppendModified(file, output);
    bool failed = ferror(output) != 0;
    failed = fclose(output) != 0 || failed;
    return failed ? 1 : 0;  // the backup, left in place, still holds the previous file
}
}  // namespace

int32_t CompareKeys(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) {
        return 1;
    }
    int result = strcmp(a, b);  // compares as unsigned bytes
    return result < 0 ? -1 : (result > 0 ? 1 : 0);
}

int32_t OpenConfigFile(ConfigFile* file, const char* path) {
    if (file == nullptr) {
        return 1;
    }
    file->path = nullptr;
    InitLock(&file->lock);
    file->entries = CreatePtrList(CompareEntryKeys);
    if (file->entries == nullptr) {
        return 1;  // the store cannot be set up; closing it is still safe
    }
    LoadConfigFile(file, path);  // a missing file is an empty store
    return 0;
}

int32_t LoadConfigFile(ConfigFile* file, const char* path) {
    if (file == nullptr) {
        return 1;
    }
    if (file->path != nullptr && file->path != path) {
        free(file->path);
        file->path = nullptr;
    }
    FreeEntries(file->entries);
    if (path == nullptr || path[0] == '\0') {
        return 0;
    }
    if (file->path == nullptr) {
        file->path = DuplicateText(path, strlen(path));
        if (file->path == nullptr) {
            return 1;
        }
    }
    if (file->entries == nullptr) {
        return 1;
    }
    ConfigFileLock* holder = LockConfigFile(file->path);  // goes on without it if need be
    FILE* stream = fopen(file->path, "r");
    if (stream == nullptr) {
        ReleaseConfigFileLock(holder);
        return 1;
    }
    char line[CONFIG_LINE_BUFFER];
    ParsedLine parsed;
    size_t length;
    while (ReadLinePiece(stream, line, &length)) {
        if (ParseLine(line, length, &parsed) == LINE_ENTRY) {
            UpperCaseText(parsed.key);
            AddEntry(file, parsed.key, parsed.value, 0);  // a line that cannot be stored is skipped
        }
    }
    fclose(stream);
    ReleaseConfigFileLock(holder);
    return 0;
}

char* GetConfigString(ConfigFile* file, const char* key, char* destination, uint32_t capacity,
                      const char* defaultText) {
    if (file == nullptr || key == nullptr || key[0] == '\0' || destination == nullptr) {
        return const_cast<char*>(defaultText);
    }
    EnterLock(&file->lock);
    char lookup[CONFIG_KEY_LOOKUP_MAX + 1];
    MakeLookupKey(key, lookup);
    const ConfigEntry* entry = FindEntry(file, lookup);
    const char* text = entry != nullptr ? entry->value : (defaultText != nullptr ? defaultText : "");
    if (capacity > 0) {
        CopyText(destination, text, static_cast<uint32_t>(capacity));
    }
    LeaveLock(&file->lock);
    return destination;
}

int32_t SetConfigString(ConfigFile* file, const char* key, const char* value) {
    if (file == nullptr || key == nullptr || key[0] == '\0') {
        return 1;
    }
    EnterLock(&file->lock);
    char lookup[CONFIG_KEY_LOOKUP_MAX + 1];
    MakeLookupKey(key, lookup);
    int32_t result = 0;
    ConfigEntry* entry = FindEntry(file, lookup);
    if (value == nullptr) {
        // Every occurrence goes, or an older one would take the deleted key's place.
        while (entry != nullptr) {
            RemovePtrListItem(file->entries, entry);  // steps open cursors past it
            FreeEntry(entry);
            entry = FindEntry(file, lookup);
        }
    } else if (entry != nullptr) {
        char* copy = DuplicateText(value, CONFIG_VALUE_MAX);
        if (copy == nullptr) {
            result = 1;  // the old value stays
        } else {
            free(entry->value);
            entry->value = copy;
            entry->modified = 1;
        }
    } else {
        result = AddEntry(file, lookup, value, 1);
    }
    LeaveLock(&file->lock);
    return result;
}

int32_t SaveConfigFile(ConfigFile* file, const char* path) {
    if (file == nullptr) {
        return 1;
    }
    if (path != nullptr && path[0] != '\0' && path != file->path) {
        char* copy = DuplicateText(path, strlen(path));
        if (copy == nullptr) {
            return 1;
        }
        free(file->path);
        file->path = copy;
    }
    if (file->path == nullptr || file->path[0] == '\0' || file->entries == nullptr) {
        return 1;
    }
    char* backupName = MakeBackupName(file->path);
    if (backupName == nullptr) {
        return 1;
    }
    ConfigFileLock* holder = LockConfigFile(file->path);  // goes on without it if need be
    int32_t result = WriteConfigFile(file, backupName);
    ReleaseConfigFileLock(holder);
    free(backupName);
    return result;
}

int32_t CloseConfigFile(ConfigFile* file) {
    if (file == nullptr) {
        return 1;
    }
    free(file->path);
    file->path = nullptr;
    DeleteLock(&file->lock);
    FreeEntries(file->entries);
    DestroyPtrList(file->entries);
    file->entries = nullptr;
    return 0;
}
