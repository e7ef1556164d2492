#!/usr/bin/env bash
# interop-check.sh - binary and XML property lists written by qx, read back by Python
# (and the XML by plistutil).
#
#   scripts/interop-check.sh QX_BINARY [FIXTURE_DIR]
#
# For every good binary file in FIXTURE_DIR/index.json, `qx plist convert
# --format binary` it and have python3's plistlib load both the original and
# the converted file; their values must be equal. Where index.json documents
# that the library reads a file differently from plistlib (16-byte integers
# keep their low 8 bytes, 4-byte reals stay single precision, offset widths
# other than 1, 2, 4 and 8 are refused, ...), the comparison is skipped and
# the reason printed.
#
# Then the same for XML: every good binary and XML file is converted with
# `qx plist convert --format xml` (TZ=UTC, so that the local-time date fields
# are UTC fields), and plistlib must load qx's XML as the input's value; when
# plistutil is installed it must read qx's XML too (converted by it to binary
# and loaded by plistlib) as the same value. XML keeps dates to the second,
# 4-byte reals as decimal text and UIDs as the dictionary { "CF$UID": n }
# whose n the library reads from the UID's bytes as a binary integer, and
# integers as signed 64-bit text; so files with UIDs are skipped, dates
# compared to the second, reals by value and integers modulo 2^64. plistutil
# refuses the compact empty key <key/> (plistlib reads it), so files with an
# empty key are not relayed through plistutil.
#
# Exit status: 0 all compared files equal, 1 a mismatch or a qx failure,
# 77 python3 is not installed (CTest reports the test as skipped).
set -euo pipefail

if [[ $# -lt 1 ]]; then
    echo "usage: $0 QX_BINARY [FIXTURE_DIR]" >&2
    exit 2
fi
qx=$1
fixtures=${2:-"$(cd "$(dirname "$0")/.." && pwd)/tests/fixtures/plist"}

if ! command -v python3 >/dev/null 2>&1; then
    echo "python3 is not installed: skipping the plistlib comparison"
    exit 77
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/qx-interop.XXXXXX")
trap 'rm -rf "$work"' EXIT

status=0
python3 - "$qx" "$fixtures" "$work" <<'PYTHON' || status=$?
import datetime
import json
import math
import os
import plistlib
import subprocess
import sys

qx, fixtures, work = sys.argv[1:4]

# Issues after which the library's value legitimately differs from
# plistlib's, or the library refuses the file outright.
VALUE_DIFFERENCES = ("16-byte integer", "4-byte real")
REFUSED_BY_LIBRARY = ("offset-table entry width",)


def same(a, b, where="root"):
    """plistlib value equality, made strict where Python's == is loose:
    True is not 1, 1 is not 1.0, and NaN equals NaN."""
    if type(a) is not type(b):
        return f"{where}: {type(a).__name__} {a!r} vs {type(b).__name__} {b!r}"
    if isinstance(a, dict):
        if set(a) != set(b):
            return f"{where}: keys {sorted(set(a) ^ set(b))!r} differ"
        for k in a:
            problem = same(a[k], b[k], f"{where}.{k}")
            if problem:
                return problem
        return None
    if isinstance(a, list):
        if len(a) != len(b):
            return f"{where}: {len(a)} vs {len(b)} elements"
        for i, (x, y) in enumerate(zip(a, b)):
            problem = same(x, y, f"{where}[{i}]")
            if problem:
                return problem
        return None
    if isinstance(a, float) and math.isnan(a) and math.isnan(b):
        return None
    return None if a == b else f"{where}: {a!r} vs {b!r}"


with open(os.path.join(fixtures, "index.json"), encoding="utf-8") as f:
    index = json.load(f)

compared = skipped = failed = 0
for entry in index["files"]:
    if entry["format"] != "binary" or entry["status"] != "good":
        continue
    name = entry["file"]
    issues = entry.get("strict_reader_issues", [])
    source = os.path.join(fixtures, name)
    target = os.path.join(work, "converted.plist")
    if os.path.exists(target):
        os.remove(target)

    run = subprocess.run([qx, "plist", "convert", "--format", "binary", source, "-o", target],
                         capture_output=True, text=True)
    refused = [i for i in issues if i.startswith(REFUSED_BY_LIBRARY)]
    if run.returncode != 0:
        if issues:
            # A file plistlib reads in spite of a layout fault; the library
            # may refuse it (and must, for the offset widths it does not know).
            print(f"skip {name}: refused ({'; '.join(issues)}): {run.stderr.strip()}")
            skipped += 1
        else:
            print(f"FAIL {name}: qx exited {run.returncode}: {run.stderr.strip()}")
            failed += 1
        continue
    if refused:
        print(f"FAIL {name}: qx converted a file it must refuse ({refused[0]})")
        failed += 1
        continue

    with open(source, "rb") as f:
        original = plistlib.load(f)
    try:
        with open(target, "rb") as f:
            ours = plistlib.load(f)
    except Exception as e:  # plistlib raises several kinds for bad files
        print(f"FAIL {name}: plistlib cannot read qx's output: {type(e).__name__}: {e}")
        failed += 1
        continue

    differences = [i for i in issues if any(d in i for d in VALUE_DIFFERENCES)]
    if differences:
        print(f"skip {name}: value differs by design ({'; '.join(differences)})")
        skipped += 1
        continue
    problem = same(original, ours)
    if problem:
        print(f"FAIL {name}: {problem}")
        failed += 1
    else:
        compared += 1

print(f"{compared} equal, {skipped} skipped, {failed} failed")
sys.exit(1 if failed or compared == 0 else 0)
PYTHON
xml_status=0
TZ=UTC python3 - "$qx" "$fixtures" "$work" <<'PYTHON' || xml_status=$?
import datetime
import json
import math
import os
import plistlib
import shutil
import subprocess
import sys

qx, fixtures, work = sys.argv[1:4]
plistutil = shutil.which("plistutil")
if not plistutil:
    print("plistutil is not installed: checking the XML with plistlib only")


def same(a, b, where="root"):
    if isinstance(a, datetime.datetime) and isinstance(b, datetime.datetime):
        return None if a.replace(microsecond=0) == b.replace(microsecond=0) else f"{where}: {a} vs {b}"
    if isinstance(a, float) and isinstance(b, float):
        if math.isnan(a) and math.isnan(b):
            return None
        return None if a == b or abs(a - b) <= 1e-6 * abs(a) else f"{where}: {a!r} vs {b!r}"
    if type(a) is int and type(b) is int:
        return None if a % 2**64 == b % 2**64 else f"{where}: {a!r} vs {b!r}"
    if type(a) is not type(b):
        return f"{where}: {type(a).__name__} {a!r} vs {type(b).__name__} {b!r}"
    if isinstance(a, dict):
        if set(a) != set(b):
            return f"{where}: keys {sorted(set(a) ^ set(b))!r} differ"
        for k in a:
            problem = same(a[k], b[k], f"{where}.{k}")
            if problem:
                return problem
        return None
    if isinstance(a, list):
        if len(a) != len(b):
            return f"{where}: {len(a)} vs {len(b)} elements"
        for i, (x, y) in enumerate(zip(a, b)):
            problem = same(x, y, f"{where}[{i}]")
            if problem:
                return problem
        return None
    return None if a == b else f"{where}: {a!r} vs {b!r}"


def has_empty_key(v):
    if isinstance(v, dict):
        return "" in v or any(has_empty_key(x) for x in v.values())
    if isinstance(v, list):
        return any(has_empty_key(x) for x in v)
    return False


def has_uid(v):
    if isinstance(v, plistlib.UID):
        return True
    if isinstance(v, dict):
        return any(has_uid(x) for x in v.values())
    if isinstance(v, list):
        return any(has_uid(x) for x in v)
    return False


with open(os.path.join(fixtures, "index.json"), encoding="utf-8") as f:
    index = json.load(f)

compared = skipped = failed = 0
for entry in index["files"]:
    if entry["format"] not in ("binary", "xml") or entry["status"] != "good":
        continue
    if any("16-byte integer" in i for i in entry.get("strict_reader_issues", [])):
        continue
    name = entry["file"]
    source = os.path.join(fixtures, name)
    target = os.path.join(work, "converted.xml")
    run = subprocess.run([qx, "plist", "convert", "--format", "xml", source, "-o", target],
                         capture_output=True, text=True)
    if run.returncode != 0:
        print(f"skip {name}: the library refuses it: {run.stderr.strip()}")
        skipped += 1
        continue
    with open(source, "rb") as f:
        original = plistlib.load(f)
    if has_uid(original):
        skipped += 1
        continue
    try:
        with open(target, "rb") as f:
            ours = plistlib.load(f)
    except Exception as e:
        print(f"FAIL {name}: plistlib cannot read qx's XML: {type(e).__name__}: {e}")
        failed += 1
        continue
    problem = same(original, ours)
    if not problem and plistutil and not has_empty_key(original):
        relayed = os.path.join(work, "relayed.plist")
        run = subprocess.run([plistutil, "-i", target, "-o", relayed, "-f", "bin"], capture_output=True, text=True)
        if run.returncode != 0:
            problem = f"plistutil cannot read qx's XML: {run.stderr.strip()}"
        else:
            with open(relayed, "rb") as f:
                problem = same(original, plistlib.load(f), "plistutil")
    if problem:
        print(f"FAIL {name}: {problem}")
        failed += 1
    else:
        compared += 1

print(f"XML: {compared} equal, {skipped} skipped, {failed} failed")
sys.exit(1 if failed or compared == 0 else 0)
PYTHON
[ "$status" -ne 0 ] && exit "$status"
exit "$xml_status"
