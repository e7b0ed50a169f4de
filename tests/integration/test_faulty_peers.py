"""Every kind of service on a broken or hostile peer: its own counter fails, and nothing else does."""

import contextlib
import struct
import time
from pathlib import Path

import pytest

from fake_server import MYSQL_GREETING, FakeServer, mysql_packet, reset, silent
from harness import Agent, Collector, drawn_second, flat, template, wait_for


def hear(peer):
    """Reads the request of a client that speaks first; others wait for the server to begin."""
    peer.settimeout(0.1)
    with contextlib.suppress(TimeoutError):
        peer.recv(65536)
    peer.settimeout(None)


def record(kind, content, length=None, padding=0):
    return struct.pack(">BBHHBB", 1, kind, 1, len(content) if length is None else length, padding, 0) + content


DRIP = (b"\n", 0.1),
FAULTS = {
    "silent": (silent,), "reset": (reset,), "closing": (), "empty": (hear,), "dripping": (hear, *DRIP),
    "flooding": (hear, (b"\xff\n\0" * 10000,)),
    "garbage": (hear, bytes(range(256)) * 40), "zeros": (hear, b"\0" * 9000),
    "wrong": (hear, b"HTTP/1.1 400 Bad Request\r\n\r\n<html>{}</html>"),
    "beyond": (hear, b"STAT cmd_get 9999999999999999999999\r\nuptime_in_seconds:99999999999999999999999\r\n"),
    # MySQL: logged in, the answer to a statement never ends.
    "statement": (MYSQL_GREETING, hear, mysql_packet(2, b"\0\0\0\2\0\0\0"), hear, *DRIP),
    # FastCGI.
    "liar": (hear, record(6, b"accepted conn: 1\n", 65535, 255)), "other": (hear, record(3, b"12345678") + b"x"),
    "padding": (hear, record(6, b"accepted conn: 9\n", padding=200)), "many": (hear, record(7, b"e" * 100) * 2000),
    "huge": (hear, record(6, b"x" * 65535, padding=9) + bytes(9)),
    # HTTP.
    "redirect": (hear, b"HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/\r\n\r\n"),
    "headless": (hear, b"HTTP/1.1 200 OK\r\nA: b\r\n"), "full": (hear, b"x" * 4096),
    "chunked": (hear, b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n[{}]\n\r\n0\r\n\r\n"),
    "shape": (hear, b'HTTP/1.1 200 OK\r\n\r\n{"a":[1,2,{"b":null}]}'),
    "deep": (hear, b"HTTP/1.1 200 OK\r\n\r\n" + b"[" * 100000)}


def test_every_time_out_ends_its_own_wait(tmp_path):
    """With an interval that leaves much time to a cycle."""
    silent, mysql, rabbit = FakeServer(..., ...), FakeServer(*DRIP), FakeServer(..., (b"x" * 4096, 0.3))
    engine = FakeServer(*DRIP, path="/run/docker.sock")
    config = template("time_outs.conf", silent=silent, mysql=mysql, rabbit=rabbit)
    # Started now, the agent begins its first cycle in a moment.
    wait_for(lambda: 2 < (drawn_second(time.time(), 40) + 2 - time.time()) % 40 < 12, 60)
    with Agent(tmp_path, config):
        lasted = [wait_for(lambda: server.lasted, 60)[0] for server in (silent, mysql, rabbit, engine)]
    for seconds, expected in zip(lasted, (1, 2, 10, 1)):
        assert expected - 0.1 < seconds < expected + 2
    Path("/run/docker.sock").unlink()


@pytest.mark.parametrize("fault", FAULTS)
def test_a_faulty_peer_harms_no_other_counter(tmp_path, redis, fault):
    with FakeServer(*FAULTS[fault]) as peer, Collector() as collector:
        config = template("faulty_peers.conf", address=f"127.0.0.1:{peer.port}", good=f"127.0.0.1:{redis.port}")
        if fault == "reset":  # in the middle of FastCGI it would end the agent
            config = config.replace("fpm_bad", "no_fpm")
        with Agent(tmp_path, collector.config(config)) as agent:
            reports = [flat(report) for report in collector.reports(2)]
            assert all("good" in report for report in reports)
            assert not {"Postgre_bad", "Rabbit_bad", "Elastic_bad"} & set(reports[-1])
            assert ("Sphinx_bad" in reports[-1]) == (fault == "statement")
            if fault == "silent":
                assert set(reports[-1]) == {"good"}
                assert b"info\r\n" in peer.requests and b"stats\r\n" in peer.requests
            if fault in ("liar", "padding", "empty"):
                assert "FPM_bad" not in reports[-1]
            if fault in ("other", "many"):
                assert reports[-1]["FPM_bad"]["total"] == 0  # a record that is no output is a success
            assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 12
