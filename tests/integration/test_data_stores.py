"""Data stores, on real servers and on scripted ones: figures under a known load, faults, restarts."""

import os
import subprocess
from pathlib import Path
from types import SimpleNamespace

import pytest

from fake_server import MYSQL_GREETING, FakeServer, line_of, mysql_packet
from harness import Agent, Collector, check, children, flat, probed, template, wait_for
from real_servers import (Beanstalkd, LocalMemcached, MariaDb, Memcached, Postgres, Redis, Searchd, check_figures,
                          check_restarts)


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
    outcomes = probed(check(tmp_path / "tarn.conf", "--probe", status=1))
    assert len(outcomes) == 9 and all(outcome.startswith("ok ") for outcome in outcomes.values()), outcomes
    check_figures(reports, "store_figures.txt", **vars(stores))
    last = reports[-1]
    # Only the first 4096 bytes of the reply are read; what lies behind them keeps its value, 0 here.
    assert last["main"]["keys"] == (1 if "db0:keys=1" in stores.redis.ask("info\r\n")[:4096] else 0)
    assert ("master_link_status" in last["replica"]) == ("role:slave" in stores.replica.ask("info\r\n")[:4096])
    assert "[INFO] redis auth with AUTH pw\r\n\n" in agent.text
    assert all(last[name]["innodb_pool"] % 16384 == 0 for name in ("tcp", "local"))


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
    for row in template("wrong_logins.txt", "golden").splitlines():
        name, beginning = row.split(" ", 1)
        assert outcomes[name].startswith(beginning), outcomes


def test_a_server_cannot_ask_for_the_password(tmp_path):
    servers = [FakeServer(MYSQL_GREETING, ..., mysql_packet(2, b"\xfe" + method + b"\0"), ...)
               for method in (b"mysql_clear_password", b"dialog")]
    config = "".join(f"mysql_{n} user:secret-word@127.0.0.1:{server.port}\n" for n, server in enumerate(servers))
    with Agent(tmp_path, "id 7\ninterval 1\nmysql_lib libmariadb.so.3\n" + config):
        wait_for(lambda: all(server.lasted for server in servers))
    for server in servers:
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


@pytest.mark.parametrize("library, missing", [
    ("libm.so.6", ["mysql_init", "PQconnectdb"]), ("{}/almost.so", ["mysql_library/server_end"]), ("/no/such.so", [])])
def test_a_library_without_a_function_counts_as_absent(tmp_path, library, missing):
    library = library.format(tmp_path)
    source = "".join(f"long mysql_{name}(void) {{ return 0; }}" for name in ALMOST)
    subprocess.run(["cc", "-shared", "-x", "c", "-", "-o", tmp_path / "almost.so"], check=True, input=source.encode())
    config = (f"mysql_lib {library}\npostgre_lib {library}\nsphinx_a u:@127.0.0.1:1\n"
              + line_of("mysql", "a", 1) + line_of("postgre", "a", 1))
    with Collector() as collector, Agent(tmp_path, collector.config(config)) as agent:
        assert flat(collector.report()) == {}
    errors = [f"dlsym({name}) error: " for name in missing] or ["dlopen error: "]
    agent.has_said(f"libmysqlclient: {library}\n", f"ERROR loading mysql = {library}\n", f"libpq: {library}\n",
                   f"Error loading postgre = {library}\n", *errors)
    for closing in "Closing libmysql\n", "Closing libpostgre\n":
        assert agent.text.count(closing) == (1 if missing else 0)
