"""bench.py LINES FOLDER: turns what bench.exe has measured (a line of JSON each) into results.json, table.md and the
data of the two plots, in FOLDER. Called by scripts/bench.sh."""
import datetime
import json
import os
import platform
import re
import subprocess
import sys


def machine():
    model = "unknown processor"
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        found = re.search(r"^model name\s*: (.*)$", info.read(), re.M)
        if found:
            model = found.group(1)
    wine = subprocess.run(["wine64", "--version"], capture_output=True, text=True, check=False).stdout.strip()
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "processor": model,
        "processors": os.cpu_count(),
        "load": os.getloadavg()[0],
        "system": f"{platform.system()} {platform.release()}, {wine or 'Wine of unknown version'}",
    }


def merged(lines):
    """One record for each thing measured: what was timed of it in several ways stands together."""
    records = {}
    for line in lines:
        record = json.loads(line)
        key = tuple(record[name] for name in ("kind", "name", "log", "keys", "threads"))
        records.setdefault(key, {}).update(record)
    return list(records.values())


def number(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def cells(record):
    """Median and quartiles of the ratio, median times of both sides, own time."""
    ratio = record.get("ratio")
    yield f"{ratio[1]:.3f} ({ratio[0]:.3f}–{ratio[2]:.3f})" if ratio else ""
    for name in ("provider", "demanded", "own"):
        yield number(record[name][1]) if name in record else ""


def table(records, kind, titles, firsts):
    rows = [record for record in records if record["kind"] == kind]
    if not rows:
        return []
    head = [*titles, "ratio (quartiles)", "provider, µs", "demanded, µs", "own, µs"]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    for row in rows:
        lines.append("| " + " | ".join([*firsts(row), *cells(row)]) + " |")
    return [*lines, ""]


def log(record):
    return "on" if record["log"] else "off"


def layers(records):
    found = {record["name"]: record for record in records if record["kind"] == "layer"}
    if len(found) < 3:
        return []

    def added(name):
        return max(found[name]["with"][1] - found[name]["without"][1], 0)

    parts = [
        ("router", added("router and all below")),
        ("provider itself", added("provider and all below")),
        ("platform (lines, registry, random numbers)", added("platform and token")),
        ("soft token", found["platform and token"]["without"][1]),
    ]
    total = sum(value for _, value in parts)
    lines = [f"A signature from NCryptSignHash to the soft token takes {number(total)} µs:", "",
             "| layer | µs | share |", "|---|---|---|"]
    # Differences of two medians: what is below the noise is told as such.
    for name, value in parts:
        lines.append(f"| {name} | {number(value) if value > 0 else 'not measurable'} | {value / total:.1%} |")
    return [*lines, ""]


def main():
    lines, folder = sys.argv[1:]
    with open(lines, encoding="utf-8") as source:
        records = merged(source)
    about = machine()
    with open(f"{folder}/results.json", "w", encoding="utf-8") as out:
        json.dump({"machine": about, "unit": "microseconds; [lower quartile, median, upper quartile]",
                   "results": records}, out, indent=1)
        out.write("\n")
    text = [f"{about['date']}; {about['processor']}, {about['processors']} processors (load {about['load']:.1f}); "
            f"{about['system']}.", ""]
    text += table(records, "entry", ("entry", "log"), lambda row: (row["name"], log(row)))
    text += table(records, "keys", ("what", "keys", "log"), lambda row: (row["name"], f"{row['keys']:,}", log(row)))
    text += table(records, "threads", ("signatures", "threads"), lambda row: (row["name"], str(row["threads"])))
    for row in (record for record in records if record["kind"] == "load"):
        text += [f"Loading and unloading the DLL takes {number(row['provider'][1])} µs, an empty one "
                 f"{number(row['empty'][1])} µs.", ""]
    text += layers(records)
    with open(f"{folder}/table.md", "w", encoding="utf-8") as out:
        out.write("\n".join(text))

    with open(f"{folder}/entries.dat", "w", encoding="utf-8") as out:
        for row in records:
            if row["kind"] == "entry" and not row["log"] and "ratio" in row:
                out.write(f"\"{row['name']}\" {row['ratio'][1]} {row['ratio'][0]} {row['ratio'][2]}\n")
    with open(f"{folder}/keys.dat", "w", encoding="utf-8") as out:
        for name in sorted({row["name"] for row in records if row["kind"] == "keys"}):
            out.write(f"\"{name}\"\n")
            for row in records:
                if row["kind"] == "keys" and row["name"] == name and not row["log"]:
                    out.write(f"{row['keys']} {row['provider'][1]} {row['demanded'][1]} {row['own'][1]}\n")
            out.write("\n\n")


main()
