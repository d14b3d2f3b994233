// There is no workstation mailslot off Windows: reports built by the native build go nowhere,
// as they would on a Windows machine without the workstation application.
#include "trouble/workstation_report.h"

void WriteWorkstationMailslot(const uint8_t*, uint32_t) {}
