// Localised message texts: the shipped res1033.dll (its texts, and that it loads), the shipped
// translations (chosen by language, complete, intact), the choice
// among the language candidates, the display profiles, the lookups, and the string-table reader
// on a 64-bit image and on damaged copies of the shipped file.
//
// The test executable's own directory serves as the installation root, so the shipped library
// lies at <root>\Applications\System\res1033.dll beside it, with the translations
// (see CMakeLists.txt).
#include "config/config_test_seams.h"
#include "config/message_texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config/directories.h"
#include "sntp/sntp_troubles.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {
namespace fs = std::filesystem;

const uint32_t TEXT_UNITS = 256;
const uint32_t SHIPPED_TEXT_COUNT = 692 * 16 + 1;  // the largest block, 692, holds id 11068
const uint32_t SUBDIRECTORY = 0x80000000u;

std::string ModuleDirectory() {
    char16_t path[PATH_CAPACITY];
    ReadModulePath(path, PATH_CAPACITY);
    std::string narrow;
    for (const char16_t* unit = path; *unit != u'\0'; ++unit) {
        narrow += static_cast<char>(*unit & 0xFF);
    }
    return narrow.substr(0, narrow.find_last_of("\\/"));
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

const std::string SCRATCH = "/scratch-message-texts/";

char16_t** ReadTable(const std::vector<uint8_t>& bytes) {
    fs::create_directories(ModuleDirectory() + SCRATCH);
    const std::string path = ModuleDirectory() + SCRATCH + "image.dll";
    WriteBytes(path, bytes);
    return ReadStringTable(fopen(path.c_str(), "rb"));
}

// An installation root whose Applications\System holds the image under the given language ids.
std::string RootWithLibraries(const std::string& name, const std::vector<uint32_t>& languages,
                              const std::vector<uint8_t>& bytes) {
    const std::string root = ModuleDirectory() + SCRATCH + name;
    std::error_code ignored;
    fs::remove_all(root, ignored);
    fs::create_directories(root + "/Applications/System");
    for (uint32_t language : languages) {
        WriteBytes(root + "/Applications/System/res" + std::to_string(language) + ".dll", bytes);
    }
    return root;
}

std::string ChosenFile(uint16_t languageId) {
    char path[PATH_CAPACITY] = "untouched";
    if (FindResourceDll(languageId, path) == nullptr) {
        EXPECT_STREQ(path, "untouched");
        return "";
    }
    const std::string chosen = path;
    return chosen.substr(chosen.find_last_of('\\') + 1);
}

std::u16string Lookup(uint32_t id, const char16_t* defaultText = u"default") {
    char16_t text[TEXT_UNITS];
    return GetMessageText(id, text, TEXT_UNITS, defaultText);
}

// PE fields are little-endian, as is every host these tests run on.
uint32_t Get32(const std::vector<uint8_t>& bytes, size_t at) {
    uint32_t value;
    std::memcpy(&value, &bytes.at(at + 3) - 3, 4);
    return value;
}

void Put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) { std::memcpy(&bytes.at(at + 3) - 3, &value, 4); }

// Where the shipped image keeps what the damage below aims at (file offsets).
struct Layout {
    size_t sectionHeader;   // of .rsrc
    uint32_t sectionOffset;
    size_t blockDirectory;  // of the string type, the image's only one
    size_t BlockEntry(uint32_t index) const { return blockDirectory + 16 + 8 * index; }
};

Layout Locate(const std::vector<uint8_t>& image) {
    Layout layout{Get32(image, 60) + 248u, 0, 0};
    while (std::memcmp(&image[layout.sectionHeader], ".rsrc", 5) != 0) {
        layout.sectionHeader += 40;
    }
    layout.sectionOffset = Get32(image, layout.sectionHeader + 20);
    layout.blockDirectory = layout.sectionOffset + (Get32(image, layout.sectionOffset + 20) & ~SUBDIRECTORY);
    return layout;
}

size_t LanguageDirectory(const std::vector<uint8_t>& image, const Layout& layout, uint32_t block) {
    return layout.sectionOffset + (Get32(image, layout.BlockEntry(block) + 4) & ~SUBDIRECTORY);
}

class MessageTextsTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(shipped.empty());
        layout = Locate(shipped);
        // Blocks 388 (ids 6192..6207), 389 (6208..6223) and 692 (11056..11071), in this order.
        ASSERT_EQ(Get32(shipped, layout.BlockEntry(0)), 388u);
        ASSERT_EQ(Get32(shipped, layout.BlockEntry(1)), 389u);
        ASSERT_EQ(Get32(shipped, layout.BlockEntry(2)), 692u);
    }
    void TearDown() override {
        FreeMessageTexts();
        OverrideInstallRoot(nullptr);
    }
    const std::string shippedPath = ModuleDirectory() + "/Applications/System/res1033.dll";
    const std::vector<uint8_t> shipped = ReadBytes(shippedPath);
    Layout layout{};
};
}  // namespace

TEST_F(MessageTextsTest, ShippedLibraryHoldsExactlyTheTroubleTexts) {
    char16_t** table = ReadTable(shipped);
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(MessageTextCount(), SHIPPED_TEXT_COUNT);
    EXPECT_EQ(std::count_if(table, table + SHIPPED_TEXT_COUNT, [](char16_t* text) { return text != nullptr; }), 9);
    for (const SntpTroubleRow& row : SntpTroubleTable) {
        if (row.messageId > 0) {
            ASSERT_NE(table[row.messageId], nullptr) << row.messageId;
            EXPECT_EQ(std::u16string(table[row.messageId]), row.defaultText) << row.messageId;
        }
    }
    FreeStringTable(table, SHIPPED_TEXT_COUNT);
}

TEST_F(MessageTextsTest, ShippedLibraryLoadsFromTheInstallationAndAnswersLookups) {
    OverrideInstallRoot(ModuleDirectory().c_str());
    ASSERT_NE(FindResourceDll(1033, nullptr), nullptr);
    EXPECT_EQ(InitMessageTextsFor(1033), 0);
    EXPECT_EQ(MessageTextCount(), SHIPPED_TEXT_COUNT);
    EXPECT_EQ(Lookup(6205), u"The time server did not respond.  Contact your network administrator.");
    EXPECT_EQ(Lookup(11068), u"Local SNTP Client: Cannot resolve host name");
    // An empty slot of a present block, ids at or past the count: the default.
    EXPECT_EQ(Lookup(6203), u"default");
    EXPECT_EQ(Lookup(SHIPPED_TEXT_COUNT), u"default");
    EXPECT_EQ(Lookup(0xFFFFFFFFu), u"default");

    char16_t text[8] = {u'x', u'x', u'x', u'x', u'x', u'x', u'x', u'x'};
    EXPECT_EQ(GetMessageText(6205, text, 4, u"default"), text);
    EXPECT_EQ(std::u16string(text), u"The");
    EXPECT_EQ(text[4], u'x');
    GetMessageText(6205, text, 1, u"default");
    EXPECT_EQ(text[0], u'\0');
    // A missing text with no default is the empty string, even in a buffer said to hold nothing.
    text[0] = u'x';
    GetMessageText(42, text, 0, nullptr);
    EXPECT_EQ(text[0], u'\0');
    text[0] = u'x';
    GetMessageText(42, text, 0, u"default");
    EXPECT_EQ(text[0], u'x');

    // Once initialised, later initialisations only count, whatever the installation holds now.
    OverrideInstallRoot(RootWithLibraries("empty", {}, shipped).c_str());
    EXPECT_EQ(InitMessageTexts(), 0);
    EXPECT_EQ(Lookup(6205), u"The time server did not respond.  Contact your network administrator.");
}

#ifdef _WIN32
TEST_F(MessageTextsTest, ShippedLibrariesAreModulesThatThisWindowsProcessLoads) {
    // The 64-bit process loads the 32-bit libraries only because they hold no code.
    const struct {
        const char* file;
        const wchar_t* text6208;
    } rows[] = {
        {"res1033.dll", L"Remote SNTP Server is an incompatible version."},
        {"res1031.dll", L"SNTP-Server hat eine inkompatible Version."},
        {"res1036.dll", L"Serveur SNTP distant : version incompatible."},
        {"res3082.dll", L"Servidor SNTP remoto: versi\u00f3n incompatible."},
        {"res1040.dll", L"Server SNTP remoto: versione incompatibile."},
        {"res1046.dll", L"Servidor SNTP remoto: vers\u00e3o incompat\u00edvel."},
    };
    for (const auto& row : rows) {
        const std::string path = ModuleDirectory() + "/Applications/System/" + row.file;
        std::wstring widePath(path.begin(), path.end());
        std::replace(widePath.begin(), widePath.end(), L'/', L'\\');  // LoadLibraryW wants backslashes
        HMODULE module = LoadLibraryW(widePath.c_str());
        ASSERT_NE(module, nullptr) << row.file << ": LoadLibraryW failed with " << GetLastError();
        wchar_t text[TEXT_UNITS];
        const int length = LoadStringW(module, 6208, text, TEXT_UNITS);
        FreeLibrary(module);
        EXPECT_EQ(std::wstring(text, length > 0 ? length : 0), row.text6208) << row.file;
    }
}
#endif

// The translations: each language's library is chosen for the language and its sublanguages,
// holds every trouble text, translated (not the English) and short enough for the workstation
// report's 81 units, with its accented letters intact as UTF-16. Languages without a library of
// their own get English.
TEST_F(MessageTextsTest, ShippedTranslationsAnswerForTheirLanguages) {
    const uint32_t REPORT_TEXT_UNITS = 81;
    struct Row {
        uint16_t languageId;
        const char* file;
        uint32_t sampleId;
        const char16_t* sample;  // a text with the language's own letters
    };
    const Row rows[] = {
        {1031, "res1031.dll", 6207, u"SNTP-Server hat eine ung\u00fcltige Antwort gesendet."},
        {2055, "res1031.dll", 6207, u"SNTP-Server hat eine ung\u00fcltige Antwort gesendet."},  // Swiss German
        {1036, "res1036.dll", 6209, u"Serveur SNTP distant : adresse incoh\u00e9rente."},
        {3084, "res1036.dll", 6209, u"Serveur SNTP distant : adresse incoh\u00e9rente."},  // Canadian French
        {3082, "res3082.dll", 6207, u"Servidor SNTP remoto: respuesta no v\u00e1lida."},
        {1040, "res1040.dll", 6210, u"Server SNTP remoto: errore sconosciuto."},
        {2064, "res1040.dll", 6210, u"Server SNTP remoto: errore sconosciuto."},  // Swiss Italian
        {1046, "res1046.dll", 6208, u"Servidor SNTP remoto: vers\u00e3o incompat\u00edvel."},
        {2070, "res1046.dll", 6208, u"Servidor SNTP remoto: vers\u00e3o incompat\u00edvel."},  // Portugal
        {1053, "res1033.dll", 6210, u"Remote SNTP Server unknown error."},  // Swedish: none of its own
    };
    OverrideInstallRoot(ModuleDirectory().c_str());
    for (const Row& row : rows) {
        SCOPED_TRACE(row.languageId);
        EXPECT_EQ(ChosenFile(row.languageId), row.file);
        InitMessageTextsFor(row.languageId);
        EXPECT_EQ(Lookup(row.sampleId), row.sample);
        const bool english = std::string(row.file) == "res1033.dll";
        for (const SntpTroubleRow& trouble : SntpTroubleTable) {
            if (trouble.messageId <= 0) {
                continue;
            }
            const std::u16string text = Lookup(static_cast<uint32_t>(trouble.messageId));
            EXPECT_NE(text, u"default") << trouble.messageId;
            EXPECT_EQ(english, text == trouble.defaultText) << trouble.messageId;
            if (!english) {
                EXPECT_LE(text.size(), REPORT_TEXT_UNITS) << trouble.messageId;
            }
        }
    }
}

TEST_F(MessageTextsTest, CandidatesAndProfileFollowTheLanguage) {
    OverrideInstallRoot(RootWithLibraries("only-1033", {1033}, shipped).c_str());
    // Candidates: the language, its primary language with the default sublanguage, 1033.
    EXPECT_EQ(ChosenFile(2057), "res1033.dll");  // the second candidate: 2057 -> 1033
    EXPECT_EQ(ChosenFile(2060), "res1033.dll");  // the third
    EXPECT_EQ(InitMessageTextsFor(2057), 0);
    EXPECT_EQ(Lookup(6210), u"Remote SNTP Server unknown error.");

    const std::string root = RootWithLibraries("full", {2057, 1036, 1033}, shipped);
    OverrideInstallRoot(root.c_str());
    EXPECT_EQ(ChosenFile(2057), "res2057.dll");
    EXPECT_EQ(ChosenFile(2060), "res1036.dll");  // 2060 -> primary 0x0C with sublanguage 1
    char path[PATH_CAPACITY];
    ASSERT_NE(FindResourceDll(2057, path), nullptr);
    EXPECT_EQ(std::string(path), root + "\\Applications\\System\\res2057.dll");

    OverrideInstallRoot(RootWithLibraries("none", {2057}, shipped).c_str());
    EXPECT_EQ(ChosenFile(1031), "");
    EXPECT_EQ(InitMessageTextsFor(1031), 1);  // German has no profile either
    EXPECT_EQ(MessageTextCount(), 0u);
    EXPECT_EQ(Lookup(6210), u"default");

    // The display profile follows the primary language and stays when no row matches.
    EXPECT_EQ(InitMessageTextsFor(0x0401), 0);  // Arabic, Saudi Arabia
    EXPECT_EQ(InitMessageTextsFor(0x0407), 1);
    EXPECT_EQ(currentProfile->charset, 178);
    EXPECT_EQ(InitMessageTextsFor(0x0C04), 0);  // Chinese, Hong Kong
    EXPECT_STREQ(currentProfile->fontFace, "NSimSun");
    EXPECT_EQ(InitMessageTextsFor(2057), 0);
    EXPECT_EQ(currentProfile, &languageProfiles[0]);
}

TEST_F(MessageTextsTest, BlocksMapToSlotsFromTheirIdAndIdZeroNeverFindsAText) {
    std::vector<uint8_t> renumbered = shipped;
    Put32(renumbered, layout.BlockEntry(0), 2);
    Put32(renumbered, layout.BlockEntry(1), 1);  // 6208 becomes slot 0
    Put32(renumbered, layout.BlockEntry(2), 3);  // 11068, the 13th of its block, becomes slot 44
    char16_t** table = ReadTable(renumbered);
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(MessageTextCount(), 49u);
    EXPECT_EQ(std::u16string(table[0]), SntpTroubleTable[SNTP_INCOMPATIBLE_VERSION].defaultText);
    EXPECT_EQ(std::u16string(table[28]), SntpTroubleTable[SNTP_SOCKET_ERROR].defaultText);
    EXPECT_EQ(std::u16string(table[44]), SntpTroubleTable[SNTP_CANNOT_RESOLVE].defaultText);
    FreeStringTable(table, 49);

    OverrideInstallRoot(RootWithLibraries("renumbered", {1033}, renumbered).c_str());
    InitMessageTextsFor(1033);
    EXPECT_EQ(Lookup(0), u"default");
    EXPECT_EQ(Lookup(1), SntpTroubleTable[SNTP_INCONSISTENT_ADDRESS].defaultText);

    // The largest block id allowed.
    Put32(renumbered, layout.BlockEntry(2), 60000);
    table = ReadTable(renumbered);
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(MessageTextCount(), 60000u * 16 + 1);
    EXPECT_NE(table[59999 * 16 + 12], nullptr);
    FreeStringTable(table, MessageTextCount());

    // A string directory without blocks is a table of one empty slot.
    std::vector<uint8_t> noBlocks = shipped;
    noBlocks[layout.blockDirectory + 14] = 0;
    table = ReadTable(noBlocks);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(MessageTextCount(), 1u);
    EXPECT_EQ(table[0], nullptr);
    FreeStringTable(table, 1);
}

TEST_F(MessageTextsTest, DamagedFilesGiveNoTableAndLookupsFallBackToDefaults) {
    struct Damage {
        const char* name;
        size_t at;
        uint32_t value;
        uint32_t countAfter;  // once the table was sized, a failure keeps its count
    };
    const size_t firstData = layout.sectionOffset + Get32(shipped, LanguageDirectory(shipped, layout, 0) + 20);
    const Damage damages[] = {
        {"not an image", 0, 0x5A59, 0},
        {"no headers", 60, 0, 0},
        {"headers past the end", 60, 0x7FFFFFF0, 0},
        {"no resource section", layout.sectionHeader, 0x6164642E, 0},  // ".dda"
        {"no string table", layout.sectionOffset + 16, 3, 0},
        {"block id 0", layout.BlockEntry(0), 0, SHIPPED_TEXT_COUNT},
        {"block id above 60000", layout.BlockEntry(2), 60001, 0},
        {"two languages", LanguageDirectory(shipped, layout, 1) + 12, 2u << 16, SHIPPED_TEXT_COUNT},
        {"data over 20000 bytes", firstData + 4, 20001, SHIPPED_TEXT_COUNT},
        {"data entry is a directory", LanguageDirectory(shipped, layout, 0) + 20,
         Get32(shipped, LanguageDirectory(shipped, layout, 0) + 20) | SUBDIRECTORY, SHIPPED_TEXT_COUNT},
    };
    for (const Damage& damage : damages) {
        std::vector<uint8_t> damaged = shipped;
        Put32(damaged, damage.at, damage.value);
        damaged.resize(damaged.size() + 20004, 0);  // so an over-long block could be read whole
        EXPECT_EQ(ReadTable(damaged), nullptr) << damage.name;
        EXPECT_EQ(MessageTextCount(), damage.countAfter) << damage.name;
    }

    // Installed, a damaged library still loads, and every lookup gives its default.
    std::vector<uint8_t> damaged = shipped;
    Put32(damaged, LanguageDirectory(shipped, layout, 1) + 12, 2u << 16);
    OverrideInstallRoot(RootWithLibraries("damaged", {1033}, damaged).c_str());
    InitMessageTextsFor(1033);
    EXPECT_EQ(MessageTextCount(), SHIPPED_TEXT_COUNT);
    EXPECT_EQ(Lookup(6205), u"default");
    EXPECT_EQ(Lookup(6205, nullptr), u"");
    EXPECT_EQ(ReadStringTable(nullptr), nullptr);
}

TEST_F(MessageTextsTest, A64BitImageHasNoTableEvenThoughItLoads) {
    const std::vector<uint8_t> image = ReadBytes(ModuleDirectory() + "/res1033-x64.dll");
    ASSERT_FALSE(image.empty());
    EXPECT_EQ(ReadTable(image), nullptr);
    EXPECT_EQ(MessageTextCount(), 0u);

    OverrideInstallRoot(RootWithLibraries("x64", {1033}, image).c_str());
    EXPECT_EQ(ChosenFile(1033), "res1033.dll");
    InitMessageTextsFor(1033);
    EXPECT_EQ(Lookup(6205), u"default");
}

TEST_F(MessageTextsTest, TruncatedFilesGiveNoTableOrTheWholeOne) {
    // The file ends in alignment padding, so a cut there may leave the table whole; a cut
    // inside the last string block never does.
    const size_t lastData = layout.sectionOffset + Get32(shipped, LanguageDirectory(shipped, layout, 2) + 20);
    const size_t end = Get32(shipped, lastData) - Get32(shipped, layout.sectionHeader + 12) + layout.sectionOffset +
                       Get32(shipped, lastData + 4);
    ASSERT_LE(end, shipped.size());
    std::vector<size_t> lengths = {end - 1, end};
    for (size_t length = 0; length < shipped.size(); length += 7) {
        lengths.push_back(length);
    }
    for (const size_t length : lengths) {
        char16_t** table = ReadTable(std::vector<uint8_t>(shipped.begin(), shipped.begin() + length));
        EXPECT_EQ(table != nullptr, length >= end) << length;
        if (table != nullptr) {
            EXPECT_EQ(MessageTextCount(), SHIPPED_TEXT_COUNT);
            FreeStringTable(table, SHIPPED_TEXT_COUNT);
        }
    }
}
