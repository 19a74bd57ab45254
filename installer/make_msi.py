#!/usr/bin/env python3
"""make_msi.py ARCH VERSION FILE_VERSION FILES ACTIONS ICON MSI: makes a package of Windows Installer.

FILE_VERSION is what DLLs and programs say of themselves, FILES is a folder with what is laid down, ACTIONS the DLL with the
custom actions. wixl packs the files; the tables that it knows nothing of, or too little, are imported afterwards. The same
input gives the same bytes; times are SOURCE_DATE_EPOCH."""

import hashlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import uuid
from xml.sax.saxutils import quoteattr

HERE = pathlib.Path(__file__).resolve().parent
# Never to be changed: Windows knows older versions of the product by what is derived from it.
FAMILY = uuid.UUID("6f0f6a55-2c5c-4b58-9b3c-5a2b5f7c6a10")

# How Windows Installer writes down what a custom action is.
DLL = 1
SET_PROPERTY = 51
GO_ON = 64  # a failure is no failure of the installation
ROLLBACK, COMMIT, DEFERRED = 0x100 + 0x400, 0x200 + 0x400, 0x400
AS_SYSTEM = 0x800

CLIENT = "CLIENT=[INSTALLDIR]keldactl.exe"
SETTINGS = CLIENT + "|PINCACHE=[PINCACHE]|PROVIDERCACHE=[PROVIDERCACHE]|KEYLENGTH=[KEYLENGTH]|LOGFILE=[LOGFILE]"

LAYING_DOWN = 'NOT (REMOVE~="ALL")'
# Anybody may ask for a repair, and with any properties: it makes no settings, and takes place where the product is.
FIRST = "NOT Installed"
KEPT_PLACE = "PREVIOUSDIR AND (Installed OR NOT INSTALLDIR)"
# The version that comes after an upgrade finds everything as it is.
TAKING_AWAY = 'REMOVE~="ALL" AND NOT UPGRADINGPRODUCTCODE'

# Name, kind, data, place in the sequence, condition. 4000 is InstallFiles, 3500 RemoveFiles, 6600 InstallFinalize.
ACTIONS = [
    ("RestoreBeforeRemoval", ROLLBACK | GO_ON, "RestoreRegistration", CLIENT, 1610, TAKING_AWAY),
    ("SaveBeforeRemoval", DEFERRED, "SaveRegistration", "", 1620, TAKING_AWAY),
    ("RemoveSettings", DEFERRED | GO_ON, "RemoveSettings", "", 1630, TAKING_AWAY),
    ("UnregisterProvider", DEFERRED, "UnregisterProvider", CLIENT, 1640, TAKING_AWAY),
    ("RestoreRegistration", ROLLBACK | GO_ON, "RestoreRegistration", CLIENT, 6010, LAYING_DOWN),
    ("SaveRegistration", DEFERRED, "SaveRegistration", "", 6020, LAYING_DOWN),
    ("RegisterProvider", DEFERRED, "RegisterProvider", CLIENT, 6030, LAYING_DOWN),
    ("ApplySettings", DEFERRED, "ApplySettings", SETTINGS, 6040, FIRST),
    ("CheckTokenModule", DEFERRED | GO_ON, "CheckTokenModule", CLIENT, 6050, LAYING_DOWN),
    ("ForgetSavedRegistration", COMMIT | GO_ON, "ForgetSavedRegistration", "", 6060, ""),
]

PROPERTIES = {
    "ALLUSERS": "1",
    "ARPPRODUCTICON": "kelda.ico",
    "ARPNOMODIFY": "1",
    "ARPCONTACT": "Norvale Token Works Ltd.",
    "SecureCustomProperties": "INSTALLDIR;PINCACHE;PROVIDERCACHE;KEYLENGTH;LOGFILE;OLDERVERSION;NEWERVERSION",
    "DISABLEADVTSHORTCUTS": "1",
    # Conditions have no other way to speak of it.
    "QuotationMark": '"',
}


def guid(*words):
    return "{" + str(uuid.uuid5(FAMILY, "/".join(words))).upper() + "}"


def program_files(arch):
    return "ProgramFiles64Folder" if arch == "x64" else "ProgramFilesFolder"


def on_or_off(name):
    return (f'NOT {name} OR {name}~="on" OR {name}~="off"', f"{name} has to be on or off; it is [{name}].")


def is_path(name):
    """What no path has, or what ends a word of a command line or of an action's data."""
    marks = ["QuotationMark"] + [f'"{mark}"' for mark in "|<>*?"]
    return (f"NOT {name} OR NOT (" + " OR ".join(f"{name}><{mark}" for mark in marks) + ")",
            f'{name} is no path, because of one of the characters " | < > * ?; it is [{name}].')


def conditions(arch):
    programs = program_files(arch)
    lengths = " OR ".join(f'KEYLENGTH="{bits}"' for bits in (1024, 2048, 3072, 4096))
    found = [
        ("NOT NEWERVERSION OR Installed", "A newer version of [ProductName] is installed. Remove it first."),
        ("VersionNT >= 601", "[ProductName] needs Windows 7 or later."),
        on_or_off("PINCACHE"),
        on_or_off("PROVIDERCACHE"),
        (f"NOT KEYLENGTH OR {lengths}", "KEYLENGTH has to be 1024, 2048, 3072 or 4096; it is [KEYLENGTH]."),
        ('NOT LOGFILE OR LOGFILE~="off" OR LOGFILE><":\\" OR LOGFILE<<"\\\\"',
         "LOGFILE has to be a path with its drive, or off; it is [LOGFILE]."),
        ('NOT LOGFILE OR NOT (LOGFILE>>"\\")', "LOGFILE has to be a file, not a folder; it is [LOGFILE]."),
        is_path("LOGFILE"),
        is_path("INSTALLDIR"),
        # keldactl is run from there with the system's rights, at a repair by anybody's wish, and the folder is on everybody's
        # PATH: none but administrators may change anything in it or above it.
        (f'REMOVE~="ALL" OR NOT INSTALLDIR OR (INSTALLDIR~<<{programs} AND NOT (INSTALLDIR><".."))',
         f"INSTALLDIR has to be a folder in [{programs}], which only administrators may change; it is [INSTALLDIR]."),
    ]
    if arch == "x86":
        found.append(("NOT VersionNT64", "This is the package for 32-bit Windows; 64-bit Windows needs the x64 package, "
                      "which serves 32-bit programs too."))
    return found


def sequence():
    rows = [(name, condition, place) for name, _, _, _, place, condition in ACTIONS]
    # What an action is to be told is fixed just before it.
    rows += [("Tell" + name, condition, place - 5) for name, _, _, data, place, condition in ACTIONS if data]
    rows.append(("KeepPlace", KEPT_PLACE, 60))
    rows.append(("TellPlace", "", 1010))
    return rows


def custom_actions():
    rows = [(name, DLL | AS_SYSTEM | kind, "Actions", entry) for name, kind, entry, _, _, _ in ACTIONS]
    rows += [("Tell" + name, SET_PROPERTY, name, data) for name, _, _, data, _, _ in ACTIONS if data]
    rows.append(("KeepPlace", SET_PROPERTY, "INSTALLDIR", "[PREVIOUSDIR]"))
    rows.append(("TellPlace", SET_PROPERTY, "ARPINSTALLLOCATION", "[INSTALLDIR]"))
    return rows


STANDARD_SEQUENCE = [
    ("AppSearch", "", 50), ("FindRelatedProducts", "", 25), ("LaunchConditions", "", 100), ("ValidateProductID", "", 700),
    ("CostInitialize", "", 800), ("FileCost", "", 900), ("CostFinalize", "", 1000), ("InstallValidate", "", 1400),
    ("InstallInitialize", "", 1500), ("RemoveExistingProducts", "", 1525), ("ProcessComponents", "", 1600),
    ("UnpublishFeatures", "", 1800), ("RemoveRegistryValues", "", 2600), ("RemoveEnvironmentStrings", "", 3300),
    ("RemoveFiles", "", 3500), ("RemoveFolders", "", 3600), ("CreateFolders", "", 3700), ("InstallFiles", "", 4000),
    ("WriteRegistryValues", "", 5000), ("WriteEnvironmentStrings", "", 5200), ("RegisterUser", "", 6070),
    ("RegisterProduct", "", 6100), ("PublishFeatures", "", 6300), ("PublishProduct", "", 6400),
    ("InstallFinalize", "", 6600)
]
USER_INTERFACE_SEQUENCE = [
    ("FindRelatedProducts", "", 25), ("AppSearch", "", 50), ("KeepPlace", KEPT_PLACE, 60), ("LaunchConditions", "", 100),
    ("ValidateProductID", "", 700), ("CostInitialize", "", 800), ("FileCost", "", 900), ("CostFinalize", "", 1000),
    ("ExecuteAction", "", 1300)
]


def tables(arch, version):
    """Name of a table: its columns (names and types), its keys, its rows."""
    three = ".".join(version.split(".")[:3])
    upgrade = guid("upgrade", arch)
    # 64-bit registry: 16 is the bit for it.
    locator = 2 | (16 if arch == "x64" else 0)
    return {
        "CustomAction": ("Action Type Source Target", "s72 i2 S72 S255", "Action", custom_actions()),
        "InstallExecuteSequence": ("Action Condition Sequence", "s72 S255 I2", "Action", STANDARD_SEQUENCE + sequence()),
        "InstallUISequence": ("Action Condition Sequence", "s72 S255 I2", "Action", USER_INTERFACE_SEQUENCE),
        "LaunchCondition": ("Condition Description", "s255 l255", "Condition", conditions(arch)),
        # "=-" sets for the machine and takes away on removal, "*" means the machine; "[~];" appends.
        "Environment": ("Environment Name Value Component_", "s72 l255 L255 s72", "Environment",
                        [("Path", "=-*PATH", "[~];[INSTALLDIR]", "Client")]),
        "RegLocator": ("Signature_ Root Key Name Type", "s72 i2 s255 S255 I2", "Signature_",
                       [("PreviousDir", 2, "Software\\Norvale Token Works Ltd.\\Setup", "InstallDir", locator)]),
        "AppSearch": ("Property Signature_", "s72 s72", "Property\tSignature_", [("PREVIOUSDIR", "PreviousDir")]),
        # Versions are compared by three numbers: one that differs in the fourth replaces the other (512: including the
        # limit), in either direction. 2 finds without removing, 1 keeps the states of features.
        "Upgrade": ("UpgradeCode VersionMin VersionMax Language Attributes Remove ActionProperty",
                    "s38 S20 S20 S255 i4 S255 s72", "UpgradeCode\tVersionMin\tVersionMax\tLanguage\tAttributes",
                    [(upgrade, "", three, "", 1 + 512, "", "OLDERVERSION"), (upgrade, three, "", "", 2, "", "NEWERVERSION")]),
        "Property": ("Property Value", "s72 l0", "Property", sorted(PROPERTIES.items())),
    }


def idt(name, columns, types, keys, rows):
    lines = [columns.replace(" ", "\t"), types.replace(" ", "\t"), name + "\t" + keys.replace(" ", "\t")]
    lines += ["\t".join(str(cell) for cell in row) for row in rows]
    return "".join(line + "\r\n" for line in lines)


def documents(folder, arch, win64):
    """The documents, a component for each folder, as a piece of product.wxs."""
    groups = {}
    for file in sorted(folder.rglob("*")):
        relative = file.relative_to(folder)
        if file.is_file() and relative.parts[0] not in ("x86", "keldaksp.dll", "keldactl.exe"):
            groups.setdefault(relative.parent, []).append(relative)
    text, references, number = [], [], 0

    def component(parent, files):
        nonlocal number
        name = "Documents" + str(len(references))
        references.append(name)
        text.append(f'<Component Id="{name}" Guid="{guid("documents", arch, str(parent))}" Win64="{win64}">')
        for position, file in enumerate(files):
            key = ' KeyPath="yes"' if position == 0 else ""
            source = quoteattr("files/" + file.as_posix())
            text.append(f'<File Id="Document{number}" Name={quoteattr(file.name)} Source={source}{key} />')
            number += 1
        text.append("</Component>")

    def folders_below(parent):
        if parent in groups:
            component(parent, groups[parent])
        for child in sorted({p for p in groups if p.parent == parent and p != parent}):
            identifier = "Folder" + hashlib.sha256(str(child).encode()).hexdigest()[:8]
            text.append(f'<Directory Id="{identifier}" Name={quoteattr(child.name)}>')
            folders_below(child)
            text.append("</Directory>")

    folders_below(pathlib.Path("."))
    return text, references


def run(*words, folder=None):
    subprocess.run([str(word) for word in words], check=True, cwd=folder)


def exported(msi, name):
    text = subprocess.run(["msiinfo", "export", msi, name], check=True, capture_output=True, text=True).stdout
    return [line.split("\t") for line in text.splitlines()[3:]]


def replace_table(msi, name, text):
    run("msibuild", msi, "-q", f"DROP TABLE `{name}`") if name in existing_tables(msi) else None
    file = msi.with_name(name + ".idt")
    file.write_bytes(text.encode("cp1252"))
    run("msibuild", msi, "-i", file)


def existing_tables(msi):
    return subprocess.run(["msiinfo", "tables", msi], check=True, capture_output=True, text=True).stdout.split()


def give_versions(msi, version):
    """Windows replaces a file that has a version only by one that has a version too; wixl sees none."""
    programs = ("Provider", "Provider32", "Client", "Client32")
    files = exported(msi, "File")
    for row in files:
        if row[0] in programs:
            row[4:6] = version, "1033"
    replace_table(msi, "File", idt("File", "File Component_ FileName FileSize Version Language Attributes Sequence",
                                   "s72 s72 l255 i4 S72 S20 I2 i4", "File", files))
    hashes = [row for row in exported(msi, "MsiFileHash") if row[0] not in programs]
    replace_table(msi, "MsiFileHash", idt("MsiFileHash", "File_ Options HashPart1 HashPart2 HashPart3 HashPart4",
                                          "s72 i2 i4 i4 i4 i4", "File_", hashes))


def digest_of(paths):
    digest = hashlib.sha256()
    for path in paths:
        digest.update(str(path.name).encode() + b"\0" + path.read_bytes())
    return digest.hexdigest()


def main():
    arch, version, file_version, files, actions, icon, msi = sys.argv[1:]
    epoch = int(os.environ["SOURCE_DATE_EPOCH"])
    files, actions, icon, msi = (pathlib.Path(p).resolve() for p in (files, actions, icon, msi))
    win64 = "yes" if arch == "x64" else "no"
    content = sorted(p for p in files.rglob("*") if p.is_file())
    overlong = [condition for condition, text in conditions(arch) if max(len(condition), len(text)) > 255]
    if overlong:
        sys.exit(f"longer than a column of the table: {overlong}")
    mark = digest_of(content + [actions, icon, HERE / "product.wxs", HERE / "make_msi.py"])
    with tempfile.TemporaryDirectory() as work:
        work = pathlib.Path(work)
        # wixl takes names relative to its folder only, and writes down the files' times.
        shutil.copytree(files, work / "files")
        shutil.copy(actions, work / "actions.dll")
        shutil.copy(icon, work / "kelda.ico")
        for path in work.rglob("*"):
            os.utime(path, (epoch, epoch))
        text, references = documents(files, arch, win64)
        group = [f'<ComponentRef Id="{name}" />' for name in references]
        product = (HERE / "product.wxs").read_text(encoding="utf-8")
        product = product.replace("<!-- documents -->", "\n".join(text))
        product = product.replace('<ComponentGroupRef Id="Documents" />', "\n".join(group))
        (work / "product.wxs").write_text(product, encoding="utf-8")
        variables = {
            "Arch": arch, "Version": version, "Win64": win64,
            "System": "System64Folder" if arch == "x64" else "SystemFolder",
            "ProgramFiles": program_files(arch), "Files": "files", "Actions": "actions.dll", "Icon": "kelda.ico",
            "ProductCode": guid("product", arch, version, mark), "UpgradeCode": guid("upgrade", arch),
            "ProviderGuid": guid("provider", arch), "Provider32Guid": guid("provider32", arch), "ClientGuid": guid("client", arch),
            "Client32Guid": guid("client32", arch)
        }
        defines = [word for name, value in variables.items() for word in ("-D", f"{name}={value}")]
        fresh = work / "package.msi"
        run("wixl", "-a", arch, *defines, "-o", fresh, "product.wxs", folder=work)
        for name, (columns, types, keys, rows) in tables(arch, version).items():
            if name == "Property":
                rows = sorted(dict([tuple(row) for row in exported(fresh, name)] + rows).items())
            replace_table(fresh, name, idt(name, columns, types, keys, rows))
        give_versions(fresh, file_version)
        platform = "x64;1033" if arch == "x64" else "Intel;1033"
        run("msibuild", fresh, "-s", "Norvale Token Works KSP", "Norvale Token Works Ltd.", platform,
            guid("package", arch, version, mark))
        settle(fresh, epoch)
        msi.write_bytes(fresh.read_bytes())


def settle(msi, epoch):
    """Puts `epoch` in the place of the two times of making in the package's description (100 ns since 1601, behind the number
    of their type)."""
    to_windows = lambda seconds: (seconds + 11644473600) * 10_000_000
    data = bytearray(msi.read_bytes())
    earliest, latest = to_windows(int(time.time()) - 3600), to_windows(int(time.time()) + 3600)
    mark = (64).to_bytes(4, "little")
    places, place = [], data.find(mark)
    while place >= 0:
        if earliest <= int.from_bytes(data[place + 4:place + 12], "little") <= latest:
            places.append(place + 4)
        place = data.find(mark, place + 1)
    if len(places) != 2:
        sys.exit(f"{msi}: expected the times of making and of changing, found {len(places)} times")
    for place in places:
        data[place:place + 8] = to_windows(epoch).to_bytes(8, "little")
    msi.write_bytes(data)


if __name__ == "__main__":
    main()
