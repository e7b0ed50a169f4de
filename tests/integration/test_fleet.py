"""tarn-receive as the door to engines: what they hold is what the hosts reported, and nothing is lost on the way."""

import contextlib
import gzip
import hashlib
import http.server
import json
import math
import random
import re
import socket
import subprocess
import threading
import time
import urllib.parse
import urllib.request
from pathlib import Path

import bson
import pytest
from bson.int64 import Int64

from harness import BUILD, Running, wait_for
from real_servers import InfluxDb, Prometheus, VictoriaMetrics

DOCS = Path(__file__).parents[2] / "docs"


def report(host, moment, secret="", interval=15, **elements):
    """A packet; whole numbers are sent as int64, as the agent does."""
    def sent(value):
        if isinstance(value, dict):
            return {key: sent(item) for key, item in value.items()}
        return Int64(value) if isinstance(value, int) else value
    who = {"id": host} if isinstance(host, int) else {"uuid": host, "server_name": "web 1", "project_secret": "hidden"}
    document = bson.BSON.encode({**who, "time": int(moment), "interval": interval, **sent(elements)})
    return document + (hashlib.sha1(document + secret.encode()).hexdigest().encode() if secret else b"")


class Receiver(Running):
    def __init__(self, *args, forward=None, metrics=True):
        args = [*args, *(["--forward", forward] if forward else []), *(["--metrics", "127.0.0.1:0"] if metrics else [])]
        super().__init__([BUILD / "tarn-receive", "--port", 0, *args])
        self.wait_text("UDP and TCP\n", *(["/metrics\n"] if metrics else []))
        self.port = int(re.search(r"127\.0\.0\.1:(\d+), UDP", self.text)[1])
        self.target = metrics and re.search(r"http://(127\.0\.0\.1:\d+)/metrics", self.text)[1]
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def send(self, *packets):
        for packet in packets:
            self.socket.sendto(packet, ("127.0.0.1", self.port))

    def metrics(self):
        return fetch(f"http://{self.target}/metrics")

    def metric(self, name):
        found = re.search(rf"^{re.escape(name)} (\S+)$", self.metrics(), re.M)
        return found and float(found[1])

    def wait_metric(self, name, value, seconds=15):
        wait_for(lambda: self.metric(name) == value, seconds, 0.1)


def fetch(url, **query):
    with urllib.request.urlopen(url + ("?" + urllib.parse.urlencode(query) if query else ""), timeout=15) as answer:
        return answer.read().decode()


def series(name, labels, value):
    return name, tuple(sorted(labels.items())), value


def stored_in_victoria(port):
    rows = map(json.loads, fetch(f"http://127.0.0.1:{port}/api/v1/export", **{"match[]": '{host!=""}'}).splitlines())
    return {series(row["metric"].pop("__name__"), row["metric"], (value, stamp // 1000))
            for row in rows for value, stamp in zip(row["values"], row["timestamps"])}


def stored_in_influx(port):
    answer = json.loads(fetch(f"http://127.0.0.1:{port}/query", db="tarn", epoch="s", q="SELECT * FROM /.*/ GROUP BY *"))
    return {series(f"{one['name']}_{column}", {key: tag for key, tag in one["tags"].items() if tag}, (value, row[0]))
            for one in answer["results"][0].get("series", []) for row in one["values"]
            for column, value in zip(one["columns"][1:], row[1:]) if value is not None}


def stored_in_prometheus(port):
    rows = json.loads(fetch(f"http://127.0.0.1:{port}/api/v1/query", query='{host!=""}'))["data"]["result"]
    return {series(row["metric"].pop("__name__"), {key: label for key, label in row["metric"].items()
                                                   if key not in ("instance", "job")}, float(row["value"][1]))
            for row in rows}


def victoria_count(port, query):
    rows = json.loads(fetch(f"http://127.0.0.1:{port}/api/v1/query", query=query))["data"]["result"]
    return int(rows[0]["value"][1]) if rows else 0


FALLEN = 2**64 // 15 - 20

KNOWN = {
    "lavg": 0.25, "ncpu": 4, "mem": {"ok": 1, "free": 23, "used": 5}, "cpu": {"ok": 1, "idle": 57, "user": FALLEN},
    "socket": {"ok": 0, "tcp_inuse": 0}, "mounts": {"/a b,c=\"d\"": {"ok": 1, "free": 2, "space_perc": 0.5}},
    "disks": {"sda": {"ok": 1, "name": "sda", "sread": 4, "avio": math.nan, "busy": 12.5}},
    "net": {"eth0": {"ok": 1, "name": "eth0", "rbytes": 800, "sbytes": 2**63 - 8}},
    "redises": {"main": {"ok": 1, "uptime": 900, "total_commands_processed": 1800, "keyspace_hits": 2**32 // 15 - 4}},
    "mycustoms": {"Postgre_a": {"report": "Postgre", "id": "a", "ok": 1, "cmtd": FALLEN, "chk_t": 3, "actv_con": FALLEN}},
    "custom": {"web_users": {"report": "web", "name": "users", "interval": 15, "value": -1.5}},
    "docker": {"db": {"cpu_usage": math.inf, "state": "running"}}}

STORED = [
    ("tarn_host_interval_seconds", {}, 15), ("tarn_host_load1", {}, 0.25), ("tarn_host_cpus", {}, 4),
    ("tarn_memory_free_bytes", {}, 23552), ("tarn_memory_used_bytes", {}, 5120), ("tarn_cpu_idle_ratio", {}, 0.57),
    ("tarn_filesystem_free_bytes", {"mountpoint": '/a b,c="d"'}, 2097152),
    ("tarn_filesystem_free_space_ratio", {"mountpoint": '/a b,c="d"'}, 0.5),
    ("tarn_disk_read_bytes_per_second", {"device": "sda"}, 2048), ("tarn_disk_busy_ratio", {"device": "sda"}, 0.125),
    ("tarn_network_received_bytes_per_second", {"interface": "eth0"}, 100),
    ("tarn_redis_uptime_seconds", {"server": "main"}, 900), ("tarn_redis_commands_per_minute", {"server": "main"}, 1800),
    ("tarn_postgresql_timed_checkpoints_total", {"server": "a"}, 3),
    ("tarn_postgresql_active_sessions_change_per_minute", {"server": "a"}, -20),
    ("tarn_script_interval_seconds", {"script": "web_users"}, 15), ("tarn_script_value", {"script": "web_users"}, -1.5),
    ("tarn_container_running", {"container": "db"}, 1)]

OWN = {"tarn_host_up", "tarn_host_report_age_seconds", "tarn_host_report_timestamp_seconds"}


@contextlib.contextmanager
def closing(*things):
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(contextlib.closing(thing())) for thing in things]


def test_a_report_is_found_in_every_engine_value_by_value_and_a_silent_host_raises_an_alert(tmp_path):
    (tmp_path / "headers").write_text("X-Test: 1\n")
    with closing(VictoriaMetrics, InfluxDb) as (victoria, influx):
        fetch(f"http://127.0.0.1:{influx.port}/query", q="CREATE DATABASE tarn")
        with Receiver(forward=f"http://127.0.0.1:{victoria.port}/write?precision=ms") as first, \
                Receiver("--forward-headers", tmp_path / "headers",
                         forward=f"http://127.0.0.1:{influx.port}/write?db=tarn", metrics=False) as second, \
                contextlib.closing(Prometheus(target=first.target, rules=DOCS / "alerts.yml")) as prometheus:
            now = int(time.time())
            for receiver in first, second:
                receiver.send(report("0a-b", now, **KNOWN), report(7, now - 60, interval=1, ncpu=1))
            labels = {"host": "0a-b", "name": "web 1"}
            known = {series(name, {**labels, **more}, value) for name, more, value in STORED}
            timed = {(name, tags, (value, now)) for name, tags, value in known} | {
                series(f"tarn_host_{name}", {"host": "7"}, (1, now - 60)) for name in ("interval_seconds", "cpus")}
            wait_for(lambda: stored_in_victoria(victoria.port) == timed, 10, 0.2)
            wait_for(lambda: stored_in_influx(influx.port) == timed, 10, 0.2)
            wait_for(lambda: len(stored_in_prometheus(prometheus.port)) >= len(known), 10, 0.2)
            scraped = {one for one in stored_in_prometheus(prometheus.port) if one[0] not in OWN and ("host", "0a-b") in one[1]}
            assert scraped == known
            wait_for(lambda: "TarnHostSilent" in (alerts := fetch(f"http://127.0.0.1:{prometheus.port}/api/v1/alerts"))
                     and '"state":"firing"' in alerts, 15, 0.2)
            assert first.metric('tarn_host_up{host="7"}') == 0 and first.metric('tarn_host_cpus{host="7"}') is None
            assert first.metric('tarn_host_up{host="0a-b",name="web 1"}') == 1
            rule = next(line.strip() for line in re.split(r"expr: (?:>-)?", (DOCS / "alerts.yml").read_text())
                        if line.strip().startswith("time()")).split("labels:")[0]
            assert '"host":"7"' in (silent := fetch(f"http://127.0.0.1:{victoria.port}/api/v1/query", query=rule))
            assert '"host":"0a-b"' not in silent


def test_promtool_finds_nothing_wrong_with_any_metric_or_rule():
    """The report has every figure of the documentation's tables."""
    sections, sample = {}, {"int32": 99, "int64": 99, "double": 0.5, "string": "running"}
    for name, table in re.findall(r"<!-- figures: (\w+) -->\n(.*?)<!-- end", (DOCS / "report.md").read_text(), re.S):
        rows = re.findall(r"^\| `(\w+)` \| (\w+) \|[^|]*\| (`\w+`)?", table, re.M)
        sections[name] = {key: sample[kind] for key, kind, exported in rows if exported}, [row[2] for row in rows if row[2]]
    names = [exported for _, names in sections.values() for exported in names]
    elements = sections.pop("top")[0]
    kinds = ("Postgre", "Sphinx", "Rabbit", "Elastic", "Apache", "Nginx", "FPM")
    for name, (figures, _) in sections.items():
        elements[name] = figures if name in ("mem", "cpu", "socket") else {"a": figures, "b": figures}
    elements["mycustoms"] = {kind: {**elements.pop(kind)["a"], "report": kind, "id": "a"} for kind in kinds}
    elements.pop("interval")
    with Receiver() as receiver:
        receiver.send(report(1, time.time(), **elements), b"bad")
        receiver.wait_metric("tarn_receive_reports_total", 1)
        text = receiver.metrics()
    assert len(names) > 140 and [name for name in names if f"\n{name.strip('`')}{{" not in text] == []
    for command, given in (["promtool", "check", "metrics"], text), (["promtool", "check", "rules", DOCS / "alerts.yml"], ""):
        done = subprocess.run(command, input=given, capture_output=True, text=True, timeout=20, check=False)
        assert (done.returncode, done.stderr) == (0, "")
    dashboard = json.dumps(json.loads((DOCS / "dashboard.json").read_text())["panels"])
    used = set(re.findall(r"tarn_\w+", dashboard + (DOCS / "alerts.yml").read_text()))
    assert len(used) > 15 and [name for name in used if f"# TYPE {name} " not in text] == []


def test_nothing_is_lost_when_the_engine_restarts_under_load_and_at_the_end():
    with closing(VictoriaMetrics) as [victoria]:
        with Receiver(forward=f"http://127.0.0.1:{victoria.port}/api/v2/write") as receiver:
            start = int(time.time()) - 100
            for second in range(60):
                receiver.send(*(report(host, start + second, ncpu=second) for host in range(1, 51)))
                time.sleep(0.05)
                if second == 10:
                    receiver.wait_metric("tarn_receive_queued_reports", 0)
                    victoria.stop()
                if second == 40:
                    receiver.has_said("tarn-receive: cannot forward: ")
                    assert receiver.metric("tarn_receive_queued_reports") == receiver.metric(
                        "tarn_receive_reports_total") - receiver.metric("tarn_receive_forwarded_reports_total") > 1000
                    victoria.start()
                    receiver.wait_metric("tarn_receive_queued_reports", 0)
                    receiver.has_said("tarn-receive: forwards again\n")
            status, took = receiver.stop(seconds=6)
        assert status == 0 and took < 5
        receiver.has_said("tarn-receive: 3000 forwarded, 0 refused, 0 dropped, 0 not sent\ntarn-receive: 3000 good, 0 bad\n")
        fetch(f"http://127.0.0.1:{victoria.port}/internal/force_flush")
        wait_for(lambda: victoria_count(victoria.port, "sum(count_over_time(tarn_host_cpus[5m]))") == 3000, 10, 0.2)


def test_wrong_secrets_and_replays_are_refused_by_reason(tmp_path):
    secrets = tmp_path / "secrets"
    secrets.write_text("# fleet\n1 one\n\n 0a-b  two # not a comment\n")
    refused = subprocess.run([BUILD / "tarn-receive", "--secrets", secrets], capture_output=True, text=True, timeout=5)
    assert (refused.returncode, refused.stderr) == (1, f"tarn-receive: {secrets}, line 4: not an id or UUID and a secret\n")
    secrets.write_text("# fleet\n1 one\n\n 0a-b  two\n")
    now = time.time()

    def count(reason):
        return receiver.metric(f'tarn_receive_bad_packets_total{{reason="{reason}",source="127.0.0.1"}}')

    with Receiver("--secrets", secrets, "--format", "jsonl") as receiver:
        good = report(1, now, "one")
        receiver.send(good, good, report(1, now - 1, "one"), report(1, now + 1, "two"), report(1, now + 1), report(2, now, "one"),
                      report("0a-b", now, "one"), report("0a-b", now + 4000, "two"), report("0a-b", now, "two"),
                      good[:-1], b"", b"\x05\0\0\0\0" + b"0" * 40, b"\xff" * 60000)
        with socket.create_connection(("127.0.0.1", receiver.port)) as connection:
            connection.sendall(report(1, now + 2, "one"))
        receiver.wait_metric("tarn_receive_reports_total", 3)
        reasons = {"not newer than the last": 2, "wrong signature": 2, "not signed": 1, "unknown host": 2,
                   "dated in the future": 1, "wrong length": 2, "shorter than any document": 1}
        assert {reason: count(reason) for reason in reasons} == reasons
        secrets.write_text("2 three\n")
        receiver.process.send_signal(1)
        receiver.wait_text("secrets read again\n")
        receiver.send(report(1, now + 3, "one"), report(2, now, "three"))
        receiver.wait_metric("tarn_receive_reports_total", 4)
        secrets.write_text("")
        receiver.process.send_signal(1)
        receiver.wait_text(f"no secret in {secrets}\n")
        receiver.send(report(2, now + 1, "three"))
        receiver.wait_metric("tarn_receive_reports_total", 5)
    lines = [json.loads(line) for line in receiver.text.splitlines() if line.startswith("{")]
    assert [line["report"].get("id") for line in lines] == [1, None, 1, 2, 2]
    assert {line["signature"] for line in lines} == {"good"}


class Engine(http.server.ThreadingHTTPServer):
    """Answers each POST with the next of the given statuses and keeps the bodies that it accepts."""

    def __init__(self, *statuses):
        self.statuses, self.bodies, self.encodings = list(statuses), [], []
        super().__init__(("127.0.0.1", 0), self.Handler)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def close(self):
        self.shutdown()
        self.server_close()

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_POST(self):
            body = self.rfile.read(int(self.headers["Content-Length"]))
            encoding = self.headers["Content-Encoding"]
            status = self.server.statuses.pop(0) if self.server.statuses else 204
            self.server.encodings.append((encoding, status))
            if status == 204:
                self.server.bodies.append(gzip.decompress(body) if encoding else body)
            self.send_response(status)
            self.send_header("Content-Length", "0")
            self.end_headers()

        def log_message(self, *_):
            pass


def test_an_engine_that_takes_no_gzip_fails_or_refuses(tmp_path):
    with closing(lambda: Engine(415, 503, 204, 400)) as [engine]:
        with Receiver(forward=f"http://127.0.0.1:{engine.server_port}/write?precision=ns") as receiver:
            for number, (sent, refused) in enumerate([(1, 0), (1, 1), (2, 1)], 1):
                receiver.send(report(1, number, ncpu=number))
                receiver.wait_metric("tarn_receive_forwarded_reports_total", sent)
                receiver.wait_metric("tarn_receive_refused_reports_total", refused)
    assert engine.encodings == [("gzip", 415), (None, 503), (None, 204), (None, 400), ("gzip", 204)]
    assert [body.split()[-1] for body in engine.bodies] == [b"1000000000", b"3000000000"]
    receiver.has_said("HTTP 503 ", "1 reports refused: HTTP 400 ")


def test_a_full_queue_drops_the_oldest_and_slow_clients_cost_a_descriptor():
    with closing(lambda: Engine(*[503] * 9)) as [engine], \
            Receiver("--queue", 1, forward=f"http://127.0.0.1:{engine.server_port}/write") as receiver:
        idle = [socket.create_connection(("127.0.0.1", receiver.port)) for _ in range(520)]
        slow = socket.create_connection(receiver.target.split(":"))
        slow.sendall(b"GET /metr")
        for number in range(1, 4000):
            values = {str(place): {"value": random.random()} for place in range(60)}
            receiver.send(report(1, number, custom=values))
        receiver.wait_metric("tarn_receive_reports_total", 3999)
        receiver.has_said("the queue is full, the oldest reports are dropped\n")
        assert receiver.metric("tarn_receive_queued_bytes") < 2.1e6
        engine.statuses.clear()
        receiver.wait_metric("tarn_receive_queued_reports", 0)
        dropped = receiver.metric("tarn_receive_dropped_reports_total")
        assert 0 < dropped == 3999 - receiver.metric("tarn_receive_forwarded_reports_total")
        assert receiver.metric('tarn_receive_bad_packets_total{reason="idle",source="127.0.0.1"}') == 8
        for one in (slow, *idle):
            one.close()
    assert engine.bodies[-1].split()[-1] == b"3999"


@pytest.mark.parametrize("args, message", [
    ("--forward ftp://x/", "tarn-receive: not http or https"), ("--forward http://x:99999/", "tarn-receive: "),
    ("--forward http://x/?precision=h", "tarn-receive: the precision is not s, ms, us or ns"),
    ("--queue 1", "--queue requires --forward"), ("--metrics 127.0.0.1", "127.0.0.1 is not an IPv4 address and a port"),
    ("--metrics 127.0.0.1:99999", "is not an IPv4 address and a port"), ("--metrics 192.0.2.1:1", "cannot listen on 192.0.2.1:1"),
    ("--secrets /none", "cannot open /none"), ("--secrets /etc/hostname --secret a", "excludes")])
def test_options(args, message):
    done = subprocess.run([BUILD / "tarn-receive", "--port", "0", *args.split()], capture_output=True, text=True, timeout=10)
    assert done.returncode == 1 and message in done.stderr


def test_printed_forms():
    odd = report("0a", 5, custom={}, redises={"0": {"uptime": 2}}, docker={"a": {"cpu_usage": math.nan, "state": "dead"}})
    with Receiver("--format", "jsonl", metrics=False) as jsonl, Receiver("--format", "influx", metrics=False) as influx:
        jsonl.send(odd)
        influx.send(odd)
        wait_for(lambda: "cpu_usage" in jsonl.text and "running" in influx.text)
    line = json.loads(jsonl.text.splitlines()[1], parse_constant=pytest.fail)
    assert re.fullmatch(r"127\.0\.0\.1:\d+", line["sender"]) and line["signature"] == "not signed"
    assert abs(time.time() - time.mktime(time.strptime(line["arrived"][:19], "%Y-%m-%dT%H:%M:%S")) + time.timezone) < 60
    assert line["report"]["redises"] == {"0": {"uptime": 2}} and line["report"]["custom"] == {}
    assert line["report"]["docker"] == {"a": {"cpu_usage": None, "state": "dead"}}
    assert influx.text.splitlines()[1].endswith("signature: not signed")
    assert influx.text.splitlines()[2:5] == ["tarn_host,host=0a,name=web\\ 1 interval_seconds=15i 5",
                                             "tarn_redis,host=0a,name=web\\ 1,server=0 uptime_seconds=2i 5",
                                             "tarn_container,host=0a,name=web\\ 1,container=a running=0i 5"]
