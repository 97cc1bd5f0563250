#!/usr/bin/env python3
"""The "Localizable" tables against each other and against the code.

Every language's table holds exactly the English table's keys, each with a
finished, non-empty text that takes the same numbered placeholders (%1, %2) as
the English one; and every key the library's code looks up is in the English
table. Usage: check_stringtables.py <source root>. Exit status 1 on any fault,
each printed on its own line.
"""
import pathlib
import re
import sys
import xml.etree.ElementTree as ET

# Upper-case literals in the looking-up files that are not table keys.
NOT_KEYS = {"GET", "S256"}

KEY_LITERAL = re.compile(r'"([A-Z][A-Z0-9]*(?:_[A-Z0-9]+)*)"')
PLACEHOLDER = re.compile(r"%(\d+)")


def read_table(path):
    """The table's texts by key, and the faults of the file itself."""
    faults = []
    texts = {}
    for context in ET.parse(path).getroot().iter("context"):
        if context.findtext("name") != "Localizable":
            faults.append(f"{path.name}: context {context.findtext('name')!r} is not Localizable")
            continue
        for message in context.iter("message"):
            key = message.findtext("source")
            translation = message.find("translation")
            if key in texts:
                faults.append(f"{path.name}: {key} appears twice")
            if translation is None or not (translation.text or "").strip():
                faults.append(f"{path.name}: {key} has no text")
            elif translation.get("type") in ("unfinished", "vanished", "obsolete"):
                faults.append(f"{path.name}: {key} is {translation.get('type')}")
            texts[key] = "" if translation is None else (translation.text or "")
    return texts, faults


def keys_in_code(source_dir):
    """Key literals, with where each is, in the files that use the lookup."""
    found = {}
    for path in sorted(source_dir.rglob("*")):
        if path.suffix not in (".cpp", ".h") or path.parent.name == "resources":
            continue
        code = path.read_text(encoding="utf-8")
        if '#include "resources/ZDLocalizedString.h"' not in code:
            continue
        for number, line in enumerate(code.splitlines(), 1):
            for key in KEY_LITERAL.findall(line):
                if key not in NOT_KEYS:
                    found.setdefault(key, f"{path.relative_to(source_dir)}:{number}")
    return found


def main(root):
    source_dir = root / "src"
    tables = sorted((source_dir / "resources").glob("Localizable_*.ts"))
    faults = []
    texts = {}
    for path in tables:
        language = path.stem.split("_", 1)[1]
        texts[language], table_faults = read_table(path)
        faults += table_faults
    if "en" not in texts or len(texts) < 2:
        print(f"expected the English table and at least one other in {source_dir / 'resources'}")
        return 1
    english = texts["en"]
    for language, table in sorted(texts.items()):
        for key in sorted(english.keys() - table.keys()):
            faults.append(f"Localizable_{language}.ts: lacks {key}")
        for key in sorted(table.keys() - english.keys()):
            faults.append(f"Localizable_{language}.ts: has {key}, which English lacks")
        for key in sorted(english.keys() & table.keys()):
            want = " ".join(sorted({"%" + n for n in PLACEHOLDER.findall(english[key])}))
            got = " ".join(sorted({"%" + n for n in PLACEHOLDER.findall(table[key])}))
            if want != got:
                faults.append(f"Localizable_{language}.ts: {key} takes [{got}], English [{want}]")
    used = keys_in_code(source_dir)
    for key, where in sorted(used.items()):
        if key not in english:
            faults.append(f"{where}: looks up {key}, which the English table lacks")
    for fault in faults:
        print(fault)
    print(f"{len(texts)} tables of {len(english)} keys, {len(used)} keys used by the code, "
          f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
