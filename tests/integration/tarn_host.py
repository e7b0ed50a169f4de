"""What the tests of the running agent share: a process, a collector, a faked host."""

import hashlib
import os
import select
import signal
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

import bson
from bson.int64 import Int64

BUILD = Path(os.environ.get("TARN_BUILD", Path(__file__).parents[2] / "build-dev"))
PID_FILE = Path("/var/run/tarn.pid")
os.environ["LSAN_OPTIONS"] = f"print_suppressions=0:suppressions={Path(__file__).parent}/lsan.supp"


def golden(name):
    """A kept text that is expected byte for byte."""
    return (Path(__file__).parent / "golden" / name).read_text()


def wait_for(condition, seconds=15, step=0.02):
    """Polls until the condition holds and returns its value; fails after `seconds`."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, f"gave up after {seconds} s"
        time.sleep(step)


class Running:
    """A process whose output, both streams of it, is collected as it comes."""

    def __init__(self, args, **options):
        self.process = subprocess.Popen(
            [str(a) for a in args], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, start_new_session=True, **options)
        self.text = ""
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while chunk := os.read(self.process.stdout.fileno(), 65536):
            self.text += chunk.decode("utf-8", "replace")

    @property
    def pid(self):
        return self.process.pid

    def wait_text(self, text, seconds=15):
        wait_for(lambda: text in self.text or self.process.poll() is not None, seconds)
        assert text in self.text, self.text

    def stop(self, signum=signal.SIGTERM, seconds=5):
        """Signals the whole group and waits for the process; returns (status, seconds that it took). Its children
        have a moment more to say their last words."""
        start = time.monotonic()
        if self.process.poll() is None:
            os.killpg(self.pid, signum)
        try:
            status = self.process.wait(seconds)
        finally:
            took = time.monotonic() - start
            self.reader.join(3)
            try:
                os.killpg(self.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.reader.join(5)
        return status, took

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


class Agent(Running):
    """The agent with a configuration of its own, its extra files off, its messages in a file-like text."""

    def __init__(self, directory, config, *options, command=(), **popen):
        path = Path(directory) / "tarn.conf"
        path.write_bytes(config if isinstance(config, bytes) else config.encode())
        super().__init__([*command, BUILD / "tarn", *options, "--config", path,
                          "--conf-glob", str(directory) + "/extra/*.conf"], **popen)


def elements(data):
    """The elements of a document's bytes, in their order, as (key, value). int64 is told from int32 (Int64). An
    array whose elements bear names of their own is a mapping, which the library would make a list of."""
    at = 4
    while data[at]:
        kind, end = data[at], data.index(b"\0", at + 1)
        key, at = data[at + 1:end].decode(), end + 1
        if kind in (3, 4):
            length = int.from_bytes(data[at:at + 4], "little")
            value = dict(elements(data[at:at + length]))
            if kind == 4 and list(value) == [str(n) for n in range(len(value))]:
                value = list(value.values())
        elif kind == 2:
            length = 4 + int.from_bytes(data[at:at + 4], "little")
            value = data[at + 4:at + length - 1].decode()
        else:
            form, length = {1: ("<d", 8), 10: ("", 0), 16: ("<i", 4), 18: ("<q", 8)}[kind]
            value = struct.unpack(form, data[at:at + length])[0] if form else None
            value = Int64(value) if kind == 18 else value
        at += length
        yield key, value


def decode(document):
    """The report as a mapping in its order; the library must be able to read it, too."""
    assert len(bson.BSON(document).decode()) > 0
    return dict(elements(document))


def flat(report):
    """Every service's element by its key, whatever its family."""
    return {key: item for family in ("memcaches", "beanstalks", "mysqls", "redises", "mycustoms")
            for key, item in dict(report[family]).items()}


class Collector:
    """Receives packets over UDP (and TCP) on a port of its own and checks their signatures."""

    def __init__(self, secret=b"", tcp=False):
        self.secret, self.tcp = secret, tcp
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM if tcp else socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        if tcp:
            self.socket.listen()
        self.port = self.socket.getsockname()[1]

    def config(self, more=""):
        return (f"id 7\naddress 127.0.0.1\nport {self.port}\ninterval 1\n" + ("proto tcp\n" if self.tcp else "")
                + (f"secret {self.secret.decode()}\n" if self.secret else "") + more)

    def packet(self, seconds=15):
        ready, _, _ = select.select([self.socket], [], [], seconds)
        assert ready, "no packet came"
        if not self.tcp:
            return self.socket.recv(65536)
        with self.socket.accept()[0] as sender:
            sender.settimeout(seconds)
            data = b""
            while chunk := sender.recv(65536):
                data += chunk
            return data

    def report(self, seconds=15):
        """The next report, its frame and signature checked."""
        packet = self.packet(seconds)
        length = int.from_bytes(packet[:4], "little")
        document, signature = packet[:length], packet[length:]
        expected = hashlib.sha1(document + self.secret).hexdigest().encode() if self.secret else b""
        assert signature == expected
        return decode(document)

    def reports(self, count):
        return [self.report() for _ in range(count)]

    def reports_of_now(self):
        """The reports up to the first one whose cycle began after this call."""
        moment, reports = time.time(), []
        while not reports or reports[-1]["time"] < moment + 1:
            reports.append(self.report(30))
        return reports

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()


class FakeHost:
    """Files that stand in for the kernel's. `command` starts a process that sees them in place of the real
    ones: the mounts are made in its own mount namespace, on the paths of its own pid."""

    PLACES = {
        "stat": "/proc/stat", "loadavg": "/proc/loadavg", "meminfo": "/proc/meminfo", "vmstat": "/proc/vmstat",
        "diskstats": "/proc/diskstats", "file-nr": "/proc/sys/fs/file-nr", "block": "/sys/block",
        "os-release": "/etc/os-release", "net": "/proc/$$/net", "mounts": "/proc/$$/mounts",
        "statm": "/proc/$$/statm",
    }

    def __init__(self, directory):
        self.root = Path(directory) / "host"
        (self.root / "block").mkdir(parents=True)
        (self.root / "net").mkdir()

    def write(self, **files):
        for name, text in files.items():
            data = text if isinstance(text, bytes) else text.encode()
            folder = self.root / "net" if name in ("dev", "sockstat") else self.root
            (folder / name.replace("_", "-")).write_bytes(data)

    def files(self):
        """Every file that there is."""
        return [path for path in self.root.rglob("*") if path.is_file() and "block" not in path.parts]

    def disk(self, name, removable="0", device=True):
        path = self.root / "block" / name
        path.mkdir()
        if removable is not None:
            (path / "removable").write_text(removable + "\n")
        if device:
            (path / "device").symlink_to("../device-of-" + name)

    def command(self, before="true"):
        binds = [f"mount --bind {self.root / name} {place}" for name, place in self.PLACES.items()
                 if (self.root / name).exists()]
        script = " && ".join(["mount --make-rprivate /", *binds, before, 'exec "$@"'])
        return ["unshare", "-m", "sh", "-c", script, "sh"]


def shm_keys():
    """The keys of the shared-memory segments that there are, with their sizes."""
    rows = Path("/proc/sysvipc/shm").read_text().splitlines()[1:]
    return {int(row.split()[0]): int(row.split()[3]) for row in rows}


def children(pid):
    return [int(p) for p in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
