"""A Wine prefix laid out as a Norvik installation, with the service driven through Wine's real
service control manager, the trouble monitor standing in for the workstation application, and
small SNTP peers on loopback addresses. Used by the end-to-end tests and by scripts/run.sh.

Layout inside the prefix (drive C):
    C:\\Norvik\\Applications\\Time\\NorvikTime.exe      the service and its tools
    C:\\Norvik\\Applications\\System\\res1033.dll       English message texts
    C:\\Norvik\\Data\\System\\Vantor.dat                the setting SNTP_IP (absent: server role)
"""

import json
import os
import queue
import re
import shutil
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest

WINE = "/usr/lib/wine/wine64"
WINESERVER = "/usr/lib/wine/wineserver"
SERVICE = "Norvik Time Service"
TIME_DIR = "C:\\Norvik\\Applications\\Time"
SYSTEM_DIR = "C:\\Norvik\\Applications\\System"
DATA_DIR = "C:\\Norvik\\Data\\System"
EXE = TIME_DIR + "\\NorvikTime.exe"
MONITOR = TIME_DIR + "\\TroubleMonitor.exe"
STAND_IN = TIME_DIR + "\\StandInService.exe"
PROBE = TIME_DIR + "\\ProcessProbe.exe"

STOPPED, START_PENDING, STOP_PENDING, RUNNING = 1, 2, 3, 4
SO_TIMESTAMPNS = 35  # Linux: the kernel's receive time of each datagram
NOT_INSTALLED = "not installed"

NTP_UNIX_OFFSET = 2208988800

TROUBLE_TEXTS = {
    1: "You may need to restart the PC due to an unrecoverable socket error.",
    2: "The time server did not respond.  Contact your network administrator.",
    3: "Remote SNTP Server is not synchronized.  Contact your network administrator.",
    4: "Remote SNTP Server sent an invalid response.",
    5: "Remote SNTP Server is an incompatible version.",
    6: "Remote SNTP Server used an inconsistent address.",
    7: "Remote SNTP Server unknown error.",
    8: "Local SNTP Server could not start.  Verify the Windows Time Service is disabled.",
    9: "Local SNTP Client not started",
    10: "Local SNTP Client: Cannot resolve host name",
}


def report_text(code):
    """The text as the workstation receives it: cut at 81 UTF-16 units."""
    return TROUBLE_TEXTS[code][:81]


# Where the Windows build puts each file that a rig installs. Test scratch directories and the
# prefixes under the build hold copies, some stale or damaged on purpose, so nothing is searched.
BUILD_FILES = {
    "NorvikTime.exe": ".",
    "TroubleMonitor.exe": ".",
    "SntpQuery.exe": ".",
    "StandInService.exe": os.path.join("tests", "service"),
    "ProcessProbe.exe": os.path.join("tests", "service"),
    "res1033.dll": "config",
}


def find_file(top, name):
    path = os.path.join(top, BUILD_FILES[name], name)
    if not os.path.isfile(path):
        raise FileNotFoundError(path)
    return path


class Rig:
    def __init__(self, build, prefix):
        self.build = os.path.abspath(build)
        self.prefix = os.path.abspath(prefix)
        self.env = dict(os.environ, WINEPREFIX=self.prefix, WINEDEBUG="-all",
                        WINEDLLOVERRIDES="mscoree,mshtml=")
        self.persistent = None

    def host_path(self, windows_path):
        return os.path.join(self.prefix, "drive_c", *windows_path[3:].split("\\"))

    def boot(self, fresh=True,
             programs=("NorvikTime.exe", "TroubleMonitor.exe", "StandInService.exe", "ProcessProbe.exe")):
        """Boots the prefix once, keeps its wineserver alive (a service dies a few seconds after
        the last ordinary process of its prefix otherwise) and installs the programs and the
        English texts."""
        if fresh and os.path.isdir(self.prefix):
            subprocess.run([WINESERVER, "-k"], env=self.env, capture_output=True)
            shutil.rmtree(self.prefix)
        if not os.path.isdir(os.path.join(self.prefix, "drive_c")):
            # No pipes: processes that wineboot leaves running would inherit them.
            subprocess.run([WINE, "wineboot", "-i"], env=self.env, stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=300)
            # Services started by the manager that wineboot left behind cannot reach it (their
            # dispatcher call times out), so the prefix is brought down and started again.
            subprocess.run([WINESERVER, "-k"], env=self.env, capture_output=True)
            subprocess.run([WINESERVER, "-w"], env=self.env, capture_output=True, timeout=60)
        self.persistent = subprocess.Popen([WINESERVER, "-p", "-f"], env=self.env,
                                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(1)
        self.start_manager()
        for directory in (TIME_DIR, SYSTEM_DIR, DATA_DIR):
            os.makedirs(self.host_path(directory), exist_ok=True)
        for name in programs:
            shutil.copy(find_file(self.build, name), self.host_path(TIME_DIR + "\\" + name))
        shutil.copy(find_file(self.build, "res1033.dll"), self.host_path(SYSTEM_DIR + "\\res1033.dll"))
        self.write_setting(None)

    def start_manager(self):
        """The first process of the prefix that opens the service control manager starts it, and
        the manager's services inherit its environment and standard error. Wine's clock channel
        is switched on there alone: a refused SetSystemTime then says how far from this host's
        clock the service asked to set it ("difference N ms"), which is how the tests see the
        time that the service sets."""
        self.manager_log = os.path.join(self.prefix, "manager-stderr.log")
        environment = dict(self.env, WINEDEBUG="-all,err+sync")
        with open(self.manager_log, "ab") as log:
            subprocess.run([WINE, "sc", "query", "eventlog"], env=environment, stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=log, timeout=120)

    def clock_settings(self):
        """Every clock setting that Wine refused since the prefix booted, as the difference in
        milliseconds between the time asked for and this host's clock at that moment."""
        try:
            with open(self.manager_log, errors="replace") as log:
                text = log.read()
        except OSError:
            return []
        return [int(n) for n in re.findall(r"NtSetSystemTime not allowed: difference (-?\d+) ms", text)]

    def probe(self):
        """(threads, handles) of the running service as Windows counts them, or None."""
        result = self.wine(PROBE, "NorvikTime.exe", timeout=60)
        match = re.search(r"threads (\d+) handles (\d+)", result.stdout)
        return (int(match.group(1)), int(match.group(2))) if match else None

    def shutdown(self):
        subprocess.run([WINESERVER, "-k"], env=self.env, capture_output=True)
        if self.persistent is not None:
            try:
                self.persistent.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.persistent.kill()
            self.persistent = None

    def wine(self, *args, timeout=120):
        # Output through files, not pipes: a Wine process may start a long-lived one (the service
        # manager, a service) that inherits the handles, and a pipe would then never reach its end.
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            process = subprocess.Popen([WINE, *args], env=self.env, stdin=subprocess.DEVNULL,
                                       stdout=out, stderr=err)
            try:
                code = process.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
                raise
            out.seek(0)
            err.seek(0)
            return subprocess.CompletedProcess(
                [WINE, *args], code, out.read().decode("utf-8", "replace").replace("\r\n", "\n"),
                err.read().decode("utf-8", "replace"))

    def norvik(self, *args, timeout=120):
        """Runs a command word; returns (exit code, standard output)."""
        result = self.wine(EXE, *args, timeout=timeout)
        return result.returncode, result.stdout

    def sc(self, *args):
        return self.wine("sc", *args, timeout=60)

    def state(self, name=SERVICE):
        result = self.sc("query", name)
        match = re.search(r"STATE\s*:\s*(\d+)", result.stdout)
        return int(match.group(1)) if match else NOT_INSTALLED

    def wait_state(self, wanted, name=SERVICE, timeout=30.0):
        deadline = time.monotonic() + timeout
        state = None
        while time.monotonic() < deadline:
            state = self.state(name)
            if state == wanted:
                return True
            time.sleep(0.3)
        raise AssertionError(f"{name}: state {state}, wanted {wanted} within {timeout}s")

    def remove_service(self):
        """Leaves no service behind, whatever state it was in."""
        if self.state() == NOT_INSTALLED:
            return
        self.sc("stop", SERVICE)
        self.sc("delete", SERVICE)
        self.wait_state(NOT_INSTALLED, timeout=30)

    def write_setting(self, value):
        """Vantor.dat with SNTP_IP = value; None removes the file."""
        path = self.host_path(DATA_DIR + "\\Vantor.dat")
        if value is None:
            if os.path.exists(path):
                os.remove(path)
            return
        with open(path, "w") as file:
            file.write("# Norvik platform settings\n")
            file.write(f"SNTP_IP {value}\n")

    def registry_dword(self, key, value):
        result = self.wine("reg", "query", key, "/v", value, timeout=60)
        match = re.search(r"REG_DWORD\s+0x([0-9a-fA-F]+)", result.stdout)
        return int(match.group(1), 16) if match else None

    def set_registry_dword(self, key, value, data):
        self.wine("reg", "add", key, "/v", value, "/t", "REG_DWORD", "/d", str(data), "/f", timeout=60)


class Monitor:
    """TroubleMonitor.exe --json in the rig's prefix; collects every report it prints."""

    def __init__(self, rig):
        self.process = subprocess.Popen([WINE, MONITOR, "--json"], env=rig.env, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        self.reports = []
        self.lock = threading.Lock()
        self.ready = threading.Event()
        threading.Thread(target=self._read, daemon=True).start()
        threading.Thread(target=self._watch_ready, daemon=True).start()
        if not self.ready.wait(30):
            raise AssertionError("the trouble monitor did not start")

    def _watch_ready(self):
        for line in self.process.stderr:
            if "listening" in line:
                self.ready.set()

    def _read(self):
        for line in self.process.stdout:
            line = line.strip()
            if line.startswith("{"):
                with self.lock:
                    self.reports.append(json.loads(line))

    def snapshot(self):
        with self.lock:
            return list(self.reports)

    def wait_for(self, predicate, timeout):
        """Waits until predicate(reports) holds; returns the reports."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            reports = self.snapshot()
            if predicate(reports):
                return reports
            time.sleep(0.2)
        raise AssertionError(f"reports never matched within {timeout}s: {self.snapshot()}")

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()


def ntp_now(ahead=0.0, at=None):
    now = (time.time() if at is None else at) + ahead
    seconds = int(now) + NTP_UNIX_OFFSET
    return (seconds << 32) | int((now - int(now)) * 2**32)


def sntp_request(host, first_byte=0x1B, length=48, poll=6, timeout=1.0, port=123):
    """Sends one request; returns (answer bytes, our transmit stamp) or (None, stamp)."""
    request = bytearray(max(length, 48))
    request[0] = first_byte
    request[2] = poll
    stamp = ntp_now()
    struct.pack_into(">Q", request, 40, stamp)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.settimeout(timeout)
        sock.sendto(bytes(request[:length]), (host, port))
        try:
            answer, _ = sock.recvfrom(512)
            return answer, stamp
        except socket.timeout:
            return None, stamp


def wait_for_server(host, timeout):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        answer, _ = sntp_request(host, timeout=0.5)
        if answer is not None:
            return answer
    raise AssertionError(f"no SNTP server answered on {host}:123 within {timeout}s")


class _Port123Peer:
    """A UDP socket on address:123 and a thread that hands each datagram to handle(request,
    sender) until close()."""

    def __init__(self, address, reuse=False):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        if reuse:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        # The kernel's arrival time of each datagram, so that a peer knows how late it got to it.
        self.sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.arrival = 0.0
        self.sock.bind((address, 123))
        self.sock.settimeout(0.2)
        self.running = True
        self.thread = threading.Thread(target=self._loop, daemon=True)
        self.thread.start()

    def _loop(self):
        while self.running:
            try:
                request, ancillary, _, sender = self.sock.recvmsg(512, socket.CMSG_SPACE(16))
            except socket.timeout:
                continue
            except OSError:
                return
            self.arrival = time.time()
            for level, kind, data in ancillary:
                if level == socket.SOL_SOCKET and kind == SO_TIMESTAMPNS and len(data) >= 16:
                    seconds, nanoseconds = struct.unpack("qq", data[:16])
                    self.arrival = seconds + nanoseconds / 1e9
            self.handle(request, sender)

    def close(self):
        self.running = False
        self.thread.join(timeout=5)
        self.sock.close()


class FakeSntpServer(_Port123Peer):
    """A scripted SNTP server on a loopback address, port 123. Records every request; answers
    as a good version-3 stratum-2 server, as a version-4 one, or not at all; its clock is this
    host's plus ahead seconds."""

    def __init__(self, address, behaviour="good", ahead=0.0):
        self.address = address
        self.behaviour = behaviour
        self.ahead = ahead
        self.requests = []  # (monotonic time, bytes)
        # Per answer, seconds from the request's arrival to the answer's stamps: a client that
        # adds half the round trip is ahead of this server's clock by half of it.
        self.lateness = []
        super().__init__(address)

    def handle(self, request, peer):
        self.requests.append((time.monotonic(), request))
        if self.behaviour == "silent" or len(request) != 48:
            return
        answer = bytearray(48)
        answer[0] = 0x24 if self.behaviour == "version4" else 0x1C
        answer[1] = 2
        answer[3] = 0xEC
        answer[12:16] = socket.inet_aton("127.0.0.1")
        answer[24:32] = request[40:48]
        stamped = time.time()
        self.lateness.append(stamped - self.arrival)
        receive = ntp_now(self.ahead, stamped)
        struct.pack_into(">QQ", answer, 32, receive, receive)
        self.sock.sendto(bytes(answer), peer)


class SntpRelay(_Port123Peer):
    """Passes SNTP requests that arrive on address:123 to the server on upstream:123 and its
    answers back from address:123, recording each (monotonic time, request, answer or None).
    A service in the server role listens on every address of this host and answers from
    127.0.0.1, so a client of it on this host names the relay's address: another loopback
    address, which is not this host's and so makes that client a client."""

    def __init__(self, address, upstream, timeout=2.0):
        self.upstream = upstream
        self.exchanges = []
        self.lock = threading.Lock()
        self.forward = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.forward.bind((address, 0))
        self.forward.settimeout(timeout)
        # The server's wildcard socket on port 123 sets SO_REUSEADDR; so must this one.
        super().__init__(address, reuse=True)

    def handle(self, request, client):
        arrived = time.monotonic()
        answer = None
        try:
            self.forward.sendto(request, (self.upstream, 123))
            answer, _ = self.forward.recvfrom(512)
            self.sock.sendto(answer, client)
        except OSError:
            pass  # an unanswered request is recorded with no answer
        with self.lock:
            self.exchanges.append((arrived, request, answer))

    def snapshot(self):
        with self.lock:
            return list(self.exchanges)

    def close(self):
        super().close()
        self.forward.close()


def chrony_query(address, timeout=30):
    """Asks address:123 for the time with chrony as a version-3 client that never sets the
    clock. Returns (exit code, output)."""
    with tempfile.TemporaryDirectory(prefix="norvik-chrony-") as workdir:
        # chronyd gives up root for its own user, which must still remove its pid file here.
        os.chmod(workdir, 0o777)
        # Directives on the command line replace the configuration file.
        result = subprocess.run(["chronyd", "-Q", "-t", "10", f"pidfile {workdir}/chronyd.pid",
                                 "cmdport 0", f"server {address} iburst version 3"],
                                capture_output=True, text=True, timeout=timeout)
    return result.returncode, result.stdout + result.stderr


def service_pid(rig):
    """The Linux process of the running service in this rig's prefix, or None."""
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/cmdline", "rb") as file:
                command = file.read()
            with open(f"/proc/{entry}/environ", "rb") as file:
                environment = file.read()
        except OSError:
            continue
        if b"NorvikTime.exe" in command and b"WINEPREFIX=" + rig.prefix.encode() + b"\0" in environment:
            return int(entry)
    return None


def resident_kb(pid):
    with open(f"/proc/{pid}/status") as file:
        for line in file:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


class SteadyLoad:
    """Clients on 127.0.0.2 and up, each in turn sending one version-3 request to
    127.0.0.1:123 and waiting up to 0.5 s for its answer; until stopped, or at most seconds."""

    def __init__(self, clients, seconds):
        self.sent = self.answered = 0
        self.clients = clients
        self.stopping = threading.Event()
        self.deadline = time.monotonic() + seconds
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        clients = []
        for host in range(2, 2 + self.clients):
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            sock.bind((f"127.0.0.{host}", 0))
            sock.settimeout(0.5)
            clients.append(sock)
        try:
            while not self.stopping.is_set() and time.monotonic() < self.deadline:
                for sock in clients:
                    sock.sendto(bytes([0x1B]) + bytes(47), ("127.0.0.1", 123))
                    self.sent += 1
                    try:
                        if len(sock.recv(512)) == 48:
                            self.answered += 1
                    except socket.timeout:
                        pass
        finally:
            for sock in clients:
                sock.close()

    def stop(self):
        self.stopping.set()
        self.thread.join(timeout=5)


class RigTestCase(unittest.TestCase):
    """One booted prefix per test class; every test starts with no service installed and no
    Vantor.dat (the server role), and leaves the same behind."""

    build = None  # the Windows build directory, set by the script's main
    prefix_name = "service-prefix"
    rig = None

    @classmethod
    def setUpClass(cls):
        cls.rig = Rig(cls.build, os.path.join(cls.build, cls.prefix_name))
        cls.rig.boot(fresh=True)

    @classmethod
    def tearDownClass(cls):
        cls.rig.remove_service()
        cls.rig.shutdown()

    def setUp(self):
        self.rig.remove_service()
        self.rig.write_setting(None)
        self.cleanups = []

    def tearDown(self):
        for cleanup in reversed(self.cleanups):
            cleanup()
        self.rig.remove_service()

    def monitor(self):
        monitor = Monitor(self.rig)
        self.cleanups.append(monitor.stop)
        return monitor

    def start_server_role(self):
        """Installs the service with Vantor.dat naming this host (the server, never restarted
        by the minute's re-check) and waits for its answers; returns the trouble monitor."""
        self.rig.write_setting("127.0.0.1")
        monitor = self.monitor()
        self.install_running()
        wait_for_server("127.0.0.1", 20)
        return monitor

    def install_running(self):
        """Installs and starts the service; returns (and keeps) the moment it reported running."""
        code, output = self.rig.norvik("install")
        self.assertEqual((0, "Service successfully added..."), (code, output))
        self.rig.wait_state(RUNNING)
        self.running_since = time.monotonic()
        return self.running_since


def run_tests(description):
    """The main of an end-to-end script: --build <Windows build directory> [unittest arguments]."""
    import argparse
    import sys
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build", required=True)
    arguments, rest = parser.parse_known_args()
    RigTestCase.build = os.path.abspath(arguments.build)
    unittest.main(module="__main__", argv=[sys.argv[0], "-v", *rest])
