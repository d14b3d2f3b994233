// Localised message texts: the choice of res<language id>.dll under <root>\Applications\System,
// the reader of its string table, the table itself with textLock, the lookups, and the display
// profile of the operator's language.
#include "config/message_texts.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "config/directories.h"
#include "runtime/runtime.h"
#include "runtime/text.h"
#include "trouble/trouble_queue.h"

const LanguageProfile languageProfiles[LANGUAGE_PROFILE_COUNT] = {
    {0x09, 0, "Microsoft Sans Serif", 10, 0, 0, 0},    // English
    {0x01, 1, "Microsoft Sans Serif", 10, 0, 0, 178},  // Arabic
    {0x0D, 1, "Microsoft Sans Serif", 10, 0, 0, 177},  // Hebrew
    {0x29, 1, "Microsoft Sans Serif", 10, 0, 0, 0},    // Persian
    {0x04, 0, "NSimSun", 10, 0, 0, 0},                 // Chinese
    {0x12, 0, "Tahoma", 10, 0, 0, 0},                  // Korean
    {0x19, 0, "Microsoft Sans Serif", 10, 0, 0, 204},  // Russian
    {0x1E, 0, "Microsoft Sans Serif", 10, 0, 0, 222},  // Thai
    {0x11, 0, "Microsoft Sans Serif", 10, 0, 0, 0},    // Japanese
};

const LanguageProfile* currentProfile = &languageProfiles[0];

namespace {
const uint16_t PRIMARY_LANGUAGE_MASK = 0x3FF;
const uint16_t SUBLANGUAGE_DEFAULT = 0x400;  // sublanguage 1 in the top six bits
const uint32_t PROFILE_LANGUAGE_MASK = 0xFFFF;

// The parts of a 32-bit (PE32) image that the reader uses; offsets within each structure.
const uint32_t DOS_HEADER_SIZE = 64;
const uint32_t DOS_NT_HEADERS_OFFSET = 60;
// A 64-bit image's NT headers are 264 bytes, so its section table is read 16 bytes early and no
// section name matches. That refusal is wanted: a 64-bit process can load only a 32-bit image
// that holds no code, so the libraries are shipped as such, and any other image is not ours.
const uint32_t NT_HEADERS_SIZE = 248;
const uint32_t NT_SECTION_COUNT = 6;
const uint32_t SECTION_HEADER_SIZE = 40;
const uint32_t SECTION_VIRTUAL_ADDRESS = 12;
const uint32_t SECTION_FILE_OFFSET = 20;
const char RESOURCE_SECTION_NAME[] = ".rsrc";
const uint32_t RESOURCE_SECTION_NAME_LENGTH = 5;
const uint32_t RESOURCE_DIRECTORY_SIZE = 16;
const uint32_t RESOURCE_DIRECTORY_ID_COUNT = 14;
const uint32_t RESOURCE_ENTRY_SIZE = 8;
const uint32_t RESOURCE_ENTRY_OFFSET = 4;
const uint32_t RESOURCE_SUBDIRECTORY = 0x80000000u;
const uint32_t RESOURCE_DATA_ENTRY_SIZE = 16;
const uint32_t RESOURCE_DATA_SIZE = 4;
const uint32_t RESOURCE_TYPE_STRING = 6;

const uint32_t MAX_STRING_BLOCK_ID = 60000;
const uint32_t STRINGS_PER_BLOCK = 16;
const uint32_t MAX_STRING_BLOCK_BYTES = 20000;
const uint32_t MAX_STRING_UNITS = 2047;  // longer strings are cut

const uint32_t TEXT_PATH_CAPACITY = PATH_CAPACITY;  // wide candidate paths, units

// Guards the table, its count, the block buffer and the first initialisation.
Lock* TextLock() {
    static PermanentLock lock;
    return lock.Get();
}

std::atomic<uint32_t> textUsers{0};
// The installed table and its own slot count. textCount is what the last ReadStringTable set;
// the two agree for the table read at initialisation, but keeping the table's own count means a
// reader called on another file can never make a lookup index past this table.
char16_t** textTable = nullptr;
uint32_t textTableSlots = 0;
uint32_t textCount = 0;
uint8_t blockBuffer[MAX_STRING_BLOCK_BYTES];

uint16_t ReadU16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

uint32_t ReadU32(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0]) | (static_cast<uint32_t>(bytes[1]) << 8) |
           (static_cast<uint32_t>(bytes[2]) << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
}

bool ReadNext(FILE* file, uint8_t* buffer, uint32_t size) {
    return fread(buffer, 1, size, file) == size;
}

bool ReadAt(FILE* file, int64_t offset, uint8_t* buffer, uint32_t size) {
    if (offset < 0 || offset > LONG_MAX) {
        return false;
    }
    if (fseek(file, static_cast<long>(offset), SEEK_SET) != 0) {
        return false;
    }
    return ReadNext(file, buffer, size);
}

// Narrow paths become wide byte by byte with sign extension, so that a path names the same file
// as the installation's other programs that widen paths the same way; '|' cannot be
// part of a path and is read as '!'.
void WidenPath(const char* narrow, char16_t* wide, uint32_t capacity) {
    uint32_t at = 0;
    for (; at + 1 < capacity && narrow[at] != '\0'; ++at) {
        const char unit = narrow[at] == '|' ? '!' : narrow[at];
        wide[at] = static_cast<char16_t>(static_cast<int16_t>(static_cast<signed char>(unit)));
    }
    wide[at] = u'\0';
}

// The low byte of each unit, which undoes WidenPath.
void NarrowPath(const char16_t* wide, char* narrow, uint32_t capacity) {
    uint32_t at = 0;
    for (; at + 1 < capacity && wide[at] != u'\0'; ++at) {
        const char unit = static_cast<char>(wide[at] & 0xFF);
        narrow[at] = unit == '|' ? '!' : unit;
    }
    narrow[at] = '\0';
}

// "<directory>\res<id>.dll", bounded.
void FormatCandidate(const char16_t* directory, uint16_t languageId, char16_t* candidate) {
    char16_t digits[8];
    char16_t reversed[8];
    uint32_t count = 0;
    uint32_t value = languageId;
    do {
        reversed[count++] = static_cast<char16_t>(u'0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (uint32_t i = 0; i < count; ++i) {
        digits[i] = reversed[count - 1 - i];
    }
    digits[count] = u'\0';
    candidate[0] = u'\0';
    AppendText16(candidate, directory, TEXT_PATH_CAPACITY);
    AppendText16(candidate, u"\\res", TEXT_PATH_CAPACITY);
    AppendText16(candidate, digits, TEXT_PATH_CAPACITY);
    AppendText16(candidate, u".dll", TEXT_PATH_CAPACITY);
}

bool HasBackslash(const char16_t* text) {
    for (uint32_t at = 0; text[at] != u'\0'; ++at) {
        if (text[at] == u'\\') {
            return true;
        }
    }
    return false;
}

// Stores count units (ending early at a NUL unit) as the text of slot.
void StoreText(char16_t** table, uint32_t slot, const uint8_t* units, uint32_t count) {
    uint32_t length = 0;
    while (length < count && ReadU16(units + 2 * length) != 0) {
        ++length;
    }
    char16_t* text = static_cast<char16_t*>(malloc((length + 1) * sizeof(char16_t)));
    if (text == nullptr) {
        return;  // the slot keeps no text and the default is used
    }
    for (uint32_t i = 0; i < length; ++i) {
        text[i] = static_cast<char16_t>(ReadU16(units + 2 * i));
    }
    text[length] = u'\0';
    free(table[slot]);  // a block id given twice replaces its texts
    table[slot] = text;
}

// Walks one block: a length unit, then that many units, repeated until the data is used up.
// Every length unit moves to the next slot. Strings past the block's sixteen are dropped, so a
// malformed block can reach neither another block's slots nor past the table.
void StoreBlock(char16_t** table, uint32_t count, uint32_t firstSlot, const uint8_t* data, uint32_t size) {
    const uint32_t units = size / 2;
    uint32_t slot = firstSlot;
    uint32_t at = 0;
    while (at < units) {
        const uint32_t length = ReadU16(data + 2 * at);
        ++at;
        if (length != 0) {
            const uint32_t available = length < units - at ? length : units - at;
            if (slot - firstSlot < STRINGS_PER_BLOCK && slot < count) {
                StoreText(table, slot, data + 2 * at, available < MAX_STRING_UNITS ? available : MAX_STRING_UNITS);
            }
            at += available;
        }
        ++slot;
    }
}

// The walk of ReadStringTable; the caller holds textLock and closes the file.
char16_t** WalkStringTable(FILE* file) {
    // 1. The DOS header: "MZ" and a non-zero offset of the NT headers.
    uint8_t dosHeader[DOS_HEADER_SIZE];
    if (!ReadAt(file, 0, dosHeader, DOS_HEADER_SIZE) || dosHeader[0] != 'M' || dosHeader[1] != 'Z') {
        return nullptr;
    }
    const uint32_t ntOffset = ReadU32(dosHeader + DOS_NT_HEADERS_OFFSET);
    if (ntOffset == 0) {
        return nullptr;
    }
    // 2. The NT headers, for the section count.
    uint8_t ntHeaders[NT_HEADERS_SIZE];
    if (!ReadAt(file, ntOffset, ntHeaders, NT_HEADERS_SIZE)) {
        return nullptr;
    }
    const uint32_t sectionCount = ReadU16(ntHeaders + NT_SECTION_COUNT);
    // 3. The section headers directly behind them, up to the resource section.
    uint8_t section[SECTION_HEADER_SIZE];
    bool found = false;
    for (uint32_t index = 0; index < sectionCount && !found; ++index) {
        if (!ReadNext(file, section, SECTION_HEADER_SIZE)) {
            return nullptr;
        }
        found = memcmp(section, RESOURCE_SECTION_NAME, RESOURCE_SECTION_NAME_LENGTH) == 0;
    }
    if (!found) {
        return nullptr;
    }
    const int64_t sectionAddress = ReadU32(section + SECTION_VIRTUAL_ADDRESS);
    const int64_t sectionOffset = ReadU32(section + SECTION_FILE_OFFSET);
    // 4. The root directory: its id entries follow it directly (named entries are not expected).
    uint8_t directory[RESOURCE_DIRECTORY_SIZE];
    uint8_t entry[RESOURCE_ENTRY_SIZE];
    if (!ReadAt(file, sectionOffset, directory, RESOURCE_DIRECTORY_SIZE)) {
        return nullptr;
    }
    const uint32_t typeCount = ReadU16(directory + RESOURCE_DIRECTORY_ID_COUNT);
    // 5. The string-table type, which must lead to a subdirectory.
    found = false;
    uint32_t typeOffset = 0;
    for (uint32_t index = 0; index < typeCount && !found; ++index) {
        if (!ReadNext(file, entry, RESOURCE_ENTRY_SIZE)) {
            return nullptr;
        }
        typeOffset = ReadU32(entry + RESOURCE_ENTRY_OFFSET);
        found = ReadU32(entry) == RESOURCE_TYPE_STRING && (typeOffset & RESOURCE_SUBDIRECTORY) != 0;
    }
    if (!found) {
        return nullptr;
    }
    // 6. The block directory: its largest id sizes the table.
    const int64_t blockDirectory = sectionOffset + (typeOffset & ~RESOURCE_SUBDIRECTORY);
    if (!ReadAt(file, blockDirectory, directory, RESOURCE_DIRECTORY_SIZE)) {
        return nullptr;
    }
    const uint32_t blockCount = ReadU16(directory + RESOURCE_DIRECTORY_ID_COUNT);
    uint32_t largestId = 0;
    for (uint32_t index = 0; index < blockCount; ++index) {
        if (!ReadNext(file, entry, RESOURCE_ENTRY_SIZE)) {
            return nullptr;
        }
        const uint32_t id = ReadU32(entry);
        largestId = id > largestId ? id : largestId;
    }
    if (largestId > MAX_STRING_BLOCK_ID) {
        return nullptr;
    }
    // 7. One slot per possible string id, all empty.
    textCount = largestId * STRINGS_PER_BLOCK + 1;
    char16_t** table = static_cast<char16_t**>(calloc(textCount, sizeof(char16_t*)));
    if (table == nullptr) {
        return nullptr;
    }
    // 8. Each block: block id, language directory of exactly one entry, data entry, strings.
    // A failed check leaves the loop early.
    uint32_t index = 0;
    for (; index < blockCount; ++index) {
        if (!ReadAt(file, blockDirectory + RESOURCE_DIRECTORY_SIZE + RESOURCE_ENTRY_SIZE * index, entry,
                    RESOURCE_ENTRY_SIZE)) {
            break;
        }
        const uint32_t id = ReadU32(entry);
        const uint32_t blockOffset = ReadU32(entry + RESOURCE_ENTRY_OFFSET);
        if ((blockOffset & RESOURCE_SUBDIRECTORY) == 0) {
            continue;
        }
        // Computed in 32 bits on purpose: block id 0 wraps far past the table and fails here.
        const uint32_t firstSlot = (id - 1) * STRINGS_PER_BLOCK;
        if (firstSlot >= textCount) {
            break;
        }
        uint8_t language[RESOURCE_DIRECTORY_SIZE];
        if (!ReadAt(file, sectionOffset + (blockOffset & ~RESOURCE_SUBDIRECTORY), language, RESOURCE_DIRECTORY_SIZE) ||
            ReadU16(language + RESOURCE_DIRECTORY_ID_COUNT) != 1 || !ReadNext(file, entry, RESOURCE_ENTRY_SIZE)) {
            break;
        }
        const uint32_t dataEntryOffset = ReadU32(entry + RESOURCE_ENTRY_OFFSET);
        uint8_t dataEntry[RESOURCE_DATA_ENTRY_SIZE];
        if ((dataEntryOffset & RESOURCE_SUBDIRECTORY) != 0 ||
            !ReadAt(file, sectionOffset + dataEntryOffset, dataEntry, RESOURCE_DATA_ENTRY_SIZE)) {
            break;
        }
        const int64_t dataAddress = ReadU32(dataEntry);
        const uint32_t dataSize = ReadU32(dataEntry + RESOURCE_DATA_SIZE);
        if (dataSize > MAX_STRING_BLOCK_BYTES ||
            !ReadAt(file, dataAddress - sectionAddress + sectionOffset, blockBuffer, dataSize)) {
            break;
        }
        StoreBlock(table, textCount, firstSlot, blockBuffer, dataSize);
    }
    if (index < blockCount) {
        // textCount keeps its value: lookups go by the table, which is gone.
        FreeStringTable(table, textCount);
        return nullptr;
    }
    return table;
}
}  // namespace

void FreeStringTable(char16_t** table, uint32_t count) {
    if (table == nullptr) {
        return;
    }
    for (uint32_t slot = 0; slot < count; ++slot) {
        free(table[slot]);
    }
    free(table);
}

char16_t** ReadStringTable(FILE* file) {
    if (file == nullptr) {
        return nullptr;
    }
    EnterLock(TextLock());
    // A walk that ends before sizing a table reports no slots.
    textCount = 0;
    char16_t** table = WalkStringTable(file);
    fclose(file);
    LeaveLock(TextLock());
    return table;
}

void FreeMessageTexts() {
    EnterLock(TextLock());
    if (textCount != 0 || textTable != nullptr) {
        FreeStringTable(textTable, textTableSlots);
        textTable = nullptr;
        textTableSlots = 0;
        textCount = 0;
    }
    LeaveLock(TextLock());
}

uint32_t MessageTextCount() {
    EnterLock(TextLock());
    const uint32_t count = textCount;
    LeaveLock(TextLock());
    return count;
}

ModuleHandle LoadControlModule(const char16_t* name) {
    if (name == nullptr) {
        return nullptr;
    }
    if (HasBackslash(name)) {
        return OpenLibraryModule(name);
    }
    char directory[PATH_CAPACITY];
    GetInstallRoot(directory, PATH_CAPACITY);
    AppendText(directory, "\\Applications\\Controls", PATH_CAPACITY);
    AppendText(directory, "\\", PATH_CAPACITY);
    char16_t path[TEXT_PATH_CAPACITY];
    WidenPath(directory, path, TEXT_PATH_CAPACITY);
    AppendText16(path, name, TEXT_PATH_CAPACITY);
    return OpenLibraryModule(path);
}

ModuleHandle FindResourceDll(uint16_t languageId, char* pathOut) {
    char directory[PATH_CAPACITY];
    GetInstallRoot(directory, PATH_CAPACITY);
    AppendText(directory, "\\Applications\\System", PATH_CAPACITY);
    char16_t wideDirectory[TEXT_PATH_CAPACITY];
    WidenPath(directory, wideDirectory, TEXT_PATH_CAPACITY);

    // The exact language, its primary language with the default sublanguage, then US English.
    const uint16_t candidates[] = {
        languageId,
        static_cast<uint16_t>((languageId & PRIMARY_LANGUAGE_MASK) | SUBLANGUAGE_DEFAULT),
        LANGUAGE_ENGLISH_US,
    };
    char16_t candidate[TEXT_PATH_CAPACITY];
    ModuleHandle module = nullptr;
    for (const uint16_t id : candidates) {
        FormatCandidate(wideDirectory, id, candidate);
        module = LoadControlModule(candidate);
        if (module != nullptr) {
            break;
        }
    }
    if (module == nullptr) {
        return nullptr;
    }
    if (pathOut != nullptr) {
        NarrowPath(candidate, pathOut, PATH_CAPACITY);
    }
    // Loading only proved the file; its texts are read from the file itself. The handle that is
    // returned marks success and no longer names a loaded module.
    CloseLibraryModule(module);
    return module;
}

int32_t InitMessageTexts() {
    if (textUsers.load() != 0) {
        textUsers.fetch_add(1);
        return 0;
    }
    return InitMessageTextsFor(ReadThreadLanguage());
}

int32_t InitMessageTextsFor(uint16_t languageId) {
    EnterLock(TextLock());
    // Empty unless a candidate loads, so that the open below fails cleanly.
    char path[PATH_CAPACITY];
    path[0] = '\0';
    FindResourceDll(languageId, path);

    int32_t result = 1;
    for (const LanguageProfile& profile : languageProfiles) {
        if ((profile.primaryLanguage & PROFILE_LANGUAGE_MASK) == (languageId & PRIMARY_LANGUAGE_MASK)) {
            currentProfile = &profile;
            result = 0;
            break;
        }
    }

    FreeMessageTexts();
    FILE* file = path[0] != '\0' ? OpenResourceFile(path) : nullptr;
    if (file != nullptr) {
        textTable = ReadStringTable(file);
        textTableSlots = textTable != nullptr ? textCount : 0;
    }
    LeaveLock(TextLock());
    textUsers.fetch_add(1);
    return result;
}

char16_t* GetMessageText(uint32_t id, char16_t* destination, uint32_t capacity, const char16_t* defaultText) {
    if (destination == nullptr) {
        return nullptr;
    }
    EnterLock(TextLock());
    if (id != 0 && id < textTableSlots && textTable[id] != nullptr) {
        CopyText16(destination, textTable[id], capacity);
    } else if (defaultText == nullptr) {
        // Callers rely on an empty result even when they passed no capacity.
        destination[0] = u'\0';
    } else {
        CopyText16(destination, defaultText, capacity);
    }
    LeaveLock(TextLock());
    return destination;
}
