"""Real servers, each on a port and in a directory of its own, started once for the whole run."""

import base64
import json
import os
import pwd
import shutil
import socket
import subprocess
import tempfile
import urllib.error
import urllib.request
from pathlib import Path

from tarn_host import wait_for


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answers(port):
    with socket.socket() as probe:
        probe.settimeout(1)
        return probe.connect_ex(("127.0.0.1", port)) == 0


def template(name, **values):
    """A configuration file, its "@word@"s replaced."""
    text = (Path(__file__).parent / "servers" / name).read_text()
    for word, value in values.items():
        text = text.replace(f"@{word}@", str(value))
    return text


class Server:
    """A server process that can be stopped and started again; `ready` tells when it answers."""

    def __init__(self, name, user=None):
        self.name, self.user, self.port, self.process = name, user, free_port(), None
        self.directory = Path(tempfile.mkdtemp(prefix=f"tarn-{name}-"))
        if user:
            os.chown(self.directory, pwd.getpwnam(user).pw_uid, -1)
        self.directory.chmod(0o755)
        self.prepare()
        self.start()

    def prepare(self):
        pass

    def configure(self, name, **values):
        """Writes a configuration file with the places and ports of this server."""
        (self.directory / name).write_text(template(name, directory=self.directory, port=self.port, **values))

    def ready(self):
        return answers(self.port)

    def start(self):
        with open(self.directory / "output", "a") as output:
            self.process = subprocess.Popen([str(word) for word in self.command()], user=self.user, stdout=output,
                                            stderr=output, stdin=subprocess.DEVNULL, cwd=self.directory,
                                            start_new_session=True, env=self.environment())
        try:
            wait_for(self.ready, 60, 0.1)
        except AssertionError as error:
            raise AssertionError(f"{self.name}: " + (self.directory / "output").read_text()[-2000:]) from error

    def environment(self):
        return {**os.environ, "HOME": str(self.directory)}

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def close(self):
        self.stop()
        shutil.rmtree(self.directory, ignore_errors=True)


def run(*command, **options):
    """The standard output of a command that must succeed."""
    done = subprocess.run([str(word) for word in command], check=False, capture_output=True, **options)
    assert done.returncode == 0, f"{command}: {done.stdout.decode()[-1000:]} {done.stderr.decode()[-1000:]}"
    return done.stdout


class Redis(Server):
    def __init__(self, *options):
        self.options = options
        super().__init__("redis")

    def command(self):
        return ["redis-server", "--port", self.port, "--bind", "127.0.0.1", "--dir", self.directory, *self.options]

    def ask(self, request, password=None):
        """Sends inline commands and returns the bytes that come back within a moment."""
        with socket.create_connection(("127.0.0.1", self.port)) as peer:
            if password:
                peer.sendall(f"AUTH {password}\r\n".encode())
                peer.recv(100)
            peer.sendall(request.encode())
            return peer.recv(4096)

    def ready(self):
        return super().ready() and b"LOADING" not in self.ask("ping\r\n")


class MariaDb(Server):
    """Its temporary files bear its pid, which servers in several pid namespaces share: they lie in its own directory."""

    def __init__(self):
        super().__init__("mariadb", "mysql")

    def prepare(self):
        run("mariadb-install-db", "--no-defaults", f"--datadir={self.directory}/data", "--user=mysql",
            f"--tmpdir={self.directory}", "--auth-root-authentication-method=normal", user=self.user)

    @property
    def path(self):
        return self.directory / "socket"

    def command(self):
        return ["mariadbd", "--no-defaults", f"--datadir={self.directory}/data", f"--port={self.port}",
                f"--socket={self.path}", f"--pid-file={self.directory}/pid", f"--tmpdir={self.directory}"]

    def sql(self, statements):
        return run("mariadb", "--no-defaults", f"--socket={self.path}", "-uroot", "-N", "-B", "-e", statements).decode()

    def start(self):
        super().start()
        self.sql("create user if not exists tarn identified by 'pw'; create database if not exists d;"
                 "drop user if exists ''@localhost; grant process, replication client, slave monitor on *.* to tarn;"
                 "create table if not exists d.t (n int) engine=innodb")


class Postgres(Server):
    BIN = Path("/usr/lib/postgresql/15/bin")

    def __init__(self):
        super().__init__("postgres", "postgres")

    def prepare(self):
        (self.directory / "pw").write_text("pw\n")
        run(self.BIN / "initdb", "-D", self.directory / "data", "-U", "tarn", "--auth=scram-sha-256",
            f"--pwfile={self.directory}/pw", user=self.user)

    def command(self):
        return [self.BIN / "postgres", "-D", self.directory / "data", "-p", self.port, "-k", self.directory,
                "-c", "listen_addresses=127.0.0.1", "-c", "autovacuum=off", "-c", "fsync=off"]

    def ready(self):
        return subprocess.run([self.BIN / "pg_isready", "-q", "-h", "127.0.0.1", "-p", str(self.port)],
                              check=False).returncode == 0

    def sql(self, *statements):
        words = [word for statement in statements for word in ("-c", statement)]
        return run("psql", "-h", "127.0.0.1", "-p", self.port, "-U", "tarn", "-At", "postgres", *words,
                   env={**os.environ, "PGPASSWORD": "pw"}).decode()


class Memcached(Server):
    def __init__(self, path=None):
        self.path = path
        super().__init__("memcached")

    def command(self):
        place = ["-s", self.directory / "socket"] if self.path else ["-l", "127.0.0.1", "-p", self.port]
        return ["memcached", "-u", "root", *place]

    def ready(self):
        return (self.directory / "socket").exists() if self.path else super().ready()

    def ask(self, request):
        place = str(self.directory / "socket") if self.path else ("127.0.0.1", self.port)
        with socket.socket(socket.AF_UNIX if self.path else socket.AF_INET) as peer:
            peer.connect(place)
            # A client that closes before it has read every reply loses the commands that are still to come.
            peer.sendall(request.encode() + b"quit\r\n")
            while peer.recv(65536):
                pass


class Beanstalkd(Server):
    def __init__(self):
        super().__init__("beanstalkd")

    def command(self):
        return ["beanstalkd", "-l", "127.0.0.1", "-p", self.port]

    def ask(self, *requests):
        with socket.create_connection(("127.0.0.1", self.port)) as peer:
            for request in requests:
                peer.sendall(request.encode())
                reply = peer.recv(65536).decode()
        return reply


class Searchd(Server):
    def __init__(self):
        super().__init__("searchd")

    def prepare(self):
        (self.directory / "documents.tsv").write_text("1\thello world\n2\tgood bye\n")
        self.configure("sphinx.conf")
        run("indexer", "-c", self.directory / "sphinx.conf", "--all")

    def command(self):
        return ["searchd", "-c", self.directory / "sphinx.conf", "--nodetach"]

    def search(self, words):
        return run("mariadb", "--no-defaults", "-h", "127.0.0.1", "-P", self.port, "-N", "-B", "-e",
                   f"select id from i where match('{words}')").decode()


def http(port, path="/", method="GET", body=None, login=None):
    """The body of a page; any status is an answer."""
    request = urllib.request.Request(f"http://127.0.0.1:{port}{path}", method=method,
                                     data=json.dumps(body).encode() if body is not None else None)
    if login:
        request.add_header("Authorization", "Basic " + base64.b64encode(login.encode()).decode())
    try:
        with urllib.request.urlopen(request, timeout=10) as answer:
            return answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.read().decode()


class PhpFpm(Server):
    """Two pools, one on TCP and one on a Unix socket; "/sleep.php" keeps a child busy."""

    def __init__(self):
        super().__init__("php-fpm")

    def prepare(self):
        (self.directory / "sleep.php").write_text("<?php sleep(4);")
        self.configure("fpm.conf")

    def command(self):
        return ["php-fpm8.2", "-F", "-n", "-y", self.directory / "fpm.conf"]


class Nginx(Server):
    """A stub status page, open and behind a password, and PHP."""

    def __init__(self, php):
        self.php = php
        super().__init__("nginx")

    def prepare(self):
        password = run("openssl", "passwd", "-apr1", "pw").decode().strip()
        (self.directory / "users").write_text(f"tarn:{password}\n")
        self.configure("nginx.conf", php_port=self.php.port, php_directory=self.php.directory)

    def command(self):
        return ["nginx", "-c", self.directory / "nginx.conf", "-e", self.directory / "log"]


class Apache(Server):
    def __init__(self):
        super().__init__("apache")

    def prepare(self):
        (self.directory / "html").mkdir()
        (self.directory / "html/index.html").write_text("hello")
        self.configure("httpd.conf")

    def command(self):
        return ["apache2", "-f", self.directory / "httpd.conf", "-DFOREGROUND"]


class RabbitMq(Server):
    """A broker with its management plugin; `port` is that of the API."""

    def __init__(self):
        super().__init__("rabbitmq", "rabbitmq")

    def prepare(self):
        (self.directory / "enabled_plugins").write_text("[rabbitmq_management].\n")
        self.configure("rabbitmq.conf", amqp_port=free_port())

    def environment(self):
        return {**super().environment(), "RABBITMQ_NODENAME": "tarn@localhost", "RABBITMQ_LOG_BASE": str(self.directory),
                "RABBITMQ_MNESIA_BASE": str(self.directory), "RABBITMQ_DIST_PORT": str(free_port()),
                "RABBITMQ_CONFIG_FILE": str(self.directory / "rabbitmq.conf"),
                "RABBITMQ_ENABLED_PLUGINS_FILE": str(self.directory / "enabled_plugins")}

    def command(self):
        return ["/usr/lib/rabbitmq/bin/rabbitmq-server"]

    def ready(self):
        return super().ready() and "running" in http(self.port, "/api/nodes", login="guest:guest")

    def api(self, path, method, body):
        return http(self.port, path, method, body, "guest:guest")

    def close(self):
        super().close()
        subprocess.run(["epmd", "-kill"], check=False, capture_output=True)
