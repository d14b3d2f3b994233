// The 860-byte workstation report: its layout pinned by offsets and literal bytes, the 81-unit
// text cut, and (on Windows) one message per report through a real mailslot.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "trouble/trouble_queue.h"
#include "trouble/workstation_report.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {
// The UTF-16 text at a byte offset, up to its NUL or units.
std::u16string ReadText(const uint8_t* at, size_t units) {
    std::u16string text;
    for (size_t i = 0; i < units && (at[2 * i] | at[2 * i + 1]) != 0; ++i) {
        text.push_back(static_cast<char16_t>(at[2 * i] | (at[2 * i + 1] << 8)));
    }
    return text;
}
}  // namespace

TEST(WorkstationReport, LayoutIsPinnedToTheByte) {
    uint8_t report[WORKSTATION_REPORT_SIZE];
    std::memset(report, 0xEE, sizeof report);
    // Every byte of each 32-bit word in its place, and a text unit above 255.
    BuildWorkstationReport(report, u"SNTP", 0x04030201, 0x08070605, 0xFFFEFDFC, u"Time \u20AC.");
    const uint8_t head[16] = {16, 0, 0, 0, 3, 0, 0, 0, 'S', 0, 'N', 0, 'T', 0, 'P', 0};
    EXPECT_EQ(0, std::memcmp(head, report, sizeof head));
    const uint8_t words[12] = {1, 2, 3, 4, 5, 6, 7, 8, 0xFC, 0xFD, 0xFE, 0xFF};
    EXPECT_EQ(0, std::memcmp(words, report + 520, sizeof words));
    const uint8_t text[16] = {'T', 0, 'i', 0, 'm', 0, 'e', 0, ' ', 0, 0xAC, 0x20, '.', 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(text, report + 696, sizeof text));
    for (uint32_t i = 16; i < WORKSTATION_REPORT_SIZE; ++i) {
        if ((i < 520 || i >= 532) && (i < 696 || i >= 696 + 14)) {
            ASSERT_EQ(0, report[i]) << i;  // zero wherever nothing is written
        }
    }
}

TEST(WorkstationReport, TextIsCutAtEightyOneUnitsAndSourceAt255) {
    uint8_t report[WORKSTATION_REPORT_SIZE];
    BuildWorkstationReport(report, std::u16string(300, u's').c_str(), REPORT_KIND_TROUBLE, 7, TROUBLE_SET,
                           std::u16string(82, u'x').c_str());
    EXPECT_EQ(std::u16string(255, u's'), ReadText(report + 8, 256));
    EXPECT_EQ(std::u16string(81, u'x'), ReadText(report + 696, 82));
    const uint8_t words[12] = {51, 0, 0, 0, 7, 0, 0, 0, 255, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(words, report + 520, sizeof words));
    BuildWorkstationReport(report, u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_CLEARED, nullptr);
    EXPECT_EQ(u"", ReadText(report + 696, 82));
    EXPECT_EQ(0, report[528]);  // TROUBLE_CLEARED
}

#ifdef _WIN32
TEST(WorkstationReport, OneMessagePerReportThroughTheMailslotAndNoneKeptForALaterReader) {
    SendWorkstationReport(u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_SET, u"nobody listens");
    HANDLE slot = CreateMailslotA(WORKSTATION_MAILSLOT, 0, 0, nullptr);
    if (slot == INVALID_HANDLE_VALUE) {
        GTEST_SKIP() << "the workstation mailslot is held by another process: " << GetLastError();
    }
    SendWorkstationReport(u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_SET, u"first");
    SendWorkstationReport(u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_CLEARED, u"second");
    for (const char16_t* expected : {u"first", u"second"}) {
        uint8_t message[1024];
        DWORD size = 0;
        ASSERT_TRUE(ReadFile(slot, message, sizeof message, &size, nullptr)) << GetLastError();
        ASSERT_EQ(WORKSTATION_REPORT_SIZE, size);
        EXPECT_EQ(std::u16string(expected), ReadText(message + 696, 82));
    }
    CloseHandle(slot);
}
#endif
