"""The end-to-end rig: a Wine prefix laid out as an installation, Wine's service manager, the trouble
monitor as the workstation, SNTP peers on loopback."""

import argparse, contextlib, glob, json, os, re, shutil, socket, struct, subprocess, sys, tempfile, threading, time, unittest
from pathlib import Path

WINE, WINESERVER = "/usr/lib/wine/wine64", "/usr/lib/wine/wineserver"
SERVICE = "Norvik Time Service"
TIME_DIR, SYSTEM_DIR = "C:\\Norvik\\Applications\\Time", "C:\\Norvik\\Applications\\System"
PROGRAMS = ("NorvikTime.exe", "TroubleMonitor.exe", "SntpQuery.exe", "StandInService.exe", "ProcessProbe.exe")
EXE, MONITOR, QUERY, STAND_IN, PROBE = (f"{TIME_DIR}\\{name}" for name in PROGRAMS)
STOPPED, RUNNING, NOT_INSTALLED = 1, 4, "not installed"
PERFORMED = (0, "Service command performed...")
FIRST_EXCHANGE = (59 - 1, 118 + 6)  # s from the client's start: 59..118, widened for Wine's start
NTP_UNIX_OFFSET = 2208988800
SO_TIMESTAMPNS = 35  # Linux: the kernel's receive time of each datagram
SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
# Unpacked by scripts/setup.sh: the installed package would replace the host's time service.
CHRONYD = os.path.join(SOURCE, "build", "chrony", "usr", "sbin", "chronyd")
# No command port, no socket under /run.
CHRONY_QUIET = ("cmdport 0", "bindcmdaddress /")
QUIET = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


def wait_until(check, timeout, what, every=0.2):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if value := check():
            return value
        time.sleep(every)
    raise AssertionError(f"{what() if callable(what) else what}: not within {timeout} s")


class Rig:
    def __init__(self, build, prefix):
        self.build = os.path.abspath(build)
        self.prefix = os.path.abspath(prefix)
        self.persistent = None
        self.env = dict(os.environ, WINEPREFIX=self.prefix, WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree,mshtml=")
        self.setting = self.host_path("C:\\Norvik\\Data\\System\\Vantor.dat")

    def host_path(self, windows_path):
        return os.path.join(self.prefix, "drive_c", *windows_path[3:].split("\\"))

    def wineserver(self, flag):
        subprocess.run([WINESERVER, flag], env=self.env, capture_output=True, timeout=60)

    def boot(self, fresh=True, programs=PROGRAMS):
        # A persistent wineserver: a service dies a few seconds after its prefix's last ordinary process.
        if fresh and os.path.isdir(self.prefix):
            self.wineserver("-k")
            self.remove_server_dir()
            shutil.rmtree(self.prefix)
        if not os.path.isdir(os.path.join(self.prefix, "drive_c")):
            # No pipes, which what wineboot leaves running would inherit; the prefix comes down and up
            # again, as services its manager started cannot reach that manager again.
            subprocess.run([WINE, "wineboot", "-i"], env=self.env, timeout=300, **QUIET)
            self.wineserver("-k")
            self.wineserver("-w")
        self.persistent = subprocess.Popen([WINESERVER, "-p", "-f"], env=self.env, **QUIET)
        time.sleep(1)
        # The manager's first caller starts it; its services inherit the caller's standard error, where
        # Wine's clock channel logs a refused setting's difference.
        self.manager_log = os.path.join(self.prefix, "manager-stderr.log")
        with open(self.manager_log, "ab") as log:
            subprocess.run([WINE, "sc", "query", "eventlog"], env=dict(self.env, WINEDEBUG="-all,err+sync"),
                           stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=log, timeout=120)
        os.makedirs(self.host_path(TIME_DIR), exist_ok=True)
        os.makedirs(self.host_path(SYSTEM_DIR), exist_ok=True)
        for name in programs:
            shutil.copy(os.path.join(self.build, "tests/service" if name in PROGRAMS[3:] else ".", name),
                        self.host_path(TIME_DIR))
        for library in glob.glob(os.path.join(self.build, "config", "res[0-9]*.dll")):
            shutil.copy(library, self.host_path(SYSTEM_DIR))
        os.makedirs(os.path.dirname(self.setting), exist_ok=True)
        self.write_setting(None)

    def clock_settings(self):
        """ms from this host's clock to the time asked for, each setting Wine refused since boot."""
        text = Path(self.manager_log).read_text(errors="replace")
        return [int(n) for n in re.findall(r"NtSetSystemTime not allowed: difference (-?\d+) ms", text)]

    def shutdown(self):
        self.wineserver("-k")
        if self.persistent is not None:
            self.persistent.kill()
            self.persistent.wait()
        self.persistent = None
        self.remove_server_dir()

    def remove_server_dir(self):
        """Wine leaves a prefix's server directory, named in the prefix, in /tmp once the server has gone."""
        with contextlib.suppress(OSError):
            name = Path(self.prefix, "wineserver").read_text().strip()
            if re.fullmatch(r"wine-\w+", name):
                shutil.rmtree(os.path.join("/tmp", name))

    def wine(self, *args, timeout=120):
        # Output through files: a long-lived process it starts (the manager, a service) would
        # inherit a pipe and keep it from ever reaching its end.
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            code = subprocess.run([WINE, *args], env=self.env, stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                  timeout=timeout).returncode
            out.seek(0)
            err.seek(0)
            return subprocess.CompletedProcess(args, code, out.read().decode("utf-8", "replace").replace("\r\n", "\n"),
                                               err.read().decode("utf-8", "replace"))

    def norvik(self, *args):
        result = self.wine(EXE, *args)
        return result.returncode, result.stdout

    def sc(self, *args):
        return self.wine("sc", *args, timeout=60)

    def state(self, name=SERVICE):
        for _ in range(2):  # under load a reply can come back cut short: not installed only if twice so
            match = re.search(r"STATE\s*:\s*(\d+)", self.sc("query", name).stdout)
            if match:
                return int(match.group(1))
        return NOT_INSTALLED

    def wait_state(self, wanted, name=SERVICE, timeout=30.0):
        wait_until(lambda: self.state(name) == wanted, timeout, f"{name}: state {wanted}", every=0.3)

    def remove_service(self, name=SERVICE):
        if self.state(name) != NOT_INSTALLED:
            self.sc("stop", name)
            self.sc("delete", name)
            self.wait_state(NOT_INSTALLED, name)

    def write_setting(self, value):
        if value is None:
            Path(self.setting).unlink(missing_ok=True)
        else:
            Path(self.setting).write_text(f"# Norvik platform settings\nSNTP_IP {value}\n")


class Monitor:
    def __init__(self, rig):
        self.output = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([WINE, MONITOR, "--json"], env=rig.env, stdin=subprocess.DEVNULL,
                                        stdout=self.output, stderr=subprocess.STDOUT)
        wait_until(lambda: "listening" in self.text(), 30, "the trouble monitor listening")

    def text(self):
        self.output.seek(0)
        return self.output.read()

    def snapshot(self):
        return [json.loads(line) for line in self.text().splitlines(keepends=True)
                if line.startswith("{") and line.endswith("\n")]

    def wait_for(self, predicate, timeout):
        return wait_until(lambda: predicate(self.snapshot()) and self.snapshot(), timeout,
                          lambda: f"reports {self.snapshot()}")

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.output.close()


def wait_for_server(host, timeout):
    def answers():
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.settimeout(0.5)
            sock.sendto(bytes([0x1B]) + bytes(47), (host, 123))
            with contextlib.suppress(socket.timeout):
                return sock.recv(512)
    return wait_until(answers, timeout, f"an SNTP answer from {host}:123", 0)


class FakeSntpServer(threading.Thread):
    """Stratum 2 on address:123, this host's clock plus ahead seconds; records each request (monotonic
    time, bytes) and each answer's lateness from the kernel's arrival time."""

    def __init__(self, address, ahead=0.0, reuse=False):
        super().__init__(daemon=True)
        self.ahead = ahead
        self.requests = []
        self.lateness = []
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, int(reuse))
        self.sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.sock.bind((address, 123))
        self.sock.settimeout(0.2)
        self.start()

    def run(self):
        while True:
            try:
                request, ancillary, _, sender = self.sock.recvmsg(512, socket.CMSG_SPACE(16))
            except socket.timeout:
                continue
            except OSError:
                return
            stamps = [struct.unpack("qq", data[:16]) for _, kind, data in ancillary if kind == SO_TIMESTAMPNS]
            self.arrival = stamps[0][0] + stamps[0][1] / 1e9 if stamps else time.time()
            self.handle(request, sender)

    def close(self):
        self.sock.close()
        self.join(timeout=5)

    def handle(self, request, peer):
        self.requests.append((time.monotonic(), request))
        if len(request) == 48:
            stamped = time.time()
            self.lateness.append(stamped - self.arrival)
            at = stamped + self.ahead + NTP_UNIX_OFFSET
            receive = (int(at) << 32) | int((at - int(at)) * 2**32)
            self.sock.sendto(bytes([0x1C, 2, 0, 0xEC]) + bytes(8) + socket.inet_aton("127.0.0.1") + bytes(8)
                             + request[40:48] + struct.pack(">QQ", receive, receive), peer)


def service_pid(rig):
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if b"NorvikTime.exe" in Path(f"/proc/{pid}/cmdline").read_bytes() and \
                    f"WINEPREFIX={rig.prefix}\0".encode() in Path(f"/proc/{pid}/environ").read_bytes():
                return int(pid)
        except OSError:
            pass


def linux_figures(pid):
    rss = re.search(r"^VmRSS:\s*(\d+)", Path(f"/proc/{pid}/status").read_text(), re.M).group(1)
    return {"rss_kb": int(rss), "threads": len(os.listdir(f"/proc/{pid}/task")),
            "fds": len(os.listdir(f"/proc/{pid}/fd"))}


class SteadyLoad(threading.Thread):
    """Clients on 127.0.0.2 and up asking 127.0.0.1:123 in turn."""

    def __init__(self, clients, seconds):
        super().__init__(daemon=True)
        self.sent = 0
        self.answered = 0
        self.deadline = time.monotonic() + seconds
        self.socks = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(clients)]
        for host, sock in enumerate(self.socks, start=2):
            sock.bind((f"127.0.0.{host}", 0))
            sock.settimeout(0.5)
        self.start()

    def run(self):
        while time.monotonic() < self.deadline:
            for sock in self.socks:
                sock.sendto(bytes([0x1B]) + bytes(47), ("127.0.0.1", 123))
                self.sent += 1
                with contextlib.suppress(socket.timeout):
                    self.answered += len(sock.recv(512)) == 48
        for sock in self.socks:
            sock.close()

    def stop(self):
        self.deadline = 0
        self.join(timeout=5)


class RigTestCase(unittest.TestCase):
    """One prefix per class; each test starts and ends with no service and no Vantor.dat."""

    build = None
    prefix_name = "service-prefix"

    @classmethod
    def setUpClass(cls):
        cls.rig = Rig(cls.build, os.path.join(cls.build, cls.prefix_name))
        cls.rig.boot()
        cls.addClassCleanup(cls.rig.shutdown)

    def setUp(self):
        self.rig.remove_service()
        self.rig.write_setting(None)
        self.addCleanup(self.rig.remove_service)

    def monitor(self, rig=None):
        monitor = Monitor(rig or self.rig)
        self.addCleanup(monitor.stop)
        return monitor

    def install_running(self, rig=None):
        rig = rig or self.rig
        installed = rig.norvik("install")
        self.assertEqual((0, "Service successfully added..."), installed)
        rig.wait_state(RUNNING)
        return time.monotonic()


def run_tests(description):
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build", required=True)
    arguments, rest = parser.parse_known_args()
    RigTestCase.build = os.path.abspath(arguments.build)
    unittest.main(module="__main__", argv=[sys.argv[0], "-v", *rest])
