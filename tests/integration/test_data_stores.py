"""Data stores, on real servers and on scripted ones: figures under a known load, faults, restarts."""

import os
import subprocess
from pathlib import Path

import pytest

from fake_server import FakeServer
from real_servers import Beanstalkd, MariaDb, Memcached, Postgres, Redis, Searchd, free_port
from tarn_host import Agent, Collector, children, flat, wait_for


class Stores:
    """The six kinds on real servers, in one configuration of ten lines."""

    def __init__(self):
        self.redis, self.secured = Redis(), Redis("--requirepass", "pw")
        self.replica = Redis("--replicaof", f"127.0.0.1 {self.redis.port}")
        self.mysql, self.postgres, self.searchd = MariaDb(), Postgres(), Searchd()
        self.memcached, self.local, self.beanstalkd = Memcached(), Memcached(path=True), Beanstalkd()
        self.all = [self.redis, self.secured, self.replica, self.mysql, self.postgres, self.searchd, self.memcached,
                    self.local, self.beanstalkd]

    def config(self):
        return f"""mysql_lib libmariadb.so.3
postgre_lib libpq.so.5
redis_main user:@127.0.0.1:{self.redis.port}
redis_secured user:pw@127.0.0.1:{self.secured.port}
redis_replica user:@127.0.0.1:{self.replica.port}
mysql_tcp tarn:pw@127.0.0.1:{self.mysql.port}
mysql_local tarn:pw@localhost:{self.mysql.path}
postgresql_main tarn:pw@127.0.0.1:{self.postgres.port}
sphinx_main u:@127.0.0.1:{self.searchd.port}
memcache 127.0.0.1:{self.memcached.port}
memcache localhost:{self.local.directory}/socket
beanstalk 127.0.0.1:{self.beanstalkd.port}
"""

    def load(self):
        """30 commands, 10 inserts, 5 jobs and so on."""
        self.redis.ask("set k v\r\n" + "get k\r\n" * 20 + "get none\r\n" * 9)
        self.mysql.sql("insert into d.t values (1);" * 10 + "select * from d.t; update d.t set n = 2; delete from d.t")
        self.postgres.sql(*["select 1"] * 25)
        for _ in range(4):
            self.searchd.search("hello")
        self.memcached.ask("set k 0 0 1\r\nv\r\n" + "get k\r\n" * 7 + "get none\r\n" * 3)
        self.beanstalkd.ask(*["put 0 0 9 1\r\nx\r\n"] * 5, "reserve\r\n", "delete 1\r\n")


@pytest.fixture(scope="module")
def stores():
    servers = Stores()
    yield servers
    for server in servers.all:
        server.close()


def test_the_figures_of_real_servers_follow_a_known_load(tmp_path, stores):
    with Collector() as collector, Agent(tmp_path, collector.config(stores.config())) as agent:
        collector.reports(2)
        stores.load()
        reports = [flat(report) for report in collector.reports_of_now()]
    last = reports[-1]

    def total(service, key, per_cycle=0):
        """What the rates of these cycles add up to, without the agent's own share."""
        return sum(report[service][key] for report in reports) / 60 - len(reports) * per_cycle

    assert 30 <= total("main", "total_commands_processed", 1) < 45  # the replica says something, too
    assert total("main", "total_connections_received", 1) == 1
    assert (total("main", "keyspace_hits"), total("main", "keyspace_misses")) == (20, 9)
    assert last["main"]["status"] == 1 and last["main"]["connected_slaves"] in (0, 1)
    # Only the first 4096 bytes of the reply are read; what lies behind them keeps its value, 0 here.
    seen = stores.redis.ask("info\r\n").decode()
    assert last["main"]["keys"] == (1 if "db0:keys=1" in seen else 0)
    assert ("master_link_status" in last["replica"]) == ("role:slave" in stores.replica.ask("info\r\n").decode())
    assert last["secured"]["total_commands_processed"] == 120  # the password and the question, every second
    assert "[INFO] redis auth with AUTH pw\r\n\n" in agent.text

    for name in ("tcp", "local"):
        assert (total(name, "insert"), total(name, "update"), total(name, "delete")) == (10, 1, 1)
        assert total(name, "select") >= 1
        assert last[name]["innodb_pool"] > 0 and last[name]["innodb_pool"] % 16384 == 0
        assert last[name]["innodb_ins"] == 0  # this server tells no InnoDB version
    store = last["Postgre_main"]
    assert (store["report"], store["id"]) == ("Postgre", "main")
    assert total("Postgre_main", "cmtd") >= 25
    assert store["rolbck"] == 0 and store["maxw_clean"] == 0 and store["all_con"] > 0 and store["buf_alloc"] > 0
    assert total("Sphinx_main", "C_S") == 4 and total("Sphinx_main", "Q") == 4
    assert total("Sphinx_main", "C", 1) == 4 and total("Sphinx_main", "Q_W") >= 0
    cache = f"127.0.0.1:{stores.memcached.port}"
    assert [total(cache, key) for key in ("get", "set", "hits", "misses")] == [10, 1, 7, 3]
    assert last[cache]["max_bytes"] == 64 << 20 and last[cache]["bytes"] > 0
    assert last[f"localhost:{stores.local.directory}/socket"]["connections"] > 0
    queue = last[f"127.0.0.1:{stores.beanstalkd.port}"]
    assert total(f"127.0.0.1:{stores.beanstalkd.port}", "put") == 5
    assert total(f"127.0.0.1:{stores.beanstalkd.port}", "cdelete") == 1 and queue["uptime"] >= 0


def test_a_server_that_dies_takes_only_its_own_figures_with_it(tmp_path, stores):
    named = {"secured": stores.secured, "replica": stores.replica, "tcp": stores.mysql, "Sphinx_main": stores.searchd,
             f"127.0.0.1:{stores.memcached.port}": stores.memcached,
             f"localhost:{stores.local.directory}/socket": stores.local,
             f"127.0.0.1:{stores.beanstalkd.port}": stores.beanstalkd}
    with Collector() as collector, Agent(tmp_path, collector.config(stores.config())) as agent:
        def report_where(condition):
            return wait_for(lambda: condition(report := flat(collector.report())) and report, 20)

        everything = set(report_where(lambda report: len(report) == 10))
        own = {key: {key} for key in named} | {"tcp": {"tcp", "local"}}
        for key, server in named.items():
            server.stop()
            assert set(flat(collector.reports_of_now()[-1])) == everything - own[key]
            server.start()
            report_where(lambda report: set(report) == everything)
        # A failed log-in leaves the last figures standing, with rates of 0.
        stores.postgres.stop()
        agent.wait_text("\nFailed to connect to postgres database: tarn *** 127.0.0.1 ")
        frozen = report_where(lambda report: report["Postgre_main"]["cmtd"] == 0)
        stores.postgres.start()
        report_where(lambda report: report["Postgre_main"]["cmtd"] > 0)
        assert set(frozen) == everything
        assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 10
        assert children(agent.pid) and agent.stop()[0] == 0
    for text in ("Mysql is on\n", "libmysqlclient: libmariadb.so.3\n", "Mysql found and loaded = libmariadb.so.3\n",
                 "Postrgre is on\n", "libpq: libpq.so.5\n", "Postgre found and loaded = libpq.so.5\n",
                 "Failed to connect to mysql(tarn:***@127.0.0.1:", "Failed to connect to mysql(tarn:***@localhost/",
                 "Failed to connect to sphinx(u:@127.0.0.1:", "Memcache socket connect failed: ",
                 "Closing libmysql\n", "Closing libpq\n"):
        assert text in agent.text


def test_wrong_logins_are_named_and_cost_their_own_counter(tmp_path, stores):
    config = f"""mysql_lib libmariadb.so.3
postgre_lib libpq.so.5
slow_query_sec 1'x
redis_wrong user:bad@127.0.0.1:{stores.secured.port}
redis_none user:@127.0.0.1:{stores.secured.port}
mysql_wrong tarn:bad@127.0.0.1:{stores.mysql.port}
mysql_nothing tarn:bad@127.0.0.1:0
postgresql_wrong tarn:bad@127.0.0.1:{stores.postgres.port}
postgresql_broken tarn:pw@127.0.0.1:{stores.postgres.port}
memcache nothing
sphinx_closed u:secret@127.0.0.1:{free_port()}
"""
    with Collector() as collector, Agent(tmp_path, collector.config(config)) as agent:
        report = flat(collector.reports(3)[-1])
        agent.stop()
    assert set(report) == {"none"}  # without a password, whatever comes back is a reply
    for text in ("[WARN] redis auth failed -WRONGPASS", "Failed to connect to mysql(tarn:***@127.0.0.1:",
                 "Failed to connect to mysql(tarn:***@127.0.0.1:(0 | )): Error: ",
                 "\nFailed to connect to postgres database: tarn *** 127.0.0.1 ", "\n\nSELECT query5 failed.\n\n",
                 "Cannot initialize memcache on nothing:0\n", "Failed to connect to sphinx(u:secret@127.0.0.1:"):
        assert text in agent.text


def packet(number, payload):
    """A packet of the MySQL protocol."""
    return len(payload).to_bytes(3, "little") + bytes([number]) + payload


@pytest.mark.parametrize("method", [b"mysql_clear_password", b"dialog"])
def test_a_server_cannot_ask_for_the_password(tmp_path, method):
    greeting = (b"\x0a8.0\0" + bytes(4) + b"12345678\0" + b"\xff\xf7\x21\2\0\xff\xc1\x15" + bytes(10) + b"123456789012\0"
                b"mysql_native_password\0")

    def asking(server, peer, _):
        peer.sendall(packet(0, greeting))
        number = server.read(peer)[3]
        peer.sendall(packet(number + 1, b"\xfe" + method + b"\0"))
        server.read(peer)

    with FakeServer(asking) as server, Collector() as collector:
        config = f"mysql_lib libmariadb.so.3\nmysql_a user:secret-word@127.0.0.1:{server.port}\n"
        with Agent(tmp_path, collector.config(config)) as agent:
            collector.reports(2)
            agent.wait_text("Failed to connect to mysql(user:***@127.0.0.1:")
    assert b"user" in server.requests[0]
    assert not any(b"secret-word" in request for request in server.requests)


def test_what_users_and_servers_leave_for_libpq_does_not_matter(tmp_path, stores):
    os.mkfifo(tmp_path / "fifo")  # a credential cache that would never open
    (tmp_path / "krb5.conf").write_text(f"[libdefaults]\ndefault_ccache_name = FILE:{tmp_path}/fifo\n")
    stores.postgres.sql("alter role tarn set client_min_messages = debug5")
    config = f"postgre_lib libpq.so.5\npostgresql_main tarn:pw@127.0.0.1:{stores.postgres.port}\n"
    environment = {**os.environ, "KRB5_CONFIG": str(tmp_path / "krb5.conf")}
    with Collector() as collector, Agent(tmp_path, collector.config(config), env=environment) as agent:
        assert set(flat(collector.reports(2)[-1])) == {"Postgre_main"}
        agent.stop()
    stores.postgres.sql("alter role tarn reset client_min_messages")
    assert "DEBUG:" not in agent.text


MYSQL = ("mysql_init mysql_close mysql_error mysql_real_connect mysql_query mysql_store_result mysql_fetch_row "
         "mysql_num_fields mysql_free_result mysql_options").split()
PQ = ("PQconnectdb PQsetdbLogin PQstatus PQexec PQgetvalue PQresultStatus PQntuples PQnfields PQfname PQerrorMessage "
      "PQclear PQfinish").split()


def stub_library(directory, names):
    """A library with nothing but these functions."""
    path = directory / "libstub.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", str(path)], check=True,
                   input="".join(f"long {name}(void) {{ return 0; }}\n" for name in names).encode())
    return path


@pytest.mark.parametrize("key, names, missing", [
    ("mysql", MYSQL[:4], "mysql_query"), ("mysql", MYSQL, "mysql_library/server_end"),
    ("postgre", PQ[1:], "PQconnectdb"), ("postgre", PQ[:-1], "PQfinish"), ("mysql", None, None),
    ("postgre", None, None)])
def test_a_library_without_a_function_counts_as_absent(tmp_path, key, names, missing):
    path = stub_library(tmp_path, names) if names else "/no/such.so"
    lines = {"mysql": "mysql_a u:p@127.0.0.1:1\nsphinx_b u:p@127.0.0.1:1\n", "postgre": "postgresql_a u:p@h:1\n"}
    with Collector() as collector, Agent(tmp_path, collector.config(f"{key}_lib {path}\n{lines[key]}")) as agent:
        assert flat(collector.reports(2)[-1]) == {}
        assert agent.stop()[0] == 0
    name = {"mysql": "libmysqlclient", "postgre": "libpq"}[key]
    error = {"mysql": "ERROR loading mysql", "postgre": "Error loading postgre"}[key]
    closing = {"mysql": "Closing libmysql\n", "postgre": "Closing libpostgre\n"}[key]
    assert f"{name}: {path}\n" in agent.text and f"{error} = {path}\n" in agent.text
    if missing:
        assert f"dlsym({missing}) error: " in agent.text
        assert agent.text.count(closing) == 1
    else:
        assert "dlopen error: " in agent.text and "Closing" not in agent.text
