// ConfigFile store: the line format, lookups, the merging save with its backup, and the
// inter-process lock, each through real files in a scratch directory.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "config/config_file.h"
#include "runtime/runtime.h"

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

// An open store that closes itself; "" opens one without a file.
struct OpenStore {
    ConfigFile file;
    explicit OpenStore(const std::string& path) { OpenConfigFile(&file, path.empty() ? nullptr : path.c_str()); }
    ~OpenStore() { CloseConfigFile(&file); }
    std::string Get(const std::string& key) {
        char v[8192];
        return GetConfigString(&file, key.c_str(), v, sizeof v, DEFAULT_TEXT);
    }
};

struct ConfigFileTest : testing::Test {
    void SetUp() override { ASSERT_TRUE(fs::create_directory(directory)) << directory; }
    void TearDown() override { std::error_code ignored; fs::remove_all(directory, ignored); }
    std::string PathOf(const std::string& name) const { return (directory / name).string(); }
    const fs::path directory = fs::temp_directory_path() / ("config_file_test." + RUN_TAG + "." +
                                                            testing::UnitTest::GetInstance()->current_test_info()->name());
};

TEST_F(ConfigFileTest, LoadAppliesTheLineFormatAndItsLimits) {
    const std::string key60(60, 'k');
    WriteFileText(PathOf("format.dat"), "# comment\n   \t\na 1\nA 2\nKEY\nNOTE # note\n\"MY KEY\" \"x y\"\n"
                                        "quoted \"say \"\"hi\"\"\"\nkey2 value extra # comment\n\"\" ignored\n"
                                        "\"tight\"value\nopen \"runs to the end\nhash a#b\"c\n\tlower_Case\tv\nSNTP_IP 10.1.2.3\n"
                                        "K " + std::string(4144, 'x') + "Y 2\n" +  // split after 4146 characters
                                        key60 + " long\n" + std::string(49, 'L') + " 49\nV " + std::string(4100, 'v') + "\n");
    OpenStore store(PathOf("format.dat"));
    const std::pair<std::string, std::string> expected[] = {
        {"a", "2"} /* the last occurrence wins */, {"key", ""}, {"note", DEFAULT_TEXT}, {"my key", "x y"},
        {"QUOTED", "say \"hi\""}, {"key2", "value"}, {"tight", "value"}, {"open", "runs to the end"},
        {"hash", "a#b\"c"}, {"LOWER_CASE", "v"},
        // Lines are read in pieces of 4146 characters, values cut to 4095, keys kept with 55
        // characters and looked up or set with 49.
        {"K", std::string(4095, 'x')}, {"Y", "2"}, {"V", std::string(4095, 'v')}, {std::string(60, 'l'), "49"},
        {key60, DEFAULT_TEXT}};
    for (const auto& [key, value] : expected) EXPECT_EQ(store.Get(key), value) << key;
    EXPECT_EQ(store.file.entries->count, 16u);  // nothing from comments, NOTE or the empty key
    EXPECT_NE(FindPtrList(store.file.entries, std::string(55, 'K').c_str()), nullptr);
    EXPECT_EQ(SetConfigString(&store.file, "W", std::string(5000, 'w').c_str()), 0);
    EXPECT_EQ(store.Get("W"), std::string(4095, 'w'));
    char out[16];
    EXPECT_EQ(GetConfigString(&store.file, "", out, 16, DEFAULT_TEXT), DEFAULT_TEXT);
    EXPECT_STREQ(GetConfigString(&store.file, "missing", out, 16, nullptr), "");
    EXPECT_EQ(CompareKeys(nullptr, "A"), 1);  // a null key never matches
}

TEST_F(ConfigFileTest, SaveKeepsLayoutMergesChangesBesideABackupAndNeverLosesTheFile) {
    const std::string path = PathOf("merge.dat");
    const std::string original = "# header\n\nalpha 1   # first\nbeta  \"two words\"  trailing words\ngamma 3\n"
                                 "  # indented\nGamma 4 # again\ndelta\n";
    WriteFileText(path, original);
    OpenStore merged(path);
    SetConfigString(&merged.file, "beta", "new \"v\"");
    SetConfigString(&merged.file, "gamma", nullptr);  // every gamma line goes
    SetConfigString(&merged.file, "zeta", "z\tz");
    SetConfigString(&merged.file, "mid", "#m");  // not quoted, so a reload drops it
    SetConfigString(&merged.file, "delta", "");  // set, so rewritten though not different
    ASSERT_EQ(SaveConfigFile(&merged.file, nullptr), 0);
    const std::string saved = "# header\n\nalpha 1   # first\nBETA \"new \"\"v\"\"\"  trailing words\n"
                              "  # indented\nDELTA \nMID #m\nZETA \"z\tz\"\n";
    EXPECT_EQ(ReadFileText(path), saved);
    EXPECT_EQ(ReadFileText(PathOf("merge.da~")), original);
    ASSERT_EQ(SaveConfigFile(&merged.file, nullptr), 0);
    EXPECT_EQ(ReadFileText(path), saved);  // a save without changes leaves the file as it was

    WriteFileText(PathOf("y.da~"), "OLD 1\n");  // a name ending in '~' backs up to 'a'
    OpenStore tilde(PathOf("y.da~"));
    SetConfigString(&tilde.file, "old", "2");
    ASSERT_EQ(SaveConfigFile(&tilde.file, nullptr), 0);
    EXPECT_EQ(ReadFileText(PathOf("y.daa")), "OLD 1\n");
    EXPECT_EQ(ReadFileText(PathOf("y.da~")), "OLD 2\n");

    OpenStore missing(PathOf("missing.dat")), unnamed("");  // a missing file opens an empty store
    EXPECT_EQ(SetConfigString(&missing.file, "", "v"), 1);
    EXPECT_EQ(SetConfigString(&missing.file, "k", "v"), 0);
    ASSERT_EQ(SaveConfigFile(&missing.file, PathOf("new.dat").c_str()), 0);
    EXPECT_EQ(ReadFileText(PathOf("new.dat")), "K v\n");
    EXPECT_EQ(LoadConfigFile(&missing.file, PathOf("missing.dat").c_str()), 1);
    EXPECT_EQ(SaveConfigFile(&unnamed.file, ""), 1);  // no path to save to, none to load from
    EXPECT_EQ(LoadConfigFile(&unnamed.file, ""), 0);

    const std::string kept = PathOf("kept.dat");
    WriteFileText(kept, "K 1\n# keep\n");
    OpenStore restore(kept);
    SetConfigString(&restore.file, "K", "2");
#ifndef _WIN32
    rlimit limit{};  // with no descriptor to be had, the save cannot create the file once it moved it aside
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(SaveConfigFile(&restore.file, nullptr), 1);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(ReadFileText(kept), "K 1\n# keep\n");
#endif
    ASSERT_EQ(SaveConfigFile(&restore.file, nullptr), 0);  // the change was not lost either
    EXPECT_EQ(ReadFileText(kept), "K 2\n# keep\n");
    // Without a backup (its name here is a directory's) the save leaves the file alone, not writes over it.
    fs::remove(PathOf("kept.da~"));
    fs::create_directories(PathOf("kept.da~/x"));
    SetConfigString(&restore.file, "K", "3");
    EXPECT_EQ(SaveConfigFile(&restore.file, nullptr), 1);
    EXPECT_EQ(ReadFileText(kept), "K 2\n# keep\n");
}

// Other threads exclude each other as other processes do; the holder may take it again.
TEST_F(ConfigFileTest, LockOfAFileNameExcludesOthersUntilReleased) {
    const std::string path = PathOf("lock_" + RUN_TAG + ".dat");
    OpenStore store(path);  // a load that finds no file, a load and a save each release it
    WriteFileText(path, "K 1\n");
    LoadConfigFile(&store.file, path.c_str());
    SaveConfigFile(&store.file, nullptr);
    ConfigFileLock* holder = LockConfigFile(path.c_str());  // only released if they did
    ASSERT_NE(holder, nullptr);
    static std::atomic<int> taken;  // by the taker: another file's lock, then this one's twice
    taken = 0;
    std::thread taker([] {
        const std::string other = "other_lock_" + RUN_TAG + ".dat";
        const std::string same = (fs::path("dir2") / ("LOCK_" + RUN_TAG + ".DAT")).string();
        ConfigFileLock* locks[3] = {LockConfigFile(other.c_str())};
        taken = locks[0] != nullptr;
        locks[1] = LockConfigFile(same.c_str());
        locks[2] = LockConfigFile(same.c_str());
        taken += locks[1] != nullptr && locks[2] != nullptr;
        for (ConfigFileLock* lock : locks) ReleaseConfigFileLock(lock);
    });
    auto waitFor = [](int count, uint32_t waitMs) {
        for (uint32_t waited = 0; waited < waitMs && taken < count; waited += 10) SleepFor(10);
        return taken >= count;
    };
    EXPECT_TRUE(waitFor(1, 10000));
    EXPECT_FALSE(waitFor(2, 300));
    ReleaseConfigFileLock(holder);
    EXPECT_TRUE(waitFor(2, 10000));
    taken == 2 ? taker.join() : taker.detach();  // one stuck on its lock is left to the process end
#ifdef _WIN32  // the mutex is named after the upper-cased file name, as the platform's other programs expect
    for (const auto& [file, name] : {std::make_pair("C:\\x\\caf\xE9|1.dat", L"CAF\xFFE9!1.DAT")}) {
        ConfigFileLock* named = LockConfigFile(file);
        HANDLE mutex = OpenMutexW(SYNCHRONIZE, FALSE, name);
        EXPECT_NE(mutex, nullptr) << file;
        CloseHandle(mutex);
        ReleaseConfigFileLock(named);
    }
#endif
}

}  // namespace
