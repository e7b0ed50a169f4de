"""tarn-receive as the door to engines: what they hold is what the hosts reported, and nothing is lost on the way."""

import gzip
import http.server
import json
import random
import re
import socket
import statistics
import subprocess
import threading
import time
import urllib.parse
import urllib.request
from contextlib import closing, suppress
from pathlib import Path

from harness import BUILD, wait_for
from real_servers import InfluxDb, Prometheus, VictoriaMetrics
from test_receive import Receiver, report

DOCS = Path(__file__).parents[2] / "docs"


def fetch(url, **query):
    with urllib.request.urlopen(url + ("?" + urllib.parse.urlencode(query) if query else ""), timeout=15) as answer:
        return answer.read().decode()


def settles(get, expected, seconds=60):
    """Waits until a call returns what is expected; a failure shows what it returned last."""
    def holds():
        with suppress(OSError):  # an engine may still be starting
            return get() == expected
        return False
    with suppress(AssertionError):
        wait_for(holds, seconds, 0.1)
    assert get() == expected


class Exporter(Receiver):
    """A receiver with metrics, and with the address of an engine to forward to."""

    def __init__(self, *args, forward=None, **options):
        super().__init__("--metrics", "127.0.0.1:0", *args, *(["--forward", forward] if forward else []), **options)
        self.wait_text("/metrics\n")
        self.target = re.search(r"http://(127\.0\.0\.1:\d+)/metrics", self.text)[1]

    def metrics(self):
        return fetch(f"http://{self.target}/metrics")

    def figures(self):
        return {name: float(value) for name, value in re.findall(r"^([^#].*) (\S+)$", self.metrics(), re.M)}

    def wait_figures(self, **expected):
        """Waits for figures whose names begin with "tarn_receive_"."""
        def found():
            figures = self.figures()
            return {name: figures[f"tarn_receive_{name}"] for name in expected}
        settles(found, expected)


def series(labels, value):
    return tuple(sorted(labels.items())), value


def query(port, text):
    """The series that an engine with Prometheus' interface finds."""
    rows = json.loads(fetch(f"http://127.0.0.1:{port}/api/v1/query", query=text))["data"]["result"]
    return {series(row["metric"], float(row["value"][1])) for row in rows}


def hosts(port, text):
    return {dict(labels)["host"] for labels, _ in query(port, text)}


def stored_in_victoria(port):
    rows = map(json.loads, fetch(f"http://127.0.0.1:{port}/api/v1/export", **{"match[]": '{host!=""}'}).splitlines())
    return {series(row["metric"], (value, stamp // 1000))
            for row in rows for value, stamp in zip(row["values"], row["timestamps"])}


def stored_in_influx(port):
    everything = "SELECT * FROM /.*/ GROUP BY *"
    answer = json.loads(fetch(f"http://127.0.0.1:{port}/query", db="tarn", epoch="s", q=everything))
    return {series({**{key: tag for key, tag in one["tags"].items() if tag}, "__name__": f"{one['name']}_{column}"},
                   (value, row[0]))
            for one in answer["results"][0].get("series", []) for row in one["values"]
            for column, value in zip(one["columns"][1:], row[1:]) if value is not None}


def test_a_report_is_found_in_every_engine_value_by_value_and_a_silent_host_raises_an_alert():
    """Values that are not finite, that a fall made, or of a sample that failed are not stored."""
    known = json.loads((Path(__file__).parent / "golden/stored.json").read_text())
    stored = {series({"__name__": name, "host": "0a-b", "name": "web 1", **labels}, value)
              for name, labels, value in known["stored"]}
    with closing(VictoriaMetrics()) as victoria, closing(InfluxDb()) as influx:
        fetch(f"http://127.0.0.1:{influx.port}/query", q="CREATE DATABASE tarn")
        with Exporter(forward=f"http://127.0.0.1:{victoria.port}/write?precision=ms") as first, \
                Exporter(forward=f"http://127.0.0.1:{influx.port}/write?db=tarn") as second, \
                closing(Prometheus(target=first.target, rules=DOCS / "alerts.yml")) as prometheus:
            moment = int(time.time()) - 60  # long ago for the host whose interval is a second
            for receiver in first, second:
                receiver.send(report("0a-b", moment, **known["report"]), report(7, moment, interval=1, ncpu=1))
            timed = {(labels, (value, moment)) for labels, value in stored} | {
                series({"__name__": name, "host": "7"}, (1, moment))
                for name in ("tarn_host_interval_seconds", "tarn_host_cpus")}
            settles(lambda: stored_in_victoria(victoria.port), timed)
            settles(lambda: stored_in_influx(influx.port), timed)
            settles(lambda: query(prometheus.port, '{host="0a-b",__name__!~"tarn_host_(up|report.*)"}'), stored)
            alert = re.search(r"expr: >-\n +(time\(\).*?)\n +labels:", (DOCS / "alerts.yml").read_text(), re.S)[1]
            settles(lambda: hosts(victoria.port, alert), {"7"})
            settles(lambda: hosts(prometheus.port, 'ALERTS{alertname="TarnHostSilent",alertstate="firing"}'), {"7"})
            assert hosts(prometheus.port, "tarn_host_up == 1") == {"0a-b"}
            assert 'tarn_host_cpus{host="7"}' not in first.figures()


def test_promtool_finds_nothing_wrong_with_any_metric_or_rule():
    """The report has every figure of the documentation's tables. An element of "mycustoms" may be of any section."""
    sample = {"int32": 9, "int64": 99, "double": 0.5, "string": "running"}
    tables = re.findall(r"<!-- figures: (\w+) -->\n(.*?)<!-- end", (DOCS / "report.md").read_text(), re.S)
    rows = {name: re.findall(r"^\| `(\w+)` \| (\w+) \|[^|]*\| `(\w+)`", table, re.M) for name, table in tables}
    sections = {name: {key: sample[kind] for key, kind, _ in rows[name]} for name in rows}
    elements = {**sections.pop("top"), **{name: sections.pop(name) for name in ("mem", "cpu", "socket")}}
    elements["mycustoms"] = {name + place: {**figures, "report": name, "id": place}
                             for name, figures in sections.items() for place in "ab"}
    with Exporter() as receiver:
        receiver.send(b"bad", report(1, time.time(), **elements))
        receiver.wait_figures(reports_total=1)
        text = receiver.metrics()
    names = [exported for table in rows.values() for _, _, exported in table]
    assert len(names) > 140 and [name for name in names if f"\n{name}{{" not in text] == []
    for command, given in (["metrics"], text), (["rules", DOCS / "alerts.yml"], ""):
        done = subprocess.run(["promtool", "check", *command], input=given, capture_output=True, text=True, timeout=60,
                              check=False)
        assert (done.returncode, done.stderr) == (0, "")
    dashboard = json.dumps(json.loads((DOCS / "dashboard.json").read_text())["panels"])
    used = set(re.findall(r"tarn_\w+", dashboard + (DOCS / "alerts.yml").read_text()))
    assert len(used) > 15 and [name for name in used if f"# TYPE {name} " not in text] == []


def test_nothing_is_lost_when_the_engine_restarts_under_load_and_at_the_end():
    start = int(time.time()) - 100

    def send(seconds):
        for second in seconds:
            receiver.send(*(report(host, start + second, ncpu=second) for host in range(1, 31)))
    with closing(VictoriaMetrics()) as victoria:
        with Exporter(forward=f"http://127.0.0.1:{victoria.port}/api/v2/write") as receiver:
            send(range(10))
            receiver.wait_figures(forwarded_reports_total=300)
            victoria.stop()
            send(range(10, 40))
            receiver.wait_text("tarn-receive: cannot forward: ")
            receiver.wait_figures(reports_total=1200, queued_reports=900, forwarded_reports_total=300)
            victoria.start()
            receiver.wait_figures(queued_reports=0)
            receiver.has_said("tarn-receive: forwards again\n")
            send(range(40, 59))
            receiver.wait_figures(reports_total=1770)
            send([59])
            status, took = receiver.stop(seconds=20)
        assert status == 0 and took < 5
        receiver.has_said("tarn-receive: 1800 forwarded, 0 refused, 0 dropped, 0 not sent\n",
                          "tarn-receive: 1800 good, 0 bad\n")
        fetch(f"http://127.0.0.1:{victoria.port}/internal/force_flush")
        settles(lambda: query(victoria.port, "sum(count_over_time(tarn_host_cpus[5m]))"), {((), 1800)})


def test_wrong_secrets_and_replays_are_refused_by_reason(tmp_path):
    secrets = tmp_path / "secrets"
    secrets.write_text("# fleet\n1 one\n\n 0a-b  two # not a comment\n")
    refused = subprocess.run([BUILD / "tarn-receive", "--secrets", secrets], capture_output=True, text=True, timeout=30,
                             check=False)
    said = f"tarn-receive: {secrets}, line 4: not an id or UUID and a secret\n"
    assert (refused.returncode, refused.stderr) == (1, said)
    secrets.write_text("# fleet\n1 one\n\n 0a-b  two\n")
    now = time.time()

    def reread(text, message):
        secrets.write_text(text)
        receiver.process.send_signal(1)
        receiver.wait_text(message)
    with Exporter("--secrets", secrets, "--format", "jsonl") as receiver:
        good = report(1, now, "one")
        receiver.send(good, good, report(1, now - 1, "one"), report(1, now + 1, "two"), report(1, now + 1),
                      report(2, now, "one"), report("0a-b", now, "one"), report("0a-b", now + 4000, "two"),
                      report("0a-b", now, "two"), good[:-1], b"", b"\x05\0\0\0\0" + b"0" * 40, b"\xff" * 60000)
        receiver.wait_figures(packets_total=13)
        with receiver.connect() as connection:
            connection.sendall(report(1, now + 2, "one"))
        receiver.wait_figures(reports_total=3)
        reasons = re.findall(r'bad_packets_total{reason="(.*)",source="127.0.0.1"} (\d+)', receiver.metrics())
        assert dict(reasons) == {
            "not newer than the last": "2", "wrong signature": "2", "not signed": "1", "unknown host": "2",
            "dated in the future": "1", "wrong length": "2", "shorter than any document": "1"}
        reread("2 three\n", "secrets read again\n")
        receiver.send(report(1, now + 3, "one"), report(2, now, "three"))
        receiver.wait_figures(reports_total=4)
        reread("", f"no secret in {secrets}\n")
        receiver.send(report(2, now + 1, "three"))
        receiver.wait_figures(reports_total=5)
    lines = [json.loads(line) for line in receiver.text.splitlines() if line.startswith("{")]
    assert [line["report"].get("id") for line in lines] == [1, None, 1, 2, 2]
    assert {line["signature"] for line in lines} == {"good"}


class Engine(http.server.HTTPServer):
    """Answers each POST with the next of the given statuses, in the end with 204, and keeps what was posted."""

    def __init__(self, *statuses):
        self.statuses, self.posts = list(statuses), []
        super().__init__(("127.0.0.1", 0), self.Handler)
        self.url = f"http://127.0.0.1:{self.server_port}/write?precision=ns"
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def close(self):
        self.shutdown()
        self.server_close()

    def stored(self):
        return [lines for *_, status, lines in self.posts if status == 204]

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            body, encoding = self.rfile.read(int(self.headers["Content-Length"])), self.headers["Content-Encoding"]
            status = self.server.statuses.pop(0) if self.server.statuses else 204
            lines = gzip.decompress(body) if encoding else body
            self.server.posts.append((self.headers["X-Test"], encoding, status, lines))
            self.send_response(status)
            self.end_headers()

        def log_message(self, *_):
            pass


def test_a_signal_to_stop_discards_no_report_that_has_come():
    stopped = ["env", "ASAN_OPTIONS=detect_leaks=0", "strace", "-qqo/dev/null", "-einject=recvmmsg:signal=TERM:when=1"]
    with closing(Engine()) as engine, Exporter(forward=engine.url, command=stopped) as receiver:
        receiver.send(report(1, 1, ncpu=1))
        assert receiver.process.wait(15) == 0
    receiver.has_said("tarn-receive: 1 forwarded, 0 refused, 0 dropped, 0 not sent\n")


def test_an_engine_that_takes_no_gzip_fails_or_refuses(tmp_path):
    headers = tmp_path / "headers"
    headers.write_text("X-Test: 1\n")
    with closing(Engine(415, 503, 204, 400)) as engine, (
            Exporter("--forward-headers", headers, forward=engine.url)) as receiver:
        for number, (sent, refused) in enumerate([(1, 0), (1, 1), (2, 1)], 1):
            receiver.send(report(1, number, ncpu=number))
            receiver.wait_figures(forwarded_reports_total=sent, refused_reports_total=refused)
    assert [post[:3] for post in engine.posts] == [
        ("1", "gzip", 415), ("1", None, 503), ("1", None, 204), ("1", None, 400), ("1", "gzip", 204)]
    assert [lines.split()[-1] for lines in engine.stored()] == [b"1000000000", b"3000000000"]
    receiver.has_said("HTTP 503 ", "1 reports refused: HTTP 400 ")


def test_a_full_queue_drops_the_oldest_and_slow_clients_cost_a_descriptor():
    with closing(Engine(*[503] * 1000)) as engine, Exporter("--queue", 1, forward=engine.url) as receiver:
        idle = [receiver.connect() for _ in range(520)]
        slow = socket.create_connection(receiver.target.split(":"))
        slow.sendall(b"GET /metr")
        for number in range(1, 4000):
            values = {str(place): {"value": random.random()} for place in range(60)}
            receiver.send(report(1, number, custom=values))
        receiver.wait_figures(reports_total=3999)
        receiver.has_said("the queue is full, the oldest reports are dropped\n")
        assert receiver.figures()["tarn_receive_queued_bytes"] < 2.1e6
        engine.statuses.clear()
        receiver.wait_figures(queued_reports=0)
        figures = receiver.figures()
        dropped = figures["tarn_receive_dropped_reports_total"]
        assert 0 < dropped == 3999 - figures["tarn_receive_forwarded_reports_total"]
        assert figures['tarn_receive_bad_packets_total{reason="idle",source="127.0.0.1"}'] == 8
        for one in (slow, *idle):
            one.close()
    seconds = [int(line.split()[-1]) // 10**9 for lines in engine.stored() for line in lines.splitlines()]
    assert seconds[-1] == 3999 and statistics.median(seconds) > 2000
