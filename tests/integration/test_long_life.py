"""Left alone for long: thousands of cycles back to back, a clock that jumps, system calls that fail."""

import json
import os
import signal
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from fake_server import FakeServer, captured, reset
from harness import PID_FILE, Agent, Collector, children, flat, shm_blocks, wait_for

CYCLES = int(os.environ.get("TARN_CYCLES", "1000"))  # 50000 for the long form
FAKETIME = next(Path("/usr/lib").glob("*/faketime/libfaketime.so.1"))
SOCKET = Path("/run/docker.sock")
is_sanitized = "asan" in os.environ.get("TARN_BUILD", "")


def faked_time(**settings):
    preload = f"{subprocess.getoutput('gcc -print-file-name=libasan.so')}:{FAKETIME}" if is_sanitized else FAKETIME
    return dict(os.environ, LD_PRELOAD=str(preload), FAKETIME_DONT_FAKE_MONOTONIC="1", **settings)


def flapping(*steps):
    """A server that resets every third connection."""
    server = FakeServer(lambda peer: reset(peer) if len(server.lasted) % 3 == 2 else server.play(peer, steps))
    return server


def container(ip, running):
    return b"HTTP/1.0 200 OK\r\n\r\n" + json.dumps(
        {"Id": "x", "State": {"Running": running}, "NetworkSettings": {"IPAddress": ip}}).encode()


def every_kind(redis):
    captures = {"memcache 127.0.0.1:{}": ["memcached_stats.txt"], "beanstalk 127.0.0.1:{}": ["beanstalkd_stats.txt"],
                "nginx_a 127.0.0.1:{}/s h": ["nginx_status.txt"], "apache_a 127.0.0.1:{}": ["apache_status.txt"],
                "fpm_a 127.0.0.1:{} /s": ["fpm_answer.bin"],
                "rabbit_a u:p@127.0.0.1:{}": ["rabbit_nodes.txt", "rabbit_queues.txt"],
                "elastic_a 127.0.0.1:{} node-7": ["elastic_node.txt", "elastic_health.txt"]}
    lines = f"redis_a u:@127.0.0.1:{redis.port}\nredis_c u:@[c]:{redis.port}\n"
    lines += "mysql_lib libmariadb.so.3\npostgre_lib libpq.so.5\nmysql_a u:p@127.0.0.1:1\npostgresql_a u:p@127.0.0.1:1\n"
    for line, names in captures.items():
        # A reset of a FastCGI answer ends the agent.
        make = FakeServer if line.startswith("fpm") else flapping
        lines += line.format(make(*[step for name in names for step in (..., captured(name))]).port) + "\n"
    return lines


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
    engine = FakeServer(lambda peer: engine.play(peer, [..., container("127.0.0.1", len(engine.lasted) % 5 > 0)]),
                        path=SOCKET)
    curve, before = [], set(shm_blocks())
    with Collector() as collector, Agent(tmp_path, collector.config(every_kind(redis) + more),
                                         env=faked_time(FAKETIME=f"+0 x{speed}")) as agent:
        for cycle in range(CYCLES + 1):
            last = flat(collector.report(30))
            if cycle % 500 == 0:
                curve.append(usage(agent.pid))
        assert {"a", "c", "Nginx_a"} & set(last)
        blocks = set(shm_blocks()) - before
    SOCKET.unlink()
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
        def intervals(count):
            moments = [(collector.report(10), time.monotonic())[1] for _ in range(count)]
            return [later - earlier for earlier, later in zip(moments, moments[1:])]
        collector.report()
        for jump in "-3600", "+3600", "+0":
            offset.write_text(jump)
            assert all(0.4 < seconds < 2.1 for seconds in intervals(4)), jump
        os.killpg(agent.pid, signal.SIGSTOP)
        time.sleep(3)
        os.killpg(agent.pid, signal.SIGCONT)
        assert all(0.4 < seconds < 2.1 for seconds in intervals(4))


FAILING = {"openat": "EMFILE", "read": "EIO", "newfstatat": "EACCES", "statfs": "EIO", "socket": "EMFILE",
           "connect": "EINTR", "sendto": "ENOMEM", "recvfrom": "EAGAIN", "uname": "EIO", "clock_nanosleep": "EINTR",
           "getdents64": "ENOMEM", "setsockopt": "ENOMEM"}


def survive(path, call, error):
    path.mkdir()
    port = FakeServer(..., captured("memcached_stats.txt")).port
    with Collector() as collector, Agent(path, collector.config(f"memcache 127.0.0.1:{port}\n").replace(
            "id 7", f"id {int(path.name) + 100}")) as agent:
        whole = collector.reports(2)[-1]
        with subprocess.Popen(["strace", "-qq", "-o", "/dev/null", "-e", f"inject={call}:error={error}:when=2+5",
                               "-p", str(agent.pid)]) as strace:
            time.sleep(3)
            strace.send_signal(signal.SIGINT)
        collector.reports_of_now()
        found = collector.report_where(lambda report: flat(report))
        assert list(found) == list(whole), (call, error)
        wait_for(lambda: len(os.listdir(f"/proc/{agent.pid}/fd")) == 4)  # the standard streams and the pipe to its child


def test_a_failing_system_call_costs_its_own_figure(tmp_path):
    with ThreadPoolExecutor(len(FAILING)) as pool:
        runs = [pool.submit(survive, tmp_path / str(number), *pair) for number, pair in enumerate(FAILING.items())]
    for run in runs:
        run.result()
    PID_FILE.unlink(missing_ok=True)  # agents that end together may each leave it to the other
