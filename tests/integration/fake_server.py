"""Scripted peers: what a broken or hostile service may do with a connection."""

import socket
import threading
import time
from pathlib import Path


class FakeServer:
    """Listens on a port of its own and gives every connection to `behaviour(peer, number)`. What the peers sent
    first is kept."""

    def __init__(self, behaviour, path=None, host="127.0.0.1"):
        self.behaviour, self.requests, self.number = behaviour, [], 0
        self.listener = socket.socket(socket.AF_UNIX if path else socket.AF_INET)
        self.listener.bind(str(path) if path else (host, 0))
        self.listener.listen(64)
        self.port = None if path else self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                peer, _ = self.listener.accept()
            except OSError:
                return
            self.number += 1
            threading.Thread(target=self._serve, args=(peer, self.number), daemon=True).start()

    def _serve(self, peer, number):
        try:
            with peer:
                self.behaviour(self, peer, number)
        except OSError:
            pass

    def read(self, peer):
        request = peer.recv(65536)
        self.requests.append(request)
        return request

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.listener.close()


def silent(server, peer, _):
    server.read(peer)
    time.sleep(30)


def mute(_, peer, __):
    time.sleep(30)


def closing(_, peer, __):
    peer.close()


def empty(server, peer, _):
    server.read(peer)


def flooding(server, peer, _):
    server.read(peer)
    while True:
        peer.sendall(b"\xff\n\0" * 10000)


def saying(text):
    """Answers the first request with these bytes and closes."""
    def behaviour(server, peer, _):
        server.read(peer)
        peer.sendall(text)
    return behaviour


def saying_in_turn(*texts):
    """Answers the requests of a connection one after the other, and keeps it."""
    def behaviour(server, peer, _):
        for text in texts:
            server.read(peer)
            peer.sendall(text)
        server.read(peer)
    return behaviour


def captured(name):
    """What a real server answered."""
    return (Path(__file__).parents[1] / "captures" / name).read_bytes()


FAULTS = {"silent": silent, "mute": mute, "closing": closing, "empty": empty, "flooding": flooding,
          "garbage": saying(bytes(range(256)) * 40), "zeros": saying(b"\0" * 9000),
          "wrong": saying(b"HTTP/1.1 400 Bad Request\r\n\r\n<html>{}</html>"),
          "beyond": saying(b"STAT cmd_get 9999999999999999999999\r\nuptime_in_seconds:99999999999999999999999\r\n")}
