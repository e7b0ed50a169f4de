"""Containers: a scripted engine for every state and fault, and a real one."""

import json
import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

from fake_server import FakeServer, captured, saying, saying_in_turn
from real_servers import MariaDb, Redis, Server, run, template
from tarn_host import Agent, Collector, children, shm_keys, wait_for

SOCKET = Path("/run/docker.sock")
KEY = 7 + 1
HEAD = b"HTTP/1.0 200 OK\r\nContent-Type: application/json\r\n\r\n"


def inspection(ip="127.0.0.1", **state):
    return HEAD + json.dumps({"Id": "x", "State": state, "NetworkSettings": {"IPAddress": ip}}).encode() + b"\n"


def statistics(now, before, cpus=2):
    """A message in which the container had `now - before` of 1000 units of the host's time."""
    return json.dumps({"read": "now", "cpu_stats": {"cpu_usage": {"total_usage": now}, "system_cpu_usage": 2000},
                       "precpu_stats": {"cpu_usage": {"total_usage": before}, "system_cpu_usage": 1000,
                                        "online_cpus": cpus}}).encode() + b"\n"


class Engine(FakeServer):
    """Answers "/containers/NAME/json" and ".../stats" as told; a behaviour may be given in place of bytes."""

    def __init__(self, answers, streams=None, path=SOCKET):
        self.answers, self.streams = answers, streams or {}
        super().__init__(self.serve, path)

    @staticmethod
    def serve(self, peer, number):
        request = self.read(peer).decode()
        name, what = re.match(r"GET /containers/(.*)/(json|stats\?stream=true) HTTP/1.0\n\n$", request).groups()
        answer = (self.answers if what == "json" else self.streams).get(name, HEAD)
        if callable(answer):
            answer(self, peer, number)
        else:
            peer.sendall(answer)

    def __exit__(self, *_):
        super().__exit__()
        SOCKET.unlink(missing_ok=True)


def lines(names, port):
    return "".join(f"redis_{name} u:@[{name}]:{port}\n" for name in names)


@pytest.fixture(scope="module")
def redis():
    server = Redis()
    yield server
    server.close()


def test_states_addresses_and_cpu_figures(tmp_path, redis):
    streams = {}

    def spread(server, peer, _):  # headers first, then a message in pieces, then two in one
        for part in (HEAD, statistics(500, 0)[:50], statistics(500, 0)[50:], statistics(1, 0) + statistics(250, 0)):
            peer.sendall(part)
            time.sleep(0.1)
        time.sleep(30)

    def endless(server, peer, _):
        peer.sendall(HEAD + b'{"a":"' + b"x" * (2 << 20))
        time.sleep(30)

    streams["run"] = spread
    streams["paused"] = HEAD + statistics(100, 0)  # and the stream ends
    streams["dead"] = endless
    states = {"run": (inspection(Running=True, Paused=True, Status="running"), "running"),
              "paused": (inspection(Running=False, Paused=True, OOMKilled=True), "paused"),
              "dead": (inspection(Running=False, Dead=True, Paused=True), "dead"),
              "oom": (inspection(Running=False, OOMKilled=True, Restarting=True, Status="exited"), "oomkilled"),
              "again": (inspection(Running=False, Restarting=True), "restarting"),
              "gone": (inspection(Running=False, Status="exited"), "exited"),
              "named": (inspection(ip="", Running=True), "running"),
              "none": (b'HTTP/1.0 404 Not Found\r\n\r\n{"message":"No such container: none"}\n', "exited")}
    with Engine({name: answer for name, (answer, _) in states.items()}, streams) as engine, Collector() as collector:
        with Agent(tmp_path, collector.config(lines(states, redis.port)), "--debug") as agent:
            def followed():
                report = collector.report()
                return report if report.get("docker", {}).get("run", {}).get("cpu_usage") == 50.0 else None
            report = wait_for(followed, 15)
            assert KEY in shm_keys()
            agent.stop()
        assert {name: item["state"] for name, item in report["docker"].items()} == \
            {name: state for name, (_, state) in states.items()}
        assert list(report["docker"]) == list(states) and list(report["docker"]["run"]) == ["cpu_usage", "state"]
        assert report["docker"]["paused"]["cpu_usage"] == 20.0 and report["docker"]["dead"]["cpu_usage"] == 0.0
        assert set(report["redises"]) == {"run"}
        assert engine.requests[0] == b"GET /containers/run/json HTTP/1.0\n\n"
        assert b"GET /containers/gone/stats?stream=true HTTP/1.0\n\n" in engine.requests
    for text in (f"shmget() succeeded key = {KEY}\n", "Successfully forked docker child pid = ",
                 f"[docker-child] shmat() succeeded key = {KEY}\n", "[docker-child] Started gathering stats\n",
                 "[docker-child] Started loop\n", "[docker] Not found container in internal structure 'run', adding\n",
                 "[docker] Added container 'run', index=0\n", "[docker] Found container 'run', index=0\n",
                 "[docker] Updated container info for 'gone'\n\tindex\t5\n\tstatus\t'exited'\n\tcpu\t0.00%\n",
                 "[redis] Cannot resolve IP for container 'named'\n", "[docker-child] Stopped loop\n",
                 "[docker-child] Freeing shm\n", "[docker-child] Exiting\n", "Freeing docker-related structures\n"):
        assert text in agent.text
    assert not {KEY - 1, KEY} & set(shm_keys())


def test_a_broken_engine_leaves_everything_else_alone(tmp_path, redis):
    def hanging(server, peer, _):
        time.sleep(20)

    def kept_open(server, peer, _):
        peer.sendall(inspection(Running=True))
        time.sleep(20)

    def flooding(server, peer, _):
        while True:
            peer.sendall(HEAD + b"x" * 100000)

    answers = {"e500": b"HTTP/1.0 500 Oops\r\n\r\n<html>", "broken": HEAD + b'{"State":', "deep": HEAD + b'{"a":' * 100000,
               "list": HEAD + b'[{"State":{}}]', "nothing": b"", "hanging": hanging, "flooding": flooding,
               "wrong": HEAD + b'{"State":7,"NetworkSettings":{"IPAddress":12}}', "kept": kept_open,
               "long": HEAD + b'{"State":{"Running":true},"NetworkSettings":{"IPAddress":"%s"}}' % (b"1" * 500)}
    config = lines(answers, redis.port) + lines(["n" * 1010], 1).replace("redis_" + "n" * 1010, "redis_name")
    with Engine(answers), Collector() as collector:
        with Agent(tmp_path, collector.config(f"{config}redis_good u:@127.0.0.1:{redis.port}\n")) as agent:
            report = [collector.report(30) for _ in range(2)][-1]
            assert set(report["redises"]) == {"kept", "good"}
            assert set(report["docker"]) == {"list", "wrong", "kept", "long"}
            agent.stop()
    assert "select() returned 0\n" in agent.text
    for name in ("e500", "broken", "deep", "hanging", "flooding", "n" * 127):
        assert f"[redis] Cannot resolve IP for container '{name}'\n" in agent.text


def test_no_engine_is_said_and_no_more(tmp_path, redis):
    with Collector() as collector, Agent(tmp_path, collector.config(lines(["c"], redis.port))) as agent:
        assert "docker" not in collector.reports(2)[-1]
        SOCKET.mkdir()
        assert "docker" not in collector.reports(2)[-1]
        agent.stop()
    SOCKET.rmdir()
    for text in ("connect: No such file or directory\n", "connect: Connection refused\n",
                 "[redis] Cannot resolve IP for container 'c'\n"):
        assert text in agent.text


def test_a_configured_socket_serves_until_the_other_process_sets_the_default(tmp_path, redis):
    path = tmp_path / "a b.sock"
    script = "custom a b interval=1 echo 1\n"  # with scripts there is no such process, and the socket stays
    with Engine({"c": inspection(Running=True)}, path=path), Collector() as collector:
        config = collector.config(f"docker_sock {path}\n{script}" + lines(["c"], redis.port))
        with Agent(tmp_path, config) as agent:
            assert set(collector.reports(3)[-1]["redises"]) == {"c"}
            assert agent.stop()[0] == 0
    assert f"Docker socket '{path}'\n" in agent.text and "docker-child" not in agent.text
    assert not {KEY - 1, KEY} & set(shm_keys())


def test_without_a_key_there_are_no_containers(tmp_path):
    with Collector() as collector, Agent(tmp_path, collector.config().replace("id 7", f"id {2**32 - 1}")) as agent:
        assert "docker" not in collector.reports(1)[0]
        agent.wait_text("[docker-child] shmget() failed for key = 0, id=-1\n")
        agent.stop()
    assert agent.text.count("[docker] no container table, going on without containers\n") == 1


def test_an_orphaned_statistics_process_ends_by_itself_and_harms_no_successor(tmp_path, redis):
    def endless(cpu):
        def stream(server, peer, _):
            while True:
                peer.sendall(statistics(cpu, 0))
                time.sleep(0.2)
        return stream

    def with_cpu(collector, value):
        return lambda: dict(collector.report().get("docker", {})).get("c", {}).get("cpu_usage") == value

    with Engine({"c": inspection(Running=True)}, {"c": endless(100)}) as engine, Collector() as collector:
        config = collector.config(lines(["c"], redis.port))
        with Agent(tmp_path, config) as killed:
            wait_for(with_cpu(collector, 20.0))
            orphan = children(killed.pid)[0]
            start = time.monotonic()
            os.kill(killed.pid, signal.SIGKILL)
            killed.process.wait()
            engine.streams["c"] = endless(300)
            with Agent(tmp_path, config) as successor:
                wait_for(with_cpu(collector, 60.0))
                assert all(with_cpu(collector, 60.0)() for _ in range(3))
                wait_for(lambda: not Path(f"/proc/{orphan}").exists(), 40)
                assert 29 < time.monotonic() - start < 35
                assert KEY in shm_keys() and with_cpu(collector, 60.0)()
                assert successor.stop()[0] == 0
    assert "[docker-child] Exiting\n" in killed.text and KEY not in shm_keys()


class Docker(Server):
    """The engine of the distribution, with a busybox image; everything of it lies in its own directory."""

    def __init__(self):
        super().__init__("dockerd")
        root = self.directory / "root/bin"
        root.mkdir(parents=True)
        run("cp", "/bin/busybox", root / "sh")
        run("cp", "/bin/busybox", root / "busybox")
        image = subprocess.Popen(["tar", "-C", str(root.parent), "-c", "."], stdout=subprocess.PIPE)
        run(*self.client, "import", "-", "box", stdin=image.stdout)
        image.wait()

    client = ("docker", "-H", f"unix://{SOCKET}")

    def command(self):
        return ["dockerd", "--iptables=false", "--ip6tables=false", "--storage-driver=vfs", "-H", f"unix://{SOCKET}",
                "--data-root", self.directory / "data", "--exec-root", self.directory / "exec",
                "--pidfile", self.directory / "pid"]

    def ready(self):
        return subprocess.run([*self.client, "info"], capture_output=True, check=False).returncode == 0

    def run(self, name, script):
        run(*self.client, "run", "-d", "--name", name, "box", "/bin/sh", "-c", script)

    def close(self):
        names = run(*self.client, "ps", "-aq").decode().split()
        if names:
            run(*self.client, "rm", "-f", *names)
        super().close()


@pytest.fixture(scope="module")
def docker():
    engine = Docker()
    yield engine
    engine.close()


def test_real_containers(tmp_path, docker):
    docker.run("busy", "while :; do :; done")
    docker.run("store", "while :; do echo uptime_in_seconds:77 | busybox nc -l -p 6379; done")
    docker.run("idle", "exec busybox sleep 1000")
    docker.run("stopped", "exit 0")
    run(*docker.client, "pause", "idle")
    names = ("busy", "store", "idle", "stopped")
    with Collector() as collector, Agent(tmp_path, collector.config(lines(names, 6379)), "--debug") as agent:
        def busy():
            report = collector.report()
            return report if report.get("docker", {}).get("busy", {}).get("cpu_usage", 0) > 50 else None
        report = wait_for(busy, 30)
        states = {name: item["state"] for name, item in report["docker"].items()}
        # A paused container runs, to the engine; that comes first.
        assert states == {"busy": "running", "store": "running", "idle": "running", "stopped": "exited"}
        assert report["docker"]["store"]["cpu_usage"] < 5
        assert report["redises"]["store"]["uptime"] == 77
        run(*docker.client, "kill", "store")
        wait_for(lambda: collector.report()["docker"]["store"]["state"] == "exited")
        wait_for(lambda: "store" not in collector.report()["redises"])
        run(*docker.client, "start", "store")
        wait_for(lambda: "store" in collector.report()["redises"])
        assert agent.stop()[0] == 0
    assert not {KEY - 1, KEY} & set(shm_keys())
    assert "[redis] Cannot resolve IP for container 'stopped'\n" in agent.text


def test_a_name_in_brackets_serves_for_every_kind_that_takes_one(tmp_path, docker, redis):
    """The services are the host's; a container passes every connection on to them, in pieces of its own, so that
    answers which are read once or until a short read are short."""
    pools = {"nodes": {"node-7": {"thread_pool": {"search": {"queue": 3, "active": 2}}}}}
    behaviours = {6379: saying(captured("redis_info.txt")[:600]), 11211: saying(captured("memcached_stats.txt")),
                  80: saying(captured("nginx_status.txt")), 9000: saying(captured("fpm_answer.bin")),
                  15672: saying_in_turn(HEAD + b'[{"running":true}]', HEAD + b'[{"messages":3},{"messages":4}]'),
                  9200: saying_in_turn(HEAD + json.dumps(pools).encode(), captured("elastic_health.txt"))}
    servers = {port: FakeServer(behaviour, host="0.0.0.0") for port, behaviour in behaviours.items()}
    servers[3306] = MariaDb()
    forward = "; ".join(f"busybox nc -ll -p {port} -e busybox nc 172.17.0.1 {server.port} &"
                        for port, server in servers.items()).replace("&;", "&")
    docker.run("hub", forward + " wait")
    with Collector() as collector, Agent(tmp_path, collector.config(template("brackets.conf"))):
        def complete():
            report = collector.report(20)
            found = {name for family in ("redises", "memcaches", "mysqls", "mycustoms") for name in dict(report[family])}
            return found == {"a", "[hub]:11211", "Nginx_a", "FPM_a", "Rabbit_a", "Elastic_a"} and report
        report = wait_for(complete, 30)
    assert report["mysqls"]["a"]["innodb_pool"] > 0 and report["redises"]["a"]["uptime"] == 2
    assert report["mycustoms"]["Rabbit_a"]["queues_sum_len"] == 7 and report["mycustoms"]["FPM_a"]["total"] == 3
    assert report["mycustoms"]["Elastic_a"]["threads_search_queue"] == 3
    assert report["docker"]["hub"]["state"] == "running"
    servers[3306].close()
