"""Whatever hangs, the report of the host comes in its interval: every hung thing at once, each with an agent of its own."""

import fcntl
import os
import socket
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack, contextmanager
from pathlib import Path

import pytest

from fake_server import FakeServer, silent
from real_servers import Redis, template
from tarn_host import BUILD, PID_FILE, Agent, Collector, FakeHost

INTERVAL = 2
REPORTS = 8
SOCKET = Path("/run/docker.sock")


@pytest.fixture(scope="module")
def redis():
    server = Redis()
    yield server
    server.close()


@contextmanager
def silent_servers(path, living):
    with FakeServer(silent) as peer:
        yield "".join(f"redis_dead{n} u:@127.0.0.1:{peer.port}\n" for n in range(15)) + living, ()


@contextmanager
def one_of_every_kind(path, living):
    with FakeServer(silent) as peer:
        lines = template("faulty_peers.conf", address=f"127.0.0.1:{peer.port}", good="127.0.0.1:1")
        yield "\n".join(line for line in lines.splitlines() if "_to " not in line) + "\n" + living, ()


@contextmanager
def silent_engine(path, living):
    with FakeServer(silent, path=SOCKET):
        yield "".join(f"redis_c{n} u:@[c{n}]:6379\n" for n in range(12)) + living, ()
    SOCKET.unlink()


@contextmanager
def silent_name_server(path, living):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("127.0.0.5", 53))
        yield "domain c.test.example\nnameserver 127.0.0.5\n" + living, ()


@contextmanager
def silent_resolver(path, living):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("127.0.0.6", 53))
        (path / "resolv.conf").write_text("nameserver 127.0.0.6\n")
        yield "domain c.test.example\n" + living, ["unshare", "-m", "sh", "-c",
                                                   f"mount --bind {path}/resolv.conf /etc/resolv.conf && exec \"$@\"", "sh"]


@contextmanager
def hung_mount(path, living):
    """A FUSE filesystem whose requests nobody reads."""
    host = FakeHost(path)
    (path / "mnt").mkdir()
    host.write(mounts=f"/dev/sdz {path}/mnt fuseblk rw 0 0\n")
    device = os.open("/dev/fuse", os.O_RDWR)
    os.set_inheritable(device, True)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0"
    yield living, host.command(f"mount -i -t fuse -o {options} /dev/sdz {path}/mnt")
    os.close(device)


SCENES = [silent_servers, one_of_every_kind, silent_engine, silent_name_server, silent_resolver, hung_mount]


def watch(scene, number, path, redis):
    """Runs an agent in the scene; returns the times and reports, and how long a stop took."""
    path.mkdir()
    with ExitStack() as stack:
        living = f"redis_living u:@127.0.0.1:{redis.port}\n"
        lines, command = stack.enter_context(scene(path, living))
        collector = stack.enter_context(Collector())
        config = collector.config(lines).replace("id 7", f"id {100 * (number + 1)}").replace("interval 1\n", f"interval {INTERVAL}\n")
        agent = stack.enter_context(Agent(path, config, command=command, close_fds=False))
        reports = []
        while len(reports) < REPORTS:
            reports.append((collector.report(3 * INTERVAL), time.monotonic()))
        time.sleep(INTERVAL - 0.8)  # into the waits of the next cycle
        status, seconds = agent.stop(seconds=15)
        assert status == 0, agent.text
        return reports, seconds, agent.text


def test_reports_come_in_their_interval_whatever_hangs(tmp_path, redis):
    with ThreadPoolExecutor(len(SCENES)) as pool:
        runs = {scene.__name__: pool.submit(watch, scene, number, tmp_path / str(number), redis)
                for number, scene in enumerate(SCENES)}
    for name, run in runs.items():
        reports, seconds, text = run.result()
        late = [moment - INTERVAL * place for place, (_, moment) in enumerate(reports)]
        assert max(late) - min(late) < 1.5, (name, late)
        found = ["living" in dict(report["redises"]) for report, _ in reports]
        assert all(found[3:]), (name, found)
        assert seconds < 3, name
    PID_FILE.unlink(missing_ok=True)  # agents that end together may each leave it to the other


def test_a_reader_that_stalls_stops_nothing(tmp_path, redis):
    out, into = os.pipe()
    fcntl.fcntl(into, fcntl.F_SETPIPE_SZ, 4096)
    with Collector() as collector:
        (tmp_path / "c").write_text(collector.config(f"redis_living u:@127.0.0.1:{redis.port}\n"))
        process = subprocess.Popen([BUILD / "tarn", "--debug", "--config", tmp_path / "c"], stdout=into, stderr=into)
        os.close(into)
        try:
            assert len(collector.reports(5)) == 5
            text = b""
            end = time.monotonic() + 10
            while b"lines are missing here" not in text and time.monotonic() < end:
                text += os.read(out, 65536)
            assert b"lines are missing here: they were not read in time)\n" in text
        finally:
            process.terminate()
            assert process.wait(5) == 0
        os.close(out)
