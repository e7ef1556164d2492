#!/usr/bin/env bash
# Starts and stops the services the storage daemon needs on a machine
# without an init system: the system message bus and the device manager
# (udevd). The storage daemon itself (udisksd) and the policy daemon are
# started by the bus on their first call.
#
#   udisks-services.sh start [STATE]   start what is not running; record it in STATE
#   udisks-services.sh stop  [STATE]   stop what STATE records, and the daemons our bus activated
#   udisks-services.sh status          exit 0 when the storage daemon answers on the system bus
#
# STATE defaults to /run/qx-udisks-services.state. A service that was already
# running is used and left alone: stop ends only the processes start
# recorded (each by PID and start time, so a PID used again by another
# process is never hit), plus the storage and policy daemons on the bus it
# started, found through that bus by the names they own. Needs root.
set -euo pipefail

command=${1:-}
state=${2:-/run/qx-udisks-services.state}

bus_answers() {
  dbus-send --system --print-reply --reply-timeout=2000 --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetId > /dev/null 2>&1
}

udevd_answers() { udevadm control --ping --timeout=2 > /dev/null 2>&1; }

# The process's start time in clock ticks since boot (field 22 of its stat).
start_time() {
  local stat
  stat=$(cat "/proc/$1/stat" 2> /dev/null) || return 1
  stat=${stat##*) }  # the name may hold spaces and parentheses
  set -- $stat
  echo "${20}"
}

record() { echo "$1 $2 $(start_time "$2")" >> "$state"; }

# True while PID is the process that was recorded with start time TICKS
# and has not ended (an ended one waits, a zombie, for init to reap it).
same_process() {
  local stat
  stat=$(cat "/proc/$1/stat" 2> /dev/null) || return 1
  stat=${stat##*) }
  [ "${stat:0:1}" != Z ] && [ "$(start_time "$1")" = "$2" ]
}

# The processes owning the names the bus activates for the storage daemon.
# (The bus does not stay their parent: its launcher hands them to init.)
activated_daemons() {
  local name
  for name in org.freedesktop.UDisks2 org.freedesktop.PolicyKit1; do
    dbus-send --system --print-reply --reply-timeout=2000 --dest=org.freedesktop.DBus / \
      org.freedesktop.DBus.GetConnectionUnixProcessID "string:$name" 2> /dev/null | awk '$1 == "uint32" { print $2 }'
  done
}

# Sends TERM, waits up to five seconds, then KILL.
end_process() {
  local pid=$1 ticks=$2 i
  same_process "$pid" "$ticks" || return 0
  kill -TERM "$pid" 2> /dev/null || return 0
  for i in $(seq 50); do
    same_process "$pid" "$ticks" || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2> /dev/null || true
}

wait_until() {
  local i
  for i in $(seq 100); do
    "$@" && return 0
    sleep 0.05
  done
  return 1
}

# A machine that cannot run the services leaves the device tests to say so
# (they skip, or fail when CI=true); under CI the start fails at once.
cannot_start() {
  echo "udisks-services.sh: $1; not starting the services" >&2
  [ "${CI:-}" = true ] && exit 1
  exit 0
}

start() {
  [ "$(id -u)" -eq 0 ] || cannot_start "needs root"
  [ -x /usr/libexec/udisks2/udisksd ] || cannot_start "udisks2 is not installed (scripts/setup.sh installs it)"
  # What an earlier run recorded and did not stop is ours to stop now.
  stop
  : > "$state"
  if ! bus_answers; then
    mkdir -p /run/dbus
    rm -f /run/dbus/pid
    pid=$(dbus-daemon --system --fork --print-pid)
    record dbus "$pid"
    wait_until bus_answers || { echo "udisks-services.sh: the system bus does not answer" >&2; exit 1; }
  fi
  if ! udevd_answers; then
    # Not --daemon: run in the background here, so that its PID is known.
    setsid /lib/systemd/systemd-udevd < /dev/null > /dev/null 2>&1 &
    record udevd "$!"
    wait_until udevd_answers || { echo "udisks-services.sh: udevd does not answer" >&2; exit 1; }
    # The database the storage daemon reads is filled by replaying the block devices' events.
    udevadm trigger --action=add --subsystem-match=block
    udevadm settle --timeout=30
  fi
}

stop() {
  [ -f "$state" ] || return 0
  # The daemons our bus activated first (they talk to the bus as they go), then the rest, last started first.
  local name pid ticks daemon
  while read -r name pid ticks; do
    if [ "$name" = dbus ] && same_process "$pid" "$ticks"; then
      for daemon in $(activated_daemons); do end_process "$daemon" "$(start_time "$daemon")"; done
    fi
  done < "$state"
  tac "$state" | while read -r name pid ticks; do end_process "$pid" "$ticks"; done
  rm -f "$state"
}

case $command in
  start) start ;;
  stop) stop ;;
  status) bus_answers && dbus-send --system --print-reply --reply-timeout=5000 --dest=org.freedesktop.UDisks2 \
            /org/freedesktop/UDisks2/Manager org.freedesktop.DBus.Properties.Get \
            string:org.freedesktop.UDisks2.Manager string:Version > /dev/null 2>&1 ;;
  *) echo "usage: $0 start|stop|status [STATE]" >&2; exit 2 ;;
esac
