#!/usr/bin/env python3
"""check-docs.py: holds the pages against what they speak of.

Fails when a page links to a file or heading that is not there, names a path, a script, one of its options, a command or an
option of keldactl that does not exist, tells another number for a status than Windows' headers, or quotes a line of the log
that no source writes; when docs/registry.md or docs/statuses.md and the sources differ in what values and statuses there
are; and when docs/building.md leaves out a script or a variable. Before, each check is shown an error of each of its kinds, and
the program fails when one is not found.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCS = ROOT / "docs"
SCRIPTS = ROOT / "scripts"
HEADER = pathlib.Path("/usr/share/mingw-w64/include/winerror.h")
SMART_CARD_HEADER = HEADER.with_name("scarderr.h")

FENCE = re.compile(r"^( *)```(\w*)\n(.*?)^\1```$", re.M | re.S)
SPAN = re.compile(r"`([^`\n]+)`")
LINK = re.compile(r"\]\(([^)\s]+)\)")
PATH = re.compile(r"(?:src|tests|scripts|tools|standins|fuzz|bench|installer|docs|cmake|\.ci)/[\w./+-]*")
OPTION = re.compile(r"(?<![\w-])--[a-z][\w-]*")
STATUS = re.compile(r"\b(?:NTE|SCARD_[EFW]|ERROR|STATUS)_[A-Z_]+\b")
LITERAL = re.compile(r'(?:\bL)?"((?:\\.|[^"\\\n])*)"')
# Tools of Windows and of others that pages call in one breath with the log's lines.
OTHER_PROGRAMS = ("keldactl ", "net ", "sc ", "tasklist ")

# Made when there is something to put there.
MAY_BE_MISSING = {"fuzz/found"}

problems = []


def report(page, text):
    problems.append(f"{page.relative_to(ROOT)}: {text}")


def files(*patterns):
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", *patterns],
                            cwd=ROOT, capture_output=True, text=True, check=True)
    return [ROOT / name for name in listed.stdout.splitlines() if (ROOT / name).is_file()]


def text_of(*patterns):
    return "\n".join(file.read_text() for file in files(*patterns))


def literals(text):
    """The string literals of sources, without prefixes and escapes; adjacent ones are joined as well."""
    text = re.sub(r"//[^\n]*", "", text)
    joined = re.sub(r'"\s*\n\s*"', "", text)
    plain = {"n": "", "t": "\t", "\\": "\\", '"': '"'}
    return {re.sub(r"\\(.)", lambda escape: plain.get(escape.group(1), escape.group()), literal)
            for source in (text, joined) for literal in LITERAL.findall(source)}


def anchors(page):
    """The headings of a page as links name them."""
    found = set()
    for heading in re.findall(r"^#+ (.*)$", FENCE.sub("", page.read_text()), re.M):
        slug = re.sub(r"[^\w\- ]", "", re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()).replace(" ", "-")
        same = sum(1 for other in found if re.fullmatch(re.escape(slug) + r"(-\d+)?", other))
        found.add(f"{slug}-{same}" if same else slug)
    return found


def check_links(page, text):
    for link in LINK.findall(SPAN.sub("", FENCE.sub("", text))):
        if re.match(r"\w+:", link):
            continue
        name, _, anchor = link.partition("#")
        target = (page.parent / name) if name else page
        if not target.exists():
            report(page, f"links to {name}, which is not there")
        elif anchor and anchor not in anchors(target):
            report(page, f"links to {link}, which has no such heading")


def codes(text):
    """Everything in a page that is set as code: lines of blocks and spans."""
    for _, _, block in FENCE.findall(text):
        yield from block.splitlines()
    yield from SPAN.findall(FENCE.sub("", text))


def check_paths(page, text):
    sources = [str(file.relative_to(ROOT)) for file in files("src", "tests", "tools", "standins")]
    for code in codes(text):
        if re.fullmatch(r"[a-z_]+(/[a-z_]+)+\.(h|cpp)", code) and not PATH.match(code):
            if not any(source.endswith("/" + code) for source in sources):
                report(page, f"names {code}, which is not there")
        for match in PATH.finditer(code):
            before, after = code[:match.start()], code[match.end():]
            # Patterns, and paths below other folders.
            if re.search(r"[\w/*<>.-]$", before) or re.match(r"[*<…{]", after):
                continue
            if match.group() not in MAY_BE_MISSING and not (ROOT / match.group().rstrip(".")).exists():
                report(page, f"names {match.group()}, which is not there")


def check_scripts(page, text):
    for code in codes(text):
        for name in re.findall(r"(?<![\w/.<-])([\w-]+\.(?:sh|py))\b", code):
            if not (SCRIPTS / name).exists():
                report(page, f"names the script {name}, which is not there")
        for name, words in re.findall(r"scripts/([\w-]+\.sh)([^|;&\n)]*)", code):
            known = (SCRIPTS / name).read_text() if (SCRIPTS / name).exists() else ""
            for option in OPTION.findall(words):
                if option not in known and option != "--help" and not option.startswith("--gtest"):
                    report(page, f"gives {name} the option {option}, which it does not know")


def check_keldactl(page, text, sources):
    commands = set(re.findall(r'Add<\w+>\(Heading::\w+, "([\w-]+)"', sources)) | {"help"}
    for code in codes(text):
        # keldactl's own help begins with a sentence about itself.
        if code.endswith("."):
            continue
        for command, words in re.findall(r"(?:^|[>|(:;,] ?|^> )keldactl ([a-z]+)\b(?!:)([^|;\n]*)", code):
            if command not in commands:
                report(page, f"gives keldactl the command {command}, which it does not know")
            for option in OPTION.findall(words):
                if f'"{option}"' not in sources and option != "--help":
                    report(page, f"gives keldactl {command} the option {option}, which it does not know")


def numbers_of_statuses():
    numbers = {}
    for header in (HEADER, SMART_CARD_HEADER):
        if header.exists():
            for name, number in re.findall(r"#define\s+(\w+)\s+(?:\(?_\w+\(|\(\(\w+\))?(0x[0-9A-Fa-f]{8}|\d+)",
                                           header.read_text(errors="replace")):
                numbers[name] = int(number, 0)
    return numbers


def check_numbers(page, text, numbers):
    told = re.findall(r"`(\w+)` \| (0x[0-9A-Fa-f]{8}|\d+) \|", text)
    told += re.findall(r"\b([A-Z]+_[A-Z_]+)`? \((0x[0-9A-Fa-f]{8})\)", text)
    for name, number in told:
        if name in numbers and numbers[name] != int(number, 0):
            report(page, f"says that {name} is {number}, which is 0x{numbers[name]:08X}")


def check_log_lines(page, text, lines):
    """Lines in blocks marked "log"; on the page for those who look for a fault every span of several words as well."""
    quoted = [line for _, kind, block in FENCE.findall(text) if kind == "log" for line in block.splitlines()]
    if page.name == "troubleshooting.md":
        quoted += [span for span in SPAN.findall(FENCE.sub("", text))
                   if " " in span and not span.startswith(OTHER_PROGRAMS)]
    formats = [re.compile(re.sub(r"%\w+", ".+", re.escape(line))) for line in lines
               if re.search(r"%\w", line) and len(re.sub(r"%\w+", "", line).strip()) > 5]
    for quote in quoted:
        said = quote.replace("…", "").strip()
        whole = any(said in line for line in lines)
        # A line's text, and the value that is put behind it.
        valued = any(said.startswith(line.rstrip()) and (line.endswith((": ", "= ", "- ")) or said[len(line):][:2] == ": ")
                     for line in lines if len(line) > 5)
        if not (whole or valued or any(form.fullmatch(said) for form in formats)):
            report(page, f'quotes "{quote}", which no source writes')


def check_registry(page, text, sources, others):
    told = {span.rsplit("\\", 1)[-1] for row in re.findall(r"^\| (`[^|]*`) \| REG_|^\| (`[^|]*`) \|", text, re.M)
            for cell in row for span in SPAN.findall(cell)}
    read = set(re.findall(r'RegGetValueW\([^;]*?L"([^"]+)"', sources))
    for value in sorted(read - told):
        report(page, f"leaves out {value}, which the provider reads")
    for value in sorted(told - read):
        if f'L"{value}"' not in others:
            report(page, f"tells of {value}, which nothing reads or writes")
    for key in re.findall(r'Key\[\]\s*=\s*L"([^"]+)"', sources):
        if key.replace("\\\\", "\\").lower() not in text.lower():
            report(page, f"leaves out the key {key}")


def check_statuses(page, text, sources):
    told = set(STATUS.findall(text))
    code = re.sub(r"//[^\n]*", "", LITERAL.sub('""', sources))
    known = set(STATUS.findall(code))
    used = set(STATUS.findall(re.sub(r"static_assert[^;]*;", "", code)))
    for name in sorted(name for name in used - told if name.startswith("NTE_")):
        report(page, f"leaves out {name}, which the provider uses")
    # The router's own family stands in the sources by its number only.
    for name in sorted(name for name in told - known if not name.startswith("STATUS_")):
        report(page, f"tells of {name}, which the provider does not use")


def check_building(page, text):
    scripts = files("scripts/*.sh")
    for script in scripts:
        if script.name not in text:
            report(page, f"leaves out {script.name}")
        head = script.read_text().split("\n", 2)[1]
        if not head.startswith(f"# {script.name}") and script.name != "lib.sh":
            report(script, "its comment, which is its --help, does not begin with its name")
    for name in sorted(set(re.findall(r"\$\{(KELDA_\w+)(?::?-)", text_of("scripts/*.sh")))):
        if name not in text:
            report(page, f"leaves out the variable {name}")


def planted(checks):
    """Errors, a text and what is reported of it, for each check."""
    errors = [
        (check_links, "[a](nowhere.md)", "links to nowhere.md"),
        (check_links, "# One\n[a](building.md#nowhere)", "has no such heading"),
        (check_links, "[a](#nowhere)", "has no such heading"),
        (check_paths, "`src/nowhere/none.cpp`", "names src/nowhere/none.cpp"),
        (check_paths, "`nowhere/none.cpp`", "names nowhere/none.cpp"),
        (check_scripts, "`nowhere.sh`", "names the script nowhere.sh"),
        (check_scripts, "```sh\nscripts/build.sh --nowhere x64\n```", "gives build.sh the option --nowhere"),
        (check_keldactl, "```\nkeldactl nowhere\n```", "the command nowhere"),
        (check_keldactl, "`keldactl sign --nowhere FILE`", "gives keldactl sign the option --nowhere"),
        (check_numbers, "| `NTE_FAIL` | 0x80090021 |", "which is 0x80090020"),
        (check_numbers, "`NTE_FAIL` (0x80090021)", "which is 0x80090020"),
        (check_log_lines, "```log\nNobody writes this line\n```", 'quotes "Nobody writes'),
        (check_registry, "| `NOWHERE` | REG_SZ |", "tells of NOWHERE"),
        (check_registry, "| `KSPDIR` | REG_SZ |", "leaves out PINCACHE"),
        (check_registry, "", "leaves out the key"),
        (check_statuses, "", "leaves out NTE_INVALID_HANDLE"),
        (check_statuses, "`NTE_NOWHERE`", "tells of NTE_NOWHERE"),
        (check_building, "KELDA_BUILD", "leaves out test.sh"),
        (check_building, "build.sh", "leaves out the variable KELDA_BUILD"),
    ]
    for check, text, expected in errors:
        checks[check](DOCS / "troubleshooting.md", text)
        if not any(expected in problem for problem in problems):
            yield f"{check.__name__} does not see what is wrong with {text!r}: {problems}"
        problems.clear()
    for check in set(checks) - {check for check, _, _ in errors}:
        yield f"{check.__name__} was shown no error"


def main():
    source = text_of("src/*.cpp", "src/*.h")
    tools = text_of("tools/keldactl/*.cpp", "tools/keldactl/*.h")
    others = tools + text_of("standins/*.cpp", "standins/*.h")
    lines = {line for line in literals(source) if len(line) > 3}
    numbers = numbers_of_statuses()
    every_page = {
        check_links: check_links,
        check_paths: check_paths,
        check_scripts: check_scripts,
        check_keldactl: lambda page, text: check_keldactl(page, text, tools),
        check_numbers: lambda page, text: check_numbers(page, text, numbers),
        check_log_lines: lambda page, text: check_log_lines(page, text, lines),
    }
    one_page = {
        check_registry: lambda page, text: check_registry(page, text, source, others),
        check_statuses: lambda page, text: check_statuses(page, text, source),
        check_building: check_building,
    }
    blind = list(planted(every_page | one_page))
    for page in files("*.md"):
        for check in every_page.values():
            check(page, page.read_text())
    for check, name in ((check_registry, "registry.md"), (check_statuses, "statuses.md"), (check_building, "building.md")):
        one_page[check](DOCS / name, (DOCS / name).read_text())
    print("\n".join(blind + problems))
    return 1 if blind or problems else 0


if sys.argv[1:] == ["--help"]:
    print(__doc__)
    sys.exit()
sys.exit(main())
