// TroubleMonitor: stands in for the workstation application on a test rig or a machine without
// it. It creates the workstation mailslot and prints each report as one line:
//
//   2026-11-22T05:40:00.123Z SNTP code=7 SET The time server did not respond.  Contact ...
//
// or, with --json, one JSON object per line, for a rig or a log shipper:
//
//   {"time":"2026-11-22T05:40:00.123Z","header":[16,3],"source":"SNTP","kind":51,"code":7,
//    "state":255,"event":"set","text":"The time server did not respond.  Contact ..."}
//
// "time" is when the report was received (UTC); "event" is "set", "clear" or, for any other state
// value, "unknown". --count N and --seconds S end it by themselves.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "runtime/handles_win32.h"
#include "runtime/runtime.h"
#include "trouble/trouble_queue.h"
#include "tools/tool_options.h"
#include "trouble/workstation_report.h"

namespace {
const DWORD READ_STEP_MS = 200;  // how often the time limit is looked at while nothing arrives
const long MAX_COUNT = 1000000000;
const long MAX_SECONDS = 31536000;  // a year

struct MonitorOptions {
    bool json = false;
    long count = -1;    // reports to print before exiting; -1 for no limit
    long seconds = -1;  // run time before exiting; -1 for no limit
};

uint32_t Word(const uint8_t* at) {
    return at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<uint32_t>(at[3]) << 24);
}

// UTF-16 field to UTF-8, stopping at NUL or the field's end.
std::string FieldText(const uint8_t* at, uint32_t units) {
    std::string text;
    for (uint32_t i = 0; i < units; ++i) {
        uint32_t unit = at[2 * i] | (at[2 * i + 1] << 8);
        if (unit == 0) {
            break;
        }
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < units) {
            const uint32_t low = at[2 * i + 2] | (at[2 * i + 3] << 8);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if (unit < 0x80) {
            text.push_back(static_cast<char>(unit));
        } else if (unit < 0x800) {
            text.push_back(static_cast<char>(0xC0 | (unit >> 6)));
            text.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
        } else if (unit < 0x10000) {
            text.push_back(static_cast<char>(0xE0 | (unit >> 12)));
            text.push_back(static_cast<char>(0x80 | ((unit >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
        } else {
            text.push_back(static_cast<char>(0xF0 | (unit >> 18)));
            text.push_back(static_cast<char>(0x80 | ((unit >> 12) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | ((unit >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
        }
    }
    return text;
}

std::string JsonQuoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted.push_back('\\');
            quoted.push_back(c);
        } else if (byte < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            quoted += escaped;
        } else {
            quoted.push_back(c);
        }
    }
    quoted.push_back('"');
    return quoted;
}

std::string UtcNow() {
    SYSTEMTIME now;
    GetSystemTime(&now);
    char text[32];
    snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", now.wYear, now.wMonth, now.wDay, now.wHour,
             now.wMinute, now.wSecond, now.wMilliseconds);
    return text;
}

void PrintReport(const uint8_t* report, DWORD size, const MonitorOptions& options) {
    if (size != WORKSTATION_REPORT_SIZE) {
        printf(options.json ? "{\"time\":\"%s\",\"error\":\"message of %lu bytes\"}\n" : "%s malformed message of %lu bytes\n",
               UtcNow().c_str(), static_cast<unsigned long>(size));
        fflush(stdout);
        return;
    }
    const std::string source = FieldText(report + WORKSTATION_REPORT_SOURCE_OFFSET, 256);
    const std::string text = FieldText(report + WORKSTATION_REPORT_TEXT_OFFSET, WORKSTATION_REPORT_TEXT_UNITS);
    const uint32_t kind = Word(report + WORKSTATION_REPORT_KIND_OFFSET);
    const uint32_t code = Word(report + WORKSTATION_REPORT_CODE_OFFSET);
    const uint32_t state = Word(report + WORKSTATION_REPORT_STATE_OFFSET);
    const char* stateName = state == TROUBLE_SET ? "SET" : state == TROUBLE_CLEARED ? "CLEARED" : "STATE?";
    const char* event = state == TROUBLE_SET ? "set" : state == TROUBLE_CLEARED ? "clear" : "unknown";
    if (options.json) {
        printf("{\"time\":\"%s\",\"header\":[%u,%u],\"source\":%s,\"kind\":%u,\"code\":%u,\"state\":%u,"
               "\"event\":\"%s\",\"text\":%s}\n",
               UtcNow().c_str(), Word(report), Word(report + 4), JsonQuoted(source).c_str(), kind, code, state, event,
               JsonQuoted(text).c_str());
    } else {
        printf("%s %s code=%u %s %s\n", UtcNow().c_str(), source.c_str(), code, stateName, text.c_str());
    }
    fflush(stdout);
}

int Usage() {
    fprintf(stderr,
            "usage: TroubleMonitor [--json] [--count N] [--seconds S]\n"
            "  Creates the workstation mailslot and prints each trouble report as one line:\n"
            "  time received (UTC), source, code, SET or CLEARED, text.\n"
            "  --json       one JSON object per report instead: time, header, source, kind, code,\n"
            "               state (255 set, 0 cleared), event (set, clear), text\n"
            "  --count N    end after N reports\n"
            "  --seconds S  end after S seconds\n");
    return 2;
}
}  // namespace

int main(int argc, char** argv) {
    MonitorOptions options;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            options.json = true;
        } else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc) {
            if (!ParseNumber(argv[++i], 0, MAX_COUNT, &options.count)) {
                return Usage();
            }
        } else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            if (!ParseNumber(argv[++i], 0, MAX_SECONDS, &options.seconds)) {
                return Usage();
            }
        } else {
            return Usage();
        }
    }
    const UniqueKernelHandle slot(CreateMailslotA(WORKSTATION_MAILSLOT, 0, READ_STEP_MS, nullptr));
    if (!slot.Valid()) {
        fprintf(stderr, "TroubleMonitor: cannot create %s: error %lu (is the workstation application running?)\n",
                WORKSTATION_MAILSLOT, GetLastError());
        return 1;
    }
    fprintf(stderr, "TroubleMonitor: listening on %s\n", WORKSTATION_MAILSLOT);
    const ULONGLONG started = GetTickCount64();
    long printed = 0;
    while (options.count < 0 || printed < options.count) {
        if (options.seconds >= 0 && GetTickCount64() - started >= static_cast<ULONGLONG>(options.seconds) * MS_PER_SECOND) {
            break;
        }
        uint8_t message[4096];
        DWORD size = 0;
        if (ReadFile(slot.Get(), message, sizeof message, &size, nullptr)) {
            PrintReport(message, size, options);
            ++printed;
        }
    }
    return 0;
}
