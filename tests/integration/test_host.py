"""The report of a whole faked host, and of hosts whose kernel files are broken."""

import os
import time

import pytest
from bson.int64 import Int64

from harness import Agent, Collector, FakeHost, template


def net_dev(interfaces):
    return "Inter-| Receive\n face |bytes\n" + "".join(
        f"{name:>6}: {received} 1 2 3 4 5 6 7 {sent} 1 2 3 4 5 6 7\n" for name, received, sent in interfaces)


def moving_figures(host, step):
    """Figures of second `step`: everything that is a rate moves evenly."""
    host.write(
        stat=f"cpu  {100 + 20 * step} 0 {100 + 10 * step} {1000 + 160 * step} {4 * step} {step} {step} {2 * step} "
             f"{2 * step} 0\ncpu0 1\ncpu1 1\nintr 9\n",
        vmstat=f"nr_free_pages 1\npswpin {50 + 3 * step}\npswpout {70 * step}\n",
        diskstats=f"   8 0 sda {10 * step} 0 {80 * step} {5 * step} {30 * step} 0 {7 * step} {6 * step} 0 "
                  f"{500 * step} 9\n   8 1 sda1 1 1 1 1 1 1 1 1 1 1 1\n  11 0 sr0 1 1 1 1 1 1 1 1 1 1 1\n"
                  f"   8 16 sdb 0 0 0 0 0 0 0 0 0 0 0\n   7 0 loop0 1 1 1 1 1 1 1 1 1 1 1\n",
        dev=net_dev([("lo", 1000 * step, 10 * step), ("veth1", 5 * step, 5), ("eth0", 250 * step, 0)]))


@pytest.fixture
def host(tmp_path):
    fake = FakeHost(tmp_path)
    fake.write(
        loadavg="0.25 0.50 0.75 1/77 2287\n",
        meminfo="MemTotal: 1000 kB\nMemFree: 300 kB\nMemAvailable: 9 kB\nBuffers: 50 kB\nCached: 150 kB\n"
                "SwapCached: 9 kB\nSwapTotal: 80 kB\nSwapFree: 30 kB\n",
        file_nr="321\t0\t9223372036854775807\n",
        os_release='NAME="CentOS Linux"\nVERSION_ID="7"\nID="centos"\n',
        sockstat="sockets: used 9\nTCP: inuse 12 orphan 3 tw 40 alloc 20 mem 5\nUDP: inuse 4 mem 2\n",
        statm="100 1234 9 9 9 9 9\n",
        mounts=f"/dev/sda1 {tmp_path}/mnt ext4 rw 0 0\nproc /proc proc rw 0 0\ntmpfs {tmp_path}/no tmpfs rw 0 0\n"
               "tmpfs /run tmpfs rw 0 0\n")
    (tmp_path / "mnt").mkdir()
    for name, removable, device in [("sda", "0", True), ("sr0", "1", True), ("sdb", "1", True), ("loop0", "0", False)]:
        fake.disk(name, removable, device)
    moving_figures(fake, 0)
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
    mount = f"mount -t tmpfs -o size=64m,nr_inodes=1000 none {tmp_path}/mnt"
    with Collector(b"abc") as collector:
        config = collector.config("exclude_interfaces veth*\nexclude_tmpfs 1\n")
        with Agent(tmp_path, config, command=host.command(mount)):
            for step in range(1, 4):
                report = collector.report()
                moving_figures(host, step)
    now = report.pop("time")
    assert isinstance(now, int) and not isinstance(now, Int64) and abs(now - time.time()) < 5
    assert laid_out(report.items()) == template("host.txt", "golden", mnt=f"{tmp_path}/mnt", machine=os.uname().machine,
                                                resident=1234 * os.sysconf("SC_PAGESIZE") // 1024)


FAULTS = {"empty": lambda data: b"", "garbage": lambda data: b"x" + os.urandom(3000).replace(b"\n", b"x"),
          "long": lambda data: (b"x" * 5000 + b" 1 2 3 4\n") * 3, "cut": lambda data: data[:-9],
          "beyond": lambda data: data.replace(b"1", b"99999999999999999999999"), "missing": lambda data: data}


@pytest.mark.parametrize("fault", FAULTS)
def test_broken_kernel_files_cost_their_own_figures_only(tmp_path, host, fault):
    for path in [*host.root.iterdir(), *host.root.glob("net/*")]:
        if path.is_file():
            path.write_bytes(FAULTS[fault](path.read_bytes()))
    before = "mount -t tmpfs none /proc && mount -t tmpfs none /sys" if fault == "missing" else "true"
    with Collector() as collector, Agent(tmp_path, collector.config(), command=host.command(before)) as agent:
        report = collector.reports(2)[-1]
        if fault == "missing":
            agent.stop()  # with status 1 where it searches for leaks, which takes /proc
    if fault in ("empty", "missing", "garbage"):
        assert report["mounts"] == {} and report["net"] == {} and list(report["disks"]) == []
        assert report["open_files"] == 0 and report["lavg"] == 0.0
        assert sum(report["cpu"].values()) == report["cpu"]["ok"]
        assert sum(report["socket"].values()) == report["socket"]["ok"]
    if fault == "missing":
        assert report["tarn_memory_used"] == 0 and report["ncpu"] == 0
        assert set(report["mem"].values()) == {0}


def test_more_than_255_interfaces_and_devices(tmp_path, host):
    count = 700
    host.write(dev=net_dev([(f"if{n}", n, n) for n in range(count)]),
               diskstats="".join(f" 8 {n} d{n} 1 2 3 4 5 6 7 8 9 10 11\n" for n in range(count)))
    for n in range(count):
        host.disk(f"d{n}")
    with Collector(tcp=True) as collector, Agent(tmp_path, collector.config(), command=host.command()):
        report = collector.reports(3)[-1]
    assert len(report["net"]) == len(report["disks"]) == count
