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
std::u16string Units(size_t count) {
    std::u16string text;
    for (size_t i = 0; i < count; ++i) {
        text.push_back(static_cast<char16_t>(u'A' + i % 26));
    }
    return text;
}

std::u16string ReadText(const uint8_t* at, size_t units) {
    std::u16string text;
    for (size_t i = 0; i < units; ++i) {
        const char16_t unit = static_cast<char16_t>(at[2 * i] | (at[2 * i + 1] << 8));
        if (unit == 0) {
            break;
        }
        text.push_back(unit);
    }
    return text;
}

uint32_t Word(const uint8_t* at) { return at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<uint32_t>(at[3]) << 24); }
}  // namespace

TEST(WorkstationReport, Layout) {
    uint8_t report[WORKSTATION_REPORT_SIZE];
    std::memset(report, 0xEE, sizeof report);
    BuildWorkstationReport(report, u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_SET, u"The time server did not respond.");
    const uint8_t head[16] = {16, 0, 0, 0, 3, 0, 0, 0, 'S', 0, 'N', 0, 'T', 0, 'P', 0};
    EXPECT_EQ(0, std::memcmp(head, report, sizeof head));
    EXPECT_EQ(51u, Word(report + 520));
    EXPECT_EQ(7u, Word(report + 524));
    EXPECT_EQ(255u, Word(report + 528));
    EXPECT_EQ(u"The time server did not respond.", ReadText(report + 696, 82));
    // Words are stored whole, little-endian: every byte of a 32-bit value lands in its place.
    uint8_t wide[WORKSTATION_REPORT_SIZE];
    BuildWorkstationReport(wide, u"", 0x04030201, 0x08070605, 0xFFFEFDFC, u"");
    const uint8_t words[12] = {1, 2, 3, 4, 5, 6, 7, 8, 0xFC, 0xFD, 0xFE, 0xFF};
    EXPECT_EQ(0, std::memcmp(words, wide + 520, sizeof words));
    // Everything past the source, the three words and the text is zero-filled.
    for (uint32_t i = 16; i < WORKSTATION_REPORT_SIZE; ++i) {
        if ((i < 520 || i >= 532) && (i < 696 || i >= 696 + 2 * 32)) {
            ASSERT_EQ(0, report[i]) << i;
        }
    }
}

TEST(WorkstationReport, TextIsCutAtEightyOneUnitsAndSourceAt255) {
    uint8_t report[WORKSTATION_REPORT_SIZE];
    for (size_t units : {81, 82}) {
        std::memset(report, 0xEE, sizeof report);
        BuildWorkstationReport(report, u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_CLEARED, Units(units).c_str());
        EXPECT_EQ(Units(81), ReadText(report + 696, 82)) << units;
        EXPECT_EQ(0, report[858]) << units;
        EXPECT_EQ(0, report[859]) << units;
        EXPECT_EQ(0u, Word(report + 528));
    }

    BuildWorkstationReport(report, Units(300).c_str(), REPORT_KIND_TROUBLE, 7, TROUBLE_SET, nullptr);
    EXPECT_EQ(Units(255), ReadText(report + 8, 256));
    EXPECT_EQ(u"", ReadText(report + 696, 82));
}

#ifdef _WIN32
TEST(WorkstationReport, OneMessagePerReportThroughTheMailslot) {
    HANDLE slot = CreateMailslotA("\\\\.\\mailslot\\WORKSTATION", 0, 2000, nullptr);
    if (slot == INVALID_HANDLE_VALUE) {
        GTEST_SKIP() << "the workstation mailslot is held by another process: " << GetLastError();
    }
    SendWorkstationReport(u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_SET, u"first");
    SendWorkstationReport(u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_CLEARED, u"second");
    const char16_t* expected[2] = {u"first", u"second"};
    for (int i = 0; i < 2; ++i) {
        uint8_t message[1024];
        DWORD size = 0;
        ASSERT_TRUE(ReadFile(slot, message, sizeof message, &size, nullptr)) << GetLastError();
        ASSERT_EQ(WORKSTATION_REPORT_SIZE, size);
        EXPECT_EQ(std::u16string(expected[i]), ReadText(message + 696, 82));
        EXPECT_EQ(i == 0 ? 255u : 0u, Word(message + 528));
    }
    CloseHandle(slot);
}

TEST(WorkstationReport, AbsentMailslotLosesTheReport) {
    SendWorkstationReport(u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_SET, u"nobody listens");
    HANDLE slot = CreateMailslotA("\\\\.\\mailslot\\WORKSTATION", 0, 0, nullptr);
    if (slot == INVALID_HANDLE_VALUE) {
        GTEST_SKIP() << "the workstation mailslot is held by another process: " << GetLastError();
    }
    DWORD waiting = 99;
    ASSERT_TRUE(GetMailslotInfo(slot, nullptr, nullptr, &waiting, nullptr));
    EXPECT_EQ(0u, waiting);  // nothing was kept back for a later reader
    CloseHandle(slot);
}
#endif
