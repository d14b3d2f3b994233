// Installation directories: the root rule on example paths, the bounded copies of the root and
// the data directory, and the root of the running test executable.
#include "config/config_test_seams.h"
#include "config/directories.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {
std::string RootOf(const char16_t* modulePath) {
    char root[PATH_CAPACITY];
    std::memset(root, '#', sizeof root);
    ComputeInstallRoot(modulePath, root);
    return root;
}

std::string DataDirectoryFor(const char16_t* modulePath) {
    const std::string root = RootOf(modulePath);
    OverrideInstallRoot(root.c_str());
    char directory[PATH_CAPACITY];
    EXPECT_EQ(GetDataDirectory(directory, PATH_CAPACITY), 0);
    OverrideInstallRoot(nullptr);
    return directory;
}
}  // namespace

TEST(InstallRoot, IsTheDriveAndItsFirstDirectoryNarrowedAndBounded) {
    EXPECT_EQ(RootOf(u"C:\\Plant\\Applications\\Time\\service.exe"), "C:\\Plant");
    EXPECT_EQ(DataDirectoryFor(u"D:\\A\\B\\C\\x.exe"), "D:\\A\\Data\\System");
    // Directly in the drive's root there is no backslash past "D:\": the whole path is kept.
    EXPECT_EQ(DataDirectoryFor(u"D:\\x.exe"), "D:\\x.exe\\Data\\System");
    EXPECT_EQ(RootOf(u"C:\\Pl|nt\\x.exe"), "C:\\Pl!nt");
    EXPECT_EQ(RootOf(u"C:\\\u0141\u00E9\\x.exe"), "C:\\A\xE9");  // the low byte of each unit
    EXPECT_EQ(RootOf(u"C:"), "C:");
    EXPECT_EQ(RootOf(u""), "");
    EXPECT_EQ(RootOf(nullptr), "");
    const std::u16string longPath = u"C:" + std::u16string(400, u'x');
    EXPECT_EQ(RootOf(longPath.c_str()), "C:" + std::string(PATH_CAPACITY - 3, 'x'));
}

TEST(InstallRoot, CopiesOutWithinTheCallersCapacity) {
    using namespace std::string_literals;
    // The bytes up to and including buffer[capacity]: a copy never writes past its end.
    auto copied = [](int32_t (*copy)(char*, uint32_t), uint32_t capacity) {
        char buffer[16];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(copy(buffer, capacity), 0);
        return std::string(buffer, capacity + 1);
    };
    OverrideInstallRoot("C:\\Plant");
    EXPECT_EQ(copied(GetInstallRoot, 5), "C:\\P\0#"s);
    EXPECT_EQ(copied(GetInstallRoot, 0), "#");
    EXPECT_EQ(copied(GetDataDirectory, 0), "#");
    EXPECT_EQ(copied(GetDataDirectory, 12), "C:\\Plant\\Da\0#"s);
    EXPECT_EQ(copied(GetDataDirectory, 14), "C:\\Plant\\Data\0#"s);  // "\System" did not fit at all
    EXPECT_EQ(GetDataDirectory(nullptr, PATH_CAPACITY), 1);
    OverrideInstallRoot(nullptr);
}

TEST(InstallRoot, OfTheRunningExecutableIsTheStartOfItsPath) {
    OverrideInstallRoot(nullptr);
    char16_t modulePath[PATH_CAPACITY];
    ReadModulePath(modulePath, PATH_CAPACITY);
    std::string narrowPath;
    for (const char16_t* unit = modulePath; *unit != u'\0'; ++unit) {
        narrowPath += static_cast<char>(*unit & 0xFF);
    }
    ASSERT_FALSE(narrowPath.empty());

    char root[PATH_CAPACITY];
    GetInstallRoot(root, PATH_CAPACITY);
    const std::string rootText = root;
    ASSERT_FALSE(rootText.empty());
    EXPECT_EQ(narrowPath.compare(0, rootText.size(), rootText), 0) << narrowPath << " / " << rootText;
#ifdef _WIN32
    // "X:\first", ending where the next backslash begins.
    EXPECT_EQ(rootText.find('\\', 3), std::string::npos);
    EXPECT_EQ(narrowPath[rootText.size()], '\\');
#else
    // No backslash in a POSIX path: the whole path is the root.
    EXPECT_EQ(rootText, narrowPath);
#endif
}
