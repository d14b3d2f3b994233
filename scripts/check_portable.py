"""No portable file (not *_win32 or *_posix) includes a platform header or branches on the platform,
and only the runtime's choke points read a clock, sleep or draw a random number. Exit 1 and one line
per finding."""

import os, re, subprocess, sys

SERVICE_FOLDERS = ["runtime", "net", "trouble", "config", "sntp", "service"]
CHOKE_POINTS = {"runtime/runtime.cpp", "runtime/runtime_win32.cpp", "runtime/runtime_posix.cpp"}
PLATFORM = re.compile(
    r"#\s*include\s*<(windows|winsock2|ws2tcpip|iphlpapi|mswsock|tlhelp32|winternl|process|unistd|pthread)\.h>"
    r"|#\s*(if|ifdef|ifndef|elif)\b.*\b(_WIN32|_WIN64|__linux__|__unix__|_MSC_VER|__MINGW\w*)")
TIME_CALL = re.compile(
    r"\b(GetTickCount(64)?|Sleep|SleepEx|_time64|time|GetSystemTime(AsFileTime|PreciseAsFileTime)?|SetSystemTime|"
    r"clock_gettime|clock_settime|nanosleep|usleep|sleep|srand|rand|gettimeofday|timeGetTime|"
    r"QueryPerformanceCounter)\s*\(|std::this_thread::sleep_(for|until)|std::chrono::(system|steady|high_resolution)_clock")


def findings_in(root, folders, rule, skip):
    listed = subprocess.run(["git", "-C", root, "ls-files", *folders], capture_output=True, text=True, check=True)
    for path in listed.stdout.split():
        if path.endswith((".cpp", ".h")) and not skip(path):
            with open(os.path.join(root, path), errors="replace") as source:
                for number, line in enumerate(source, 1):
                    if rule(line):
                        yield f"{path}:{number}: {line.strip()}"


def code_of(line):
    """The line without its comment and string literals."""
    return re.sub(r'"(\\.|[^"\\])*"', '""', line).split("//", 1)[0]


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
    findings = [f"platform code in a portable file: {f}" for f in findings_in(
        root, SERVICE_FOLDERS + ["tools"], PLATFORM.search, lambda path: re.search(r"_(win32|posix)\.(cpp|h)$", path))]
    findings += [f"clock, sleep or random outside the runtime: {f}" for f in findings_in(
        root, SERVICE_FOLDERS, lambda line: TIME_CALL.search(code_of(line)), CHOKE_POINTS.__contains__)]
    print("".join(finding + "\n" for finding in findings) + f"portable layering: {len(findings)} finding(s)")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
