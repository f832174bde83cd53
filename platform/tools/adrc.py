#!/usr/bin/env python3
"""Resource compiler of the platform stand-in: string tables only.

Reads a resource script and writes a C++ source that, when the module holding it is loaded,
registers every STRINGTABLE with that module (adp::RegisterStringTable), so LoadStringW on the
module's HINSTANCE finds the strings. The source also defines an int with C linkage named by
--anchor, which the build asks the linker to keep so that the tables come along wherever the
static library holding them is linked.

Accepted script:
    // comment                      (also /* ... */ and preprocessor lines, which are ignored)
    LANGUAGE LANG_ENGLISH, SUBLANG_ENGLISH_US     (names below, or numbers)
    STRINGTABLE [LANGUAGE ...]
    BEGIN                           (or {)
        7000 "text"                 ("" is a quote; \\n \\t \\r \\\\ \\" \\0 are escapes)
        7001, "text" "more"         (adjacent strings join)
    END                             (or })

Anything else is an error: "<file>:<line>: error: <what>" on standard error, exit status 1, and
no output is left behind.
"""
import argparse
import os
import re
import sys

LANGS = {
    "LANG_NEUTRAL": 0x00, "LANG_ARABIC": 0x01, "LANG_CHINESE": 0x04, "LANG_CZECH": 0x05,
    "LANG_DANISH": 0x06, "LANG_GERMAN": 0x07, "LANG_GREEK": 0x08, "LANG_ENGLISH": 0x09,
    "LANG_SPANISH": 0x0A, "LANG_FINNISH": 0x0B, "LANG_FRENCH": 0x0C, "LANG_HEBREW": 0x0D,
    "LANG_HUNGARIAN": 0x0E, "LANG_ITALIAN": 0x10, "LANG_JAPANESE": 0x11, "LANG_KOREAN": 0x12,
    "LANG_DUTCH": 0x13, "LANG_NORWEGIAN": 0x14, "LANG_POLISH": 0x15, "LANG_PORTUGUESE": 0x16,
    "LANG_RUSSIAN": 0x19, "LANG_SWEDISH": 0x1D, "LANG_TURKISH": 0x1F,
}
SUBLANGS = {
    "SUBLANG_NEUTRAL": 0x00, "SUBLANG_DEFAULT": 0x01, "SUBLANG_SYS_DEFAULT": 0x02,
    "SUBLANG_ENGLISH_US": 0x01, "SUBLANG_ENGLISH_UK": 0x02, "SUBLANG_CHINESE_TRADITIONAL": 0x01,
    "SUBLANG_CHINESE_SIMPLIFIED": 0x02, "SUBLANG_GERMAN": 0x01, "SUBLANG_FRENCH": 0x01,
    "SUBLANG_SPANISH": 0x01, "SUBLANG_ITALIAN": 0x01, "SUBLANG_JAPANESE_JAPAN": 0x01,
    "SUBLANG_KOREAN": 0x01, "SUBLANG_DUTCH": 0x01, "SUBLANG_PORTUGUESE_BRAZILIAN": 0x01,
    "SUBLANG_PORTUGUESE": 0x02, "SUBLANG_RUSSIAN_RUSSIA": 0x01, "SUBLANG_SWEDISH": 0x01,
}
DEFAULT_LANGID = 0x0409
ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "\\": "\\", '"': '"', "0": "\0", "a": "\a"}


class RcError(Exception):
    def __init__(self, line, message):
        super().__init__(message)
        self.line = line


class Lexer:
    """Tokens: ('word', text), ('string', text), ('punct', ch), each with its line."""

    TOKEN = re.compile(r'\s+|//[^\n]*|/\*.*?\*/|"|[A-Za-z_][A-Za-z0-9_]*|0[xX][0-9A-Fa-f]+|\d+|[,{}]|.', re.S)

    def __init__(self, text):
        self.tokens = []
        self._scan(text)
        self.pos = 0

    def _scan(self, text):
        i, line = 0, 1
        at_line_start = True
        while i < len(text):
            if at_line_start and text[i] == "#":
                end = text.find("\n", i)
                i = len(text) if end < 0 else end
                continue
            m = self.TOKEN.match(text, i)
            tok = m.group(0)
            if tok.startswith("/*") and not tok.endswith("*/"):
                raise RcError(line, "unterminated comment")
            if tok == "/" and text.startswith("/*", i):
                raise RcError(line, "unterminated comment")
            if tok == '"':
                value, i, end_line = self._string(text, i + 1, line)
                self.tokens.append(("string", value, line))
                line = end_line
                at_line_start = False
                continue
            if tok.isspace() or tok.startswith("//") or tok.startswith("/*"):
                if "\n" in tok:
                    at_line_start = True
                line += tok.count("\n")
            elif tok[0].isalnum() or tok[0] == "_":
                self.tokens.append(("number" if tok[0].isdigit() else "word", tok, line))
                at_line_start = False
            elif tok in ",{}":
                self.tokens.append(("punct", tok, line))
                at_line_start = False
            else:
                raise RcError(line, "unexpected character %r" % tok)
            i = m.end()

    @staticmethod
    def _string(text, i, line):
        out = []
        while True:
            if i >= len(text) or text[i] == "\n":
                raise RcError(line, "unterminated string")
            ch = text[i]
            if ch == '"':
                if text.startswith('""', i):
                    out.append('"')
                    i += 2
                    continue
                return "".join(out), i + 1, line
            if ch == "\\":
                esc = text[i + 1] if i + 1 < len(text) else ""
                if esc not in ESCAPES:
                    raise RcError(line, "unknown escape \\%s in string" % esc)
                out.append(ESCAPES[esc])
                i += 2
                continue
            out.append(ch)
            i += 1

    def peek(self):
        return self.tokens[self.pos] if self.pos < len(self.tokens) else None

    def take(self):
        tok = self.peek()
        if tok is not None:
            self.pos += 1
        return tok

    def last_line(self):
        return self.tokens[-1][2] if self.tokens else 1


def number_or_name(tok, names, what):
    kind, text, line = tok
    if kind == "number":
        return int(text, 0)
    if kind == "word" and text in names:
        return names[text]
    raise RcError(line, "unknown %s %r" % (what, text))


def parse_language(lex, line):
    first = lex.take()
    if first is None:
        raise RcError(line, "LANGUAGE needs a language and a sublanguage")
    primary = number_or_name(first, LANGS, "language")
    comma = lex.take()
    if comma is None or comma[:2] != ("punct", ","):
        raise RcError(first[2], "LANGUAGE needs a language and a sublanguage")
    second = lex.take()
    if second is None:
        raise RcError(first[2], "LANGUAGE needs a language and a sublanguage")
    sub = number_or_name(second, SUBLANGS, "sublanguage")
    if primary > 0x3FF or sub > 0x3F:
        raise RcError(first[2], "language out of range")
    return (sub << 10) | primary


def parse_table(lex, start_line, lang, tables):
    if lex.peek() and lex.peek()[:2] == ("word", "LANGUAGE"):
        lex.take()
        lang = parse_language(lex, start_line)
    opener = lex.take()
    if opener is None or opener[1] not in ("BEGIN", "{"):
        raise RcError(opener[2] if opener else start_line, "STRINGTABLE needs BEGIN")
    table = tables.setdefault(lang, {})
    while True:
        tok = lex.take()
        if tok is None:
            raise RcError(lex.last_line(), "STRINGTABLE without END")
        if tok[1] in ("END", "}") and tok[0] != "string":
            return
        if tok[0] != "number":
            raise RcError(tok[2], "expected a string id, found %r" % tok[1])
        uid = int(tok[1], 0)
        if uid > 0xFFFF:
            raise RcError(tok[2], "string id %d out of range" % uid)
        if lex.peek() and lex.peek()[:2] == ("punct", ","):
            lex.take()
        parts = []
        while lex.peek() and lex.peek()[0] == "string":
            parts.append(lex.take()[1])
        if not parts:
            raise RcError(tok[2], "string id %d has no text" % uid)
        if uid in table:
            raise RcError(tok[2], "string id %d defined twice" % uid)
        table[uid] = "".join(parts)


def parse(text):
    lex = Lexer(text)
    tables = {}
    lang = DEFAULT_LANGID
    while True:
        tok = lex.take()
        if tok is None:
            break
        if tok[:2] == ("word", "LANGUAGE"):
            lang = parse_language(lex, tok[2])
        elif tok[:2] == ("word", "STRINGTABLE"):
            parse_table(lex, tok[2], lang, tables)
        else:
            raise RcError(tok[2], "unexpected %r" % tok[1])
    return tables


def cxx_literal(text):
    out = []
    for ch in text:
        code = ord(ch)
        if ch == "\\":
            out.append("\\\\")
        elif ch == '"':
            out.append('\\"')
        elif ch == "?":
            out.append("\\?")
        elif 0x20 <= code < 0x7F:
            out.append(ch)
        elif code <= 0xFFFF:
            out.append("\\u%04X" % code if code >= 0xA0 else "\\%03o" % code)
        else:
            out.append("\\U%08X" % code)
    return 'u"' + "".join(out) + '"'


def generate(tables, source_name, anchor):
    lines = [
        "// Generated by adrc.py from %s; edits are lost at the next build." % source_name,
        "#include <windows.h>",
        "#include <adplatform_ui.h>",
        "",
        '// Referenced by the link so that these tables come along wherever the library goes.',
        'extern "C" const int %s;' % anchor,
        'extern "C" const int %s = 1;' % anchor,
        "",
        "namespace {",
        "",
    ]
    for lang in sorted(tables):
        lines.append("const adp::StringResource kStrings%04X[] = {" % lang)
        for uid in sorted(tables[lang]):
            lines.append("    {%d, %s}," % (uid, cxx_literal(tables[lang][uid])))
        lines.append("};")
        lines.append("")
    lines += [
        "struct Table {",
        "  LANGID lang;",
        "  const adp::StringResource* entries;",
        "  size_t count;",
        "};",
        "",
        "const Table kTables[] = {",
    ]
    for lang in sorted(tables):
        lines.append("    {0x%04X, kStrings%04X, sizeof kStrings%04X / sizeof kStrings%04X[0]}," % (lang, lang, lang, lang))
    if not tables:
        lines.append("    {0, nullptr, 0},")
    lines += [
        "};",
        "",
        "// The module whose image holds these tables: the one LoadStringW is asked about.",
        "HMODULE ThisModule() {",
        "  HMODULE hModule = NULL;",
        "  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,",
        "                     reinterpret_cast<LPCSTR>(&kTables), &hModule);",
        "  return hModule;",
        "}",
        "",
        "struct Registration {",
        "  HMODULE hModule;",
        "  Registration() : hModule(ThisModule()) {",
        "    for (const Table& table : kTables) adp::RegisterStringTable(hModule, table.lang, table.entries, table.count);",
        "  }",
        "  ~Registration() { adp::UnregisterStringTables(hModule); }",
        "} g_registration;",
        "",
        "}  // namespace",
        "",
    ]
    return "\n".join(lines)


def main(argv):
    ap = argparse.ArgumentParser(description="Compiles the string tables of a resource script to C++.")
    ap.add_argument("input")
    ap.add_argument("output")
    ap.add_argument("--anchor", required=True, help="C name of the int that keeps the tables linked")
    args = ap.parse_args(argv)
    if not re.fullmatch(r"[A-Za-z_][A-Za-z0-9_]*", args.anchor):
        print("adrc: error: --anchor must be a C identifier", file=sys.stderr)
        return 1
    try:
        with open(args.input, encoding="utf-8-sig") as f:
            text = f.read()
    except (OSError, UnicodeDecodeError) as e:
        print("%s: error: %s" % (args.input, e), file=sys.stderr)
        return 1
    try:
        tables = parse(text)
    except RcError as e:
        print("%s:%d: error: %s" % (args.input, e.line, e), file=sys.stderr)
        if os.path.exists(args.output):
            os.remove(args.output)
        return 1
    temp = args.output + ".tmp"
    with open(temp, "w", encoding="utf-8") as f:
        f.write(generate(tables, os.path.basename(args.input), args.anchor))
    os.replace(temp, args.output)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
