// Message texts and the string-table reader, on the libraries staged beside the test executable.
#include "config/message_texts.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config/directories.h"
#include "sntp/sntp_troubles.h"
#include "tests/support/scoped_seams.h"

namespace {
typedef std::vector<uint8_t> Bytes;
const uint32_t SHIPPED_TEXT_COUNT = 692 * 16 + 1;  // the largest block, 692, holds id 11068
const uint32_t SUBDIRECTORY = 0x80000000u;

const std::string HERE = [] {
    char16_t path[PATH_CAPACITY];
    ReadModulePath(path, PATH_CAPACITY);
    const std::string narrow(path, path + std::char_traits<char16_t>::length(path));  // low bytes
    return narrow.substr(0, narrow.find_last_of("\\/"));
}();
const std::string SCRATCH_ROOT = HERE + "/scratch-message-texts";

char16_t** ReadTable(const Bytes& bytes) {
    FILE* file = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), file);
    rewind(file);
    return ReadStringTable(file);
}

// A scratch root whose Applications\System holds bytes as res<language>.dll alone.
void WriteScratchRoot(uint16_t language, const Bytes& bytes) {
    const std::filesystem::path system = std::filesystem::path(SCRATCH_ROOT) / "Applications/System";
    std::filesystem::remove_all(SCRATCH_ROOT);
    std::filesystem::create_directories(system);
    std::ofstream(system / ("res" + std::to_string(language) + ".dll"), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::u16string SlotText(char16_t* const* table, uint32_t slot) {
    return table != nullptr && table[slot] != nullptr ? table[slot] : u"(none)";
}

std::u16string ReadSlot(const Bytes& bytes, uint32_t slot) {
    char16_t** table = ReadTable(bytes);
    const std::u16string text = SlotText(table, slot);
    FreeStringTable(table, MessageTextCount());
    return text;
}

std::u16string Lookup(uint32_t id) {
    char16_t text[256];
    return GetMessageText(id, text, 256, u"default");
}

// PE fields are little-endian, as is every host these tests run on.
uint32_t Get32(const Bytes& bytes, size_t at) {
    return bytes.at(at) | bytes.at(at + 1) << 8 | bytes.at(at + 2) << 16 | uint32_t(bytes.at(at + 3)) << 24;
}

void Put32(Bytes& bytes, size_t at, uint32_t value) { std::memcpy(&bytes.at(at + 3) - 3, &value, 4); }

// Offsets the damage aims at; the string table holds blocks 388 (ids 6192..), 389 and 692 (..11071).
struct MessageTextsTest : testing::Test {
    void TearDown() override { FreeMessageTexts(); }
    size_t BlockEntry(uint32_t block) const { return blockDirectory + 16 + 8 * block; }
    size_t LanguageDirectory(uint32_t block) const {
        return sectionOffset + (Get32(shipped, BlockEntry(block) + 4) & ~SUBDIRECTORY);
    }
    size_t DataEntry(uint32_t block) const { return sectionOffset + Get32(shipped, LanguageDirectory(block) + 20); }
    // The first three blocks as 2, 1 and 3: 6208 becomes slot 0, 6192 slot 16.
    Bytes Renumbered() const {
        Bytes renumbered = shipped;
        Put32(renumbered, BlockEntry(0), 2);
        Put32(renumbered, BlockEntry(1), 1);
        Put32(renumbered, BlockEntry(2), 3);
        return renumbered;
    }
    const Bytes shipped = [] {
        std::ifstream file(HERE + "/Applications/System/res1033.dll", std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }();
    const size_t sectionHeader = Get32(shipped, 60) + 248u;
    const size_t sectionOffset = Get32(shipped, sectionHeader + 20);
    const size_t blockDirectory = sectionOffset + (Get32(shipped, sectionOffset + 20) & ~SUBDIRECTORY);
};
}  // namespace

// Id 0 never names a text, though slot 0 holds one; English (UK) is no candidate of German.
TEST_F(MessageTextsTest, IdWithoutATextGivesTheDefault) {
    const struct {
        const char* label;
        bool renumbered;
        uint16_t libraryLanguage;
        uint16_t language;
        uint32_t id;
    } cases[] = {
        {"an empty slot", false, 1033, 1033, 6203u},
        {"at the count", false, 1033, 1033, SHIPPED_TEXT_COUNT},
        {"far past it", false, 1033, 1033, ~0u},
        {"id 0", true, 1033, 1033, 0},
        {"no library for the language", false, 2057, 1031, 6210},
    };
    for (const auto& c : cases) {
        WriteScratchRoot(c.libraryLanguage, c.renumbered ? Renumbered() : shipped);
        ScopedInstallRoot root(SCRATCH_ROOT.c_str());
        InitMessageTextsFor(c.language);
        EXPECT_EQ(Lookup(c.id), u"default") << c.label;
        FreeMessageTexts();
    }
}

// Candidates: the language, its primary language with the default sublanguage, 1033; accents stay intact.
TEST_F(MessageTextsTest, ShippedTranslationsAnswerForTheirLanguages) {
    const struct {
        uint16_t languageIds[2];
        const char* file;
        uint32_t sampleId;
        const char16_t* sample;
    } rows[] = {
        {{1031, 2055}, "res1031.dll", 6207, u"SNTP-Server hat eine ung\u00fcltige Antwort gesendet."},  // and Swiss
        {{1036, 3084}, "res1036.dll", 6209, u"Serveur SNTP distant : adresse incoh\u00e9rente."},  // and Canadian
        {{3082, 3082}, "res3082.dll", 6207, u"Servidor SNTP remoto: respuesta no v\u00e1lida."},
        {{1040, 2064}, "res1040.dll", 6210, u"Server SNTP remoto: errore sconosciuto."},  // and Swiss
        {{1046, 2070}, "res1046.dll", 6208, u"Servidor SNTP remoto: vers\u00e3o incompat\u00edvel."},  // and Portugal
        {{1053, 1053}, "res1033.dll", 6210, u"Remote SNTP Server unknown error."},  // Swedish: none of its own
    };
    ScopedInstallRoot root(HERE.c_str());
    for (const auto& row : rows) {
        for (uint16_t languageId : row.languageIds) {
            char path[PATH_CAPACITY] = "";
            FindResourceDll(languageId, path);
            InitMessageTextsFor(languageId);
            EXPECT_EQ(path, HERE + "\\Applications\\System\\" + row.file) << languageId;
            EXPECT_EQ(Lookup(row.sampleId), row.sample) << languageId;
        }
    }
}

// Block ids go up to 60000.
TEST_F(MessageTextsTest, ReaderPutsEachBlockInTheSlotsOfItsId) {
    Bytes renumbered = Renumbered();
    Put32(renumbered, BlockEntry(2), 60000);
    char16_t** table = ReadTable(renumbered);
    const uint32_t count = MessageTextCount();
    const std::u16string slot0 = SlotText(table, 0);
    const std::u16string slot28 = SlotText(table, 28);
    FreeStringTable(table, count);
    EXPECT_EQ(count, 60000u * 16 + 1);
    EXPECT_EQ(slot0, SntpTroubleTable[SNTP_INCOMPATIBLE_VERSION].defaultText);
    EXPECT_EQ(slot28, SntpTroubleTable[SNTP_SOCKET_ERROR].defaultText);
}

// Block 692's data ends at the length unit of id 11068 (26 bytes): nothing past it is read.
TEST_F(MessageTextsTest, ReaderGivesAnEmptyTextToAStringCutAtItsLength) {
    Bytes cut = shipped;
    Put32(cut, DataEntry(2) + 4, 26);
    const std::u16string text = ReadSlot(cut, 11068);
    EXPECT_EQ(text, u"");
}

// Block 388 as id 2, read from two bytes earlier (a data entry's reserved zero), holds seventeen
// strings: the last one never reaches id 3's first slot.
TEST_F(MessageTextsTest, ReaderDropsAStringPastTheSixteenthOfABlock) {
    Bytes shifted = Renumbered();
    Put32(shifted, DataEntry(0), Get32(shipped, DataEntry(0)) - 2);
    const std::u16string slot32 = ReadSlot(shifted, 32);
    EXPECT_EQ(slot32, u"(none)");
}

// Once the table was sized, a failure keeps its count.
TEST_F(MessageTextsTest, ReaderRefusesDamagedFiles) {
    const struct {
        const char* name;
        size_t at;
        uint32_t value;
        uint32_t countAfter;
    } damages[] = {
        {"not an image", 0, 0x5A59, 0},
        {"no headers", 60, 0, 0},
        {"no resource section", sectionHeader, 0x6164642E, 0},  // ".dda"
        {"no string table", sectionOffset + 16, 3, 0},
        {"string type not a subdirectory", sectionOffset + 20, Get32(shipped, sectionOffset + 20) & ~SUBDIRECTORY, 0},
        {"block id 0", BlockEntry(0), 0, SHIPPED_TEXT_COUNT},
        {"block id above 60000", BlockEntry(2), 60001, 0},
        {"two languages", LanguageDirectory(1) + 12, 2u << 16, SHIPPED_TEXT_COUNT},
        {"data over 20000 bytes", DataEntry(0) + 4, 20001, SHIPPED_TEXT_COUNT},
        {"data entry is a directory", LanguageDirectory(0) + 20,
         Get32(shipped, LanguageDirectory(0) + 20) | SUBDIRECTORY, SHIPPED_TEXT_COUNT},
    };
    for (const auto& damage : damages) {
        Bytes damaged = shipped;
        Put32(damaged, damage.at, damage.value);
        damaged.resize(damaged.size() + 20004, 0);  // so an over-long block could be read whole
        char16_t** const table = ReadTable(damaged);
        EXPECT_EQ(table, nullptr) << damage.name;
        EXPECT_EQ(MessageTextCount(), damage.countAfter) << damage.name;
    }
}
