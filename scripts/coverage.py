"""coverage.py COUNTS ROOT LINES DOCUMENT: reads the counts that gcovr added up, writes the lines that were not reached to
LINES and says which of them DOCUMENT does not explain. An explained line stands in DOCUMENT, below the heading "Is every
line run?", as a table row that holds `file` and, also in backticks, the line's code."""

import json
import pathlib
import re
import sys


def explained(document):
    """The pairs of file and code in the rows of the document's tables."""
    pairs = set()
    for row in document.partition("\n## Is every line run?\n")[2].partition("\n## ")[0].splitlines():
        quoted = re.findall(r"`([^`]+)`", row)
        if row.startswith("|") and len(quoted) >= 2:
            pairs.update((quoted[0], code.replace("\\|", "|")) for code in quoted[1:])
    return pairs


def main():
    counts, root, out, document = sys.argv[1:]
    data = json.loads(pathlib.Path(counts).read_text())
    known = explained(pathlib.Path(document).read_text()) if pathlib.Path(document).exists() else set()
    lines = reached = branches = taken = 0
    functions = {}
    missing = []
    for entry in data["files"]:
        source = (pathlib.Path(root) / entry["file"]).read_text().splitlines()
        # A line may be counted for each class or function it is compiled into.
        hits = {}
        for line in entry["lines"]:
            if line.get("gcovr/noncode"):
                continue
            number = line["line_number"]
            hits[number] = hits.get(number, 0) + line["count"]
            branches += len(line["branches"])
            taken += sum(1 for branch in line["branches"] if branch["count"])
        lines += len(hits)
        reached += sum(1 for count in hits.values() if count)
        missing += [(entry["file"], n, source[n - 1].strip()) for n, count in sorted(hits.items()) if not count]
        for function in entry.get("functions", []):
            key = (entry["file"], function["lineno"])
            functions[key] = max(functions.get(key, 0), function["execution_count"])
    unreached = sorted(key for key, count in functions.items() if not count)
    open_ = [line for line in missing if (line[0], line[2]) not in known]

    def share(part, whole):
        return f"{part} of {whole} ({100 * part / max(1, whole):.2f} %)"

    summary = (f"lines {share(reached, lines)}, functions {share(len(functions) - len(unreached), len(functions))}, "
               f"branches {share(taken, branches)}")
    report = [summary, "", "Functions not reached:"] + [f"{file}:{number}" for file, number in unreached]
    report += ["", "Lines not reached:"] + [f"{file}:{number}: {code}" for file, number, code in missing]
    pathlib.Path(out).write_text("\n".join(report) + "\n")
    print("\n".join(report))
    if open_:
        print(f"\n{len(open_)} of them are not explained in {document}")
    return 0 if functions and not unreached and reached >= 0.98 * lines and not open_ else 1


sys.exit(main())
