"""Every kind of service on a broken or hostile peer: its own counter fails, and nothing else does."""

import select
import struct
import time
from pathlib import Path

import pytest

from fake_server import CLIENT_LIBRARIES, KINDS, MYSQL_GREETING, MYSQL_OK, FakeServer, line_of, reset, silent
from harness import Agent, Collector, drawn_second, flat, template, wait_for


def hear(peer):
    """Reads the request of a client that speaks first; others wait for the server to begin."""
    if select.select([peer], [], [], 0.1)[0]:
        peer.recv(65536)


def record(kind, content, length=None, padding=0):
    return struct.pack(">BBHHBB", 1, kind, 1, len(content) if length is None else length, padding, 0) + content


DRIP = (b"\n", 0.1),
FAULTS = {
    "silent": (silent,), "reset": (reset,), "closing": (), "empty": (hear,), "dripping": (hear, *DRIP),
    "flooding": (hear, (b"\xff\n\0" * 10000,)),
    "garbage": (hear, bytes(range(256)) * 40),
    "wrong": (hear, b"HTTP/1.1 400 Bad Request\r\n\r\n<html>{}</html>"),
    "beyond": (hear, b"STAT cmd_get 9999999999999999999999\r\nuptime_in_seconds:99999999999999999999999\r\n"),
    # MySQL: logged in, the answer to a statement never ends.
    "statement": (MYSQL_GREETING, ..., MYSQL_OK, ..., *DRIP),
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
    elastic = FakeServer(..., (b"x" * 65536, 0.005))  # the size of an answer is bounded, too
    config = template("time_outs.conf", silent=silent, mysql=mysql, rabbit=rabbit, elastic=elastic)
    # Started now, the agent begins its first cycle in a moment.
    wait_for(lambda: 2 < (drawn_second(time.time(), 40) + 2 - time.time()) % 40 < 12, 60)
    with FakeServer(*DRIP, path=Path("/run/docker.sock")) as engine, Agent(tmp_path, config):
        for server, seconds in {silent: 1, mysql: 2, rabbit: 10, elastic: 0, engine: 1}.items():
            assert seconds - 0.1 < wait_for(lambda: server.lasted, 60)[0] < seconds + 3


@pytest.mark.parametrize("fault", FAULTS)
def test_a_faulty_peer_harms_no_other_counter(tmp_path, redis, fault):
    with FakeServer(*FAULTS[fault]) as peer, Collector() as collector:
        # A reset in the middle of FastCGI would end the agent.
        lines = [line_of(kind, "bad", peer.port) for kind in KINDS if (kind, fault) != ("fpm", "reset")]
        config = CLIENT_LIBRARIES + "".join(lines) + line_of("redis", "good", redis.port)
        with Agent(tmp_path, collector.config(config)) as agent:
            reports = [flat(report) for report in collector.reports(3)]
            assert ["good" in report for report in reports].count(True) >= 2  # a busy machine may cost one
            seen = {key: item for report in reports for key, item in report.items()}
            assert not {"Postgre_bad", "Rabbit_bad", "Elastic_bad"} & set(seen)
            if fault == "statement":
                collector.report_where(lambda report: "Sphinx_bad" in flat(report))  # the log-in succeeds
            else:
                assert "Sphinx_bad" not in seen
            if fault == "silent":
                assert set(seen) == {"good"}
                assert b"info\r\n" in peer.requests and b"stats\r\n" in peer.requests
            if fault in ("liar", "padding", "empty"):
                assert "FPM_bad" not in seen
            if fault in ("other", "many"):
                assert seen["FPM_bad"]["total"] == 0  # a record that is no output is a success
            assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 12
