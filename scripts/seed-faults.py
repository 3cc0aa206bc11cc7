#!/usr/bin/env python3
"""Seeds faults into library sources one at a time and runs the tests against each.

A fault is one small change a slip of the hand could make: a comparison flipped, an operator
swapped, a constant moved by one, a condition's negation dropped, a statement deleted. The
faults are drawn from every candidate site of the named files, deterministically by --seed.
Each is written into its file, the test programs that link the file are rebuilt (a reused
build folder, so only what changed is compiled), and they run without the peer tests (those
with "Qemu" or "Peer" in their names, which run qemu-img). The file is always restored: on
success, on failure, on Ctrl-C and on SIGTERM; a run killed harder restores it at its next
start from the copy it keeps in the build folder.

Each fault prints as file:line, the change, and killed (a test failed, crashed or hung),
survived, or not compiled. The score is killed / (killed + survived).

    python3 scripts/seed-faults.py --seed 1 --count 120 foundation format descriptor grain extent
    python3 scripts/seed-faults.py --list --seed 1 --count 20 grain/CVMDKGrain.cpp
    python3 scripts/seed-faults.py --every-test --up-to extent --seed 1 --count 60 grain
    python3 scripts/seed-faults.py --share

Survivors judged to change nothing are listed, with their reasons, in
scripts/equivalent-faults.txt; the score is then given a second time without them.
"""

import argparse
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LAYERS = ["foundation", "format", "descriptor", "grain", "extent", "disk"]
SOURCE_SUFFIXES = (".cpp", ".h")
# Tests that run qemu-img carry one of these in their names; the ctest label "peer" marks them.
PEER_FILTER = "-*Qemu*:*Peer*"

# Binary operators as clang-format writes them, with a space on each side, so that template
# brackets, pointers, references and unary signs never match.
OPERATOR_SWAPS = {
    " < ": [" <= "], " <= ": [" < "], " > ": [" >= "], " >= ": [" > "],
    " == ": [" != "], " != ": [" == "],
    " && ": [" || "], " || ": [" && "],
    " + ": [" - "], " - ": [" + "], " * ": [" / "], " / ": [" * "], " % ": [" / "],
    " & ": [" | "], " | ": [" & "], " << ": [" >> "], " >> ": [" << "],
    " += ": [" -= "], " -= ": [" += "],
}
OPERATOR_RE = re.compile("|".join(re.escape(op) for op in
                                  sorted(OPERATOR_SWAPS, key=len, reverse=True)))
INTEGER_RE = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.])")
BOOL_RE = re.compile(r"\b(true|false)\b")
NEGATION_RE = re.compile(r"!(?!=)")
KEYWORDS = {"if", "for", "while", "switch", "return", "case", "else", "do", "catch", "sizeof",
            "static_cast", "reinterpret_cast", "const_cast", "delete", "new", "using",
            "typedef", "template", "namespace", "class", "struct", "enum", "static_assert",
            "default", "public", "private", "protected", "friend", "operator"}
# A statement that does something: a call, an assignment, a throw, a jump.
STATEMENT_RE = re.compile(
    r"^(throw\b|break;|continue;|return;|"
    r"[A-Za-z_][\w:]*(\[[^\]]*\])*((\.|->)[A-Za-z_]\w*(\[[^\]]*\])*)*\s*"
    r"(\(|=(?!=)|\+=|-=|\*=|/=|\|=|&=|<<=|>>=|\+\+|--))")

# What ends or fills a declaration, which looks like a call: "Foo(int size) override;".
DECLARATION_END_RE = re.compile(r"(\boverride|\bconst|= *delete|= *default|= *0);$")
PARAMETER_RE = re.compile(r"[\w>*&]\s+[A-Za-z_]\w*\s*[,)]")


@dataclass
class Fault:
    path: str            # relative to the repository
    line: int            # 0-based first line
    end_line: int        # last line it touches
    column: int
    length: int
    replacement: str
    description: str

    def where(self):
        return f"{self.path}:{self.line + 1}"


def mask_line(line, in_block_comment):
    """The line with comments, strings and character literals blanked out (same length)."""
    out = []
    i = 0
    quote = None
    while i < len(line):
        c = line[i]
        if in_block_comment:
            if line.startswith("*/", i):
                in_block_comment = False
                out.append("  ")
                i += 2
                continue
            out.append(" ")
        elif quote:
            if c == "\\":
                out.append("  "[: len(line[i:i + 2])])
                i += 2
                continue
            out.append(quote if c == quote else " ")
            if c == quote:
                quote = None
        elif line.startswith("//", i):
            out.append(" " * (len(line) - i))
            break
        elif line.startswith("/*", i):
            in_block_comment = True
            out.append("  ")
            i += 2
            continue
        elif c in "\"'":
            quote = c
            out.append(c)
        else:
            out.append(c)
        i += 1
    return "".join(out), in_block_comment


def mutable_lines(lines):
    """Yields (index, masked line) for each line of code that faults may touch."""
    in_block = False
    for index, line in enumerate(lines):
        masked, in_block = mask_line(line, in_block)
        stripped = masked.strip()
        if not stripped or stripped.startswith("#") or stripped.startswith("static_assert"):
            continue
        if stripped.startswith("template") or stripped.startswith("namespace"):
            continue
        yield index, masked


def integer_faults(path, index, masked):
    for match in INTEGER_RE.finditer(masked):
        text, suffix = match.group(1), match.group(2)
        if re.search(r"\)\s*(const\s*)?=\s*$", masked[:match.start()]):
            continue  # a pure specifier, "= 0", which only 0 can be
        if text.lower().startswith("0x"):
            new = f"0x{int(text, 16) + 1:x}"
        elif text.startswith("0") and len(text) > 1:
            new = f"0{int(text, 8) + 1:o}"
        else:
            new = str(int(text) + 1)
        yield Fault(path, index, index, match.start(), match.end() - match.start(),
                    new + suffix, f"{text} -> {new}")


def line_faults(path, index, masked):
    for match in OPERATOR_RE.finditer(masked):
        if match.group(0) in (" + ", " += ") and ('"' in masked[match.end():match.end() + 1] or
                                                  masked[:match.start()].endswith('"')):
            continue  # text joined to a string literal: a "-" there would not compile
        for new in OPERATOR_SWAPS[match.group(0)]:
            yield Fault(path, index, index, match.start(), len(match.group(0)), new,
                        f"'{match.group(0).strip()}' -> '{new.strip()}'")
    yield from integer_faults(path, index, masked)
    for match in BOOL_RE.finditer(masked):
        new = "false" if match.group(1) == "true" else "true"
        yield Fault(path, index, index, match.start(), len(match.group(1)), new,
                    f"{match.group(1)} -> {new}")
    for match in NEGATION_RE.finditer(masked):
        yield Fault(path, index, index, match.start(), 1, "", "'!' dropped")


def statement_end(masked_lines, start):
    """The last line of the statement that starts at `start`, or None if it is no statement."""
    depth = 0
    for index in range(start, min(start + 12, len(masked_lines))):
        text = masked_lines[index]
        depth += text.count("(") + text.count("{") + text.count("[")
        depth -= text.count(")") + text.count("}") + text.count("]")
        if depth == 0 and text.rstrip().endswith(";"):
            return index
        if depth < 0:
            return None
    return None


def deletion_faults(path, lines):
    masked_lines = []
    in_block = False
    for line in lines:
        masked, in_block = mask_line(line, in_block)
        masked_lines.append(masked)
    previous = ""
    for index, masked in enumerate(masked_lines):
        stripped = masked.strip()
        if not stripped:
            continue
        starts = previous.endswith((";", "{", "}", ":")) or previous.startswith("#")
        previous = stripped
        match = STATEMENT_RE.match(stripped)
        if not starts or not match or stripped.startswith("#"):
            continue
        first_word = re.match(r"[A-Za-z_]\w*", stripped)
        if first_word and first_word.group(0) in KEYWORDS - {"return"}:
            continue
        end = statement_end(masked_lines, index)
        if end is None:
            continue
        statement = " ".join(m.strip() for m in masked_lines[index:end + 1])
        if DECLARATION_END_RE.search(statement) or PARAMETER_RE.search(statement):
            continue
        yield Fault(path, index, end, 0, 0, "", "statement deleted")


def find_faults(paths):
    faults = []
    for path in paths:
        lines = (ROOT / path).read_text().split("\n")
        for index, masked in mutable_lines(lines):
            faults.extend(line_faults(path, index, masked))
        faults.extend(deletion_faults(path, lines))
    faults.sort(key=lambda f: (f.path, f.line, f.column, f.description))
    return faults


def apply_fault(text, fault):
    lines = text.split("\n")
    if fault.description == "statement deleted":
        indent = re.match(r"\s*", lines[fault.line]).group(0)
        lines[fault.line] = indent + ";"
        for index in range(fault.line + 1, fault.end_line + 1):
            lines[index] = ""
    else:
        line = lines[fault.line]
        lines[fault.line] = (line[:fault.column] + fault.replacement +
                             line[fault.column + fault.length:])
    return "\n".join(lines)


def changed_lines(text, fault):
    """The original and the faulty text of the fault's lines, stripped, for the report."""
    old = " ".join(l.strip() for l in text.split("\n")[fault.line:fault.end_line + 1])
    new = " ".join(l.strip() for l in apply_fault(text, fault).split("\n")
                   [fault.line:fault.end_line + 1] if l.strip())
    return old, new


def collect_paths(names):
    paths = []
    for name in names:
        target = (ROOT / name).resolve()
        if target.is_dir():
            paths.extend(p for p in sorted(target.rglob("*")) if p.suffix in SOURCE_SUFFIXES)
        elif target.is_file():
            paths.append(target)
        else:
            sys.exit(f"seed-faults: no such file or folder: {name}")
    relative = sorted({str(p.relative_to(ROOT)) for p in paths})
    for path in relative:
        if path.split("/")[0] not in LAYERS:
            sys.exit(f"seed-faults: {path} is not in a library folder ({', '.join(LAYERS)})")
    return relative


def test_programs(layer, up_to):
    """The test programs that link a file of `layer`: its own and those of the layers above it,
    up to and including `up_to`."""
    chosen = LAYERS[LAYERS.index(layer):max(LAYERS.index(layer), LAYERS.index(up_to)) + 1]
    return [f"test_{l}" for l in chosen if any((ROOT / "tests" / l).glob("*.cpp"))]


def count_lines(paths):
    total = 0
    for path in paths:
        with open(path, "rb") as f:
            total += f.read().count(b"\n")
    return total


def print_share():
    library_total = 0
    test_total = 0
    print(f"{'layer':<12} {'library':>8} {'tests':>8} {'share':>7}")
    for layer in LAYERS:
        library = count_lines(p for p in (ROOT / layer).rglob("*") if p.suffix in SOURCE_SUFFIXES)
        tests = count_lines(p for p in (ROOT / "tests" / layer).rglob("*")
                            if p.suffix in SOURCE_SUFFIXES)
        library_total += library
        test_total += tests
        print(f"{layer:<12} {library:>8} {tests:>8} {tests / max(library, 1):>7.1%}")
    support = count_lines(p for p in (ROOT / "tests" / "support").rglob("*")
                          if p.suffix in SOURCE_SUFFIXES)
    test_total += support
    print(f"{'support':<12} {'':>8} {support:>8}")
    print(f"{'total':<12} {library_total:>8} {test_total:>8} "
          f"{test_total / library_total:>7.1%}  (test lines / library lines)")


class Restorer:
    """Keeps the original of the file under fault, in memory and in the build folder."""

    def __init__(self, build_dir):
        self.backup_dir = build_dir / "seed-faults-backup"
        self.current = None

    def recover(self):
        if not self.backup_dir.is_dir():
            return
        for copy in self.backup_dir.rglob("*"):
            if copy.is_file():
                original = ROOT / copy.relative_to(self.backup_dir)
                print(f"seed-faults: restoring {original} left by an interrupted run")
                shutil.copyfile(copy, original)
                copy.unlink()

    def write_fault(self, path, original, faulty):
        copy = self.backup_dir / path
        copy.parent.mkdir(parents=True, exist_ok=True)
        copy.write_text(original)
        self.current = (path, original, copy)
        (ROOT / path).write_text(faulty)

    def restore(self):
        if self.current:
            path, original, copy = self.current
            (ROOT / path).write_text(original)
            copy.unlink(missing_ok=True)
            self.current = None


def run_quiet(command, cwd, timeout):
    try:
        result = subprocess.run(command, cwd=cwd, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, errors="replace",
                                timeout=timeout)
        return result.returncode, result.stdout
    except subprocess.TimeoutExpired:
        return "timeout", ""


def build(build_dir, targets, jobs):
    return run_quiet(["cmake", "--build", str(build_dir), "-j", str(jobs), "--target", *targets],
                     ROOT, 1800)


def test_name(failed):
    """"Prefix/Suite.Name/3" (value-parameterized) or "Suite/3.Name" (typed) -> "Suite.Name"."""
    suite, _, name = failed.partition(".")
    parts = suite.split("/")
    return (parts[0] if parts[-1].isdigit() else parts[-1]) + "." + name.split("/")[0]


def run_tests(build_dir, programs, timeouts, every_test=False):
    """The tests that failed (or "<program> hung" / "<program> exit <code>"); empty when every
    program passed. Stops at the first failure unless `every_test`."""
    stopped = []
    for program in programs:
        command = [str(build_dir / "tests" / program), "--gtest_filter=" + PEER_FILTER,
                   "--gtest_brief=1"]
        if not every_test:
            command.append("--gtest_fail_fast")
        code, output = run_quiet(command, build_dir / "tests", timeouts.get(program, 600))
        if code == "timeout":
            stopped.append(f"{program} hung")
        elif code != 0:
            failed = sorted({test_name(name) for name in
                             re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", output, re.M)})
            stopped.extend(failed or [f"{program} exit {code}"])
        if stopped and not every_test:
            break
    return stopped


def test_files():
    """Test suite name -> the test file that holds it."""
    files = {}
    for path in sorted((ROOT / "tests").rglob("*.cpp")):
        for suite in re.findall(r"^TEST(?:_F|_P)?\((\w+),", path.read_text(), re.M):
            files.setdefault(suite, str(path.relative_to(ROOT)))
    return files


def print_kills_by_file(killers):
    """For each test file: the faults it kills, those only it kills, and its lines per the
    latter, so that a file that costs much for little stands out."""
    files = test_files()
    kills = {}
    for fault_index, tests in killers.items():
        owners = {files.get(t.split(".")[0], t.split(" ")[0]) for t in tests}
        for owner in owners:
            entry = kills.setdefault(owner, [0, 0])
            entry[0] += 1
            entry[1] += 1 if len(owners) == 1 else 0
    print(f"\n{'test file':<52} {'lines':>6} {'kills':>6} {'alone':>6} {'lines/alone':>12}")
    for owner in sorted(kills, key=lambda o: -kills[o][1]):
        path = ROOT / owner
        lines = count_lines([path]) if path.is_file() else 0
        alone = kills[owner][1]
        ratio = f"{lines / alone:.0f}" if alone else "-"
        print(f"{owner:<52} {lines:>6} {kills[owner][0]:>6} {alone:>6} {ratio:>12}")


def configure(build_dir):
    if not (build_dir / "CMakeCache.txt").exists():
        # Optimised but without debug information, which makes compiling and linking slow.
        code, output = run_quiet(["cmake", "-S", str(ROOT), "-B", str(build_dir),
                                  "-DCMAKE_BUILD_TYPE=Release",
                                  "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG",
                                  "-DHARL_BENCHMARKS=OFF"], ROOT, 600)
        if code != 0:
            sys.exit("seed-faults: configuring failed:\n" + output)


def baseline(build_dir, programs, jobs):
    """Builds the unchanged sources and times each program; stops if any test fails."""
    code, output = build(build_dir, programs, jobs)
    if code != 0:
        sys.exit("seed-faults: the unchanged sources do not build:\n" + output[-3000:])
    timeouts = {}
    for program in programs:
        start = time.monotonic()
        stopped = run_tests(build_dir, [program], {})
        if stopped:
            sys.exit(f"seed-faults: the unchanged sources fail: {', '.join(stopped)}")
        timeouts[program] = 30 + 10 * (time.monotonic() - start)
    return timeouts


def load_equivalents(path):
    """Lines "file<TAB>original<TAB>faulty<TAB>reason": survivors judged to change nothing."""
    equivalents = {}
    if path and Path(path).is_file():
        for line in Path(path).read_text().splitlines():
            if line.strip() and not line.startswith("#"):
                parts = line.split("\t")
                if len(parts) >= 4:
                    equivalents[tuple(parts[:3])] = parts[3]
    return equivalents


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("paths", nargs="*", help="library files or folders to seed faults into")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=100, help="faults to seed")
    parser.add_argument("--build-dir", default="build-faults",
                        help="build folder, configured on first use and reused")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--up-to", choices=LAYERS, default=LAYERS[-1],
                        help="run the test programs of the fault's layer and of the layers "
                        "above it up to this one (default: all; the fault's own layer only: "
                        "foundation)")
    parser.add_argument("--equivalent", default=str(ROOT / "scripts" / "equivalent-faults.txt"),
                        help="file of survivors judged equivalent (default: %(default)s)")
    parser.add_argument("--every-test", action="store_true",
                        help="run every test against every fault (no stop at the first "
                        "failure) and print what each test file alone catches")
    parser.add_argument("--list", action="store_true", help="print the faults, run nothing")
    parser.add_argument("--only", default="",
                        help="comma-separated numbers of the draw to run, as the run printed "
                        "them, so that survivors can be tried again after new tests")
    parser.add_argument("--share", action="store_true", help="print test lines against "
                        "library lines and stop")
    args = parser.parse_args()
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    if args.share:
        print_share()
        return
    if not args.paths:
        parser.error("name the library files or folders to seed faults into")

    paths = collect_paths(args.paths)
    candidates = find_faults(paths)
    chosen = random.Random(args.seed).sample(candidates, min(args.count, len(candidates)))
    chosen.sort(key=lambda f: (f.path, f.line, f.column, f.description))
    texts = {path: (ROOT / path).read_text() for path in paths}
    print(f"seed-faults: {len(chosen)} of {len(candidates)} candidate faults in {len(paths)} "
          f"files, seed {args.seed}")
    if args.list:
        for fault in chosen:
            old, new = changed_lines(texts[fault.path], fault)
            print(f"{fault.where()}: {fault.description}\n    - {old}\n    + {new}")
        return

    build_dir = (ROOT / args.build_dir).resolve()
    restorer = Restorer(build_dir)
    restorer.recover()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.signal(signal.SIGHUP, lambda *_: sys.exit(129))
    configure(build_dir)
    only = {int(n) for n in args.only.split(",") if n.strip()}
    selected = [f for n, f in enumerate(chosen, 1) if not only or n in only]
    layers = sorted({f.path.split("/")[0] for f in selected}, key=LAYERS.index)
    all_programs = sorted({p for l in layers for p in test_programs(l, args.up_to)},
                          key=lambda p: LAYERS.index(p[len("test_"):]))
    timeouts = baseline(build_dir, all_programs, args.jobs)
    equivalents = load_equivalents(args.equivalent)

    results = {"killed": 0, "survived": 0, "not compiled": 0, "equivalent": 0}
    survivors = []
    killers = {}
    try:
        for number, fault in enumerate(chosen, 1):
            if only and number not in only:
                continue
            original = texts[fault.path]
            old, new = changed_lines(original, fault)
            programs = test_programs(fault.path.split("/")[0], args.up_to)
            start = time.monotonic()
            restorer.write_fault(fault.path, original, apply_fault(original, fault))
            try:
                code, _ = build(build_dir, programs, args.jobs)
                if code != 0:
                    outcome, detail = "not compiled", ""
                else:
                    stopped = run_tests(build_dir, programs, timeouts, args.every_test)
                    outcome = "killed" if stopped else "survived"
                    detail = f" by {', '.join(stopped)}" if stopped else ""
                    if stopped:
                        killers[number] = stopped
            finally:
                restorer.restore()
            reason = equivalents.get((fault.path, old, new))
            if outcome == "survived" and reason:
                outcome, detail = "equivalent", f" ({reason})"
            results[outcome] += 1
            if outcome == "survived":
                survivors.append((fault, old, new))
            print(f"[{number:>3}/{len(chosen)}] {fault.where()}: {fault.description}: "
                  f"{outcome}{detail} ({time.monotonic() - start:.0f} s)\n"
                  f"    - {old}\n    + {new}", flush=True)
    finally:
        restorer.restore()

    killed, survived = results["killed"], results["survived"]
    judged = results["equivalent"]
    print(f"\nkilled {killed}, survived {survived + judged}, not compiled "
          f"{results['not compiled']}")
    if killed + survived + judged:
        print(f"score: {killed}/{killed + survived + judged} = "
              f"{killed / (killed + survived + judged):.1%} of the faults that compiled")
    if judged and killed + survived:
        print(f"score without the {judged} judged equivalent: {killed}/{killed + survived} = "
              f"{killed / (killed + survived):.1%}")
    if args.every_test:
        print_kills_by_file(killers)
    if survivors:
        print("\nsurvivors (file, original, faulty, tab-separated, as --equivalent reads them):")
        for fault, old, new in survivors:
            print(f"{fault.path}\t{old}\t{new}")


if __name__ == "__main__":
    main()
