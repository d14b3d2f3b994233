// The SNTP controller: the role from SNTP_IP, the setting file, starts, restarts and stops of the time
// thread, in virtual time where a time thread's second costs a real millisecond and the grace none.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "config/config_test_seams.h"
#include "config/directories.h"
#include "runtime/runtime_test_seams.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_control.h"
#include "sntp/sntp_test_seams.h"
#include "tests/support/host.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "tools/loopback_udp.h"
#include "trouble/trouble_queue.h"

namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
const uint16_t TEST_SERVER_PORT = 12325;  // the server role binds this instead of 123
std::atomic<int32_t> exchangeResult{0};
std::atomic<uint32_t> graceMs{0};  // what the controller slept, in its grace periods

// Polls for up to five real seconds; bounded by the clock, as a short sleep may return at once.
bool WaitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(100us);
    return condition();
}

SntpResult ScriptedExchange(const char*, int32_t, NtpTimestamp* time, NtpTimestamp*, uint32_t*) {
    return *time = 3976214400ULL << 32, exchangeResult.load();  // the time is used on success only
}

bool ServerAnswers(uint32_t waitMs) {  // a version-3 request to the test port answered within waitMs
    LoopbackUdp endpoint{~0ULL};
    uint8_t packet[64] = {0x1B};
    if (OpenLoopbackUdp(&endpoint, "127.0.0.1", 0) != 0) return false;
    SendLoopbackUdp(&endpoint, packet, 48, LoopbackAddress("127.0.0.1"), TEST_SERVER_PORT);
    const int32_t length = ReceiveLoopbackUdp(&endpoint, packet, sizeof packet, waitMs, nullptr, nullptr);
    CloseLoopbackUdp(&endpoint);
    return length == 48 && packet[0] == 0x1C;
}

std::string Seen(std::string seen = "") {  // the troubles since the last call: " +code" set, " -code" cleared
    for (const SeenTrouble& t : TakeTroubles()) seen += (t.state == TROUBLE_SET ? " +" : " -") + std::to_string(t.code);
    return seen;
}

class SntpController : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(root_ / "Data" / "System"), OverrideInstallRoot(root_.string().c_str());
        InstallVirtualTime(), StartTroubleRecorder(), SetSntpExchanger(ScriptedExchange);
        SetSleepHook([](uint32_t ms) { ms == 1000 ? std::this_thread::sleep_for(1ms) : void(graceMs += ms); });
        graceMs = 0, exchangeResult = 0, sntpServerPort = TEST_SERVER_PORT;
    }
    void TearDown() override {
        StopSntp(), done_ = true, poker_.join(), StopTroubleRecorder(), RemoveVirtualTime(), fs::remove_all(root_);
    }
    void WriteSetting(const char* text) { std::ofstream(settingPath_, std::ios::binary) << "#\n" << text << "\n"; }

    const fs::path root_ = fs::temp_directory_path() / ("norvik-control-" + std::to_string(CurrentProcessNumber()));
    const fs::path settingPath_ = root_ / "Data" / "System" / "Vantor.dat";
    std::atomic<bool> done_{false};
    // A server sees a stop when its socket wait ends, after a real second; a request ends it now.
    std::thread poker_{[this] {
        for (; !done_.load(); std::this_thread::sleep_for(1ms)) stopRequested.load() != 0 && ServerAnswers(0);
    }};
};
}  // namespace

TEST_F(SntpController, TheSettingFileNamesTheRole) {
    // 127.0.0.2 is not this host's; a name (and 255.255.255.255, refused as an address) is resolved by a client.
    const std::pair<const char*, int32_t> roles[] = {{"", 1}, {"0.0.0.0", 1}, {"127.0.0.1", 1}, {"127.0.0.2", 0},
                                                     {"no-such-host.invalid", 0}, {"255.255.255.255", 0}};
    for (const auto& role : roles) EXPECT_EQ(role.second, ChooseServerRole(role.first)) << role.first;

    char directory[PATH_CAPACITY], value[SNTP_SETTING_SIZE];
    GetDataDirectory(directory, PATH_CAPACITY);
    const auto read = [&] { return std::strcpy(value, "stale"), ReadSntpIp(value, directory) == 0 ? value : "failed"; };
    EXPECT_STREQ("", read());  // no file: the empty setting
    EXPECT_STREQ("", (WriteSetting("OTHER_KEY 5"), read()));  // no key: the empty setting
    EXPECT_EQ(0, WriteSntpIp("127.0.0.2", directory));
    EXPECT_STREQ("127.0.0.2", read());
    std::ifstream file(settingPath_);  // text mode: each platform's line ends
    EXPECT_EQ("#\nOTHER_KEY 5\nSNTP_IP 127.0.0.2\n",
              std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()));
    EXPECT_EQ(1, WriteSntpIp("127.0.0.2", (root_ / "missing").string().c_str()));
    EXPECT_EQ(0, ReadSntpIp(value, std::string(400, 'd').c_str()));  // cut to the path's capacity: no file
    EXPECT_STREQ("", value);
}

// Each start reads the role anew; each restart and stop clears troubles after 1200 ms and joins the thread.
TEST_F(SntpController, StartsRestartsAndTheStopFollowTheSetting) {
    const size_t threadsBefore = CountProcessThreads();
    ASSERT_EQ(0, StartSntp());  // no setting file: the server
    EXPECT_EQ(std::make_pair(1, 1), std::make_pair(int{serverRole.load()}, TimeThreadRunning()));
    ASSERT_EQ(0, StartSntp());  // a second start joins the first one's thread
    EXPECT_TRUE(WaitUntil([] { return ServerAnswers(20); }));
    EXPECT_EQ(threadsBefore + 2, CountProcessThreads()) << "the server and its socket library's thread";

    SetSntpExchanger(nullptr);  // the real exchange: resolution fails before any packet
    ASSERT_EQ(0, (WriteSetting("SNTP_IP no-such-host.invalid"), RestartSntp()));
    EXPECT_FALSE(ServerAnswers(20)) << "the server was joined, its port let go";
    EXPECT_EQ(0, serverRole.load());
    EXPECT_STREQ("no-such-host.invalid", sntpServerSetting);
    ASSERT_TRUE(WaitUntil([] { return troubleMask.load() != 0; }));
    EXPECT_EQ(" +10", Seen());

    ASSERT_EQ(0, (WriteSetting("SNTP_IP 0.0.0.0"), RestartSntp()));
    EXPECT_EQ(" -1 -2 -3 -4 -5 -6 -7 -8 -9 -10", Seen());
    EXPECT_EQ(1, serverRole.load());
    EXPECT_TRUE(WaitUntil([] { return ServerAnswers(20); }));

    SetSntpExchanger(ScriptedExchange), exchangeResult = SNTP_NOT_SYNCHRONISED;
    ASSERT_EQ(0, (WriteSetting("SNTP_IP 127.0.0.2"), RestartSntp()));
    ASSERT_TRUE(WaitUntil([] { return troubleMask.load() != 0; }));
    ASSERT_EQ(0, StopSntp());
    EXPECT_EQ(4 * 1200u, graceMs.load()) << "three restarts and the stop";
    EXPECT_EQ(" +3 -1 -2 -3", Seen()) << "the ending client raises nothing";
    ASSERT_EQ(0, RestartSntp());
    EXPECT_EQ(std::make_pair(0, threadsBefore), std::make_pair(TimeThreadRunning(), CountProcessThreads()));
}

// Two threads start, restart and stop at random, the role flipping: never a second time thread, and after
// the last stop none and the port let go (nor a raised trouble: no server found its port taken).
TEST_F(SntpController, RacingStartsRestartsAndStopsLeaveOneThreadAndTheLastStopNone) {
    const uint32_t seed = static_cast<uint32_t>(std::random_device{}());
    SCOPED_TRACE("seed " + std::to_string(seed));
    const size_t threadsBefore = CountProcessThreads();
    const auto callRandomly = [&](uint32_t caller) {
        std::mt19937 random(seed + caller);
        for (int call = 0; call < 60; ++call) {
            if (random() % 3 == 0) WriteSetting(random() % 2 == 0 ? "SNTP_IP 127.0.0.2" : "SNTP_IP 127.0.0.1");
            std::this_thread::sleep_for(random() % 20000 * 1us);
            const uint32_t choice = random() % 3;
            choice == 0 ? StartSntp() : choice == 1 ? RestartSntp() : StopSntp();
            EXPECT_LE(CountProcessThreads(), threadsBefore + 2 + 2) << seed;  // callers, time thread, library
        }
    };
    std::thread first(callRandomly, 0), second(callRandomly, 1);
    first.join(), second.join();
    ASSERT_EQ(0, StopSntp());
    EXPECT_EQ(std::string::npos, Seen().find('+'));
    EXPECT_EQ(threadsBefore, CountProcessThreads());
    LoopbackUdp port{~0ULL};
    EXPECT_EQ(0, OpenLoopbackUdp(&port, "127.0.0.1", TEST_SERVER_PORT, false));
    CloseLoopbackUdp(&port);
}

namespace {
// No thread can be started while it is in scope (as when the process has run out of them); the
// driver in force before is restored after.
class FailingThreadStarts {
public:
    FailingThreadStarts() : previous_(ActivePlatformDriver()), driver_(*previous_) {
        driver_.startJoinableThread = [](ThreadFunction, uint64_t, JoinableThread**) -> int32_t { return 0; };
        InstallPlatformDriver(&driver_);
    }
    ~FailingThreadStarts() { InstallPlatformDriver(previous_); }
    FailingThreadStarts(const FailingThreadStarts&) = delete;
    FailingThreadStarts& operator=(const FailingThreadStarts&) = delete;

private:
    const PlatformDriver* previous_;
    PlatformDriver driver_;
};
}  // namespace

TEST_F(SntpController, AServerThreadThatCannotStartIsReported) {
    FailingThreadStarts failing;
    EXPECT_EQ(1, StartSntp());
    EXPECT_EQ(0, TimeThreadRunning());
    EXPECT_EQ(" +8", Seen()) << "Local SNTP Server could not start";
}

TEST_F(SntpController, AClientThreadThatCannotStartIsReported) {
    WriteSetting("SNTP_IP 127.0.0.2");
    FailingThreadStarts failing;
    EXPECT_EQ(1, StartSntp());
    EXPECT_EQ(0, TimeThreadRunning());
    EXPECT_EQ(" +9", Seen()) << "Local SNTP Client not started";
}
