#!/usr/bin/env python3
"""Configuration texts and JSON lines that used to crash the staged tool.

Shell operators in configured paths stay literal text; a JSON line with an
out-of-range number or a NUL byte is refused by line number. Neither ever
ends the process with a signal.
"""

import json
import os
import signal
import unittest

from tool_test import ERROR, OK, ToolCase


class InputSafety(ToolCase):
    def config(self, name, source):
        return self.write(name, f'<configuration instance_name="x" type="sqlite3" '
                                f'source_types="data" source_parameters="source={source}"/>')

    def run_in_home(self, *args, stdin=None, expect=OK):
        """The tool with the temporary HOME as its working folder."""
        cwd = os.getcwd()
        os.chdir(self.home)
        try:
            proc = self.run_tool(*args, stdin=stdin, expect=expect)
        finally:
            os.chdir(cwd)
        self.assertGreaterEqual(proc.returncode, 0, "ended by a signal")
        return proc

    def test_shell_operators_in_source_are_a_literal_path(self):
        row = b'{"Provider":"p","Hostname":"h"}\n'
        for name, source, folder in [("nope.xml", "${NOPE?}/x.db", "${NOPE?}"),
                                     ("arith.xml", "$(())/x.db", "$(())")]:
            with self.subTest(source):
                conf = self.config(name, source)
                self.run_in_home("--config", conf, "import", "-", stdin=row)
                self.assertTrue(os.path.isfile(os.path.join(self.home, folder, "x.db")))
                rows = self.run_in_home("--format", "json", "--config", conf, "rows").stdout
                self.assertEqual(len(json.loads(rows)), 1)

    def test_shell_operator_in_group_path_is_a_literal_folder(self):
        self.config("c.xml", os.path.join(self.home, "db.sqlite"))
        group = self.write("g.xml", '<d><group path="${OM?}/a"><entry config_path="$HOME" '
                                    'config_file="c.xml">libsqlite.so</entry></group></d>')
        # A write opens the store, so the library path is resolved and named.
        line = self.stderr_line(self.run_in_home("--config", group, "import", "-",
                                                 stdin=b"", expect=ERROR))
        self.assertIn(os.path.join(self.home, "${OM?}/a/libsqlite.so"), line)

    def test_configuration_messages_name_cause_file_and_position(self):
        cases = {
            "missing.xml": ('<configuration instance_name="x" type="sqlite3" source_types="data"/>',
                            "missing attribute source_parameters in {} "
                            "(Invalid value for attribute type )"),
            # The fixed text names "type"; the cause names the attribute.
            "empty.xml": ('<configuration instance_name="x" type="odbc" source_types="data" '
                          'source_parameters=" "/>',
                          "empty attribute source_parameters in {} "
                          "(Invalid value for attribute type )"),
            "tags.xml": ("<configuration>\n<a></b></configuration>",
                         "Opening and ending tag mismatch: a line 2 and b (line 2, column 8) "
                         "in datastore configuration {} (Error opening datastore configuration)"),
            "entity.xml": ('<!DOCTYPE d [<!ENTITY a "x">]><d/>',
                           "the document type declares entities in datastore configuration {} "
                           "(Error opening datastore configuration)"),
        }
        for name, (text, message) in cases.items():
            path = self.write(name, text)
            with self.subTest(name):
                line = self.stderr_line(self.run_tool("config", "check", path, expect=ERROR))
                self.assertEqual(line, "vesk-datastore: " + message.format(path))
        # A compressed file is refused unread.
        path = self.write("packed.xml", b"\x1f\x8b\x08\x00" + b"\x00" * 64)
        line = self.stderr_line(self.run_tool("--config", path, "rows", expect=ERROR))
        self.assertIn("compressed file (gzip) in datastore configuration " + path, line)

    def test_bad_json_lines_are_refused_by_number(self):
        head = b'{"Provider":"p","Hostname":"h"}\n'
        cases = [(b'{"Provider":"p","Hostname":"h","Duration":1e400}\n', "standard input:2: ", "1e400"),
                 (b'{"Provider":"p","Hostname":"h"}\x00junk\n', "standard input:2: ", "NUL byte")]
        for text, where, why in cases:
            with self.subTest(why):
                proc = self.run_tool("import", "-", stdin=head + text, expect=ERROR)
                self.assertNotEqual(proc.returncode, -signal.SIGABRT)
                line = self.stderr_line(proc)
                self.assertIn(where, line)
                self.assertIn(why, line)
                self.assertEqual(self.stored_count(), 0)  # the batch is not stored


if __name__ == "__main__":
    unittest.main()
