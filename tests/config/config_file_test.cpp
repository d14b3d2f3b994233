// ConfigFile store: the line format, lookups, the merging save with its backup, and the
// inter-process lock, each through real files in a scratch directory. Two child processes of
// this binary writing one file prove that the lock serialises whole load-set-save cycles.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "config/config_file.h"
#include "runtime/runtime.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

namespace {
namespace fs = std::filesystem;

const char DEFAULT_TEXT[] = "<default>";
const char WRITER_PATH_VARIABLE[] = "NORVIK_CONFIG_WRITER_PATH";
const char WRITER_KEY_VARIABLE[] = "NORVIK_CONFIG_WRITER_KEY";
const int WRITER_ROUNDS = 200;
const uint32_t WRITERS_TIMEOUT_MS = 300000;

void WriteFileText(const std::string& path, const std::string& text, const char* mode = "w") {
    FILE* stream = fopen(path.c_str(), mode);
    ASSERT_NE(stream, nullptr) << path;
    fwrite(text.data(), 1, text.size(), stream);
    fclose(stream);
}

std::string ReadFileText(const std::string& path, const char* mode = "r") {
    FILE* stream = fopen(path.c_str(), mode);
    if (stream == nullptr) {
        return "<missing>";
    }
    std::string text;
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, stream)) > 0;) {
        text.append(buffer, got);
    }
    fclose(stream);
    return text;
}

std::string ProcessTag() {
#ifdef _WIN32
    return std::to_string(GetCurrentProcessId());
#else
    return std::to_string(getpid());
#endif
}

// An open store that closes itself.
struct OpenStore {
    ConfigFile file;
    explicit OpenStore(const std::string& path) { OpenConfigFile(&file, path.c_str()); }
    ~OpenStore() { CloseConfigFile(&file); }
    std::string Get(const std::string& key) {
        static char value[8192];
        return GetConfigString(&file, key.c_str(), value, sizeof value, DEFAULT_TEXT);
    }
};

class ConfigFileTest : public testing::Test {
protected:
    void SetUp() override {
        static int serial = 0;
        directory = (fs::temp_directory_path() / ("config_file_test." + ProcessTag() + "." +
                                                  std::to_string(++serial))).string();
        ASSERT_TRUE(fs::create_directory(directory)) << directory;
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
    }
    std::string PathOf(const std::string& name) const { return (fs::path(directory) / name).string(); }
    std::string directory;
};

TEST_F(ConfigFileTest, LoadAppliesTheLineFormat) {
    std::string path = PathOf("format.dat");
    WriteFileText(path,
                  "# comment\n   \t\n"
                  "a 1\nA 2\n"
                  "KEY\n"
                  "NOTE # note\n"
                  "\"MY KEY\" \"x y\"\n"
                  "quoted \"say \"\"hi\"\"\"\n"
                  "key2 value extra # comment\n"
                  "\"\" ignored\n"
                  "\"tight\"value\n"
                  "open \"runs to the end\n"
                  "hash a#b\"c\n"
                  "\tlower_Case\tv\n");
    OpenStore store(path);
    EXPECT_EQ(store.Get("a"), "2");  // the last occurrence wins
    EXPECT_EQ(store.Get("key"), "");
    EXPECT_EQ(store.Get("note"), DEFAULT_TEXT);
    EXPECT_EQ(store.Get("my key"), "x y");
    EXPECT_EQ(store.Get("QUOTED"), "say \"hi\"");
    EXPECT_EQ(store.Get("key2"), "value");
    EXPECT_EQ(store.Get("tight"), "value");
    EXPECT_EQ(store.Get("open"), "runs to the end");
    EXPECT_EQ(store.Get("hash"), "a#b\"c");
    EXPECT_EQ(store.Get("LOWER_CASE"), "v");
    EXPECT_EQ(store.file.entries->count, 10u);  // nothing from comments, NOTE or the empty key
}

TEST_F(ConfigFileTest, LongLinesKeysAndValuesAreCut) {
    std::string path = PathOf("long.dat");
    const std::string key60(60, 'k');
    WriteFileText(path, "K " + std::string(4144, 'x') + "Y 2\n" +  // split after 4146 characters
                            key60 + " long\n" + std::string(49, 'L') + " 49\n" +
                            "V " + std::string(4100, 'v') + "\n");
    OpenStore store(path);
    EXPECT_EQ(store.Get("K"), std::string(4095, 'x'));
    EXPECT_EQ(store.Get("Y"), "2");
    EXPECT_EQ(store.Get("V"), std::string(4095, 'v'));
    EXPECT_EQ(store.Get(std::string(60, 'l')), "49");  // lookups use 49 characters
    EXPECT_EQ(store.Get(key60), DEFAULT_TEXT);  // kept with 55 characters, looked up with 49
    EXPECT_NE(FindPtrList(store.file.entries, std::string(55, 'K').c_str()), nullptr);

    EXPECT_EQ(SetConfigString(&store.file, "W", std::string(5000, 'w').c_str()), 0);
    EXPECT_EQ(store.Get("W"), std::string(4095, 'w'));
}

TEST_F(ConfigFileTest, GetReturnsDefaultsAndCutsToCapacity) {
    std::string path = PathOf("get.dat");
    WriteFileText(path, "SNTP_IP 10.1.2.3\n");
    OpenStore store(path);
    char out[16] = "untouched";
    EXPECT_EQ(GetConfigString(&store.file, "sntp_ip", nullptr, 16, DEFAULT_TEXT), DEFAULT_TEXT);
    EXPECT_EQ(GetConfigString(&store.file, "", out, 16, DEFAULT_TEXT), DEFAULT_TEXT);
    EXPECT_EQ(GetConfigString(&store.file, nullptr, out, 16, DEFAULT_TEXT), DEFAULT_TEXT);
    EXPECT_EQ(GetConfigString(nullptr, "sntp_ip", out, 16, DEFAULT_TEXT), DEFAULT_TEXT);
    EXPECT_EQ(GetConfigString(&store.file, "sntp_ip", out, 0, DEFAULT_TEXT), out);
    EXPECT_STREQ(out, "untouched");
    EXPECT_EQ(GetConfigString(&store.file, "sntp_ip", out, 4, DEFAULT_TEXT), out);
    EXPECT_STREQ(out, "10.");
    EXPECT_STREQ(GetConfigString(&store.file, "missing", out, 16, nullptr), "");
}

TEST(ConfigFileKeys, CompareKeysOrdersUnsignedBytes) {
    EXPECT_EQ(CompareKeys("A", "B"), -1);
    EXPECT_EQ(CompareKeys("AB", "AB"), 0);
    EXPECT_EQ(CompareKeys("A", "AB"), -1);
    EXPECT_EQ(CompareKeys("\xE9", "Z"), 1);
    EXPECT_EQ(CompareKeys(nullptr, "A"), 1);
    EXPECT_EQ(CompareKeys("A", nullptr), 1);
}

TEST_F(ConfigFileTest, SaveKeepsLayoutAndMergesChanges) {
    std::string path = PathOf("merge.dat");
    WriteFileText(path,
                  "# header\n\n"
                  "alpha 1   # first\n"
                  "beta  \"two words\"  trailing words\n"
                  "gamma 3\n"
                  "  # indented\n"
                  "Gamma 4 # again\n"
                  "delta\n");
    {
        OpenStore store(path);
        SetConfigString(&store.file, "beta", "new \"v\"");
        SetConfigString(&store.file, "gamma", nullptr);  // every gamma line goes
        SetConfigString(&store.file, "zeta", "z\tz");
        SetConfigString(&store.file, "mid", "#m");  // not quoted, so a reload drops it
        SetConfigString(&store.file, "delta", "");  // set, so rewritten though not different
        ASSERT_EQ(SaveConfigFile(&store.file, nullptr), 0);
    }
    const std::string saved =
        "# header\n\n"
        "alpha 1   # first\n"
        "BETA \"new \"\"v\"\"\"  trailing words\n"
        "  # indented\n"
        "DELTA \n"
        "MID #m\n"
        "ZETA \"z\tz\"\n";
    EXPECT_EQ(ReadFileText(path), saved);

    OpenStore reloaded(path);
    EXPECT_EQ(reloaded.Get("beta"), "new \"v\"");
    EXPECT_EQ(reloaded.Get("gamma"), DEFAULT_TEXT);
    EXPECT_EQ(reloaded.Get("mid"), DEFAULT_TEXT);
    EXPECT_EQ(reloaded.Get("delta"), "");
    ASSERT_EQ(SaveConfigFile(&reloaded.file, nullptr), 0);
    EXPECT_EQ(ReadFileText(path), saved);  // a save without changes leaves the file as it was
}

TEST_F(ConfigFileTest, SaveKeepsCrLfAndTakesTheLastCharacterForTheLineBreak) {
    std::string path = PathOf("crlf.dat");
    WriteFileText(path, "A 1\r\nB 2 # b\r\n# c\r\n", "wb");
    OpenStore store(path);
    EXPECT_EQ(store.Get("A"), "1");
    SetConfigString(&store.file, "b", "3");
    ASSERT_EQ(SaveConfigFile(&store.file, nullptr), 0);
    EXPECT_EQ(ReadFileText(path, "rb"), "A 1\r\nB 3 # b\r\n# c\r\n");

    // Without a final line break, the last character is taken for one.
    std::string tail = PathOf("tail.dat");
    WriteFileText(tail, "A 1\n# tail");
    OpenStore tailStore(tail);
    ASSERT_EQ(SaveConfigFile(&tailStore.file, nullptr), 0);
    EXPECT_EQ(ReadFileText(tail), "A 1\n# tai\n");
}

TEST_F(ConfigFileTest, SaveLeavesTheBackupBeside) {
    for (const char* names : {"x.dat|x.da~", "y.da~|y.daa"}) {
        std::string name(names, 5);
        std::string path = PathOf(name);
        WriteFileText(path, "OLD 1\n");
        OpenStore store(path);
        SetConfigString(&store.file, "old", "2");
        ASSERT_EQ(SaveConfigFile(&store.file, nullptr), 0);
        EXPECT_EQ(ReadFileText(PathOf(names + 6)), "OLD 1\n") << name;
        EXPECT_EQ(ReadFileText(path), "OLD 2\n") << name;
    }
}

// Opens streams until the C runtime refuses one, so that the next fopen fails.
struct StreamExhaustion {
    std::vector<FILE*> streams;
    bool exhausted = false;
#ifndef _WIN32
    rlimit saved{};
#endif
    explicit StreamExhaustion(const std::string& anyFile) {
#ifndef _WIN32
        getrlimit(RLIMIT_NOFILE, &saved);
        rlimit low = saved;
        low.rlim_cur = 64;
        setrlimit(RLIMIT_NOFILE, &low);
#endif
        for (int i = 0; i < 4096 && !exhausted; ++i) {
            FILE* stream = fopen(anyFile.c_str(), "r");
            exhausted = stream == nullptr;
            if (stream != nullptr) {
                streams.push_back(stream);
            }
        }
    }
    ~StreamExhaustion() {
        for (FILE* stream : streams) {
            fclose(stream);
        }
#ifndef _WIN32
        setrlimit(RLIMIT_NOFILE, &saved);
#endif
    }
};

TEST_F(ConfigFileTest, SaveThatCannotCreateTheFileRestoresIt) {
    std::string path = PathOf("restore.dat");
    const std::string original = "K 1\n# keep\n";
    WriteFileText(path, original);
    WriteFileText(PathOf("other.txt"), "");
    OpenStore store(path);
    SetConfigString(&store.file, "K", "2");
    int32_t result;
    {
        StreamExhaustion exhaustion(PathOf("other.txt"));
        if (!exhaustion.exhausted) {
            GTEST_SKIP() << "the C runtime opened 4096 streams without refusing one";
        }
        result = SaveConfigFile(&store.file, nullptr);
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(ReadFileText(path), original);
    EXPECT_EQ(ReadFileText(PathOf("restore.da~")), "<missing>");
    ASSERT_EQ(SaveConfigFile(&store.file, nullptr), 0);  // the change was not lost either
    EXPECT_EQ(ReadFileText(path), "K 2\n# keep\n");
#ifdef _WIN32
    // Windows cannot move aside a file that someone holds open: without a backup of it, the
    // save must leave it alone rather than write over it.
    SetConfigString(&store.file, "K", "3");
    FILE* reader = fopen(path.c_str(), "r");
    EXPECT_EQ(SaveConfigFile(&store.file, nullptr), 1);
    fclose(reader);
    EXPECT_EQ(ReadFileText(path), "K 2\n# keep\n");
#endif
}

TEST_F(ConfigFileTest, MissingFileOpensEmptyAndSavesToANewPath) {
    ConfigFile file;
    ASSERT_EQ(OpenConfigFile(&file, PathOf("missing.dat").c_str()), 0);
    EXPECT_EQ(file.entries->count, 0u);
    EXPECT_EQ(SetConfigString(&file, "", "v"), 1);
    EXPECT_EQ(SetConfigString(&file, "k", "v"), 0);
    ASSERT_EQ(SaveConfigFile(&file, PathOf("new.dat").c_str()), 0);
    EXPECT_EQ(ReadFileText(PathOf("new.dat")), "K v\n");
    EXPECT_EQ(LoadConfigFile(&file, PathOf("missing.dat").c_str()), 1);
    CloseConfigFile(&file);

    ASSERT_EQ(OpenConfigFile(&file, nullptr), 0);
    EXPECT_EQ(SaveConfigFile(&file, ""), 1);  // no path to save to
    CloseConfigFile(&file);
}

// Takes the lock of path on another thread; true when that succeeds within waitMs.
bool LockedElsewhereWithin(const std::string& path, uint32_t waitMs, std::thread* taker,
                           std::atomic<bool>* taken) {
    *taker = std::thread([path, taken] {
        ConfigFileLock* holder = LockConfigFile(path.c_str());
        ConfigFileLock* again = LockConfigFile(path.c_str());  // its owner may take it again
        *taken = holder != nullptr && again != nullptr;
        ReleaseConfigFileLock(again);
        ReleaseConfigFileLock(holder);
    });
    for (uint32_t waited = 0; waited < waitMs && !*taken; waited += 10) {
        SleepFor(10);
    }
    return *taken;
}

TEST(ConfigFileLock, OneFileNameExcludesOtherThreads) {
    const std::string name = "lock_test_" + ProcessTag() + ".dat";
    ConfigFileLock* holder = LockConfigFile((fs::path("dir1") / name).string().c_str());
    ASSERT_NE(holder, nullptr);

    std::thread other;
    std::atomic<bool> otherTaken{false};
    EXPECT_TRUE(LockedElsewhereWithin("other_" + name, 10000, &other, &otherTaken));

    std::thread same;
    std::atomic<bool> sameTaken{false};
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_FALSE(LockedElsewhereWithin((fs::path("dir2") / upper).string(), 300, &same, &sameTaken));
    ReleaseConfigFileLock(holder);
    for (uint32_t waited = 0; waited < 10000 && !sameTaken; waited += 10) {
        SleepFor(10);
    }
    EXPECT_TRUE(sameTaken);
    if (sameTaken && otherTaken) {
        same.join();
        other.join();
    } else {
        same.detach();  // stuck on a lock that it should have had: let the process end it
        other.detach();
    }
}

#ifdef _WIN32
TEST(ConfigFileLock, MutexIsNamedAfterTheUpperCasedFileName) {
    ConfigFileLock* holder = LockConfigFile("C:\\Norvik\\Data\\System\\Vantor.dat");
    HANDLE named = OpenMutexW(SYNCHRONIZE, FALSE, L"VANTOR.DAT");
    EXPECT_NE(named, nullptr);
    CloseHandle(named);
    ReleaseConfigFileLock(holder);

    holder = LockConfigFile("C:\\x\\caf\xE9|1.dat");
    named = OpenMutexW(SYNCHRONIZE, FALSE, L"CAF\xFFE9!1.DAT");
    EXPECT_NE(named, nullptr);
    CloseHandle(named);
    ReleaseConfigFileLock(holder);
}
#endif

// One writer, run as a child process by the test below: its own key, WRITER_ROUNDS times.
// The lock is held around every load, set and save, so that the save, which drops the lines
// of keys that this store does not hold, cannot drop the other writer's key.
TEST(ConfigFileWriterChild, DISABLED_Run) {
    const char* path = getenv(WRITER_PATH_VARIABLE);
    const char* key = getenv(WRITER_KEY_VARIABLE);
    ASSERT_NE(path, nullptr);
    ASSERT_NE(key, nullptr);
    // Both writers start together, or the first might be done before the second begins.
    const std::string gate = std::string(path) + ".go";
    for (uint32_t waited = 0; waited < WRITERS_TIMEOUT_MS && ReadFileText(gate) == "<missing>"; ++waited) {
        SleepFor(1);
    }
    for (int round = 1; round <= WRITER_ROUNDS; ++round) {
        ConfigFileLock* holder = LockConfigFile(path);
        ConfigFile file;
        OpenConfigFile(&file, path);
        char value[16];
        GetConfigString(&file, key, value, sizeof value, "0");
        ASSERT_EQ(atoi(value), round - 1) << key;  // no save of the other writer lost it
        SetConfigString(&file, key, std::to_string(round).c_str());
        ASSERT_EQ(SaveConfigFile(&file, nullptr), 0);
        CloseConfigFile(&file);
        size_t size = ReadFileText(path).size();  // under the lock: Windows renames no open file
        ReleaseConfigFileLock(holder);
        ASSERT_LT(size, 1000u);  // a store that grows the file stops here
    }
}

#ifdef _WIN32
typedef HANDLE Child;
bool StartWriter(const std::string& path, const char* key, Child* child) {
    char self[MAX_PATH];
    GetModuleFileNameA(nullptr, self, sizeof self);
    std::string command = std::string("\"") + self +
                          "\" --gtest_filter=ConfigFileWriterChild.* --gtest_also_run_disabled_tests";
    SetEnvironmentVariableA(WRITER_PATH_VARIABLE, path.c_str());
    SetEnvironmentVariableA(WRITER_KEY_VARIABLE, key);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(self, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process)) {
        return false;
    }
    CloseHandle(process.hThread);
    *child = process.hProcess;
    return true;
}
// The child's exit status, or -1 when it did not end in time (it is then ended).
int FinishWriter(Child child, uint32_t waitMs) {
    DWORD status = 1;
    if (WaitForSingleObject(child, waitMs) != WAIT_OBJECT_0) {
        TerminateProcess(child, 1);
        status = static_cast<DWORD>(-1);
    } else {
        GetExitCodeProcess(child, &status);
    }
    CloseHandle(child);
    return static_cast<int>(status);
}
#else
typedef pid_t Child;
bool StartWriter(const std::string& path, const char* key, Child* child) {
    setenv(WRITER_PATH_VARIABLE, path.c_str(), 1);
    setenv(WRITER_KEY_VARIABLE, key, 1);
    char self[] = "/proc/self/exe";
    char filter[] = "--gtest_filter=ConfigFileWriterChild.*";
    char disabled[] = "--gtest_also_run_disabled_tests";
    char* arguments[] = {self, filter, disabled, nullptr};
    return posix_spawn(child, self, nullptr, nullptr, arguments, environ) == 0;
}
int FinishWriter(Child child, uint32_t waitMs) {
    int status = 0;
    for (uint32_t waited = 0; waited < waitMs; waited += 10) {
        if (waitpid(child, &status, WNOHANG) == child) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        SleepFor(10);
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
}
#endif

TEST_F(ConfigFileTest, TwoProcessesSerialiseTheirWrites) {
    std::string path = PathOf("shared.dat");
    WriteFileText(path, "# two writers\n");
    Child first;
    Child second;
    ASSERT_TRUE(StartWriter(path, "WRITER_A", &first));
    bool secondStarted = StartWriter(path, "WRITER_B", &second);
    WriteFileText(path + ".go", "");
    EXPECT_EQ(FinishWriter(first, WRITERS_TIMEOUT_MS), 0);
    ASSERT_TRUE(secondStarted);
    EXPECT_EQ(FinishWriter(second, WRITERS_TIMEOUT_MS), 0);

    std::string text = ReadFileText(path);
    const std::string last = std::to_string(WRITER_ROUNDS);
    EXPECT_TRUE(text == "# two writers\nWRITER_A " + last + "\nWRITER_B " + last + "\n" ||
                text == "# two writers\nWRITER_B " + last + "\nWRITER_A " + last + "\n")
        << text;
}
}  // namespace
