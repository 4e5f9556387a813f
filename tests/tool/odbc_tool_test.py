#!/usr/bin/env python3
"""End-to-end tests of the staged vesk-datastore binary with an ODBC datastore
on the private PostgreSQL server of the ctest fixture vesk_pg.

ODBCSYSINI names the fixture's ODBC folder; its parent holds the server's
connection string and port. Every test starts from an empty database of its
own. Under CI=true a missing server fails the tests instead of skipping them.
"""

import base64
import json
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tool_test import ERROR, NOTHING, NOW, ToolCase, cluster_lines  # noqa: E402

DATABASE = "vesk_tool"


def server():
    """(connection string of the test database, port), or (None, reason)."""
    sysini = os.environ.get("ODBCSYSINI", "")
    if not sysini.endswith("/odbcsysini"):
        return None, "ODBCSYSINI does not name the fixture's folder: run through ctest"
    state = os.path.dirname(sysini)
    if os.path.exists(os.path.join(state, "unavailable")):
        with open(os.path.join(state, "unavailable")) as f:
            return None, f.read().strip()
    try:
        with open(os.path.join(state, "connection-string")) as f:
            conn = f.read().strip()
        with open(os.path.join(state, "port")) as f:
            port = f.read().strip()
    except OSError as e:
        return None, f"the fixture did not start the server: {e}"
    return (conn.replace("Database=postgres;", f"Database={DATABASE};"), port), None


def psql(port, sql, database=DATABASE):
    """Runs `sql`; returns the rows of its answer as lists of text."""
    out = subprocess.run(["psql", "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-h",
                          "127.0.0.1", "-p", port, "-U", "postgres", "-d", database, "-c", sql],
                         check=True, capture_output=True).stdout.decode()
    return [line.split("|") for line in out.splitlines() if line]


class OdbcToolCase(ToolCase):
    """A fresh HOME and an empty database; self.pg is a configuration of an
    ODBC datastore "pg" on it."""

    def setUp(self):
        super().setUp()
        found, why = server()
        if found is None:
            if os.environ.get("CI") == "true":
                self.fail(f"no PostgreSQL test server: {why}")
            self.skipTest(f"no PostgreSQL test server: {why}")
        self.source, self.port = found
        psql(self.port, f"DROP DATABASE IF EXISTS {DATABASE} WITH (FORCE)", "postgres")
        psql(self.port, f"CREATE DATABASE {DATABASE}", "postgres")
        self.pg = self.config("pg.xml", "pg", f"source={self.source}", kind="odbc")

    def count(self, table="provider_datastore"):
        return int(psql(self.port, f"SELECT count(*) FROM {table}")[0][0])


class OdbcDatastore(OdbcToolCase):
    def test_collect_import_rows_and_snapshots(self):
        pg = ("--config", self.pg)
        collected = self.json_of(*pg, "collect", "--providers-file", self.providers_file(
            "hello : echo hello\nfailing : echo oops >&2; exit 3\n"
            "binary : printf 'caf\\351\\000\\n'\n"
            "zeroes : printf 'ok\\n'; printf 'a\\000b' >&2\n"), expect=NOTHING)
        self.assertEqual(len(collected["rows"]), 4)
        rows = {r["Provider"]: r for r in self.json_of(*pg, "rows", "--show-output")}
        self.assertEqual(rows["hello"]["STDOUT"], "hello\n")
        self.assertEqual(rows["failing"]["STDERR"], "oops\n")
        self.assertEqual(rows["failing"]["Exit_status"], 3)
        # Output PostgreSQL cannot hold as text arrives base64-encoded.
        self.assertEqual(rows["binary"]["Encoding"], 1)
        self.assertEqual(base64.b64decode(rows["binary"]["STDOUT"]), b"caf\xe9\x00\n")
        # So does valid UTF-8 with a NUL byte, which a text column refuses.
        self.assertEqual((rows["zeroes"]["Encoding"], rows["zeroes"]["stderr_text"]), (1, "a\0b"))

        cluster = cluster_lines(hosts=4, runs=3, stale=())
        for _ in range(2):  # the second import stores nothing twice
            self.import_lines(cluster, before=pg)
            self.assertEqual(self.count(), 4 + 4 * 3 * 5)

        latest = self.json_of(*pg, "rows", "--latest", "--provider", "uptime")
        self.assertEqual(sorted(r["Hostname"] for r in latest),
                         ["node000", "node001", "node002", "node003"])
        self.assertEqual({r["STDOUT"] for r in latest}, {"up 2\n"})
        # Host patterns: * and ? on a server; character classes are SQLite's.
        picked = self.json_of(*pg, "rows", "--latest", "--provider", "cpu", "--host", "node00?",
                              "--host", "*3")
        self.assertEqual(sorted(r["Hostname"] for r in picked),
                         ["node000", "node001", "node002", "node003"])
        self.assertEqual(len(self.json_of(*pg, "rows", "--host", "NODE*", expect=NOTHING)), 0)
        self.run_tool(*pg, "export", "--host", "node_0*", expect=NOTHING)  # "_" is no wildcard
        self.assertEqual(len(self.run_tool(*pg, "export", "--host", "node00*").stdout
                             .splitlines()), 4 * 3 * 5)
        proc = self.run_tool(*pg, "rows", "--host", "node00[12]", expect=ERROR)
        self.assertIn("character classes ([...]) work on SQLite datastores only",
                      self.stderr_line(proc))
        failed = self.json_of(*pg, "rows", "--latest", "--failed")
        self.assertEqual([r["Provider"] for r in failed], ["failing"])
        runs = self.json_of(*pg, "runs")
        self.assertEqual(len(runs), 1 + 4 * 3)

        made = self.json_of(*pg, "snapshot", "create", "base")
        self.assertEqual(made["rows"], 4 + 4 * 5)
        self.assertEqual(self.count("baseline_datastore"), 4 + 4 * 5)
        self.assertEqual(self.json_of(*pg, "snapshot", "diff", "base")["differences"], [])
        changed = [dict(line, Unique_timestamp=NOW + 7, STDOUT="up 9\n")
                   for line in cluster_lines(hosts=1, runs=1, stale=())
                   if line["Provider"] == "uptime"]
        self.import_lines(changed, before=pg, name="change.jsonl")
        diff = self.json_of(*pg, "snapshot", "diff", "base", expect=NOTHING)
        self.assertEqual([(d["provider"], d["host"]) for d in diff["differences"]],
                         [("uptime", "node000")])
        self.json_of(*pg, "snapshot", "create", "after")
        listed = lambda: [s["snapshot"] for s in self.json_of(*pg, "snapshot", "list")]  # noqa
        self.assertEqual(listed(), ["after", "base"])
        self.json_of(*pg, "snapshot", "remove", "base")
        self.assertEqual(listed(), ["after"])
        proc = self.run_tool(*pg, "snapshot", "remove", "base", expect=ERROR)
        self.assertIn('no snapshot named "base"', self.stderr_line(proc))
        self.assertEqual(self.count(), 4 + 4 * 3 * 5 + 1)  # the rows stay

    def test_text_a_server_cannot_hold_is_refused_by_its_line(self):
        pg = ("--config", self.pg)
        lines = cluster_lines(hosts=2, runs=1, stale=())
        lines.insert(7, "")  # a blank line still counts
        for field in ("STDOUT", "STDERR"):
            with self.subTest(field):
                bad = dict(lines[0], Unique_timestamp=NOW + 5, **{field: "a\0b"})
                _, proc = self.import_lines(lines + [bad], before=pg, expect=ERROR)
                self.assertIn(f"rows.jsonl:12: {field}: holds a NUL byte at offset 1, which an "
                              "ODBC datastore's text cannot hold", self.stderr_line(proc))
                self.assertEqual(self.count(), 0)
        # Base64-encoded, the same bytes are stored.
        encoded = dict(lines[0], Unique_timestamp=NOW + 5, Encoding=1,
                       STDOUT=base64.b64encode(b"a\0b").decode())
        # Names holding what quotes or separates SQL are stored and found
        # again by the tool's own queries, side by side.
        odd = [dict(lines[0], Provider="x$y", Hostname="h[1]"),
               dict(lines[0], Hostname="a;b"),
               dict(lines[0], Provider="p;q", OptionID="-- o;/*")]
        self.import_lines(lines + [encoded] + odd, before=pg)
        self.assertEqual(self.count(), 14)
        latest = self.json_of(*pg, "rows", "--latest")
        self.assertEqual(len(latest), 13)
        self.assertLessEqual({("x$y", "h[1]"), (lines[0]["Provider"], "a;b"),
                              ("p;q", lines[0]["Hostname"])},
                             {(r["Provider"], r["Hostname"]) for r in latest})

    def test_file_commands_refuse_an_odbc_datastore(self):
        pg = ("--config", self.pg)
        self.import_lines(cluster_lines(hosts=1, runs=1, stale=()), before=pg)
        proc = self.run_tool(*pg, "prune", "--keep-runs", "1", "--yes", expect=ERROR)
        self.assertIn('prune works on SQLite datastore files; "pg" is none',
                      self.stderr_line(proc))
        proc = self.run_tool(*pg, "check", expect=ERROR)
        self.assertIn('"pg" is an ODBC datastore', self.stderr_line(proc))
        self.assertEqual(self.count(), 5)

    def test_verbose_names_the_source_without_its_password(self):
        self.assertIn("Pwd=;", self.source)
        conf = self.config("pw.xml", "pg", "source=" +
                           self.source.replace("Pwd=;", "Pwd={s3;kr1t};"), kind="odbc")
        err = self.run_tool("-v", "--config", conf, "hosts", expect=NOTHING).stderr.decode()
        self.assertIn('datastore "pg": ODBC DRIVER=', err)
        self.assertIn(f"Database={DATABASE};Uid=postgres;Pwd=***;ConnSettings=", err)
        self.assertNotIn("kr1t", err)

    def test_unreachable_server_is_one_clear_error(self):
        bad = self.write("bad.xml", """<configuration instance_name="bad" type="odbc"
            source_types="data" source_parameters="source=vesk_no_such_dsn|login_timeout_s=2"/>""")
        proc = self.run_tool("--config", bad, "rows", expect=ERROR)
        self.assertIn("vesk_no_such_dsn", proc.stderr.decode())


class MixedGroup(OdbcToolCase):
    """A group file with a SQLite datastore and a PostgreSQL datastore."""

    def setUp(self):
        super().setUp()
        self.config("lite.xml", "lite", f"source={self.home}/lite.db")
        self.group = self.group_file(("lite.xml", "libsqlite.so"), ("pg.xml", "libodbc.so"))
        lines = cluster_lines(hosts=4, runs=1, stale=())
        for name, part in (("lite", lines[:10]), ("pg", lines[10:])):
            self.import_lines(part, before=("--config", self.group, "--datastore", name))

    def test_reads_merge_both_and_writes_name_their_target(self):
        both = ("--config", self.group)
        rows = self.json_of(*both, "rows")
        self.assertEqual(len(rows), 20)
        self.assertEqual({r["datastore"] for r in rows if r["Hostname"] == "node000"}, {"lite"})
        self.assertEqual({r["datastore"] for r in rows if r["Hostname"] == "node003"}, {"pg"})
        self.assertEqual(len(self.json_of(*both, "rows", "--latest")), 20)
        self.assertEqual({h["host"] for h in self.json_of(*both, "hosts")},
                         {"node000", "node001", "node002", "node003"})
        proc = self.run_tool(*both, "snapshot", "create", "s", expect=ERROR)
        self.assertIn("several datastores are selected (lite, pg)", proc.stderr.decode())
        made = self.json_of(*both, "--datastore", "pg", "snapshot", "create", "s")
        self.assertEqual((made["datastore"], made["rows"]), ("pg", 10))
        self.assertEqual(self.count("baseline_datastore"), 10)
        self.assertEqual(self.sql("SELECT COUNT(*) FROM baseline_datastore",
                                  path=os.path.join(self.home, "lite.db")), [(0,)])
        self.assertEqual([s["snapshot"] for s in self.json_of(*both, "snapshot", "list")], ["s"])
        self.json_of(*both, "--datastore", "pg", "snapshot", "remove", "s")
        self.assertEqual(self.count("baseline_datastore"), 0)

    def test_runs_count_a_host_held_by_both_once(self):
        both = ("--config", self.group)
        # node000's run shipped to the central store as well.
        shipped = cluster_lines(hosts=4, runs=1, stale=())[:5]
        self.import_lines(shipped, before=(*both, "--datastore", "pg"), name="shipped.jsonl")
        runs = {r["run"]: r for r in self.json_of(*both, "runs")}
        self.assertEqual(len(runs), 4)
        node000 = runs[shipped[0]["Unique_timestamp"]]
        self.assertEqual((node000["hosts"], node000["rows"]), (1, 10))
        self.assertEqual({r["hosts"] for r in runs.values()}, {1})
        self.assertEqual([r["run"] for r in self.json_of(*both, "runs", "--limit", "2")],
                         sorted(runs, reverse=True)[:2])

    def test_snapshots_of_every_datastore_are_seen(self):
        both = ("--config", self.group)
        # The first datastore's snapshots do not hide the second's.
        self.json_of(*both, "--datastore", "lite", "snapshot", "create", "t")
        self.json_of(*both, "--datastore", "pg", "snapshot", "create", "s")
        self.assertEqual({s["snapshot"]: s["rows"] for s in self.json_of(*both, "snapshot", "list")},
                         {"s": 10, "t": 10})
        for name, datastore in (("s", "pg"), ("t", "lite")):
            with self.subTest(name):
                shown = self.json_of(*both, "snapshot", "show", name)
                self.assertEqual(len(shown), 10)
                self.assertEqual({r["datastore"] for r in shown}, {datastore})
                # Its rows against the latest rows of both: the other
                # datastore's hosts are new, nothing of its own changed.
                diff = self.json_of(*both, "diff", name, expect=NOTHING)["differences"]
                self.assertEqual({d["change"] for d in diff}, {"new"})
                self.assertEqual(len(diff), 10)
        # A snapshot recorded in both shows the members of both.
        self.json_of(*both, "--datastore", "lite", "snapshot", "create", "s")
        self.assertEqual({r["datastore"] for r in self.json_of(*both, "snapshot", "show", "s")},
                         {"lite", "pg"})
        members = [json.loads(line) for line in
                   self.run_tool(*both, "export", "--snapshots").stdout.splitlines()
                   if line.startswith(b'{"Snapshot"')]
        self.assertEqual(sorted(m["Snapshot"] for m in members), ["s"] * 20 + ["t"] * 10)

if __name__ == "__main__":
    unittest.main()
