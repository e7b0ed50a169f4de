"""Data stores, on real servers and on scripted ones: figures under a known load, faults, restarts."""

import os
import subprocess
from pathlib import Path
from types import SimpleNamespace

import pytest

from fake_server import MYSQL_GREETING, FakeServer, mysql_packet
from harness import Agent, Collector, check, children, flat, probed, template
from real_servers import Beanstalkd, LocalMemcached, MariaDb, Memcached, Postgres, Redis, Searchd, check_restarts


@pytest.fixture(scope="module")
def stores():
    """The six kinds on real servers."""
    redis = Redis()
    servers = {"redis": redis, "secured": Redis("--requirepass pw"),
               "replica": Redis(f"--replicaof 127.0.0.1 {redis.port}"), "mysql": MariaDb(), "postgres": Postgres(),
               "searchd": Searchd(), "memcached": Memcached(), "local": LocalMemcached(), "beanstalkd": Beanstalkd()}
    yield SimpleNamespace(**servers, config=template("stores.conf", **servers))
    for server in servers.values():
        server.close()


def test_the_figures_of_real_servers_follow_a_known_load(tmp_path, stores):
    with Collector() as collector, Agent(tmp_path, collector.config(stores.config)) as agent:
        collector.reports(2)
        stores.redis.ask("set k v\r\n" + "get k\r\n" * 20 + "get none\r\n" * 9)
        stores.mysql.ask("use d; select * from t; update t set n=2; delete from t;" + "insert into t values (1);" * 10)
        stores.postgres.ask("select 1;\n" * 25)
        stores.searchd.ask("select id from i where match('hello');" * 4)
        stores.memcached.ask("set k 0 0 1\r\nv\r\n" + "get k\r\n" * 7 + "get none\r\n" * 3)
        stores.beanstalkd.ask("put 0 0 9 1\r\nx\r\n" * 5 + "reserve\r\ndelete 1\r\n")
        reports = [flat(report) for report in collector.reports_of_now()]
    last = reports[-1]
    outcomes = probed(check(tmp_path / "tarn.conf", "--probe", status=1))
    assert len(outcomes) == 9 and all(outcome.startswith("ok ") for outcome in outcomes.values()), outcomes

    def total(service, key, per_cycle=0):
        """What the rates of these cycles add up to, without the agent's own share."""
        return sum(report[service][key] for report in reports) / 60 - len(reports) * per_cycle

    assert 30 <= total("main", "total_commands_processed", 1) < 45  # the replica says something, too
    assert total("main", "total_connections_received", 1) == 1
    assert (total("main", "keyspace_hits"), total("main", "keyspace_misses")) == (20, 9)
    assert last["main"]["status"] == 1 and last["main"]["connected_slaves"] in (0, 1)
    # Only the first 4096 bytes of the reply are read; what lies behind them keeps its value, 0 here.
    assert last["main"]["keys"] == (1 if "db0:keys=1" in stores.redis.ask("info\r\n")[:4096] else 0)
    assert ("master_link_status" in last["replica"]) == ("role:slave" in stores.replica.ask("info\r\n")[:4096])
    assert last["secured"]["total_commands_processed"] == 120  # the password and the question, every second
    assert "[INFO] redis auth with AUTH pw\r\n\n" in agent.text

    for name in ("tcp", "local"):
        assert [total(name, key) for key in ("insert", "update", "delete")] == [10, 1, 1] and total(name, "select") >= 1
        assert last[name]["innodb_pool"] > 0 and last[name]["innodb_pool"] % 16384 == 0
        assert last[name]["innodb_ins"] == 0  # this server tells no InnoDB version
    store = last["Postgre_main"]
    assert (store["report"], store["id"]) == ("Postgre", "main") and total("Postgre_main", "cmtd") >= 25
    assert store["rolbck"] == 0 and store["maxw_clean"] == 0 and store["all_con"] > 0 and store["buf_alloc"] > 0
    assert [total("Sphinx_main", key) for key in ("C_S", "Q")] == [4, 4]
    assert total("Sphinx_main", "C", 1) == 1 and total("Sphinx_main", "Q_W") >= 0
    cache = f"127.0.0.1:{stores.memcached.port}"
    assert [total(cache, key) for key in ("get", "set", "hits", "misses")] == [10, 1, 7, 3]
    assert last[cache]["max_bytes"] == 64 << 20 and last[cache]["bytes"] > 0
    assert last[f"localhost:{stores.local.directory}/socket"]["connections"] > 0
    queue = f"127.0.0.1:{stores.beanstalkd.port}"
    assert [total(queue, key) for key in ("put", "cdelete")] == [5, 1] and last[queue]["uptime"] >= 0


def test_a_server_that_dies_takes_only_its_own_figures_with_it(tmp_path, stores):
    taken = {stores.secured: {"secured"}, stores.replica: {"replica"}, stores.mysql: {"tcp", "local"},
             stores.searchd: {"Sphinx_main"}, stores.memcached: {f"127.0.0.1:{stores.memcached.port}"},
             stores.local: {f"localhost:{stores.local.directory}/socket"},
             stores.beanstalkd: {f"127.0.0.1:{stores.beanstalkd.port}"}}
    with Collector() as collector, Agent(tmp_path, collector.config(stores.config)) as agent:
        # A failed log-in leaves the last figures of PostgreSQL standing.
        check_restarts(collector, 10, taken, {stores.postgres: ("Postgre_main", "cmtd")})
        assert len(list(Path(f"/proc/{agent.pid}/fd").iterdir())) < 10
        assert children(agent.pid)
    agent.has_said("Mysql is on\nlibmysqlclient: libmariadb.so.3\nMysql found and loaded = libmariadb.so.3\n"
                   "Postrgre is on\nlibpq: libpq.so.5\nPostgre found and loaded = libpq.so.5\n",
                   "Failed to connect to mysql(tarn:***@localhost/", "Memcache socket connect failed: ",
                   "Closing libmysql\n", "Closing libpq\n")  # the statistics process may print in between


def test_wrong_logins_are_named_and_cost_their_own_counter(tmp_path, stores):
    config = template("wrong_logins.conf", **vars(stores))
    with Collector() as collector, Agent(tmp_path, collector.config(config)) as agent:
        assert set(flat(collector.reports(3)[-1])) == {"none"}  # without a password, whatever comes back is a reply
    agent.has_said("[WARN] redis auth failed -WRONGPASS", "Failed to connect to mysql(tarn:***@127.0.0.1:",
                   "Failed to connect to mysql(tarn:***@127.0.0.1:(0 | )): Error: ",
                   "\nFailed to connect to postgres database: tarn *** 127.0.0.1 ", "\n\nSELECT query5 failed.\n\n",
                   "Cannot initialize memcache on nothing:0\n", "Failed to connect to sphinx(u:secret@127.0.0.1:")
    outcomes = probed(check(tmp_path / "tarn.conf", "--probe", status=2))
    assert {name for name, outcome in outcomes.items() if outcome == "FAILED login rejected"} == {
        "redis_wrong", "mysql_wrong", "postgresql_wrong"}
    assert outcomes["redis_none"].startswith('FAILED the reply begins with "-NOAUTH')
    assert outcomes["postgresql_broken"].startswith("FAILED ERROR: ")
    assert outcomes["sphinx_closed"].startswith("FAILED Can't connect to server on")
    assert outcomes["mysql_nothing"] == "FAILED no figures"


@pytest.mark.parametrize("method", [b"mysql_clear_password", b"dialog"])
def test_a_server_cannot_ask_for_the_password(tmp_path, method):
    with FakeServer(MYSQL_GREETING, ..., mysql_packet(2, b"\xfe" + method + b"\0"), ...) as server:
        config = f"id 7\ninterval 1\nmysql_lib libmariadb.so.3\nmysql_a user:secret-word@127.0.0.1:{server.port}\n"
        with Agent(tmp_path, config) as agent:
            agent.wait_text("Failed to connect to mysql(user:***@127.0.0.1:")
    assert b"user" in server.requests[0]
    assert not any(b"secret-word" in request for request in server.requests)


def test_what_users_and_servers_leave_for_libpq_does_not_matter(tmp_path, stores):
    os.mkfifo(tmp_path / "fifo")  # a credential cache that would never open
    (tmp_path / "krb5.conf").write_text(f"[libdefaults]\ndefault_ccache_name = FILE:{tmp_path}/fifo\n")
    stores.postgres.ask("alter role tarn set client_min_messages = debug5")
    config = f"postgre_lib libpq.so.5\npostgresql_main tarn:pw@127.0.0.1:{stores.postgres.port}\n"
    environment = {**os.environ, "KRB5_CONFIG": str(tmp_path / "krb5.conf")}
    with Collector() as collector, Agent(tmp_path, collector.config(config), env=environment) as agent:
        assert set(flat(collector.reports(2)[-1])) == {"Postgre_main"}
    stores.postgres.ask("alter role tarn reset client_min_messages")
    assert "DEBUG:" not in agent.text


ALMOST = ("init close error real_connect query store_result fetch_row num_fields free_result options").split()


@pytest.mark.parametrize("key, library, missing", [
    ("mysql", "libm.so.6", "mysql_init"), ("mysql", "{0}/stub.so", "mysql_library/server_end"),
    ("postgre", "libm.so.6", "PQconnectdb"), ("mysql", "/no/such.so", None), ("postgre", "/no/such.so", None)])
def test_a_library_without_a_function_counts_as_absent(tmp_path, key, library, missing):
    library = library.format(tmp_path)
    source = "".join(f"long mysql_{name}(void) {{ return 0; }}" for name in ALMOST)
    subprocess.run(["cc", "-shared", "-x", "c", "-", "-o", tmp_path / "stub.so"], check=True, input=source.encode())
    lines = {"mysql": "mysql_a u:p@127.0.0.1:1\nsphinx_b u:p@127.0.0.1:1\n", "postgre": "postgresql_a u:p@h:1\n"}
    with Collector() as collector, Agent(tmp_path, collector.config(f"{key}_lib {library}\n{lines[key]}")) as agent:
        assert flat(collector.report()) == {}
    name, error, closing = {
        "mysql": ("libmysqlclient", "ERROR loading mysql", "Closing libmysql\n"),
        "postgre": ("libpq", "Error loading postgre", "Closing libpostgre\n")}[key]
    agent.has_said(f"{name}: {library}\n", f"{error} = {library}\n",
                   f"dlsym({missing}) error: " if missing else "dlopen error: ")
    assert agent.text.count(closing) == (1 if missing else 0)
