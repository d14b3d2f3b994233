// The workstation report: the trouble sink of the service. Each call sends one 860-byte
// WorkstationReport to the mailslot \\.\mailslot\WORKSTATION, opened and closed per report.
#pragma once

#include <cstdint>

// The workstation application's mailslot: this service writes to it, the application (or the
// TroubleMonitor standing in for it) creates and reads it.
const char WORKSTATION_MAILSLOT[] = "\\\\.\\mailslot\\WORKSTATION";

const uint32_t WORKSTATION_REPORT_SIZE = 860;
const uint32_t WORKSTATION_REPORT_SOURCE_OFFSET = 8;     // UTF-16, 256 units
const uint32_t WORKSTATION_REPORT_KIND_OFFSET = 520;
const uint32_t WORKSTATION_REPORT_CODE_OFFSET = 524;
const uint32_t WORKSTATION_REPORT_STATE_OFFSET = 528;
const uint32_t WORKSTATION_REPORT_RESERVED_OFFSET = 532; // 82 units, always zero
const uint32_t WORKSTATION_REPORT_TEXT_OFFSET = 696;     // UTF-16, 82 units: at most 81 arrive
const uint32_t WORKSTATION_REPORT_TEXT_UNITS = 82;

// Fills the 860 little-endian bytes of one report.
void BuildWorkstationReport(uint8_t* report, const char16_t* source, uint32_t kind, uint32_t code, uint32_t state,
                            const char16_t* text);
// The sink: builds the report and writes it to the mailslot; an absent mailslot loses it silently.
void SendWorkstationReport(const char16_t* source, uint32_t kind, uint32_t code, uint32_t state,
                           const char16_t* text);

// The platform half: one write of a finished report to the workstation mailslot, opened and
// closed for this report alone. An absent mailslot or a failed write loses the report silently.
void WriteWorkstationMailslot(const uint8_t* report, uint32_t size);
