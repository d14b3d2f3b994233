// The simulated twin of workstation_report_posix.cpp: each report the service writes to the
// workstation mailslot goes to the world's workstation, which receives it when it listens.
#include "sim/observe.h"
#include "trouble/workstation_report.h"

void WriteWorkstationMailslot(const uint8_t* report, uint32_t size) { ObserveReport(report, size); }
