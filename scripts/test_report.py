"""test_report.py BUILD JUNIT TOTALS: says what the tests of one run of CTest report, and appends "N passed" and a line
"failed NAME" for each failure to TOTALS.

JUNIT is CTest's word on each test (--output-junit). The cases of a GoogleTest program are counted from its own report in
BUILD/test-results, those of a script from its lines "PASS: name" and "FAIL: name"; a script that cannot run here says "SKIP:
reason". A test that ended badly without a failed case, and one that has no case, are one failure. What only prepares (desktop.*)
or completes a program (*.complete) has no cases."""

import collections
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

Counts = collections.namedtuple("Counts", "passed skipped failed")


def of_program(report):
    """The counts of a GoogleTest report."""
    passed = skipped = 0
    failed = []
    for suite in ElementTree.parse(report).getroot():
        for case in suite.iter("testcase"):
            if case.find("failure") is not None:
                failed.append(f"{case.get('classname')}.{case.get('name')}")
            elif case.get("result") == "completed":
                passed += 1
            else:
                skipped += 1
        # What fails outside of any case, as in SetUpTestSuite, is told of the suite.
        failed += [suite.get("name")] * len(suite.findall("failure"))
    return Counts(passed, skipped, failed)


def reasons_to_skip(output):
    """Why a script did not run."""
    return re.findall(r"^SKIP: (.*)$", output, re.M)


def of_script(output):
    """The counts of a script's lines."""
    return Counts(len(re.findall(r"^PASS: ", output, re.M)), len(reasons_to_skip(output)), re.findall(r"^FAIL: (.*)$", output, re.M))


def counts_of(test, output, build):
    """The counts of one test, what it failed of its own included."""
    name, status = test.get("name"), test.get("status")
    report = build / "test-results" / f"{name}.xml"
    counts = Counts(0, 0, [])
    complaint = None
    if status != "run" and not reasons_to_skip(output):
        failure = test.find("failure")
        complaint = (failure.get("message") if failure is not None else "") or "ended badly"
    try:
        counts = of_program(report) if report.exists() else of_script(output)
    except ElementTree.ParseError:
        complaint = "left half a report"
    has_cases = not re.match(r"desktop\.|.*\.complete$", name)
    if not any(counts[:2]) and not counts.failed and has_cases:
        complaint = complaint or "reported no case"
    if complaint and not counts.failed:
        counts = Counts(counts.passed, counts.skipped, [f"({complaint})"])
    return counts


def said(output):
    """What a failed test said, without the cases that went well."""
    lines = [line for line in output.splitlines() if not re.match(r"^\[ *(OK|RUN|-+) *\]|^PASS: ", line)]
    return "\n".join(lines[-150:])


def main():
    build, junit, totals = map(pathlib.Path, sys.argv[1:])
    groups = collections.OrderedDict()
    failures = []
    for test in ElementTree.parse(junit).getroot().iter("testcase"):
        name = test.get("name")
        output = test.findtext("system-out") or ""
        counts = counts_of(test, output, build)
        sums = groups.setdefault(name.partition(".")[0], [0, 0, 0, 0.0])
        for i, value in enumerate((counts.passed, counts.skipped, len(counts.failed), float(test.get("time")))):
            sums[i] += value
        failures += [f"{name} ({build.name}): {case}" for case in counts.failed]
        if counts.failed:
            print(f"\n{name} ({build.name}):\n{said(output)}\n")
        for reason in reasons_to_skip(output):
            print(f"   {name} ({build.name}) was skipped: {reason}")
    for group, (passed, skipped, failed, seconds) in groups.items():
        print(f"   {f'{group} ({build.name})':28} {passed:5} passed {failed:4} failed {skipped:4} skipped {seconds:5.0f} s")
    with open(totals, "a", encoding="utf-8") as file:
        file.write(f"{sum(sums[0] for sums in groups.values())} passed\n")
        file.writelines(f"failed {failure}\n" for failure in failures)


if sys.argv[1:] == ["--help"]:
    print(__doc__)
else:
    main()
