"""Peers of every kind that answer as a real server does, but for one reply: cut, changed, endless and worse."""

import base64
import contextlib
import itertools
import os
import random
import re
import struct
from pathlib import Path

from fake_server import (CLIENT_LIBRARIES, HTTP_OK, KINDS, MYSQL_GREETING, MYSQL_OK, FakeServer, line_of,
                         mysql_packet, reset)
from harness import BUILD, Agent, Collector, wait_for

REPLIES = int(os.environ.get("TARN_HOSTILE_REPLIES", 40))  # of each kind; 1000 for the long form
FLOOD = 64 << 20


def tables(kind):
    """The results of a kind's statements: the names of the columns, if they are known, and the rows."""
    found = []
    for line in KINDS[kind][1][0].decode().splitlines():
        fields = [None if field == r"\N" else field.encode() for field in line.removeprefix("= ").split("\t")]
        if line.startswith("> "):
            found.append(([], []))
        else:
            found[-1][not line.startswith("= ")].append(fields)
    return [(names[0] if names else rows[0], rows) for names, rows in found]


def mysql_packets(payloads, first=1):
    return b"".join(mysql_packet(number % 256, payload) for number, payload in enumerate(payloads, first))


def mysql_result(names, rows):
    column = b"\3def\0\0\0\1c\0\x0c\x3f\0\x40\0\0\0\xfd\0\0\0\0\0"
    fields = [b"".join(b"\xfb" if field is None else bytes([len(field)]) + field for field in row) for row in rows]
    return mysql_packets([bytes([len(names)]), *[column] * len(names), b"\xfe\0\0\2\0", *fields, b"\xfe\0\0\2\0"])


def postgre_message(kind, content, length=None):
    return kind + struct.pack(">i", (len(content) if length is None else length) + 4) + content


POSTGRE_READY = postgre_message(b"Z", b"I")


def postgre_result(names, rows):
    def field(text):
        return struct.pack(">i", -1) if text is None else struct.pack(">i", len(text)) + text
    columns = struct.pack(">h", len(names)) + b"".join(name + bytes(19) for name in names)
    contents = [struct.pack(">h", len(row)) + b"".join(map(field, row)) for row in rows]
    return (postgre_message(b"T", columns) + b"".join(postgre_message(b"D", content) for content in contents)
            + postgre_message(b"C", b"SELECT\0") + POSTGRE_READY)


# The replies of one connection. MySQL's begins before the first request.
SESSIONS = {kind: answers for kind, (_, answers) in KINDS.items()}
for kind in "mysql", "sphinx":
    SESSIONS[kind] = [MYSQL_GREETING, MYSQL_OK, *itertools.starmap(mysql_result, tables(kind))]
SESSIONS["postgre"] = [b"N", postgre_message(b"R", bytes(4)) + POSTGRE_READY,
                       *itertools.starmap(postgre_result, tables("postgre"))]


def flood(piece):
    """Steps that send a piece again and again."""
    piece *= (1 << 20) // len(piece) + 1
    return [piece] * (FLOOD // len(piece))


def replacement(kind, reply, chance):
    """The steps that take the place of a reply. A reset in the middle of FastCGI ends the agent."""
    at, end = sorted(chance.choices(range(len(reply) + 1), k=2))
    other = chance.choice(chance.choice(list(SESSIONS.values())))
    return chance.choices([
        [reply[:at]], [reply[:at] + chance.randbytes(end - at) + reply[end:]], [reply[:at] + reply[end:]],
        [reply * chance.randrange(2, 99)], [re.sub(rb"\d+", b"9" * chance.randrange(1, 400), reply)], [other],
        [reply, *flood(reply[at:end] or b"\xff")], flood(b'[{"":[0,'), [reply[:at], *[b"0", 0.05] * 9],
        [reply[:at], *([reset] if kind != "fpm" else [])]], [4, 8, 2, 2, 2, 2, 1, 1, 1, 1])[0]


class Hostile(FakeServer):
    """Plays the session of its kind, with another reply replaced on each connection."""

    def __init__(self, kind):
        self.kind, self.sent = kind, 0
        super().__init__(self.answer)

    def answer(self, peer):
        chance = random.Random(f"{self.kind} {self.sent}")
        self.sent += 1
        session = SESSIONS[self.kind]
        bad = chance.randrange(len(session))
        for place, reply in enumerate(session[:bad + 1]):
            if (place or session[0] != MYSQL_GREETING) and not peer.recv(65536):
                return
            self.play(peer, replacement(self.kind, reply, chance) if place == bad else [reply])


@contextlib.contextmanager
def running(directory, lines, redis):
    """An agent that must go on reporting the host, and a good server."""
    config = CLIENT_LIBRARIES + line_of("redis", "good", redis.port) + lines
    # AddressSanitizer needs more memory, and would end a process that asks for too much.
    is_sanitized = "asan" in BUILD.name
    env = os.environ | {"ASAN_OPTIONS": "allocator_may_return_null=1"}
    with Collector() as collector, Agent(directory, collector.config(config), env=env) as agent:
        reports = collector.reports(2)
        yield reports, collector
        longest = max(after["time"] - before["time"] for before, after in itertools.pairwise(reports))
        assert longest <= 3  # seconds; a busy machine may take one or two
        assert all(report["mem"]["ok"] and report["cpu"]["ok"] for report in reports)
        assert sum("good" in report["redises"] for report in reports) >= 0.8 * len(reports)
        peak = int(re.search(r"VmHWM:\s+(\d+)", Path(f"/proc/{agent.pid}/status").read_text())[1])
        assert is_sanitized or peak < 64 << 10  # kB


def test_hostile_replies(tmp_path, redis):
    servers = [Hostile(kind) for kind in SESSIONS]
    lines = "".join(line_of(server.kind, n, server.port) for server in servers for n in range(4))
    with running(tmp_path, lines, redis) as (reports, collector):
        while min(server.sent for server in servers) < REPLIES:
            reports.append(collector.report())


def endless_proof(peer):
    """To compute this proof of the password takes an hour."""
    nonce = peer.recv(65536).split(b",r=")[-1]
    salt = base64.b64encode(bytes(8))
    peer.sendall(postgre_message(b"R", struct.pack(">i", 11) + b"r=" + nonce + b"0,s=" + salt + b",i=2147483647"))


MYSQL_LOGIN = MYSQL_GREETING, ..., MYSQL_OK, ..., mysql_result([b"a", b"b"], [])[:-9]
POSTGRE_LOGIN = ..., b"N", ..., SESSIONS["postgre"][1], ..., postgre_result([b"a"], [])[:27]
POSTGRE_ROWS = postgre_message(b"D", b"\0\1\0\0\0\0011") * 1000,
FLOODS = [
    ("mysql", *MYSQL_LOGIN, (mysql_packets([b"\1a\xfc\xe8\3" + bytes(1000)] * 256, 5),)),
    ("sphinx", *MYSQL_LOGIN, (b"\xff\xff\xff\5" + bytes(0xffffff),)),
    ("postgre", *POSTGRE_LOGIN, POSTGRE_ROWS),
    ("postgre", *POSTGRE_LOGIN, postgre_message(b"D", b"", 1 << 30), (bytes(1 << 20),)),
    ("postgre", ..., b"N", ..., postgre_message(b"R", struct.pack(">i", 10) + b"SCRAM-SHA-256\0\0"), endless_proof),
    ("rabbit", ..., HTTP_OK + b"[" + b"1," * 200000 + b"1]"),
    ("elastic", ..., HTTP_OK + b"{" + b'"":[{}],' * 80000 + b'"":{}}')]


def test_floods(tmp_path, redis):
    """The client libraries keep and compute what they like: their memory and time are bounded from outside."""
    servers = [FakeServer(*steps) for _, *steps in FLOODS]
    lines = [line_of(kind, n, server.port) for n, ((kind, *_), server) in enumerate(zip(FLOODS, servers))]
    with FakeServer(*POSTGRE_LOGIN[2:], POSTGRE_ROWS, path=Path("/run/.s.PGSQL.5432")) as local:
        lines.append(line_of("postgre", "local", 5432, "/run"))
        with running(tmp_path, "".join(lines), redis) as (reports, collector):
            reports += collector.reports(8)
            wait_for(lambda: all(server.lasted for server in [*servers, local]))
