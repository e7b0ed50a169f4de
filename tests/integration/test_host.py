"""The report of a whole faked host, and of hosts whose kernel files are broken."""

import contextlib
import os
import re
import subprocess
import threading
import time

import pytest
from bson.int64 import Int64

from harness import Agent, Collector, FakeHost, template


def write_files(host, step, mnt):
    """The kernel's files of second `step`. Figures in braces are those of one second, and move evenly."""
    text = re.sub(r"{(\d+)}", lambda figure: str(int(figure[1]) * step), template("host_files.txt", mnt=mnt))
    host.write(**dict(re.findall(r"^> (\w+)\n((?:[^>].*\n)*)", text, re.M)))


@pytest.fixture
def host(tmp_path):
    fake = FakeHost(tmp_path)
    (tmp_path / "mnt").mkdir()
    write_files(fake, 0, tmp_path / "mnt")
    for name, removable in [("sda", "0"), ("sr0", "1"), ("sdb", "1"), ("sdc", "0")]:
        fake.disk(name, removable)
    fake.disk("loop0", device=False)
    return fake


def laid_out(items, depth=0):
    """Every element with its type, in order; devices and mounts in the order of their names."""
    text = ""
    for key, value in items:
        nested = isinstance(value, dict)
        text += f"{'  ' * depth}{key} {'document' if nested else f'{type(value).__name__} {value}'}\n"
        if nested:
            text += laid_out(sorted(value.items()) if key in ("disks", "mounts") else value.items(), depth + 1)
    return text


def test_every_element_of_a_faked_host(tmp_path, host):
    mnt = tmp_path / "mnt"
    mount = f"mount -t tmpfs -o size=64m,nr_inodes=1000 none {mnt}"
    expected = template("host.txt", "golden", mnt=mnt, machine=os.uname().machine,
                        resident=1234 * os.sysconf("SC_PAGESIZE") // 1024)
    with Collector(b"abc") as collector:
        config = collector.config("exclude_interfaces veth*\nexclude_tmpfs 1\n")
        with Agent(tmp_path, config, command=host.command(mount)) as agent:
            for step in range(1, 10):  # until there was one step in a cycle
                report = collector.report()
                now = report.pop("time")
                if (found := laid_out(report.items())) == expected:
                    break
                write_files(host, step, mnt)
            subprocess.run(f"nsenter --mount=/proc/{agent.pid}/ns/mnt mount -t tmpfs none /proc".split(), check=True)
            failed = collector.reports_of_now()[-1]
            agent.stop()  # with status 1 where it searches for leaks, which takes /proc
    assert found == expected
    assert not any(figure for section in ("mem", "cpu", "socket", "net") for figure in failed[section].values())
    assert isinstance(now, int) and not isinstance(now, Int64) and abs(now - time.time()) < 10


FAULTS = {"empty": lambda data: b"", "garbage": lambda data: b"x" + os.urandom(3000).replace(b"\n", b"x"),
          "long": lambda data: (b"x" * 5000 + b" 1 2 3 4\n") * 3, "cut": lambda data: data[:-9],
          "beyond": lambda data: data.replace(b"1", b"99999999999999999999999"), "missing": lambda data: data}


@pytest.mark.parametrize("fault", FAULTS)
def test_broken_kernel_files_cost_their_own_figures_only(tmp_path, host, fault):
    for path in [*host.root.iterdir(), *host.root.glob("net/*")]:
        if path.is_file():
            path.write_bytes(FAULTS[fault](path.read_bytes()))
    before = "mount -t tmpfs none /proc && mount -t tmpfs none /sys" if fault == "missing" else "true"
    with Collector() as collector:
        uuid = "uuid 00000000-0000-0000-0000-000000000001\nserver_name s\nproject_name p\n"
        config = collector.config(uuid).replace("id 7\n", "")
        with Agent(tmp_path, config, command=host.command(before)) as agent:
            report = collector.reports(2)[-1]
            if fault == "missing":
                agent.stop()  # with status 1 where it searches for leaks, which takes /proc
    assert list(report)[:5] == ["uuid", "server_name", "project_name", "project_secret", "name"]
    if fault in ("empty", "missing", "garbage"):
        assert report["mounts"] == {} and report["net"] == {} and list(report["disks"]) == []
        assert report["open_files"] == 0 and report["lavg"] == 0.0
        assert sum(report["cpu"].values()) == report["cpu"]["ok"]
        assert sum(report["socket"].values()) == report["socket"]["ok"]
    if fault == "missing":
        assert report["tarn_memory_used"] == 0 and report["ncpu"] == 0
        assert set(report["mem"].values()) == {0}


def serve_in_pieces(path):
    """Replaces a file with a pipe that gives its text in two pieces, as the kernel does where a disk has so many
    partitions that it does not fit into a page any more."""
    text = path.read_bytes()
    path.unlink()
    os.mkfifo(path)

    def serve():
        while True:
            with open(path, "wb", buffering=0) as pipe, contextlib.suppress(BrokenPipeError):
                for piece in text[:3000], text[3000:]:
                    pipe.write(piece)
                    time.sleep(0.1)
    threading.Thread(target=serve, daemon=True).start()


def test_more_than_255_interfaces_and_devices(tmp_path, host):
    count = 700
    host.write(dev="head\nhead\n" + "".join(f"if{n}: {'1 ' * 16}\n" for n in range(count)),
               diskstats="".join(f" 8 {n} d{n} 1 2 3 4 5 6 7 8 9 10 11\n" for n in range(count)))
    for n in range(count):
        host.disk(f"d{n}")
    serve_in_pieces(host.root / "diskstats")
    with Collector(tcp=True) as collector, Agent(tmp_path, collector.config(), command=host.command()):
        report = collector.reports(3)[-1]
    assert len(report["net"]) == len(report["disks"]) == count
