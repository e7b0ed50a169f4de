"""The life of the agent: command line, start, stop, transports, address look-up."""

import os
import signal
import socket
import subprocess
import threading
import time

import pytest

from tarn_host import BUILD, PID_FILE, Agent, Collector, FakeHost, golden, shm_keys, wait_for

HELP, OSVER, SOCK = (golden(f"{name}.txt") for name in ("help", "osver", "sock"))


def run(*args, **options):
    done = subprocess.run([str(a) for a in args], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=20,
                          **options)
    return done.returncode, done.stdout.decode()


@pytest.mark.parametrize("args, expected", [
    (["-h", "--bad"], HELP), (["-v"], "0.6.3\n"), (["--osver"], OSVER), (["--ifs"], ""), (["--sock"], SOCK),
    (["-x", "--sock", "--debug"], "Unknown option -x\n" + SOCK)])
def test_modes_that_print_and_end(tmp_path, args, expected):
    host = FakeHost(tmp_path)
    host.write(sockstat="TCP: inuse 12 orphan 3 tw 40 alloc 20 mem 5\nUDP: inuse 4 mem 2\n")
    assert run(*host.command(), BUILD / "tarn", *args) == (0, expected)


def test_showconfig_prints_and_ends(tmp_path):
    (tmp_path / "extra").mkdir()
    (tmp_path / "extra" / "a.conf").write_text("port 99\nproto tcp\n")
    with Agent(tmp_path, "id 7\nsecret hidden\ndomain d.example\naddress 10.0.0.5\n", "--showconfig") as agent:
        assert agent.process.wait(10) == 0
    lines = agent.text.splitlines(keepends=True)
    banner = lines.pop(2)
    now = time.localtime()
    assert banner.startswith(f"[{now.tm_year}-{now.tm_mon - 1:02}-{now.tm_mday:02} ")
    assert banner.endswith(f" {time.tzname[0]}] tarn v0.6.3 started\n")
    assert "".join(lines) == golden("showconfig.txt").replace("@directory@", str(tmp_path))
    assert not PID_FILE.exists()


@pytest.mark.parametrize("config, message", [
    ("port 1\n", "ERROR: set server id or uuid!\nERROR: bad config!\n"),
    ("id 7\ninterval x\n", "ERROR: interval must be at least 1 second!\n")])
def test_bad_configurations_stop_the_start(tmp_path, config, message):
    with Agent(tmp_path, config) as agent:
        assert agent.process.wait(10) == 1
    assert agent.text.endswith(message)


def test_a_second_agent_of_one_id_says_so_and_leaves_the_first_alone(tmp_path):
    with Collector() as collector, Agent(tmp_path, collector.config()) as first:
        collector.report()
        for config, status, options in (("id 7\nuuid x\n", 1, ()), ("id 7\n", 0, ("--debug", "--showconfig"))):
            with Agent(tmp_path, config, *options) as other:
                assert other.process.wait(10) == status
        assert "shmget() succeeded key = 8\n" in other.text
        assert list(shm_keys()) == [8] and PID_FILE.read_text() == str(first.pid)
        with Agent(tmp_path, collector.config()) as second:
            second.wait_text("Successfully forked")
            assert f"WARNING: another agent is running, pid {first.pid}\n" in second.text
            assert PID_FILE.read_text() == str(second.pid)
            second.stop()
        assert PID_FILE.read_text() == str(first.pid)
        assert first.stop()[0] == 0
    assert shm_keys() == {} and not PID_FILE.exists()


def test_showing_the_configuration_leaves_nothing(tmp_path):
    with Agent(tmp_path, "id 7\n", "--debug", "--showconfig") as agent:
        assert agent.process.wait(10) == 0
    assert "shmget() succeeded key = 8\n" in agent.text and shm_keys() == {}


def test_only_root_may_run_it():
    assert run(BUILD / "tarn", "-h", user=65534) == (1, "ERROR: you must be root!\n")


@pytest.mark.parametrize("signum", [signal.SIGTERM, signal.SIGINT, signal.SIGABRT])
def test_a_stop_signal_ends_it_at_once_and_cleanly(tmp_path, signum):
    with Collector() as collector, Agent(tmp_path, collector.config()) as agent:
        collector.report()
        assert PID_FILE.read_text() == str(agent.pid)
        status, seconds = agent.stop(signum)
    assert status == 0
    assert seconds < 2
    assert not PID_FILE.exists()


def test_reports_come_every_second_and_messages_as_they_are_printed(tmp_path):
    with Collector(b"s" * 256) as collector, Agent(tmp_path, collector.config(), "--debug") as agent:
        times = [report["time"] for report in collector.reports(5)]
        wait_for(lambda: agent.text.count("DONE\n") >= 5)
        agent.stop()
    assert times == list(range(times[0], times[0] + 5))
    cycle = agent.text.split("Main loop iteration at ")[3]
    for text in ("update: core... done, mysqls... ", "Calc delta: core... ", "Dump delta: core...\nMyCustom Os ",
                 "\n\t\t\tversion : string 0.6.3\n", f"sign packet\nsending via UDP to 127.0.0.1:{collector.port} ...DONE"):
        assert text in cycle
    assert "\nremoving pid\n" in agent.text


def test_a_reader_that_goes_away_does_not_stop_it(tmp_path):
    with Collector() as collector:
        out, into = os.pipe()
        (tmp_path / "c").write_text(collector.config())
        agent = subprocess.Popen([BUILD / "tarn", "--config", tmp_path / "c", "--debug"], stdout=into)
        try:
            os.close(into)
            os.close(out)
            assert len(collector.reports(2)) == 2
        finally:
            agent.terminate()
            assert agent.wait(5) == 0


def test_tcp_brings_one_report_per_connection(tmp_path):
    with Collector(b"abc", tcp=True) as collector, Agent(tmp_path, collector.config(), "--debug") as agent:
        assert [r["id"] for r in collector.reports(3)] == [7, 7, 7]
        agent.wait_text(f"Sending via TCP to 127.0.0.1:{collector.port} ...DONE\n")


def test_an_unreachable_collector_is_said_once_per_interval(tmp_path):
    with Collector(tcp=True) as collector:
        config = collector.config()
        collector.socket.close()
        with Agent(tmp_path, config) as agent:
            line = "could not bind socket or connect whatever (127.0.0.1) -1 111\n"
            agent.wait_text(line * 3)
            assert agent.stop()[0] == 0


def test_a_report_too_large_for_a_datagram_fails_alone(tmp_path):
    host = FakeHost(tmp_path)
    lines = "".join(f"if{n}: {n} 1 2 3 4 5 6 7 8 9\n" for n in range(2000))
    host.write(dev="h\nh\n" + lines)
    with Collector() as collector, Agent(tmp_path, collector.config(), command=host.command()) as agent:
        collector.report()  # the interfaces are not in it yet
        agent.wait_text("sending via udp FAILED 90\n" * 2)


class NameServer(threading.Thread):
    """Answers every question with one A record, or with "no such name"."""

    def __init__(self, address, answer=None):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((address, 53))
        self.address, self.answer, self.asked = address, answer, []
        self.start()

    def run(self):
        while True:
            query, peer = self.socket.recvfrom(512)
            end = query.index(b"\0", 12) + 5
            self.asked.append(time.time())
            flags, count = (b"\x81\x80", 1) if self.answer else (b"\x81\x83", 0)
            reply = query[:2] + flags + b"\0\1" + count.to_bytes(2, "big") + b"\0\0\0\0" + query[12:end]
            if self.answer:
                reply += b"\xc0\x0c\0\1\0\1\0\0\0\1\0\4" + socket.inet_aton(self.answer)
            self.socket.sendto(reply, peer)


def test_name_servers_are_asked_in_turn_and_the_last_good_answer_stays(tmp_path):
    first, second = NameServer("127.0.0.2", "127.0.0.1"), NameServer("127.0.0.3")
    with Collector() as collector:
        config = collector.config("domain c.test.example\nnameserver 127.0.0.2\nnameserver 127.0.0.3\n"
                                  "nameserver no.such.invalid\n").replace("address 127.0.0.1", "address 127.0.0.99")
        with Agent(tmp_path, config, "--debug") as agent:
            collector.reports(5)
            agent.stop()
    rounds = [line for line in agent.text.splitlines() if line.startswith("Updating server ip")][:5]
    assert rounds == ["Updating server ip via 127.0.0.2... 127.0.0.1 ... done ",
                      "Updating server ip via 127.0.0.3... error 2 ... done ",
                      "Updating server ip via no.such.invalid... error 3 ... done ",
                      "Updating server ip via 127.0.0.2... 127.0.0.1 ... done ",
                      "Updating server ip via 127.0.0.3... error 2 ... done "]
    assert len(first.asked) >= 2 and len(second.asked) >= 2


def test_a_dead_name_server_does_not_delay_a_stop(tmp_path):
    with Collector() as collector:
        config = collector.config("domain c.test.example\nnameserver 127.0.0.4\n")
        with Agent(tmp_path, config, "--debug") as agent:
            wait_for(lambda: agent.text.count("Main loop iteration") == 2)
            time.sleep(0.5)  # it asks now
            status, seconds = agent.stop()
    assert status == 0 and seconds < 2 and "Updating server ip via 127.0.0.4... error 2" in agent.text


def test_a_domain_without_name_servers_goes_to_the_system_resolver(tmp_path):
    with Collector() as collector:
        config = collector.config("domain localhost\n").replace("address 127.0.0.1", "address 127.0.0.99")
        with Agent(tmp_path, config, "--debug") as agent:
            collector.report()
            agent.wait_text("Updating server ip via local dns... 127.0.0.1 ... done \n")


def test_an_address_that_does_not_parse_is_0_0_0_0(tmp_path):
    with Collector() as collector:
        with Agent(tmp_path, collector.config("address 127.0.0.1.\n")):
            assert collector.report()["id"] == 7  # 0.0.0.0 is this host
