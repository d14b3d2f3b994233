// The workstation report: the layout of the 860-byte mailslot message and the trouble sink
// that sends one per trouble. Little-endian throughout, zero wherever nothing is written.
#include "trouble/workstation_report.h"

#include <cstring>

namespace {
const uint32_t HEADER_WORD_1 = 16;  // constants of the receiving application
const uint32_t HEADER_WORD_2 = 3;
const uint32_t SOURCE_UNITS = 256;

void StoreWord(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
    at[2] = static_cast<uint8_t>(value >> 16);
    at[3] = static_cast<uint8_t>(value >> 24);
}

// At most units UTF-16 units, the last unit of the field forced to NUL, the rest left zero.
void StoreText(uint8_t* at, const char16_t* text, uint32_t units) {
    if (text == nullptr) {
        return;
    }
    for (uint32_t i = 0; i + 1 < units && text[i] != u'\0'; ++i) {
        at[2 * i] = static_cast<uint8_t>(text[i]);
        at[2 * i + 1] = static_cast<uint8_t>(text[i] >> 8);
    }
}
}  // namespace

void BuildWorkstationReport(uint8_t* report, const char16_t* source, uint32_t kind, uint32_t code, uint32_t state,
                            const char16_t* text) {
    std::memset(report, 0, WORKSTATION_REPORT_SIZE);
    StoreWord(report, HEADER_WORD_1);
    StoreWord(report + 4, HEADER_WORD_2);
    StoreText(report + WORKSTATION_REPORT_SOURCE_OFFSET, source, SOURCE_UNITS);
    StoreWord(report + WORKSTATION_REPORT_KIND_OFFSET, kind);
    StoreWord(report + WORKSTATION_REPORT_CODE_OFFSET, code);
    StoreWord(report + WORKSTATION_REPORT_STATE_OFFSET, state);
    // The receiver reads no more than 82 units: longer texts are cut at 81 on purpose.
    StoreText(report + WORKSTATION_REPORT_TEXT_OFFSET, text, WORKSTATION_REPORT_TEXT_UNITS);
}

void SendWorkstationReport(const char16_t* source, uint32_t kind, uint32_t code, uint32_t state,
                           const char16_t* text) {
    uint8_t report[WORKSTATION_REPORT_SIZE];
    BuildWorkstationReport(report, source, kind, code, state, text);
    WriteWorkstationMailslot(report, WORKSTATION_REPORT_SIZE);
}
