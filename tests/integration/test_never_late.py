"""Whatever hangs, the report of the host comes in its interval: every hung thing at once, with an agent of its own."""

import fcntl
import os
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from fake_server import FakeServer, NameServer, silent
from harness import PID_FILE, Agent, Collector, FakeHost, template, through

INTERVAL = 2
SOCKET = Path("/run/docker.sock")


def silent_servers(_):
    peer = FakeServer(silent)
    return "".join(f"redis_dead{n} u:@127.0.0.1:{peer.port}\n" for n in range(15)), ()


def one_of_every_kind(_):
    lines = template("faulty_peers.conf", address=f"127.0.0.1:{FakeServer(silent).port}", good="127.0.0.1:1")
    return "".join(line for line in lines.splitlines(True) if "_to " not in line), ()


def silent_engine(_):
    FakeServer(silent, path=SOCKET)
    return "".join(f"redis_c{n} u:@[c{n}]:6379\n" for n in range(12)), ()


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


SCENES = [silent_servers, one_of_every_kind, silent_engine, silent_name_server, silent_resolver, hung_mount]


def watch(scene, number, path, redis):
    """Runs an agent in the scene; returns the times and reports, and how long a stop took."""
    path.mkdir()
    lines, command = scene(path)
    lines += f"redis_living u:@127.0.0.1:{redis.port}\nid {100 * (number + 1)}\ninterval {INTERVAL}\n"
    with Collector() as collector, Agent(
            path, collector.config(lines), command=command, close_fds=False) as agent:
        reports = [(collector.report(3 * INTERVAL), time.monotonic()) for _ in range(8)]
        time.sleep(INTERVAL - 0.8)  # into the waits of the next cycle
        status, seconds = agent.stop(seconds=15)
        assert status == 0, agent.text
    return reports, seconds


def test_reports_come_in_their_interval_whatever_hangs(tmp_path, redis):
    with ThreadPoolExecutor(len(SCENES)) as pool:
        runs = {scene.__name__: pool.submit(watch, scene, number, tmp_path / str(number), redis)
                for number, scene in enumerate(SCENES)}
    for name, run in runs.items():
        reports, seconds = run.result()
        late = [moment - INTERVAL * place for place, (_, moment) in enumerate(reports)]
        assert max(late) - min(late) < 1.5, (name, late)
        found = ["living" in report["redises"] for report, _ in reports]
        assert all(found[3:]), (name, found)
        assert seconds < 3, name
    SOCKET.unlink()
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
