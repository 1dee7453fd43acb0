#!/usr/bin/python3
"""Mutation run over the daemon's sources (started by scripts/mutation.sh, see its header).

Works on a copy of the project's sources (<build>/tree) built with Ninja in <build>/build:
the work tree's src/ is only ever read. For each mutant of the seeded sample: write it into
the copy, rebuild the objects (only the mutated file and the one restored from the mutant
before recompile), compare them with the unmutated build, relink the test programs, and run
those whose binary changed, stopping at the first failing test.
"""

import argparse
import difflib
import fcntl
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

# ---------------------------------------------------------------------------------------
# Mutant generation
# ---------------------------------------------------------------------------------------

# Top-level entries of the project that the build of the unit tests reads.
TREE_ENTRIES = ("CMakeLists.txt", "cmake", "src", "tools", "tests", "platform", "docs")

# Statements never mutated, whatever they contain: the debug log, the hex dumps made for
# it and console output (their format strings and arguments are text for a reader, not
# behaviour), and compile-time assertions.
SKIPPED_CALLS = ("TLOG", "TLOG_ERR", "DebugLog", "DebugErrorLog", "HexDumpBytes", "printf",
                 "fprintf", "static_assert")

KEYWORDS = {
    "alignas", "alignof", "auto", "bool", "break", "case", "catch", "char", "class", "const",
    "constexpr", "continue", "default", "delete", "do", "double", "else", "enum", "explicit",
    "extern", "false", "float", "for", "goto", "if", "inline", "int", "long", "namespace",
    "new", "noexcept", "nullptr", "operator", "private", "protected", "public", "return",
    "short", "signed", "sizeof", "static", "static_cast", "struct", "switch", "template",
    "this", "throw", "true", "typedef", "typename", "union", "unsigned", "using", "virtual",
    "void", "volatile", "while", "reinterpret_cast", "const_cast", "decltype",
}

PUNCTUATORS = sorted(
    ["<<=", ">>=", "->", "::", "<<", ">>", "<=", ">=", "==", "!=", "&&", "||", "++", "--",
     "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^="],
    key=len, reverse=True)

RELATIONAL = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
LOGICAL = {"&&": "||", "||": "&&"}

INT_LITERAL = re.compile(r"(0[xX][0-9a-fA-F]+|[1-9][0-9]*|0)([uUlL]*)$")
ARRAY_DECLARATION = re.compile(
    r"^\s*((static|const|constexpr|unsigned|signed|struct|thread_local)\s+)*"
    r"[A-Za-z_][\w:]*\s+\**\s*[A-Za-z_]\w*\s*\[")


def code_mask(text):
    """One flag per character: True where the character is code, False inside comments,
    string and character literals, and preprocessor lines (with their continuations)."""
    mask = [True] * len(text)
    i, n = 0, len(text)
    at_line_start = True
    while i < n:
        c = text[i]
        if at_line_start and c in " \t":
            i += 1
            continue
        if at_line_start and c == "#":
            # Preprocessor directive up to the end of its last continued line.
            j = i
            while j < n:
                if text[j] == "\n" and (j == 0 or text[j - 1] != "\\"):
                    break
                j += 1
            for k in range(i, j):
                mask[k] = False
            i = j
            continue
        at_line_start = False
        if c == "\n":
            at_line_start = True
            i += 1
        elif text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            for k in range(i, j):
                mask[k] = False
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            for k in range(i, j):
                if text[k] != "\n":
                    mask[k] = False
            i = j
        elif c in "\"'":
            # A ' between digits is a digit separator; none are used in src/.
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            for k in range(i, j):
                mask[k] = False
            i = j
        else:
            i += 1
    return mask


def tokenize(text, mask):
    """Tokens of the code characters: (kind, value, start offset). Kinds: id, num, punct."""
    tokens = []
    i, n = 0, len(text)
    while i < n:
        if not mask[i] or text[i].isspace():
            i += 1
            continue
        c = text[i]
        if c.isalpha() or c == "_":
            j = i
            while j < n and mask[j] and (text[j].isalnum() or text[j] == "_"):
                j += 1
            tokens.append(("id", text[i:j], i))
            i = j
        elif c.isdigit():
            j = i
            while j < n and mask[j] and (text[j].isalnum() or text[j] in "._'"):
                j += 1
            tokens.append(("num", text[i:j], i))
            i = j
        else:
            for p in PUNCTUATORS:
                if text.startswith(p, i):
                    tokens.append(("punct", p, i))
                    i += len(p)
                    break
            else:
                tokens.append(("punct", c, i))
                i += 1
    return tokens


def matching_close(tokens, k):
    """Index of the token closing the bracket opened at tokens[k], or None."""
    pairs = {"(": ")", "[": "]", "{": "}"}
    opener = tokens[k][1]
    closer = pairs[opener]
    depth = 0
    for m in range(k, len(tokens)):
        v = tokens[m][1]
        if v == opener:
            depth += 1
        elif v == closer:
            depth -= 1
            if depth == 0:
                return m
    return None


def statement_end(tokens, k):
    """Index of the ';' ending the statement that starts at tokens[k] (brackets balanced)."""
    depth = 0
    for m in range(k, len(tokens)):
        v = tokens[m][1]
        if v in "([{":
            depth += 1
        elif v in ")]}":
            depth -= 1
            if depth < 0:
                return None
        elif v == ";" and depth == 0:
            return m
    return None


def line_of(line_starts, offset):
    lo, hi = 0, len(line_starts) - 1
    while lo < hi:
        mid = (lo + hi + 1) // 2
        if line_starts[mid] <= offset:
            lo = mid
        else:
            hi = mid - 1
    return lo + 1


def skipped_lines(text, tokens, line_starts):
    """Lines of statements that are never mutated (SKIPPED_CALLS), 1-based."""
    skipped = set()
    for k, (kind, value, start) in enumerate(tokens):
        if kind != "id" or value not in SKIPPED_CALLS:
            continue
        if k + 1 >= len(tokens) or tokens[k + 1][1] != "(":
            continue
        close = matching_close(tokens, k + 1)
        end = tokens[close][2] if close is not None else start
        for line in range(line_of(line_starts, start), line_of(line_starts, end) + 1):
            skipped.add(line)
    return skipped


def spaced(text, start, length):
    """True when the operator at text[start:start+length] has white space on both sides (the
    formatting the build enforces puts spaces around binary operators and none inside a
    template's angle brackets)."""
    before = text[start - 1] if start > 0 else "\n"
    after = text[start + length] if start + length < len(text) else "\n"
    return before.isspace() and after.isspace()


def literal_plus(value, delta):
    """The integer literal value + delta in the same base and suffix, or None."""
    m = INT_LITERAL.match(value)
    if not m:
        return None
    digits, suffix = m.group(1), m.group(2)
    if digits.lower().startswith("0x"):
        number = int(digits, 16) + delta
        if number < 0:
            return None
        hex_digits = digits[2:]
        new = format(number, "X" if hex_digits.upper() == hex_digits else "x")
        return digits[:2] + new.rjust(len(hex_digits), "0") + suffix
    number = int(digits) + delta
    if number < 0:
        return None
    return str(number) + suffix


def function_returns_bool(lines, line_no, return_col):
    """Whether the function around the return statement on line line_no returns bool: the
    header is either on the same line before 'return' or the last line above that starts
    in column 0 with a name and an opening parenthesis."""
    head = lines[line_no - 1][:return_col]
    if re.search(r"\bbool\s+[A-Za-z_][\w:]*\s*\(", head):
        return True
    for k in range(line_no - 2, -1, -1):
        text = lines[k]
        if not text or text[0] in " \t}#/{":
            continue
        if re.match(r"(namespace|struct|class|enum|template|union)\b", text):
            return False
        if "(" in text:
            return re.match(r"((static|inline|constexpr)\s+)*bool\s", text) is not None
    return False


def mutants_of_file(rel_path, text):
    """Every mutant of one source file, in order: dicts with file, line, col, op, old, new,
    edits (list of (start, end, replacement) on the text)."""
    mask = code_mask(text)
    tokens = tokenize(text, mask)
    lines = text.split("\n")
    line_starts = [0]
    for i, c in enumerate(text):
        if c == "\n":
            line_starts.append(i + 1)
    skipped = skipped_lines(text, tokens, line_starts)
    found = []

    def add(op, start, old, new, edits):
        line = line_of(line_starts, start)
        if line in skipped:
            return
        found.append({"file": rel_path, "line": line, "col": start - line_starts[line - 1] + 1,
                      "op": op, "old": old, "new": new, "edits": edits})

    for k, (kind, value, start) in enumerate(tokens):
        prev = tokens[k - 1][1] if k > 0 else ""
        # Comparison and logical operators.
        if kind == "punct" and value in RELATIONAL and prev != "operator":
            if value in ("==", "!=") or spaced(text, start, len(value)):
                add("relational", start, value, RELATIONAL[value],
                    [(start, start + len(value), RELATIONAL[value])])
        elif kind == "punct" and value in LOGICAL and spaced(text, start, len(value)):
            add("logical", start, value, LOGICAL[value],
                [(start, start + len(value), LOGICAL[value])])
        # Integer constants changed by one, up or down as a hash of the place decides (0 goes
        # up), so that each literal is one candidate; not the size of an array declaration.
        elif kind == "num":
            line = line_of(line_starts, start)
            if prev == "[" and ARRAY_DECLARATION.match(lines[line - 1]):
                continue
            place = "%s:%d" % (rel_path, start)
            delta = 1 if hashlib.sha256(place.encode()).digest()[0] & 1 else -1
            new = literal_plus(value, delta) or literal_plus(value, -delta)
            if new is not None:
                add("constant", start, value, new, [(start, start + len(value), new)])
        # Return values: true and false swapped, any other value of a bool function negated.
        elif kind == "id" and value == "return":
            end = statement_end(tokens, k)
            if end is None or end == k + 1:
                continue
            first, last = tokens[k + 1], tokens[end - 1]
            expr_start, expr_end = first[2], last[2] + len(last[1])
            expr = text[expr_start:expr_end]
            if end == k + 2 and first[1] in ("true", "false"):
                new = "false" if first[1] == "true" else "true"
                add("return", start, "return " + expr, "return " + new,
                    [(expr_start, expr_end, new)])
            else:
                line = line_of(line_starts, start)
                col = start - line_starts[line - 1]
                if function_returns_bool(lines, line, col):
                    shown = " ".join(expr.split())
                    shown = shown if len(shown) <= 40 else shown[:37] + "..."
                    add("return", start, "return " + shown,
                        "return !(...)", [(expr_start, expr_start, "!("), (expr_end, expr_end, ")")])
        # Call statements removed: a statement that is only a call (optionally cast to
        # void), starting its line, replaced by an empty block so that an unbraced if or
        # loop around it keeps its shape.
        elif kind == "id" or (kind == "punct" and value == "("):
            line = line_of(line_starts, start)
            if text[line_starts[line - 1]:start].strip():
                continue
            m = k
            if value == "(":
                if k + 2 >= len(tokens) or tokens[k + 1][1] != "void" or tokens[k + 2][1] != ")":
                    continue
                m = k + 3
            # name ((:: | . | ->) name)* (
            if m >= len(tokens) or tokens[m][0] != "id" or tokens[m][1] in KEYWORDS:
                continue
            if tokens[m][1] in SKIPPED_CALLS:
                continue
            while m + 2 < len(tokens) and tokens[m + 1][1] in ("::", ".", "->") and \
                    tokens[m + 2][0] == "id":
                m += 2
            if m + 1 >= len(tokens) or tokens[m + 1][1] != "(":
                continue
            close = matching_close(tokens, m + 1)
            if close is None or close + 1 >= len(tokens) or tokens[close + 1][1] != ";":
                continue
            stmt_end = tokens[close + 1][2] + 1
            name = "".join(t[1] for t in tokens[k:m + 1])
            add("call", start, name + "(...);", "{}", [(start, stmt_end, "{}")])
    return found


def apply_edits(text, edits):
    for start, end, replacement in sorted(edits, key=lambda e: e[0], reverse=True):
        text = text[:start] + replacement + text[end:]
    return text


def describe(m):
    return "%s:%d:%d %s '%s' -> '%s'" % (m["file"], m["line"], m["col"], m["op"], m["old"],
                                          m["new"])


def source_files(tree, folders):
    files = []
    for root, _dirs, names in os.walk(os.path.join(tree, "src")):
        for name in names:
            if name.endswith((".cpp", ".h")):
                files.append(os.path.relpath(os.path.join(root, name), tree))
    files.sort()
    if folders:
        keep = tuple(("src/" + f.strip("/").removeprefix("src/") + "/") for f in folders)
        files = [f for f in files if f.startswith(keep)]
    return files


SAMPLE_BLOCK = 50


def sample_mutants(tree, folders, seed, size):
    candidates = []
    for rel in source_files(tree, folders):
        with open(os.path.join(tree, rel), encoding="utf-8") as f:
            candidates.extend(mutants_of_file(rel, f.read()))
    rng = random.Random(seed)
    picks = rng.sample(range(len(candidates)), min(size, len(candidates)))
    # Built in file order within blocks of SAMPLE_BLOCK picks: consecutive mutants of one
    # file share their recompiles, and a larger sample of the same seed begins with the
    # whole of a smaller one whose size is a multiple of SAMPLE_BLOCK.
    chosen = []
    for b in range(0, len(picks), SAMPLE_BLOCK):
        chosen.extend(sorted(picks[b:b + SAMPLE_BLOCK]))
    sample = [candidates[i] for i in chosen]
    digest = hashlib.sha256("\n".join(describe(m) for m in sample).encode()).hexdigest()[:16]
    return candidates, sample, digest


# ---------------------------------------------------------------------------------------
# The copy of the sources and its build
# ---------------------------------------------------------------------------------------

def log(msg):
    print("mutation: " + msg, flush=True)


def run(cmd, cwd=None, log_file=None):
    out = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, errors="replace")
    if log_file:
        with open(log_file, "a") as f:
            f.write("$ " + " ".join(cmd) + "\n" + out.stdout)
    return out.returncode, out.stdout


def sync_tree(repo, tree):
    """Makes <tree> hold the work tree's tracked and untracked (not ignored) files of
    TREE_ENTRIES. Files whose content is already the same keep their time stamps, so the
    build stays incremental; anything a killed run left mutated is put back."""
    listed = subprocess.run(
        ["git", "ls-files", "-z", "-c", "-o", "--exclude-standard", "--"] + list(TREE_ENTRIES),
        cwd=repo, stdout=subprocess.PIPE, check=True).stdout.decode().split("\0")
    wanted = {p for p in listed if p and os.path.isfile(os.path.join(repo, p))}
    for rel in wanted:
        src, dst = os.path.join(repo, rel), os.path.join(tree, rel)
        with open(src, "rb") as f:
            data = f.read()
        if os.path.isfile(dst):
            with open(dst, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        shutil.copy2(src, dst)
    for entry in TREE_ENTRIES:
        top = os.path.join(tree, entry)
        if os.path.isfile(top) and entry not in wanted:
            os.remove(top)
        for root, _dirs, names in os.walk(top):
            for name in names:
                rel = os.path.relpath(os.path.join(root, name), tree)
                if rel not in wanted:
                    os.remove(os.path.join(root, name))


def configure(tree, build, jobs):
    if os.path.isfile(os.path.join(build, "build.ninja")):
        return
    # The project's own build type without debug information: identical code then gives
    # identical objects, which is how mutants that change no code are recognised. Warnings
    # stay errors, except GCC's advice to parenthesise && inside ||, which nearly every
    # swapped logical operator would otherwise trip.
    rc, out = run(["cmake", "-G", "Ninja", "-S", tree, "-B", build,
                   "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                   "-DCMAKE_CXX_FLAGS=-Wno-parentheses",
                   "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG",
                   "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld",
                   "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"])
    if rc != 0:
        sys.exit("mutation: cmake failed:\n" + out)


def object_targets(build):
    """The objects of the compile commands that the build of the test programs made."""
    with open(os.path.join(build, "compile_commands.json")) as f:
        entries = json.load(f)
    objects = set()
    for e in entries:
        m = re.search(r" -o (\S+)", e["command"])
        if m and os.path.isfile(os.path.join(build, m.group(1))):
            objects.add(m.group(1))
    return sorted(objects)


def test_programs(tree):
    """(ninja target, path in the build, source folder it tests) of each unit test program,
    and the daemon the process tests start."""
    programs = []
    for folder in sorted(os.listdir(os.path.join(tree, "tests"))):
        d = os.path.join(tree, "tests", folder)
        if os.path.isdir(d) and any(n.endswith("_test.cpp") for n in os.listdir(d)):
            programs.append(folder + "_tests")
    return programs


def file_hash(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def hashes(build, paths):
    return {p: file_hash(os.path.join(build, p)) for p in paths}


def kill_leftovers(build):
    """Ends processes still running a program of this build (daemons or test children that
    outlived a test program killed at its time limit). Only this run starts them."""
    prefix = os.path.realpath(build) + os.sep
    for pid in os.listdir("/proc"):
        if not pid.isdigit() or int(pid) == os.getpid():
            continue
        try:
            exe = os.readlink("/proc/%s/exe" % pid)
        except OSError:
            continue
        if exe.startswith(prefix):
            try:
                os.kill(int(pid), signal.SIGKILL)
            except OSError:
                pass


def run_program(build, program, extra, limit, log_file):
    """Runs one test program from the tests' working directory. Returns (status, failed
    test names, seconds) with status 'pass', 'fail' or 'timeout'."""
    cmd = [os.path.join(build, "tests", program), "--gtest_fail_fast", "--gtest_brief=1"]
    cmd += extra
    started = time.monotonic()
    proc = subprocess.Popen(cmd, cwd=os.path.join(build, "tests"), stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, start_new_session=True)
    try:
        out, _ = proc.communicate(timeout=limit)
        status = "pass" if proc.returncode == 0 else "fail"
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        out, _ = proc.communicate()
        status = "timeout"
    finally:
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except OSError:
            pass
        kill_leftovers(build)
    seconds = time.monotonic() - started
    text = out.decode(errors="replace")
    with open(log_file, "a") as f:
        f.write("$ %s  [%s, %.1f s]\n%s" % (" ".join(cmd), status, seconds, text[-20000:]))
    # The daemon's log may leave a time prefix without a line end before GoogleTest's lines.
    failed = re.findall(r"\[  FAILED  \] ([A-Za-z_][\w/]*\.[\w/]+)", text)
    if status == "fail" and not failed:
        failed = ["(exit status %d)" % proc.returncode]
    return status, failed, seconds


def judge_program(build, program, limit, log_file):
    """Runs a test program the way the test command does: a failing test is run once more
    on its own, and counts only if it fails again (a timing test may miss its bound on a
    loaded machine). Returns ('pass' | 'killed' | 'timeout', detail)."""
    excluded = []
    for _attempt in range(3):
        extra = ["--gtest_filter=-" + ":".join(excluded)] if excluded else []
        status, failed, _ = run_program(build, program, extra, limit, log_file)
        if status == "pass":
            return "pass", ""
        if status == "timeout":
            # Once more with twice the time: a test that loops fails again.
            status, failed, _ = run_program(build, program, extra, 2 * limit, log_file)
            if status == "timeout":
                return "timeout", program
            if status == "pass":
                return "pass", ""
        name = failed[0]
        if name.startswith("("):
            return "killed", "%s %s" % (program, name)
        again, _, _ = run_program(build, program, ["--gtest_filter=" + name], limit, log_file)
        if again == "fail":
            return "killed", "%s %s" % (program, name)
        if again == "timeout":
            return "timeout", "%s %s" % (program, name)
        excluded.append(name)
    return "pass", "flaky: " + ", ".join(excluded)


# ---------------------------------------------------------------------------------------
# The run
# ---------------------------------------------------------------------------------------

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Interrupted(Exception):
    pass


def on_signal(signum, _frame):
    raise Interrupted("signal %d" % signum)


def mtimes(build, paths):
    result = {}
    for p in paths:
        try:
            result[p] = os.stat(os.path.join(build, p)).st_mtime_ns
        except FileNotFoundError:
            result[p] = None
    return result


def save_objects(build, objects, store):
    """Keeps a copy of every unmutated object with its time stamp."""
    for o in objects:
        dst = os.path.join(store, o)
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        shutil.copy2(os.path.join(build, o), dst)


def restore_objects(build, baseline, store):
    """Puts back the unmutated objects a mutant's build replaced, with their old time stamps
    (the restored source got its old time stamp back too), so that the next build does not
    compile them again; the libraries and programs linked from the mutant are removed."""
    current = mtimes(build, list(baseline["mtimes"]))
    for path, stamp in baseline["mtimes"].items():
        if current[path] == stamp:
            continue
        full = os.path.join(build, path)
        if path in baseline["objects"]:
            shutil.copyfile(os.path.join(store, path), full)
            os.utime(full, ns=(stamp, stamp))
        elif current[path] is not None:
            os.remove(full)


def build_baseline(build, programs, jobs, out_dir):
    """Builds the unmutated copy, records its object and program hashes and the run time of
    each test program; every program must pass."""
    started = time.monotonic()
    log_file = os.path.join(out_dir, "baseline.log")
    open(log_file, "w").close()
    targets = programs + ["TavrineD_testdata"]
    rc, out = run(["ninja", "-j", str(jobs)] + targets, cwd=build, log_file=log_file)
    if rc != 0:
        sys.exit("mutation: the unmutated sources do not build (see %s)" % log_file)
    objects = object_targets(build)
    binaries = ["tests/" + p for p in programs] + ["tests/TavrineD_testdata"]
    libraries = []
    for root, _dirs, names in os.walk(build):
        libraries += [os.path.relpath(os.path.join(root, n), build) for n in names
                      if n.endswith(".a")]
    baseline = {"objects": hashes(build, objects), "binaries": hashes(build, binaries),
                "mtimes": mtimes(build, objects + binaries + sorted(libraries)),
                "seconds": {}}
    for program in programs:
        status, _, seconds = run_program(build, program, [], 600, log_file)
        if status != "pass":
            verdict, detail = judge_program(build, program, 600, log_file)
            if verdict != "pass" or detail:
                sys.exit("mutation: %s fails without any mutant (%s; see %s)"
                         % (program, detail or verdict, log_file))
            # The time of a clean pass, for the per-program limit.
            _, _, seconds = run_program(build, program, [], 600, log_file)
        baseline["seconds"][program] = round(seconds, 2)
        log("baseline %-16s %6.1f s" % (program, seconds))
    baseline["baseline_seconds"] = round(time.monotonic() - started, 1)
    return baseline


def restore_build(build, jobs, programs, baseline, store, log_file):
    """Rebuilds the unmutated copy and checks it matches the recorded baseline."""
    rc, _ = run(["ninja", "-j", str(jobs)] + programs + ["TavrineD_testdata"], cwd=build,
                log_file=log_file)
    if rc != 0 or hashes(build, list(baseline["objects"])) != baseline["objects"]:
        return False
    # Time stamps as they are now, and copies that carry them.
    baseline["mtimes"] = mtimes(build, list(baseline["mtimes"]))
    save_objects(build, list(baseline["objects"]), store)
    return True


def test_mutant(m, build, jobs, programs, baseline, log_file):
    """Builds and tests the mutant already written into the copy. Returns (verdict, detail)."""
    objects = list(baseline["objects"])
    rc, _ = run(["ninja", "-j", str(jobs)] + objects, cwd=build, log_file=log_file)
    if rc != 0:
        return "not-compiled", "compile error"
    changed = [o for o, h in hashes(build, objects).items() if h != baseline["objects"][o]]
    if not changed:
        return "equivalent", "same object code"
    rc, _ = run(["ninja", "-j", str(jobs)] + programs + ["TavrineD_testdata"], cwd=build,
                log_file=log_file)
    if rc != 0:
        return "not-compiled", "link error"
    binaries = hashes(build, list(baseline["binaries"]))
    to_run = [p for p in programs if binaries["tests/" + p] != baseline["binaries"]["tests/" + p]]
    if "process_tests" in programs and "process_tests" not in to_run and \
            binaries["tests/TavrineD_testdata"] != baseline["binaries"]["tests/TavrineD_testdata"]:
        to_run.append("process_tests")
    if not to_run:
        return "equivalent", "no test program changed"
    # The tests of the mutated folder first, then the quickest programs.
    folder = m["file"].split("/")[1] + "_tests"
    to_run.sort(key=lambda p: (p != folder, baseline["seconds"][p]))
    flaky = []
    for program in to_run:
        limit = max(30.0, 5 * baseline["seconds"][program])
        verdict, detail = judge_program(build, program, limit, log_file)
        if verdict != "pass":
            return verdict, detail
        if detail:
            flaky.append("%s %s" % (program, detail))
    return "survived", "ran " + " ".join(to_run) + "".join("; " + f for f in flaky)


def in_folders(m, only):
    """True when mutant m is in one of the src/ folders of only (all when only is empty)."""
    return not only or any(m["file"].startswith("src/%s/" % f) for f in only)


def summarise(sample, baseline, out_dir, wall, load_start, record=True, only=()):
    """Prints the counts of the sample's mutants in the folders of only (all when empty); a
    run (record) also gives its wall time and load and keeps the text in summary.txt."""
    counts = {"killed": 0, "timeout": 0, "survived": 0, "not-compiled": 0, "equivalent": 0}
    seconds = 0.0
    survivors = []
    for i, m in enumerate(sample, 1):
        path = os.path.join(out_dir, "%03d" % i, "verdict")
        if not in_folders(m, only) or not os.path.isfile(path):
            continue
        with open(path) as f:
            v = json.load(f)
        counts[v["verdict"]] += 1
        seconds += v["seconds"]
        if v["verdict"] == "survived":
            survivors.append("%03d %s" % (i, describe(m)))
    done = sum(counts.values())
    judged = counts["killed"] + counts["timeout"] + counts["survived"]
    lines = ["mutants: %d of %d judged" % (done, len(sample))]
    lines += ["  %-13s %d" % (k + ":", v) for k, v in counts.items()]
    if judged:
        lines.append("kill share: %.1f %% (%d of %d compiled mutants that change the code; "
                     "timeouts count as killed)"
                     % (100.0 * (counts["killed"] + counts["timeout"]) / judged,
                        counts["killed"] + counts["timeout"], judged))
    unmutated = ("%.0f s unmutated build and tests, " % baseline["baseline_seconds"]
                 if "baseline_seconds" in baseline else "")
    lines.append("time: %s%.0f s mutant builds and tests (all runs into this folder)"
                 % (unmutated, seconds) + ("; this run %.0f s wall" % wall if record else ""))
    if record:
        with open("/proc/loadavg") as f:
            lines.append("load average (1/5/15 min): at start %s, at end %s"
                         % (load_start, " ".join(f.read().split()[:3])))
    lines.append("survivors:")
    lines += ["  " + s for s in survivors] or ["  (none)"]
    text = "\n".join(lines) + "\n"
    if record and os.path.isdir(out_dir):
        with open(os.path.join(out_dir, "summary.txt"), "w") as f:
            f.write(text)
    print(text, end="")


def main():
    p = argparse.ArgumentParser(prog="scripts/mutation.sh", description=__doc__)
    p.add_argument("--seed", type=int, default=1)
    p.add_argument("--size", type=int, default=150)
    p.add_argument("--folders", default="", help="comma-separated src/ folders, e.g. touch,config")
    p.add_argument("--only", default="",
                   help="comma-separated src/ folders: judge (and summarise) only the sample's "
                        "mutants in them; the sample itself is drawn as without it")
    p.add_argument("--out", default="")
    p.add_argument("--build", default="build-mutation")
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--list", action="store_true", help="print the sample and stop")
    p.add_argument("--summary", action="store_true",
                   help="print the summary of the verdicts in the output folder and stop")
    args = p.parse_args()

    started = time.monotonic()
    with open("/proc/loadavg") as f:
        load_start = " ".join(f.read().split()[:3])
    repo = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    work = os.path.join(repo, args.build) if not os.path.isabs(args.build) else args.build
    tree, build = os.path.join(work, "tree"), os.path.join(work, "build")
    folders = [f for f in args.folders.split(",") if f]
    only = [f.strip("/").removeprefix("src/") for f in args.only.split(",") if f]
    name = "seed%d-n%d%s%s" % (args.seed, args.size, "-" + "+".join(folders) if folders else "",
                               "-only-" + "+".join(only) if only else "")
    out_dir = args.out or os.path.join(work, "out", name)
    out_dir = os.path.abspath(out_dir)

    # The sample is drawn from the work tree's sources, which the copy is made equal to.
    candidates, sample, digest = sample_mutants(repo, folders, args.seed, args.size)
    header = ("seed %d, sample %d of %d candidate mutants in %s, digest %s"
              % (args.seed, len(sample), len(candidates),
                 ",".join(folders) if folders else "src/", digest))
    log(header)
    if args.list:
        for i, m in enumerate(sample, 1):
            print("%03d %s" % (i, describe(m)))
        return 0

    sample_file = os.path.join(out_dir, "sample.txt")
    listing = header + "\n" + "".join("%03d %s\n" % (i, describe(m))
                                      for i, m in enumerate(sample, 1))
    baseline_file = os.path.join(out_dir, "baseline.json")
    if args.summary:
        baseline = {}
        if os.path.isfile(baseline_file):
            with open(baseline_file) as f:
                baseline = json.load(f)
        summarise(sample, baseline, out_dir, 0, "", record=False, only=only)
        return 0

    # One run at a time in a build folder: it owns the copy of the sources and the build.
    os.makedirs(tree, exist_ok=True)
    lock = open(os.path.join(work, "lock"), "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        sys.exit("mutation: another run is using %s" % work)
    sync_tree(repo, tree)

    os.makedirs(out_dir, exist_ok=True)
    if os.path.isfile(sample_file):
        with open(sample_file) as f:
            if f.read() != listing:
                sys.exit("mutation: %s holds another sample (other sources or options); "
                         "use another --out" % out_dir)
        log("resuming in " + out_dir)
    else:
        with open(sample_file, "w") as f:
            f.write(listing)

    configure(tree, build, args.jobs)
    programs = test_programs(tree)
    store = os.path.join(work, "unmutated-objects")
    if os.path.isfile(baseline_file):
        with open(baseline_file) as f:
            baseline = json.load(f)
        if not restore_build(build, args.jobs, programs, baseline, store,
                             os.path.join(out_dir, "baseline.log")):
            sys.exit("mutation: the unmutated build differs from the one recorded in %s; "
                     "use another --out" % baseline_file)
    else:
        baseline = build_baseline(build, programs, args.jobs, out_dir)
        save_objects(build, list(baseline["objects"]), store)
        with open(baseline_file, "w") as f:
            json.dump(baseline, f, indent=1)

    for signum in SIGNALS:
        signal.signal(signum, on_signal)
    try:
        for i, m in enumerate(sample, 1):
            mdir = os.path.join(out_dir, "%03d" % i)
            verdict_file = os.path.join(mdir, "verdict")
            if not in_folders(m, only) or os.path.isfile(verdict_file):
                continue
            os.makedirs(mdir, exist_ok=True)
            path = os.path.join(tree, m["file"])
            with open(path, encoding="utf-8") as f:
                original = f.read()
            stat = os.stat(path)
            mutated = apply_edits(original, m["edits"])
            diff = "".join(difflib.unified_diff(
                original.splitlines(True), mutated.splitlines(True),
                "a/" + m["file"], "b/" + m["file"]))
            with open(os.path.join(mdir, "mutant.diff"), "w") as f:
                f.write("# " + describe(m) + "\n" + diff)
            log_file = os.path.join(mdir, "log.txt")
            open(log_file, "w").close()
            t0 = time.monotonic()
            try:
                with open(path, "w", encoding="utf-8") as f:
                    f.write(mutated)
                verdict, detail = test_mutant(m, build, args.jobs, programs, baseline, log_file)
            finally:
                # Put back with signals held, so that an interruption cannot cut the write.
                held = signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)
                with open(path, "w", encoding="utf-8") as f:
                    f.write(original)
                os.utime(path, ns=(stat.st_atime_ns, stat.st_mtime_ns))
                restore_objects(build, baseline, store)
                signal.pthread_sigmask(signal.SIG_SETMASK, held)
            seconds = time.monotonic() - t0
            with open(verdict_file, "w") as f:
                json.dump({"verdict": verdict, "detail": detail, "seconds": round(seconds, 1),
                           "mutant": describe(m)}, f)
            log("%03d/%03d %-12s %5.0f s  %s  [%s]"
                % (i, len(sample), verdict, seconds, describe(m), detail))
    except Interrupted as e:
        kill_leftovers(build)
        log("interrupted (%s); the copy is restored; run the same command to resume" % e)
        summarise(sample, baseline, out_dir, time.monotonic() - started, load_start, only=only)
        return 130
    summarise(sample, baseline, out_dir, time.monotonic() - started, load_start, only=only)
    return 0


if __name__ == "__main__":
    sys.exit(main())
