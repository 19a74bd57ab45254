"""coverage.py COUNTS ROOT LINES: what gcovr cannot tell of the counts that it added up: fails when a function was not
reached, when a line was not reached and the source does not say why, and when the source excuses lines that are reached.
Writes all of it to LINES. A comment "not reached: REASON" on a line of its own excuses what follows up to the end of the
block that it is in.

coverage.py --name-by-place COUNTS: adds its line to each function's name. The widths may have a function of one name in
different lines, and gcovr adds up by the name."""

import json
import pathlib
import re
import sys

EXCUSE = re.compile(r"^(\s*)// not reached: \S")


def excused(source):
    """For each excuse of a source, by the number of its line: the numbers of the lines that it is for."""
    excuses = {}
    for number, line in enumerate(source, 1):
        match = EXCUSE.match(line)
        if not match:
            continue
        end = number
        while end < len(source) and (not source[end].strip() or source[end].startswith(match.group(1))):
            end += 1
        excuses[number] = range(number + 1, end + 1)
    return excuses


def hits_of(entry):
    """The count of each line. A line may be counted for each class or function it is compiled into."""
    hits = {}
    for line in entry["lines"]:
        if not line.get("gcovr/noncode"):
            hits[line["line_number"]] = hits.get(line["line_number"], 0) + line["count"]
    return hits


def name_by_place(counts):
    data = json.loads(counts.read_text())
    for entry in data["files"]:
        for function in entry.get("functions", []):
            function["name"] += f" in line {function['lineno']}"
    counts.write_text(json.dumps(data))


def main():
    if sys.argv[1] == "--name-by-place":
        name_by_place(pathlib.Path(sys.argv[2]))
        return 0
    counts, root, out = sys.argv[1:]
    functions = {}
    missing = []
    unexplained = []
    needless = []
    for entry in json.loads(pathlib.Path(counts).read_text())["files"]:
        file = entry["file"]
        source = (pathlib.Path(root) / file).read_text().splitlines()
        excuses = excused(source)
        hits = hits_of(entry)
        unreached = [number for number, count in sorted(hits.items()) if not count]
        missing += [f"{file}:{number}: {source[number - 1].strip()}" for number in unreached]
        unexplained += [f"{file}:{number}: {source[number - 1].strip()}" for number in unreached
                        if not any(number in lines for lines in excuses.values())]
        needless += [f"{file}:{number}: {source[number - 1].strip()}" for number, lines in excuses.items()
                     if not any(n in lines for n in unreached)]
        for function in entry.get("functions", []):
            key = f"{file}:{function['lineno']}"
            # Of a template's functions gcovr tells one, but the line's count is that of all.
            count = max(function["execution_count"], hits.get(function["lineno"], 0))
            functions[key] = max(functions.get(key, 0), count)
    idle = sorted(key for key, count in functions.items() if not count)

    report = [f"{len(functions) - len(idle)} of {len(functions)} functions reached"]
    for title, found in (("Functions not reached", idle), ("Lines not reached", missing),
                         ("Lines not reached that no comment explains", unexplained),
                         ("Comments on lines that are reached", needless)):
        report += ["", f"{title}: {len(found)}"] + found
    pathlib.Path(out).write_text("\n".join(report) + "\n")
    print("\n".join(report))
    return 0 if functions and not idle and not unexplained and not needless else 1


if sys.argv[1:] == ["--help"]:
    print(__doc__)
    sys.exit()
sys.exit(main())
