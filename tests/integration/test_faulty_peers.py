"""Every kind of service on a broken or hostile peer: its own counter fails, and nothing else does."""

import struct
import time
from pathlib import Path

import pytest

from fake_server import FAULTS, FakeServer, saying
from real_servers import Redis, template
from tarn_host import Agent, Collector, flat


def record(kind, content, length=None, padding=0):
    return struct.pack(">BBHHBB", 1, kind, 1, len(content) if length is None else length, padding, 0) + content


FCGI = {"liar": saying(record(6, b"accepted conn: 1\n", 65535, 255)), "other": saying(record(3, b"12345678") + b"x"),
        "padding": saying(record(6, b"accepted conn: 9\n", padding=200)),
        "many": saying(record(7, b"e" * 100) * 2000), "huge": saying(record(6, b"x" * 65535, padding=9) + bytes(9))}
HTTP = {"redirect": saying(b"HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/\r\n\r\n"),
        "headless": saying(b"HTTP/1.1 200 OK\r\nA: b\r\n"), "full": saying(b"x" * 4096),
        "chunked": saying(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n[{}]\n\r\n0\r\n\r\n"),
        "shape": saying(b'HTTP/1.1 200 OK\r\n\r\n{"a":[1,2,{"b":null}]}'),
        "deep": saying(b"HTTP/1.1 200 OK\r\n\r\n" + b"[" * 100000)}


@pytest.fixture(scope="module")
def redis():
    server = Redis()
    yield server
    server.close()


@pytest.mark.parametrize("fault", [*FAULTS, *FCGI, *HTTP])
def test_a_faulty_peer_harms_no_other_counter(tmp_path, redis, fault):
    with FakeServer({**FAULTS, **FCGI, **HTTP}[fault]) as peer, Collector() as collector:
        config = template("faulty_peers.conf", address=f"127.0.0.1:{peer.port}", good=f"127.0.0.1:{redis.port}")
        if fault == "closing":  # its reset would end the agent, see the web servers' tests
            config = config.replace("fpm_bad", "no_fpm")
        with Agent(tmp_path, collector.config(config)) as agent:
            start = time.monotonic()
            reports = [flat(collector.report(40)) for _ in range(2)]
            assert time.monotonic() - start < 60
            assert all("good" in report for report in reports)
            assert not {"Postgre_bad", "Sphinx_bad", "Rabbit_bad", "Elastic_bad"} & set(reports[-1])
            if fault in ("silent", "mute"):
                assert set(reports[-1]) == {"good"}
            if fault in ("liar", "padding", "empty"):
                assert "FPM_bad" not in reports[-1]
            if fault in ("other", "many"):
                assert reports[-1]["FPM_bad"]["total"] == 0  # a record that is no output is a success
            assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 12
            assert agent.stop(seconds=20)[0] == 0
    if fault == "silent":
        assert b"info\r\n" in peer.requests and b"stats\r\n" in peer.requests
