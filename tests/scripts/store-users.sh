#!/usr/bin/env bash
# The object store started, stopped and restarted by root and then by an ordinary user, and the
# other way round, in a folder of the test's own and in the default one: neither leaves a lock,
# a claim or a folder in the other's way. Exits 77 (skipped) with the reason when it cannot run.
set -euo pipefail
unset OPC_S3_DIR # the test chooses its folders: never the one of a running test command
server="$(cd "$(dirname "$0")/../.." && pwd)/scripts/s3-server.sh"
user=nobody
skip() { echo "skipped: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "only root can run the store as a second user"
id "$user" >/dev/null 2>&1 && command -v setpriv >/dev/null || skip "no second user ($user, or setpriv) to run the store as"
command -v radosgw >/dev/null && command -v ceph-mon >/dev/null || skip "no object store: Ceph is not installed"
home="$(mktemp -d)"
chown "$user" "$home"
as() { # as root|user command...: the command run by that user
  if [ "$1" = root ]; then shift; "$@"; else shift; setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups env HOME="$home" "$@"; fi
}
as "$user" test -x "$server" || skip "$user may not run $server"
export OPC_S3_STORE_BYTES=$((256 << 20))
own="${TMPDIR:-/tmp}/opc-s3-users-test"
cleanup() { OPC_S3_DIR="$own" "$server" stop >/dev/null 2>&1 || true; rm -rf "$home"; }
trap cleanup EXIT
# start, status, stop $2 times as $1 in the folder $3 (empty: the default one).
cycle() {
  local i
  for ((i = 1; i <= $2; i++)); do
    as "$1" env ${3:+OPC_S3_DIR="$3"} "$server" start >/dev/null 2>"$home/err" ||
      { cat "$home/err"; echo "$1 could not start the store in ${3:-the default folder} (round $i)"; exit 1; }
    as "$1" env ${3:+OPC_S3_DIR="$3"} "$server" status 2>/dev/null
    as "$1" env ${3:+OPC_S3_DIR="$3"} "$server" stop 2>/dev/null
  done
}
cycle root 2 "$own"
cycle "$user" 2 "$own"
cycle root 1 "$own"
if env -u OPC_S3_DIR "$server" status 2>/dev/null; then
  echo "a store runs in the default folder: its round is left out"
else
  cycle "$user" 1 ""
  cycle root 1 ""
fi
echo "root and $user each started, stopped and restarted the store"
