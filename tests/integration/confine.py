"""Runs a command under the system-call filters of a unit, as the service manager would: confine.py UNIT COMMAND..."""

import errno
import os
import socket
import subprocess
import sys
from mmap import PROT_EXEC, PROT_WRITE

NEW_NAMESPACES = 0x7E020000  # CLONE_NEWNS, and CLONE_NEWCGROUP to CLONE_NEWNET


def settings(path):
    """Each key of the unit's [Service] with its values in their order."""
    found = {}
    with open(path) as unit:
        for line in unit.read().partition("[Service]")[2].partition("[Install]")[0].splitlines():
            if line and not line.startswith("#"):
                key, _, value = line.partition("=")
                found.setdefault(key, []).append(value)
    return found


def system_calls(word, members):
    """The calls of a group, whose members may be groups, or the call itself."""
    return set().union(*(system_calls(name, members) for name in members[word])) if word in members else {word}


def allowed_calls(values):
    """What is left when the lines of SystemCallFilter= are read in turn; "~" takes calls away."""
    members, group = {}, None
    listing = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager"], check=True, capture_output=True)
    for word in (line.strip() for line in listing.stdout.decode().splitlines()):
        if word.startswith("@") and group is None:
            group = members.setdefault(word, [])
        elif not word:
            group = None
        elif not word.startswith("#") and group is not None:
            group.append(word)
    allowed = set()
    for value in values:
        named = set().union(*(system_calls(word, members) for word in value.lstrip("~").split()))
        allowed = allowed - named if value.startswith("~") else allowed | named
    return allowed


def load(default, *rules):
    """Loads one filter. Calls that this processor does not have are passed over."""
    program = seccomp.SyscallFilter(default)
    program.set_attr(seccomp.Attr.CTL_NNP, False)
    for action, name, *conditions in rules:
        try:
            number = seccomp.resolve_syscall(seccomp.Arch(), name)
        except ValueError:
            continue
        if number >= 0:
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
