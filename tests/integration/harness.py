"""What the tests of the running agent share: a process, a collector, a faked host."""

import contextlib
import ctypes
import hashlib
import os
import re
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

import bson

BUILD = Path(os.environ.get("TARN_BUILD", Path(__file__).parents[2] / "build-dev"))
PID_FILE = Path("/var/run/tarn.pid")
libc = ctypes.CDLL(None)
libc.shmat.restype = ctypes.c_void_p
os.environ["LSAN_OPTIONS"] = f"print_suppressions=0:suppressions={Path(__file__).parent}/lsan.supp"


def template(name, folder="servers", **values):
    """A text kept beside the tests, its "@word@"s and "@word.attribute@"s replaced."""
    def value(found):
        return str(getattr(values[found[1]], found[2]) if found[2] else values[found[1]])
    return re.sub(r"@(\w+)\.?(\w*)@", value, (Path(__file__).parent / folder / name).read_text())


def wait_for(condition, seconds=15, step=0.02):
    """Polls until the condition holds and returns its value; fails after `seconds`."""
    end = time.monotonic() + seconds
    while not (value := condition()):
        assert time.monotonic() < end, f"gave up after {seconds} s"
        time.sleep(step)
    return value


class Running(contextlib.AbstractContextManager):
    """A process whose output, both streams of it, is collected as it comes. At the end of its block it is stopped and
    must end with status 0, unless the block waited for its end; a failure shows its status and output."""

    def __init__(self, args, **options):
        self.process = subprocess.Popen(
            [str(a) for a in args], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, start_new_session=True, **options)
        self.pid, self.text = self.process.pid, ""
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while chunk := os.read(self.process.stdout.fileno(), 65536):
            self.text += chunk.decode("utf-8", "replace")

    def wait_text(self, *texts, seconds=15):
        wait_for(lambda: all(text in self.text for text in texts) or self.process.poll() is not None, seconds)
        self.has_said(*texts)

    def has_said(self, *texts):
        missing = [text for text in texts if text not in self.text]
        assert not missing, f"{missing} is not in\n{self.text}"

    def stop(self, signum=signal.SIGTERM, seconds=10):
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
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self.pid, signal.SIGKILL)
        self.reader.join(5)
        return status, took

    def __exit__(self, error, *_):
        waited_for = self.process.returncode is not None
        state = "running" if self.process.poll() is None else f"ended with status {self.process.returncode}"
        print(f"{self.process.args}: {state}\n{self.text[-4000:]}")
        status, _ = self.stop(seconds=20)
        assert error or waited_for or status == 0, f"status {status}\n{self.text}"


class Agent(Running):
    """The agent with a configuration of its own, its extra files off, its messages in a file-like text."""

    def __init__(self, directory, config, *options, command=(), **popen):
        path = Path(directory) / "tarn.conf"
        path.write_text(config)
        super().__init__([*command, BUILD / "tarn", *options, "--config", path,
                          "--conf-glob", str(directory) + "/extra/*.conf"], **popen)


FAMILIES = "memcaches", "beanstalks", "custom", "mysqls", "redises", "mycustoms"


def decode(document):
    """The report as a mapping in its order. The elements of its arrays bear names, which a list would drop."""
    document, arrays = re.subn(b"\x04(%s)\x00" % "|".join(FAMILIES).encode(), b"\x03\\1\x00", document)
    assert arrays == len(FAMILIES)
    return bson.decode(document)


def flat(report):
    """Every element of the report's arrays by its key."""
    return {key: item for family in FAMILIES for key, item in report[family].items()}


class Collector(contextlib.AbstractContextManager):
    """Receives packets over UDP (and TCP) on a port of its own and checks their signatures."""

    def __init__(self, secret=b"", tcp=False):
        self.secret, self.tcp = secret, tcp
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM if tcp else socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        if tcp:
            self.socket.listen()
        self.port = self.socket.getsockname()[1]

    def config(self, more="", address="127.0.0.1"):
        return (f"id 7\naddress {address}\nport {self.port}\ninterval 1\n" + ("proto tcp\n" if self.tcp else "")
                + (f"secret {self.secret.decode()}\n" if self.secret else "") + more)

    def packet(self, seconds=15):
        self.socket.settimeout(seconds)
        if not self.tcp:
            return self.socket.recv(65536)
        with self.socket.accept()[0] as sender:
            sender.settimeout(seconds)
            return b"".join(iter(lambda: sender.recv(65536), b""))

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

    def report_where(self, condition, seconds=30):
        """The first report for which the condition holds."""
        end = time.monotonic() + seconds
        while not condition(report := self.report(30)):
            assert time.monotonic() < end, f"gave up after {seconds} s, the last report was {report}"
        return report

    def __exit__(self, *_):
        self.socket.close()


class FakeHost:
    """Files that stand in for the kernel's. `command` starts a process that sees them in place of the real
    ones: the mounts are made in its own mount namespace, on the paths of its own pid."""

    PLACES = {
        "stat": "/proc/stat", "loadavg": "/proc/loadavg", "meminfo": "/proc/meminfo", "vmstat": "/proc/vmstat",
        "diskstats": "/proc/diskstats", "file-nr": "/proc/sys/fs/file-nr", "block": "/sys/block",
        "os-release": "/etc/os-release", "net": "/proc/$$/net", "mounts": "/proc/$$/mounts", "statm": "/proc/$$/statm"}

    def __init__(self, directory):
        self.root = Path(directory) / "host"
        for folder in ("block", "net"):
            (self.root / folder).mkdir(parents=True)

    def write(self, **files):
        for name, text in files.items():
            folder = "net" if name in ("dev", "sockstat") else "."
            (self.root / folder / name.replace("_", "-")).write_text(text, "latin-1")

    def disk(self, name, removable="0", device=True):
        path = self.root / "block" / name
        path.mkdir()
        (path / "removable").write_text(removable + "\n")
        if device:
            (path / "device").symlink_to("../device-of-" + name)

    def command(self, before="true"):
        binds = [f"mount --bind {self.root / name} {place}" for name, place in self.PLACES.items()
                 if (self.root / name).exists()]
        return ["unshare", "-m", *through(" && ".join(["mount --make-rprivate /", *binds, before, 'exec "$@"']))]


def shm_blocks():
    """The shared-memory blocks that exist, by their keys."""
    rows = [row.split() for row in Path("/proc/sysvipc/shm").read_text().splitlines()[1:]]
    return {int(row[0]): {"size": int(row[3]), "attached": int(row[6]), "owner": int(row[9])} for row in rows}


@contextlib.contextmanager
def scribbling(key):
    """Random bytes go into a block of shared memory all the time, as from a user."""
    size, done = wait_for(lambda: shm_blocks().get(key))["size"], threading.Event()
    address = libc.shmat(libc.shmget(key, 0, 0), None, 0)

    def scribble():
        while not done.is_set():
            ctypes.memmove(address, os.urandom(size), size)

    scribbler = threading.Thread(target=scribble, daemon=True)
    scribbler.start()
    try:
        yield
    finally:
        done.set()
        scribbler.join()
        libc.shmdt(ctypes.c_void_p(address))


def drawn_second(moment, interval):
    """The second of the interval that an agent draws which starts at this moment."""
    libc.srand(int(moment))
    return libc.rand() % interval


def check(*args, status, command=()):
    """Runs tarn-check and returns its lines."""
    done = subprocess.run([*command, BUILD / "tarn-check", "--conf-glob", "/no", *map(str, args)],
                          capture_output=True, text=True, timeout=60, check=False)
    assert (done.returncode, done.stderr) == (status, ""), done.stdout + done.stderr
    return done.stdout.splitlines()


def probed(lines):
    """The outcomes that tarn-check --probe prints, by service."""
    return {name: outcome for name, outcome in re.findall(r"^(\S+) .*?\b((?:ok|FAILED) .*)$", "\n".join(lines), re.M)}


def children(pid):
    return [int(p) for p in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def through(script):
    """A command that starts the agent, "$@", by a script."""
    return ["bash", "-c", script, "bash"]
