#!/usr/bin/env bash
# hdiutil-standin.sh - a scripted stand-in for the disk-image tool.
#
# Started through a link named after the tool in a test's folder, it plays
# that folder's "scenario": every line "VERB STEP TEXT" whose VERB is its own
# first argument, in order. Steps:
#   out TEXT   TEXT on standard output (printf %b: \n, \xHH work)
#   err TEXT   TEXT on standard error (the console in an attach)
#   cat FILE   the folder's FILE on standard output
#   ask        reads one answer line from standard input; anything but "y"
#              cancels as the tool does ("hdiutil: VERB canceled", exit 1)
#   exit N     ends with status N (the end of the scenario ends with 0)
# Each start's arguments are appended to the folder's "log", each answer to
# its "answers".
here=$(dirname "$0")
verb=$1
printf '%s\n' "$*" >> "$here/log"
while IFS=' ' read -r -u 3 step action text; do
  [ "$step" = "$verb" ] || continue
  case $action in
    out) printf '%b' "$text" ;;
    err) printf '%b' "$text" >&2 ;;
    cat) cat "$here/$text" ;;
    ask)
      IFS= read -r answer
      printf '%s\n' "$answer" >> "$here/answers"
      if [ "$answer" != y ]; then printf 'hdiutil: %s canceled\n' "$verb" >&2; exit 1; fi ;;
    exit) exit "$text" ;;
  esac
done 3< "$here/scenario"
