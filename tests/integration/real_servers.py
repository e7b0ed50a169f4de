"""Real servers, each on a port and in a directory of its own."""

import itertools
import os
import shutil
import subprocess
import tempfile
import tomllib
from pathlib import Path

from harness import flat, template, wait_for

ports = itertools.count(20000)  # below those that the kernel gives to clients


class Server:
    """A server process that can be stopped and started again. servers/servers.toml describes the kinds."""

    user = config = None
    before = ":"
    ready = ": </dev/tcp/127.0.0.1/$port"
    client = "exec 3<>/dev/tcp/127.0.0.1/$port; (cat; printf 'quit\\r\\n') >&3; cat <&3"

    def __init__(self, options="", **values):
        self.options, self.port = options, next(ports)
        self.directory = Path(tempfile.mkdtemp(prefix="tarn-server-"))
        self.directory.chmod(0o755)
        if self.config:
            text = template(self.config, directory=self.directory, port=self.port, **values)
            (self.directory / self.config).write_text(text)
        if self.user:
            shutil.chown(self.directory, self.user)
        self.run(self.before)
        self.start()

    def shell(self, command):
        return {"args": ["bash", "-ec", command], "user": self.user, "cwd": self.directory,
                "env": {**os.environ, "HOME": str(self.directory), "port": str(self.port)}}

    def run(self, command, text=""):
        """The standard output of a command that must succeed."""
        done = subprocess.run(**self.shell(command), input=text.encode(), capture_output=True, check=False)
        assert done.returncode == 0, f"{command}: {done.stdout.decode()[-1000:]} {done.stderr.decode()[-1000:]}"
        return done.stdout.decode()

    def start(self):
        with open(self.directory / "output", "a") as output:
            self.process = subprocess.Popen(**self.shell(f"exec {self.command} {self.options}"), stdout=output,
                                            stderr=output, stdin=subprocess.DEVNULL, start_new_session=True)
        ready = self.shell(self.ready)
        try:
            wait_for(lambda: subprocess.run(**ready, capture_output=True, check=False).returncode == 0, 60, 0.1)
        except AssertionError as error:
            raise AssertionError(f"{self.command}: " + (self.directory / "output").read_text()[-2000:]) from error

    def ask(self, text):
        return self.run(self.client, text)

    def stop(self):
        self.process.terminate()
        self.process.wait(60)

    def close(self):
        self.stop()
        shutil.rmtree(self.directory, ignore_errors=True)


# Each table is a class of this module: Redis, MariaDb, Postgres, ...
for name, settings in tomllib.loads(template("servers.toml")).items():
    globals()[name] = type(name, (Server,), settings)


RULES = {"per_second": sum, "per_minute": lambda rates: sum(rates) / 60, "max": max, "last": lambda found: found[-1]}


def check_figures(reports, table, **values):
    """Compares figures with a table of SERVICE KEY RULE LOWEST HIGHEST OWN. Rates are added up; OWN is what the agent
    itself may add in each cycle."""
    for row in template(table, **values).splitlines():
        service, key, rule, lowest, highest, own = row.split()
        found = [report[service][key] for report in reports if service in report]
        assert float(lowest) <= RULES[rule](found) <= float(highest) + int(own) * len(found), (row, found)


def check_restarts(collector, count, taken, kept):
    """Of so many elements, a server that is stopped takes those in `taken` with it, and nothing else; those in `kept`
    stay, with a rate of 0. All is as before once the server is started again."""
    def wait_until(condition):
        return set(flat(collector.report_where(lambda report: condition(flat(report)))))
    everything = wait_until(lambda found: len(found) == count)
    for server, own in taken.items():
        server.stop()
        collector.reports_of_now()
        wait_until(lambda found: set(found) == everything - own)
        server.start()
        wait_until(lambda found: set(found) == everything)
    for server, (key, rate) in kept.items():
        server.stop()
        collector.reports_of_now()
        wait_until(lambda found: set(found) == everything and found[key][rate] == 0)
        server.start()
        wait_until(lambda found: set(found) == everything and found[key][rate] > 0)
