"""Tests of the resource compiler: what it accepts, what it writes, and how it refuses."""
import os
import subprocess
import sys
import tempfile
import unittest

SCRIPT = sys.argv.pop(1) if len(sys.argv) > 1 else os.path.join(
    os.path.dirname(__file__), "..", "..", "..", "platform", "tools", "adrc.py")


class AdrcTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.out = os.path.join(self.dir.name, "out_rc.cpp")

    def tearDown(self):
        self.dir.cleanup()

    def compile(self, text, anchor="TestAnchor"):
        rc = os.path.join(self.dir.name, "in.rc")
        with open(rc, "w", encoding="utf-8") as f:
            f.write(text)
        return subprocess.run([sys.executable, SCRIPT, rc, self.out, "--anchor", anchor],
                              capture_output=True, text=True)

    def output(self):
        with open(self.out, encoding="utf-8") as f:
            return f.read()

    def test_tables_per_language_with_escapes(self):
        result = self.compile(
            '#include "resource.h"\n'
            "/* two languages */\n"
            "LANGUAGE LANG_ENGLISH, SUBLANG_ENGLISH_US\n"
            "STRINGTABLE\nBEGIN\n"
            '    7001 "%s settings can only be changed from Outlook."\n'
            '    7002, "say ""hi""\\n" " and more"\n'
            "END\n"
            "STRINGTABLE LANGUAGE LANG_GERMAN, SUBLANG_GERMAN\n{\n"
            '    7001 "Einstellungen f\u00fcr %s\\\\ \u6771"\n'
            "}\n")
        self.assertEqual(result.returncode, 0, result.stderr)
        text = self.output()
        self.assertIn('{7001, u"%s settings can only be changed from Outlook."},', text)
        self.assertIn('{7002, u"say \\"hi\\"\\012 and more"},', text)
        self.assertIn('{7001, u"Einstellungen f\\u00FCr %s\\\\ \\u6771"},', text)
        self.assertIn("kStrings0409[]", text)
        self.assertIn("kStrings0407[]", text)
        self.assertIn('extern "C" const int TestAnchor = 1;', text)
        self.assertIn("GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS", text)

    def test_without_language_the_table_is_english(self):
        result = self.compile('STRINGTABLE\nBEGIN\n 1 "one"\nEND\n')
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("{0x0409, kStrings0409", self.output())

    def refused(self, text, line, words):
        with open(self.out, "w") as f:
            f.write("stale")
        result = self.compile(text)
        self.assertEqual(result.returncode, 1)
        self.assertIn("in.rc:%d: error: " % line, result.stderr)
        self.assertIn(words, result.stderr)
        self.assertFalse(os.path.exists(self.out), "a failed run must leave no output")

    def test_bad_scripts_are_refused_with_their_line(self):
        self.refused('STRINGTABLE\nBEGIN\n 1 "one"\n 1 "again"\nEND\n', 4, "defined twice")
        self.refused('STRINGTABLE\nBEGIN\n 1 "open\nEND\n', 3, "unterminated string")
        self.refused('STRINGTABLE\nBEGIN\n 1 "one"\n', 3, "without END")
        self.refused('STRINGTABLE\nBEGIN\n IDS_X "one"\nEND\n', 3, "expected a string id")
        self.refused('STRINGTABLE\nBEGIN\n 70000 "big"\nEND\n', 3, "out of range")
        self.refused('STRINGTABLE\nBEGIN\n 5\nEND\n', 3, "has no text")
        self.refused('STRINGTABLE\nBEGIN\n 1 "bad \\q"\nEND\n', 3, "unknown escape")
        self.refused('DIALOG 100\n', 1, "unexpected")
        self.refused('LANGUAGE LANG_KLINGON, SUBLANG_DEFAULT\n', 1, "unknown language")
        self.refused('STRINGTABLE\n 1 "one"\nEND\n', 2, "needs BEGIN")
        self.refused('/* never closed\nSTRINGTABLE\n', 1, "unterminated comment")

    def test_bad_arguments(self):
        result = self.compile('STRINGTABLE\nBEGIN\nEND\n', anchor="not an identifier")
        self.assertEqual(result.returncode, 1)
        missing = subprocess.run([sys.executable, SCRIPT, os.path.join(self.dir.name, "none.rc"), self.out,
                                  "--anchor", "A"], capture_output=True, text=True)
        self.assertEqual(missing.returncode, 1)
        self.assertIn("error", missing.stderr)


if __name__ == "__main__":
    unittest.main()
