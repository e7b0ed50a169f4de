"""Scripted peers: what a broken or hostile service may do with a connection."""

import json
import socket
import socketserver
import struct
import threading
import time
from pathlib import Path


class FakeServer(socketserver.ThreadingMixIn, socketserver.TCPServer):
    """Listens on a port of its own or at a path, plays its steps on every connection and ends it. A step is bytes to
    send, seconds to wait, `...` for a request to wait for and keep, a tuple of steps to repeat for ever, or a function
    of the connection. Kept besides: how many connections were broken off, and how long each lasted."""

    daemon_threads, request_queue_size = True, 64

    def __init__(self, *steps, path=None):
        self.steps, self.path, self.requests, self.broken_off, self.lasted = steps, path, [], 0, []
        self.address_family = socket.AF_UNIX if path else socket.AF_INET
        super().__init__(str(path) if path else ("127.0.0.1", 0), None)
        self.port = None if path else self.server_address[1]
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def finish_request(self, peer, _):
        start = time.monotonic()
        try:
            self.play(peer, self.steps)
            peer.shutdown(socket.SHUT_WR)
            while peer.recv(65536):  # a close with bytes unread would be a reset
                pass
        except OSError:
            self.broken_off += 1
        self.lasted.append(time.monotonic() - start)

    def play(self, peer, steps):
        for step in steps:
            if step is ...:
                self.requests.append(peer.recv(65536))
            elif isinstance(step, bytes):
                peer.sendall(step)
            elif callable(step):
                step(peer)
            elif isinstance(step, tuple):
                while True:
                    self.play(peer, step)
            else:
                time.sleep(step)

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()
        if self.path:
            self.path.unlink()


silent = (..., 60)


class NameServer:
    """Answers every question with one A record, with "no such name", or not at all."""

    def __init__(self, address, flags=None, record=b""):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((address, 53))
        self.asked = 0
        threading.Thread(target=self._answer, args=(flags, record), daemon=True).start()

    def _answer(self, flags, record):
        while True:
            query, peer = self.socket.recvfrom(512)
            self.asked += 1
            if flags:
                head = query[:2] + flags + bytes([0, 1, 0, len(record) > 0, 0, 0, 0, 0])
                self.socket.sendto(head + query[12:query.index(b"\0", 12) + 5] + record, peer)


def reset(peer):
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    peer.close()


def captured(name):
    """What a real server answered."""
    return (Path(__file__).parents[1] / "captures" / name).read_bytes()


# Each kind with its configuration line and the first answers of its server.
KINDS = {name: (line, [captured(file) for file in files.split()]) for name, line, files, *_ in map(
    str.splitlines, captured("kinds.txt").decode().split("> ")[1:])}


CLIENT_LIBRARIES = "mysql_lib libmariadb.so.3\npostgre_lib libpq.so.5\n"


def line_of(kind, name, port, host="127.0.0.1"):
    line = KINDS[kind][0].replace("_main", f"_{name}").replace("127.0.0.1", host)
    return line.replace("@port@", str(port)) + "\n"


def answering(kind):
    """The steps of a server that answers as a real one did."""
    return [step for answer in KINDS[kind][1] for step in (..., answer)]


HTTP_OK = b"HTTP/1.0 200 OK\r\nContent-Type: application/json\r\n\r\n"


def inspection(ip="127.0.0.1", **state):
    """What the engine says about a container."""
    return HTTP_OK + json.dumps({"Id": "x", "State": state, "NetworkSettings": {"IPAddress": ip}}).encode() + b"\n"


def mysql_packet(number, payload):
    return len(payload).to_bytes(3, "little") + bytes([number]) + payload


MYSQL_GREETING = mysql_packet(0, b"\x0a8.0\0" + bytes(4) + b"12345678\0" + b"\xff\xf7\x21\2\0\xff\xc1\x15" + bytes(10)
                              + b"123456789012\0mysql_native_password\0")
MYSQL_OK = mysql_packet(2, b"\0\0\0\2\0\0\0")  # ends a log-in
