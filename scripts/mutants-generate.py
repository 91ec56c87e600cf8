#!/usr/bin/env python3
"""Writes one-line planted faults over the library's sources (src/lib), in the
format of scripts/mutants.list: id, file, text, replacement, tab-separated.

Kinds: cmp (a comparison or && / || swapped for its neighbour), arith (+ - * /
swapped), neg (an if or while condition negated), del (a call or assignment
statement removed), const (a numeric literal n made n + 1). Faults are taken
only from function bodies with a branch or arithmetic, never from comments,
string literals or logging, trace and assertion statements. Each file gets a
share of the faults in proportion to its lines in such bodies.

A fault's id is FILESTEM-KIND-HASH, the hash taken over the file, the line's
text and its replacement, so that an id survives edits elsewhere; which
faults a file gets is a ranking by a hash of the seed and the id. The text to
replace is the line itself, with as many lines before it as make it unique.

Usage: mutants-generate.py [--root DIR] [--count N] [--seed S]
                           [--sample N --sample-seed S] [--ids]
"""
import argparse
import hashlib
import os
import random
import re
import sys

SKIPPED_CALLS = re.compile(r"\b(LOG4CPLUS_\w+|QUIL_TRACE_ENTRY|Q_ASSERT\w*|Q_UNUSED|static_assert)\s*\(")
KEYWORDS = {"return", "break", "continue", "case", "default", "else", "goto", "delete", "throw",
            "const", "constexpr", "static", "auto", "using", "typedef"}
CMP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&"}
ARITH = {"+": "-", "-": "+", "*": "/", "/": "*", "+=": "-=", "-=": "+=", "*=": "/="}
KIND_ORDER = ["cmp", "neg", "del", "arith", "const"]


def sanitize(text):
    """Comments, preprocessor lines and literal contents blanked, columns and lines kept."""
    out = list(text)
    i, n = 0, len(text)
    at_line_start = True
    while i < n:
        c = text[i]
        if at_line_start and text[i:].lstrip(" \t").startswith("#"):
            # A preprocessor line, with its continuations.
            while i < n:
                if text[i] == "\n" and (i == 0 or text[i - 1] != "\\"):
                    break
                if text[i] != "\n":
                    out[i] = " "
                i += 1
            continue
        if c == "\n":
            at_line_start = True
            i += 1
            continue
        if not c.isspace():
            at_line_start = False
        if text.startswith("//", i):
            while i < n and text[i] != "\n":
                out[i] = " "
                i += 1
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            for j in range(i, end):
                if text[j] != "\n":
                    out[j] = " "
            i = end
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            for k in range(i + 1, min(j, n)):
                out[k] = "x"
            i = j + 1
        else:
            i += 1
    return "".join(out)


def function_bodies(clean):
    """(first line, last line) of every outermost function body, 0-based, exclusive of the braces."""
    bodies, stack = [], []   # stack of (kind, line)
    last_boundary = 0
    line = 0
    for i, c in enumerate(clean):
        if c == "\n":
            line += 1
        elif c == "{":
            header = clean[last_boundary:i]
            if any(kind == "func" for kind, _ in stack):
                kind = "inner"
            elif re.search(r"\b(namespace|extern)\b", header):
                kind = "ns"
            elif re.search(r"\b(class|struct|union|enum)\b", header) and "(" not in header:
                kind = "class"
            elif re.search(r"\)\s*((const|override|final|noexcept)\s*)*$", header) and "=" not in header.split("(")[0]:
                kind = "func"
            else:
                kind = "other"
            stack.append((kind, line))
            last_boundary = i + 1
        elif c == "}":
            if stack:
                kind, start = stack.pop()
                if kind == "func" and line > start + 1:
                    bodies.append((start + 1, line - 1))
            last_boundary = i + 1
        elif c == ";":
            last_boundary = i + 1
    return bodies


def skipped_lines(clean):
    """Lines inside a logging, trace or assertion call."""
    skipped = set()
    for m in SKIPPED_CALLS.finditer(clean):
        depth, j = 0, m.end() - 1
        while j < len(clean):
            if clean[j] == "(":
                depth += 1
            elif clean[j] == ")":
                depth -= 1
                if depth == 0:
                    break
            j += 1
        first = clean.count("\n", 0, m.start())
        skipped.update(range(first, clean.count("\n", 0, j) + 1))
    return skipped


def balanced(text):
    depth = 0
    for c in text:
        depth += c == "("
        depth -= c == ")"
        if depth < 0:
            return False
    return depth == 0


def condition_span(clean_line):
    """(start, end) of an if/while condition that opens and closes on this line."""
    m = re.match(r"^\s*(\}\s*else\s+)?(if|while)\s*\(", clean_line)
    if not m:
        return None
    depth, start = 0, m.end() - 1
    for j in range(start, len(clean_line)):
        depth += clean_line[j] == "("
        depth -= clean_line[j] == ")"
        if depth == 0:
            rest = clean_line[j + 1:].strip()
            return (start + 1, j) if rest in ("", "{") else None
    return None


def starts_statement(prev_clean):
    p = prev_clean.strip()
    return p == "" or p.endswith((";", "{", "}", "else")) or re.match(r"^(\}\s*else\s+)?(if|while|for)\b.*\)$", p)


def mutations(clean_line, line, prev_clean):
    """(kind, mutated line) for every fault this line admits."""
    found = []
    for m in re.finditer(r"(?<=\s)(<=|>=|==|!=|&&|\|\||<|>)(?=\s)", clean_line):
        found.append(("cmp", line[:m.start()] + CMP[m.group(1)] + line[m.end():]))
    # Not on lines with string literals: there + joins strings.
    for m in re.finditer(r"(?<=\s)(\+=|-=|\*=|\+|-|\*|/)(?=\s)", "" if '"' in clean_line else clean_line):
        found.append(("arith", line[:m.start()] + ARITH[m.group(1)] + line[m.end():]))
    span = condition_span(clean_line)
    if span:
        found.append(("neg", line[:span[0]] + "!(" + line[span[0]:span[1]] + ")" + line[span[1]:]))
    stripped = clean_line.strip()
    statement = re.match(r"^(\*?[A-Za-z_][\w:]*(?:(?:\.|->)\w+|\[[^\]]*\]|\(\))*)\s*(\(|[+\-*/|&]?=\s)", stripped)
    if (statement and stripped.endswith(";") and balanced(stripped) and starts_statement(prev_clean)
            and statement.group(1) not in KEYWORDS and not stripped.startswith("return")):
        indent = line[:len(line) - len(line.lstrip())]
        found.append(("del", indent + ";"))
    # Not a variable's initial literal, which the code nearly always overwrites.
    initial = re.match(r"^\s*[\w:<> ]+\s\w+ = [\d.uUlL]+;$", clean_line)
    for m in re.finditer(r"(?<![\w.])(\d+)(\.\d+)?([uUlL]*)(?![\w.])", "" if initial else clean_line):
        value = str(int(m.group(1)) + 1)
        found.append(("const", line[:m.start()] + value + (m.group(2) or "") + (m.group(3) or "") + line[m.end():]))
    return found


def weight(lines, bodies):
    return sum(1 for first, last in bodies for i in range(first, last + 1) if lines[i].strip())


def candidates(root, path):
    text = open(os.path.join(root, path)).read()
    clean = sanitize(text)
    lines, clean_lines = text.split("\n"), clean.split("\n")
    skipped = skipped_lines(clean)
    bodies = [b for b in function_bodies(clean)
              if re.search(r"\b(if|while|for|switch)\b|\?|\s[+\-*/%]\s|[+\-*/]=",
                           "\n".join(clean_lines[b[0]:b[1] + 1]))]
    found, seen = [], {}
    for first, last in bodies:
        for i in range(first, last + 1):
            if i in skipped or "\\" in lines[i] or "\t" in lines[i] or not clean_lines[i].strip():
                continue
            for kind, new in mutations(clean_lines[i], lines[i], clean_lines[i - 1] if i else ""):
                if new == lines[i]:
                    continue
                key = (kind, lines[i].strip(), new.strip())
                seen[key] = seen.get(key, 0) + 1
                digest = hashlib.sha1("|".join((path,) + key + (str(seen[key]),)).encode()).hexdigest()[:6]
                stem = os.path.splitext(os.path.basename(path))[0]
                old, new_text = unique_context(text, lines, i, new)
                if old is None:
                    continue
                found.append({"id": "%s-%s-%s" % (stem, kind, digest), "kind": kind, "line": i,
                              "file": path, "old": old, "new": new_text})
    return found, weight(lines, bodies)


def unique_context(text, lines, i, new):
    for before in range(0, 4):
        if i - before < 0:
            break
        old = "\n".join(lines[i - before:i + 1])
        if text.count(old) == 1:
            return old, "\n".join(lines[i - before:i] + [new])
    return None, None


def apportion(weights, total):
    """Largest remainder, at least one fault for every file that has any."""
    whole = sum(weights.values())
    share = {f: max(1, total * w // whole) for f, w in weights.items()}
    order = sorted(weights, key=lambda f: -((total * weights[f]) % whole))
    for f in order[:max(0, total - sum(share.values()))]:
        share[f] += 1
    return share


def select(found, quota, seed):
    by_kind = {k: sorted((c for c in found if c["kind"] == k),
                         key=lambda c: hashlib.sha1(("%s:%s" % (seed, c["id"])).encode()).hexdigest())
               for k in KIND_ORDER}
    chosen, used_lines = [], set()
    while len(chosen) < quota and any(by_kind.values()):
        for kind in KIND_ORDER:
            while by_kind[kind] and len(chosen) < quota:
                c = by_kind[kind].pop(0)
                if c["line"] not in used_lines:
                    used_lines.add(c["line"])
                    chosen.append(c)
                    break
    return sorted(chosen, key=lambda c: c["line"])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--root", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--seed", default="quil")
    parser.add_argument("--sample", type=int, default=0, help="only this many, drawn at random")
    parser.add_argument("--sample-seed", default="1")
    parser.add_argument("--ids", action="store_true", help="print ids and files only")
    args = parser.parse_args()

    paths = sorted(os.path.relpath(os.path.join(d, f), args.root)
                   for d, _, files in os.walk(os.path.join(args.root, "src/lib"))
                   for f in files if f.endswith((".cpp", ".h")))
    per_file, weights = {}, {}
    for path in paths:
        found, w = candidates(args.root, path)
        if found:
            per_file[path], weights[path] = found, w
    quota = apportion(weights, args.count)
    faults = [c for path in sorted(per_file) for c in select(per_file[path], quota[path], args.seed)]
    if args.sample:
        picked = set(id(c) for c in random.Random(args.sample_seed).sample(faults, min(args.sample, len(faults))))
        faults = [c for c in faults if id(c) in picked]
    print("# Generated by scripts/mutants-generate.py --count %d --seed %s%s" % (
        args.count, args.seed, " --sample %d --sample-seed %s" % (args.sample, args.sample_seed) if args.sample else ""))
    for c in faults:
        if args.ids:
            print("%s\t%s" % (c["id"], c["file"]))
        else:
            print("\t".join((c["id"], c["file"], c["old"].replace("\n", "\\n"), c["new"].replace("\n", "\\n"))))


if __name__ == "__main__":
    sys.exit(main())
