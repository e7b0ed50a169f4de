"""User scripts: run as their user beside the agent, within their time, whatever they do."""

import contextlib
import ctypes
import fcntl
import os
import pty
import re
import signal
import statistics
import subprocess
import termios
import time
from pathlib import Path

import pytest

from harness import (PID_FILE, Agent, Collector, children, drawn_second, libc, scribbling, shm_blocks, template,
                     through, wait_for)

KEY = 7


@contextlib.contextmanager
def running(directory, *scripts, more="", options=(), **popen):
    """A collector and an agent with these scripts, all of report "a"."""
    with Collector() as collector:
        config = collector.config("".join(f"custom a {script}\n" for script in scripts) + more)
        with Agent(directory, config, *options, **popen) as agent:
            yield collector, agent


def first_with(collector, name):
    """The script's element of the first report that holds it."""
    return collector.report_where(lambda report: name in report["custom"])["custom"][name]


def test_slow_and_flooding_scripts_delay_nobody(tmp_path):
    lines = ["slow interval=1 timeout=0 exec sleep 3600", "flood interval=1 timeout=1 yes",
             "closer interval=1 timeout=1 echo 1; exec >&-; sleep 30",
             "drip interval=1 timeout=1 while printf 1; do sleep 0.4; done",
             "answer alert=value>9 type=12 interval=1 timeout=1 echo 42; echo 'Disk almost full'; printf 'b\\377d'",
             "silent interval=1 true", "absent interval=1 /no/such/thing"]
    with running(tmp_path, *lines, more="server_status  true\n") as (collector, agent):
        reports = collector.reports(8)
        child = children(agent.pid)[0]
        # The descriptors that it was started with, and not one for a script that is over; no zombies.
        assert len(list(Path(f"/proc/{child}/fd").iterdir())) <= 4 and len(children(child)) <= 1
        assert agent.stop()[0] == 0
    # A busy machine may cost a cycle.
    assert statistics.median(after["time"] - before["time"] for before, after in zip(reports, reports[1:])) == 1
    custom = reports[-1]["custom"]
    assert list(custom["a_answer"].items()) == [
        ("report", "a"), ("name", "answer"), ("interval", 1), ("alert_when", "value>9"), ("value", 42.0), ("type", 12),
        ("alerts", ["Disk almost full", "b?d"])]
    assert custom["a_flood"]["alerts"] == ["y"] * 10
    assert custom["general_server_status"] == {"report": "general", "name": "server_status", "interval": 1,
                                               "value": 0.0, "type": 11001, "alerts": []}
    assert set(custom) == {"a_answer", "a_flood", "general_server_status"}
    agent.has_said("EROROR! Custom script running too long (1 sec), killed\n",
                   "EROROR! Custom script has returned an empty string, killed\n", "Killing child...\n")
    assert not Path(f"/proc/{child}").exists()


@pytest.mark.parametrize("shell", ["dash", "bash", "busybox"])
def test_a_script_is_its_user_for_good_and_inherits_nothing(tmp_path, shell):
    probe = "; ".join(line for line in template("probe").splitlines() if not line.startswith("#"))
    command = ["unshare", "-m", *through(f'mount --bind /bin/{shell} $(readlink -f /bin/sh) && exec "$@"')]
    os.set_inheritable(leaked := os.open("/etc/passwd", os.O_RDONLY), True)
    master, terminal = pty.openpty()
    with running(tmp_path, f"b interval=1 {probe}", command=command, close_fds=False, extra_groups=[1, 2],
                 preexec_fn=lambda: fcntl.ioctl(terminal, termios.TIOCSCTTY)) as (collector, _):
        result = first_with(collector, "a_b")
    for fd in (leaked, master, terminal):
        os.close(fd)
    assert result["value"] == 65534.0
    groups, refused, descriptors, standard_input, standard_error, signals, name, tty = result["alerts"]
    assert "PermissionError" in refused and standard_error.startswith("pipe:")
    assert (groups, descriptors, standard_input, tty) == ("0", "4", "/dev/null", "none")
    for mask in signals.split():
        assert int(mask, 16) & 0x7FFFFFFF == 0  # above are two that the C library keeps for itself
    assert name == ("bash" if shell == "bash" else "sh")


def test_any_number_but_minus_one_is_a_user(tmp_path):
    lines = [f"u{uid} interval=1 uid={uid} id -u" for uid in (-1, 4242, 4294967294, 4294967295, 0)]
    with running(tmp_path, *lines, "status type=11001 interval=1 uid=-1 echo 1") as (collector, agent):
        first_with(collector, "a_u0")
        values = {name: item["value"] for name, item in collector.report()["custom"].items()}
        assert values == {"a_u4242": 4242.0, "a_u4294967294": 4294967294.0, "a_u0": 0.0}
        assert agent.text.count("EROROR! Cannot setuid\n") >= 3


def test_standard_error_of_a_script_goes_into_no_file(tmp_path):
    command = through(f'exec "$@" 2>{tmp_path}/errors')
    with running(tmp_path, "b interval=1 echo 1; echo said >&2", command=command) as (collector, _):
        first_with(collector, "a_b")
    assert (tmp_path / "errors").read_text() == ""


def test_periods_and_differences_over_six_cycles(tmp_path):
    count = f"n=$(cat {tmp_path}/{{0}} || echo 0); n=$((n + 5)); echo $n >{tmp_path}/{{0}}; echo $n"
    lines = [f"{name} interval={interval} uid=0 {count.format(name)}"
             for name, interval in (("one", "1"), ("two", "2"), ("three", "3 incremental"))]
    with running(tmp_path, *lines, options=["--debug"]) as (collector, agent):
        seen = {}
        while len(seen) < 7:
            custom = {name: item["value"] for name, item in collector.report()["custom"].items()}
            if custom:
                seen[int(custom["a_one"]) // 5 - 1] = custom
        blocks = shm_blocks()
        assert blocks[KEY]["attached"] <= 2 and blocks[KEY + 1]["attached"] <= 2
    for cycle, values in seen.items():
        expected = {"a_one": 5.0 * (cycle + 1)}
        if cycle % 2 == 0:
            expected["a_two"] = 5.0 * (cycle // 2 + 1)
        if cycle % 3 == 0 and cycle > 0:
            expected["a_three"] = 5.0
        assert values == expected
    agent.has_said("Update counters CHILD: customs iteration=0...\n", "done(isUpdated = 3)\n",
                   "Calc delta CHILD: customs... done\n", "Customs loop iteration done at ", "Exiting customs loop\n",
                   "clear shm\n", "Freeing counters: CHILD customs... done\n")


@pytest.mark.parametrize("interval, period, count, age", [(1, 2, 6, 1), (3, 1, 4, 5)])
def test_a_result_waits_an_interval_and_is_reported_two_seconds_later(tmp_path, interval, period, count, age):
    """It is reported until there is a newer one. On a busy machine some are younger or older."""
    wait_for(lambda: interval == 1 or drawn_second(time.time(), interval) and drawn_second(time.time() + 1, interval))
    start = int(time.time())
    with running(tmp_path, f"b interval={period} date +%s", more=f"interval {interval}\n", options=["--debug"]) as (
            collector, agent):
        agent.wait_text("Starting main loop\n")
        seconds = {drawn_second(moment, interval) for moment in range(start, int(time.time()) + 1)}
        assert first_with(collector, "a_b")["interval"] == interval * period
        ages = [report["time"] - report["custom"]["a_b"]["value"] for report in collector.reports(count)]
    assert age in ages
    assert int(re.search(r"Main loop iteration at (\d+)", agent.text)[1]) % interval in seconds


def test_blocks_that_anybody_scribbles_over_harm_nobody(tmp_path):
    with running(tmp_path, *(f"n{n} interval=1 echo {n}; echo alert" for n in range(3))) as (collector, _):
        first_with(collector, "a_n0")
        with scribbling(KEY), scribbling(KEY + 1):
            for report in collector.reports(4):
                alerts = [alert for result in report["custom"].values() for alert in result.get("alerts", ())]
                assert len(alerts) <= 30 and all(len(alert) <= 255 for alert in alerts)


@pytest.mark.parametrize("user, size", [(0, 100), (65534, 2640), (65534, 40000), (65534, 99999)])
def test_blocks_that_others_left_or_planted_are_replaced(tmp_path, user, size):
    for key in (KEY, KEY + 1):
        subprocess.run(["true"], user=user, check=True, preexec_fn=lambda: libc.shmget(key, size, 0o1666))
        assert shm_blocks()[key] == {"size": size, "owner": user, "attached": 0}
    with running(tmp_path, "b interval=1 echo 5") as (collector, agent):
        assert first_with(collector, "a_b")["value"] == 5.0
        blocks = shm_blocks()
        assert (blocks[KEY]["size"], blocks[KEY]["owner"], blocks[KEY + 1]["owner"]) == (2640, 0, 0)
    if user == 0:
        agent.has_said("shmget: Invalid argument\n")
    else:
        agent.has_said(*(f"Removing a shared-memory block of user 65534 under key {key}\n" for key in (KEY, KEY + 1)))


def test_a_dead_script_process_is_named_and_started_again(tmp_path):
    with running(tmp_path, "b interval=1 echo 5") as (collector, agent):
        first_with(collector, "a_b")
        dead = children(agent.pid)[0]
        os.kill(dead, signal.SIGKILL)
        agent.wait_text("The script process has died, it is started again in the next cycle\n")
        assert "a_b" not in collector.reports_of_now()[-1]["custom"]
        assert first_with(collector, "a_b")["value"] == 5.0
        assert dead not in children(agent.pid) and len(children(agent.pid)) == 1


def test_a_script_process_whose_parent_dies_ends_too(tmp_path):
    with running(tmp_path, "b interval=1 echo 5") as (collector, agent):
        first_with(collector, "a_b")
        os.kill(agent.pid, signal.SIGKILL)
        agent.process.wait()
        agent.reader.join(15)
        assert not agent.reader.is_alive()  # nobody holds the agent's output any more
        wait_for(lambda: KEY not in shm_blocks())
    PID_FILE.unlink()
    libc.shmctl(libc.shmget(KEY + 1, 0, 0), 0, None)  # removes the container table, which no process has
