# payload.sh - sourced by the compression benchmarks: the shared payload and
# the inputs made from it once, kept between runs.
#
# Needs: out (the folder), mib (the payload's size), and the benchmark tool
# that makes the payload as the first argument of make_payload.

have() { command -v "$1" > /dev/null 2>&1; }

# The deterministic mixed payload of mib MiB; a changed size remakes it and
# every input made from it.
make_payload() {  # tool
  payload=$out/payload.bin
  if [ ! -f "$payload" ] || [ "$(stat -c %s "$payload")" -ne $((mib * 1024 * 1024)) ]; then
    rm -f "$out"/payload.*
    "$1" payload "$payload" "$mib"
  fi
}

make_input() {  # file, command reading the payload on stdin
  local file=$1; shift
  [ -s "$file" ] && [ "$file" -nt "$payload" ] && return
  echo "making $(basename "$file")" >&2
  "$@" < "$payload" > "$file.tmp" && mv "$file.tmp" "$file"
}
