"""tarn-receive: what it takes, what it prints, when it ends."""

import hashlib
import json
import math
import re
import socket
import subprocess
import time

import bson
import pytest

from harness import BUILD, Agent, Running, template, wait_for

PACKET = bson.encode({"id": 9})


def report(host, moment, secret="", interval=15, **elements):
    """A packet of a host, which an id or a UUID names."""
    who = {"id": host} if isinstance(host, int) else {"uuid": host, "server_name": "web 1", "project_secret": "hidden"}
    document = bson.encode({**who, "time": int(moment), "interval": interval, **elements})
    return document + (hashlib.sha1(document + secret.encode()).hexdigest().encode() if secret else b"")


class Receiver(Running):
    """tarn-receive on a port of its own."""

    def __init__(self, *args, port=0, command=()):
        super().__init__([*command, BUILD / "tarn-receive", "--port", port, *args])
        self.wait_text("UDP and TCP\n")
        self.address = "127.0.0.1", int(re.search(r"127\.0\.0\.1:(\d+), UDP", self.text)[1])
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def send(self, *packets):
        for packet in packets:
            self.socket.sendto(packet, self.address)

    def connect(self):
        return socket.create_connection(self.address, 15)


@pytest.mark.parametrize("row", template("receive_options.txt", "golden").splitlines())
def test_options(row):
    """The rows are "STATUS OPTIONS -> a part of what is printed"."""
    given, message = row.split(" -> ")
    status, *args = given.split()
    done = subprocess.run([BUILD / "tarn-receive", "--port", "0", *args], capture_output=True, text=True,
                          timeout=30, check=False)
    assert done.returncode == int(status)
    assert message in (done.stderr if done.returncode else done.stdout)


def test_it_prints_good_reports_names_bad_ones_and_ends_after_the_count(tmp_path):
    (tmp_path / "secret").write_text("abc\nnot this\n")
    with Receiver("--secret-file", tmp_path / "secret", "--count", 2, "--format", "json") as receiver:
        for first, *more in (1, b"", b"\xff" * 65000, PACKET), (4, PACKET, PACKET), (6, PACKET):
            receiver.send(*more)
            receiver.wait_text(f"bad packet {first} from ")
            time.sleep(1.1)  # one message a second
        config = f"id 7\naddress 127.0.0.1\nport {receiver.address[1]}\ninterval 1\nsecret abc\nproto tcp\n"
        with Agent(tmp_path, config):
            assert receiver.process.wait(60) == 0
    lines = receiver.text.splitlines()
    faults = [re.sub(r"127.*: ", "", line) for line in lines if "bad packet" in line]
    assert faults == ["tarn-receive: bad packet 1 from shorter than any document",
                      "tarn-receive: bad packet 4 from not signed (2 more not shown)",
                      "tarn-receive: bad packet 6 from not signed (1 more not shown)"]
    assert [json.loads(line)["id"] for line in lines if line.startswith("{")] == [7, 7]
    assert lines[-1] == "tarn-receive: 2 good, 6 bad"


def test_the_forms_for_other_programs():
    docker = {"a": {"cpu_usage": math.nan, "state": "dead"}}
    odd = report("0a", 5, custom=[], redises=[{"uptime": 2}], docker=docker)
    shown = {}
    for form, last in ("jsonl", '"dead"'), ("influx", "running"):
        with Receiver("--format", form) as receiver:
            receiver.send(odd)
            receiver.wait_text(last)
        shown[form] = receiver.text.splitlines()[1:]
    line = json.loads(shown["jsonl"][0], parse_constant=pytest.fail)
    assert re.fullmatch(r"127\.0\.0\.1:\d+", line["sender"]) and line["signature"] == "not signed"
    assert abs(time.time() - time.mktime(time.strptime(line["arrived"][:19], "%Y-%m-%dT%H:%M:%S")) + time.timezone) < 60
    assert line["report"]["redises"] == {"0": {"uptime": 2}} and line["report"]["custom"] == {}
    assert line["report"]["docker"] == {"a": {"cpu_usage": None, "state": "dead"}}
    assert shown["influx"][0].endswith("signature: not signed")
    assert shown["influx"][1:4] == ["tarn_host,host=0a,name=web\\ 1 interval_seconds=15i 5",
                                    "tarn_redis,host=0a,name=web\\ 1,server=0 uptime_seconds=2i 5",
                                    "tarn_container,host=0a,name=web\\ 1,container=a running=0i 5"]


def test_idle_senders_make_way_stalled_ones_are_dropped_and_the_port_is_not_shared():
    with Receiver() as receiver:
        start = time.monotonic()
        idle = [receiver.connect() for _ in range(31)]
        with receiver.connect() as sender:
            sender.sendall(PACKET)
        receiver.wait_text("--- report 1 ")  # those before it are accepted
        idle[0].sendall(PACKET[:3])
        receiver.send(PACKET)
        receiver.wait_text("--- report 2 ")  # the three bytes are read
        idle.append(receiver.connect())
        idle[1].settimeout(5)
        with receiver.connect() as other:
            assert idle[1].recv(1) == b""
            other.sendall(PACKET)
        receiver.wait_text("--- report 3 ")
        assert receiver.text.count(f"{len(PACKET)} bytes, not signed\nid  ") == 3
        assert all(sender.recv(1) == b"" for sender in idle)
        assert time.monotonic() - start > 9
        assert receiver.stop()[0] == 0
    receiver.has_said("idle, made way for another\n", "stalled\n", "3 good, 32 bad\n")
    with Receiver(port=receiver.address[1]) as next_one, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as thief:
        thief.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with pytest.raises(OSError, match="Address already in use"):
            thief.bind(next_one.address)


def test_a_reader_that_goes_away_ends_it():
    with Receiver(command=["bash", "-c", 'set -o pipefail; "$@" | head -1', "bash"]) as pipeline:
        wait_for(lambda: pipeline.send(PACKET) or pipeline.process.poll() is not None)
        assert pipeline.process.wait(10) == 1
    pipeline.has_said("tarn-receive: cannot write: Broken pipe\n")
