"""The client's time error as Wine sees it: against a server 5 s ahead, Wine refuses each setting
and logs "difference N ms", N - 5000 the error; "command 128" restarts the client for the next."""

import argparse, os, statistics, sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import winerig  # noqa: E402

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("--build", required=True)
parser.add_argument("--samples", type=int, default=5)
arguments = parser.parse_args()
rig = winerig.Rig(arguments.build, os.path.join(os.path.abspath(arguments.build), "clock-prefix"))
rig.boot()
server = winerig.FakeSntpServer("127.0.0.2", ahead=5.0)
errors = []
try:
    rig.write_setting("127.0.0.2")
    if rig.norvik("install")[1] != "Service successfully added...":
        raise SystemExit("install failed")
    for sample in range(arguments.samples):
        settings = winerig.wait_until(lambda: rig.clock_settings()[sample:], 130, "a clock setting", 0.5)
        errors.append(settings[0] - 5000)
        print(f"sample {sample + 1}: set {errors[-1]:+d} ms from the server's time", flush=True)
        rig.norvik("command", "128")
finally:
    server.close()
    rig.remove_service()
    rig.shutdown()
magnitudes = [abs(error) for error in errors]
print(f"clock settings: {len(errors)}; |error| median {statistics.median(magnitudes)} ms, max {max(magnitudes)} ms "
      "(Wine reports whole milliseconds; SetSystemTime keeps whole milliseconds)")
