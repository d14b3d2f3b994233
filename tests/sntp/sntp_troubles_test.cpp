// SNTP troubles: the records that raising and clearing queue, the whole-mask rule of the
// clears, the silence during a stop, and the texts of the result codes.
#include "sntp/sntp_troubles.h"

#include <gtest/gtest.h>

#include <string>

#include "trouble/trouble_queue.h"

namespace {
std::string seen;

// Each record as "+code " or "-code ", the code found by its text (U: the generic one); all from SNTP, code 7.
void RecordReport(const char16_t* source, uint32_t, uint32_t code, uint32_t state, const char16_t* text) {
    const std::u16string t(text);
    EXPECT_TRUE(std::u16string(u"SNTP") == source && code == 7u);
    std::string id = t == u"Unknown Error" ? "U" : "?";
    for (int32_t k = 1; k < SNTP_RESULT_COUNT; ++k) id = t == SntpTroubleTable[k].defaultText ? std::to_string(k) : id;
    seen += (state == TROUBLE_SET ? "+" : state == TROUBLE_CLEARED ? "-" : "?") + id + " ";
}

std::string Drained() { return seen.clear(), DrainTroubles(), seen; }

struct SntpTroublesTest : testing::Test {
    void SetUp() override { CreateTroubleQueue(), SetReportCallback(RecordReport), troubleMask = stopRequested = 0; }
};
}  // namespace

TEST_F(SntpTroublesTest, RaisesAndClearsAreReportedWithTheirTextsWhileAnyTroubleIsActiveAndNotDuringAStop) {
    SetSntpTrouble(SNTP_NOT_SYNCHRONISED), SetSntpTrouble(SNTP_INCONSISTENT_ADDRESS);
    EXPECT_EQ((1u << 3) | (1u << 6), troubleMask.load());
    EXPECT_EQ("+3 +6 -1 -2 -3 -4 -5 -6 ", (ClearAllSntpTroubles(), Drained()));

    // Code 11 lies past the table and past the walk: every clear goes out, then the mask is zeroed.
    SetSntpTrouble(SNTP_RESULT_COUNT), ClearAllSntpTroubles();
    EXPECT_EQ(0u, troubleMask.load());
    EXPECT_EQ("+U -1 -2 -3 -4 -5 -6 -7 -8 -9 -10 ", Drained());

    // Clears go out while any trouble is active, also for codes never raised.
    ClearSntpTrouble(SNTP_NO_RESPONSE), ClearAllSntpTroubles(), SetSntpTrouble(SNTP_INCOMPATIBLE_VERSION);
    ClearSntpTrouble(SNTP_NO_RESPONSE), ClearSntpTrouble(SNTP_NO_RESPONSE);  // never raised, but trouble 5 is active
    EXPECT_EQ(1u << 5, troubleMask.load());
    ClearSntpTrouble(SNTP_INCOMPATIBLE_VERSION), ClearSntpTrouble(SNTP_INCOMPATIBLE_VERSION);
    EXPECT_EQ("+5 -2 -2 -5 ", Drained());

    SetSntpTrouble(SNTP_CANNOT_RESOLVE), stopRequested = 1, SetSntpTrouble(SNTP_SOCKET_ERROR);
    EXPECT_EQ(1u << 10, troubleMask.load());
    EXPECT_EQ(0u, (ClearSntpTrouble(SNTP_CANNOT_RESOLVE), troubleMask.load()));
    EXPECT_EQ("+10 -10 ", Drained());

    stopRequested = 0, SetSntpTrouble(SNTP_NO_RESPONSE), SetSntpTrouble(SNTP_NO_RESPONSE);
    SetSntpTrouble(SNTP_CLIENT_NOT_STARTED);  // no message id of its own
    SetSntpTrouble(40);                       // outside the table; its bit is taken modulo 32
    EXPECT_EQ("+2 +2 +9 +U ", Drained());
    EXPECT_EQ((1u << 2) | (1u << 8) | (1u << 9), troubleMask.load());

    SetReportCallback(nullptr), SetSntpTrouble(SNTP_INCOMPATIBLE_VERSION), SetReportCallback(RecordReport);
    EXPECT_EQ("", Drained());

    EXPECT_EQ(std::u16string(u"Ok"), SntpResultText(SNTP_OK));
    EXPECT_EQ(std::u16string(SntpTroubleTable[1].defaultText), SntpResultText(SNTP_SOCKET_ERROR));
    EXPECT_EQ(std::u16string(u"Local SNTP Client: Cannot resolve host name"), SntpResultText(SNTP_CANNOT_RESOLVE));
    EXPECT_EQ(std::u16string(u"Unknown Error"), SntpResultText(SNTP_RESULT_COUNT));
}
