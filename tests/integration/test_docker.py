"""Containers: a scripted engine for every state and fault, and a real one."""

import contextlib
import os
import re
import signal
import time
from pathlib import Path

from fake_server import CLIENT_LIBRARIES, HTTP_OK, MYSQL_GREETING, FakeServer, answering, inspection, line_of
from harness import Agent, Collector, children, drawn_second, flat, scribbling, shm_blocks, template, wait_for
from real_servers import Docker

SOCKET = Path("/run/docker.sock")


def statistics(used):
    """A message in which the container used so much of 1000 units of the host's time, of two processors."""
    return template("statistics.json", used=used).encode()


def cpu_usage(report, name):
    return report.get("docker", {}).get(name, {}).get("cpu_usage")


def states_in(report):
    return {name: container["state"] for name, container in report.get("docker", {}).items()}


class Engine(FakeServer):
    """Answers "/containers/NAME/json" and ".../stats" with the bytes or steps under that name."""

    def __init__(self, answers, streams=None, path=SOCKET):
        self.answers, self.streams = answers, streams or {}
        super().__init__(self.answer, path=path)

    def answer(self, peer):
        self.requests.append(request := peer.recv(65536))
        found = re.match(r"GET /containers/(.*)/(json|stats\?stream=true) HTTP/1.0\n\n$", request.decode())
        steps = (self.answers if found[2] == "json" else self.streams).get(found[1], HTTP_OK)
        self.play(peer, [steps] if isinstance(steps, bytes) else steps)


def lines(names, port):
    return "".join(line_of("redis", name, port, f"[{name}]") for name in names)


def test_states_addresses_and_cpu_figures(tmp_path, redis):
    spread = [HTTP_OK, statistics(500)[:50], statistics(500)[50:], statistics(1) + statistics(250)]
    streams = {"run": [step for part in spread for step in (part, 0.1)] + [30],
               "paused": HTTP_OK + statistics(100),  # and the stream ends
               "dead": (HTTP_OK + b'{"a":"', (b"x" * 65536, 0.01))}
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
            report = collector.report_where(lambda report: set(report["redises"]) == {"run"} and (
                cpu_usage(report, "run"), cpu_usage(report, "paused")) == (50.0, 20.0))
            wait_for(lambda: engine.broken_off)  # the object that does not end
        assert states_in(report) == {name: state for name, (_, state) in states.items()}
        assert list(report["docker"]) == list(states) and list(report["docker"]["run"]) == ["cpu_usage", "state"]
        assert cpu_usage(report, "dead") == 0.0
        assert engine.requests[0] == b"GET /containers/run/json HTTP/1.0\n\n"
        assert b"GET /containers/gone/stats?stream=true HTTP/1.0\n\n" in engine.requests
    agent.has_said(*template("docker.txt", "golden").splitlines(keepends=True))


def test_all_containers_of_a_late_first_cycle_are_followed(tmp_path, redis):
    names = ["one", "two", "three"]
    streams = {name: [statistics(100 * place), 30] for place, name in enumerate(names, 1)}
    late_once = iter([3])
    answers = dict.fromkeys(names, inspection(Running=True))
    answers["two"] = [lambda _: time.sleep(next(late_once, 0)), answers["two"]]
    with Engine(answers, streams), Collector() as collector:
        # The statistics process waits for the first container then.
        wait_for(lambda: 3 <= (drawn_second(time.time(), 6) + 2 - int(time.time())) % 6 <= 4)
        with Agent(tmp_path, collector.config("interval 6\n" + lines(names, redis.port))):
            collector.report_where(lambda report: [cpu_usage(report, name) for name in names] == [20.0, 40.0, 60.0])


def test_an_answer_that_takes_a_tenth_of_a_second_costs_no_other_container(tmp_path, redis):
    names = [f"c{number}" for number in range(12)]
    answers = dict.fromkeys(names, inspection(Running=True))
    answers["c0"] = [0.1, answers["c0"]]
    with Engine(answers), Collector() as collector:
        with Agent(tmp_path, collector.config("interval 2\n" + lines(names, redis.port))):
            collector.report_where(lambda report: set(report["redises"]) == set(names))


def test_a_broken_engine_leaves_everything_else_alone(tmp_path, redis):
    failing = {"e500": b"HTTP/1.0 500 Oops\r\n\r\n<html>", "broken": HTTP_OK + b'{"State":', "nothing": b"",
               "deep": HTTP_OK + b'{"a":' * 100000, "hanging": [20], "flooding": [HTTP_OK, (b"x" * 100000,)]}
    known = {"list": HTTP_OK + b'[{"State":{}}]', "wrong": HTTP_OK + b'{"State":7,"NetworkSettings":{"IPAddress":12}}',
             "kept": [inspection(Running=True), 20],
             "long": HTTP_OK + b'{"State":{"Running":true},"NetworkSettings":{"IPAddress":"%s"}}' % (b"1" * 500)}
    config = lines([*failing, *known], redis.port) + f"redis_name u:@[{'n' * 1010}]:1\n"
    with Engine(failing | known), Collector() as collector:
        with Agent(tmp_path, collector.config(f"{config}redis_good u:@127.0.0.1:{redis.port}\n")) as agent:
            collector.report_where(lambda report: set(report["redises"]) == {"kept", "good"}
                                   and set(report["docker"]) == set(known))
    agent.has_said("select() returned 0\n",
                   *(f"[redis] Cannot resolve IP for container '{name}'\n" for name in [*failing, "n" * 127]))


def test_a_table_that_anybody_scribbles_over_harms_nobody(tmp_path, redis):
    streams = {"c": [(statistics(100), 0.01)]}
    with Engine({"c": inspection(Running=True)}, streams) as engine, Collector() as collector:
        with Agent(tmp_path, collector.config(lines("c", redis.port))) as agent:
            with scribbling(8):  # from before the statistics process reads the names
                reports = collector.reports(6)
            whole = ["c" in report["redises"] and report["docker"]["c"]["state"] == "running" for report in reports]
            assert whole.count(True) >= 5  # a busy machine may cost one
            assert all(b"GET /containers/c/" in request for request in engine.requests)
            assert len(children(agent.pid)) == 1  # the statistics process


def test_no_engine_is_said_and_no_more(tmp_path, redis):
    with Collector() as collector, Agent(tmp_path, collector.config(lines("c", redis.port))) as agent:
        assert "docker" not in collector.report()
        SOCKET.mkdir()
        assert "docker" not in collector.reports_of_now()[-1]
    SOCKET.rmdir()
    agent.has_said("connect: No such file or directory\n", "connect: Connection refused\n",
                   "[redis] Cannot resolve IP for container 'c'\n")


def test_a_configured_socket_serves_until_the_other_process_sets_the_default(tmp_path, redis):
    path = tmp_path / "a b.sock"
    script = "custom a b interval=1 echo 1\n"  # with scripts there is no such process, and the socket stays
    with Engine({"c": inspection(Running=True)}, path=path), Collector() as collector:
        config = collector.config(f"docker_sock {path}\n{script}" + lines("c", redis.port))
        with Agent(tmp_path, config) as agent:
            collector.reports(2)
            collector.report_where(lambda report: set(report["redises"]) == {"c"})
    assert f"Docker socket '{path}'\n" in agent.text and "docker-child" not in agent.text


def test_without_a_key_there_are_no_containers(tmp_path):
    with Collector() as collector, Agent(tmp_path, collector.config(f"id {2**32 - 1}\n")) as agent:
        assert "docker" not in collector.report()
        agent.wait_text("[docker-child] shmget() failed for key = 0, id=-1\n")
    assert agent.text.count("[docker] no container table, going on without containers\n") == 1


def test_an_orphaned_statistics_process_ends_by_itself_and_harms_no_successor(tmp_path, redis):
    with Engine({"c": inspection(Running=True)}, {"c": [(statistics(100), 0.2)]}) as engine, Collector() as collector:
        config = collector.config(lines("c", redis.port))
        with Agent(tmp_path, config) as killed:
            collector.report_where(lambda report: cpu_usage(report, "c") == 20.0)
            orphan = children(killed.pid)[0]
            os.kill(killed.pid, signal.SIGKILL)
            killed.process.wait()
            engine.streams["c"] = [(statistics(300), 0.2)]
            with Agent(tmp_path, config):
                collector.report_where(lambda report: cpu_usage(report, "c") == 60.0)
                assert all(cpu_usage(report, "c") == 60.0 for report in collector.reports(3))
                wait_for(lambda: not Path(f"/proc/{orphan}").exists(), 45)
                assert 8 in shm_blocks() and cpu_usage(collector.reports_of_now()[-1], "c") == 60.0
    assert "[docker-child] Exiting\n" in killed.text


def test_a_name_in_brackets_serves_for_every_kind_that_takes_one(tmp_path):
    kinds = "redis", "memcached", "nginx", "fpm", "rabbit", "elastic"
    servers = {kind: FakeServer(*answering(kind)) for kind in kinds} | {"mysql": FakeServer(MYSQL_GREETING, ...)}
    config = CLIENT_LIBRARIES + "".join(line_of(kind, "a", server.port, "[hub]") for kind, server in servers.items())
    expected = {"a", f"[hub]:{servers['memcached'].port}", "Nginx_a", "FPM_a", "Rabbit_a", "Elastic_a"}
    with Engine({"hub": inspection(Running=True)}), Collector() as collector:
        with Agent(tmp_path, collector.config(config)):
            collector.report_where(lambda report: set(flat(report)) == expected)
    assert b"u\0" in servers["mysql"].requests[0]


def test_real_containers(tmp_path):
    names = ("busy", "store", "idle", "stopped")
    with contextlib.closing(Docker()) as docker, Collector() as collector, Agent(
            tmp_path, collector.config(lines(names, 6379)), "--debug") as agent:
        docker.ask(template("containers.sh"))
        # A paused container runs, to the engine; that comes first.
        report = collector.report_where(
            lambda report: states_in(report) == dict.fromkeys(names, "running") | {"stopped": "exited"}
            and cpu_usage(report, "busy") > 20 and "store" in report["redises"])
        assert cpu_usage(report, "store") < 5
        assert report["redises"]["store"]["uptime"] == 77
        docker.ask("docker kill store")
        collector.report_where(
            lambda report: "store" not in report["redises"] and states_in(report)["store"] == "exited")
        docker.ask("docker start store")
        collector.report_where(lambda report: "store" in report["redises"])
    assert "[redis] Cannot resolve IP for container 'stopped'\n" in agent.text
