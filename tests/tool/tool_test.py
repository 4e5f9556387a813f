#!/usr/bin/env python3
"""End-to-end tests of the staged vesk-datastore binary.

Every test runs the real tool against a real SQLite datastore: HOME points
at a fresh temporary folder, so the installed default configuration puts the
database at $HOME/.vesk/2019.2.1/vesk.db. The binary comes from $VESK_TOOL.
"""

import base64
from contextlib import closing
import json
import os
import pty
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import textwrap
import time
import unicodedata
import unittest

TOOL = os.environ.get("VESK_TOOL", "")
OK, NOTHING, ERROR = 0, 1, 2
# A row's columns, in the order of every format's header and of export.
COLUMNS = ["rowid", "Provider", "Hostname", "num_nodes", "node_names", "Exit_status", "Timestamp",
           "Duration", "Encoding", "STDOUT", "STDERR", "OptionID", "version", "Username",
           "Unique_timestamp"]


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

    def sql(self, statement, *params, path=None):
        """Runs one statement on a database file behind the tool's back; returns its rows."""
        with closing(sqlite3.connect(path or self.database)) as db, db:
            return db.execute(statement, params).fetchall()

    def stored_count(self):
        """Rows in the datastore file, read directly (for checks only)."""
        if not os.path.exists(self.database):
            return 0
        return self.sql("SELECT COUNT(*) FROM provider_datastore")[0][0]

    def stored_rows(self):
        """Every stored row and snapshot membership, read directly, for before/after checks."""
        if not os.path.exists(self.database):
            return None
        return (self.sql("SELECT * FROM provider_datastore ORDER BY rowid"),
                self.sql("SELECT baseline_id, datastore_rowid FROM baseline_datastore "
                         "ORDER BY 1, 2"))

    def import_lines(self, lines, *after, before=(), expect=OK, name="rows.jsonl"):
        """Imports `lines` (dicts become JSON); returns the file's path and the process."""
        path = self.write(name, "".join(json.dumps(l) + "\n" if isinstance(l, dict) else l + "\n"
                                        for l in lines))
        return path, self.run_tool(*before, "import", path, *after, expect=expect)

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

    def config(self, name, instance, params, kind="sqlite3", types="data"):
        """A datastore configuration file in HOME; returns its path."""
        return self.write(name, f'<configuration instance_name="{instance}" type="{kind}" '
                                f'source_types="{types}" source_parameters="{params}"/>')

    def read_only_config(self):
        return self.config("ro.xml", "ro", f"read_only=true|source={self.database}")

    def other_home(self, name):
        """The environment of a second, empty HOME beside this one."""
        os.mkdir(os.path.join(self.home, name))
        return dict(self.env, HOME=os.path.join(self.home, name))

    def group_file(self, *entries):
        """A group file whose entries are (configuration file in HOME, extension)."""
        return self.write("group.xml", '<datastores><group path="datastore/lumok64">' + "".join(
            f'<entry config_path="$HOME" config_file="{f}">{lib}</entry>' for f, lib in entries)
            + "</group></datastores>")


def as_stranger():
    """preexec_fn: run as a user and group that own nothing here."""
    os.setgroups([])
    os.setgid(54321)
    os.setuid(54321)


class Usage(ToolCase):
    def test_help_and_bad_usage(self):
        for args in (["--help"], ["collect", "--help"], ["snapshot", "diff", "--help"]):
            self.assertIn(b"Usage", self.run_tool(*args).stdout)
        for args in (["frobnicate"], ["rows", "--no-such-option"], ["--format", "xml", "hosts"],
                     ["snapshot"], ["import"], ["collect", "--jobs", "0"]):
            proc = self.run_tool(*args, expect=ERROR)
            self.assertTrue(proc.stderr.startswith(b"vesk-datastore: "), proc.stderr)
        self.assertFalse(os.path.exists(self.database))

    def test_bad_values_are_named_plainly(self):
        for args, message in (
                (["rows", "--run", "0"], "--run: not a run id (a whole number above 0"),
                (["diff", "--run", "-3"], "--run: not a run id"),
                (["snapshot", "create", "s", "--run", "12x"], "--run: not a run id"),
                (["prune", "--older-than", "0s"], '--older-than "0s" is no age above 0')):
            with self.subTest(args):
                proc = self.run_tool(*args, expect=ERROR)
                self.assertIn(message, proc.stderr.decode())
                self.assertLess(len(proc.stderr), 200)
        self.assertFalse(os.path.exists(self.database))

    def test_names_that_would_break_sql_are_refused(self):
        proc = self.run_tool("rows", "--provider", "x' OR '1'='1", expect=ERROR)
        self.assertIn("contains a quote", self.stderr_line(proc))
        self.run_tool("snapshot", "create", "a'b", expect=ERROR)


class Config(ToolCase):
    def test_show_fills_in_defaults(self):
        shown = self.json_of("config", "show")
        self.assertTrue(shown["file"].endswith("/etc/datastore/default_sqlite.xml"))
        [store] = shown["datastores"]
        self.assertEqual([store[k] for k in ("instance_name", "type", "source_types",
                                             "extension_name", "library_found")],
                         ["vesk_default", "sqlite3", "data", "libsqlite.so", True])
        self.assertIn('$HOME/.vesk/2019.2.1/vesk.db', store["source_parameters"])

    def test_check_group_file_and_datastore_file(self):
        conf = self.config("one.xml", "mine", f"source={self.home}/mine.db", types="data|stream")
        group = self.group_file(("one.xml", "libsqlite.so"))
        self.assertIn(b"ok, 1 datastore", self.run_tool("config", "check", group).stdout)
        [store] = self.json_of("config", "check", conf)["datastores"]
        self.assertEqual((store["instance_name"], store["source_types"]), ("mine", "data|stream"))
        # --config uses it, and --datastore picks instances by name.
        self.collect("one : echo one\n", "--config", group, "--datastore", "mine")
        self.assertTrue(os.path.exists(os.path.join(self.home, "mine.db")))
        self.assertFalse(os.path.exists(self.database))
        proc = self.run_tool("--config", group, "--datastore", "other", "hosts", expect=ERROR)
        self.assertIn('no datastore named "other"', self.stderr_line(proc))
        # A name given twice selects its datastore once.
        twice = ("--config", group, "--datastore", "mine", "--datastore", "mine")
        self.assertEqual(len(self.json_of(*twice, "rows")), 1)
        self.collect("two : echo two\n", *twice)
        self.assertEqual(len(self.json_of(*twice, "rows")), 2)

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

    def test_config_check_reads_odbc_parameters_without_a_server(self):
        source = "source=DRIVER=/nonexistent/driver.so;Server=127.0.0.1;Port=1;"
        for params, problem in (
                ("|bogus=1", 'unknown parameter "bogus"'),
                ("|read_only=maybe", 'parameter "read_only" has value "maybe"'),
                ("|rows_per_statement=0", 'parameter "rows_per_statement" has value "0"'),
                ("|login_timeout_s=1|login_timeout_s=2",
                 'parameter "login_timeout_s" given twice')):
            with self.subTest(params):
                conf = self.config("odbc.xml", "central", source + params, kind="odbc")
                line = self.stderr_line(self.run_tool("config", "check", conf, expect=ERROR))
                self.assertIn(f'{conf}: datastore "central" (ODBC): {problem}', line)
        conf = self.config("odbc.xml", "central", source + "|read_only=true", kind="odbc")
        self.assertIn(b"ok, 1 datastore", self.run_tool("config", "check", conf).stdout)


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

    def test_output_beyond_the_limit_is_reported_not_silently_cut(self):
        limit = 64 << 20
        for size, cut in ((limit, False), (limit + 1, True)):
            with self.subTest(size=size):
                proc = self.run_tool("--format", "json", "collect", "--provider", "big", "--",
                                     "sh", "-c", f"yes | head -c {size}",
                                     expect=NOTHING if cut else OK)
                [row] = json.loads(proc.stdout)["rows"]
                self.assertEqual((row["stdout_bytes"], row["output_cut"]), (limit, cut))
                self.assertEqual(b"output cut at 64 MiB" in proc.stderr, cut)
        self.assertEqual(self.sql("SELECT length(CAST(STDOUT AS BLOB)), Encoding FROM "
                                  "provider_datastore ORDER BY rowid"), [(limit, 0)] * 2)

    def test_one_run_with_every_outcome(self):
        started = time.monotonic()
        result = self.collect(self.PROVIDERS, expect=NOTHING)  # some providers failed
        self.assertLess(time.monotonic() - started, 10, "providers must not wait for each other")
        by_name = {r["provider"]: r for r in result["rows"]}
        self.assertEqual([(r["provider"], r["exit_status"]) for r in result["rows"]],
                         [("hello", 0), ("failing", 3), ("binary", 0), ("missing", 127),
                          ("crash", 128 + 11), ("slow", 124)])
        self.assertEqual(by_name["failing"]["option"], "opt-7")
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
        self.import_lines([{"Provider": provider, "Hostname": host, "Exit_status": run - 1,
                            "Unique_timestamp": run * 1000000, "STDOUT": f"{provider}-{value}\n"}
                           for run, (host, value) in enumerate([("h1", "a"), ("h2", "b"),
                                                                ("h1", "c")], start=1)
                           for provider in ("p1", "p2")])

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
        self.assertEqual(self.stderr_line(proc),
                         "vesk-datastore: unknown provider: nosuch (nothing stored)")
        proc = self.run_tool("rows", "--host", "nohost", expect=NOTHING)
        self.assertEqual(self.stderr_line(proc), "vesk-datastore: no rows found")

    def test_hosts_and_providers(self):
        hosts = {h["host"]: h for h in self.json_of("hosts")}
        self.assertEqual(hosts["h1"]["rows"], 4)
        self.assertEqual(hosts["h1"]["providers"], 2)
        self.assertEqual(hosts["h1"]["latest_run"], 3000000)
        self.assertEqual(hosts["h2"]["latest_run"], 2000000)
        providers = {p["provider"]: p for p in self.json_of("providers")}
        self.assertEqual({k: v for k, v in providers["p2"].items() if k != "latest_run_time"},
                         {"provider": "p2", "hosts": 2, "rows": 3, "latest_run": 3000000})

    def test_table_and_csv(self):
        table = self.run_tool("rows", "--provider", "p2").stdout.decode().splitlines()
        self.assertEqual(table[0].split(), [c for c in COLUMNS if c not in ("STDOUT", "STDERR")])
        self.assertEqual(len(table), 4)
        self.assertNotIn("\033[", "".join(table))  # no colour off a terminal
        csv = self.run_tool("--format", "csv", "rows", "--provider", "p2",
                            "--show-output").stdout.decode()
        self.assertTrue(csv.startswith(",".join(COLUMNS + ["stdout_text", "stderr_text"]) +
                                       "\r\n"), csv)
        self.assertIn('"p2-a\n"', csv)


class ImportExport(ToolCase):
    def rows(self, count, **fields):
        return "".join(json.dumps({"Provider": f"p{i % 3}", "Hostname": f"h{i % 2}",
                                   "STDOUT": f"out {i}\n", **fields}) + "\n"
                       for i in range(count))

    def test_round_trip(self):
        self.collect("hello : echo hello\nbinary : printf '\\377'\nfail : exit 4\n", expect=NOTHING)
        exported = self.run_tool("export").stdout.decode().splitlines()
        self.assertEqual(len(exported), 3)
        env = self.other_home("other")
        self.run_tool("import", "-", stdin="\n".join(exported).encode(), env=env)
        again = self.run_tool("export", env=env).stdout
        drop_rowid = lambda lines: sorted(  # noqa: E731
            json.dumps({k: v for k, v in json.loads(l).items() if k != "rowid"}) for l in lines)
        self.assertEqual(drop_rowid(again.decode().splitlines()), drop_rowid(exported))
        self.assertEqual(list(json.loads(exported[0]).keys()), COLUMNS)

    def test_rows_without_a_run_form_one_new_run(self):
        self.run_tool("import", self.write("a.jsonl", self.rows(5, Unique_timestamp=7)))
        self.run_tool("import", self.write("b.jsonl", self.rows(4)))
        runs = sorted({r["Unique_timestamp"] for r in self.json_of("rows")})
        self.assertEqual(len(runs), 2)
        self.assertEqual(runs[0], 7)

    def test_bad_line_is_reported_and_its_batch_not_written(self):
        good = self.rows(4).splitlines()
        cases = [
            ("{not json", "5: invalid JSON"),
            ('{"Provider": "p", "Hostname": "h", "Exit_status": "zero"}',
             '5: Exit_status: must be an integer'),
            ('{"Provider": "p", "Hostname": "h", "Colour": 1}', '5: unknown key "Colour"'),
            ('{"Hostname": "h"}', '5: Provider: is missing or empty'),
            ('[1, 2]', "5: expected a JSON object"),
        ]
        for bad, message in cases:
            with self.subTest(bad):
                before = self.stored_count()
                path = self.write("bad.jsonl", "\n".join(good + [bad] + good[:1]) + "\n")
                proc = self.run_tool("import", "--batch", "2", path, expect=ERROR)
                line = self.stderr_line(proc)
                self.assertIn(f"{path}:{message}", line)
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
        self.assertEqual(self.json_of("snapshot", "create", "before")["rows"], 3)
        self.write("value", "one\n2\nthree\n")
        self.write("code", "5")
        self.collect(stable + "extra : echo new\n", expect=NOTHING)  # status exits 5
        diff = self.json_of("snapshot", "diff", "before", expect=NOTHING)
        changes = {d["provider"]: d for d in diff["differences"]}
        self.assertEqual(set(changes), {"changes", "status", "extra"})
        self.assertEqual(changes["status"]["exit_status"], [0, 5])
        self.assertEqual(changes["changes"]["stdout_diff"].splitlines()[2:],
                         ["@@ -1,3 +1,3 @@", " one", "-two", "+2", " three"])
        self.assertEqual(changes["extra"]["change"], "new")
        self.assertEqual(diff["identical"], 1)

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

        self.json_of("snapshot", "create", "third")
        self.json_of("snapshot", "remove", "before")
        self.assertEqual(self.run_tool("--format", "csv", "snapshot", "remove", "third").stdout,
                         b"removed,datastore\r\nthird,vesk_default\r\n")
        self.assertEqual([s["snapshot"] for s in self.json_of("snapshot", "list")], ["after"])
        for args in (["remove", "before"], ["show", "before"], ["diff", "before"],
                     ["diff", "after", "before"]):
            proc = self.run_tool("snapshot", *args, expect=ERROR)  # never "a difference"
            self.assertTrue(self.stderr_line(proc).startswith(
                'vesk-datastore: no snapshot named "before"'), proc.stderr)
        self.assertEqual(self.stored_count(), 7)  # removing a snapshot keeps the rows


class Sql(ToolCase):
    def test_sql_file_into_database(self):
        script = self.write("setup.sql", "CREATE TABLE t(a INTEGER, b TEXT);\n\n"
                                         "INSERT INTO t VALUES (1, 'x');\n"
                                         "INSERT INTO t VALUES (2, 'y');\n")
        db = os.path.join(self.home, "t.db")
        self.run_tool("sql", script, db)
        self.assertEqual(self.sql("SELECT SUM(a) FROM t", path=db), [(3,)])
        bad = self.write("bad.sql", "INSERT INTO t VALUES (3, 'z');\nINSERT INTO nowhere VALUES (1);\n")
        proc = self.run_tool("sql", bad, db, expect=ERROR)
        line = self.stderr_line(proc)
        self.assertIn("SQL command error: INSERT INTO nowhere VALUES (1);", line)
        self.assertIn(f"{bad}:2: no such table: nowhere; nothing of the file was applied", line)
        # The first line was rolled back with the second.
        self.assertEqual(self.sql("SELECT COUNT(*) FROM t", path=db), [(2,)])
        proc = self.run_tool("sql", os.path.join(self.home, "none.sql"), db, expect=ERROR)
        self.assertIn("Unable to open sql file for reading", self.stderr_line(proc))


class Failures(ToolCase):
    def test_read_only_datastore_keeps_its_rows(self):
        self.collect("one : echo 1\n")
        conf = self.read_only_config()
        proc = self.run_tool("--config", conf, "collect", expect=ERROR)
        line = self.stderr_line(proc)
        self.assertTrue(line.startswith("vesk-datastore: storing rows failed: datastore ro"), line)
        self.run_tool("--config", conf, "import", self.write("x.jsonl",
                      '{"Provider": "p", "Hostname": "h"}\n'), expect=ERROR)
        # Reading still works and nothing was lost.
        self.assertEqual(len(self.json_of("--config", conf, "rows")), 1)
        self.assertEqual(self.stored_count(), 1)

    def test_a_folder_given_as_an_input_file_is_named_as_one(self):
        folder = os.path.join(self.home, "folder")
        os.mkdir(folder)
        db = os.path.join(self.home, "new.db")
        for args, message in (
                (["collect", "--providers-file", folder],
                 f"cannot read provider file {folder}: Is a directory"),
                (["sql", folder, db], f"Unable to open sql file for reading {folder}: "
                                      "Is a directory")):
            with self.subTest(args[0]):
                self.assertIn(message, self.stderr_line(self.run_tool(*args, expect=ERROR)))
        self.assertFalse(os.path.exists(db))
        self.assertFalse(os.path.exists(self.database))

    def test_unreadable_import_names_the_reason(self):
        for path, message in ((self.home, f"cannot read {self.home}: Is a directory"),
                              ("/proc/self/mem", "cannot read /proc/self/mem after line 0: "
                                                 "Input/output error")):
            with self.subTest(path):
                line = self.stderr_line(self.run_tool("import", path, expect=ERROR))
                self.assertIn(message, line)
        self.assertEqual(self.stored_count(), 0)

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
        result = self.collect("hang : sleep 60\nquick : echo ok\n", "--timeout", "0.5",
                              expect=NOTHING)
        self.assertLess(time.monotonic() - started, 5)
        status = {r["provider"]: r["exit_status"] for r in result["rows"]}
        self.assertEqual(status, {"hang": 124, "quick": 0})
        self.assertEqual(self.stored_count(), 2)


class Writes(ToolCase):
    """Output that cannot be written is an error, never a cut file with exit 0."""

    def test_full_disk_is_reported(self):
        self.import_lines([{"Provider": f"p{i % 5}", "Hostname": "h", "STDOUT": "x" * 300}
                           for i in range(3000)])
        self.run_tool("snapshot", "create", "s")
        commands = [["export"], ["hosts"], ["providers"], ["rows"], ["--format", "json", "rows"],
                    ["--format", "csv", "rows"], ["snapshot", "list"], ["config", "show"],
                    ["--version"], ["rows", "--help"]]
        for args in commands:
            with self.subTest(args), open("/dev/full", "wb") as full:
                proc = subprocess.run([TOOL, *args], stdout=full, stderr=subprocess.PIPE,
                                      env=self.env, timeout=60)
                self.assertEqual(proc.returncode, ERROR, proc.stderr)
                self.assertEqual(proc.stderr.decode().strip().splitlines(),
                                 ["vesk-datastore: write error: No space left on device"])

    def test_closed_pipe_stays_quiet(self):
        self.import_lines([{"Provider": "p", "Hostname": "h", "STDOUT": "x" * 1000}] * 2000,
                          "--allow-duplicates")
        proc = subprocess.run(f"'{TOOL}' export | head -c 10 > /dev/null; "
                              "echo ${PIPESTATUS[0]}", shell=True, executable="/bin/bash",
                              env=self.env, capture_output=True, timeout=60)
        self.assertEqual(proc.stderr, b"")
        self.assertIn(proc.stdout.strip(), (b"0", b"141"))  # done, or ended by SIGPIPE


class Names(ToolCase):
    """A name the queries would refuse or misread never gets into the store."""

    BAD = [("nic's check", "contains a quote"), ("  uname  ", "has blanks around it"),
           ("   ", "is blank"), ('say "hi"', "contains a quote"), ("a\\b", "contains a backslash"),
           ("tab\there", "control byte 0x09"), ("line\nbreak", "control byte 0x0a"),
           ("nul\u0000byte", "control byte 0x00"), ("p" * 65, "longer than 64 bytes")]

    def setUp(self):
        super().setUp()
        self.import_lines([{"Provider": "uname", "Hostname": "h1", "Unique_timestamp": 5}])

    def test_import_refuses_bad_provider_and_host_names(self):
        before = self.stored_rows()
        for field in ("Provider", "Hostname"):
            for name, problem in self.BAD:
                if field == "Hostname" and name.startswith("p" * 65):
                    name, problem = "h" * 257, "longer than 256 bytes"
                with self.subTest(field=field, name=name):
                    path, proc = self.import_lines(
                        [{"Provider": "ok", "Hostname": "h"},
                         {"Provider": "ok", "Hostname": "h", field: name}], expect=ERROR)
                    line = self.stderr_line(proc)
                    self.assertIn(f"{path}:2: {field}: ", line)
                    self.assertIn(problem, line)
        self.assertEqual(self.stored_rows(), before)

    def test_collect_refuses_bad_names_with_file_and_line(self):
        before = self.stored_rows()
        cases = [("ok : true\nnic's : true\n", "2: provider: "),
                 ("ok option=a'b : true\n", "1: option: \"a'b\" contains a quote")]
        for text, message in cases:
            with self.subTest(text):
                path = self.providers_file(text)
                proc = self.run_tool("collect", "--providers-file", path, expect=ERROR)
                self.assertIn(f"{path}:{message}", self.stderr_line(proc))
        proc = self.run_tool("collect", "--provider", "  sp ", "--", "true", expect=ERROR)
        self.assertIn("provider: ", self.stderr_line(proc))
        self.assertEqual(self.stored_rows(), before)

    def test_one_unusual_stored_name_does_not_break_the_reads(self):
        # Written behind the tool's back, as an older version could have.
        self.import_lines([{"Provider": "other", "Hostname": "h1", "Unique_timestamp": 5}])
        self.sql("INSERT INTO provider_datastore(Provider, Hostname, OptionID, Unique_timestamp, "
                 "node_names, STDOUT, STDERR, Username) "
                 "VALUES ('nic''s check', 'h1', '', 5, '', '', '', '')")
        before = self.stored_rows()
        warning = "skipping the rows of provider \"nic's check\""
        for args in (["rows"], ["rows", "--latest"], ["rows", "--host", "h1"], ["export"]):
            with self.subTest(args):
                proc = self.run_tool(*args)
                self.assertEqual(proc.stderr.decode().count(warning), 1, proc.stderr)
                self.assertIn(b"uname", proc.stdout)
                self.assertNotIn(b"nic's", proc.stdout)
        self.assertEqual(self.json_of("snapshot", "create", "s")["rows"], 2)
        self.assertEqual(self.json_of("snapshot", "diff", "s")["identical"], 2)
        self.assertEqual(len(self.json_of("snapshot", "show", "s")), 2)
        self.assertEqual(len(self.json_of("providers")), 3)  # listed, with its count
        self.assertEqual(self.stored_rows()[0], before[0])


class Idempotent(ToolCase):
    """Importing the same rows again stores nothing twice."""

    def lines(self, count, start=0):
        return [{"Provider": f"p{i % 7}", "Hostname": f"h{i % 3}", "OptionID": f"o{i % 2}",
                 "Unique_timestamp": 1000 + i, "STDOUT": f"{i}\n"} for i in range(start, count)]

    def test_second_import_skips_what_is_stored(self):
        path, proc = self.import_lines(self.lines(500), before=("--format", "json"))
        self.assertEqual(json.loads(proc.stdout)["rows"], 500)
        first = self.stored_rows()
        text = self.run_tool("import", path).stdout.decode()
        self.assertIn("imported 0 rows, skipped 500 already stored", text)
        self.assertEqual(self.stored_rows(), first)

        # An interrupted import is finished by running it again: only the rest is stored.
        self.import_lines(self.lines(800), "--batch", "64", name="more.jsonl",
                          before=("--format", "json"))
        rows, _ = self.stored_rows()
        self.assertEqual(len(rows), 800)
        self.assertEqual(sorted(r[-1] for r in rows), list(range(1000, 1800)))

        # --allow-duplicates stores them anyway; a file's own repeats are kept either way.
        self.run_tool("import", path, "--allow-duplicates")
        self.assertEqual(self.stored_count(), 1300)
        dup = self.lines(2) * 2
        self.import_lines(dup, name="dup.jsonl")
        self.assertEqual(self.stored_count(), 1300)
        self.import_lines(self.lines(2, 0)[:1] + [{**self.lines(1)[0], "Unique_timestamp": 5}] * 2,
                          name="repeat.jsonl")
        self.assertEqual(self.stored_count(), 1302)

    def test_two_imports_at_once_store_each_row_once(self):
        path = self.write("rows.jsonl", "".join(json.dumps(l) + "\n" for l in self.lines(20000)))
        procs = [subprocess.Popen([TOOL, "--format", "json", "import", path], env=self.env,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                 for _ in range(2)]
        outs = [p.communicate(timeout=120) for p in procs]
        self.assertEqual([p.returncode for p in procs], [0, 0], outs)
        # One stored every row; the other, held until the first had ended, skipped them.
        self.assertEqual(sorted((json.loads(out)["rows"], json.loads(out)["skipped"])
                                for out, _ in outs), [(0, 20000), (20000, 0)])
        self.assertEqual(self.stored_count(), 20000)

    def test_lookup_uses_the_index(self):
        self.import_lines(self.lines(10))
        plan = self.sql("EXPLAIN QUERY PLAN SELECT p.rowid FROM (VALUES ('p1','h1','o1',1001)) "
                        "AS k JOIN provider_datastore AS p ON p.Provider = k.column1 AND "
                        "p.Hostname = k.column2 AND p.OptionID = k.column3 AND "
                        "p.Unique_timestamp = k.column4 WHERE p.rowid <= 10")
        text = " ".join(str(step[-1]) for step in plan)
        self.assertIn("SEARCH p USING COVERING INDEX provider_datastore_latest", text)
        self.assertNotIn("SCAN p", text)


class Validation(ToolCase):
    """Every field is checked against what it means and the library's limits."""

    def test_bad_fields_are_refused_with_file_line_and_field(self):
        self.run_tool("import", "-", stdin=b"")  # an empty store to compare with
        base = {"Provider": "p", "Hostname": "h"}
        cases = [
            ({"Encoding": 2}, "Encoding: 2 (raw)"),
            ({"Encoding": 1, "STDOUT": "not base64!"}, "STDOUT: is not base64"),
            ({"Encoding": 1, "STDERR": "@@@@"}, "STDERR: is not base64"),
            ({"Encoding": 7}, "Encoding: must be"),
            ({"num_nodes": 3, "node_names": ["a", "b"]}, "num_nodes: 3 disagrees with the 2"),
            ({"num_nodes": -1, "node_names": []}, "num_nodes: is negative"),
            ({"node_names": ["a", "b\nc"]}, "node_names: \"b\\x0ac\" contains the control byte"),
            ({"node_names": [" a"]}, "node_names: \" a\" has blanks around it"),
            ({"Unique_timestamp": -5}, "Unique_timestamp: is negative"),
            ({"Timestamp": -1}, "Timestamp: is negative"),
            ({"Duration": -0.5}, "Duration: must be a finite number"),
            ({"OptionID": "o" * 65}, "OptionID: is 65 bytes, longer than max_option_id_size"),
            ({"OptionID": "a\tb"}, "OptionID: contains the control byte 0x09"),
            ({"Username": "u" * 65}, "Username: is 65 bytes, longer than max_username_size"),
            ({"Username": "x\u0000y"}, "Username: contains the control byte 0x00"),
        ]
        before = self.stored_rows()
        for extra, message in cases:
            with self.subTest(extra):
                path, proc = self.import_lines([base, {**base, **extra}], expect=ERROR)
                self.assertIn(f"{path}:2: {message}", self.stderr_line(proc))
        # A key given twice is refused instead of "last wins".
        path, proc = self.import_lines(['{"Provider": "p", "Hostname": "h", "Provider": "q"}'],
                                       expect=ERROR)
        self.assertIn(f"{path}:1: Provider: the key appears twice", self.stderr_line(proc))
        self.assertEqual(self.stored_rows(), before)
        # What is fine passes: base64 that decodes, matching node counts.
        self.import_lines([{**base, "Encoding": 1, "STDOUT": "aGk=", "num_nodes": 2,
                            "node_names": ["n1", "n2"]}])
        self.assertEqual(self.stored_count(), 1)

    def test_one_bad_name_among_ten_thousand_rows(self):
        lines = [{"Provider": f"p{i % 10}", "Hostname": f"h{i % 4}", "Unique_timestamp": 1 + i,
                  "STDOUT": f"row {i}\n"} for i in range(10000)]
        lines[7321]["Provider"] = "nic's check"
        path, proc = self.import_lines(lines, "--batch", "1000", expect=ERROR)
        line = self.stderr_line(proc)
        self.assertIn(f"{path}:7322: Provider: contains a quote", line)
        self.assertIn("7000 rows before it were", line)
        # Batches of lines 1-7000 were stored; nothing of 7001-8000 nor after.
        rows, _ = self.stored_rows()
        self.assertEqual(len(rows), 7000)
        self.assertEqual(max(r[-1] for r in rows), 7000)
        for args in (["rows"], ["rows", "--latest"], ["hosts"], ["providers"], ["export"],
                     ["snapshot", "create", "s"], ["snapshot", "list"], ["snapshot", "show", "s"],
                     ["snapshot", "diff", "s"], ["check"]):
            with self.subTest(args):
                proc = self.run_tool(*args)
                self.assertEqual(proc.stderr, b"")
        self.assertEqual(len(self.json_of("rows")), 7000)
        self.assertEqual(len(self.json_of("rows", "--latest")), 20)  # provider, host pairs


class Environment(ToolCase):
    """Durations, HOME, missing stores, --version and -v."""

    def test_durations_are_bounded(self):
        for value in ("1e10", "nan", "inf", "0", "-1", "86401", "abc"):
            with self.subTest(value):
                proc = self.run_tool("collect", "--timeout", value, "--provider", "x", "--",
                                     "true", expect=ERROR)
                line = proc.stderr.decode().splitlines()[0]
                self.assertIn("--timeout", line)
                self.assertLess(len(line), 120)  # no 309-digit range
            with self.subTest(file=value):
                path = self.providers_file(f"x timeout={value} : true\n")
                proc = self.run_tool("collect", "--providers-file", path, expect=ERROR)
                self.assertIn(f"{path}:1: timeout: ", self.stderr_line(proc))
        self.assertFalse(os.path.exists(self.database))
        result = self.json_of("collect", "--timeout", "86400", "--provider", "x", "--", "true")
        self.assertEqual(result["rows"][0]["exit_status"], 0)

    def test_home_unset_or_empty_uses_the_password_database(self):
        import pwd
        home = pwd.getpwuid(os.geteuid()).pw_dir
        for env in ({k: v for k, v in self.env.items() if k != "HOME"}, dict(self.env, HOME="")):
            with self.subTest(home=env.get("HOME")):
                [store] = json.loads(self.run_tool("--format", "json", "config", "show",
                                                   env=env).stdout)["datastores"]
                self.assertEqual(store["datastore_file"], f"{home}/.vesk/2019.2.1/vesk.db")
        self.assertFalse(os.path.exists("/.vesk"))

    def test_no_home_at_all_is_refused(self):
        if os.geteuid() != 0:
            self.skipTest("needs root to run as a user the password database does not know")
        env = {k: v for k, v in self.env.items() if k != "HOME"}
        proc = subprocess.run([TOOL, "collect", "--provider", "x", "--", "true"], env=env,
                              cwd="/", capture_output=True, timeout=60, preexec_fn=as_stranger)
        self.assertEqual(proc.returncode, ERROR, proc.stderr)
        self.assertIn(b"HOME is not set and the password database names no home directory",
                      proc.stderr)
        self.assertFalse(os.path.exists("/.vesk"))

    def test_read_commands_never_create_a_store(self):
        for args in (["rows"], ["rows", "--latest"], ["hosts"], ["providers"], ["export"],
                     ["snapshot", "list"], ["snapshot", "show", "s"], ["snapshot", "diff", "s"],
                     ["snapshot", "create", "s"], ["snapshot", "remove", "s"], ["check"]):
            with self.subTest(args):
                proc = self.run_tool(*args, expect=ERROR)
                self.assertIn(f"no datastore at {self.database}", self.stderr_line(proc))
        self.assertFalse(os.path.exists(os.path.join(self.home, ".vesk")))

    def test_version_verbose_and_help(self):
        self.assertRegex(self.run_tool("--version").stdout.decode(),
                         r"^vesk-datastore \d+\.\d+\.\d+\n$")
        self.collect("one : true\n")
        proc = self.run_tool("-v", "hosts")
        self.assertIn(b"configuration ", proc.stderr)
        self.assertIn(f'datastore "vesk_default": {self.database}'.encode(), proc.stderr)
        help_texts = {args[0]: self.run_tool(*args, "--help").stdout.decode()
                      for args in (["collect"], ["import"], ["rows"], ["check"])}
        self.assertRegex(help_texts["collect"], r"--jobs[^\n]*=8")
        self.assertIn("10", help_texts["collect"].split("--timeout")[1].split("--")[0])
        self.assertRegex(help_texts["import"], r"--batch[^\n]*=50000")
        for text in help_texts.values():
            self.assertIn("--config FILE", text)
            self.assertIn("--format", text)


class ExitCodes(ToolCase):
    def test_failed_providers_are_1(self):
        self.collect("good : true\n")
        self.json_of("snapshot", "create", "base")
        for text in ("bad : exit 3\n", "slow timeout=0.2 : sleep 5\n", "gone : kill -KILL $$\n",
                     "missing : exec /nonexistent\n"):
            with self.subTest(text):
                self.collect("good : true\n" + text, expect=NOTHING)
        # The latest rows per host still hold the failed providers; the last
        # run alone equals the snapshot.
        last = self.collect("good : true\n")["unique_timestamp"]
        self.json_of("snapshot", "diff", "base", "--run", str(last))
        self.json_of("snapshot", "diff", "base", expect=NOTHING)


class Output(ToolCase):
    def test_empty_answers_are_valid_in_every_format(self):
        self.run_tool("import", "-", stdin=b"")  # creates the store, stores nothing
        for args in (["rows"], ["hosts"], ["providers"], ["runs"], ["snapshot", "list"]):
            with self.subTest(args):
                # A table for people says "nothing" on standard error only.
                self.assertEqual(self.run_tool(*args, expect=NOTHING).stdout, b"")
                self.assertEqual(self.json_of(*args, expect=NOTHING), [])
                csv = self.run_tool("--format", "csv", *args, expect=NOTHING).stdout.decode()
                self.assertEqual(len(csv.splitlines()), 1)  # the header alone
        self.run_tool("export", expect=NOTHING)
        self.run_tool("--format", "csv", "export", expect=ERROR)
        self.run_tool("snapshot", "create", "empty", expect=NOTHING)

    def test_one_column_set_in_every_format(self):
        self.import_lines([{"Provider": "p", "Hostname": "h", "num_nodes": 1, "node_names": ["n"],
                            "Username": "u", "version": 3, "Unique_timestamp": 7000000}])
        [row] = self.json_of("rows")
        self.assertEqual(list(row.keys()), COLUMNS)
        csv = self.run_tool("--format", "csv", "rows").stdout.decode().splitlines()
        table = self.run_tool("rows").stdout.decode().splitlines()
        self.assertEqual(csv[0].split(","), list(row.keys()))
        self.assertEqual(table[0].split(), [k for k in row if k not in ("STDOUT", "STDERR")])
        self.assertEqual(dict(zip(csv[0].split(","), csv[1].split(","))),
                         {k: str(v if k != "node_names" else ",".join(v)) if k != "Duration"
                          else "0.000" for k, v in row.items()})
        for command, key in (("hosts", "host"), ("providers", "provider")):
            [entry] = self.json_of(command)
            header = self.run_tool("--format", "csv", command).stdout.decode().splitlines()[0]
            self.assertEqual(header.split(","), list(entry.keys()))
            self.assertEqual(self.run_tool(command).stdout.decode().split()[:len(entry)],
                             list(entry.keys()))
            self.assertEqual(entry["latest_run"], 7000000)

    def test_control_bytes_are_escaped_and_binary_diffs_summarised(self):
        self.write("blob", b"\xff\x00one")
        providers = "evil : printf '\\033]0;owned\\007x\\n'\nbin : cat $HOME/blob\n"
        self.collect(providers)
        shown = self.run_tool("rows", "--show-output").stdout
        self.assertNotIn(b"\x1b", shown)
        self.assertNotIn(b"\x07", shown)
        self.assertIn(b"\\x1b]0;owned\\x07x", shown)
        self.json_of("snapshot", "create", "s")
        self.write("blob", b"\xff\x00two!")
        providers = "evil : printf '\\033]0;other\\007x\\n'\nbin : cat $HOME/blob\n"
        self.collect(providers)
        diff = self.run_tool("snapshot", "diff", "s", "--full", expect=NOTHING).stdout
        self.assertNotIn(b"\x1b", diff)
        self.assertIn(b"binary output differs (5 bytes -> 6 bytes)", diff)

    def test_csv_escapes_captured_output_on_a_terminal_only(self):
        self.collect("evil : printf '\\033]0;owned\\007x\\n'\n")
        self.json_of("snapshot", "create", "s")

        def on_terminal(*args):
            """What the tool writes to a terminal as its standard output."""
            master, slave = pty.openpty()
            proc = subprocess.Popen([TOOL, *args], stdout=slave, stderr=subprocess.DEVNULL,
                                    env=self.env)
            os.close(slave)
            out = b""
            while True:
                try:
                    chunk = os.read(master, 65536)
                except OSError:  # the other side is closed
                    break
                if not chunk:
                    break
                out += chunk
            os.close(master)
            proc.wait(timeout=60)
            return out

        for args in (("--format", "csv", "rows", "--show-output"),
                     ("--format", "csv", "snapshot", "show", "s", "--show-output")):
            with self.subTest(args):
                shown = on_terminal(*args)
                self.assertIn(b"\\x1b]0;owned\\x07x", shown)
                self.assertNotIn(b"\x1b", shown)
                # Through a pipe, scripts get the bytes as stored.
                piped = self.run_tool(*args).stdout
                self.assertIn(b"\x1b]0;owned\x07x", piped)

    def test_table_pads_by_display_width(self):
        self.import_lines([{"Provider": "日本語", "Hostname": "h1"},
                           {"Provider": "abc", "Hostname": "h2"}])
        lines = self.run_tool("providers").stdout.decode().splitlines()

        def column(line):
            """The display column where the second cell begins."""
            first = line.split()[0]
            wide = sum(unicodedata.east_asian_width(c) == "W" for c in first)
            return line.index(line.split()[1]) + wide

        # Three wide characters take six columns: both rows line up.
        self.assertEqual(len({column(line) for line in lines}), 1, lines)


class Damage(ToolCase):
    """Open failures and damaged files say what is wrong, cause first."""

    def damage(self, path):
        with open(path, "r+b") as f:
            f.seek(4096)
            f.write(b"\xde\xad" * 8192)

    def test_damaged_file_is_named_and_check_tells_more(self):
        self.collect("one : echo 1\ntwo : echo 2\n")
        self.assertEqual(self.json_of("check")[0]["findings"], ["ok"])
        self.assertIn(b"ok", self.run_tool("check").stdout)
        self.damage(self.database)
        with open(self.database, "rb") as f:
            before = f.read()[100:]  # past the header, whose counters an open may move
        for args in (["rows"], ["hosts"], ["export"], ["snapshot", "create", "s"]):
            with self.subTest(args):
                proc = self.run_tool(*args, expect=ERROR)
                self.assertEqual(self.stderr_line(proc),
                                 f"vesk-datastore: datastore {self.database} is damaged: database "
                                 "disk image is malformed; `vesk-datastore check` tells more")
        [report] = self.json_of("check", expect=ERROR)
        self.assertFalse(report["ok"])
        self.assertEqual(report["file"], self.database)
        self.assertGreater(len(report["findings"]), 1)
        with open(self.database, "rb") as f:
            self.assertEqual(f.read()[100:], before)  # reading and checking changed no page

    def test_open_failure_puts_the_cause_first(self):
        conf = self.config("bad.xml", "nowhere", "source=/dev/null/vesk.db")
        line = self.stderr_line(self.run_tool("--config", conf, "collect", expect=ERROR))
        self.assertEqual(line, 'vesk-datastore: cannot open sqlite datastore "nowhere" '
                               '(/dev/null/vesk.db): cannot create folder "/dev/null": '
                               "Not a directory")

    def test_config_check_reports_what_the_extension_says(self):
        folder = os.path.join(self.home, "folder.db")
        os.mkdir(folder)
        conf = self.config("folder.xml", "f", f"source={folder}")
        line = self.stderr_line(self.run_tool("config", "check", conf, expect=ERROR))
        self.assertTrue(line.startswith(f"vesk-datastore: {conf}: cannot open sqlite datastore"),
                        line)
        self.assertIn("it is a folder, not a file", line)
        # A file not created yet is fine, and config check does not create it.
        new = self.config("new.xml", "n", f"source={self.home}/new.db")
        self.run_tool("config", "check", new)
        self.assertFalse(os.path.exists(os.path.join(self.home, "new.db")))

    def test_config_check_refuses_unknown_parameter_keys_and_values(self):
        self.collect("one : true\n")
        for params in ("read_only=maybe", "read_onyl=true"):
            with self.subTest(params):
                conf = self.config("maybe.xml", "m", f"{params}|source={self.database}")
                line = self.stderr_line(self.run_tool("config", "check", conf, expect=ERROR))
                self.assertIn(params.split("=")[0], line)

    def test_unwritable_store_suggests_read_only(self):
        self.collect("one : true\n")
        before = self.stored_rows()
        if os.geteuid() == 0:
            # Permissions do not bind root: another user meets the root-owned file.
            for root, dirs, files in os.walk(self.home):
                for name in dirs + files:
                    os.chmod(os.path.join(root, name), 0o755 if name in dirs else 0o644)
            os.chmod(self.home, 0o755)
            preexec = as_stranger
        else:
            os.chmod(self.database, 0o444)
            preexec = None
        run = lambda *args: subprocess.run(  # noqa: E731
            [TOOL, *args], env=self.env, capture_output=True, timeout=60, preexec_fn=preexec)
        try:
            # Writing fails with the reason and the way to read the store...
            proc = run("collect")
            self.assertEqual(proc.returncode, ERROR, proc.stderr)
            line = self.stderr_line(proc)
            self.assertIn(self.database, line)
            self.assertIn("readonly database", line)
            self.assertIn("read_only=true", line)
            # ...and a read either answers in full (the WAL side files are
            # there to read through) or fails the same way: nothing half.
            proc = run("--format", "json", "rows")
            if proc.returncode == OK:
                self.assertEqual(len(json.loads(proc.stdout)), len(before[0]))
            else:
                self.assertEqual(proc.returncode, ERROR, proc.stderr)
                self.assertIn("add read_only=true to its source_parameters",
                              self.stderr_line(proc))
        finally:
            os.chmod(self.database, 0o644)
        self.assertEqual(self.stored_rows(), before)



HOUR = 3600 * 1000000
NOW = int(time.time()) * 1000000


def cluster_lines(hosts=12, providers=("cpu", "disk", "mem", "net", "uptime"), runs=3,
                  stale=("node011",)):
    """Rows of a simulated cluster: every host collects on its own, so every
    host has its own run stamps; the hosts in `stale` stopped five days ago."""
    lines = []
    for h in range(hosts):
        host = f"node{h:03d}"
        for run in range(runs):
            stamp = NOW - (runs - run) * HOUR + h * 1000 - (120 * HOUR if host in stale else 0)
            for p in providers:
                out = f"up {run}\n" if p == "uptime" else f"{p} ok\n"
                lines.append({"Provider": p, "Hostname": host, "Unique_timestamp": stamp,
                              "Timestamp": stamp // 1000000, "Duration": 1.0, "STDOUT": out})
    return lines


class Cluster(ToolCase):
    """Per-host baselines, diff in every mode, row filters and runs."""

    def setUp(self):
        super().setUp()
        self.import_lines(cluster_lines())

    def baseline_members(self, name):
        return self.sql("SELECT COUNT(*) FROM baseline_datastore WHERE baseline_id = ?", name)[0][0]

    def change(self, *after):
        """A new run on three hosts: cpu fails on node001 and node002, uptime moves on, node003
        is slow, and node009 gets a new provider."""
        lines = []
        for h in (1, 2, 3):
            stamp = NOW + h * 1000
            for p in ("cpu", "disk", "mem", "net", "uptime"):
                lines.append({"Provider": p, "Hostname": f"node{h:03d}", "Unique_timestamp": stamp,
                              "Exit_status": 1 if p == "cpu" and h < 3 else 0,
                              "Duration": 3.0 if h == 3 else 1.0,
                              "STDOUT": "up 9\n" if p == "uptime" else f"{p} ok\n"})
        lines.append({"Provider": "gpu", "Hostname": "node009", "Unique_timestamp": NOW + 9})
        self.import_lines(lines, name="change.jsonl")

    def test_snapshot_covers_every_host_and_names_stale_ones(self):
        proc = self.run_tool("snapshot", "create", "base")
        out, err = proc.stdout.decode(), proc.stderr.decode()
        self.assertIn("records 60 rows of 12 hosts; 1 host has no row newer than", out)
        self.assertIn("1 host has no row newer than", err)
        self.assertIn("node011", err)
        self.assertEqual(self.baseline_members("base"), 60)
        # Every host's own latest run, not the greatest run of the store.
        shown = self.json_of("snapshot", "show", "base")
        self.assertEqual(len({r["Hostname"] for r in shown}), 12)
        self.assertEqual({r["STDOUT"] for r in shown if r["Provider"] == "uptime"}, {"up 2\n"})

        proc = self.run_tool("snapshot", "create", "base", expect=ERROR)
        self.assertIn("exists already (--replace", self.stderr_line(proc))
        self.change()
        replaced = self.json_of("snapshot", "create", "base", "--replace")
        self.assertEqual((replaced["rows"], replaced["stale_hosts"]), (61, ["node011"]))
        self.assertEqual(self.baseline_members("base"), 61)
        one_run = NOW + 1000
        exact = self.json_of("snapshot", "create", "one", "--run", str(one_run))
        self.assertEqual((exact["rows"], exact["hosts"]), (5, 1))
        self.assertEqual(self.baseline_members("one"), 5)
        self.assertEqual(self.baseline_members("base"), 61)  # nothing committed twice
        self.run_tool("snapshot", "create", "none", "--run", "12345", expect=ERROR)
        fresh = self.json_of("snapshot", "create", "fresh", "--stale-after", "30d")
        self.assertEqual(fresh["stale_hosts"], [])

    def test_diff_modes_and_exit_status(self):
        self.json_of("snapshot", "create", "base")
        same = self.run_tool("diff", "base").stdout.decode()
        self.assertIn("0 differences, 60 identical; 0 hosts differ", same)
        self.change()

        summary = self.run_tool("diff", "base", expect=NOTHING).stdout.decode().splitlines()
        self.assertEqual(summary, [
            'comparing snapshot "base" with the latest rows per host',
            "changed: cpu on node001, node002 (exit 0 -> 1)",
            "changed: uptime on node001, node002, node003 (stdout)",
            "new: gpu on node009",
            "6 differences, 55 identical; 4 hosts differ"])
        self.assertEqual(self.run_tool("snapshot", "diff", "base", expect=NOTHING).stdout.decode()
                         .splitlines(), summary)  # the alias

        names = self.run_tool("diff", "base", "--name-only", expect=NOTHING).stdout.decode()
        self.assertEqual(names.split(), ["node001", "node002", "node003", "node009"])
        quiet = self.run_tool("diff", "base", "--quiet", expect=NOTHING)
        self.assertEqual(quiet.stdout, b"")
        stat = {(s["by"], s["name"]): s for s in self.json_of("diff", "base", "--stat",
                                                                expect=NOTHING)}
        self.assertEqual(stat[("provider", "uptime")]["changed"], 3)
        self.assertEqual(stat[("host", "node009")]["new"], 1)
        full = self.run_tool("diff", "base", "--full", expect=NOTHING).stdout.decode()
        self.assertIn("  exit status 0 -> 1", full)
        self.assertIn("-up 2", full)
        self.assertIn("+up 9", full)
        diff = self.json_of("diff", "base", expect=NOTHING)
        kinds = sorted((d["provider"], d["host"], d["change"]) for d in diff["differences"])
        self.assertEqual(kinds[0], ("cpu", "node001", "changed"))
        self.assertIn(("gpu", "node009", "new"), kinds)
        csv = self.run_tool("--format", "csv", "diff", "base", expect=NOTHING).stdout.decode()
        self.assertIn("cpu,node001,,changed,exit 0 -> 1\r\n", csv)

        # Volatile providers left out by option or by the dot file; durations on request.
        ignored = self.json_of("diff", "base", "--ignore-provider", "uptime",
                               "--ignore-provider", "gpu", expect=NOTHING)
        self.assertEqual(sorted(d["host"] for d in ignored["differences"]),
                         ["node001", "node002"])
        os.makedirs(os.path.join(self.home, ".vesk"), exist_ok=True)
        self.write(".vesk/diff-ignore", "# volatile\nuptime\n  gpu  \ncpu\n")
        self.run_tool("diff", "base")
        self.run_tool("diff", "base", "--no-ignore-file", expect=NOTHING)
        # An ignore file that cannot be read is an error, never an empty list.
        path = os.path.join(self.home, ".vesk", "diff-ignore")
        os.rename(path, path + ".kept")
        for make, reason in ((os.mkdir, "Is a directory"),
                             (lambda p: os.symlink(p, p), "Too many levels of symbolic links")):
            with self.subTest(reason):
                make(path)
                line = self.stderr_line(self.run_tool("diff", "base", expect=ERROR))
                self.assertIn(f"cannot read {path}: {reason}", line)
                (os.rmdir if os.path.isdir(path) else os.remove)(path)
        os.rename(path + ".kept", path)
        slow = self.json_of("diff", "base", "--duration-tolerance", "50", expect=NOTHING)
        self.assertEqual([(d["host"], d["duration"]) for d in slow["differences"]],
                         [("node003", [1.0, 3.0])] * 3)  # disk, mem, net
        self.run_tool("diff", "base", "--duration-tolerance", "250")

        # Two runs of one host, a snapshot against a run, and errors.
        runs = self.json_of("runs", "--limit", "2")
        self.assertEqual([r["run"] for r in runs], [NOW + 3000, NOW + 2000])
        first, second = NOW - 3 * HOUR + 1000, NOW + 1000
        between = self.json_of("diff", "--run", str(first), "--run", str(second),
                               "--no-ignore-file", expect=NOTHING)
        self.assertEqual(sorted(d["provider"] for d in between["differences"]), ["cpu", "uptime"])
        self.run_tool("diff", "base", "--run", str(NOW - HOUR + 4000), "--ignore-provider", "x",
                      expect=NOTHING)
        for args in (["NOSUCH"], ["base", "NOSUCH"], ["--run", "12345"], [],
                     ["base", "base", "--run", str(second)], ["base", "--stat", "--quiet"],
                     ["base", "--duration-tolerance", "nan"],
                     ["base", "--duration-tolerance", "-1"]):
            with self.subTest(args):
                self.run_tool("diff", *args, expect=ERROR)

    def test_runs_and_row_filters(self):
        runs = self.json_of("runs")
        self.assertEqual(len(runs), 36)
        self.assertEqual(runs[0]["run"], NOW - HOUR + 10000)  # newest first
        self.assertEqual((runs[0]["hosts"], runs[0]["rows"], runs[0]["failed"]), (1, 5, 0))
        self.change()
        failed = self.json_of("rows", "--failed")
        self.assertEqual(sorted(r["Hostname"] for r in failed), ["node001", "node002"])
        self.assertEqual(len(self.json_of("rows", "--exit", "1", "--host", "node001")), 1)
        self.assertEqual(len(self.json_of("rows", "--latest", "--failed", "--provider", "cpu")), 2)
        self.assertEqual(len(self.json_of("rows", "--since", "30m")), 16)  # the change only
        old = time.strftime("%Y-%m-%dT%H:%M", time.localtime(NOW // 1000000 - 100 * 3600))
        self.assertEqual({r["Hostname"] for r in self.json_of("rows", "--until", old)},
                         {"node011"})
        self.assertEqual(len(self.json_of("rows", "--run", str(NOW + 1000))), 5)
        self.assertEqual(len(self.json_of("rows", "--since", str(NOW + 1000))), 10)  # after it
        self.assertEqual(len(self.json_of("rows", "--limit", "7")), 7)
        globbed = {r["Hostname"] for r in self.json_of("rows", "--host", "node00[0-2]*",
                                                       "--host", "node011")}
        self.assertEqual(globbed, {"node000", "node001", "node002", "node011"})
        latest = self.json_of("rows", "--latest", "--provider", "cpu")
        # node011 stopped collecting; node009's newest run (gpu alone) has no cpu row.
        stale = {r["Hostname"] for r in latest if r["stale"]}
        self.assertEqual(stale, {"node009", "node011"})
        table = self.run_tool("rows", "--latest", "--provider", "cpu").stdout.decode()
        self.assertTrue(table.splitlines()[0].endswith("stale"))
        for args in (["--since", "yesterday"], ["--since", "2026-13-01"], ["--until", "5x"],
                     ["--host", "node'*"], ["--limit", "0"]):
            with self.subTest(args):
                self.run_tool("rows", *args, expect=ERROR)

    def test_failed_read_is_an_error_not_a_short_answer(self):
        # Columns renamed behind the tool's back, opened read-only: the
        # provider list still reads, the row queries fail.
        self.sql("DROP VIEW vesk_1")
        for old, new in (("OptionID", "opt"), ("Exit_status", "ex"), ("Unique_timestamp", "stamp")):
            self.sql(f"ALTER TABLE provider_datastore RENAME COLUMN {old} TO {new}")
        config = self.read_only_config()
        for args in (["rows"], ["rows", "--latest"], ["export", "--since", "1d"], ["runs"]):
            with self.subTest(args):
                proc = self.run_tool("--config", config, *args, expect=ERROR)
                self.assertEqual(proc.stdout, b"")
                self.assertIn("failed", proc.stderr.decode())


class MultiDatastore(ToolCase):
    """Several datastores: reads merge with a datastore column, writes need one target."""

    def setUp(self):
        super().setUp()
        for name in ("g1", "g2"):
            self.config(f"{name}.xml", name, f"source={self.home}/{name}.db")
        self.group = self.group_file(("g1.xml", "libsqlite.so"), ("g2.xml", "libsqlite.so"))
        lines = cluster_lines(hosts=4, runs=1, stale=())
        for name, part in (("g1", lines[:10]), ("g2", lines[10:])):
            self.import_lines(part, before=("--config", self.group, "--datastore", name))

    def test_reads_merge_and_writes_refuse_an_ambiguous_target(self):
        both = ("--config", self.group)
        rows = self.json_of(*both, "rows")
        self.assertEqual(len(rows), 20)
        self.assertEqual({r["datastore"] for r in rows}, {"g1", "g2"})
        self.assertEqual({r["datastore"] for r in rows if r["Hostname"] == "node003"}, {"g2"})
        self.assertEqual(len(self.json_of(*both, "rows", "--limit", "3")), 3)
        csv = self.run_tool("--format", "csv", *both, "rows").stdout.decode()
        self.assertTrue(csv.startswith("datastore,rowid,Provider"))
        self.assertEqual(len(self.run_tool(*both, "export").stdout.splitlines()), 20)
        self.assertEqual(len(self.json_of(*both, "--datastore", "g1", "rows")), 10)
        self.assertEqual({h["host"] for h in self.json_of(*both, "hosts")},
                         {"node000", "node001", "node002", "node003"})
        self.assertEqual(len(self.json_of(*both, "diff", "--run", str(NOW - HOUR + 3000),
                                          expect=NOTHING)["differences"]), 15)
        for args in (["import", self.write("x.jsonl", "")], ["snapshot", "create", "s"],
                     ["snapshot", "remove", "s"], ["prune", "--keep-runs", "1"],
                     ["collect", "--provider", "x", "--", "true"]):
            with self.subTest(args):
                proc = self.run_tool(*both, *args, expect=ERROR)
                self.assertIn("several datastores are selected (g1, g2)", proc.stderr.decode())
        made = self.json_of(*both, "--datastore", "g2", "snapshot", "create", "s")
        self.assertEqual((made["datastore"], made["rows"]), ("g2", 10))


class Scale(ToolCase):
    """More providers than one statement lists, answers read in one statement or per
    provider, and a store of an older schema."""

    PROVIDERS = [f"p{i:02d}" for i in range(70)]

    def lines(self, failing=()):
        """70 providers x 3 hosts x 2 runs; (provider, host) in `failing` exit 3 in run 1."""
        lines = []
        for h in range(3):
            host = f"node{h:03d}"
            for run in range(2):
                stamp = NOW - (2 - run) * HOUR + h * 1000
                for p in self.PROVIDERS:
                    lines.append({"Provider": p, "Hostname": host, "Unique_timestamp": stamp,
                                  "Timestamp": stamp // 1000000, "STDOUT": f"{p} {run}\n",
                                  "Exit_status": 3 if run == 1 and (p, host) in failing else 0})
        return lines

    def test_many_providers_listed_grouped_and_read(self):
        self.import_lines(self.lines(failing={("p07", "node001"), ("p64", "node002")}))
        providers = self.json_of("providers")
        self.assertEqual([p["provider"] for p in providers], self.PROVIDERS)
        self.assertEqual({(p["hosts"], p["rows"], p["latest_run"]) for p in providers},
                         {(3, 6, NOW - HOUR + 2000)})
        hosts = self.json_of("hosts")
        self.assertEqual([(h["host"], h["providers"], h["rows"]) for h in hosts],
                         [(f"node{h:03d}", 70, 140) for h in range(3)])
        # Named hosts of --latest: every provider in one statement.
        for args in (["--host", "node001"], ["--host", "node001", "--host", "node000"]):
            with self.subTest(args):
                latest = self.json_of("rows", "--latest", *args)
                self.assertEqual(len(latest), 70 * (len(args) // 2))
                self.assertEqual([r["Provider"] for r in latest],
                                 sorted(r["Provider"] for r in latest))
                self.assertTrue(all(r["Unique_timestamp"] > NOW - 2 * HOUR + 5000 and
                                    not r["stale"] for r in latest))
        table = self.run_tool("rows", "--latest", "--host", "node001").stdout.decode()
        self.assertEqual(len(table.splitlines()), 1 + 70)  # read once, printed once
        # --limit bounds the answer: one statement, ordered as per provider.
        limited = self.json_of("rows", "--limit", "100")
        everything = self.json_of("rows")
        self.assertEqual(len(everything), 420)
        self.assertEqual(limited, everything[:100])
        failed = self.json_of("rows", "--failed")
        self.assertEqual([(r["Provider"], r["Hostname"]) for r in failed],
                         [("p07", "node001"), ("p64", "node002")])
        self.assertEqual(self.json_of("rows", "--exit", "3", "--limit", "1"), failed[:1])
        self.assertEqual(len(self.json_of("rows", "--exit", "0")), 418)
        self.assertEqual(len(self.json_of("rows", "--latest", "--failed")), 2)

    def test_store_of_an_older_schema_is_read_and_upgraded(self):
        self.import_lines(self.lines(failing={("p03", "node000")}))
        # As an older build left it: without the index of failed rows.
        self.sql("DROP INDEX provider_datastore_failed")
        conf = self.read_only_config()
        failed = self.json_of("--config", conf, "rows", "--failed")
        self.assertEqual([(r["Provider"], r["Hostname"]) for r in failed], [("p03", "node000")])

        indexes = lambda: {r[0] for r in self.sql(  # noqa: E731
            "SELECT name FROM sqlite_master WHERE type = 'index'")}
        self.assertNotIn("provider_datastore_failed", indexes())  # read-only changes nothing
        self.assertEqual(self.json_of("rows", "--failed"), failed)  # the default opens writable
        self.assertIn("provider_datastore_failed", indexes())

    def test_reading_commands_leave_the_file_alone(self):
        # No failed row: the index of failed rows stays empty and has no
        # statistics row, while a snapshot's writes made the others get one.
        # The summaries fold new rows in once; after that every reading
        # command leaves the file as it is.
        self.import_lines(self.lines())
        self.json_of("snapshot", "create", "base")
        self.json_of("providers")
        db = sqlite3.connect(self.database, isolation_level=None)
        try:
            self.assertTrue(db.execute("SELECT COUNT(*) FROM sqlite_stat1").fetchone()[0])
            # data_version changes when another connection commits anything.
            version = db.execute("PRAGMA data_version").fetchone()[0]
            for args in (["rows", "--latest"], ["rows", "--failed"], ["providers"], ["hosts"],
                         ["runs"], ["diff", "base"], ["rows", "--latest", "--host", "node001"]):
                with self.subTest(args):
                    self.run_tool(*args, expect=NOTHING if args[-1] == "--failed" else OK)
                    self.assertEqual(db.execute("PRAGMA data_version").fetchone()[0], version)
            self.json_of("snapshot", "create", "base", "--replace")  # a write is seen
            self.assertNotEqual(db.execute("PRAGMA data_version").fetchone()[0], version)
        finally:
            db.close()

    def test_summaries_agree_with_the_rows(self):
        # hosts, providers, runs and the stale marks of --latest read the
        # summary of a writable file; a read-only configuration of the same
        # file reads the rows. Both must agree after every kind of change.
        conf = self.read_only_config()
        commands = (["providers"], ["hosts"], ["runs"], ["rows", "--latest", "--host", "node00*"])

        def agree(step):
            for args in commands:
                with self.subTest(step=step, command=args[0]):
                    self.assertEqual(self.json_of(*args), self.json_of("--config", conf, *args))

        self.import_lines(self.lines(failing={("p03", "node001")}))
        agree("first fold")
        more = [dict(line, Unique_timestamp=line["Unique_timestamp"] + 3 * HOUR,
                     Exit_status=1 if line["Provider"] == "p05" else 0)
                for line in self.lines() if line["Hostname"] == "node002"]
        self.import_lines(more, name="more.jsonl")
        agree("rows after the mark")
        self.sql("DELETE FROM provider_datastore WHERE rowid = 7")
        agree("a covered row deleted")
        self.sql("UPDATE provider_datastore SET Hostname = 'node009' WHERE rowid = 8")
        agree("a covered row moved to another host")
        self.sql("INSERT INTO provider_datastore(rowid, Provider, Hostname, Exit_status, "
             "Unique_timestamp) VALUES (7, 'p00', 'node000', 2, 5)")
        agree("a row inserted below the mark")
        self.run_tool("prune", "--keep-runs", "1", "--yes")
        # prune built the summary again
        self.assertEqual(self.sql("SELECT COUNT(*) FROM vesk_summary_mark"), [(1,)])
        agree("pruned")

    def test_summary_readers_alongside_writers(self):
        # Readers fold while importers write: every reader exits 0, and the
        # summary the last one leaves agrees with the rows.
        self.import_lines(self.lines())
        files = []
        for k in range(3):
            lines = [dict(line, Unique_timestamp=line["Unique_timestamp"] + (k + 1) * 3 * HOUR)
                     for line in self.lines()]
            files.append(self.write(f"more{k}.jsonl", "".join(json.dumps(l) + "\n"
                                                              for l in lines)))
        writers = [subprocess.Popen([TOOL, "import", f, "--batch", "50"], env=self.env,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                   for f in files]
        failures = []
        while any(w.poll() is None for w in writers):
            for command in ("hosts", "runs", "providers"):
                proc = subprocess.run([TOOL, command], env=self.env, capture_output=True,
                                      timeout=120)
                if proc.returncode != OK:
                    failures.append((command, proc.stderr.decode()))
        for w in writers:
            self.assertEqual(w.wait(), OK, w.stderr.read().decode())
            w.stderr.close()
        self.assertEqual(failures, [])
        conf = self.read_only_config()
        for command in ("hosts", "runs", "providers"):
            self.assertEqual(self.json_of(command), self.json_of("--config", conf, command))
        self.assertEqual(sum(r["rows"] for r in self.json_of("runs")), 4 * 420)


class Retention(ToolCase):
    """prune keeps what snapshots record; export and import ship snapshots and new rows."""

    def setUp(self):
        super().setUp()
        self.import_lines(cluster_lines())
        self.first_run = NOW - 3 * HOUR  # node000's oldest run
        self.json_of("snapshot", "create", "base")
        self.json_of("snapshot", "create", "old", "--run", str(self.first_run))

    def members_resolve(self):
        """Every snapshot member still names a stored row."""
        return self.sql("SELECT COUNT(*) FROM baseline_datastore b LEFT JOIN provider_datastore p "
                        "ON p.rowid = b.datastore_rowid WHERE p.rowid IS NULL") == [(0,)]

    def test_prune_never_removes_snapshot_rows(self):
        dry = self.json_of("prune", "--keep-runs", "1", "--dry-run")
        self.assertEqual((dry["rows"], dry["kept_for_snapshots"], dry["dry_run"]), (115, 5, True))
        self.assertEqual(self.stored_count(), 180)
        done = self.json_of("prune", "--keep-runs", "1", "--batch", "7")
        self.assertEqual((done["rows"], done["dry_run"]), (115, False))
        self.assertEqual(self.stored_count(), 65)
        self.assertTrue(self.members_resolve())
        self.run_tool("diff", "base")  # the baseline is whole: no difference
        self.assertEqual(len(self.json_of("snapshot", "show", "old")), 5)
        self.assertEqual(self.json_of("prune", "--keep-runs", "1")["rows"], 0)
        # node011's rows are five days old, but the baseline records them.
        aged = self.json_of("prune", "--older-than", "3d", "--compact")
        self.assertEqual((aged["rows"], aged["kept_for_snapshots"]), (0, 5))
        self.assertIn(aged["compacted"], ("vacuum", "incremental_vacuum"))
        self.json_of("snapshot", "remove", "base")
        self.assertEqual(self.json_of("prune", "--older-than", "3d")["rows"], 5)
        self.assertTrue(self.members_resolve())
        for args in ([], ["--keep-runs", "1", "--older-than", "1d"], ["--older-than", "soon"],
                     ["--keep-runs", "0"]):
            with self.subTest(args):
                self.run_tool("prune", *args, expect=ERROR)

    def test_prune_leaves_a_read_only_datastore_alone(self):
        ro = ("--config", self.read_only_config())
        before = self.stored_rows()
        for args in (["--keep-runs", "1", "--yes"], ["--older-than", "1h", "--yes", "--compact"]):
            with self.subTest(args):
                line = self.stderr_line(self.run_tool(*ro, "prune", *args, expect=ERROR))
                self.assertIn("datastore ro is read-only", line)
        self.assertEqual(self.stored_rows(), before)
        # Counting reads only, and counts as the writable datastore does.
        self.assertEqual(self.json_of(*ro, "prune", "--keep-runs", "1", "--dry-run")["rows"],
                         self.json_of("prune", "--keep-runs", "1", "--dry-run")["rows"])
        self.assertEqual(self.stored_rows(), before)

    def test_readers_alongside_prune_never_fail(self):
        import threading
        for round_ in range(3):
            with self.subTest(round=round_):
                self.import_lines(cluster_lines(runs=4), name=f"more{round_}.jsonl")
                codes, done = [], threading.Event()

                def read():
                    while not done.is_set():
                        codes.append(subprocess.run([TOOL, "rows", "--provider", "cpu"],
                                                    capture_output=True, env=self.env,
                                                    timeout=120).returncode)

                reader = threading.Thread(target=read)
                reader.start()
                try:
                    self.json_of("prune", "--keep-runs", "1", "--batch", "3")
                finally:
                    done.set()
                    reader.join()
                self.assertTrue(codes)
                self.assertEqual(set(codes), {OK})
                self.assertTrue(self.members_resolve())

    def test_snapshots_survive_export_and_import_byte_for_byte(self):
        exported = self.run_tool("export", "--snapshots").stdout
        lines = exported.decode().splitlines()
        self.assertEqual(len(lines), 180 + 60 + 5)
        self.assertEqual(json.loads(lines[-1])["Snapshot"], "old")
        self.write("backup.jsonl", exported)
        other = self.other_home("other")
        backup = os.path.join(self.home, "backup.jsonl")
        self.run_tool("import", backup, env=other)
        self.assertEqual(self.run_tool("export", "--snapshots", env=other).stdout, exported)
        listed = self.run_tool("--format", "json", "snapshot", "list", env=other).stdout
        self.assertEqual(json.loads(listed), self.json_of("snapshot", "list"))
        # Twice is harmless: nothing stored again, the members recorded once.
        again = json.loads(self.run_tool("--format", "json", "import", backup, env=other).stdout)
        self.assertEqual((again["rows"], again["skipped"], again["snapshot_members"]),
                         (0, 180, 65))
        self.assertEqual(self.run_tool("export", "--snapshots", env=other).stdout, exported)
        # A member whose row is not stored is refused with its line.
        self.import_lines([{"Snapshot": "x", "Provider": "cpu", "Hostname": "nohost",
                            "OptionID": "", "Unique_timestamp": 1}], expect=ERROR)
        proc = self.import_lines(['{"Snapshot": "y", "Provider": "cpu"}'], expect=ERROR)[1]
        self.assertIn("rows.jsonl:1: Hostname: must be a string", self.stderr_line(proc))

    def test_incremental_export_ships_only_new_rows(self):
        central = self.other_home("central")
        shipment = self.run_tool("export").stdout
        self.run_tool("import", "-", stdin=shipment, env=central)
        last = self.json_of("runs", "--limit", "1")[0]["run"]
        self.import_lines([{"Provider": "cpu", "Hostname": "node000", "Unique_timestamp": NOW + 5},
                           {"Provider": "cpu", "Hostname": "node001", "Unique_timestamp": NOW + 6}],
                          name="new.jsonl")
        new = self.run_tool("export", "--since", str(last)).stdout
        self.assertEqual([json.loads(l)["Unique_timestamp"] for l in new.splitlines()],
                         [NOW + 5, NOW + 6])
        for _ in range(2):  # shipping twice is harmless
            self.run_tool("import", "-", stdin=new, env=central)
        self.assertEqual(self.run_tool("export", env=central).stdout.count(b"\n"), 182)
        self.assertEqual(len(self.run_tool("export", "--since", "30m").stdout.splitlines()), 2)


if __name__ == "__main__":
    unittest.main()
