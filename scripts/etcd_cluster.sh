#!/usr/bin/env bash
# A throw-away etcd cluster on loopback, for demos and manual checks of the
# replicated configuration store.
#
#   etcd_cluster.sh start DIR [MEMBERS]   start MEMBERS (1 or 3, default 3) members
#                                         with data under DIR; prints the endpoints
#   etcd_cluster.sh stop DIR              stop every member (by pid) and remove DIR
#   etcd_cluster.sh kill DIR N            SIGKILL member N (0-based)
#   etcd_cluster.sh restart DIR N         start member N again on its old data
#   etcd_cluster.sh endpoints DIR         print HOST:PORT,HOST:PORT,...
#   etcd_cluster.sh status DIR            per-member status (etcdctl)
#
# Ports are free 127.0.0.1 ports picked at start and kept in DIR/ports, so a
# restarted member comes back where its peers expect it.  Server limits are
# sized for whole-host saves (see docs/configstore.md).
set -euo pipefail

ETCD=${ETCD:-etcd}
ETCDCTL=${ETCDCTL:-etcdctl}
MAX_TXN_OPS=${MAX_TXN_OPS:-10000}
MAX_REQUEST_BYTES=${MAX_REQUEST_BYTES:-33554432}
QUOTA_BACKEND_BYTES=${QUOTA_BACKEND_BYTES:-2147483648}

die() { echo "etcd_cluster: $*" >&2; exit 1; }

# True when nothing listens on 127.0.0.1:$1.
port_free() { ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

pick_port() {
   local p tries=0
   while [ $tries -lt 200 ]; do
      p=$((20000 + RANDOM % 30000))
      if port_free "$p" && ! grep -qw "$p" "$DIR/ports" 2>/dev/null; then
         echo "$p"
         return
      fi
      tries=$((tries + 1))
   done
   die "no free port found"
}

members() { wc -l <"$DIR/ports"; }
client_port() { sed -n "$(($1 + 1))p" "$DIR/ports" | cut -d' ' -f1; }
peer_port() { sed -n "$(($1 + 1))p" "$DIR/ports" | cut -d' ' -f2; }

endpoints() {
   local i out=""
   for ((i = 0; i < $(members); i++)); do
      out+="${out:+,}127.0.0.1:$(client_port "$i")"
   done
   echo "$out"
}

initial_cluster() {
   local i out=""
   for ((i = 0; i < $(members); i++)); do
      out+="${out:+,}m$i=http://127.0.0.1:$(peer_port "$i")"
   done
   echo "$out"
}

start_member() {
   local i=$1 state=new cp pp
   cp=$(client_port "$i")
   pp=$(peer_port "$i")
   [ -d "$DIR/m$i" ] && state=existing
   "$ETCD" --name "m$i" --data-dir "$DIR/m$i" \
      --listen-client-urls "http://127.0.0.1:$cp" --advertise-client-urls "http://127.0.0.1:$cp" \
      --listen-peer-urls "http://127.0.0.1:$pp" --initial-advertise-peer-urls "http://127.0.0.1:$pp" \
      --initial-cluster "$(initial_cluster)" --initial-cluster-state "$state" \
      --initial-cluster-token "demo-$(basename "$DIR")" \
      --max-txn-ops "$MAX_TXN_OPS" --max-request-bytes "$MAX_REQUEST_BYTES" \
      --quota-backend-bytes "$QUOTA_BACKEND_BYTES" --log-level warn \
      >>"$DIR/m$i.log" 2>&1 &
   echo $! >"$DIR/m$i.pid"
}

stop_member() {
   local i=$1 sig=${2:-TERM} pid n=0
   [ -f "$DIR/m$i.pid" ] || return 0
   pid=$(cat "$DIR/m$i.pid")
   kill -s "$sig" "$pid" 2>/dev/null || true
   while kill -0 "$pid" 2>/dev/null && [ $n -lt 100 ]; do
      sleep 0.1
      n=$((n + 1))
   done
   kill -0 "$pid" 2>/dev/null && kill -s KILL "$pid" 2>/dev/null || true
   rm -f "$DIR/m$i.pid"
}

member_alive() {
   local pid
   pid=$(cat "$DIR/m$1.pid" 2>/dev/null) && kill -0 "$pid" 2>/dev/null
}

# Waits, at most $1 seconds, until the cluster answers a health check.
# Fails at once when a member has exited (a port taken between picking and
# binding, for one), so a start can try again on other ports.
wait_healthy() {
   local limit=$((SECONDS + $1)) i
   while [ $SECONDS -lt $limit ]; do
      for ((i = 0; i < $(members); i++)); do
         member_alive "$i" || { echo "etcd_cluster: member $i exited" >&2; return 1; }
      done
      if "$ETCDCTL" --endpoints "$(endpoints)" --command-timeout=1s endpoint health >/dev/null 2>&1; then
         return 0
      fi
      sleep 0.2
   done
   echo "etcd_cluster: no healthy cluster within $1 s" >&2
   return 1
}

pick_ports() {
   local i c p
   : >"$DIR/ports"
   for ((i = 0; i < $1; i++)); do
      c=$(pick_port)
      echo "$c" >>"$DIR/ports"
      p=$(pick_port)
      sed -i "\$s/\$/ $p/" "$DIR/ports"
   done
}

stop_all() {
   local i
   for ((i = 0; i < $(members); i++)); do stop_member "$i"; done
}

cmd=${1:-}
DIR=${2:-}
[ -n "$cmd" ] && [ -n "$DIR" ] || die "usage: $0 start|stop|kill|restart|endpoints|status DIR [ARG]"
export ETCDCTL_API=3

case "$cmd" in
start)
   count=${3:-3}
   [ "$count" -ge 1 ] || die "member count must be at least 1"
   [ -e "$DIR/ports" ] && die "$DIR already holds a cluster"
   mkdir -p "$DIR"
   # Bounded retries: each attempt on fresh ports and fresh data.
   for attempt in 1 2 3; do
      pick_ports "$count"
      for ((i = 0; i < count; i++)); do start_member "$i"; done
      if wait_healthy 30; then
         endpoints
         exit 0
      fi
      stop_all
      for ((i = 0; i < count; i++)); do
         echo "etcd_cluster: attempt $attempt, member $i log:" >&2
         tail -n 5 "$DIR/m$i.log" >&2 || true
         rm -rf "${DIR:?}/m$i" "$DIR/m$i.log"
      done
   done
   rm -rf "$DIR"
   die "cluster did not become healthy"
   ;;
stop)
   [ -f "$DIR/ports" ] || exit 0
   stop_all
   rm -rf "$DIR"
   ;;
kill) stop_member "${3:?member}" KILL ;;
restart)
   [ -f "$DIR/m${3:?member}.pid" ] && die "member $3 is running"
   start_member "$3"
   ;;
endpoints) endpoints ;;
status) "$ETCDCTL" --endpoints "$(endpoints)" --command-timeout=2s -w table endpoint status ;;
*) die "unknown command $cmd" ;;
esac
