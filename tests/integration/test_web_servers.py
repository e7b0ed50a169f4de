"""Web servers, PHP-FPM, broker and search: real servers under a known load, scripted ones with exact bytes."""

import struct
import threading
import urllib.request
from pathlib import Path
from types import SimpleNamespace

import pytest

from fake_server import FakeServer, captured, reset
from harness import Agent, Collector, flat, template
from real_servers import Apache, Nginx, PhpFpm, RabbitMq, check_figures, check_restarts


@pytest.fixture(scope="module")
def web():
    php = PhpFpm()
    servers = {"php": php, "nginx": Nginx(php=php), "apache": Apache(), "rabbit": RabbitMq()}
    yield SimpleNamespace(**servers, config=template("web.conf", **servers))
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
        collector.report_where(lambda report: flat(report).get("Rabbit_main", {}).get("queues_sum_len") == 7)
        busy = threading.Thread(target=http, args=(web.nginx.port, "sleep.php"), daemon=True)
        busy.start()
        for _ in range(100):
            http(web.nginx.port)
            http(web.apache.port)
        busy.join()
        reports = [flat(report) for report in collector.reports_of_now()]
    assert len(reports[-1]) == 7
    check_figures(reports, "web_figures.txt")
    broker = reports[-1]["Rabbit_main"]
    assert broker["mem_left"] == pytest.approx(broker["mem_limit"] - broker["mem_used"])


def test_a_server_that_restarts_takes_only_its_own_figures_with_it(tmp_path, web):
    taken = {web.nginx: {"Nginx_open", "Nginx_secret", "Nginx_page"}, web.apache: {"Apache_main"},
             web.rabbit: {"Rabbit_main"}}
    with Collector() as collector, Agent(tmp_path, collector.config(web.config)) as agent:
        check_restarts(collector, 7, taken, {web.php: ("FPM_tcp", "accepted")})
        assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 10
    agent.has_said("NGINX ERRRR :\n", "APACHE ERRRR :\n", "rabbit error\n", "fpm socket connect failed: ",
                   "nginx: could not bind socket or connect whatever: (Connection refused)111\n",
                   "error socket bleble tcp: Connection refused\nsend: ")


def test_the_requests_byte_for_byte(tmp_path):
    page = b"HTTP/1.1 200 OK\r\n\r\nActive connections: 7\n"
    text = b"Content-type: text/plain\r\n\r\naccepted conn: 5\n"
    header = struct.pack(">BBHHBB", 1, 6, 1, len(text), 3, 0)
    servers = {name: FakeServer(..., page) for name in ("nginx", "apache", "rabbit")}
    servers["fpm"] = FakeServer(..., header, 0.05, text[:20], 0.05, text[20:] + b"\0\0\0")
    servers["elastic"] = FakeServer(..., captured("elastic2_node.txt"), ..., captured("elastic2_health.txt"))
    with Collector() as collector, Agent(tmp_path, collector.config(template("requests.conf", **servers))):
        last = flat(collector.report_where(
            lambda report: set(flat(report)) == {"Nginx_a", "Apache_a", "FPM_a", "Elastic_a"}))
    assert last["Nginx_a"]["active"] == 7
    assert (last["Elastic_a"]["status"], last["Elastic_a"]["node_queue_size"]) == (3, 2)  # of the second major version
    requests = [request for server in servers.values() for request in dict.fromkeys(server.requests) if request]
    assert "".join(f"{request!r}\n" for request in requests) == template("requests.txt", "golden", **servers)


def test_a_reset_in_the_middle_of_fastcgi_ends_the_agent(tmp_path):
    with FakeServer(..., reset) as peer:
        config = f"id 7\ninterval 1\nfpm_a 127.0.0.1:{peer.port} /s\ncustom a b interval=1 echo 1\n"
        with Agent(tmp_path, config) as agent:
            assert agent.process.wait(10) == 1
            agent.reader.join(5)  # the script process has let go of the output, too
            assert not agent.reader.is_alive()
    assert "recv: Connection reset by peer\n" in agent.text
