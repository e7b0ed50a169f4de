"""tarn-check: what it says about configuration files and services, and that it leaves nothing."""

import os
import re
import subprocess
from pathlib import Path

import pytest

from fake_server import FakeServer, captured, silent
from harness import BUILD, Agent, Collector, FakeHost, check, probed, shm_blocks, template

TREE = Path(__file__).parents[2]
IDENTITY = "id 7\naddress 127.0.0.1\n"


def written(tmp_path, text, mode=0o600):
    path = tmp_path / "c"
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    path.chmod(mode)
    return path


def test_faulty_lines_are_named_with_what_to_write_instead(tmp_path):
    path = written(tmp_path, template("faulty_lines.conf"), 0o644)
    said = "\n".join(check(path, status=2)).replace(str(path), "FILE") + "\n"
    assert said == template("check.txt", "golden")


@pytest.mark.parametrize("text, status, said", [
    (IDENTITY, 0, []),
    (IDENTITY + "secret s\n", 0, []),
    (IDENTITY + "id 4294967297\n", 2, ['FILE:3: error: "4294967297" is above 4294967295']),
    ("id 7\n", 2, ['FILE: error: no collector: set "address" or "domain"']),
    ("uuid 1-2-3-4-5\n" + IDENTITY[5:] + "server_name a\n", 2,
     ["FILE: error: the uuid does not have the form aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee",
      'FILE: error: a uuid also needs "project_name"']),
    ("\ufeffport 1\n" + IDENTITY, 2,
     ["FILE:1: error: a byte order mark precedes the first key, so the agent ignores that line"]),
    (IDENTITY + "port 8641\r\n", 1, ["FILE:3: warning: ends in a carriage return"]),
    (IDENTITY + "server_name " + "x" * 5000 + "\n", 1,
     ["FILE:3: warning: truncated to 4095 characters", "FILE:3: warning: the value is truncated to 255 characters"]),
    (IDENTITY + "beanstalk 127.0.0.1:1\n" * 17, 2, None)])
def test_files_are_judged_as_a_whole(tmp_path, text, status, said):
    path = written(tmp_path, text)
    lines = [line.replace(str(path), "FILE") for line in check(path, status=status)]
    assert said is None or lines[:-1] == said
    assert said is not None or lines[-2].endswith("ignored: there are 16 counters of this family already")


def test_what_is_no_readable_file_is_named(tmp_path):
    os.mkfifo(tmp_path / "fifo")
    for path, fault in ("", "is a directory"), ("fifo", "is not a regular file"), ("none", "No such file or directory"):
        assert check(tmp_path / path, status=2)[0] == f"{tmp_path / path}: error: {fault}"
    path = written(tmp_path, IDENTITY, 0o666)
    assert check(path, status=1)[0].endswith("others than root can write to it, and so run commands as root")


def test_a_host_too_large_for_datagrams_is_told_to_use_tcp(tmp_path):
    host = FakeHost(tmp_path)
    host.write(dev="head\nhead\n" + "".join(f"veth{n}: {'1 ' * 16}\n" for n in range(900)))
    for transport, said in ("udp", ["warning: a report may exceed the 65507 bytes of a UDP datagram"]), ("tcp", []):
        path = written(tmp_path, IDENTITY + f"proto {transport}\n")
        lines = check(path, status=len(said), command=host.command())
        assert [line.split(": ", 1)[1].split(";")[0] for line in lines[:-1]] == said


def test_services_are_sampled_once_and_failures_explained(tmp_path, redis):
    good = {"nginx": ["nginx_status.txt"], "apache": ["apache_status.txt"], "fpm": ["fpm_answer.bin"],
            "rabbit": ["rabbit_nodes.txt", "rabbit_queues.txt"], "elastic": ["elastic_node.txt", "elastic_health.txt"]}
    steps = {name: [step for file in files for step in (..., captured(file))] for name, files in good.items()}
    steps |= {"silent": [silent], "no_auth": [..., b"-NOAUTH Authentication required.\r\n"],
              "not_found": [..., b"HTTP/1.1 404 Not Found\r\n\r\n"], "closing": [...],
              "unauthorized": [..., b"HTTP/1.1 401 Unauthorized\r\n\r\n{}"],
              "no_nodes": [..., b'HTTP/1.1 200 OK\r\n\r\n{"nodes":{}}']}
    peers = {name: FakeServer(*steps[name]) for name in steps}
    path = written(tmp_path, template("probed.conf", redis=redis, **peers))
    before = shm_blocks()
    outcomes = probed(check(path, "--probe", status=2))
    said = "".join(f"{name} {outcome}\n" for name, outcome in outcomes.items())
    assert re.sub(r"\d+ ms ", "", said) == template("probed.txt", "golden")
    assert check(path, "--probe", "real", status=0)[-2].startswith("redis_real ok ")
    assert shm_blocks() == before


def test_the_sample_configuration_is_the_defaults_and_offers_every_key(tmp_path):
    sample = (TREE / "packaging/tarn.conf").read_text()
    path = written(tmp_path, sample)
    assert check(path, status=2)[:-1] == [f'{path}: error: neither "id" nor "uuid" is set']
    offered = [line[1:] for line in sample.splitlines() if re.match(r"#\S", line)]
    own = {"id", "uuid", "server_name", "project_name", "project_secret", "address", "domain", "nameserver", "proto",
           "secret", "exclude_mount", "exclude_interfaces", "docker_sock"}  # have no default
    documented = set(re.findall(r"^\.It Ic (\w+)", (TREE / "man/tarn.conf.5").read_text(), re.M))
    keys = {line.split()[0] for line in offered + sample.splitlines() if line.strip()}
    assert own < documented <= keys
    defaults = [line for line in offered if line.split()[0] in documented - own]
    libraries = re.findall("^\\w+_lib .*\n", sample, re.M)
    script = "custom a b true\n"

    def shown(text):
        """What the agent and tarn-check make of it, but for the place of the script's line."""
        path = written(tmp_path, IDENTITY + text + script)
        agent = subprocess.run([BUILD / "tarn", "--showconfig", "--config", path, "--conf-glob", "/no"],
                               capture_output=True, text=True, check=True).stdout
        return re.sub(r"\[.*\]", "", agent), check(path, status=0)[-2].split(": ", 1)[1]
    assert shown(sample) == shown("\n".join(libraries + defaults) + "\n") == shown("")
    said = "\n".join(check(written(tmp_path, "\n".join(offered) + "\n"), status=0))
    assert said.replace(str(path), "FILE") + "\n" == template("sample.txt", "golden")


def test_a_running_agent_is_noted_and_not_disturbed(tmp_path):
    with Collector() as collector, Agent(tmp_path, collector.config("redis_c u:@[c]:1\n")):
        collector.report()
        before = shm_blocks()
        path = written(tmp_path, collector.config("redis_c u:@[c]:1\n"))
        assert check(path, "--probe", status=2)[1] == f"{path}: an agent with this identity is running"
        assert {key: block["size"] for key, block in shm_blocks().items()} == {
            key: block["size"] for key, block in before.items()}
        collector.report()
