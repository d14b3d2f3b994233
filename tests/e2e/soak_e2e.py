#!/usr/bin/env python3
"""A soak of the server under Wine: 20 loopback clients' steady load, SntpQuery every 10 s, and a second
installation as its client on the real schedule, through a relay on 127.0.0.99. Both services' memory,
threads and descriptors, sampled every 30 s, may not grow; every query succeeds, the client makes its
first exchange alone and is answered, no trouble is reported. SOAK_MINUTES sets how long (the test
run: 1.5, or up to the client's exchange); scripts/soak.sh runs 30."""

import os, socket, time

import winerig
from winerig import FIRST_EXCHANGE, RUNNING, linux_figures

MINUTES = float(os.environ.get("SOAK_MINUTES", "1.5"))


class SntpRelay(winerig.FakeSntpServer):
    """Passes requests from 127.0.0.99:123 to the server on 127.0.0.1:123 and back, recording (monotonic
    time, request, answer or None). A client must name an address not this host's to be one, and
    the server answers from 127.0.0.1 whatever address it was asked at: hence the relay."""

    def handle(self, request, client):
        arrived = time.monotonic()
        answer = None
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as forward:
            try:
                forward.bind(("127.0.0.99", 0))
                forward.settimeout(2.0)
                forward.sendto(request, ("127.0.0.1", 123))
                answer = forward.recvfrom(512)[0]
                self.sock.sendto(answer, client)
            except OSError:
                pass  # recorded with no answer
        self.requests.append((arrived, request, answer))


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
        self.assertTrue(all(pids.values()), f"both services' processes found: {pids}")

        seconds = max(MINUTES * 60, client_started + FIRST_EXCHANGE[1] + 10 - time.monotonic())
        load = winerig.SteadyLoad(20, seconds + 60)
        self.addCleanup(load.stop)
        time.sleep(5)  # past the first requests, which map the server's pages
        samples = {name: [linux_figures(pid)] for name, pid in pids.items()}
        print(f"\nsoak: {seconds / 60:.1f} min; {samples}", flush=True)
        queries, failed, began = 0, [], time.monotonic()
        next_sample = began + 30
        while time.monotonic() - began < seconds:
            result = rig.wine(winerig.QUERY, "127.0.0.1", "-n", "1", "-t", "2000", timeout=60)
            queries += 1
            if result.returncode != 0 or " Ok " not in result.stdout:
                failed.append(result.stdout.strip())
            if time.monotonic() >= next_sample:
                for name, pid in pids.items():
                    samples[name].append(linux_figures(pid))
                print(f"soak: {time.monotonic() - began:5.0f} s {[s[-1] for s in samples.values()]}  load "
                      f"{load.answered}/{load.sent}  client exchanges {len(relay.requests)}", flush=True)
                next_sample += 30
            time.sleep(10)
        load.stop()
        end = {name: linux_figures(pid) for name, pid in pids.items()}
        exchanges = list(relay.requests)
        print(f"soak: end {end}; {queries} queries, {len(failed)} failed; load answered {load.answered} of "
              f"{load.sent}; client exchanges {[round(e[0] - client_started) for e in exchanges]} s after its start",
              flush=True)

        self.assertEqual(RUNNING, rig.state(), "the server still running")
        self.assertEqual(RUNNING, client.state(), "the client still running")
        self.assertEqual([], failed, "every query answered")
        self.assertGreater(load.answered, 0.99 * load.sent, "the load answered")
        for name, (start, *_) in samples.items():  # memory: Wine maps pages lazily, so a margin
            growth = f"{name}: {samples[name]} -> {end[name]}"
            self.assertLess(end[name]["rss_kb"] - start["rss_kb"], 4096, growth)
            self.assertLessEqual(end[name]["threads"], start["threads"], growth)
            self.assertLessEqual(end[name]["fds"], start["fds"] + 4, growth)
        self.assertEqual([], monitor.snapshot(), "no trouble from the server")
        self.assertEqual([], client_monitor.snapshot(), "no trouble from the client")
        # The client keeps its schedule (one exchange, the next a day later) and is satisfied.
        self.assertEqual(1, len(exchanges), exchanges)
        arrived, _, answer = exchanges[0]
        self.assertGreaterEqual(arrived - client_started, FIRST_EXCHANGE[0], "the first exchange after the start delay")
        self.assertLessEqual(arrived - client_started, FIRST_EXCHANGE[1], "the first exchange within the start delay")
        self.assertIsNotNone(answer, "the server answered the client")

if __name__ == "__main__":
    winerig.run_tests(__doc__)
