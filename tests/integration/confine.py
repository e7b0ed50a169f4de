"""Runs a command under the system-call filters of a unit, as the service manager would: confine.py UNIT COMMAND..."""

import errno
import os
import re
import socket
import subprocess
import sys
from mmap import PROT_EXEC, PROT_WRITE
from pathlib import Path

NEW_NAMESPACES = 0x7E020000  # CLONE_NEWNS, and CLONE_NEWCGROUP to CLONE_NEWNET


def settings(path):
    """Each key of the unit's [Service] with its values in their order."""
    found = {}
    service = Path(path).read_text().partition("[Service]")[2].partition("[Install]")[0]
    for key, value in re.findall(r"^(\w+)=(.*)$", service, re.M):
        found.setdefault(key, []).append(value)
    return found


def allowed_calls(values):
    """What is left when the lines of SystemCallFilter= are read in turn; "~" takes calls away."""
    command = ["systemd-analyze", "syscall-filter", "--no-pager"]
    listing = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    members = {group: re.findall(r"^ +([^#\s]+)$", lines, re.M)
               for group, lines in re.findall(r"^(@\S+)\n((?: .*\n)+)", listing, re.M)}

    def calls(word):
        return set().union(*map(calls, members[word])) if word in members else {word}
    allowed = set()
    for value in values:
        named = set().union(*map(calls, value.lstrip("~").split()))
        allowed = allowed - named if value.startswith("~") else allowed | named
    return allowed


def load(default, *rules):
    """Loads one filter. Calls that this processor does not have are passed over."""
    program = seccomp.SyscallFilter(default)
    program.set_attr(seccomp.Attr.CTL_NNP, False)
    for action, name, *conditions in rules:
        if seccomp.resolve_syscall(seccomp.Arch(), name) >= 0:
            program.add_rule(action, name, *conditions)
    program.load()


def confine(unit):
    refused, arg, masked = seccomp.ERRNO(errno.EPERM), seccomp.Arg, seccomp.MASKED_EQ
    if unit.get("MemoryDenyWriteExecute") == ["yes"]:
        both = PROT_WRITE | PROT_EXEC
        load(seccomp.ALLOW, (refused, "mmap", arg(2, masked, both, both)),
             (refused, "mprotect", arg(2, masked, PROT_EXEC, PROT_EXEC)))
    if unit.get("RestrictNamespaces") == ["yes"]:
        load(seccomp.ALLOW, (seccomp.ERRNO(errno.ENOSYS), "clone3"), (refused, "unshare"), (refused, "setns"),
             *((refused, "clone", arg(0, masked, bit, bit))
               for bit in (1 << n for n in range(32)) if bit & NEW_NAMESPACES))
    families = {getattr(socket, name) for name in unit["RestrictAddressFamilies"][0].split()}
    load(seccomp.ALLOW, *((seccomp.ERRNO(errno.EAFNOSUPPORT), "socket", arg(0, seccomp.EQ, family))
                          for family in range(64) if family not in families))
    load(refused, *((seccomp.ALLOW, name) for name in allowed_calls(unit["SystemCallFilter"])))


if __name__ == "__main__":
    import seccomp  # what is imported from here does not need it
    confine(settings(sys.argv[1]))
    os.execvp(sys.argv[2], sys.argv[2:])
