// The records that raising and clearing SNTP troubles queue.
#include "sntp/sntp_troubles.h"

#include <gtest/gtest.h>

#include <string>

#include "trouble/trouble_queue.h"

namespace {
std::string seen;  // " +code" set, " -code" cleared; the code by its text (U: the generic one)

void RecordReport(const char16_t*, uint32_t, uint32_t, uint32_t state, const char16_t* text) {
    std::string id = std::u16string(text) == u"Unknown Error" ? "U" : "?";
    for (int32_t k = 1; k < SNTP_RESULT_COUNT; ++k) {
        if (std::u16string(text) == SntpTroubleTable[k].defaultText) id = std::to_string(k);
    }
    seen += (state == TROUBLE_SET ? " +" : " -") + id;
}

struct SntpTroubles : testing::Test {
    void SetUp() override {
        CreateTroubleQueue();
        SetReportCallback(RecordReport);
        troubleMask = 0;
    }
    void TearDown() override {
        SetReportCallback(nullptr);
        DrainTroubles();
        seen.clear();
        troubleMask = 0;
    }
};
}  // namespace

// Every raise is reported again; a code without a text of its own (9) has its default, one past
// the table the generic text, and its bit is taken modulo 32.
TEST_F(SntpTroubles, EachRaiseIsReportedAndSetsItsBit) {
    SetSntpTrouble(SNTP_NO_RESPONSE);
    SetSntpTrouble(SNTP_NO_RESPONSE);
    SetSntpTrouble(SNTP_CLIENT_NOT_STARTED);
    SetSntpTrouble(40);
    DrainTroubles();
    EXPECT_EQ(" +2 +2 +9 +U", seen);
    EXPECT_EQ((1u << 2) | (1u << 8) | (1u << 9), troubleMask.load());
}

TEST_F(SntpTroubles, WithoutASinkNothingIsQueued) {
    SetReportCallback(nullptr);
    SetSntpTrouble(SNTP_INCOMPATIBLE_VERSION);
    SetReportCallback(RecordReport);
    DrainTroubles();
    EXPECT_EQ("", seen);
}
