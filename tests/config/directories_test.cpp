// Installation directories: the root rule on example paths, the bounded copies of the root and
// the data directory, and the root of the running test executable.
#include "config/config_test_seams.h"
#include "config/directories.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;

TEST(InstallRoot, IsTheDriveAndItsFirstDirectoryNarrowedAndBounded) {
    const std::u16string longPath = u"C:" + std::u16string(400, u'x');
    const struct { const char16_t* modulePath; std::string root; } cases[] = {
        {u"C:\\Plant\\Applications\\Time\\service.exe", "C:\\Plant"}, {u"D:\\A\\B\\C\\x.exe", "D:\\A"},
        {u"D:\\x.exe", "D:\\x.exe"},  // no backslash past "D:\": the whole path is kept
        {u"C:\\Pl|nt\\x.exe", "C:\\Pl!nt"},
        {u"C:\\\u0141\u00E9\\x.exe", "C:\\A\xE9"},  // the low byte of each unit
        {u"C:", "C:"}, {u"", ""}, {nullptr, ""},
        {longPath.c_str(), "C:" + std::string(PATH_CAPACITY - 3, 'x')},
    };
    for (const auto& test : cases) {
        std::string root(PATH_CAPACITY, '#');  // filled, so a missing terminator shows
        ComputeInstallRoot(test.modulePath, root.data());
        EXPECT_EQ(root.c_str(), test.root);
    }
}

// Copies never write past the capacity; without the override the root comes from the executable.
TEST(InstallRoot, CopiesOutWithinTheCallersCapacityAndComesFromTheExecutable) {
    auto copied = [](int32_t (*copy)(char*, uint32_t), uint32_t capacity) {  // buffer[0..capacity]
        std::string buffer(32, '#');
        EXPECT_EQ(copy(buffer.data(), capacity), 0);
        return buffer.substr(0, capacity + 1);
    };
    OverrideInstallRoot("C:\\Plant");
    EXPECT_EQ(copied(GetInstallRoot, 5), "C:\\P\0#"s);
    EXPECT_EQ(copied(GetInstallRoot, 0), "#");
    EXPECT_EQ(copied(GetDataDirectory, 0), "#");
    EXPECT_EQ(copied(GetDataDirectory, 21), "C:\\Plant\\Data\\System\0#"s);
    EXPECT_EQ(GetDataDirectory(nullptr, PATH_CAPACITY), 1);
    OverrideInstallRoot(nullptr);
    char16_t modulePath[PATH_CAPACITY];
    ReadModulePath(modulePath, PATH_CAPACITY);
    const std::string path(modulePath, modulePath + std::char_traits<char16_t>::length(modulePath));  // low bytes
    char root[PATH_CAPACITY];
    GetInstallRoot(root, PATH_CAPACITY);
    EXPECT_EQ(path.substr(0, path.find('\\', 3)), root);  // "X:\first", or a whole POSIX path
}
