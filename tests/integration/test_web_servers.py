"""Web servers, PHP-FPM, broker and search: real servers under a known load, scripted ones with exact bytes."""

import struct
import threading
import urllib.request
from pathlib import Path
from types import SimpleNamespace

import pytest

from fake_server import FakeServer, captured, reset
from harness import Agent, Collector, flat, template
from real_servers import Apache, Nginx, PhpFpm, RabbitMq, check_restarts


@pytest.fixture(scope="module")
def web():
    """The five kinds on real servers, Elasticsearch on scripted ones of two major versions."""
    php = PhpFpm()
    servers = {"php": php, "nginx": Nginx(php=php), "apache": Apache(), "rabbit": RabbitMq()}
    new, old = (FakeServer(..., captured(f"{name}_node.txt"), ..., captured(f"{name}_health.txt"))
                for name in ("elastic", "elastic2"))
    yield SimpleNamespace(**servers, new=new, config=template("web.conf", **servers, new=new, old=old))
    for server in servers.values():
        server.close()


def http(port, path="", method="GET", body=None):
    headers = {"Authorization": "Basic Z3Vlc3Q6Z3Vlc3Q="}  # of the broker's "guest"
    request = urllib.request.Request(f"http://127.0.0.1:{port}/{path}", body, headers, method=method)
    with urllib.request.urlopen(request, timeout=10):
        pass


def test_the_figures_of_real_servers_follow_a_known_load(tmp_path, web):
    for queue in "ab":
        http(web.rabbit.port, f"api/queues/%2f/{queue}", "PUT", b"{}")
    for queue in b"aaabbbb":
        http(web.rabbit.port, "api/exchanges/%2f/amq.default/publish", "POST",
             b'{"properties": {}, "routing_key": "%c", "payload": "x", "payload_encoding": "string"}' % queue)
    with Collector() as collector, Agent(tmp_path, collector.config(web.config)):
        collector.reports(3)
        busy = threading.Thread(target=http, args=(web.nginx.port, "sleep.php"), daemon=True)
        busy.start()
        for _ in range(100):
            http(web.nginx.port)
            http(web.apache.port)
        reports = [flat(report) for report in collector.reports_of_now()]
        busy.join()
        collector.report_where(lambda report: flat(report)["Rabbit_main"]["queues_sum_len"] == 7)
        last = flat(collector.reports_of_now()[-1])
    assert len(last) == 9
    # 100 pages and a script, three status pages a second by the agent itself.
    assert sum(report["Nginx_open"]["rps"] for report in reports) == 101 + 3 * len(reports)
    assert sum(report["Apache_main"]["tA"] for report in reports) == 100 + len(reports)
    assert last["Apache_main"]["bW"] == 1 and last["Apache_main"]["sc_W"] == 1 and last["Apache_main"]["iW"] > 0
    assert last["Nginx_secret"]["active"] >= 1 and last["Nginx_open"]["writing"] == 1
    assert last["Nginx_page"] == {"report": "Nginx", "id": "page", "ok": 1, "rps": 0.0, "active": 0, "reading": 0,
                                  "writing": 0, "keepalive": 0}
    assert max(report["FPM_tcp"]["active"] for report in reports) == 2  # the script, and the one that answers
    assert last["FPM_tcp"]["active"] == 1 and last["FPM_tcp"]["total"] == 3 and last["FPM_local"]["accepted"] == 1.0
    broker = last["Rabbit_main"]
    assert broker["queues_count"] == 2 and broker["running"] == 1 and broker["disk_free_limit"] == 0.05
    assert broker["mem_left"] == pytest.approx(broker["mem_limit"] - broker["mem_used"])
    assert last["Elastic_new"] == {
        "report": "Elastic", "id": "new", "ok": 1, "node_queue_size": 3, "node_active_size": 4,
        "threads_search_queue": 3, "threads_search_active": 2, "status": 2, "initializing_shards": 2,
        "relocating_shards": 1, "unassigned_shards": 3}
    assert last["Elastic_old"]["status"] == 3 and last["Elastic_old"]["node_queue_size"] == 2
    assert web.new.requests[:2] == [b"GET /_nodes/node-7/stats/thread_pool HTTP/1.1\r\n\r\n",
                                    b"GET /_cluster/health HTTP/1.1\r\n\r\n"]


def test_a_server_that_restarts_takes_only_its_own_figures_with_it(tmp_path, web):
    taken = {web.nginx: {"Nginx_open", "Nginx_secret", "Nginx_page"}, web.apache: {"Apache_main"},
             web.rabbit: {"Rabbit_main"}}
    with Collector() as collector, Agent(tmp_path, collector.config(web.config)) as agent:
        check_restarts(collector, 9, taken, {web.php: ("FPM_tcp", "accepted")})
        assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 10
    agent.has_said("NGINX ERRRR :\n", "APACHE ERRRR :\n", "rabbit error\n", "fpm socket connect failed: ",
                   "nginx: could not bind socket or connect whatever: (Connection refused)111\n",
                   "error socket bleble tcp: Connection refused\nsend: ")


def test_the_requests_byte_for_byte(tmp_path):
    page = b"HTTP/1.1 200 OK\r\n\r\nActive connections: 7\n"
    text = b"Content-type: text/plain\r\n\r\naccepted conn: 5\n"
    header = struct.pack(">BBHHBB", 1, 6, 1, len(text), 3, 0)
    with FakeServer(..., page) as nginx, FakeServer(..., page) as apache, FakeServer(..., page) as rabbit, \
            FakeServer(..., header, 0.05, text[:20], 0.05, text[20:] + b"\0\0\0") as fpm, Collector() as collector:
        config = template("requests.conf", nginx=nginx, apache=apache, fpm=fpm, rabbit=rabbit)
        with Agent(tmp_path, collector.config(config)):
            last = flat(collector.reports(2)[-1])
    assert set(last) == {"Nginx_a", "Apache_a", "FPM_a"} and last["Nginx_a"]["active"] == 7
    head, rest = nginx.requests[0].split(b"Basic ")
    assert head == b"GET /st  HTTP/1.1\r\nHost:host.example\r\nUser-Agent: tarn-client 0.6.3\r\nAuthorization: "
    assert rest.index(b"\n") == 72 and rest.endswith(b"\r\n\r\n")
    assert apache.requests[0] == b"GET /server-status?auto HTTP/1.0\r\nUser-Agent: tarn-client 0.6.3\r\n" \
                                 b"Authorization: Basic \r\n\r\n"
    assert fpm.requests[0] == (
        b"\1\1\0\1\0\x08\0\0\0\1\0\0\0\0\0\0\1\4\0\1\0\x59\0\0\x0f\x17SCRIPT_FILENAME/tarn_asking_for_status"
        b"\x0b\x02SCRIPT_NAME/s\x0b\x02REQUEST_URI/s\x0e\x03REQUEST_METHODGET\1\4\0\1\0\0\0\0")
    assert rabbit.requests[0] == b"GET /api/nodes HTTP/1.1\r\nAuthorization: Basic dTo=\r\n" \
                                 b"Host: 127.0.0.1:%d\r\n\r\n" % rabbit.port


def test_a_reset_in_the_middle_of_fastcgi_ends_the_agent(tmp_path):
    with FakeServer(..., reset) as peer:
        config = f"id 7\ninterval 1\nfpm_a 127.0.0.1:{peer.port} /s\ncustom a b interval=1 echo 1\n"
        with Agent(tmp_path, config) as agent:
            assert agent.process.wait(10) == 1
            agent.reader.join(5)  # the script process has let go of the output, too
            assert not agent.reader.is_alive()
    assert "recv: Connection reset by peer\n" in agent.text
