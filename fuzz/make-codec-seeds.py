#!/usr/bin/env python3
"""Seeds for the codec fuzz targets from the test fixtures.

  make-codec-seeds.py TARGET CORPUS_DIR

Explode and Unshrink inputs are an options byte, a 3-byte little-endian
uncompressed size and the stream (entries cut out of the fixture archives,
and the raw streams); PBZXDecode inputs are a seed byte and the container.
"""
import hashlib, json, os, sys

target, corpus = sys.argv[1], sys.argv[2]
root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "fixtures")
os.makedirs(corpus, exist_ok=True)

def save(data):
    name = hashlib.sha1(data).hexdigest()[:16]
    with open(os.path.join(corpus, name), "wb") as f:
        f.write(data)

if target.startswith("PBZX"):
    with open(os.path.join(root, "pbzx", "pkgbuild-payload.pbzx"), "rb") as f:
        container = f.read()
    for seed in (0, 7, 200):
        save(bytes([seed]) + container)
        save(bytes([seed]) + container[4:])  # without the magic
    sys.exit(0)

method = 6 if target.startswith("Explode") else 1
zroot = os.path.join(root, "zip")
manifest = json.load(open(os.path.join(zroot, "manifest.json")))
streams = []
for archive in manifest["archives"]:
    data = open(os.path.join(zroot, archive["archive"]), "rb").read()
    entries = json.load(open(os.path.join(zroot, archive["entries_dir"], "manifest.json")))["entries"]
    for e in entries:
        if e["method"] == method:
            streams.append((e["flags"], e["uncompressed_size"], data[e["data_offset"]:e["data_offset"] + e["compressed_size"]]))
for raw in manifest["raw_streams"]:
    if raw["method"] == method:
        streams.append((raw["flags"], raw["uncompressed_size"], open(os.path.join(zroot, raw["raw"]), "rb").read()))
for flags, size, stream in streams:
    if size >= 1 << 20 or len(stream) > 16384:
        continue
    save(bytes([flags & 6 | 0x18, size & 255, size >> 8 & 255, size >> 16]) + stream)
