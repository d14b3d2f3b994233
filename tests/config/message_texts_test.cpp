// Localised message texts: the shipped res1033.dll (its texts, and that it loads), the choice
// among the language candidates, the display profiles, the lookups, and the string-table reader
// on images built here, on a 64-bit image and on damaged files.
//
// The test executable's own directory serves as the installation root, so the shipped library
// lies at <root>\Applications\System\res1033.dll beside it (see CMakeLists.txt).
#include "config/message_texts.h"

#include <gtest/gtest.h>

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

std::string ShippedLibraryPath() {
    return ModuleDirectory() + "/Applications/System/res1033.dll";
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A scratch directory of this build, emptied for each use.
std::string Scratch(const std::string& name) {
    const std::string path = ModuleDirectory() + "/scratch-message-texts/" + name;
    std::error_code ignored;
    fs::remove_all(path, ignored);
    fs::create_directories(path);
    return path;
}

char16_t** ReadTable(const std::vector<uint8_t>& bytes) {
    const std::string directory = ModuleDirectory() + "/scratch-message-texts";
    fs::create_directories(directory);
    const std::string path = directory + "/image.dll";
    WriteBytes(path, bytes);
    FILE* file = fopen(path.c_str(), "rb");
    EXPECT_NE(file, nullptr);
    return ReadStringTable(file);
}

std::u16string Lookup(uint32_t id, const char16_t* defaultText = u"default") {
    char16_t text[TEXT_UNITS];
    return GetMessageText(id, text, TEXT_UNITS, defaultText);
}

void Put16(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
    bytes[at] = static_cast<uint8_t>(value);
    bytes[at + 1] = static_cast<uint8_t>(value >> 8);
}

void Put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
    Put16(bytes, at, value & 0xFFFF);
    Put16(bytes, at + 2, value >> 16);
}

uint32_t Get32(const std::vector<uint8_t>& bytes, size_t at) {
    return bytes[at] | (bytes[at + 1] << 8) | (bytes[at + 2] << 16) | (static_cast<uint32_t>(bytes[at + 3]) << 24);
}

// One string block of a built image, and the ways it can be damaged.
struct TestBlock {
    uint32_t id;
    std::vector<std::u16string> strings;  // each written as a length unit and its units
    uint16_t languageEntries = 1;
    bool blockIsDirectory = true;   // bit 31 of the block's entry
    bool dataIsDirectory = false;   // bit 31 of the language entry
    uint32_t dataSize = 0;          // size field and bytes of the data when larger than the strings
    uint32_t declaredLength = 0;    // replaces the first length unit when not 0
};

struct TestImage {
    std::string sectionName = ".rsrc";
    uint32_t resourceType = 6;
    uint32_t ntOffset = 0x80;
    std::vector<TestBlock> blocks;
};

// A 32-bit image as the reader sees it: a code section, then the resource section, whose
// structures come one after another, each block's strings last, so any cut loses something read.
std::vector<uint8_t> BuildImage(const TestImage& image) {
    const uint32_t SECTION_OFFSET = 0x200;
    const uint32_t SECTION_ADDRESS = 0x3000;
    std::vector<uint8_t> file(SECTION_OFFSET, 0);
    file[0] = 'M';
    file[1] = 'Z';
    Put32(file, 60, image.ntOffset);
    std::memcpy(&file[image.ntOffset], "PE\0\0", 4);
    Put16(file, image.ntOffset + 6, 2);
    const size_t sections = image.ntOffset + 248;
    std::memcpy(&file[sections], ".text", 5);
    std::memcpy(&file[sections + 40], image.sectionName.data(), image.sectionName.size());
    Put32(file, sections + 40 + 12, SECTION_ADDRESS);
    Put32(file, sections + 40 + 20, SECTION_OFFSET);

    std::vector<uint8_t> rsrc;
    auto reserve = [&rsrc](size_t size) {
        const size_t at = rsrc.size();
        rsrc.resize(at + size, 0);
        return static_cast<uint32_t>(at);
    };
    const uint32_t root = reserve(16 + 8);
    Put16(rsrc, root + 14, 1);
    Put32(rsrc, root + 16, image.resourceType);
    const uint32_t blockCount = static_cast<uint32_t>(image.blocks.size());
    const uint32_t types = reserve(16 + 8 * blockCount);
    Put32(rsrc, root + 20, types | SUBDIRECTORY);
    Put16(rsrc, types + 14, blockCount);
    for (uint32_t index = 0; index < blockCount; ++index) {
        const TestBlock& block = image.blocks[index];
        const uint32_t entry = types + 16 + 8 * index;
        const uint32_t language = reserve(16 + 8 * block.languageEntries);
        Put32(rsrc, entry, block.id);
        Put32(rsrc, entry + 4, language | (block.blockIsDirectory ? SUBDIRECTORY : 0));
        Put16(rsrc, language + 14, block.languageEntries);
        Put32(rsrc, language + 16, 1033);
        const uint32_t dataEntry = reserve(16);
        Put32(rsrc, language + 20, dataEntry | (block.dataIsDirectory ? SUBDIRECTORY : 0));
        std::vector<uint16_t> units;
        for (const std::u16string& text : block.strings) {
            units.push_back(static_cast<uint16_t>(text.size()));
            units.insert(units.end(), text.begin(), text.end());
        }
        if (block.declaredLength != 0) {
            units[0] = static_cast<uint16_t>(block.declaredLength);
        }
        const uint32_t size = std::max<uint32_t>(static_cast<uint32_t>(units.size() * 2), block.dataSize);
        const uint32_t data = reserve(size);
        for (size_t unit = 0; unit < units.size(); ++unit) {
            Put16(rsrc, data + 2 * unit, units[unit]);
        }
        Put32(rsrc, dataEntry, SECTION_ADDRESS + data);
        Put32(rsrc, dataEntry + 4, size);
    }
    file.insert(file.end(), rsrc.begin(), rsrc.end());
    return file;
}

// Sixteen strings "<first slot + i>", with the one at emptyIndex left empty.
TestBlock NumberedBlock(uint32_t id, int emptyIndex = -1) {
    TestBlock block{id, {}};
    for (uint32_t i = 0; i < 16; ++i) {
        const std::string number = std::to_string((id - 1) * 16 + i);
        block.strings.push_back(static_cast<int>(i) == emptyIndex ? u"" : std::u16string(number.begin(), number.end()));
    }
    return block;
}

// The file offset of the index-th block entry of a well-formed image's string table, and of
// the resource section.
size_t StringBlockEntry(const std::vector<uint8_t>& image, uint32_t index, uint32_t* sectionOffset) {
    const uint32_t ntOffset = Get32(image, 60);
    size_t section = ntOffset + 248;
    while (std::memcmp(&image[section], ".rsrc", 5) != 0) {
        section += 40;
    }
    *sectionOffset = Get32(image, section + 20);
    const uint32_t types = Get32(image, *sectionOffset + 20) & ~SUBDIRECTORY;  // the only type
    return *sectionOffset + types + 16 + 8 * index;
}

size_t FirstLanguageDirectory(const std::vector<uint8_t>& image) {
    uint32_t sectionOffset = 0;
    const size_t entry = StringBlockEntry(image, 0, &sectionOffset);
    return sectionOffset + (Get32(image, entry + 4) & ~SUBDIRECTORY);
}

// An installation root whose Applications\System holds copies of the shipped library under the
// given language ids.
std::string RootWithLibraries(const std::string& name, const std::vector<uint32_t>& languages,
                              const std::vector<uint8_t>& bytes) {
    const std::string root = Scratch(name);
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

class MessageTextsTest : public testing::Test {
protected:
    void TearDown() override {
        FreeMessageTexts();
        OverrideInstallRoot(nullptr);
    }
    std::vector<uint8_t> shipped = ReadBytes(ShippedLibraryPath());
};
}  // namespace

TEST_F(MessageTextsTest, ShippedLibraryHoldsExactlyTheTroubleTexts) {
    ASSERT_FALSE(shipped.empty()) << ShippedLibraryPath();
    char16_t** table = ReadTable(shipped);
    ASSERT_NE(table, nullptr);
    const uint32_t count = MessageTextCount();
    EXPECT_EQ(count, SHIPPED_TEXT_COUNT);
    uint32_t texts = 0;
    for (uint32_t slot = 0; slot < count; ++slot) {
        texts += table[slot] != nullptr ? 1 : 0;
    }
    EXPECT_EQ(texts, 9u);
    for (SntpResult code = 1; code < SNTP_RESULT_COUNT; ++code) {
        const SntpTroubleRow& row = SntpTroubleTable[code];
        if (row.messageId > 0) {
            ASSERT_NE(table[row.messageId], nullptr) << row.messageId;
            EXPECT_EQ(std::u16string(table[row.messageId]), row.defaultText) << row.messageId;
        }
    }
    FreeStringTable(table, count);
}

TEST_F(MessageTextsTest, ShippedLibraryLoadsFromTheInstallationAndAnswersLookups) {
    OverrideInstallRoot(ModuleDirectory().c_str());
    ASSERT_NE(FindResourceDll(1033, nullptr), nullptr);
    EXPECT_EQ(InitMessageTextsFor(1033), 0);
    EXPECT_EQ(currentProfile, &languageProfiles[0]);
    EXPECT_EQ(MessageTextCount(), SHIPPED_TEXT_COUNT);
    EXPECT_EQ(Lookup(6205), u"The time server did not respond.  Contact your network administrator.");
    EXPECT_EQ(Lookup(11068), u"Local SNTP Client: Cannot resolve host name");
    // Id 0, an empty slot of a present block, ids at or past the count: the default.
    EXPECT_EQ(Lookup(0), u"default");
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
    OverrideInstallRoot(Scratch("empty-root").c_str());
    EXPECT_EQ(InitMessageTexts(), 0);
    EXPECT_EQ(Lookup(6205), u"The time server did not respond.  Contact your network administrator.");
}

#ifdef _WIN32
TEST_F(MessageTextsTest, ShippedLibraryIsAModuleThatThisWindowsProcessLoads) {
    // The 64-bit process loads the 32-bit library only because it holds no code.
    const std::string path = ShippedLibraryPath();
    const std::wstring widePath(path.begin(), path.end());
    HMODULE module = LoadLibraryW(widePath.c_str());
    ASSERT_NE(module, nullptr) << "LoadLibraryW failed with " << GetLastError();
    wchar_t text[TEXT_UNITS];
    const int length = LoadStringW(module, 6208, text, TEXT_UNITS);
    FreeLibrary(module);
    EXPECT_EQ(std::wstring(text, length > 0 ? length : 0), L"Remote SNTP Server is an incompatible version.");
}
#endif

TEST_F(MessageTextsTest, CandidatesAreTheLanguageThenItsPrimaryDefaultThenUsEnglish) {
    ASSERT_FALSE(shipped.empty());
    OverrideInstallRoot(RootWithLibraries("only-1033", {1033}, shipped).c_str());
    EXPECT_EQ(ChosenFile(2057), "res1033.dll");  // the second candidate, 2057 -> 1033
    EXPECT_EQ(ChosenFile(2060), "res1033.dll");  // the third
    EXPECT_EQ(InitMessageTextsFor(2057), 0);
    EXPECT_EQ(Lookup(6210), u"Remote SNTP Server unknown error.");

    const std::string root = RootWithLibraries("full", {2057, 1036, 1033}, shipped);
    OverrideInstallRoot(root.c_str());
    EXPECT_EQ(ChosenFile(2057), "res2057.dll");
    EXPECT_EQ(ChosenFile(2060), "res1036.dll");  // 2060 -> primary 0x0C with sublanguage 1
    EXPECT_EQ(ChosenFile(1031), "res1033.dll");
    char path[PATH_CAPACITY];
    ASSERT_NE(FindResourceDll(2057, path), nullptr);
    EXPECT_EQ(std::string(path), root + "\\Applications\\System\\res2057.dll");

    OverrideInstallRoot(RootWithLibraries("none", {2057}, shipped).c_str());
    EXPECT_EQ(ChosenFile(1031), "");
    EXPECT_EQ(InitMessageTextsFor(1031), 1);
    EXPECT_EQ(MessageTextCount(), 0u);
    EXPECT_EQ(Lookup(6210), u"default");
}

TEST_F(MessageTextsTest, TheProfileFollowsThePrimaryLanguageAndStaysWhenNoneMatches) {
    OverrideInstallRoot(Scratch("profiles").c_str());
    EXPECT_EQ(InitMessageTextsFor(0x0401), 0);  // Arabic, Saudi Arabia
    EXPECT_EQ(currentProfile->rightToLeft, 1);
    EXPECT_EQ(currentProfile->charset, 178);
    EXPECT_EQ(InitMessageTextsFor(0x0407), 1);  // German has no row
    EXPECT_EQ(currentProfile->primaryLanguage, 0x01u);
    EXPECT_EQ(InitMessageTextsFor(0x0C04), 0);  // Chinese, Hong Kong
    EXPECT_STREQ(currentProfile->fontFace, "NSimSun");
    EXPECT_EQ(InitMessageTextsFor(0x0412), 0);
    EXPECT_STREQ(currentProfile->fontFace, "Tahoma");
    EXPECT_EQ(InitMessageTextsFor(1033), 0);
    EXPECT_EQ(currentProfile, &languageProfiles[0]);
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

TEST_F(MessageTextsTest, AFailedWalkKeepsItsCountButLookupsFallBackToDefaults) {
    ASSERT_FALSE(shipped.empty());
    std::vector<uint8_t> damaged = shipped;
    Put16(damaged, FirstLanguageDirectory(damaged) + 14, 2);
    OverrideInstallRoot(RootWithLibraries("damaged", {1033}, damaged).c_str());
    InitMessageTextsFor(1033);
    EXPECT_EQ(MessageTextCount(), SHIPPED_TEXT_COUNT);
    EXPECT_EQ(Lookup(6205), u"default");
    EXPECT_EQ(Lookup(6205, nullptr), u"");
}

TEST_F(MessageTextsTest, IdZeroNeverFindsAText) {
    // Renumbering block 389 (ids 6208..6223) as block 1 puts a text into slot 0.
    ASSERT_FALSE(shipped.empty());
    std::vector<uint8_t> renumbered = shipped;
    uint32_t sectionOffset = 0;
    const size_t entry = StringBlockEntry(renumbered, 1, &sectionOffset);
    ASSERT_EQ(Get32(renumbered, entry), 389u);
    Put32(renumbered, entry, 1);
    OverrideInstallRoot(RootWithLibraries("renumbered", {1033}, renumbered).c_str());
    InitMessageTextsFor(1033);
    EXPECT_EQ(Lookup(0), u"default");
    EXPECT_EQ(Lookup(6208), u"default");
    EXPECT_EQ(Lookup(1), u"Remote SNTP Server used an inconsistent address.");
}

TEST_F(MessageTextsTest, BlocksFillTheirSixteenSlots) {
    TestImage image;
    image.blocks = {NumberedBlock(3, 5), NumberedBlock(1)};
    char16_t** table = ReadTable(BuildImage(image));
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(MessageTextCount(), 49u);
    for (uint32_t slot = 0; slot < 49; ++slot) {
        const bool filled = slot < 16 || (slot >= 32 && slot < 48 && slot != 37);
        ASSERT_EQ(table[slot] != nullptr, filled) << slot;
        if (filled) {
            const std::string number = std::to_string(slot);
            EXPECT_EQ(std::u16string(table[slot]), std::u16string(number.begin(), number.end()));
        }
    }
    FreeStringTable(table, 49);
}

TEST_F(MessageTextsTest, OddStringsAreCutAndStayInTheirBlock) {
    TestBlock first{1, {std::u16string(u"ab\0cd", 5), std::u16string(3000, u'w')}};
    for (uint32_t i = 0; i < 16; ++i) {
        first.strings.push_back(u"s");  // eighteen strings in all: two more than a block holds
    }
    TestBlock second{2, {u"xyz"}};
    second.declaredLength = 500;  // runs past the end of the data
    TestBlock notADirectory = NumberedBlock(3);
    notADirectory.blockIsDirectory = false;
    TestImage image;
    image.blocks = {first, second, notADirectory};
    char16_t** table = ReadTable(BuildImage(image));
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(MessageTextCount(), 49u);
    EXPECT_EQ(std::u16string(table[0]), u"ab");
    EXPECT_EQ(std::u16string(table[1]), std::u16string(2047, u'w'));
    EXPECT_EQ(std::u16string(table[15]), u"s");
    EXPECT_EQ(std::u16string(table[16]), u"xyz");
    EXPECT_EQ(table[17], nullptr);  // not the first block's eighteenth string
    for (uint32_t slot = 32; slot < 49; ++slot) {
        EXPECT_EQ(table[slot], nullptr) << slot;  // a block entry that is no directory is skipped
    }
    FreeStringTable(table, 49);

    image.blocks.clear();
    table = ReadTable(BuildImage(image));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(MessageTextCount(), 1u);
    EXPECT_EQ(table[0], nullptr);
    FreeStringTable(table, 1);
}

TEST_F(MessageTextsTest, BoundsOfBlockIdAndDataSizeAreInclusive) {
    TestImage image;
    TestBlock large = NumberedBlock(1);
    large.dataSize = 20000;
    image.blocks = {large, {60000, {u"last"}}};
    char16_t** table = ReadTable(BuildImage(image));
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(MessageTextCount(), 60000u * 16 + 1);
    EXPECT_EQ(std::u16string(table[59999 * 16]), u"last");
    EXPECT_EQ(std::u16string(table[15]), u"15");
    FreeStringTable(table, 60000 * 16 + 1);
}

TEST_F(MessageTextsTest, DamagedImagesGiveNoTable) {
    struct Damage {
        const char* name;
        TestImage image;
        uint32_t countAfter;  // the count survives a failure once the table was sized
    };
    std::vector<Damage> damages;
    auto add = [&damages](const char* name, uint32_t countAfter) -> TestImage& {
        damages.push_back({name, TestImage(), countAfter});
        damages.back().image.blocks = {NumberedBlock(1)};
        return damages.back().image;
    };
    add("no resource section", 0).sectionName = ".data";
    add("no string table", 0).resourceType = 3;
    add("block id 0", 49).blocks.push_back(NumberedBlock(3));
    damages.back().image.blocks[0].id = 0;
    add("block id above 60000", 0).blocks[0].id = 60001;
    add("two languages", 17).blocks[0].languageEntries = 2;
    add("data entry is a directory", 17).blocks[0].dataIsDirectory = true;
    add("data over 20000 bytes", 17).blocks[0].dataSize = 20001;

    for (const Damage& damage : damages) {
        EXPECT_EQ(ReadTable(BuildImage(damage.image)), nullptr) << damage.name;
        EXPECT_EQ(MessageTextCount(), damage.countAfter) << damage.name;
    }

    std::vector<uint8_t> notAnImage = BuildImage(TestImage{".rsrc", 6, 0x80, {NumberedBlock(1)}});
    notAnImage[1] = 'Y';
    EXPECT_EQ(ReadTable(notAnImage), nullptr);
    std::vector<uint8_t> noHeaders = BuildImage(TestImage{".rsrc", 6, 0x80, {NumberedBlock(1)}});
    Put32(noHeaders, 60, 0);
    EXPECT_EQ(ReadTable(noHeaders), nullptr);
    Put32(noHeaders, 60, 0x7FFFFFF0);  // far past the end of the file
    EXPECT_EQ(ReadTable(noHeaders), nullptr);
    EXPECT_EQ(ReadStringTable(nullptr), nullptr);
}

TEST_F(MessageTextsTest, TruncatedFilesGiveNoTableAndNeverACrash) {
    TestImage image;
    image.blocks = {NumberedBlock(2), NumberedBlock(5)};
    const std::vector<uint8_t> whole = BuildImage(image);
    for (size_t length = 0; length < whole.size(); ++length) {
        const std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        ASSERT_EQ(ReadTable(cut), nullptr) << length;
    }

    // The shipped file ends in alignment padding: a cut there may leave the table whole.
    ASSERT_FALSE(shipped.empty());
    for (size_t length = 0; length < shipped.size(); length += 5) {
        const std::vector<uint8_t> cut(shipped.begin(), shipped.begin() + static_cast<std::ptrdiff_t>(length));
        char16_t** table = ReadTable(cut);
        if (table != nullptr) {
            EXPECT_EQ(MessageTextCount(), SHIPPED_TEXT_COUNT) << length;
            FreeStringTable(table, MessageTextCount());
        }
    }
}
