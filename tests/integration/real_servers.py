"""Real servers, each on a port and in a directory of its own."""

import os
import shutil
import socket
import subprocess
import tempfile
from pathlib import Path

from harness import flat, template, wait_for


class Server:
    """A server process that can be stopped and started again. Its kind gives shell commands, in which $port is the
    server's port and $HOME its directory, and a file of servers/ that is its configuration."""

    user = None
    config = None
    # Run once, before the first start.
    before = ":"
    command = None
    # Succeeds once the server answers.
    ready = ": </dev/tcp/127.0.0.1/$port"
    # Sends the requests that it reads from standard input and prints the answers.
    client = "exec 3<>/dev/tcp/127.0.0.1/$port; (cat; printf 'quit\\r\\n') >&3; cat <&3"

    def __init__(self, options="", **values):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.options, self.port = options, probe.getsockname()[1]
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


class Redis(Server):
    command = "redis-server --port $port --bind 127.0.0.1"


class MariaDb(Server):
    """Its temporary files, named by a pid that servers in other namespaces may have, too, lie in its directory."""

    user = "mysql"
    before = ("mariadb-install-db --no-defaults --datadir=$HOME/data --user=mysql --tmpdir=$HOME "
              "--auth-root-authentication-method=normal")
    command = ("mariadbd --no-defaults --datadir=$HOME/data --port=$port --socket=$HOME/socket --pid-file=$HOME/pid "
               "--tmpdir=$HOME")
    client = "mariadb --no-defaults --socket=$HOME/socket -uroot"
    ready = client + """ -e "create user if not exists tarn identified by 'pw'; drop user if exists ''@localhost;
        grant process, replication client, slave monitor on *.* to tarn; create database if not exists d;
        create table if not exists d.t (n int) engine=innodb" """


class Postgres(Server):
    user = "postgres"
    before = "/usr/lib/postgresql/15/bin/initdb -D data -U tarn --auth=scram-sha-256 --pwfile=<(echo pw)"
    command = ("/usr/lib/postgresql/15/bin/postgres -D data -p $port -k $HOME -c listen_addresses=127.0.0.1 "
               "-c autovacuum=off -c fsync=off")
    ready = "pg_isready -q -h 127.0.0.1 -p $port"
    client = "psql -q postgresql://tarn:pw@127.0.0.1:$port/postgres"


class Memcached(Server):
    command = "memcached -u root -l 127.0.0.1 -p $port"


class LocalMemcached(Server):
    command = "memcached -u root -s $HOME/socket"
    ready = "test -S socket"


class Beanstalkd(Server):
    command = "beanstalkd -l 127.0.0.1 -p $port"


class Searchd(Server):
    config = "sphinx.conf"
    before = r"printf '1\thello world\n2\tgood bye\n' >documents.tsv; indexer -c sphinx.conf --all"
    command = "searchd -c sphinx.conf --nodetach"
    client = "mariadb --no-defaults -h 127.0.0.1 -P $port"


class PhpFpm(Server):
    """Two pools, one on TCP and one on a Unix socket; "/sleep.php" keeps a child busy."""

    config = "fpm.conf"
    before = "echo '<?php sleep(4);' >sleep.php"
    command = "php-fpm8.2 -F -n -y $HOME/fpm.conf"


class Nginx(Server):
    """A stub status page, open and behind a password, and PHP."""

    config = "nginx.conf"
    before = "echo tarn:$(openssl passwd -apr1 pw) >users"
    command = "nginx -c $HOME/nginx.conf -e $HOME/log"


class Apache(Server):
    config = "httpd.conf"
    before = "mkdir html; echo hello >html/index.html"
    command = "apache2 -f $HOME/httpd.conf -DFOREGROUND"


class RabbitMq(Server):
    """A broker with its management plugin; `port` is that of the API."""

    user = "rabbitmq"
    config = "rabbitmq.conf"
    before = "echo '[rabbitmq_management].' >plugins"
    command = ("env RABBITMQ_NODENAME=tarn@localhost RABBITMQ_LOG_BASE=$HOME RABBITMQ_MNESIA_BASE=$HOME "
               "RABBITMQ_CONFIG_FILE=$HOME/rabbitmq.conf RABBITMQ_ENABLED_PLUGINS_FILE=$HOME/plugins "
               "/usr/lib/rabbitmq/bin/rabbitmq-server")
    ready = r"""exec 3<>/dev/tcp/127.0.0.1/$port
        printf 'GET /api/nodes HTTP/1.0\r\nAuthorization: Basic Z3Vlc3Q6Z3Vlc3Q=\r\n\r\n' >&3; grep -q running <&3"""


class Docker(Server):
    """The engine, with a busybox image; its client reads commands for a shell."""

    before = "mkdir -p root/bin; cp /bin/busybox root/bin/sh; cp /bin/busybox root/bin"
    command = ("dockerd --iptables=false --ip6tables=false --storage-driver=vfs -H unix:///run/docker.sock "
               "--data-root $HOME/data --exec-root $HOME/exec --pidfile $HOME/pid")
    client = "DOCKER_HOST=unix:///run/docker.sock sh -e"
    ready = client + " -c 'docker info; docker image inspect box || tar -C root -c . | docker import - box'"


def check_restarts(collector, count, taken, kept):
    """Of so many elements, a server that is stopped takes those in `taken` with it, and nothing else; those in `kept`
    stay, with a rate of 0. All is as before once the server is started again."""
    def elements_where(condition):
        return set(flat(collector.report_where(lambda report: condition(flat(report)))))
    everything = elements_where(lambda found: len(found) == count)
    for server, own in taken.items():
        server.stop()
        assert set(flat(collector.reports_of_now()[-1])) == everything - own
        server.start()
        elements_where(lambda found: set(found) == everything)
    for server, (key, rate) in kept.items():
        server.stop()
        assert elements_where(lambda found: found[key][rate] == 0) == everything
        server.start()
        elements_where(lambda found: found[key][rate] > 0)


class VictoriaMetrics(Server):
    command = "victoria-metrics -storageDataPath=data -httpListenAddr=127.0.0.1:$port -search.latencyOffset=0s"


class InfluxDb(Server):
    config = "influxdb.conf"
    command = "influxd -config influxdb.conf"


class Prometheus(Server):
    """Scrapes @target@ once a second and follows the rules in @rules@."""

    config = "prometheus.yml"
    command = "prometheus --config.file=prometheus.yml --storage.tsdb.path=data --web.listen-address=127.0.0.1:$port"
