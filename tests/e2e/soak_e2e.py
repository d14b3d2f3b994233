#!/usr/bin/env python3
"""The server under Wine with steady load, SntpQuery every 10 s and a second installation as its
client; both services' memory, threads and descriptors at the start and the end. SOAK_MINUTES sets
how long (at least until the client's exchange); scripts/soak.sh runs 30."""

import contextlib, os, socket, time

import winerig
from winerig import FIRST_EXCHANGE, linux_figures

MINUTES = float(os.environ.get("SOAK_MINUTES", "1.5"))


class SntpRelay(winerig.FakeSntpServer):
    """Passes requests from 127.0.0.99:123 to 127.0.0.1:123 and back: a client must name an address not
    this host's, and the server answers from 127.0.0.1 whatever address it was asked at."""

    def handle(self, request, client):
        self.requests.append(time.monotonic())
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as forward, contextlib.suppress(OSError):
            forward.bind(("127.0.0.99", 0))
            forward.settimeout(2.0)
            forward.sendto(request, ("127.0.0.1", 123))
            self.sock.sendto(forward.recv(512), client)


class ServiceSoak(winerig.RigTestCase):
    prefix_name = "soak-prefix"

    def test_steady_load_leaves_memory_threads_and_handles_flat(self):
        rig = self.rig
        rig.write_setting("127.0.0.1")  # this host: the server, never restarted by the re-check
        monitor = self.monitor()
        self.install_running()
        winerig.wait_for_server("127.0.0.1", 20)
        relay = SntpRelay("127.0.0.99", reuse=True)  # beside the server's reusing socket
        self.addCleanup(relay.close)
        client = winerig.Rig(rig.build, os.path.join(rig.build, "soak-client-prefix"))
        self.addCleanup(client.shutdown)
        self.addCleanup(client.remove_service)
        client.boot()
        client.write_setting("127.0.0.99")
        client_monitor = self.monitor(client)
        client_started = self.install_running(client)
        pids = {"server": winerig.service_pid(rig), "client": winerig.service_pid(client)}

        seconds = max(MINUTES * 60, client_started + FIRST_EXCHANGE[1] + 10 - time.monotonic())
        load = winerig.SteadyLoad(20, seconds + 60)
        self.addCleanup(load.stop)
        time.sleep(5)  # past the first requests, which map the server's pages
        start = {name: linux_figures(pid) for name, pid in pids.items()}
        print(f"\nsoak: {seconds / 60:.1f} min; {start}", flush=True)
        queries = 0
        failed = []
        began = time.monotonic()
        while time.monotonic() - began < seconds:
            result = rig.wine(winerig.QUERY, "127.0.0.1", "-n", "1", "-t", "2000")
            queries += 1
            if result.returncode != 0 or " Ok " not in result.stdout:
                failed.append(result.stdout.strip())
            time.sleep(10)
        load.stop()
        end = {name: linux_figures(pid) for name, pid in pids.items()}
        exchanges = [round(arrived - client_started) for arrived in relay.requests]
        print(f"soak: end {end}; {queries} queries, {len(failed)} failed; load answered {load.answered} of "
              f"{load.sent}; client exchanges {exchanges} s after its start", flush=True)
        # Both processes still there: their figures were read at the end.
        self.assertEqual([], failed, "every query answered")
        for name in pids:  # memory: Wine maps pages lazily, so a margin
            self.assertLess(end[name]["rss_kb"] - start[name]["rss_kb"], 4096, name)
            self.assertLessEqual(end[name]["threads"], start[name]["threads"], name)
            self.assertLessEqual(end[name]["fds"], start[name]["fds"] + 4, name)
        self.assertEqual([], monitor.snapshot(), "no trouble from the server")
        self.assertEqual([], client_monitor.snapshot(), "no trouble from the client")
        self.assertEqual(1, len(exchanges), "one exchange, the next a day later")


if __name__ == "__main__":
    winerig.run_tests(__doc__)
