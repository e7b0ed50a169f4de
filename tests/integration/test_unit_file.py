"""The unit file: the agent works under its restrictions, reports the truth, and needs each capability."""

import os
import shutil
import sys
from pathlib import Path

import pytest

from confine import settings
from fake_server import FakeServer, captured
from harness import BUILD, Agent, Collector, flat, template, through
from test_docker import Engine, inspection

UNIT = BUILD / "tarn.service"
SERVICE = settings(UNIT)
# How it is started and ended.
LIFE = {"Type", "ExecCondition", "ExecStartPre", "ExecStart", "Restart", "RestartSec", "KillMode", "TimeoutStopSec"}
# What the manager mounts for a setting, in its order. PrivateMounts copies the whole tree.
MOUNTS = {
    "PrivateMounts": "mkdir -p /run/root && mount --rbind / /run/root && cd /run/root && pivot_root . . && umount -l .",
    "PrivateDevices": "mkdir -p /run/dev && mount -t tmpfs tmpfs /run/dev && (cd /dev && "
                      "cp -a null zero full random urandom tty /run/dev) && mount --move /run/dev /dev",
    "PrivateIPC": "mkdir -p /dev/mqueue && mount -t mqueue mqueue /dev/mqueue",
    "ProtectControlGroups": "(! mountpoint -q /sys/fs/cgroup || mount -o remount,bind,ro /sys/fs/cgroup)",
    "ProtectHostname": "mount --bind -o ro /proc/sys/kernel/hostname /proc/sys/kernel/hostname"}
PRIVILEGES = {"CapabilityBoundingSet", "NoNewPrivileges"}
SYSTEM_CALLS = {"MemoryDenyWriteExecute", "RestrictAddressFamilies", "RestrictNamespaces", "SystemCallFilter",
                "SystemCallErrorNumber"}
# They restrict what nothing here does: keyrings, the clock's device, other ABIs, real time, set-user-ID files.
WITHOUT_EFFECT = {"KeyringMode", "LockPersonality", "ProtectClock", "RestrictRealtime", "RestrictSUIDSGID",
                  "SystemCallArchitectures"}
os.environ["ASAN_OPTIONS"] = "detect_leaks=0"  # LeakSanitizer attaches as a debugger does, which the unit forbids
CAPABILITIES = set(SERVICE["CapabilityBoundingSet"][0].split())
EVERYTHING = {"here", "hub", "FPM_a", "a_user"}


def confined(capabilities):
    """A command that starts the agent as the unit does, with these capabilities."""
    mounts = " && ".join(script for key, script in MOUNTS.items() if SERVICE.get(key) == ["yes"])
    names = ",".join("+" + name.removeprefix("CAP_").lower() for name in sorted(capabilities))
    return ["unshare", "--mount", "--ipc", "--uts", *through(f'd=$PWD && {mounts} && cd "$d" && exec "$@"'),
            sys.executable, Path(__file__).parent / "confine.py", UNIT,
            "setpriv", "--bounding-set", "-all," + names, "--inh-caps", "-all", "--no-new-privs"]


def test_no_setting_is_unknown_here():
    """A setting that mounts more may add filesystems to the report: say above what it does."""
    assert set(SERVICE) == LIFE | set(MOUNTS) | PRIVILEGES | SYSTEM_CALLS | WITHOUT_EFFECT


@pytest.fixture
def host(tmp_path, redis):
    """The services of servers/unit.conf; gives a collector and a configuration."""
    pool = tmp_path / "fpm.sock"
    with FakeServer(..., captured("fpm_answer.bin"), path=pool), Engine({"hub": inspection(Running=True)}), (
            Collector()) as collector:
        shutil.chown(pool, 33, 33)
        pool.chmod(0o660)
        yield collector, collector.config(template("unit.conf", redis=redis, pool=pool))


def seen_by(collector, wanted):
    """The elements of the reports until all that are wanted were there, in ten reports at most."""
    seen = set()
    for _ in range(10):
        seen |= set(flat(collector.report()))
        if seen == wanted:
            break
    return seen


def test_the_report_is_the_same_and_true_under_the_unit(tmp_path, host):
    collector, config = host
    parts = []
    for command in (), confined(CAPABILITIES):
        with Agent(tmp_path, config, command=command) as agent:
            collector.reports_of_now()  # the agent before may have sent one more
            assert seen_by(collector, EVERYTHING) == EVERYTHING
            report = collector.report()
        agent.has_said("Mysql found and loaded = libmariadb.so.3\n", "Postgre found and loaded = libpq.so.5\n")
        parts.append({part: set(report[part]) for part in ("mounts", "disks", "net", "docker")})
    assert parts[0] == parts[1]


@pytest.mark.parametrize("dropped, lost", [
    ("CAP_DAC_OVERRIDE", "FPM_a"), ("CAP_KILL", "a_user"), ("CAP_SETGID", "a_user"), ("CAP_SETUID", "a_user")])
def test_no_capability_can_be_spared(tmp_path, host, dropped, lost):
    collector, config = host
    with Agent(tmp_path, config, command=confined(CAPABILITIES - {dropped}), extra_groups=[4]):
        assert seen_by(collector, EVERYTHING) == EVERYTHING - {lost}
