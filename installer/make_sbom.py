#!/usr/bin/env python3
"""make_sbom.py VERSION COMMIT FOLDER FILE ARCH...: writes the bill of materials (SPDX 2.3) of what FOLDER/ARCH holds: each
file with its hashes, and what has been compiled into the programs, with the versions of Debian's packages."""

import datetime
import hashlib
import json
import os
import pathlib
import subprocess
import sys
import uuid

# Debian's package, what it is to the product, its licence.
PARTS = [
    ("g++-mingw-w64-x86-64-posix", "the C++ runtime library, linked statically", "GPL-3.0-or-later WITH GCC-exception-3.1"),
    ("g++-mingw-w64-i686-posix", "the C++ runtime library, linked statically", "GPL-3.0-or-later WITH GCC-exception-3.1"),
    ("mingw-w64-x86-64-dev", "the C runtime's start-up code and winpthreads", "ZPL-2.1 AND MIT"),
    ("mingw-w64-i686-dev", "the C runtime's start-up code and winpthreads", "ZPL-2.1 AND MIT"),
    ("libp11-kit-dev", "the types of PKCS#11 2.40, a header", "BSD-3-Clause"),
    ("libcli11-dev", "keldactl's command line, headers", "BSD-3-Clause"),
    ("nlohmann-json3-dev", "keldactl's JSON output, headers", "MIT"),
]


def version_of(package):
    answer = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], capture_output=True, text=True, check=False)
    return answer.stdout if answer.returncode == 0 else ""


def main():
    version, commit, folder, target, archs = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3]), sys.argv[4], sys.argv[5:]
    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    files, relations = [], [("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-Product")]
    for arch in archs:
        for path in sorted(p for p in (folder / arch).rglob("*") if p.is_file()):
            content = path.read_bytes()
            identifier = f"SPDXRef-File-{len(files)}"
            files.append({
                "SPDXID": identifier,
                "fileName": f"./{arch}/{path.relative_to(folder / arch).as_posix()}",
                "checksums": [{"algorithm": "SHA1", "checksumValue": hashlib.sha1(content).hexdigest()},
                              {"algorithm": "SHA256", "checksumValue": hashlib.sha256(content).hexdigest()}],
                "licenseConcluded": "NOASSERTION",
                "copyrightText": "NOASSERTION",
            })
            relations.append(("SPDXRef-Product", "CONTAINS", identifier))
    # SPDX 2.3, 7.9: the hash of the files' hashes in their order.
    hashes = "".join(sorted(file["checksums"][0]["checksumValue"] for file in files))
    packages = [{
        "SPDXID": "SPDXRef-Product",
        "name": "Norvale Token Works KSP",
        "versionInfo": version,
        "supplier": "Organization: Norvale Token Works Ltd.",
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": True,
        "packageVerificationCode": {"packageVerificationCodeValue": hashlib.sha1(hashes.encode()).hexdigest()},
        "licenseConcluded": "NOASSERTION",
        "licenseDeclared": "NOASSERTION",
        "licenseInfoFromFiles": ["NOASSERTION"],
        "copyrightText": "NOASSERTION",
        "comment": f"Built from commit {commit}",
    }]
    for number, (package, what, licence) in enumerate(PARTS):
        identifier = f"SPDXRef-Part-{number}"
        packages.append({
            "SPDXID": identifier,
            "name": package,
            "versionInfo": version_of(package),
            "supplier": "Organization: Debian",
            "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False,
            "licenseConcluded": "NOASSERTION",
            "licenseDeclared": licence,
            "copyrightText": "NOASSERTION",
            "comment": what,
        })
        relations.append((identifier, "STATIC_LINK" if "linked" in what else "BUILD_DEPENDENCY_OF", "SPDXRef-Product"))
    document = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"keldaksp-{version}",
        "documentNamespace": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_OID, version + commit + hashes)}",
        "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: make_sbom.py"]},
        "packages": packages,
        "files": files,
        "relationships": [{"spdxElementId": a, "relationshipType": kind, "relatedSpdxElement": b}
                          for a, kind, b in relations],
    }
    pathlib.Path(target).write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main()
