#!/usr/bin/env bash
# A real object store for the s3 scheme's tests: a one-node Ceph cluster (one monitor, one OSD
# on memstore, so no disk) with radosgw serving S3 on 127.0.0.1, all under one private folder.
#
#   s3-server.sh start          installs what is missing (./scripts/setup-deps.sh s3), starts
#                               the cluster, creates the test user and bucket, and prints the
#                               settings as shell lines: eval "$(scripts/s3-server.sh start)"
#   s3-server.sh stop           stops every daemon it started and removes the folder
#   s3-server.sh status         exits 0 when radosgw answers
#   s3-server.sh stop-gateway [--kill]   stops only radosgw (--kill: SIGKILL at once)
#   s3-server.sh start-gateway           starts radosgw again on the same port
#
# Only the settings go to standard output; progress and errors go to standard error.
# Environment: OPC_S3_DIR (the folder, default /tmp/opc-s3), OPC_S3_PORT (radosgw's port,
# default 7480 or the next free one), OPC_S3_STORE_BYTES (the OSD's memory, default 4 GiB).
# Beside the folder: $dir.lock (one command at a time) and, after a failed start, the daemons'
# logs in $dir.failed-logs. For the whole machine: /tmp/opc-s3-ports.lock (one port choice at a
# time) and /tmp/opc-s3-ports-<uid>/ (the ports each user's clusters took, gone on stop). Any
# user may take a lock another user left (they are opened for reading), so root and ordinary
# users start, stop and restart stores one after the other, in the default folder or their own.
# Debian's awscli (2.9) ignores AWS_ENDPOINT_URL: give it --endpoint-url "$AWS_ENDPOINT_URL".
set -euo pipefail

dir="${OPC_S3_DIR:-/tmp/opc-s3}"
conf="$dir/ceph.conf"
store_bytes="${OPC_S3_STORE_BYTES:-$((4 << 30))}"
bucket="opc-test"
access_key="OPCTESTACCESSKEY0001"
secret_key="opcTestSecretKey0000000000000000000000001"
region="us-east-1"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"

say() { echo "s3-server.sh: [${SECONDS}s] $*" >&2; }
fail() { say "$*"; exit 1; }

# The ceph tools, always on our own configuration and never waiting long for the monitor.
ceph_() { timeout 30 ceph -c "$conf" --connect-timeout 5 "$@"; }
rgw_admin() { timeout 60 radosgw-admin -c "$conf" "$@"; }

# True when something listens on 127.0.0.1:$1.
port_busy() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Takes the lock file $2 on descriptor $1, waiting up to 120 s. The file is created readable by
# all and opened for reading, which is all flock needs, so a lock another user left is usable.
take_lock() {
  local fd="$1" file="$2"
  [ -e "$file" ] || (umask 022 && : >>"$file") 2>/dev/null || true
  [ -r "$file" ] || fail "cannot read the lock $file (it belongs to $(stat -c %U "$file" 2>/dev/null)): remove it as that user"
  eval "exec $fd<\"\$file\""
  flock -w 120 "$fd" || fail "another s3-server.sh holds $file for over 120 s"
}

# Ports are chosen under one lock for the whole machine, and each chosen port is claimed in
# $claims, a folder of this user's own (a file per port naming its folder), until its folder is
# gone, so that clusters in other folders, of any user, neither take the same port at once nor
# take it while our gateway is stopped.
claims="/tmp/opc-s3-ports-$(id -u)"
claimed_by_other() {
  local file owner
  for file in /tmp/opc-s3-ports*/"$1"; do
    [ -f "$file" ] && owner="$(cat "$file" 2>/dev/null)" && [ "$owner" != "$dir" ] && [ -d "$owner" ] && return 0
  done
  return 1
}

# Claims and prints the first port from $1 on that is neither in use nor claimed by others.
free_port() {
  local p="$1"
  while port_busy "$p" || claimed_by_other "$p"; do
    p=$((p + 1))
    [ "$p" -lt $(($1 + 200)) ] || fail "no free port on 127.0.0.1 from $1 to $p"
  done
  mkdir -p "$claims"
  echo "$dir" >"$claims/$p"
  echo "$p"
}

# Drops the claims of our folder, and the claims folder once it holds none.
unclaim() {
  grep -lxF "$dir" "$claims"/* 2>/dev/null | xargs -r rm -f || true
  rmdir "$claims" 2>/dev/null || true
}

# pid of a daemon we started, if it is still running (its pid file names it and /proc agrees).
alive_pid() {
  local f="$dir/run/$1.pid" pid
  [ -f "$f" ] || return 1
  pid="$(cat "$f")"
  [ -n "$pid" ] && running "$pid" || return 1
  grep -q "$2" "/proc/$pid/cmdline" 2>/dev/null || return 1
  echo "$pid"
}

# Starts a daemon in the foreground mode (-f) of its own session, detached from our output so
# that $(s3-server.sh start) returns, and records its pid. $1: name, $2: binary, rest: args.
launch() {
  local name="$1"
  shift
  setsid "$@" -c "$conf" -f </dev/null >>"$dir/log/$name.out" 2>&1 8>&- 9>&- &
  echo $! >"$dir/run/$name.pid"
  disown  # no job notice from this shell when the daemon ends
}

# True while process $1 runs (a zombie has closed its files and sockets: it counts as gone).
running() { [ -r "/proc/$1/stat" ] && ! grep -q '^[0-9]* (.*) Z' "/proc/$1/stat" 2>/dev/null; }

# Stops a daemon by its pid file: SIGTERM, up to 10 s, then SIGKILL. $3=--kill: SIGKILL at once.
halt() {
  local name="$1" binary="$2" pid i
  if pid="$(alive_pid "$name" "$binary")"; then
    if [ "${3:-}" = --kill ]; then kill -KILL "$pid" 2>/dev/null || true; else kill -TERM "$pid" 2>/dev/null || true; fi
    for i in $(seq 200); do
      running "$pid" || break
      if [ "$i" -eq 100 ]; then kill -KILL "$pid" 2>/dev/null || true; fi
      sleep 0.1
    done
  fi
  rm -f "$dir/run/$name.pid"
}

# The program of each daemon, by the name of its pid file.
declare -A binary_of=([mon]=ceph-mon [osd]=ceph-osd [rgw]=radosgw)

# Fails when a daemon started so far has died; $1 says what was starting.
check_daemons() {
  local f d
  for f in "$dir"/run/*.pid; do
    [ -e "$f" ] || continue
    d="$(basename "$f" .pid)"
    alive_pid "$d" "${binary_of[$d]}" >/dev/null ||
      fail "$d died while $1 was starting; see the logs in $dir.failed-logs"
  done
}

# Waits up to $1 seconds for the command after it to succeed, for $2; fails when any daemon
# started so far dies meanwhile. Quiet: the command's output is dropped.
wait_for() {
  local limit="$1" name="$2" deadline
  shift 2
  deadline=$((SECONDS + limit))
  until "$@" >/dev/null 2>&1; do
    check_daemons "$name"
    [ "$SECONDS" -lt "$deadline" ] || fail "$name did not come up within $limit s; see the logs in $dir.failed-logs"
    sleep 0.5
  done
}

endpoint() { echo "http://127.0.0.1:$(cat "$dir/port")"; }

# Our radosgw listens on our port (not another cluster's gateway that took it first) and
# answers an anonymous GET / with 200 (an empty bucket list).
gateway_answers() {
  local pid
  [ -f "$dir/port" ] && pid="$(alive_pid rgw radosgw)" &&
    ss -Hltnp "sport = :$(cat "$dir/port")" | grep -q "pid=$pid," &&
    curl -fs -o /dev/null --max-time 3 "$(endpoint)/"
}

settings() {
  cat <<EOF
export AWS_ENDPOINT_URL=$(endpoint)
export AWS_ACCESS_KEY_ID=$access_key
export AWS_SECRET_ACCESS_KEY=$secret_key
export AWS_REGION=$region
export AWS_DEFAULT_REGION=$region
export S3_BUCKET=$bucket
EOF
}

osd_up() { ceph_ osd stat -f json | grep -q '"num_up_osds":1'; }

# Starts radosgw on the port in $dir/port and waits until it answers. With $1=retry, when
# another program took that port meanwhile, moves on to the next free one (up to 5 times).
start_gateway() {
  local tries=1 port pid deadline
  [ "${1:-}" = retry ] && tries=5
  while :; do
    port="$(cat "$dir/port")"
    # tcp_nodelay: an answer written in two pieces (headers, then body) must not wait for the
    # client's delayed ACK; without it most requests on loopback took 40 ms more.
    launch rgw radosgw -n client.rgw --rgw_frontends "beast endpoint=127.0.0.1:$port tcp_nodelay=1"
    pid="$(cat "$dir/run/rgw.pid")"
    deadline=$((SECONDS + 60))
    until gateway_answers; do
      if ! running "$pid" && grep -q "failed to bind address 127.0.0.1:$port" "$dir/log/client.rgw.log"; then
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "radosgw could not listen on 127.0.0.1:$port: the port is taken"
        say "port $port was taken meanwhile; trying the next free one"
        free_port $((port + 1)) >"$dir/port"
        continue 2
      fi
      check_daemons radosgw
      [ "$SECONDS" -lt "$deadline" ] || fail "radosgw did not answer within 60 s; see the logs in $dir.failed-logs"
      sleep 0.3
    done
    return 0
  done
}

# After a failed start, keeps the daemons' logs beside the folder for a look.
keep_logs() {
  rm -rf "$dir.failed-logs" 2>/dev/null || true
  cp -r "$dir/log" "$dir.failed-logs" 2>/dev/null || true
}

# The data is thrown away, so the OSD and the monitor are killed outright: a memstore OSD
# stopped gently first writes its whole store out to its folder.
stop_all() {
  halt rgw radosgw
  halt osd ceph-osd --kill
  halt mon ceph-mon --kill
  rm -rf "$dir"
  unclaim
}

# Installs the packages when missing, without letting their install scripts start daemons.
install_packages() {
  local need=0 p rc=0 made_policy=0
  for p in ceph-mon ceph-osd radosgw ceph-common awscli curl iproute2; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need=1
  done
  [ "$need" -eq 1 ] || return 0
  command -v apt-get >/dev/null || fail "Ceph's packages are missing and there is no apt-get to install them"
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\n# Written by s3-server.sh during an install: start no daemon.\nexit 101\n' >/usr/sbin/policy-rc.d
    chmod +x /usr/sbin/policy-rc.d
    made_policy=1
  fi
  say "installing Ceph 16 (mon, osd, radosgw) and awscli"
  # setup-deps.sh's output is progress: keep it off standard output.
  "$here/setup-deps.sh" s3 >&2 || rc=$?
  [ "$made_policy" -eq 0 ] || rm -f /usr/sbin/policy-rc.d
  [ "$rc" -eq 0 ] || fail "could not install Ceph's packages (setup-deps.sh s3 failed)"
}

write_conf() {
  local fsid="$1" mon_port="$2"
  cat >"$conf" <<EOF
# One-node test cluster of scripts/s3-server.sh: everything lives under $dir.
[global]
fsid = $fsid
mon_host = v2:127.0.0.1:$mon_port
public_addr = 127.0.0.1
ms_bind_msgr1 = false
auth_cluster_required = none
auth_service_required = none
auth_client_required = none
ms_mon_client_mode = crc
mon_allow_pool_size_one = true
mon_warn_on_pool_no_redundancy = false
osd_pool_default_size = 1
osd_pool_default_min_size = 1
osd_pool_default_pg_num = 8
osd_pool_default_pgp_num = 8
osd_pool_default_pg_autoscale_mode = off
osd_crush_chooseleaf_type = 0
mon_max_pg_per_osd = 1000
mon_data_avail_crit = 1
# Commit map changes (pool creations) at once rather than once a second: a faster start.
paxos_propose_interval = 0.05
paxos_min_wait = 0.01
run_dir = $dir/run
admin_socket = $dir/run/\$name.asok
log_file = $dir/log/\$name.log
keyring = $dir/keyring
crash_dir = $dir/crash
exec_dir = $dir/run

[mon]
mon_data = $dir/mon

[osd]
osd_data = $dir/osd
osd_objectstore = memstore
memstore_device_bytes = $store_bytes

[client.rgw]
rgw_data = $dir/rgw
rgw_thread_pool_size = 64
# The data of overwritten and deleted objects is freed within seconds, not 2 hours later: in
# memory, that wait fills the OSD after a few GiB of overwrites (bench_s3 writes 2.5 GiB a run).
rgw_gc_obj_min_wait = 5
rgw_gc_processor_period = 5
EOF
}

start() {
  if gateway_answers; then
    settings
    return 0
  fi
  # The cluster is up but its gateway was stopped (stop-gateway): start only the gateway.
  if [ -f "$dir/port" ] && alive_pid mon ceph-mon >/dev/null && alive_pid osd ceph-osd >/dev/null; then
    say "the cluster runs without its gateway: starting radosgw"
    start_gateway
    settings
    return 0
  fi
  if [ -e "$dir" ] && [ ! -O "$dir" ]; then
    fail "$dir belongs to $(stat -c %U "$dir"): stop it as that user, or choose another folder with OPC_S3_DIR"
  fi
  if [ -e "$dir" ]; then
    say "removing a stale $dir (no gateway answers there)"
    stop_all
  fi
  install_packages
  local began=$SECONDS fsid mon_port rgw_port
  mkdir -p "$dir"/{run,log,mon,osd,rgw,crash}
  # From here on, any failure stops what was started and removes the folder.
  trap 'rc=$?; if [ $rc -ne 0 ]; then keep_logs; stop_all; fi' EXIT
  trap 'fail "interrupted"' INT TERM HUP
  rm -rf "$dir.failed-logs" 2>/dev/null || true

  # The ports are chosen and bound under the machine's lock (released once radosgw answers).
  take_lock 8 /tmp/opc-s3-ports.lock
  fsid="$(cat /proc/sys/kernel/random/uuid)"
  mon_port="$(free_port 13300)"
  rgw_port="$(free_port "${OPC_S3_PORT:-7480}")"
  echo "$rgw_port" >"$dir/port"
  write_conf "$fsid" "$mon_port"

  say "starting the monitor on 127.0.0.1:$mon_port"
  ceph-authtool --create-keyring "$dir/keyring" --gen-key -n mon. --cap mon 'allow *' >/dev/null
  monmaptool --create --fsid "$fsid" --addv a "[v2:127.0.0.1:$mon_port]" "$dir/monmap" >/dev/null
  ceph-mon -c "$conf" --mkfs -i a --monmap "$dir/monmap" >>"$dir/log/mon.out" 2>&1 ||
    fail "ceph-mon --mkfs failed; see $dir.failed-logs/mon.out"
  launch mon ceph-mon -i a
  wait_for 30 mon ceph_ mon stat

  say "starting the OSD (memstore, at most $((store_bytes >> 20)) MiB)"
  local osd_uuid osd_id
  osd_uuid="$(cat /proc/sys/kernel/random/uuid)"
  osd_id="$(ceph_ osd new "$osd_uuid")"
  [ "$osd_id" = 0 ] || fail "the monitor gave the OSD id '$osd_id', not 0"
  ceph-osd -c "$conf" -i 0 --mkfs --osd-uuid "$osd_uuid" >>"$dir/log/osd.out" 2>&1 ||
    fail "ceph-osd --mkfs failed; see $dir.failed-logs/osd.out"
  launch osd ceph-osd -i 0
  wait_for 60 osd osd_up

  say "starting radosgw on 127.0.0.1:$rgw_port"
  start_gateway retry

  say "creating the user and the bucket $bucket"
  wait_for 60 "the user" rgw_admin user create --uid opc-test --display-name "opc tests" \
    --access-key "$access_key" --secret "$secret_key"
  # radosgw's first start made the zonegroup, whose S3 name is "default": name it us-east-1 and
  # restart radosgw, so that a CreateBucket naming us-east-1 as its LocationConstraint is
  # accepted and GetBucketLocation says us-east-1. (Without a realm it cannot be made earlier.)
  wait_for 30 "the zonegroup" rgw_admin zonegroup modify --rgw-zonegroup default --api-name "$region"
  halt rgw radosgw
  start_gateway
  exec 8>&-
  wait_for 30 "the bucket" aws_ s3api create-bucket --bucket "$bucket"
  trap - EXIT INT TERM HUP
  say "ready in $((SECONDS - began)) s at $(endpoint)"
  settings
}

# awscli pointed at our gateway (Debian's awscli 2.9 ignores AWS_ENDPOINT_URL: pass it).
aws_() {
  AWS_ACCESS_KEY_ID="$access_key" AWS_SECRET_ACCESS_KEY="$secret_key" AWS_DEFAULT_REGION="$region" \
    AWS_CONFIG_FILE=/dev/null AWS_SHARED_CREDENTIALS_FILE=/dev/null \
    timeout 30 /usr/bin/aws --endpoint-url "$(endpoint)" "$@"
}

# One command at a time per folder: parallel test runs wait for each other's start or stop.
take_lock 9 "$dir.lock"

case "${1:-}" in
  start) start ;;
  stop)
    [ ! -e "$dir" ] || [ -O "$dir" ] || fail "$dir belongs to $(stat -c %U "$dir"): stop it as that user"
    stop_all
    say "stopped; $dir removed"
    ;;
  status)
    if gateway_answers; then
      say "radosgw answers at $(endpoint)"
    else
      say "not running (no radosgw answers${dir:+ for $dir})"
      exit 1
    fi
    ;;
  stop-gateway)
    [ -f "$dir/port" ] || fail "not running: $dir has no cluster"
    halt rgw radosgw "${2:-}"
    say "radosgw stopped; the cluster stays up"
    ;;
  start-gateway)
    [ -f "$dir/port" ] || fail "not running: $dir has no cluster; use start"
    if ! gateway_answers; then
      alive_pid osd ceph-osd >/dev/null || fail "the OSD is not running; use stop and start"
      start_gateway
    fi
    say "radosgw answers at $(endpoint)"
    ;;
  *)
    echo "usage: s3-server.sh start|stop|status|stop-gateway [--kill]|start-gateway" >&2
    exit 2
    ;;
esac
