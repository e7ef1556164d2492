#!/usr/bin/env bash
# Writes Resources/Entities.txt, the HTML entity declarations the library's
# HTML encoding names characters with, from the HTML 4.01 entity sets in SGML
# form (Debian package w3c-sgml-lib, listed in scripts/setup.sh). The sets are
# copied whole, notices included; run again only when the sets change.
#   scripts/make-entities.sh [DTD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-/usr/share/xml/w3c-sgml-lib/schema/dtd/REC-html401-19991224}
out=Resources/Entities.txt
{
  printf '%s\n' "<!-- Entities.txt: the HTML 4.01 character entity sets (Latin-1, symbols,"
  printf '%s\n' "     special characters), as published in SGML form, read by the library"
  printf '%s\n' "     to name characters when it encodes text for HTML. ASCII only. -->"
  for set in HTMLlat1 HTMLsymbol HTMLspecial; do
    printf '\n<!-- %s.ent -->\n\n' "$set"
    cat "$dir/$set.ent"
  done
} > "$out.tmp"
LC_ALL=C grep -q '[^[:print:][:space:]]' "$out.tmp" && { echo "non-ASCII bytes in the entity sets" >&2; rm -f "$out.tmp"; exit 1; }
mv "$out.tmp" "$out"
echo "wrote $out ($(grep -c '<!ENTITY [A-Za-z]' "$out") declarations)"
