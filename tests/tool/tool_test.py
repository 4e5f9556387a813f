#!/usr/bin/env python3
"""End-to-end tests of the staged vesk-datastore binary.

Every test runs the real tool against a real SQLite datastore: HOME points
at a fresh temporary folder, so the installed default configuration puts the
database at $HOME/.vesk/2019.2.1/vesk.db. The binary comes from $VESK_TOOL.
"""

import base64
import json
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest

TOOL = os.environ.get("VESK_TOOL", "")
OK, NOTHING, ERROR = 0, 1, 2


class ToolCase(unittest.TestCase):
    """A fresh HOME per test, and helpers to run the tool in it."""

    def setUp(self):
        self.assertTrue(TOOL and os.access(TOOL, os.X_OK), "set VESK_TOOL to the staged binary")
        self.home = tempfile.mkdtemp(prefix="vesk-tool-test-")
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("VESK_LOG")}
        self.env["HOME"] = self.home

    def tearDown(self):
        shutil.rmtree(self.home, ignore_errors=True)

    @property
    def database(self):
        return os.path.join(self.home, ".vesk", "2019.2.1", "vesk.db")

    def run_tool(self, *args, stdin=None, expect=OK, env=None):
        proc = subprocess.run([TOOL, *args], input=stdin, capture_output=True,
                              env=env or self.env, timeout=120)
        if proc.returncode != expect:
            self.fail(f"vesk-datastore {' '.join(args)}: exit {proc.returncode}, expected "
                      f"{expect}\nstdout: {proc.stdout.decode(errors='replace')}\n"
                      f"stderr: {proc.stderr.decode(errors='replace')}")
        return proc

    def json_of(self, *args, expect=OK):
        proc = self.run_tool("--format", "json", *args, expect=expect)
        return json.loads(proc.stdout)

    def write(self, name, text):
        path = os.path.join(self.home, name)
        with open(path, "w" if isinstance(text, str) else "wb") as f:
            f.write(text)
        return path

    def stored_count(self):
        """Rows in the datastore file, read directly (for checks only)."""
        if not os.path.exists(self.database):
            return 0
        with sqlite3.connect(self.database) as db:
            return db.execute("SELECT COUNT(*) FROM provider_datastore").fetchone()[0]

    def providers_file(self, text):
        return self.write("providers.txt", textwrap.dedent(text))

    def collect(self, text, *extra, expect=OK):
        return self.json_of("collect", "--providers-file", self.providers_file(text), *extra,
                            expect=expect)

    def stderr_line(self, proc):
        """The one line the tool writes on failure."""
        lines = proc.stderr.decode().strip().splitlines()
        self.assertEqual(len(lines), 1, proc.stderr.decode())
        return lines[0]


class Usage(ToolCase):
    def test_help_and_bad_usage(self):
        for args in (["--help"], ["collect", "--help"], ["snapshot", "diff", "--help"]):
            self.assertIn(b"Usage", self.run_tool(*args).stdout)
        for args in (["frobnicate"], ["rows", "--no-such-option"], ["--format", "xml", "hosts"],
                     ["snapshot"], ["import"], ["collect", "--jobs", "0"]):
            proc = self.run_tool(*args, expect=ERROR)
            self.assertTrue(proc.stderr.startswith(b"vesk-datastore: "), proc.stderr)
        self.assertFalse(os.path.exists(self.database))

    def test_names_that_would_break_sql_are_refused(self):
        proc = self.run_tool("rows", "--provider", "x' OR '1'='1", expect=ERROR)
        self.assertIn("not allowed", self.stderr_line(proc))
        self.run_tool("snapshot", "create", "a'b", expect=ERROR)


class Config(ToolCase):
    def test_show_fills_in_defaults(self):
        shown = self.json_of("config", "show")
        self.assertTrue(shown["file"].endswith("/etc/datastore/default_sqlite.xml"))
        [store] = shown["datastores"]
        self.assertEqual(store["instance_name"], "vesk_default")
        self.assertEqual(store["type"], "sqlite3")
        self.assertEqual(store["source_types"], "data")
        self.assertEqual(store["extension_name"], "libsqlite.so")
        self.assertTrue(store["library_found"])
        self.assertIn('$HOME/.vesk/2019.2.1/vesk.db', store["source_parameters"])

    def test_check_group_file_and_datastore_file(self):
        conf = self.write("one.xml", f"""<configuration instance_name="mine" type="sqlite3"
            source_types="data|stream" source_parameters="source={self.home}/mine.db"/>""")
        group = self.write("group.xml", """<datastores><group path="datastore/lumok64">
            <entry config_path="$HOME" config_file="one.xml">libsqlite.so</entry>
            </group></datastores>""")
        self.assertIn(b"ok, 1 datastore", self.run_tool("config", "check", group).stdout)
        [store] = self.json_of("config", "check", conf)["datastores"]
        self.assertEqual((store["instance_name"], store["source_types"]), ("mine", "data|stream"))
        # --config uses it, and --datastore picks instances by name.
        self.collect("one : echo one\n", "--config", group, "--datastore", "mine")
        self.assertTrue(os.path.exists(os.path.join(self.home, "mine.db")))
        self.assertFalse(os.path.exists(self.database))
        proc = self.run_tool("--config", group, "--datastore", "other", "hosts", expect=ERROR)
        self.assertIn('no datastore named "other"', self.stderr_line(proc))

    def test_bad_files_name_the_file_and_the_reason(self):
        cases = {
            "type.xml": ('<configuration instance_name="x" type="mysql" source_types="data" '
                         'source_parameters="source=x"/>', "Invalid value for attribute type mysql"),
            "kinds.xml": ('<configuration instance_name="x" type="sqlite3" source_types="data|blob" '
                          'source_parameters="source=x"/>',
                          "Invalid value for attribute source types blob"),
            "entry.xml": ("<d><group><entry></entry></group></d>", "empty entry tag not allowed"),
            "file.xml": ('<d><group><entry config_file="">libsqlite.so</entry></group></d>',
                         "Invalid file attribute"),
            "noentry.xml": ("<d></d>", "no datastore entry"),
            # libxml2's own reason, with its line and column.
            "broken.xml": ("<configuration", "(line 1, column "),
        }
        for name, (text, message) in cases.items():
            path = self.write(name, text)
            with self.subTest(name):
                line = self.stderr_line(self.run_tool("config", "check", path, expect=ERROR))
                self.assertIn(path, line)
                self.assertIn(message, line)
                self.run_tool("--config", path, "hosts", expect=ERROR)
        missing = os.path.join(self.home, "missing.xml")
        line = self.stderr_line(self.run_tool("--config", missing, "rows", expect=ERROR))
        self.assertEqual(line, f"vesk-datastore: cannot read configuration file {missing}: "
                               "No such file or directory")


class Collect(ToolCase):
    PROVIDERS = """\
        # name [settings] : command
        hello                 : echo hello
        failing option=opt-7  : echo oops >&2; exit 3
        binary                : printf 'caf\\351\\000\\n'
        missing               : exec /nonexistent/provider
        crash                 : kill -SEGV $$
        slow timeout=1        : sleep 30 & sleep 30; echo never
        """

    def test_one_run_with_every_outcome(self):
        started = time.monotonic()
        result = self.collect(self.PROVIDERS)
        self.assertLess(time.monotonic() - started, 10, "providers must not wait for each other")
        by_name = {r["provider"]: r for r in result["rows"]}
        self.assertEqual([r["provider"] for r in result["rows"]],
                         ["hello", "failing", "binary", "missing", "crash", "slow"])
        self.assertEqual(by_name["hello"]["exit_status"], 0)
        self.assertEqual(by_name["failing"]["exit_status"], 3)
        self.assertEqual(by_name["failing"]["option"], "opt-7")
        self.assertEqual(by_name["missing"]["exit_status"], 127)
        self.assertEqual(by_name["crash"]["exit_status"], 128 + 11)
        self.assertEqual(by_name["slow"]["exit_status"], 124)
        self.assertTrue(by_name["slow"]["timed_out"])
        self.assertLess(by_name["slow"]["duration"], 5)

        rows = {r["Provider"]: r for r in self.json_of("rows", "--show-output")}
        self.assertEqual(len(rows), 6)
        self.assertEqual({r["Unique_timestamp"] for r in rows.values()},
                         {result["unique_timestamp"]})
        self.assertEqual(rows["hello"]["STDOUT"], "hello\n")
        self.assertEqual(rows["hello"]["Encoding"], 0)
        self.assertEqual(rows["failing"]["STDERR"], "oops\n")
        self.assertEqual(rows["failing"]["OptionID"], "opt-7")
        # Output that is not UTF-8 is stored in base64, and shown decoded.
        self.assertEqual(rows["binary"]["Encoding"], 1)
        self.assertEqual(base64.b64decode(rows["binary"]["STDOUT"]), b"caf\xe9\x00\n")
        self.assertIn("timed out", rows["slow"]["STDERR"])
        self.assertIn("signal 11", rows["crash"]["STDERR"])
        self.assertIn("/nonexistent/provider", rows["missing"]["STDERR"])
        for row in rows.values():
            self.assertEqual(row["node_names"], [row["Hostname"]])
            self.assertEqual(row["num_nodes"], 1)
            self.assertTrue(row["Username"])

    def test_runs_get_increasing_stamps_and_default_set_describes_host(self):
        first = self.json_of("collect")
        names = {r["provider"] for r in first["rows"]}
        self.assertTrue({"uname", "cpu", "memory", "disks", "network", "kernel", "uptime"} <= names)
        second = self.collect("one : echo 1\n")
        self.assertGreater(second["unique_timestamp"], first["unique_timestamp"])
        [uname] = self.json_of("rows", "--provider", "uname", "--show-output")
        self.assertEqual(uname["stdout_text"].split()[0], os.uname().sysname)

    def test_command_after_double_dash(self):
        self.json_of("collect", "--provider", "argv", "--option", "o1", "--",
                     "printf", "%s|", "a b", "$HOME")
        [row] = self.json_of("rows", "--provider", "argv")
        self.assertEqual(row["STDOUT"], "a b|$HOME|")  # no shell in between
        self.assertEqual(row["OptionID"], "o1")

    def test_unknown_provider_and_bad_provider_file_store_nothing(self):
        self.collect("one : echo 1\n")
        before = self.stored_count()
        proc = self.run_tool("collect", "--provider", "nosuch", expect=ERROR)
        self.assertEqual(self.stderr_line(proc),
                         "vesk-datastore: unknown provider: nosuch (not in the built-in set)")
        bad = self.providers_file("ok : true\nno command here\n")
        proc = self.run_tool("collect", "--providers-file", bad, expect=ERROR)
        self.assertIn(f"{bad}:2:", self.stderr_line(proc))
        self.run_tool("collect", "--provider", "a", "--provider", "b", "--", "true", expect=ERROR)
        self.assertEqual(self.stored_count(), before)


class Rows(ToolCase):
    def setUp(self):
        super().setUp()
        lines = []
        for run, (host, value) in enumerate([("h1", "a"), ("h2", "b"), ("h1", "c")], start=1):
            for provider in ("p1", "p2"):
                lines.append(json.dumps({"Provider": provider, "Hostname": host,
                                         "Unique_timestamp": run * 1000000,
                                         "Exit_status": run - 1,
                                         "STDOUT": f"{provider}-{value}\n"}))
        self.write("rows.jsonl", "\n".join(lines) + "\n")
        self.run_tool("import", os.path.join(self.home, "rows.jsonl"))

    def test_filters_and_latest(self):
        self.assertEqual(len(self.json_of("rows")), 6)
        rows = self.json_of("rows", "--provider", "p1", "--host", "h1")
        self.assertEqual([r["STDOUT"] for r in rows], ["p1-a\n", "p1-c\n"])
        latest = self.json_of("rows", "--latest")
        self.assertEqual(sorted((r["Provider"], r["Hostname"], r["STDOUT"]) for r in latest),
                         [("p1", "h1", "p1-c\n"), ("p1", "h2", "p1-b\n"),
                          ("p2", "h1", "p2-c\n"), ("p2", "h2", "p2-b\n")])
        self.assertEqual(len(self.json_of("rows", "--latest", "--host", "h2")), 2)

    def test_nothing_found_is_exit_1(self):
        proc = self.run_tool("rows", "--provider", "nosuch", expect=NOTHING)
        self.assertIn(b"unknown provider: nosuch", proc.stderr)
        self.run_tool("rows", "--host", "nohost", expect=NOTHING)

    def test_hosts_and_providers(self):
        hosts = {h["host"]: h for h in self.json_of("hosts")}
        self.assertEqual(hosts["h1"]["rows"], 4)
        self.assertEqual(hosts["h1"]["providers"], 2)
        self.assertEqual(hosts["h1"]["latest_run"], 3000000)
        self.assertEqual(hosts["h2"]["latest_run"], 2000000)
        providers = {p["provider"]: p for p in self.json_of("providers")}
        self.assertEqual(providers["p2"], {"provider": "p2", "hosts": 2, "rows": 3,
                                           "latest_run": 3000000})

    def test_table_and_csv(self):
        table = self.run_tool("rows", "--provider", "p2").stdout.decode().splitlines()
        self.assertEqual(table[0].split(), ["rowid", "provider", "host", "option", "exit",
                                            "start", "duration", "run"])
        self.assertEqual(len(table), 4)
        self.assertNotIn("\033[", "".join(table))  # no colour off a terminal
        csv = self.run_tool("--format", "csv", "rows", "--provider", "p2",
                            "--show-output").stdout.decode()
        self.assertTrue(csv.startswith("rowid,provider,host,option,exit,start,duration,"
                                       "unique_timestamp,stdout,stderr\r\n"))
        self.assertIn('"p2-a\n"', csv)

    def test_empty_datastore(self):
        env = dict(self.env, HOME=os.path.join(self.home, "empty"))
        os.mkdir(env["HOME"])
        for command in ("rows", "hosts", "providers", "export"):
            self.run_tool(command, expect=NOTHING, env=env)


class ImportExport(ToolCase):
    def rows(self, count, **fields):
        return "".join(json.dumps({"Provider": f"p{i % 3}", "Hostname": f"h{i % 2}",
                                   "STDOUT": f"out {i}\n", **fields}) + "\n"
                       for i in range(count))

    def test_round_trip(self):
        self.collect("hello : echo hello\nbinary : printf '\\377'\nfail : exit 4\n")
        exported = self.run_tool("export").stdout.decode().splitlines()
        self.assertEqual(len(exported), 3)
        other = os.path.join(self.home, "other")
        os.mkdir(other)
        env = dict(self.env, HOME=other)
        proc = subprocess.run([TOOL, "import", "-"], input="\n".join(exported).encode(),
                              env=env, capture_output=True)
        self.assertEqual(proc.returncode, 0, proc.stderr)
        again = subprocess.run([TOOL, "export"], env=env, capture_output=True).stdout
        drop_rowid = lambda lines: sorted(  # noqa: E731
            json.dumps({k: v for k, v in json.loads(l).items() if k != "rowid"}) for l in lines)
        self.assertEqual(drop_rowid(again.decode().splitlines()), drop_rowid(exported))
        keys = list(json.loads(exported[0]).keys())
        self.assertEqual(keys, ["rowid", "Provider", "Hostname", "num_nodes", "node_names",
                                "Exit_status", "Timestamp", "Duration", "Encoding", "STDOUT",
                                "STDERR", "OptionID", "version", "Username", "Unique_timestamp"])

    def test_rows_without_a_run_form_one_new_run(self):
        self.run_tool("import", self.write("a.jsonl", self.rows(5, Unique_timestamp=7)))
        self.run_tool("import", self.write("b.jsonl", self.rows(4)))
        runs = sorted({r["Unique_timestamp"] for r in self.json_of("rows")})
        self.assertEqual(len(runs), 2)
        self.assertEqual(runs[0], 7)
        summary = self.json_of("import", self.write("c.jsonl", self.rows(3)))
        self.assertEqual(summary["rows"], 3)

    def test_bad_line_is_reported_and_its_batch_not_written(self):
        good = self.rows(4).splitlines()
        cases = [
            ("{not json", "line 5: "),
            ('{"Provider": "p", "Hostname": "h", "Exit_status": "zero"}',
             'line 5: "Exit_status" must be an integer'),
            ('{"Provider": "p", "Hostname": "h", "Colour": 1}', 'line 5: unknown key "Colour"'),
            ('{"Hostname": "h"}', 'line 5: "Provider" is missing or empty'),
            ('[1, 2]', "line 5: expected a JSON object"),
        ]
        for bad, message in cases:
            with self.subTest(bad):
                before = self.stored_count()
                path = self.write("bad.jsonl", "\n".join(good + [bad] + good[:1]) + "\n")
                proc = self.run_tool("import", "--batch", "2", path, expect=ERROR)
                line = self.stderr_line(proc)
                self.assertIn(f"{path}: {message}", line)
                self.assertIn("4 rows before it were", line)
                # Lines 1-4 were two whole batches; line 5 and 6 were not written.
                self.assertEqual(self.stored_count(), before + 4)

    def test_missing_input(self):
        proc = self.run_tool("import", os.path.join(self.home, "nope.jsonl"), expect=ERROR)
        self.assertIn("No such file or directory", self.stderr_line(proc))


class Snapshot(ToolCase):
    def test_create_list_show_diff_remove(self):
        stable = "same : echo same\nchanges : cat $HOME/value\nstatus : exit $(cat $HOME/code)\n"
        self.write("value", "one\ntwo\nthree\n")
        self.write("code", "0")
        self.collect(stable)
        self.run_tool("snapshot", "list", expect=NOTHING)
        created = self.json_of("snapshot", "create", "before")
        self.assertEqual(created["rows"], 3)
        self.run_tool("snapshot", "create", "before", expect=ERROR)

        # Nothing changed yet: the snapshot equals the latest run.
        diff = self.json_of("snapshot", "diff", "before")
        self.assertEqual((diff["identical"], diff["differences"]), (3, []))

        self.write("value", "one\n2\nthree\n")
        self.write("code", "5")
        self.collect(stable + "extra : echo new\n")
        diff = self.json_of("snapshot", "diff", "before", expect=NOTHING)
        changes = {d["provider"]: d for d in diff["differences"]}
        self.assertEqual(set(changes), {"changes", "status", "extra"})
        self.assertEqual(changes["status"]["exit_status"], [0, 5])
        self.assertEqual(changes["changes"]["stdout_diff"].splitlines()[2:],
                         ["@@ -1,3 +1,3 @@", " one", "-two", "+2", " three"])
        self.assertEqual(changes["extra"]["change"], "only_in_second")
        self.assertEqual(diff["identical"], 1)
        table = self.run_tool("snapshot", "diff", "before", expect=NOTHING).stdout.decode()
        self.assertIn("3 differences, 1 identical", table)

        self.json_of("snapshot", "create", "after")
        listed = {s["snapshot"]: s for s in self.json_of("snapshot", "list")}
        self.assertEqual(set(listed), {"before", "after"})
        self.assertEqual(listed["before"]["rows"], 3)
        self.assertEqual(listed["after"]["rows"], 4)
        self.assertLess(listed["before"]["run"], listed["after"]["run"])
        shown = self.json_of("snapshot", "show", "before", "--show-output")
        self.assertEqual(sorted(r["stdout_text"] for r in shown),
                         ["", "one\ntwo\nthree\n", "same\n"])
        between = self.json_of("snapshot", "diff", "before", "after", expect=NOTHING)
        self.assertEqual(len(between["differences"]), 3)
        self.assertEqual(self.json_of("snapshot", "diff", "after")["differences"], [])

        self.json_of("snapshot", "remove", "before")
        self.assertEqual([s["snapshot"] for s in self.json_of("snapshot", "list")], ["after"])
        for args in (["remove", "before"], ["show", "before"], ["diff", "before"],
                     ["diff", "after", "before"]):
            proc = self.run_tool("snapshot", *args, expect=NOTHING)
            self.assertEqual(self.stderr_line(proc), 'vesk-datastore: no snapshot named "before"')
        self.assertEqual(self.stored_count(), 7)  # removing a snapshot keeps the rows

    def test_nothing_to_snapshot(self):
        self.run_tool("snapshot", "create", "empty", expect=NOTHING)


class Sql(ToolCase):
    def test_sql_file_into_database(self):
        script = self.write("setup.sql", "CREATE TABLE t(a INTEGER, b TEXT);\n\n"
                                         "INSERT INTO t VALUES (1, 'x');\n"
                                         "INSERT INTO t VALUES (2, 'y');\n")
        db = os.path.join(self.home, "t.db")
        self.run_tool("sql", script, db)
        with sqlite3.connect(db) as conn:
            self.assertEqual(conn.execute("SELECT SUM(a) FROM t").fetchone()[0], 3)
        bad = self.write("bad.sql", "INSERT INTO t VALUES (3, 'z');\nINSERT INTO nowhere VALUES (1);\n")
        proc = self.run_tool("sql", bad, db, expect=ERROR)
        self.assertIn("SQL command error: INSERT INTO nowhere VALUES (1);", self.stderr_line(proc))
        proc = self.run_tool("sql", os.path.join(self.home, "none.sql"), db, expect=ERROR)
        self.assertIn("Unable to open sql file for reading", self.stderr_line(proc))


class Failures(ToolCase):
    def test_read_only_datastore_keeps_its_rows(self):
        self.collect("one : echo 1\n")
        conf = self.write("ro.xml", f"""<configuration instance_name="ro" type="sqlite3"
            source_types="data" source_parameters="read_only=true|source={self.database}"/>""")
        proc = self.run_tool("--config", conf, "collect", expect=ERROR)
        line = self.stderr_line(proc)
        self.assertTrue(line.startswith("vesk-datastore: storing rows failed: datastore ro"), line)
        self.run_tool("--config", conf, "import", self.write("x.jsonl",
                      '{"Provider": "p", "Hostname": "h"}\n'), expect=ERROR)
        # Reading still works and nothing was lost.
        self.assertEqual(len(self.json_of("--config", conf, "rows")), 1)
        self.assertEqual(self.stored_count(), 1)

    def test_datastore_that_cannot_be_created(self):
        conf = self.write("bad.xml", """<configuration instance_name="nowhere" type="sqlite3"
            source_types="data" source_parameters="source=/dev/null/vesk.db"/>""")
        proc = self.run_tool("--config", conf, "collect", expect=ERROR)
        self.assertIn("cannot open datastore", self.stderr_line(proc))

    def test_unwritable_home(self):
        if os.geteuid() == 0:
            self.skipTest("permissions do not bind root")
        os.chmod(self.home, 0o500)
        try:
            self.run_tool("collect", expect=ERROR)
        finally:
            os.chmod(self.home, 0o700)

    def test_timeout_option_and_hung_provider(self):
        started = time.monotonic()
        result = self.collect("hang : sleep 60\nquick : echo ok\n", "--timeout", "0.5")
        self.assertLess(time.monotonic() - started, 5)
        status = {r["provider"]: r["exit_status"] for r in result["rows"]}
        self.assertEqual(status, {"hang": 124, "quick": 0})
        self.assertEqual(self.stored_count(), 2)


if __name__ == "__main__":
    unittest.main()
