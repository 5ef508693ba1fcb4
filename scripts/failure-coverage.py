#!/usr/bin/env python3
"""Writes docs/failure-coverage.md: every entry point of the adaptor and every failure branch in
the module's sources, each with the tests that reach it.

A failure branch is one of:
  - an ERROR log line of the module (AD_TAVOR_ERROR), together with the accounting call that
    follows it (ox_mlx_count_alloc_failure, ox_mlx_count_vapi_failure[_no_ring],
    ox_mlx_count_vapi_error, ox_mlx_count_error);
  - an accounting call with no ERROR line before it.
Its kind is "alloc" (a failed allocation), "vapi" (a failed VAPI/EVAPI call, named when the call
is found just above the branch), "refused" (any other refusal) or "logged" (an ERROR line of an
error exit that counts nothing itself).

An accounting call with no ERROR line before it takes its message from a plain printk of the
lines just above (a refusal printed without the adaptor's prefix); and when it stands under a
label (a shared error exit), it is reached by the tests of every ERROR branch that jumps there.

A few branches cannot be reached by any input (EXCLUDED below, each with its reason); the table
shows them as excluded with the reason instead of tests.

A test reaches a failure branch when its body holds, in a string literal, the branch's message
(the longest piece of its format between conversions, at least six characters); when the message
is not unique in the module, the test must also name the branch's function. A test reaches an
entry point when its body names it (oxi_mlx_<verb>), calls the upper-layer shim for it
(ulp_<verb>), or calls a test helper that does (helpers are followed two levels deep).

Usage:
  scripts/failure-coverage.py            write docs/failure-coverage.md
  scripts/failure-coverage.py --check    compare the file with what would be written, list rows
                                         without a test or exclusion; exit 1 on either
  scripts/failure-coverage.py --check --report-only
                                         the same, but exit 0 (while entry points are landing)
Only the Python 3 standard library is used.
"""
import argparse
import os
import re
import sys

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
MODULE_DIR = "adaptor-tavor"
TEST_DIRS = ["tests", "tools/marlix"]
OUTPUT = "docs/failure-coverage.md"

COUNTERS = {
    "ox_mlx_count_alloc_failure": "alloc",
    "ox_mlx_count_vapi_failure": "vapi",
    "ox_mlx_count_vapi_failure_no_ring": "vapi",
    "ox_mlx_count_vapi_error": "vapi",
    "ox_mlx_count_error": "refused",
}
KIND_RANK = {"logged": 0, "refused": 1, "vapi": 2, "alloc": 3}

# Branches no input can reach: (source, function, a piece of the ERROR message, why). Each one is
# listed in the table with its reason; a branch is excluded only when the module's own code shows
# that its condition never holds.
EXCLUDED = [
    ("hca-close.cpp", "oxi_mlx_hca_close", "destroy async event elements",
     "ox_mlx_destroy_async_events only unlinks and frees the registrations and always returns "
     "ox_return_ok; the close cannot see it fail"),
    ("tavor-proc-generator.cpp", "proc_com_addcq", "alredy exist in array",
     "the proc source's own CQ selection array is never allocated, so \"comaddcq\" stops at "
     "\"Didn't find cq_h\" before the duplicate search, which could only match a CQ already selected"),
]
C_KEYWORDS = {"if", "for", "while", "switch", "return", "sizeof", "do", "else"}


def strip_comments(text):
    """Blanks out comments, keeping line breaks and string literals."""
    out, i, n = [], 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            out.append("".join(ch if ch == "\n" else " " for ch in text[i:j]))
            i = j
        elif text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            out.append(" " * (j - i))
            i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            out.append(text[i : j + 1])
            i = j + 1
        else:
            out.append(c)
            i += 1
    return "".join(out)


def matching_brace(text, open_pos):
    """Index of the brace closing the one at open_pos (string literals skipped)."""
    depth, i, n = 0, open_pos, len(text)
    while i < n:
        c = text[i]
        if c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            i = j + 1
            continue
        if c == "{":
            depth += 1
        elif c == "}":
            depth -= 1
            if depth == 0:
                return i
        i += 1
    return n - 1


FUNC_RE = re.compile(r"^[A-Za-z_][\w \t\*:<>&]*?\b([A-Za-z_]\w*)\s*\(([^;{}]*)\)\s*(?:const\s*)?\{", re.M)


def functions(text):
    """(name, body, line of the body's start) for every function definition at file scope."""
    out, pos = [], 0
    while True:
        m = FUNC_RE.search(text, pos)
        if not m:
            return out
        name = m.group(1)
        open_pos = m.end() - 1
        close = matching_brace(text, open_pos)
        if name not in C_KEYWORDS:
            out.append((name, text[open_pos : close + 1], text.count("\n", 0, open_pos) + 1))
        pos = close + 1


STRING_RE = re.compile(r'"((?:[^"\\\n]|\\.)*)"')


def literals(text):
    """The string literals of a text; adjacent literals ("a" "b", also across lines) are joined
    into one, as the compiler joins them, so a long message split over two lines still counts."""
    found, last_end = [], None
    for m in STRING_RE.finditer(text):
        if found and last_end is not None and text[last_end : m.start()].strip() == "":
            found[-1] += m.group(1)
        else:
            found.append(m.group(1))
        last_end = m.end()
    return found


def call_text(lines, i):
    """The text of a call that starts on lines[i], up to its closing parenthesis."""
    text, depth = "", 0
    for line in lines[i : i + 8]:
        text += line + "\n"
        depth = text.count("(") - text.count(")")
        if depth <= 0 and "(" in text:
            break
    return text


def message_of(call):
    """The format string of an AD_TAVOR_ERROR call (adjacent literals joined)."""
    m = re.search(r"AD_TAVOR_ERROR\s*\(\s*((?:\"(?:[^\"\\]|\\.)*\"\s*)+)", call)
    if not m:
        return ""
    return "".join(literals(m.group(1)))


def message_keys(message):
    """Pieces of a format between conversions, longest first, of at least six characters."""
    pieces = re.split(r"%[-+ #0]*\d*(?:\.\d+)?[hlLqzjt]*[diouxXcspfeEgG%]", message)
    pieces = [p.replace("\\n", "").strip() for p in pieces]
    return sorted((p for p in pieces if len(p) >= 6), key=len, reverse=True)


VAPI_CALL_RE = re.compile(r"\b(E?VAPI_[a-z]\w*)\s*\(")


LABEL_RE = re.compile(r"^\s*([A-Za-z_]\w*)\s*:\s*$")
GOTO_RE = re.compile(r"\bgoto\s+(\w+)\s*;")


def printk_message(lines, i):
    """The format of a plain printk on the three lines above lines[i], or ""."""
    for j in range(i - 1, max(-1, i - 4), -1):
        if "printk" in lines[j]:
            found = literals(call_text(lines, j))
            return found[0] if found else ""
    return ""


def label_above(lines, i, since=-1):
    """The label that a line directly follows (a shared exit) when it stands after line `since`,
    or ""."""
    for j in range(i - 1, max(since, i - 3), -1):
        m = LABEL_RE.match(lines[j])
        if m and m.group(1) != "default":
            return m.group(1)
    return ""


def branches_of(file, func, body, body_line):
    """Failure branches of one function, in source order."""
    lines = body.split("\n")
    rows, pending = [], None
    for i, line in enumerate(lines):
        if "AD_TAVOR_ERROR" in line:
            pending = {
                "file": file, "func": func, "line": body_line + i, "kind": "logged",
                "message": message_of(call_text(lines, i)), "call": "", "at": i, "goto": "",
            }
            rows.append(pending)
            continue
        m = GOTO_RE.search(line)
        if m and pending is not None and i - pending["at"] <= 8 and not pending["goto"]:
            pending["goto"] = m.group(1)
        m = re.search(r"\b(ox_mlx_count_\w+)\s*\(", line)
        if not m or m.group(1) not in COUNTERS:
            continue
        kind = COUNTERS[m.group(1)]
        if pending is not None and i - pending["at"] <= 8 and not label_above(lines, i, pending["at"]):
            row = pending
        else:
            row = {"file": file, "func": func, "line": body_line + i, "kind": "logged",
                   "message": printk_message(lines, i), "call": "", "at": i, "goto": "",
                   "exit": label_above(lines, i)}
            rows.append(row)
        if KIND_RANK[kind] > KIND_RANK[row["kind"]]:
            row["kind"] = kind
        pending = row
    for row in rows:
        # A shared exit is reached through the ERROR branches that jump to it.
        if row.get("exit"):
            row["via"] = [r for r in rows if r["goto"] == row["exit"]]
        above = "\n".join(lines[max(0, row["at"] - 12) : row["at"] + 1])
        if row["kind"] == "vapi":
            calls = VAPI_CALL_RE.findall(above)
            calls = [c for c in calls if c not in ("VAPI_OK",)]
            row["call"] = calls[-1] if calls else ""
        elif row["kind"] == "alloc" and "kmalloc" in above:
            row["call"] = "kmalloc"
    return rows


def read(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        return f.read()


def module_sources():
    d = os.path.join(ROOT, MODULE_DIR)
    return sorted(f for f in os.listdir(d) if f.endswith((".cpp", ".c")))


def scan_module():
    entry_points, rows, message_count = {}, [], {}
    for f in module_sources():
        text = strip_comments(read(os.path.join(ROOT, MODULE_DIR, f)))
        for name, body, line in functions(text):
            if name.startswith("oxi_mlx_"):
                entry_points[name] = f
            rows.extend(branches_of(f, name, body, line))
    for r in rows:
        keys = message_keys(r["message"])
        r["key"] = keys[0] if keys else ""
        message_count[r["key"]] = message_count.get(r["key"], 0) + 1
    for r in rows:
        r["unique"] = bool(r["key"]) and message_count[r["key"]] == 1
    return entry_points, rows


TEST_RE = re.compile(r"^\s*TEST(?:_F|_P)?\s*\(\s*(\w+)\s*,\s*(\w+)\s*\)\s*\{", re.M)
IDENT_RE = re.compile(r"\b[A-Za-z_]\w*\b")
MEMBER_RE = re.compile(r"^\s+(?:[\w:<>\*&]+\s+)*?[\*&]?(\w+)\s*\([^;{}()]*(?:\([^()]*\)[^;{}()]*)*\)\s*(?:const\s*)?(?:override\s*)?\{$")


def test_sources():
    out = []
    for d in TEST_DIRS:
        for base, _, files in os.walk(os.path.join(ROOT, d)):
            for f in files:
                if f.endswith((".cpp", ".hpp", ".c", ".h")):
                    out.append(os.path.join(base, f))
    return sorted(out)


def scan_tests():
    """Test bodies by name, and the identifiers each helper function of the test sources uses."""
    tests, helpers = [], {}
    for path in test_sources():
        text = strip_comments(read(path))
        rel = os.path.relpath(path, ROOT)
        spans = []
        for m in TEST_RE.finditer(text):
            close = matching_brace(text, m.end() - 1)
            body = text[m.end() - 1 : close + 1]
            tests.append({"name": m.group(1) + "." + m.group(2), "file": rel, "body": body,
                          "strings": literals(body), "idents": set(IDENT_RE.findall(body))})
            spans.append((m.start(), close))
        rest = text
        for start, end in reversed(spans):
            rest = rest[:start] + rest[end + 1 :]
        for name, body, _ in functions(rest):
            helpers.setdefault(name, set()).update(IDENT_RE.findall(body))
        # Member functions of fixtures are indented; find them too (one-line heads only).
        offset = 0
        for line in rest.split("\n"):
            m = MEMBER_RE.match(line) if line.endswith("{") and line[:1] in " \t" else None
            if m and m.group(1) not in C_KEYWORDS:
                open_pos = offset + len(line) - 1
                close = matching_brace(rest, open_pos)
                helpers.setdefault(m.group(1), set()).update(IDENT_RE.findall(rest[open_pos : close + 1]))
            offset += len(line) + 1
    return tests, helpers


def reach(idents, helpers, depth=2):
    seen = set(idents)
    frontier = set(idents)
    for _ in range(depth):
        nxt = set()
        for name in frontier:
            nxt |= helpers.get(name, set())
        nxt -= seen
        seen |= nxt
        frontier = nxt
    return seen


def slot_verbs():
    """Table slot member -> entry point, from the shim's use of the function table."""
    out = {}
    path = os.path.join(ROOT, "tests/headers/slot-names.h")
    if os.path.exists(path):
        for m in re.finditer(r"X\(\s*\d+\s*,\s*(\w+)\s*\)", read(path)):
            out["ox_" + m.group(1)] = "oxi_mlx_" + m.group(1)
    return out


def tests_for_entry_point(ep, tests, helpers, members):
    verb = ep[len("oxi_mlx_"):]
    names = {ep, "ulp_" + verb, "ox_" + verb}
    found = []
    for t in tests:
        if "reach" not in t:
            t["reach"] = reach(t["idents"], helpers)
        if t["reach"] & names or any(ep == s for s in t["strings"]):
            found.append(t["name"])
    return found


def tests_for_branch(row, tests):
    if row.get("via"):
        found = []
        for r in row["via"]:
            found += [t for t in tests_for_branch(r, tests) if t not in found]
        return found
    if not row["key"]:
        return []
    found = []
    for t in tests:
        if not any(row["key"] in s for s in t["strings"]):
            continue
        if not row["unique"] and row["func"] not in t["body"]:
            continue
        found.append(t["name"])
    return found


def md_escape(text):
    return text.replace("|", "\\|").replace("\\n", "")


def render():
    entry_points, rows = scan_module()
    tests, helpers = scan_tests()
    members = slot_verbs()
    out = [
        "# Failure coverage",
        "",
        "Generated by `scripts/failure-coverage.py` from the module's sources (`adaptor-tavor/`) and the",
        "test sources (`tests/`); do not edit by hand. `ctest -R failure_coverage` checks that this file",
        "is current and that every row has a test or a stated exclusion, and fails otherwise. How rows",
        "and tests are matched, and which branches are excluded and why: see the script.",
        "",
    ]
    ep_rows, missing = [], []
    for ep in sorted(entry_points):
        found = tests_for_entry_point(ep, tests, helpers, members)
        ep_rows.append((ep, entry_points[ep], found))
        if not found:
            missing.append("entry point " + ep)
    branch_rows, used = [], set()
    for r in rows:
        found = tests_for_branch(r, tests)
        reason = exclusion_of(r)
        if reason:
            used.add(reason)
        branch_rows.append((r, found, reason))
        if not found and not reason:
            missing.append("%s %s: %s branch \"%s\"" % (r["file"], r["func"], r["kind"], r["message"]))
    for e in EXCLUDED:
        if e[3] not in used:
            missing.append("exclusion that matches no branch: %s %s \"%s\"" % e[:3])
    covered_ep = sum(1 for _, _, f in ep_rows if f)
    covered_br = sum(1 for _, f, _ in branch_rows if f)
    excluded = sum(1 for _, f, reason in branch_rows if reason and not f)
    out += [
        "Entry points: %d, reached by a test: %d. Failure branches: %d, reached by a test: %d, "
        "excluded as unreachable: %d." % (len(ep_rows), covered_ep, len(branch_rows), covered_br, excluded),
        "",
        "## Entry points",
        "",
        "| entry point | source | tests that reach it |",
        "|---|---|---|",
    ]
    for ep, f, found in ep_rows:
        out.append("| `%s` | %s | %s |" % (ep, f, shorten(found)))
    out += [
        "",
        "## Failure branches",
        "",
        "| source | function | kind | call | ERROR message | tests that reach it |",
        "|---|---|---|---|---|---|",
    ]
    for r, found, reason in branch_rows:
        if r.get("via"):
            message = "(shared exit `%s:` of %d ERROR branches)" % (r["exit"], len(r["via"]))
        elif r["message"]:
            message = "\"%s\"" % md_escape(r["message"])
        else:
            message = "(none)"
        reached = shorten(found) if found or not reason else "excluded: " + md_escape(reason)
        out.append("| %s | `%s` | %s | %s | %s | %s |" % (
            r["file"], r["func"], r["kind"], ("`%s`" % r["call"]) if r["call"] else "", message, reached))
    out.append("")
    return "\n".join(out), missing


def exclusion_of(row):
    """The reason a branch is excluded, or ""."""
    for file, func, piece, reason in EXCLUDED:
        if row["file"] == file and row["func"] == func and piece in row["message"]:
            return reason
    return ""


def shorten(found, limit=3):
    if not found:
        return "**none**"
    shown = ", ".join(found[:limit])
    if len(found) > limit:
        shown += " (+%d)" % (len(found) - limit)
    return shown


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--check", action="store_true", help="compare instead of writing")
    ap.add_argument("--report-only", action="store_true",
                    help="with --check: print what is wrong but exit 0")
    ap.add_argument("--strict", action="store_true", help="accepted for older callers; checking is strict by default")
    ap.add_argument("--output", default=os.path.join(ROOT, OUTPUT))
    args = ap.parse_args()
    text, missing = render()
    if not args.check:
        with open(args.output, "w", encoding="utf-8") as f:
            f.write(text)
        print("failure-coverage: wrote %s (%d rows without a test)" % (os.path.relpath(args.output, ROOT), len(missing)))
        return 0
    problems = 0
    current = read(args.output) if os.path.exists(args.output) else ""
    if current != text:
        print("failure-coverage: %s is out of date; run scripts/failure-coverage.py" % OUTPUT)
        problems += 1
    if missing:
        print("failure-coverage: %d rows without a test:" % len(missing))
        for m in missing:
            print("  " + m)
        problems += 1
    if problems and args.report_only:
        print("failure-coverage: report only")
        return 0
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
