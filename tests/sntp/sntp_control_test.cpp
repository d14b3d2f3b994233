// The SNTP controller: the role implied by SNTP_IP, the setting file read and written through
// the configuration store, and whole starts, restarts and stops of the time thread, in virtual
// time scaled down so that the one-second steps of the threads still interleave.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "config/config_test_seams.h"
#include "config/directories.h"
#include "net/ipv4.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_control.h"
#include "sntp/sntp_server.h"
#include "sntp/sntp_test_seams.h"
#include "sntp/sntp_troubles.h"
#include "tests/support/host_shell.h"
#include "tools/loopback_udp.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/process_threads.h"
#include "tests/support/virtual_time.h"
#include "trouble/trouble_queue.h"

namespace {
namespace fs = std::filesystem;
const uint16_t TEST_SERVER_PORT = 12325;  // the server role binds this instead of 123
// Keeps the ratio of the controller's 1200 ms grace to the threads' one-second steps, at a
// fiftieth of real time.
const uint32_t REAL_MS_PER_VIRTUAL_SECOND = 20;

// Text mode: the settings file keeps each platform's line ends (CR LF on Windows).
std::string ReadWhole(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// Polls every 100 real microseconds (the restart loop below cannot afford more); bounded by the
// clock, not by a count, since a short sleep may return at once on some hosts.
bool WaitUntil(const std::function<bool()>& condition, int realMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(realMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return condition();
}

// The exchange the client thread makes: answers with a chosen result, counts the calls.
std::atomic<int32_t> exchangeResult{0};
std::atomic<int32_t> exchanges{0};

SntpResult ScriptedExchange(const char*, int32_t, NtpTimestamp* time, NtpTimestamp* delay, uint32_t* stratum) {
    exchanges.fetch_add(1);
    const int32_t result = exchangeResult.load();
    if (result == 0) {
        *time = 3976214400ULL << 32;
        if (delay != nullptr) {
            *delay = 0;
        }
        if (stratum != nullptr) {
            *stratum = 2;
        }
    }
    return result;
}

// 1 when a version-3 request to the test port of 127.0.0.1 is answered within waitMs.
bool ServerAnswers(uint32_t waitMs = 500) {
    LoopbackUdp endpoint;
    if (OpenLoopbackUdp(&endpoint, "127.0.0.1", 0) != 0) {
        return false;
    }
    uint8_t request[48] = {0x1B};
    SendLoopbackUdp(&endpoint, request, sizeof request, LoopbackAddress("127.0.0.1"), TEST_SERVER_PORT);
    uint8_t answer[64];
    const int32_t length = ReceiveLoopbackUdp(&endpoint, answer, sizeof answer, waitMs, nullptr, nullptr);
    CloseLoopbackUdp(&endpoint);
    return length == 48 && answer[0] == 0x1C;
}

class SntpController : public testing::Test {
protected:
    void SetUp() override {
        const fs::path root = fs::temp_directory_path() / ("norvik-control-" + std::to_string(CurrentProcessNumber()));
        fs::create_directories(root / "Data" / "System");
        root_ = root.string();
        settingPath_ = (root / "Data" / "System" / "Vantor.dat").string();
        std::remove(settingPath_.c_str());
        OverrideInstallRoot(root_.c_str());
        InstallVirtualTime();
        // A virtual second costs a few real milliseconds, so that threads still take turns.
        SetSleepHook([this](uint32_t ms) {
            {
                std::lock_guard<std::mutex> hold(sleepsMutex_);
                if (std::this_thread::get_id() == testThread_) {
                    testThreadSleeps_.push_back(ms);
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(ms * REAL_MS_PER_VIRTUAL_SECOND / 1000));
        });
        sntpServerPort = TEST_SERVER_PORT;
        exchangeResult = 0;
        exchanges = 0;
        SetSntpExchanger(ScriptedExchange);
        StartTroubleRecorder();
    }

    void TearDown() override {
        StopSntp();
        EXPECT_TRUE(WaitUntil([] { return clientRunning.load() == 0; }, 5000));
        EXPECT_TRUE(WaitUntil(PortIsFree, 5000));  // the server thread has let port go
        StopTroubleRecorder();
        SetSntpExchanger(nullptr);
        sntpServerPort = SNTP_PORT;
        RemoveVirtualTime();
        OverrideInstallRoot(nullptr);
        std::remove(settingPath_.c_str());
    }

    static bool PortIsFree() {
        // A wildcard server on the port would not stop this bind (SO_REUSEADDR), but it would
        // still answer; a free port stays silent. A loopback answer takes microseconds, and
        // every test pays this wait once.
        return !ServerAnswers(50);
    }

    void WriteSetting(const char* text) {
        std::ofstream file(settingPath_, std::ios::binary | std::ios::trunc);
        file << "# platform settings\n" << text << "\n";
    }

    std::string DataDirectory() {
        char directory[PATH_CAPACITY];
        GetDataDirectory(directory, PATH_CAPACITY);
        return directory;
    }

    std::vector<uint32_t> TakeTestThreadSleeps() {
        std::lock_guard<std::mutex> hold(sleepsMutex_);
        std::vector<uint32_t> sleeps;
        sleeps.swap(testThreadSleeps_);
        return sleeps;
    }

    std::string root_;
    std::string settingPath_;
    std::thread::id testThread_ = std::this_thread::get_id();
    std::mutex sleepsMutex_;
    std::vector<uint32_t> testThreadSleeps_;
};

std::vector<SeenTrouble> Clears(int32_t from, int32_t to) {
    std::vector<SeenTrouble> clears;
    for (int32_t code = from; code <= to; ++code) {
        clears.push_back({code, TROUBLE_CLEARED});
    }
    return clears;
}
}  // namespace

TEST_F(SntpController, RoleFollowsTheSetting) {
    EXPECT_EQ(1, ChooseServerRole(""));
    EXPECT_EQ(1, ChooseServerRole("0.0.0.0"));
    EXPECT_EQ(1, ChooseServerRole("127.0.0.1"));
    EXPECT_EQ(0, ChooseServerRole("127.0.0.2"));  // loopback, but not this host's address
    EXPECT_EQ(0, ChooseServerRole("no-such-host.invalid"));  // a name: client, resolved later
    EXPECT_EQ(0, ChooseServerRole("255.255.255.255"));  // refused as an address, so a name

    uint32_t own = 0;
    if (GetLocalAddress(&own) == 0 && IsLocalAddress(&own) != 0) {
        char text[32];
        const uint8_t* octets = reinterpret_cast<const uint8_t*>(&own);
        std::snprintf(text, sizeof text, "%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
        EXPECT_EQ(1, ChooseServerRole(text)) << text;
    }
}

TEST_F(SntpController, SettingIsReadAndWrittenInTheDataDirectory) {
    char value[SNTP_SETTING_SIZE] = "stale";
    EXPECT_EQ(0, ReadSntpIp(value, DataDirectory().c_str()));
    EXPECT_STREQ("", value);  // no file: the empty setting

    WriteSetting("OTHER_KEY 5");
    EXPECT_EQ(0, ReadSntpIp(value, DataDirectory().c_str()));
    EXPECT_STREQ("", value);  // no key: the empty setting

    EXPECT_EQ(0, WriteSntpIp("127.0.0.2", DataDirectory().c_str()));
    EXPECT_EQ(0, ReadSntpIp(value, DataDirectory().c_str()));
    EXPECT_STREQ("127.0.0.2", value);
    EXPECT_EQ("# platform settings\nOTHER_KEY 5\nSNTP_IP 127.0.0.2\n", ReadWhole(settingPath_));

    EXPECT_EQ(1, WriteSntpIp("127.0.0.2", (fs::path(root_) / "missing").string().c_str()));
}

TEST_F(SntpController, MissingSettingStartsTheServer) {
    ASSERT_EQ(0, StartSntp());
    EXPECT_EQ(1, serverRole.load());
    EXPECT_TRUE(WaitUntil([] { return ServerAnswers(); }, 5000));
    EXPECT_EQ(0, exchanges.load());
}

TEST_F(SntpController, HostNameStartsAClientThatCannotResolveIt) {
    SetSntpExchanger(nullptr);  // the real exchange: resolution fails before any packet
    WriteSetting("SNTP_IP no-such-host.invalid");
    ASSERT_EQ(0, StartSntp());
    EXPECT_EQ(0, serverRole.load());
    EXPECT_STREQ("no-such-host.invalid", sntpServerSetting);
    std::vector<SeenTrouble> seen;
    ASSERT_TRUE(WaitUntil(
        [&] {
            for (const SeenTrouble& trouble : TakeTroubles()) {
                seen.push_back(trouble);
            }
            return !seen.empty();
        },
        10000));
    EXPECT_EQ((SeenTrouble{SNTP_CANNOT_RESOLVE, TROUBLE_SET}), seen[0]);
}

TEST_F(SntpController, RestartClearsTroublesPausesAndChoosesTheRoleAnew) {
    exchangeResult = SNTP_INCONSISTENT_ADDRESS;
    WriteSetting("SNTP_IP 127.0.0.2");
    ASSERT_EQ(0, StartSntp());
    ASSERT_EQ(0, serverRole.load());
    ASSERT_TRUE(WaitUntil([] { return (troubleMask.load() & (1u << 6)) != 0; }, 10000));
    EXPECT_EQ((std::vector<SeenTrouble>{{SNTP_INCONSISTENT_ADDRESS, TROUBLE_SET}}), TakeTroubles());

    WriteSetting("SNTP_IP 0.0.0.0");
    TakeTestThreadSleeps();
    ASSERT_EQ(0, RestartSntp());
    EXPECT_EQ(std::vector<uint32_t>{1200}, TakeTestThreadSleeps());
    EXPECT_EQ(Clears(1, 6), TakeTroubles());  // every code up to the highest active one
    EXPECT_EQ(0u, troubleMask.load());
    EXPECT_EQ(1, serverRole.load());
    EXPECT_TRUE(WaitUntil([] { return clientRunning.load() == 0; }, 5000));
    EXPECT_TRUE(WaitUntil([] { return ServerAnswers(); }, 5000));
}

TEST_F(SntpController, StopEndsTheClientAndItsClearsAreStillQueued) {
    exchangeResult = SNTP_NOT_SYNCHRONISED;
    WriteSetting("SNTP_IP 127.0.0.2");
    ASSERT_EQ(0, StartSntp());
    ASSERT_TRUE(WaitUntil([] { return clientRunning.load() == 1 && troubleMask.load() != 0; }, 10000));
    TakeTroubles();
    TakeTestThreadSleeps();
    ASSERT_EQ(0, StopSntp());
    EXPECT_EQ(std::vector<uint32_t>{1200}, TakeTestThreadSleeps());
    EXPECT_TRUE(WaitUntil([] { return clientRunning.load() == 0; }, 5000));
    EXPECT_EQ(Clears(1, 3), TakeTroubles());
    // A failure seen by the ending thread is not raised: the stop silences it.
    const int32_t before = exchanges.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(before, exchanges.load());
    EXPECT_EQ(0u, troubleMask.load());
}

namespace {
std::atomic<int32_t> gracesOutlived{0};
std::atomic<int32_t> clientsStepping{0};  // clients that have taken their first step
thread_local bool steppedHere = false;
}  // namespace

// A thousand restarts in a row, each after a sync-now exchange that failed, as an operator who
// keeps restarting a troubled client would: every restart clears that trouble, no client
// outlives the pause of the restart that stopped it, and after the last one exactly one client
// runs. The pause is held until the old client has ended, which is what its 1200 ms ensure in
// real time against the client's one-second steps. A client step is held until there is
// something to step for (a sync-now or the stop), so that on a slow host (Wine, valgrind) the
// client never reaches a scheduled exchange of its own in the middle of a cycle.
TEST_F(SntpController, AThousandRestartsLeaveOneClientAndNoTrouble) {
    const int32_t RESTARTS = 1000;
    exchangeResult = SNTP_NOT_SYNCHRONISED;
    WriteSetting("SNTP_IP 127.0.0.2");
    gracesOutlived = 0;
    clientsStepping = 0;
    const std::thread::id controller = testThread_;
    SetSleepHook([controller](uint32_t ms) {
        if (std::this_thread::get_id() != controller && ms >= 1000) {
            if (!steppedHere) {
                steppedHere = true;
                clientsStepping.fetch_add(1);
            }
            WaitUntil([] { return stopRequested.load() != 0 || syncCountdown.load() == 1; }, 5000);
        } else if (std::this_thread::get_id() != controller || ms < 1000) {
            std::this_thread::sleep_for(std::chrono::microseconds(50));  // the sync-now poll
        } else if (!WaitUntil([] { return clientRunning.load() == 0; }, 5000)) {
            gracesOutlived.fetch_add(1);
        }
    });
    std::vector<SeenTrouble> setAndCleared{{SNTP_NOT_SYNCHRONISED, TROUBLE_SET}};
    for (const SeenTrouble& clear : Clears(SNTP_SOCKET_ERROR, SNTP_NOT_SYNCHRONISED)) {
        setAndCleared.push_back(clear);
    }
    ASSERT_EQ(0, StartSntp());
    for (int32_t restart = 0; restart < RESTARTS; ++restart) {
        // The new client has stored its start delay: a restart or a
        // sync-now before that would be overwritten, which no operator could manage in real time.
        ASSERT_TRUE(WaitUntil([restart] { return clientsStepping.load() == restart + 1; }, 5000))
            << "restart " << restart << ", clients " << clientsStepping.load();
        ASSERT_EQ(SNTP_NOT_SYNCHRONISED, SntpSyncNow()) << "restart " << restart;
        ASSERT_EQ(0, RestartSntp()) << "restart " << restart;
        ASSERT_EQ(0, gracesOutlived.load()) << "restart " << restart;
        ASSERT_EQ(setAndCleared, TakeTroubles()) << "restart " << restart;
    }
    EXPECT_EQ(RESTARTS, exchanges.load());
    EXPECT_EQ(0, serverRole.load());
    EXPECT_TRUE(WaitUntil([] { return clientRunning.load() == 1 && stopRequested.load() == 0; }, 5000));
    EXPECT_EQ(0u, troubleMask.load());
}

// Starts, restarts and stops from several threads at random moments, with the setting flipping
// between client and server, as the service thread, the manager's controls and the minute's
// re-check could meet: never more than one time thread (and its socket library's one ageing
// thread), no trouble raised by a thread that was being stopped, then exactly one thread of the
// configured role, and after the stop none at all. The seed is printed, so a failure can be
// replayed.
TEST_F(SntpController, RacingStartsRestartsAndStopsLeaveOneThreadOfTheRole) {
    const int CALLERS = 3;
    const int CALLS = 8;
    const uint32_t seed = static_cast<uint32_t>(std::random_device{}());
    SCOPED_TRACE("seed " + std::to_string(seed));
    const size_t threadsBefore = CountProcessThreads();
    // The callers, the sampler, one time thread and the ageing thread of a server's socket.
    const size_t threadsAllowed = threadsBefore + CALLERS + 1 + 2;
    std::atomic<bool> done{false};
    std::atomic<int> tooMany{0};
    std::thread sampler([&] {
        while (!done.load()) {
            if (CountProcessThreads() > threadsAllowed) {
                tooMany.fetch_add(1);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::vector<std::thread> callers;
    for (int caller = 0; caller < CALLERS; ++caller) {
        callers.emplace_back([this, seed, caller] {
            std::mt19937 random(seed + static_cast<uint32_t>(caller));
            for (int call = 0; call < CALLS; ++call) {
                if (random() % 3 == 0) {
                    WriteSetting(random() % 2 == 0 ? "SNTP_IP 127.0.0.2" : "SNTP_IP 127.0.0.1");
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
                switch (random() % 3) {
                    case 0:
                        StartSntp();
                        break;
                    case 1:
                        RestartSntp();
                        break;
                    default:
                        StopSntp();
                        break;
                }
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    done = true;
    sampler.join();
    EXPECT_EQ(0, tooMany.load());

    WriteSetting("SNTP_IP 127.0.0.1");
    ASSERT_EQ(0, StartSntp());
    EXPECT_EQ(1, TimeThreadRunning());
    EXPECT_TRUE(WaitUntil([] { return ServerAnswers(); }, 5000));
    EXPECT_EQ(0, clientRunning.load());
    WriteSetting("SNTP_IP 127.0.0.2");
    ASSERT_EQ(0, RestartSntp());
    EXPECT_TRUE(WaitUntil([] { return clientRunning.load() == 1; }, 5000));
    EXPECT_TRUE(WaitUntil(PortIsFree, 5000));
    ASSERT_EQ(0, StopSntp());
    EXPECT_EQ(0, TimeThreadRunning());
    EXPECT_EQ(0, clientRunning.load()) << "the stop joins the thread";
    EXPECT_EQ(threadsBefore, CountProcessThreads());
    for (const SeenTrouble& trouble : TakeTroubles()) {
        EXPECT_EQ(TROUBLE_CLEARED, trouble.state) << "trouble " << trouble.code << " raised";
    }
}
