# Scratch Samba for end-to-end tests: a configuration whose every directory
# lives in one scratch folder, a passdb with one root account, smbd in the
# foreground on a free loopback port, and a client session held open.
#
# Source it; sourcing defines functions and nothing else. Typical use:
#
#   . scripts/lib/samba_scratch.sh
#   trap samba_scratch_stop EXIT
#   samba_scratch_make "$(mktemp -d)"   # SAMBA_SCRATCH_{DIR,CONF,PORT,PASSWORD,SHARE}
#   samba_scratch_start_smbd            # SAMBA_SCRATCH_SMBD_PID; waits for the port
#   samba_scratch_open_session          # SAMBA_SCRATCH_CLIENT_PID; waits for smbstatus
#   ...
#   samba_scratch_stop                  # kills what was started, removes the folder
#
# Everything that signals should run inside `unshare --pid --fork
# --mount-proc`; these functions only ever signal the processes they started.
# Every wait is bounded (SAMBA_SCRATCH_WAIT seconds, default 15). Functions
# return non-zero and say why on standard error when something fails.

# A TCP port on 127.0.0.1 that nothing listens on right now.
samba_scratch_free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# true when something accepts TCP connections on 127.0.0.1:$1.
samba_scratch_port_answers() {
  python3 - "$1" <<'PY' 2>/dev/null
import socket, sys
s = socket.socket()
s.settimeout(0.5)
try:
    s.connect(("127.0.0.1", int(sys.argv[1])))
except OSError:
    sys.exit(1)
PY
}

# Waits up to $1 seconds for the command in the remaining arguments to succeed.
samba_scratch_wait_for() {
  local seconds=$1
  shift
  local deadline=$((SECONDS + seconds))
  while ((SECONDS < deadline)); do
    "$@" && return 0
    sleep 0.1
  done
  "$@"
}

# samba_scratch_make DIR [PORT]: writes DIR/smb.conf with one share "share" on
# DIR/share and a tdbsam passdb holding root with a scratch password.
samba_scratch_make() {
  local dir=$1
  local port=${2:-$(samba_scratch_free_port)}
  [ -n "$dir" ] || { echo "samba_scratch_make: no folder" >&2; return 2; }
  mkdir -p "$dir"/{lock,state,cache,pid,private,ncalrpc,log,binddns,share} || return 1
  chmod 0700 "$dir/private"
  SAMBA_SCRATCH_DIR=$(cd "$dir" && pwd)
  SAMBA_SCRATCH_CONF=$SAMBA_SCRATCH_DIR/smb.conf
  SAMBA_SCRATCH_PORT=$port
  SAMBA_SCRATCH_SHARE=share
  SAMBA_SCRATCH_PASSWORD=Scratch-$RANDOM$RANDOM
  cat >"$SAMBA_SCRATCH_CONF" <<CONF
[global]
  server role = standalone server
  workgroup = SCRATCH
  netbios name = SCRATCHSMB
  smb ports = $port
  interfaces = lo
  bind interfaces only = yes
  disable netbios = yes
  lock directory = $SAMBA_SCRATCH_DIR/lock
  state directory = $SAMBA_SCRATCH_DIR/state
  cache directory = $SAMBA_SCRATCH_DIR/cache
  pid directory = $SAMBA_SCRATCH_DIR/pid
  private dir = $SAMBA_SCRATCH_DIR/private
  ncalrpc dir = $SAMBA_SCRATCH_DIR/ncalrpc
  binddns dir = $SAMBA_SCRATCH_DIR/binddns
  log file = $SAMBA_SCRATCH_DIR/log/smbd.log
  log level = 2
  max log size = 0
  passdb backend = tdbsam:$SAMBA_SCRATCH_DIR/private/passdb.tdb
  load printers = no
  printing = bsd
  printcap name = /dev/null
  disable spoolss = yes
  usershare path =
  server min protocol = SMB2_10

[share]
  path = $SAMBA_SCRATCH_DIR/share
  read only = no
CONF
  printf '%s\n%s\n' "$SAMBA_SCRATCH_PASSWORD" "$SAMBA_SCRATCH_PASSWORD" |
    smbpasswd -c "$SAMBA_SCRATCH_CONF" -a -s root >>"$SAMBA_SCRATCH_DIR/log/smbpasswd.out" 2>&1 || {
    echo "samba_scratch_make: smbpasswd failed" >&2
    return 1
  }
}

# Starts smbd in the foreground (our child) and waits for its port. It gets
# a session of its own: when told to shut down, smbd signals its whole
# process group, which must not be the caller's.
samba_scratch_start_smbd() {
  setsid smbd -F --no-process-group -s "$SAMBA_SCRATCH_CONF" \
    </dev/null >>"$SAMBA_SCRATCH_DIR/log/smbd.stdout" 2>&1 &
  SAMBA_SCRATCH_SMBD_PID=$!
  if ! samba_scratch_wait_for "${SAMBA_SCRATCH_WAIT:-15}" samba_scratch_port_answers "$SAMBA_SCRATCH_PORT"; then
    echo "samba_scratch_start_smbd: port $SAMBA_SCRATCH_PORT never answered; log:" >&2
    tail -n 20 "$SAMBA_SCRATCH_DIR/log/smbd.log" "$SAMBA_SCRATCH_DIR/log/smbd.stdout" >&2 2>/dev/null
    return 1
  fi
}

# Lists the scratch smbd's sessions as smbstatus prints them (brief form).
samba_scratch_sessions() {
  smbstatus -s "$SAMBA_SCRATCH_CONF" -b 2>/dev/null
}

# true when the scratch smbd lists a session of user $1 (default root).
samba_scratch_has_session() {
  samba_scratch_sessions | grep -Eq "^[0-9]+ +${1:-root} "
}

# Opens an smbclient session on the share and holds it: smbclient reads its
# commands from a fifo that stays open until samba_scratch_close_session.
samba_scratch_open_session() {
  local fifo=$SAMBA_SCRATCH_DIR/client.fifo
  rm -f "$fifo"
  mkfifo "$fifo" || return 1
  smbclient "//127.0.0.1/$SAMBA_SCRATCH_SHARE" -p "$SAMBA_SCRATCH_PORT" \
    -U "root%$SAMBA_SCRATCH_PASSWORD" -s "$SAMBA_SCRATCH_CONF" \
    <"$fifo" >>"$SAMBA_SCRATCH_DIR/log/smbclient.out" 2>&1 &
  SAMBA_SCRATCH_CLIENT_PID=$!
  # The writer end keeps smbclient's input open; descriptor kept in a variable.
  exec {SAMBA_SCRATCH_CLIENT_FD}>"$fifo"
  if ! samba_scratch_wait_for "${SAMBA_SCRATCH_WAIT:-15}" samba_scratch_has_session root; then
    echo "samba_scratch_open_session: no session appeared; client said:" >&2
    cat "$SAMBA_SCRATCH_DIR/log/smbclient.out" >&2 2>/dev/null
    return 1
  fi
}

# true while the held smbclient runs.
samba_scratch_session_alive() {
  [ -n "${SAMBA_SCRATCH_CLIENT_PID:-}" ] && kill -0 "$SAMBA_SCRATCH_CLIENT_PID" 2>/dev/null
}

# Ends the held session: closes its input (smbclient quits at end of input),
# then kills it if it lingers.
samba_scratch_close_session() {
  if [ -n "${SAMBA_SCRATCH_CLIENT_FD:-}" ]; then
    exec {SAMBA_SCRATCH_CLIENT_FD}>&-
    SAMBA_SCRATCH_CLIENT_FD=
  fi
  if [ -n "${SAMBA_SCRATCH_CLIENT_PID:-}" ]; then
    samba_scratch_wait_for 5 eval '! kill -0 "$SAMBA_SCRATCH_CLIENT_PID" 2>/dev/null' ||
      kill -KILL "$SAMBA_SCRATCH_CLIENT_PID" 2>/dev/null
    wait "$SAMBA_SCRATCH_CLIENT_PID" 2>/dev/null
    SAMBA_SCRATCH_CLIENT_PID=
  fi
}

# Stops everything started here and removes the scratch folder. Safe to call
# twice and from an EXIT trap.
samba_scratch_stop() {
  samba_scratch_close_session
  if [ -n "${SAMBA_SCRATCH_SMBD_PID:-}" ]; then
    kill -TERM "$SAMBA_SCRATCH_SMBD_PID" 2>/dev/null
    samba_scratch_wait_for 5 eval '! kill -0 "$SAMBA_SCRATCH_SMBD_PID" 2>/dev/null' ||
      kill -KILL "$SAMBA_SCRATCH_SMBD_PID" 2>/dev/null
    wait "$SAMBA_SCRATCH_SMBD_PID" 2>/dev/null
    SAMBA_SCRATCH_SMBD_PID=
  fi
  if [ -n "${SAMBA_SCRATCH_DIR:-}" ] && [ -f "$SAMBA_SCRATCH_DIR/smb.conf" ]; then
    rm -rf "$SAMBA_SCRATCH_DIR"
  fi
  SAMBA_SCRATCH_DIR=
}
