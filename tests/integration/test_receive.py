"""tarn-receive: what it takes, what it names, when it ends."""

import json
import re
import socket
import subprocess
import time

import bson
import pytest

from harness import BUILD, Agent, Running, wait_for

PACKET = bson.BSON.encode({"id": 9})


def receiver(*args, port=0, command=()):
    running = Running([*command, BUILD / "tarn-receive", "--port", port, *args])
    running.wait_text("UDP and TCP\n")
    running.port = int(re.search(r"127\.0\.0\.1:(\d+), UDP", running.text).group(1))
    return running


def send(port, *packets):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for packet in packets:
            sender.sendto(packet, ("127.0.0.1", port))


@pytest.mark.parametrize("args, status, message", [
    ("--help", 0, "--format TEXT:{pretty,json,raw,jsonl,influx}=pretty"),
    ("--version", 0, "tarn-receive 0.6.3\n"),
    ("--port 65536", 1, "--port: Value 65536 not in range 0 to 65535"),
    ("--port 010", 1, '--port: "010" is not a decimal number'),
    ("--count -1", 1, '--count: "-1" is not a decimal number'),
    ("--format xml", 1, "--format: xml not in {pretty,json,raw,jsonl,influx}"),
    ("--address localhost", 1, "localhost is not an IPv4 address"),
    ("--secret a --secret-file /etc/hostname", 1, "--secret excludes --secret-file"),
    ("--secret-file /dev/null", 1, "no secret in /dev/null"),
    ("8641", 1, "not expected: 8641"),
])
def test_options(args, status, message):
    done = subprocess.run([BUILD / "tarn-receive", *args.split()], capture_output=True, text=True, timeout=10)
    assert done.returncode == status
    assert message in (done.stderr if status else done.stdout)


def test_it_prints_good_reports_names_bad_ones_and_ends_after_the_count(tmp_path):
    (tmp_path / "secret").write_text("abc\nnot this\n")
    with receiver("--secret-file", tmp_path / "secret", "--count", 2, "--format", "json") as tarn_receive:
        for packets in (b"", b"\xff" * 65000, PACKET), (PACKET, PACKET), (PACKET,):
            send(tarn_receive.port, *packets)
            time.sleep(1.1)
        config = f"id 7\naddress 127.0.0.1\nport {tarn_receive.port}\ninterval 1\nsecret abc\nproto tcp\n"
        with Agent(tmp_path, config):
            assert tarn_receive.process.wait(15) == 0
    lines = tarn_receive.text.splitlines()
    faults = [re.sub(r"127.*: ", "", line) for line in lines if "bad packet" in line]
    assert faults == ["tarn-receive: bad packet 1 from shorter than any document",
                      "tarn-receive: bad packet 4 from not signed (2 more not shown)",
                      "tarn-receive: bad packet 6 from not signed (1 more not shown)"]
    reports = [json.loads(line) for line in lines if line.startswith("{")]
    assert [report["id"] for report in reports] == [7, 7]
    assert lines[-1] == "tarn-receive: 2 good, 6 bad"


def test_idle_senders_make_way_stalled_ones_are_dropped_and_the_port_is_not_shared():
    with receiver() as tarn_receive:
        start = time.monotonic()
        idle = [socket.create_connection(("127.0.0.1", tarn_receive.port), 15) for _ in range(32)]
        time.sleep(0.5)  # by now all are accepted
        idle[0].sendall(PACKET[:3])
        idle[1].settimeout(5)
        with socket.create_connection(("127.0.0.1", tarn_receive.port)) as other:
            assert idle[1].recv(1) == b""
            other.sendall(PACKET)
        send(tarn_receive.port, PACKET)
        tarn_receive.wait_text("--- report 2")
        assert tarn_receive.text.count(f"{len(PACKET)} bytes, not signed\nid  ") == 2
        assert all(sender.recv(1) == b"" for sender in idle)
        assert 9 < time.monotonic() - start < 13
        assert tarn_receive.stop()[0] == 0
    assert "idle, made way for another\n" in tarn_receive.text
    assert "stalled\n" in tarn_receive.text
    assert tarn_receive.text.endswith("2 good, 32 bad\n")
    with receiver(port=tarn_receive.port) as next_one, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as thief:
        thief.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with pytest.raises(OSError, match="Address already in use"):
            thief.bind(("127.0.0.1", next_one.port))


def test_a_reader_that_goes_away_ends_it():
    with receiver(command=["bash", "-c", 'set -o pipefail; "$@" | head -1', "bash"]) as pipeline:
        wait_for(lambda: send(pipeline.port, PACKET) or pipeline.process.poll() is not None)
        assert pipeline.process.wait(10) == 1
    assert "tarn-receive: cannot write: Broken pipe\n" in pipeline.text
