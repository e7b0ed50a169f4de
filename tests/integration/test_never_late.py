"""Whatever hangs, the report of the host comes in its interval: every hung thing at once, with an agent of its own."""

import fcntl
import itertools
import os
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from fake_server import CLIENT_LIBRARIES, KINDS, FakeServer, NameServer, line_of, silent
from harness import PID_FILE, Agent, Collector, FakeHost, through

INTERVAL = 2


def silent_servers(_):
    port = FakeServer(silent).port
    return CLIENT_LIBRARIES + "".join(line_of(kind, n, port) for kind in KINDS for n in range(4)), ()


def silent_engine(_):
    FakeServer(silent, path=Path("/run/docker.sock"))
    return "".join(line_of("redis", f"c{n}", 6379, f"[c{n}]") for n in range(12)), ()


def silent_name_server(_):
    NameServer("127.0.0.5")
    return "domain c.test.example\nnameserver 127.0.0.5\n", ()


def silent_resolver(path):
    NameServer("127.0.0.6")
    (path / "resolv.conf").write_text("nameserver 127.0.0.6\n")
    mount = f'mount --bind {path}/resolv.conf /etc/resolv.conf && exec "$@"'
    return "domain c.test.example\n", ["unshare", "-m", *through(mount)]


def hung_mount(path):
    """A FUSE filesystem whose requests nobody reads."""
    host = FakeHost(path)
    (path / "mnt").mkdir()
    host.write(mounts=f"/dev/sdz {path}/mnt fuseblk rw 0 0\n")
    device = os.open("/dev/fuse", os.O_RDWR)
    os.set_inheritable(device, True)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0"
    return "", host.command(f"mount -i -t fuse -o {options} /dev/sdz {path}/mnt")


SCENES = [silent_servers, silent_engine, silent_name_server, silent_resolver, hung_mount]


def watch(scene, number, path, redis):
    """Runs an agent in the scene; returns its reports."""
    path.mkdir()
    lines, command = scene(path)
    lines += line_of("redis", "living", redis.port) + f"id {100 * (number + 1)}\ninterval {INTERVAL}\n"
    with Collector() as collector, Agent(path, collector.config(lines), command=command, close_fds=False) as agent:
        reports = collector.reports(8)
        time.sleep(INTERVAL - 0.8)  # into the waits of the next cycle
        status, _ = agent.stop(seconds=5)
        assert status == 0, agent.text
    return reports


def test_reports_come_in_their_interval_whatever_hangs(tmp_path, redis):
    with ThreadPoolExecutor(len(SCENES)) as pool:
        runs = {scene.__name__: pool.submit(watch, scene, number, tmp_path / str(number), redis)
                for number, scene in enumerate(SCENES)}
    for name, run in runs.items():
        # A busy machine may cost one.
        times = [report["time"] for report in run.result()]
        intervals = [after - before for before, after in itertools.pairwise(times)]
        assert sum(seconds != INTERVAL for seconds in intervals) <= 2, (name, times)
        found = ["living" in report["redises"] for report in run.result()]
        assert found[3:].count(False) <= 1, (name, found)
    PID_FILE.unlink(missing_ok=True)  # agents that end together may each leave it to the other


def test_a_reader_that_stalls_stops_nothing(tmp_path, redis):
    out, into = os.pipe()
    fcntl.fcntl(into, fcntl.F_SETPIPE_SZ, 4096)
    with Collector() as collector, Agent(
            tmp_path, collector.config(f"redis_living u:@127.0.0.1:{redis.port}\n"), "--debug", pass_fds=[into],
            command=through(f'exec "$@" >&{into} 2>&1 {into}>&-')):
        os.close(into)
        collector.reports(5)
        text, end = b"", time.monotonic() + 10
        while b"lines are missing here" not in text and time.monotonic() < end:
            text += os.read(out, 65536)
        assert b"lines are missing here: they were not read in time)\n" in text
    os.close(out)
