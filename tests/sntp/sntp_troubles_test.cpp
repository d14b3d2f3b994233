// SNTP troubles: the records that raising and clearing queue, the whole-mask rule of the
// clears, the silence during a stop, and the texts of the result codes.
#include "sntp/sntp_troubles.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "trouble/trouble_queue.h"

namespace {
struct Report {
    std::u16string source;
    uint32_t code;
    uint32_t state;
    std::u16string text;
};

std::vector<Report> reports;

void RecordReport(const char16_t* source, uint32_t, uint32_t code, uint32_t state, const char16_t* text) {
    reports.push_back({source, code, state, text});
}

// Everything queued since the last call.
std::vector<Report> Drained() {
    reports.clear();
    DrainTroubles();
    return reports;
}

std::u16string TextOf(SntpResult code) {
    return SntpTroubleTable[code].defaultText;
}

class SntpTroublesTest : public testing::Test {
protected:
    void SetUp() override {
        CreateTroubleQueue();
        SetReportCallback(RecordReport);
        troubleMask = 0;
        stopRequested = 0;
        Drained();
    }
    void TearDown() override {
        SetReportCallback(nullptr);
        DrainTroubles();
        troubleMask = 0;
        stopRequested = 0;
    }
};
}  // namespace

TEST_F(SntpTroublesTest, ClearAllSendsClearsUpToTheHighestActiveCodeOnly) {
    SetSntpTrouble(SNTP_NOT_SYNCHRONISED);
    SetSntpTrouble(SNTP_INCONSISTENT_ADDRESS);
    EXPECT_EQ(troubleMask.load(), (1u << 3) | (1u << 6));
    std::vector<Report> raised = Drained();
    ASSERT_EQ(raised.size(), 2u);
    EXPECT_EQ(raised[0].source, u"SNTP");
    EXPECT_EQ(raised[0].state, TROUBLE_SET);
    EXPECT_EQ(raised[0].text, TextOf(3));
    EXPECT_EQ(raised[1].text, TextOf(6));

    ClearAllSntpTroubles();
    EXPECT_EQ(troubleMask.load(), 0u);
    std::vector<Report> cleared = Drained();
    ASSERT_EQ(cleared.size(), 6u);
    for (SntpResult code = 1; code <= 6; ++code) {
        EXPECT_EQ(cleared[code - 1].text, TextOf(code)) << "code " << code;
        EXPECT_EQ(cleared[code - 1].state, TROUBLE_CLEARED);
        EXPECT_EQ(cleared[code - 1].code, 7u);  // every SNTP trouble travels as code 7
    }

    // The highest code of all is cleared too: the walk reaches the end of the list.
    SetSntpTrouble(SNTP_CANNOT_RESOLVE);
    Drained();
    ClearAllSntpTroubles();
    cleared = Drained();
    ASSERT_EQ(cleared.size(), static_cast<size_t>(SNTP_CANNOT_RESOLVE));
    EXPECT_EQ(cleared.back().text, TextOf(SNTP_CANNOT_RESOLVE));
}

TEST_F(SntpTroublesTest, ClearsGoOutOnlyWhileSomeTroubleIsActive) {
    ClearSntpTrouble(SNTP_NO_RESPONSE);
    ClearAllSntpTroubles();
    EXPECT_TRUE(Drained().empty());

    // Trouble 5 is active, so a clear of the never-raised trouble 2 is still reported.
    SetSntpTrouble(SNTP_INCOMPATIBLE_VERSION);
    Drained();
    ClearSntpTrouble(SNTP_NO_RESPONSE);
    ClearSntpTrouble(SNTP_NO_RESPONSE);
    std::vector<Report> cleared = Drained();
    ASSERT_EQ(cleared.size(), 2u);
    EXPECT_EQ(cleared[1].text, TextOf(SNTP_NO_RESPONSE));
    EXPECT_EQ(troubleMask.load(), 1u << 5);

    ClearSntpTrouble(SNTP_INCOMPATIBLE_VERSION);
    EXPECT_EQ(Drained().size(), 1u);
    ClearSntpTrouble(SNTP_INCOMPATIBLE_VERSION);
    EXPECT_TRUE(Drained().empty());
}

TEST_F(SntpTroublesTest, AStopSilencesRaisesButNotClears) {
    SetSntpTrouble(SNTP_CANNOT_RESOLVE);
    Drained();
    stopRequested = 1;
    SetSntpTrouble(SNTP_SOCKET_ERROR);
    EXPECT_TRUE(Drained().empty());
    EXPECT_EQ(troubleMask.load(), 1u << 10);

    ClearSntpTrouble(SNTP_CANNOT_RESOLVE);
    std::vector<Report> cleared = Drained();
    ASSERT_EQ(cleared.size(), 1u);
    EXPECT_EQ(cleared[0].text, TextOf(SNTP_CANNOT_RESOLVE));
    EXPECT_EQ(troubleMask.load(), 0u);
}

TEST_F(SntpTroublesTest, EveryRaiseIsReportedWithATextButOnlyToAnInstalledSink) {
    SetSntpTrouble(SNTP_NO_RESPONSE);
    SetSntpTrouble(SNTP_NO_RESPONSE);
    SetSntpTrouble(SNTP_CLIENT_NOT_STARTED);  // no message id of its own
    SetSntpTrouble(40);                       // outside the table; its bit is taken modulo 32
    std::vector<Report> raised = Drained();
    ASSERT_EQ(raised.size(), 4u);
    EXPECT_EQ(raised[2].text, u"Local SNTP Client not started");
    EXPECT_EQ(raised[3].text, u"Unknown Error");
    EXPECT_EQ(raised[3].code, 7u);
    EXPECT_EQ(troubleMask.load(), (1u << 2) | (1u << 8) | (1u << 9));

    SetReportCallback(nullptr);
    SetSntpTrouble(SNTP_INCOMPATIBLE_VERSION);
    SetReportCallback(RecordReport);
    EXPECT_TRUE(Drained().empty());
}

TEST(SntpResultText, NamesSuccessFailuresAndUnknownCodes) {
    EXPECT_EQ(std::u16string(SntpResultText(SNTP_OK)), u"Ok");
    EXPECT_EQ(std::u16string(SntpResultText(-4)), u"Ok");
    EXPECT_EQ(std::u16string(SntpResultText(11)), u"Unknown Error");
    EXPECT_EQ(std::u16string(SntpResultText(SNTP_CANNOT_RESOLVE)), u"Local SNTP Client: Cannot resolve host name");
}
