"""Web servers, PHP-FPM, broker and search: real servers under a known load, scripted ones with exact bytes."""

import socket
import struct
import threading
import time
from pathlib import Path

import pytest

from fake_server import FakeServer, captured, saying, saying_in_turn
from real_servers import Apache, Nginx, PhpFpm, RabbitMq, http
from tarn_host import PID_FILE, Agent, Collector, children, shm_keys, wait_for


class Web:
    """The five kinds on real servers, Elasticsearch on scripted ones of two major versions, in one configuration."""

    def __init__(self):
        self.php, self.apache, self.rabbit = PhpFpm(), Apache(), RabbitMq()
        self.nginx = Nginx(self.php)
        self.new, self.old = (
            FakeServer(saying_in_turn(captured(f"{name}_node.txt"), captured(f"{name}_health.txt")))
            for name in ("elastic", "elastic2"))
        self.all = [self.nginx, self.apache, self.php, self.rabbit]

    def config(self):
        return f"""nginx_open 127.0.0.1:{self.nginx.port}/status localhost
nginx secret tarn:pw@127.0.0.1:{self.nginx.port}/secret localhost
nginx_page 127.0.0.1:{self.nginx.port}/nothing localhost
apache_main 127.0.0.1:{self.apache.port}
fpm_tcp 127.0.0.1:{self.php.port} /status
fpm_local unix:{self.php.directory}/socket /status
rabbit_main guest:guest@127.0.0.1:{self.rabbit.port}
elastic_new 127.0.0.1:{self.new.port} node-7
elastic_old 127.0.0.1:{self.old.port} aB3
"""


@pytest.fixture(scope="module")
def web():
    servers = Web()
    yield servers
    for server in servers.all:
        server.close()


EVERYTHING = {"Nginx_open", "Nginx_secret", "Nginx_page", "Apache_main", "FPM_tcp", "FPM_local", "Rabbit_main",
              "Elastic_new", "Elastic_old"}


def services(collector):
    return dict(collector.report(30)["mycustoms"])


def test_the_figures_of_real_servers_follow_a_known_load(tmp_path, web):
    for queue, count in (("a", 3), ("b", 4)):
        web.rabbit.api(f"/api/queues/%2f/{queue}", "PUT", {})
        for _ in range(count):
            web.rabbit.api("/api/exchanges/%2f/amq.default/publish", "POST", {
                "properties": {}, "routing_key": queue, "payload": "x", "payload_encoding": "string"})
    with Collector() as collector, Agent(tmp_path, collector.config(web.config())) as agent:
        for _ in range(3):
            services(collector)
        busy = threading.Thread(target=http, args=(web.nginx.port, "/sleep.php"))
        busy.start()
        for _ in range(100):
            http(web.nginx.port)
            http(web.apache.port)
        reports = [report["mycustoms"] for report in collector.reports_of_now()]
        busy.join()
        wait_for(lambda: services(collector)["Rabbit_main"]["queues_sum_len"] == 7, 30)
        last = dict(collector.reports_of_now()[-1]["mycustoms"])
        agent.stop()
    assert set(last) == EVERYTHING
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
    groups = {web.nginx: ({"Nginx_open", "Nginx_secret", "Nginx_page"}, "NGINX ERRRR :\n"),
              web.apache: ({"Apache_main"}, "APACHE ERRRR :\n"), web.rabbit: ({"Rabbit_main"}, "rabbit error\n")}
    with Collector() as collector, Agent(tmp_path, collector.config(web.config())) as agent:
        wait_for(lambda: set(services(collector)) == EVERYTHING, 20)
        for server, (own, message) in groups.items():
            server.stop()
            assert set(dict(collector.reports_of_now()[-1]["mycustoms"])) == EVERYTHING - own
            assert message in agent.text
            server.start()
            wait_for(lambda: set(services(collector)) == EVERYTHING, 30)
        # A pool that is gone keeps its last figures, with a rate of 0.
        web.php.stop()
        agent.wait_text("error socket bleble tcp: Connection refused\nsend: ")
        agent.wait_text("fpm socket connect failed: ")
        assert wait_for(lambda: services(collector)["FPM_tcp"]["accepted"] == 0.0)
        web.php.start()
        wait_for(lambda: services(collector)["FPM_tcp"]["accepted"] > 0)
        assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 10
        assert agent.stop()[0] == 0
    assert "nginx: could not bind socket or connect whatever: (Connection refused)111\n" in agent.text


def test_the_requests_byte_for_byte(tmp_path):
    def fcgi(server, peer, _):
        server.read(peer)
        text = b"Content-type: text/plain\r\n\r\naccepted conn: 5\n"
        for part in struct.pack(">BBHHBB", 1, 6, 1, len(text), 3, 0), text[:20], text[20:] + b"\0\0\0":
            peer.sendall(part)
            time.sleep(0.05)

    page = saying(b"HTTP/1.1 200 OK\r\n\r\nActive connections: 7\n")
    with FakeServer(page) as nginx, FakeServer(page) as apache, FakeServer(fcgi) as fpm, FakeServer(page) as rabbit, \
            Collector() as collector:
        config = f"""slashedApache 0
nginx_a user:{"p" * 60}@127.0.0.1:{nginx.port}/st host.example
apache_a 127.0.0.1:{apache.port}
fpm_a 127.0.0.1:{fpm.port} /s
rabbit_a u:@127.0.0.1:{rabbit.port}
"""
        with Agent(tmp_path, collector.config(config)):
            last = [services(collector) for _ in range(3)][-1]
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
    def reset(server, peer, _):
        server.read(peer)
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    with FakeServer(reset) as peer, Collector() as collector:
        config = collector.config(f"fpm_a 127.0.0.1:{peer.port} /s\ncustom a b interval=1 echo 1\n")
        with Agent(tmp_path, config) as agent:
            child = wait_for(lambda: children(agent.pid))[0]
            assert agent.process.wait(10) == 1
            assert not Path(f"/proc/{child}").exists() and not PID_FILE.exists() and shm_keys() == {}
    assert "recv: Connection reset by peer\n" in agent.text
