#!/usr/bin/env python3
"""make_zip.py FOLDER TOP FILE: packs FOLDER as the folder TOP of a zip archive. The files' order and times, the commit's
(SOURCE_DATE_EPOCH), are the same at any time."""

import os
import pathlib
import sys
import time
import zipfile


def main():
    folder, top, target = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3]
    when = time.gmtime(int(os.environ["SOURCE_DATE_EPOCH"]))[:6]
    with zipfile.ZipFile(target, "w") as archive:
        for file in sorted(folder.rglob("*")):
            if not file.is_file():
                continue
            entry = zipfile.ZipInfo(f"{top}/{file.relative_to(folder).as_posix()}", when)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.external_attr = 0o100644 << 16
            archive.writestr(entry, file.read_bytes())


if __name__ == "__main__":
    main()
