"""Left alone for long: thousands of cycles back to back, a clock that jumps, system calls that fail."""

import os
import signal
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from fake_server import CLIENT_LIBRARIES, FakeServer, answering, inspection, line_of, reset
from harness import PID_FILE, Agent, Collector, children, flat, shm_blocks, wait_for

CYCLES = int(os.environ.get("TARN_CYCLES", "1000"))  # 50000 for the long form
FAKETIME = next(Path("/usr/lib").glob("*/faketime/libfaketime.so.1"))
is_sanitized = "asan" in os.environ.get("TARN_BUILD", "")


def faked_time(**settings):
    preload = f"{subprocess.getoutput('gcc -print-file-name=libasan.so')}:{FAKETIME}" if is_sanitized else FAKETIME
    return dict(os.environ, LD_PRELOAD=str(preload), FAKETIME_DONT_FAKE_MONOTONIC="1", **settings)


def flapping(steps):
    """A server that resets every third connection."""
    server = FakeServer(lambda peer: reset(peer) if len(server.lasted) % 3 == 2 else server.play(peer, steps))
    return server


def every_kind(redis):
    config = CLIENT_LIBRARIES + line_of("redis", "a", redis.port) + line_of("redis", "c", redis.port, "[c]")
    config += line_of("mysql", "a", 1) + line_of("postgre", "a", 1)
    for kind in "memcached", "beanstalk", "nginx", "apache", "rabbit", "elastic":
        config += line_of(kind, "a", flapping(answering(kind)).port)
    return config + line_of("fpm", "a", FakeServer(*answering("fpm")).port)  # a reset would end the agent


def usage(pid):
    """KiB of memory without what other programs share, descriptors and number of the agent and its children."""
    pids = [pid, *children(pid)]
    kib = sum(int(line.split()[1]) for p in pids for line in Path(f"/proc/{p}/smaps_rollup").read_text().splitlines()
              if line.startswith("Pss_Anon"))
    return kib, sum(len(os.listdir(f"/proc/{p}/fd")) for p in pids), len(pids)


# Scripts inherit the faked time, and with it AddressSanitizer, which slows them down too much.
@pytest.mark.parametrize("more, speed", [("", 1000)] + [("custom a b interval=3 timeout=300 echo 1\n", 100)] * (
    not is_sanitized))
def test_memory_descriptors_and_processes_stay_flat(tmp_path, redis, more, speed):
    engine = FakeServer(lambda peer: engine.play(peer, [..., inspection(Running=len(engine.lasted) % 5 > 0)]),
                        path=Path("/run/docker.sock"))
    curve, before = [], set(shm_blocks())
    with engine, Collector() as collector, Agent(tmp_path, collector.config(every_kind(redis) + more),
                                                 env=faked_time(FAKETIME=f"+0 x{speed}")) as agent:
        for cycle in range(CYCLES + 1):
            last = flat(collector.report(30))
            if cycle % 500 == 0:
                curve.append(usage(agent.pid))
        assert {"a", "c", "Nginx_a"} & set(last)
        blocks = set(shm_blocks()) - before
    print(curve)
    assert len(blocks) == (2 if more else 1)
    # AddressSanitizer keeps freed memory.
    assert is_sanitized or curve[-1][0] - curve[1][0] <= 256
    assert curve[-1][1] <= curve[1][1] + 1 and {found[2] for found in curve} <= {2, 3}  # a script's process


def test_reports_go_on_whatever_becomes_of_the_clock(tmp_path):
    offset = tmp_path / "offset"
    offset.write_text("+0")
    with Collector() as collector, Agent(
            tmp_path, collector.config(),
            env=faked_time(FAKETIME_TIMESTAMP_FILE=str(offset), FAKETIME_NO_CACHE="1")) as agent:
        def time_of_reports(count):
            start = time.monotonic()
            for _ in range(count):
                collector.report(10)
            return time.monotonic() - start
        collector.report()
        for jump in "-3600", "+3600", "+0":
            offset.write_text(jump)
            assert 3 < time_of_reports(5) < 9, jump  # seconds; 4 to 6 on a machine that is not busy
        os.killpg(agent.pid, signal.SIGSTOP)
        time.sleep(3)
        os.killpg(agent.pid, signal.SIGCONT)
        assert 3 < time_of_reports(5) < 9


FAILING = {"openat": "EMFILE", "read": "EIO", "newfstatat": "EACCES", "statfs": "EIO", "socket": "EMFILE",
           "connect": "EINTR", "sendto": "ENOMEM", "recvfrom": "EAGAIN", "uname": "EIO", "clock_nanosleep": "EINTR",
           "getdents64": "ENOMEM", "setsockopt": "ENOMEM"}


def survive(path, call, error):
    path.mkdir()
    lines = line_of("memcached", "a", FakeServer(*answering("memcached")).port) + f"id {int(path.name) + 100}\n"
    with Collector() as collector, Agent(path, collector.config(lines)) as agent:
        whole = collector.reports(2)[-1]
        with subprocess.Popen(["strace", "-qq", "-o", "/dev/null", "-e", f"inject={call}:error={error}:when=2+5",
                               "-p", str(agent.pid)]) as strace:
            time.sleep(3)
            strace.send_signal(signal.SIGINT)
        collector.reports_of_now()
        found = collector.report_where(lambda report: flat(report))
        assert list(found) == list(whole), (call, error)
        # The standard streams and the pipe to its child.
        wait_for(lambda: len(os.listdir(f"/proc/{agent.pid}/fd")) == 4)


def test_a_failing_system_call_costs_its_own_figure(tmp_path):
    with ThreadPoolExecutor(len(FAILING)) as pool:
        runs = [pool.submit(survive, tmp_path / str(number), *pair) for number, pair in enumerate(FAILING.items())]
    for run in runs:
        run.result()
    PID_FILE.unlink(missing_ok=True)  # agents that end together may each leave it to the other
