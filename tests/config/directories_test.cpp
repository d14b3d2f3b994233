// Installation directories: the root rule, the bounded copies, the running executable's root.
#include "config/directories.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/scoped_seams.h"

namespace {
using namespace std::string_literals;

struct CopiedOut {
    std::string bytes;  // the buffer up to one byte past the capacity
    int32_t status;
};

// Copies into a filled buffer, so a byte written past the capacity or a missing terminator shows.
CopiedOut CopyOut(int32_t (*copy)(char*, uint32_t), uint32_t capacity) {
    std::string buffer(32, '#');
    const int32_t status = copy(buffer.data(), capacity);
    return {buffer.substr(0, capacity + 1), status};
}
}  // namespace

TEST(InstallRoot, IsTheDriveWithItsFirstDirectory) {
    const std::u16string longPath = u"C:" + std::u16string(400, u'x');
    const struct {
        const char* rule;
        const char16_t* modulePath;
        std::string root;
    } cases[] = {
        {"cut at the second backslash", u"C:\\Plant\\Applications\\Time\\service.exe", "C:\\Plant"},
        {"no backslash past the drive's: the whole path", u"D:\\x.exe", "D:\\x.exe"},
        {"'|' becomes '!'", u"C:\\Pl|nt\\x.exe", "C:\\Pl!nt"},
        {"the low byte of each unit", u"C:\\\u0141\u00E9\\x.exe", "C:\\A\xE9"},
        {"empty", u"", ""},
        {"null", nullptr, ""},
        {"at most 259 characters", longPath.c_str(), "C:" + std::string(PATH_CAPACITY - 3, 'x')},
    };
    for (const auto& c : cases) {
        std::string root(PATH_CAPACITY, '#');
        ComputeInstallRoot(c.modulePath, root.data());
        EXPECT_EQ(root.c_str(), c.root) << c.rule;
    }
}

TEST(InstallRoot, CopiesWriteWithinTheCallersCapacity) {
    ScopedInstallRoot root("C:\\Plant");
    const struct {
        const char* label;
        CopiedOut copied;
        std::string bytes;
    } cases[] = {
        {"root in 5 bytes", CopyOut(GetInstallRoot, 5), "C:\\P\0#"s},
        {"root in none", CopyOut(GetInstallRoot, 0), "#"},
        {"data directory in none", CopyOut(GetDataDirectory, 0), "#"},
        {"data directory in 21 bytes", CopyOut(GetDataDirectory, 21), "C:\\Plant\\Data\\System\0#"s},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.copied.bytes, c.bytes) << c.label;
        EXPECT_EQ(c.copied.status, 0) << c.label;
    }
}

// "X:\first" of the executable's path, or a whole POSIX path.
TEST(InstallRoot, ComesFromTheRunningExecutable) {
    char16_t modulePath[PATH_CAPACITY];
    ReadModulePath(modulePath, PATH_CAPACITY);
    const std::string path(modulePath, modulePath + std::char_traits<char16_t>::length(modulePath));  // low bytes
    char root[PATH_CAPACITY];
    GetInstallRoot(root, PATH_CAPACITY);
    EXPECT_EQ(path.substr(0, path.find('\\', 3)), root);
}
