"""mutants.py: chooses small changes of the product's sources, makes them one at a time in copies of the tree, and tells
which of them no test notices. scripts/mutate.sh prepares the copies and starts it."""

import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import queue
import random
import re
import signal
import subprocess
import sys
import threading
import time

Mutant = collections.namedtuple("Mutant", "number kind file line begin before after text")
Program = collections.namedtuple("Program", "name path windows")

TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<directive>^[ \t]*\#[^\n]*)
      | (?P<string>\bL?"(?:\\.|[^"\\\n])*")
      | (?P<char>\bL?'(?:\\.|[^'\\\n])+')
      | (?P<number>\b(?:0[xX][0-9A-Fa-f']+|[0-9][0-9']*)[uUlL]*\b)
      | (?P<word>\b[A-Za-z_]\w*\b)
      | (?P<operator>->\*?|<=>|<<=?|>>=?|[=!<>]=|&&|\|\||[-+*/%&|^]=|\+\+|--|::|.)""",
    re.X | re.M | re.S,
)
FLIPPED = {"==": "!=", "!=": "==", "<=": "<", ">=": ">", "<": "<=", ">": ">=", "&&": "||", "||": "&&"}
# A status stands for another one; a constant of the token's interface or of Windows for its neighbour.
EXCHANGED = {
    "true": "false",
    "false": "true",
    "NTE_INVALID_PARAMETER": "NTE_INVALID_HANDLE",
    "NTE_INVALID_HANDLE": "NTE_INVALID_PARAMETER",
    "NTE_BAD_FLAGS": "NTE_INVALID_PARAMETER",
    "NTE_NOT_SUPPORTED": "NTE_BAD_ALGID",
    "NTE_BAD_ALGID": "NTE_NOT_SUPPORTED",
    "NTE_INTERNAL_ERROR": "NTE_FAIL",
    "NTE_FAIL": "NTE_INTERNAL_ERROR",
    "NTE_NO_MEMORY": "NTE_INTERNAL_ERROR",
    "NTE_NOT_FOUND": "NTE_INTERNAL_ERROR",
    "NTE_BUFFER_TOO_SMALL": "NTE_INVALID_PARAMETER",
    "NTE_BAD_DATA": "NTE_BAD_KEY",
    "NTE_BAD_TYPE": "NTE_NOT_SUPPORTED",
    "NTE_EXISTS": "NTE_FAIL",
    "ERROR_SUCCESS": "NTE_FAIL",
    "CKA_SIGN": "CKA_DECRYPT",
    "CKA_DECRYPT": "CKA_SIGN",
    "CKA_ENCRYPT": "CKA_VERIFY",
    "CKA_VERIFY": "CKA_ENCRYPT",
    "CKA_TOKEN": "CKA_PRIVATE",
    "CKA_LABEL": "CKA_ID",
    "CKA_ID": "CKA_LABEL",
    "CK_TRUE": "CK_FALSE",
    "CK_FALSE": "CK_TRUE",
    "TRUE": "FALSE",
    "FALSE": "TRUE",
}
STATEMENT = re.compile(r"^\s+[^\s#/}{].*;$")
NOT_DROPPED = re.compile(r"^\s*(return|using|typedef|static_assert|friend|extern|public|private|throw|case|default)\b|= default|= delete")
# What only declares a name: without it nothing compiles.
DECLARATION = re.compile(r"^\s+(?:[A-Za-z_][\w:<>,*&()]*[ *&]+)+~?\w+(?: = .*|\{.*\}|\(.*\).*|\[.*)?;$|^  [A-Z]\w*\(.*\)[^.]*;$")
CHECK = re.compile(r"^\s+if \(.*\) return\b.*;$")
# Lines of the log, whose order is part of what the provider does.
LOGGED = re.compile(r"^\s+\S*(?:Write\w*|Argument)\(.*\);$")


# What neither the native nor the x64 build compiles.
ONLY_X86 = re.compile(r"^#ifdef __i386__$.*?^#(?:else|endif)$", re.M | re.S)


def complete(line):
    code = re.sub(r'"(?:\\.|[^"\\])*"', '""', line)
    return code.count("(") == code.count(")") and code.count("{") == code.count("}")


def candidates(path, text):
    """Every change that is known for one file, as (kind, line, offset, text before, text after, the changed file)."""
    found = []
    not_built = [match.span() for match in ONLY_X86.finditer(text)]

    def add(kind, begin, end, new):
        if any(first <= begin < last for first, last in not_built):
            return
        line = text.count("\n", 0, begin) + 1
        found.append((kind, line, begin, text[begin:end], new, text[:begin] + new + text[end:]))

    resource = path.suffix == ".rc"
    lines = text.split("\n")

    def line_of(offset):
        return lines[text.count("\n", 0, offset)]

    for match in TOKEN.finditer(text):
        kind, token, begin, end = match.lastgroup, match.group(), match.start(), match.end()
        line = line_of(begin)
        if "static_assert" in line or re.search(r'extern "C"|\boperator\b', line):
            continue
        spaced = text[begin - 1 : begin].isspace() and text[end : end + 1].isspace()
        if kind == "string":
            letters = [i for i, c in enumerate(token) if c.isalpha() and i > token.index('"') and token[i - 1] != "\\"]
            if letters:
                at = letters[len(letters) // 2]
                new = "x" if token[at] != "x" else "y"
                add("message", begin, end, token[:at] + new + token[at + 1 :])
        elif kind == "number":
            digits = re.match(r"0[xX][0-9A-Fa-f']+|[0-9']+", token).group()
            value = int(digits.replace("'", ""), 0 if digits[:2] in ("0x", "0X") else 10)
            new = f"0x{value + 1:X}" if digits[:2] in ("0x", "0X") else str(value + 1)
            add("constant", begin, end, new + token[len(digits) :])
        elif kind == "word" and token in EXCHANGED and not resource:
            add("constant", begin, end, EXCHANGED[token])
        elif kind == "operator" and not resource:
            if token in FLIPPED and spaced:
                add("comparison", begin, end, FLIPPED[token])
            elif token == "!" and re.match(r"[\w(]", text[end : end + 1]):
                add("comparison", begin, end, "")
            elif token in ("+", "-") and spaced:
                add("constant", begin, end, "-" if token == "+" else "+")

    offset = 0
    for number, line in enumerate(lines):
        end = offset + len(line)
        before = lines[number - 1].rstrip() if number else ""
        starts = before == "" or before[-1] in ";{}:" or before.lstrip().startswith("//")
        whole = STATEMENT.match(line) and complete(line) and starts and not resource
        if whole and not NOT_DROPPED.search(line) and not (DECLARATION.match(line) and not CHECK.match(line)):
            add("dropped line", offset, end, "")
        after = lines[number + 1] if number + 1 < len(lines) else ""
        if whole and complete(after) and line != after:
            indent = len(line) - len(line.lstrip())
            if indent == len(after) - len(after.lstrip()):
                if (CHECK.match(line) and CHECK.match(after)) or (LOGGED.match(line) and LOGGED.match(after)):
                    add("swapped", offset, end + 1 + len(after), after + "\n" + line)
        offset = end + 1
    return found


def choose(root, seed):
    """All changes in a seeded order: one of each file first, then the files in proportion to their size."""
    draw = random.Random(seed)
    files = sorted(p for p in (root / "src").rglob("*") if p.suffix in (".cpp", ".h", ".rc"))
    pools = {}
    for path in files:
        by_kind = collections.defaultdict(list)
        for change in candidates(path, path.read_text()):
            by_kind[change[0]].append(change)
        for pool in by_kind.values():
            draw.shuffle(pool)
        if by_kind:
            pools[path] = by_kind
    number = 0
    names = list(pools)
    draw.shuffle(names)
    while pools:
        for path in names:
            kind = draw.choice(sorted(pools[path]))
            _, line, begin, before, after, text = pools[path][kind].pop()
            if not pools[path][kind]:
                del pools[path][kind]
            if not pools[path]:
                del pools[path]
            number += 1
            yield Mutant(number, kind, path.relative_to(root), line, begin, before, after, text)
        left = sorted(pools)
        names = draw.choices(left, [sum(map(len, pools[path].values())) for path in left]) if left else []


class Worker:
    """One copy of the tree with its builds; builds and tests one mutant after the other."""

    # What never runs the provider, or takes too long to be run for each mutant.
    KINDS_NOT_RUN = {"standins", "e2e", "check"}

    def __init__(self, folder, prefix):
        self.tree = folder / "tree"
        self.builds = self.tree / "build"
        self.folder = folder
        self.prefix = prefix
        self.programs = []
        self.limits = {}
        self.build_seconds = 1800
        self.process = None

    def run(self, command, seconds, cwd=None, env=None):
        """The exit status, or None for a command that did not end in time."""
        with open(self.folder / "output.log", "wb") as log:
            self.process = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                            cwd=cwd, env=env, start_new_session=True)
            try:
                return self.process.wait(seconds)
            except subprocess.TimeoutExpired:
                self.stop()
                return None
            finally:
                self.process = None

    def stop(self):
        """Ends the command that runs, and what it started."""
        process = self.process
        if process:
            subprocess.run(["pkill", "-KILL", "-s", str(process.pid)], check=False)

    def build(self):
        return all(
            self.run(["ninja", "-C", self.builds / what, "-j1", "test_programs"], self.build_seconds) == 0
            for what in ("native", "x64")
        )

    def find_programs(self):
        """The test programs that CTest knows; of those that are built natively too, only the native one."""
        found = {}
        for what in ("native", "x64"):
            shown = subprocess.run(["ctest", "--test-dir", self.builds / what, "--show-only=json-v1"], check=True,
                                   capture_output=True)
            folder = str(self.builds / what / "bin") + "/"
            for test in json.loads(shown.stdout)["tests"]:
                labels = next((p["value"] for p in test["properties"] if p["name"] == "LABELS"), [])
                paths = [word for word in test.get("command", []) if word.startswith(folder)]
                if paths and not self.KINDS_NOT_RUN.intersection(labels):
                    path = pathlib.Path(paths[0])
                    found.setdefault(path.stem, Program(path.stem, path, what == "x64"))
        return list(found.values())

    def test(self, program):
        """None when all tests pass, otherwise what noticed the change."""
        # What is not optimized copies more often than those tests allow.
        command = [program.path, "--gtest_fail_fast", "--gtest_filter=-CallCounts.*"]
        env = None
        if program.windows:
            command.insert(0, "wine64")
            env = self.prefix
        status = self.run(command, self.limits.get(program, 600), program.path.parent, env)
        if status == 0:
            return None
        if status is None:
            subprocess.run(["wineserver", "-k"], env=self.prefix, check=False)
            return f"{program.name}: did not end"
        log = (self.folder / "output.log").read_bytes().decode("utf-8", "replace").replace("\r", "")
        failed = re.search(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", log, re.M)
        return f"{program.name}: {failed.group(1)}" if failed else f"{program.name}: status {status}"

    def dll(self):
        return self.builds / "x64/bin/keldaksp.dll"

    def affected(self, program, stamps):
        inputs = [program.path, self.dll()] if program.windows else [program.path]
        return any(path.stat().st_mtime_ns != stamps[path] for path in inputs)

    def stamps(self):
        paths = [self.dll()] + [program.path for program in self.programs]
        return {path: path.stat().st_mtime_ns for path in paths}

    def prove_unchanged(self):
        """Builds and tests the sources as they are, and takes the time of it; what is wrong with them, if anything is."""
        if not self.build():
            return (self.folder / "output.log").read_text()[-3000:]
        seconds = {}
        for program in self.find_programs():
            begun = time.monotonic()
            noticed = self.test(program)
            if noticed:
                output = (self.folder / "output.log").read_bytes().decode("utf-8", "replace")[-3000:]
                return f"{output}\nThe unchanged sources fail: {noticed}"
            seconds[program] = time.monotonic() - begun
            self.limits[program] = 30 + 5 * seconds[program]
        if not any(program.windows for program in seconds) or all(program.windows for program in seconds):
            return "CTest knows no test programs of one of the builds"
        # The quick ones first: most mutants are noticed before the slow ones.
        self.programs = sorted(seconds, key=seconds.get)
        return None

    def judge(self, mutant):
        """"does not compile", "survived", or what noticed it."""
        path = self.tree / mutant.file
        original = path.read_text()
        if original == mutant.text:
            raise RuntimeError("a mutant equals its source")
        stamps = self.stamps()
        path.write_text(mutant.text)
        try:
            if not self.build():
                return "does not compile"
            for program in self.programs:
                if self.affected(program, stamps):
                    noticed = self.test(program)
                    if noticed:
                        return noticed
            return "survived"
        finally:
            path.write_text(original)
            if not self.build():
                raise RuntimeError("the unchanged source does not build any more")


def change_of(mutant):
    def clean(text):
        return re.sub(r"\s*\n\s*", " / ", text.strip()) or "(nothing)"

    return f"{clean(mutant.before)} -> {clean(mutant.after)}"


def shown(mutant):
    return f"{mutant.number:4} {mutant.file}:{mutant.line} {mutant.kind}: {change_of(mutant)}"


def bare(text):
    """The text without what formatting may change."""
    return re.sub(r"\s+", "", text)


def harmless(document):
    """The rows below the document's heading "Does a test notice a change?" that name a file, a piece of its code and a
    change within it, each in backticks: changes that were looked at and that no caller, log or token can tell from the
    original."""
    rows = []
    text = document.read_text(encoding="utf-8").partition("\n## Does a test notice a change?\n")[2]
    for row in text.partition("\n## ")[0].splitlines():
        quoted = [text.replace("\\|", "|") for text in re.findall(r"`([^`]+)`", row)]
        if row.startswith("| `src/") and len(quoted) == 3:
            rows.append((quoted[0], bare(quoted[1]), bare(quoted[2])))
    return rows


def misplaced(rows, root):
    """The rows that name no place, or more than one."""
    return [f"{file}: {code}" for file, code, _ in rows
            if not (root / file).is_file() or bare((root / file).read_text()).count(code) != 1]


def is_harmless(mutant, source, rows):
    """Whether a row names this change at this place. Spaces and line ends do not count, so that a row outlives a
    reformatting of the source."""
    text = bare(source)
    at = len(bare(source[: mutant.begin]))
    for file, code, change in rows:
        if file == str(mutant.file) and change == bare(change_of(mutant)):
            # The code surrounds the change.
            if text.find(code, max(0, at - len(code) + 1), at + len(code)) >= 0:
                return True
    return False


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, required=True)
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--numbers", default="", help="only these mutants of the seed, separated by commas")
    parser.add_argument("--report", type=pathlib.Path, required=True)
    parser.add_argument("--document", type=pathlib.Path, required=True, help="explains changes that change nothing")
    parser.add_argument("--worker", action="append", required=True, help="FOLDER=WINEPREFIX")
    parser.add_argument("--list", action="store_true", help="only show what would be changed")
    options = parser.parse_args()

    workers = []
    for text in options.worker:
        folder, prefix = text.split("=")
        workers.append(Worker(pathlib.Path(folder), dict(os.environ, WINEPREFIX=prefix)))

    def stop(*_):
        for worker in workers:
            worker.stop()
        os._exit(130)  # pylint: disable=protected-access

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    order = choose(workers[0].tree, options.seed)
    numbers = {int(n) for n in options.numbers.split(",") if n}
    if options.list:
        for mutant, _ in zip(order, range(options.count)):
            print(shown(mutant))
        return 0

    known = harmless(options.document)
    lost = misplaced(known, workers[0].tree)
    if lost:
        print("\n".join(["Rows of the document that do not name one place:"] + lost))
        return 1

    print("Building and testing the unchanged sources", flush=True)
    with concurrent.futures.ThreadPoolExecutor(len(workers)) as pool:
        complaints = [complaint for complaint in pool.map(Worker.prove_unchanged, workers) if complaint]
    if complaints:
        print("\n".join(complaints))
        return 1

    lock = threading.Lock()
    verdicts = []
    wanted = len(numbers) if numbers else options.count
    judged = 0
    begun = time.monotonic()
    errors = queue.Queue()

    def work(worker):
        nonlocal judged
        while True:
            with lock:
                mutant = next(order, None)
                while mutant and numbers and mutant.number not in numbers:
                    mutant = next(order, None)
                if mutant is None or judged >= wanted or not errors.empty():
                    return
                judged += 1
            try:
                verdict = worker.judge(mutant)
            except Exception as error:  # pylint: disable=broad-except
                errors.put(error)
                return
            with lock:
                verdicts.append((mutant, verdict))
                if verdict == "does not compile" and not numbers:
                    judged -= 1  # one more takes its place
                counted = [v for _, v in verdicts if v != "does not compile"]
                passed = int(time.monotonic() - begun)
                print(f"[{len(counted)}/{wanted}, {passed // 60} min] {shown(mutant)}: {verdict}", flush=True)

    threads = [threading.Thread(target=work, args=(worker,)) for worker in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if not errors.empty():
        raise errors.get()

    verdicts.sort(key=lambda pair: pair[0].number)
    tree = workers[0].tree
    verdicts = [
        (m, "changes nothing" if v == "survived" and is_harmless(m, (tree / m.file).read_text(), known) else v)
        for m, v in verdicts
    ]
    counted = [(m, v) for m, v in verdicts if v not in ("does not compile", "changes nothing")]
    survivors = [(m, v) for m, v in counted if v == "survived"]
    minutes = (time.monotonic() - begun) / 60
    noticed = len(counted) - len(survivors)
    summary = [
        f"seed {options.seed}: {len(counted)} mutants of {len({m.file for m, _ in counted})} files in {minutes:.0f} min, "
        f"{noticed} noticed, {len(survivors)} survived ({100 * noticed / max(1, len(counted)):.1f} % noticed)",
        f"  besides: {sum(1 for _, v in verdicts if v == 'changes nothing')} that change nothing "
        f"({options.document.name} says why), {sum(1 for _, v in verdicts if v == 'does not compile')} that do not compile",
    ]
    for kind, count in sorted(collections.Counter(m.kind for m, _ in counted).items()):
        summary.append(f"  {kind}: {count}, survived {sum(1 for m, _ in survivors if m.kind == kind)}")
    summary += ["Survivors:"] + [shown(m) for m, _ in survivors]
    with open(options.report, "w", encoding="utf-8") as report:
        report.write("\n".join(summary) + "\n\nAll:\n")
        for mutant, verdict in verdicts:
            report.write(f"{shown(mutant)}: {verdict}\n")
    print("\n" + "\n".join(summary))
    print(f"All of it: {options.report}")
    return 0


sys.exit(main())
