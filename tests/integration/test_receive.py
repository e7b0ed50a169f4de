"""tarn-receive: what it takes, what it names, when it ends."""

import json
import re
import socket
import time

import bson

from tarn_host import BUILD, Agent, Running


def receiver(*args):
    running = Running([BUILD / "tarn-receive", "--port", 0, *args])
    running.wait_text("UDP and TCP\n")
    running.port = int(re.search(r"127\.0\.0\.1:(\d+), UDP", running.text).group(1))
    return running


def test_it_prints_good_reports_names_bad_ones_and_ends_after_the_count(tmp_path):
    (tmp_path / "secret").write_text("abc\nnot this\n")
    with receiver("--secret-file", tmp_path / "secret", "--count", 2, "--format", "json") as tarn_receive:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as bad:
            for packet in (b"", b"\xff" * 65000, bson.BSON.encode({"a": 1}), bson.BSON.encode({}) + b"0" * 40):
                bad.sendto(packet, ("127.0.0.1", tarn_receive.port))
        config = f"id 7\naddress 127.0.0.1\nport {tarn_receive.port}\ninterval 1\nsecret abc\nproto tcp\n"
        with Agent(tmp_path, config):
            assert tarn_receive.process.wait(15) == 0
    lines = tarn_receive.text.splitlines()
    faults = [line.split(": ", 2)[2] for line in lines if "bad packet" in line]
    assert faults == ["shorter than any document",
                      "a document of 4294967295 bytes does not fit a packet of 65000", "not signed",
                      "wrong signature"]
    reports = [json.loads(line) for line in lines if line.startswith("{")]
    assert [report["id"] for report in reports] == [7, 7]
    assert lines[-1] == "tarn-receive: 2 good, 4 bad"


def test_a_stalled_sender_is_dropped_and_the_rest_are_not_kept_waiting():
    with receiver() as tarn_receive:
        start = time.monotonic()
        stalled = [socket.create_connection(("127.0.0.1", tarn_receive.port)) for _ in range(32)]
        stalled[0].sendall(b"\x05\0\0")
        with socket.create_connection(("127.0.0.1", tarn_receive.port)) as surplus:
            tarn_receive.wait_text("too many connections")
            assert surplus.recv(1) == b""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(bson.BSON.encode({"id": 9}), ("127.0.0.1", tarn_receive.port))
        tarn_receive.wait_text("not signed\nid  ")
        assert stalled[0].recv(1) == b""
        assert 9 < time.monotonic() - start < 13
        assert tarn_receive.stop()[0] == 0
    assert tarn_receive.text.count("stalled") == 32
