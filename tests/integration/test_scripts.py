"""User scripts: run as their user beside the agent, within their time, whatever they do."""

import ctypes
import os
import shutil
import signal
import subprocess
import tempfile
import threading
import time
from pathlib import Path

import pytest

from tarn_host import Agent, Collector, children, shm_keys, wait_for

KEY = 7
libc = ctypes.CDLL(None, use_errno=True)


def scripts_agent(tmp_path, collector, lines, *options, **popen):
    return Agent(tmp_path, collector.config("".join(line + "\n" for line in lines)), *options, **popen)


def first_with(collector, name, most=10):
    """The script's element of the first report that holds it."""
    for _ in range(most):
        custom = collector.report()["custom"]
        if name in custom:
            return custom[name]
    raise AssertionError(f"{name} never came")


def test_slow_and_flooding_scripts_delay_nobody(tmp_path):
    lines = ["custom a slow interval=1 timeout=1 exec sleep 3600",
             "custom a flood interval=1 timeout=1 yes",
             "custom a closer interval=1 timeout=1 echo 1; exec >&-; sleep 30",
             "custom a answer interval=1 timeout=1 echo 42; echo 'Disk almost full'; printf 'b\\377d'",
             "custom a silent interval=1 true",
             "custom a absent interval=1 /no/such/thing",
             "server_status  true"]
    with Collector() as collector, scripts_agent(tmp_path, collector, lines) as agent:
        reports = collector.reports(8)
        child = children(agent.pid)[0]
        # The descriptors that it was started with, and not one for a script that is over; no zombies.
        assert len(list(Path(f"/proc/{child}/fd").iterdir())) <= 4
        assert len(children(child)) <= 1
        status, seconds = agent.stop()
        assert status == 0 and seconds < 2
    times = [report["time"] for report in reports]
    assert times == list(range(times[0], times[0] + 8))
    custom = reports[-1]["custom"]
    assert custom["a_answer"] == {"report": "a", "name": "answer", "interval": 1, "value": 42.0,
                                  "alerts": ["Disk almost full", "b?d"]}
    assert custom["a_flood"]["alerts"] == ["y"] * 10
    assert custom["general_server_status"] == {"report": "general", "name": "server_status", "interval": 1,
                                               "value": 0.0, "type": 11001, "alerts": []}
    assert set(custom) == {"a_answer", "a_flood", "general_server_status"}
    assert "EROROR! Custom script running too long (1 sec), killed\n" in agent.text
    assert "EROROR! Custom script has returned an empty string, killed\n" in agent.text
    assert "Killing child...\n" in agent.text
    assert KEY not in shm_keys()
    assert not Path(f"/proc/{child}").exists()


@pytest.mark.parametrize("shell", ["dash", "bash"])
def test_a_script_is_its_user_for_good_and_inherits_nothing(tmp_path, shell):
    probe = Path(tempfile.mkdtemp()) / "probe"  # pytest's own directory is closed to other users
    shutil.copy(Path(__file__).parent / "servers/probe", probe)
    probe.parent.chmod(0o755)
    command = ["unshare", "-m", "sh", "-c", f'mount --bind /bin/{shell} $(readlink -f /bin/sh) && exec "$@"', "sh"]
    os.set_inheritable(leaked := os.open("/etc/passwd", os.O_RDONLY), True)
    with Collector() as collector, scripts_agent(tmp_path, collector, [f"custom a b interval=1 . {probe}"],
                                                 command=command, close_fds=False, extra_groups=[1, 2]):
        result = first_with(collector, "a_b")
    os.close(leaked)
    shutil.rmtree(probe.parent)
    assert result["value"] == 65534.0
    groups, refused, descriptors, standard_input, signals, name = result["alerts"]
    assert groups == "0"
    assert "PermissionError" in refused
    assert (descriptors, standard_input) == ("4", "/dev/null")
    for mask in signals.split():
        assert int(mask, 16) & 0x7FFFFFFF == 0  # above are two that the C library keeps for itself
    assert name == shell.replace("dash", "sh")


def test_any_number_but_minus_one_is_a_user(tmp_path):
    lines = [f"custom a u{uid} interval=1 uid={uid} id -u" for uid in (-1, 4242, 4294967294, 4294967295, 0)]
    lines.append("custom a status type=11001 interval=1 uid=-1 echo 1")
    with Collector() as collector, scripts_agent(tmp_path, collector, lines) as agent:
        first_with(collector, "a_u0")
        values = {name: item["value"] for name, item in collector.report()["custom"].items()}
        assert values == {"a_u4242": 4242.0, "a_u4294967294": 4294967294.0, "a_u0": 0.0}
        assert agent.text.count("EROROR! Cannot setuid\n") >= 3


@pytest.mark.parametrize("place", ["file", "pipe"])
def test_standard_error_of_a_script_goes_into_no_file(tmp_path, place):
    command = ["sh", "-c", f'exec "$@" 2>{tmp_path}/errors', "sh"] if place == "file" else ()
    line = "custom a b interval=1 uid=0 readlink /proc/self/fd/2; readlink /proc/self/fd/2 >&2"
    with Collector() as collector, scripts_agent(tmp_path, collector, [line], command=command) as agent:
        first_with(collector, "a_b")
        agent.stop()
    if place == "file":
        assert (tmp_path / "errors").read_text() == ""
    else:
        assert "\npipe:[" in agent.text


def test_periods_and_differences_over_six_cycles(tmp_path):
    tmp_path.chmod(0o777)
    count = 'n=$(cat {0} 2>/dev/null || echo 0); n=$((n + 5)); echo $n >{0}; echo $n'
    lines = [f"custom a one interval=1 uid=0 {count.format(tmp_path / 'one')}",
             f"custom a two interval=2 uid=0 {count.format(tmp_path / 'two')}",
             f"custom a three interval=3 incremental uid=0 {count.format(tmp_path / 'three')}"]
    with Collector() as collector, scripts_agent(tmp_path, collector, lines, "--debug") as agent:
        seen = {}
        while len(seen) < 7:
            custom = {name: item["value"] for name, item in dict(collector.report()["custom"]).items()}
            if custom:
                seen[int(custom["a_one"]) // 5 - 1] = custom
        agent.wait_text("Customs loop iteration done at ")
        assert KEY in shm_keys()
    for cycle, values in seen.items():
        expected = {"a_one": 5.0 * (cycle + 1)}
        if cycle % 2 == 0:
            expected["a_two"] = 5.0 * (cycle // 2 + 1)
        if cycle % 3 == 0 and cycle > 0:
            expected["a_three"] = 5.0
        assert values == expected
    for text in ("Update counters CHILD: customs iteration=0...\n", "done(isUpdated = 3)\n",
                 "Calc delta CHILD: customs... done\n", "Exiting customs loop\n", "clear shm\n", "Freeing counters: CHILD customs... done\n"):
        assert text in agent.text


def test_a_stale_block_of_another_size_is_replaced(tmp_path):
    assert libc.shmget(KEY, 100, 0o1600) >= 0
    with Collector() as collector, scripts_agent(tmp_path, collector, ["custom a b interval=1 echo 5"]) as agent:
        assert first_with(collector, "a_b")["value"] == 5.0
        assert shm_keys()[KEY] == 2640
        assert agent.text.count("shmget: ") in (1, 2)  # a block with id 0 is replaced too
    assert KEY not in shm_keys()


def test_a_block_that_anybody_scribbles_over_harms_nobody(tmp_path):
    lines = [f"custom a n{n} interval=1 echo {n}; echo alert" for n in range(3)]
    with Collector() as collector, scripts_agent(tmp_path, collector, lines) as agent:
        first_with(collector, "a_n0")
        libc.shmat.restype = ctypes.c_void_p
        size = shm_keys()[KEY]
        address = libc.shmat(libc.shmget(KEY, 0, 0), None, 0)
        done = threading.Event()

        def scribble():
            while not done.is_set():
                ctypes.memmove(address, os.urandom(size), size)

        scribbler = threading.Thread(target=scribble)
        scribbler.start()
        reports = collector.reports(4)  # every one of them decodes
        done.set()
        scribbler.join()
        libc.shmdt(ctypes.c_void_p(address))
        assert len(reports) == 4
        assert agent.stop()[0] == 0


def plant(key, size):
    """A block as any local user can make one."""
    made = subprocess.run(["/usr/bin/python3", "-c", "import ctypes, sys; print(ctypes.CDLL(None).shmget("
                           "int(sys.argv[1]), int(sys.argv[2]), 0o1666))", str(key), str(size)], user=65534, check=True,
                          capture_output=True)
    assert int(made.stdout) >= 0


@pytest.mark.parametrize("size", [2640, 40000, 99999])
def test_blocks_that_others_planted_are_replaced(tmp_path, size):
    for key in (KEY, KEY + 1):
        plant(key, size)
    with Collector() as collector, scripts_agent(tmp_path, collector, ["custom a b interval=1 echo 5"]) as agent:
        assert first_with(collector, "a_b")["value"] == 5.0
        owners = {int(row.split()[0]): row.split()[9] for row in Path("/proc/sysvipc/shm").read_text().splitlines()[1:]}
        assert owners == {KEY: "0", KEY + 1: "0"}
        agent.stop()
    for key in (KEY, KEY + 1):
        assert f"Removing a shared-memory block of user 65534 under key {key}\n" in agent.text


def test_a_dead_script_process_is_named_and_started_again(tmp_path):
    with Collector() as collector, scripts_agent(tmp_path, collector, ["custom a b interval=1 echo 5"]) as agent:
        first_with(collector, "a_b")
        dead = children(agent.pid)[0]
        os.kill(dead, signal.SIGKILL)
        agent.wait_text("The script process has died, it is started again in the next cycle\n")
        assert "a_b" not in collector.reports_of_now()[-1]["custom"]
        assert first_with(collector, "a_b")["value"] == 5.0
        assert dead not in children(agent.pid) and len(children(agent.pid)) == 1
        status, seconds = agent.stop()
    assert status == 0 and seconds < 2 and not {KEY, KEY + 1} & set(shm_keys())


def test_a_script_process_whose_parent_dies_ends_too(tmp_path):
    with Collector() as collector, scripts_agent(tmp_path, collector, ["custom a b interval=1 echo 5"]) as agent:
        first_with(collector, "a_b")
        child = children(agent.pid)[0]
        os.kill(agent.pid, signal.SIGKILL)
        wait_for(lambda: not Path(f"/proc/{child}").exists() or "Z" in Path(f"/proc/{child}/stat").read_text())
        wait_for(lambda: KEY not in shm_keys())
    Path("/var/run/tarn.pid").unlink()
