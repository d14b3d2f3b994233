// ConfigFile store and its lock, through real files in a scratch directory.
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "config/config_file.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/resource.h>
#endif

namespace {
namespace fs = std::filesystem;
const char DEFAULT_TEXT[] = "<default>";
// Names the scratch directories and lock files of this run apart from any other run's.
const std::string RUN_TAG = std::to_string(std::random_device()());

void WriteFileText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

std::string ReadFileText(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// "" opens one without a file.
struct OpenStore {
    explicit OpenStore(const std::string& path) { OpenConfigFile(&file, path.empty() ? nullptr : path.c_str()); }
    ~OpenStore() { CloseConfigFile(&file); }
    std::string Get(const std::string& key) {
        char value[8192];
        return GetConfigString(&file, key.c_str(), value, sizeof value, DEFAULT_TEXT);
    }
    ConfigFile file;
};

struct ConfigFileTest : testing::Test {
    void SetUp() override { ASSERT_TRUE(fs::create_directory(directory)) << directory; }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
#ifndef _WIN32
        // The lock files in /tmp that the store makes for file names and never removes.
        for (std::string name : names) {
            for (char& c : name) c = static_cast<char>(toupper(c));
            fs::remove("/tmp/NorvikConfig." + name + ".lock", ignored);
        }
#endif
    }
    std::string PathOf(const std::string& name) {
        names.push_back(name);
        return (directory / name).string();
    }
    std::vector<std::string> names;
    const fs::path directory = fs::temp_directory_path() / ("config_file_test." + RUN_TAG + "." +
                                                            testing::UnitTest::GetInstance()->current_test_info()->name());
};

// Takes the lock of a file name on a thread of its own, as another process would, and lets it go.
class LockTaker {
public:
    explicit LockTaker(const std::string& path) : taken_(std::make_shared<std::atomic<bool>>(false)) {
        std::thread([taken = taken_, path] {
            ReleaseConfigFileLock(LockConfigFile(path.c_str()));
            *taken = true;
        }).detach();  // one still stuck on its lock when the test ends is left to the process's end
    }
    bool TakenWithin(std::chrono::milliseconds limit) const {
        for (auto waited = std::chrono::milliseconds(0); waited < limit && !*taken_; waited += limit / 100) {
            std::this_thread::sleep_for(limit / 100);
        }
        return *taken_;
    }

private:
    std::shared_ptr<std::atomic<bool>> taken_;
};

const auto REFUSAL_MS = std::chrono::milliseconds(300);  // long enough for a lock that would be granted
const auto GRANT_MS = std::chrono::milliseconds(10000);

TEST_F(ConfigFileTest, LoadReadsTheLineFormat) {
    WriteFileText(PathOf("format.dat"), "a 1\nA 2\nKEY\nNOTE # note\n\"MY KEY\" \"x y\"\nquoted \"say \"\"hi\"\"\"\n"
                                        "key2 value extra # comment\n\"tight\"value\nopen \"runs to the end\n"
                                        "hash a#b\"c\n\tlower_Case\tv\n");
    OpenStore store(PathOf("format.dat"));
    const struct {
        const char* rule;
        const char* key;
        const char* value;
    } cases[] = {
        {"the last occurrence of a key wins, whatever its case", "a", "2"},
        {"a key alone has the empty value", "key", ""},
        {"a comment after the key drops the line", "note", DEFAULT_TEXT},
        {"quotes hold white space", "my key", "x y"},
        {"a doubled quote stands for one", "QUOTED", "say \"hi\""},
        {"words after the value are not part of it", "key2", "value"},
        {"a value may follow the closing quote at once", "tight", "value"},
        {"an unclosed quote runs to the end of the line", "open", "runs to the end"},
        {"inside a token '#' and '\"' are plain", "hash", "a#b\"c"},
        {"tabs separate like spaces", "LOWER_CASE", "v"},
    };
    for (const auto& c : cases) EXPECT_EQ(store.Get(c.key), c.value) << c.rule;
}

// Lines are read in pieces of 4146 characters, values cut to 4095, keys kept with 55 characters
// and looked up with 49.
TEST_F(ConfigFileTest, LoadCutsLinesValuesAndKeysToTheirLimits) {
    const std::string key60(60, 'K');
    WriteFileText(PathOf("long.dat"), "K " + std::string(4144, 'x') + "Y 2\nV " + std::string(4100, 'v') + "\n" + key60 +
                                          " long\n" + std::string(49, 'L') + " 49\n");
    OpenStore store(PathOf("long.dat"));
    const struct {
        const char* rule;
        std::string key;
        std::string value;
    } cases[] = {
        {"a line's first piece, its value cut", "K", std::string(4095, 'x')},
        {"the rest of the line read as a line", "Y", "2"},
        {"a value cut", "V", std::string(4095, 'v')},
        {"a lookup cut to 49 characters finds a 49-character key", std::string(60, 'l'), "49"},
        {"a lookup cut to 49 characters misses a 55-character key", key60, DEFAULT_TEXT},
    };
    for (const auto& c : cases) EXPECT_EQ(store.Get(c.key), c.value) << c.rule;
    EXPECT_NE(FindPtrList(store.file.entries, std::string(55, 'K').c_str()), nullptr) << "the key as stored";
}

TEST_F(ConfigFileTest, SetCutsTheValueTo4095Characters) {
    OpenStore store("");
    SetConfigString(&store.file, "W", std::string(5000, 'w').c_str());
    EXPECT_EQ(store.Get("W"), std::string(4095, 'w'));
}

TEST_F(ConfigFileTest, StatusAtTheEdges) {
    WriteFileText(PathOf("present.dat"), "K 1\n");
    OpenStore missing(PathOf("missing.dat"));
    OpenStore unnamed("");
    const struct {
        const char* call;
        int32_t status;
        int32_t expected;
    } calls[] = {
        {"set with an empty key", SetConfigString(&missing.file, "", "v"), 1},
        {"load of a missing file", LoadConfigFile(&missing.file, PathOf("missing.dat").c_str()), 1},
        {"save without a path", SaveConfigFile(&unnamed.file, ""), 1},
        {"load without a path", LoadConfigFile(&unnamed.file, ""), 0},
        {"load of a file", LoadConfigFile(&unnamed.file, PathOf("present.dat").c_str()), 0},
        {"save with an empty path: to the file loaded", SaveConfigFile(&unnamed.file, ""), 0},
        {"compare with a null key", CompareKeys(nullptr, "A"), 1},
    };
    for (const auto& c : calls) EXPECT_EQ(c.status, c.expected) << c.call;
}

// Changed lines are rewritten in place (keeping what follows the value), deleted keys leave with
// every occurrence, new keys go at the end in key order, and everything else stays as it was.
TEST_F(ConfigFileTest, SaveMergesChangesIntoTheFileKeepingItsLayout) {
    WriteFileText(PathOf("merge.dat"), "# header\n\nalpha 1   # first\nbeta  \"two words\"  trailing words\ngamma 3\n"
                                       "  # indented\nGamma 4 # again\ndelta\n");
    OpenStore store(PathOf("merge.dat"));
    SetConfigString(&store.file, "beta", "new \"v\"");
    SetConfigString(&store.file, "gamma", nullptr);
    SetConfigString(&store.file, "zeta", "z\tz");
    SetConfigString(&store.file, "mid", "#m");  // not quoted, so a reload drops it
    SetConfigString(&store.file, "delta", "");  // set, so rewritten though not different
    const int32_t saved = SaveConfigFile(&store.file, nullptr);
    EXPECT_EQ(saved, 0);
    EXPECT_EQ(store.file.entries->cursorCount, 0u) << "no cursor of the save left on the list";
    EXPECT_EQ(ReadFileText(PathOf("merge.dat")), "# header\n\nalpha 1   # first\nBETA \"new \"\"v\"\"\"  trailing words\n"
                                                 "  # indented\nDELTA \nMID #m\nZETA \"z\tz\"\n");
}

// What one change and a save leave on disk; without a backup (its name here a directory's) the
// file is left alone, not written over.
TEST_F(ConfigFileTest, SaveWritesTheChangeBesideABackup) {
    // Keys of 60 characters, bare and quoted: read cut to 55, and their lines still found.
    const std::string unchanged = "# header\nalpha 1   # first\n\"two words\" 2\n" + std::string(60, 'K') + " 3\n\"" +
                                  std::string(60, 'Q') + "\" 4\n";
    const struct {
        const char* rule;
        const char* file;    // the store's; "" for none
        const char* before;  // its text; null: no such file
        const char* key;     // null: no change
        std::string value;
        const char* saveAs;  // null: the store's own file
        const char* read;
        std::string after;
        const char* blocker = nullptr;  // a directory made first
    } cases[] = {
        {"the previous file is the backup", "b.dat", "K 1\n", "K", "2", nullptr, "b.da~", "K 1\n"},
        {"a name ending in '~' backs up to 'a'", "y.da~", "OLD 1\n", "old", "2", nullptr, "y.daa", "OLD 1\n"},
        {"without a change the file stays as it was", "same.dat", unchanged.c_str(), nullptr, "", nullptr, "same.dat",
         unchanged},
        {"a store from a missing file creates it", "missing.dat", nullptr, "k", "v", "new.dat", "new.dat", "K v\n"},
        // Quoting adds two bytes to a value with white space and the written token keeps 4095, so a
        // value near the limit loses its closing quote (a reload reads to the end of the line).
        {"a quoted value is cut to 4095 bytes", "", nullptr, "Q", "x " + std::string(4093, 'y'), "q.dat", "q.dat",
         "Q \"x " + std::string(4092, 'y') + "\n"},
        {"no backup, no save", "kept.dat", "K 1\n", "K", "2", nullptr, "kept.dat", "K 1\n", "kept.da~/x"},
    };
    for (const auto& c : cases) {
        if (c.blocker != nullptr) fs::create_directories(PathOf(c.blocker));
        if (c.before != nullptr) WriteFileText(PathOf(c.file), c.before);
        OpenStore store(c.file[0] == '\0' ? "" : PathOf(c.file));
        if (c.key != nullptr) SetConfigString(&store.file, c.key, c.value.c_str());
        SaveConfigFile(&store.file, c.saveAs == nullptr ? nullptr : PathOf(c.saveAs).c_str());
        EXPECT_EQ(ReadFileText(PathOf(c.read)), c.after) << c.rule;
    }
}

#ifndef _WIN32
// No descriptor to be had for the life of the object.
class NoFreeDescriptors {
public:
    NoFreeDescriptors() {
        getrlimit(RLIMIT_NOFILE, &saved_);
        const rlimit none{0, saved_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoFreeDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }

private:
    rlimit saved_{};
};

// Once the file was moved aside the save cannot create it again: the previous file comes back,
// and the change is still there for the next save.
TEST_F(ConfigFileTest, SaveThatCannotWriteLosesNeitherTheFileNorTheChange) {
    WriteFileText(PathOf("kept.dat"), "K 1\n# keep\n");
    OpenStore store(PathOf("kept.dat"));
    SetConfigString(&store.file, "K", "2");
    int32_t failedSave = 0;
    {
        NoFreeDescriptors none;
        failedSave = SaveConfigFile(&store.file, nullptr);
    }
    const std::string afterFailure = ReadFileText(PathOf("kept.dat"));
    SaveConfigFile(&store.file, nullptr);
    EXPECT_EQ(failedSave, 1);
    EXPECT_EQ(afterFailure, "K 1\n# keep\n");
    EXPECT_EQ(ReadFileText(PathOf("kept.dat")), "K 2\n# keep\n");
}
#endif

// The lock is named after the file name alone, upper-cased, and its holder may take it again (a
// writer holds it around a whole load, set and save). Other threads are kept out as other processes
// are, until it was released as often as taken.
TEST_F(ConfigFileTest, LockOfAFileNameExcludesOthersUntilReleased) {
    const struct {
        const char* label;
        std::string held;
        bool heldTwice;
        std::string wanted;
        bool takenWhileHeld;
    } rows[] = {
        {"the same name in another directory", PathOf("lock_" + RUN_TAG + ".dat"), false,
         (fs::path("dir2") / ("LOCK_" + RUN_TAG + ".DAT")).string(), false},
        {"taken twice, released once", PathOf("again_" + RUN_TAG + ".dat"), true, PathOf("again_" + RUN_TAG + ".dat"),
         false},
        {"a name that differs in its first character", PathOf("a" + RUN_TAG + ".dat"), false,
         PathOf("b" + RUN_TAG + ".dat"), true},
    };
    for (const auto& row : rows) {
        ConfigFileLock* holder = LockConfigFile(row.held.c_str());
        if (row.heldTwice) ReleaseConfigFileLock(LockConfigFile(row.held.c_str()));
        LockTaker taker(row.wanted);
        const bool takenWhileHeld = taker.TakenWithin(row.takenWhileHeld ? GRANT_MS : REFUSAL_MS);
        ReleaseConfigFileLock(holder);
        const bool takenOnceReleased = taker.TakenWithin(GRANT_MS);
        EXPECT_NE(holder, nullptr) << row.label;
        EXPECT_EQ(row.takenWhileHeld, takenWhileHeld) << row.label;
        EXPECT_TRUE(takenOnceReleased) << row.label;
    }
}

#ifdef _WIN32
// The platform's other programs open the mutex by this name.
TEST_F(ConfigFileTest, LockIsTheMutexNamedAfterTheUpperCasedFileName) {
    ConfigFileLock* named = LockConfigFile("C:\\x\\caf\xE9|1.dat");
    HANDLE mutex = OpenMutexW(SYNCHRONIZE, FALSE, L"CAF\xFFE9!1.DAT");
    const bool opened = mutex != nullptr;
    CloseHandle(mutex);
    ReleaseConfigFileLock(named);
    EXPECT_TRUE(opened);
}
#endif

}  // namespace
