#!/usr/bin/env bash
# A complete run of the relay tool on this machine, against the local relay:
# installs what is missing, builds, starts a private sshd running the relay
# (relay/sshd_fixture.py), sets an endpoint up with a one-time code, logs in
# with the tool's own listener, sends a file through the relay's reverse
# forward to a stand-in GridFTP worker, and tears everything down again.
#
# Needs root on Debian 12 (the relay runs under its own login account behind
# a private sshd on 127.0.0.1).  Exits 0 when every step worked.
set -euo pipefail
cd "$(dirname "$0")/.."
REPO=$PWD

step() { printf '\n==> %s\n' "$1"; shift; for l in "$@"; do printf '    %s\n' "$l"; done; }
fail() { printf '\ndemo FAILED: %s\n' "$*" >&2; exit 1; }

if [[ $(id -u) -ne 0 ]]; then
  echo "demo: run as root (sudo $0): the local relay needs its own login" \
       "account and a private sshd" >&2
  exit 1
fi

# --- 1. packages ------------------------------------------------------------
step "1. Installing missing Debian packages" \
     "(those debian/control lists for building and testing, without the" \
     "developer checks; nothing is touched if all are there)"
bash scripts/install-deps.sh --profile pkg.relaytool.nodevtools

# --- 2. build ---------------------------------------------------------------
step "2. Building into build/" \
     "relaytool-testrelay: the tool built to trust the test relay's host keys" \
     "(tests/keys); the default build/src/relaytool trusts no test key." \
     "pdeath: the watcher that runs ssh and ends it when the tool dies."
build_log=$(mktemp /tmp/relaytool-demo-build.XXXXXX.log)
if ! { cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
       cmake --build build -j"$(nproc 2>/dev/null || echo 2)" \
         --target relaytool-testrelay pdeath; } >"$build_log" 2>&1; then
  tail -n 30 "$build_log"
  fail "the build failed; whole log in $build_log"
fi
rm -f "$build_log"
TOOL=$REPO/build/tests/relaytool-testrelay
PDEATH=$REPO/build/pdeath/pdeath
FIXTURE=$REPO/relay/sshd_fixture.py
WORKER=$REPO/tests/e2e/standin_worker.py

# --- everything below is undone on exit --------------------------------------
WORK=$(mktemp -d /tmp/relaytool-demo.XXXXXX)
chmod 755 "$WORK"   # the relay's account must reach $WORK/relay
TOOL_PID="" HOLDER_PID="" SSH_PID=""

# The tool takes any activity on its stdin as "my parent has gone", so it
# gets a FIFO whose only writer is a silent holder process.  Ending the
# holder closes the tool's stdin; the holder also ends by itself if this
# script dies, so the tool never outlives the demo.
start_holder() {
  rm -f "$WORK/stdin"
  mkfifo "$WORK/stdin"
  tail -f /dev/null --pid=$$ >"$WORK/stdin" &
  HOLDER_PID=$!
}
stop_holder() {
  [[ -n $HOLDER_PID ]] && kill "$HOLDER_PID" 2>/dev/null || true
  [[ -n $HOLDER_PID ]] && wait "$HOLDER_PID" 2>/dev/null || true
  HOLDER_PID=""
}

cleanup() {
  local rc=$?
  trap - EXIT
  set +e
  step "9. Tearing down"
  if [[ -n $TOOL_PID ]] && kill -0 "$TOOL_PID" 2>/dev/null; then
    echo "    closing the tool's stdin (the way a parent's exit looks to it)"
    stop_holder
    for _ in $(seq 100); do kill -0 "$TOOL_PID" 2>/dev/null || break; sleep 0.1; done
    if kill -0 "$TOOL_PID" 2>/dev/null; then
      echo "    tool did not exit; killing it"; kill -KILL "$TOOL_PID"
    fi
    wait "$TOOL_PID"; echo "    tool exited with status $?"
  fi
  stop_holder
  if [[ -n $SSH_PID ]]; then
    for _ in $(seq 100); do kill -0 "$SSH_PID" 2>/dev/null || break; sleep 0.1; done
    if kill -0 "$SSH_PID" 2>/dev/null; then
      echo "    ssh (pid $SSH_PID) still running; killing it"; kill -KILL "$SSH_PID"
      rc=1
    else
      echo "    the watcher took the ssh client (pid $SSH_PID) down with the tool"
    fi
  fi
  if [[ -f $WORK/relay/fixture.json ]]; then
    echo "    stopping the relay's sshd"
    "$FIXTURE" stop --dir "$WORK/relay"
  fi
  if [[ $rc -ne 0 && -d $WORK/relay ]]; then
    echo "--- relay logs:"; cat "$WORK/relay/sshd.log" "$WORK/relay/state/relay.log" 2>/dev/null | tail -40 | cut -c1-240
  fi
  rm -rf "$WORK"
  if [[ $rc -eq 0 ]]; then
    printf '\ndemo finished: everything worked, nothing left running\n'
  else
    printf '\ndemo FAILED (status %d); see the messages above\n' "$rc" >&2
  fi
  exit "$rc"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Runs a program with nothing open but 0, 1 and 2, as a parent application
# would start the tool (it reports any other inherited descriptor).
run_clean() {
  local fd
  for fd in /proc/$BASHPID/fd/*; do
    fd=${fd##*/}
    if (( fd > 2 )); then eval "exec $fd>&-" 2>/dev/null || true; fi
  done
  exec "$@"
}

# wait_for FILE REGEX: prints the first matching line, fails after 60 s
wait_for() {
  local line
  for _ in $(seq 600); do
    line=$(grep -m1 -E "$2" "$1" 2>/dev/null) && { printf '%s\n' "$line"; return 0; }
    if [[ -n $TOOL_PID ]] && ! kill -0 "$TOOL_PID" 2>/dev/null; then break; fi
    sleep 0.1
  done
  fail "no line matching '$2' in $1"
}

# --- 3. the local relay -----------------------------------------------------
step "3. Starting the local relay" \
     "Debian's sshd on 127.0.0.1 at a free port, with its own configuration" \
     "in $WORK/relay; its only login, x_relay2, runs relay/relay_server.py."
"$FIXTURE" start --dir "$WORK/relay" | tee "$WORK/fixture.out" | sed 's/^/    [relay] /'
PORT=$(sed -n 's/^port=//p' "$WORK/fixture.out")
[[ -n $PORT ]] || fail "the relay did not report its port"

CODE=demo-$RANDOM$RANDOM
step "4. Registering the one-time setup code '$CODE'" \
     "(what the relay's operator would hand the user)"
"$FIXTURE" add-code --dir "$WORK/relay" "$CODE"

# --- the endpoint's directories and environment ------------------------------
mkdir -p "$WORK/etc" "$WORK/config" "$WORK/files"
cp tests/keys/anonymous.key "$WORK/etc/relay-anonymous.key"
printf 'serve_dir = %s\n' "$WORK/files" >"$WORK/config/gridftp.conf"
head -c 3000000 /dev/urandom >"$WORK/files/results.dat"
head -c 2000000 /dev/urandom >"$WORK/upload.dat"

export HVN_OS=Linux HVN_OS_VERSION="Debian 12" HVN_APP_VERSION="demo 1.0"
export HVN_SSH_PATH=/usr/bin/ssh HVN_PDEATH_PATH=$PDEATH HVN_GRIDFTP_PATH=$WORKER
export HVN_RELAY_SERVER=127.0.0.1:$PORT HVN_USER=$(id -un)
export HVN_CONFIG_DIR=$WORK/config HVN_GLOBAL_ETC_DIR=$WORK/etc
unset HVN_SETUP_CODE HVN_FTP_PORT HVN_DEBUG HVN_SSH_DEBUG HVN_PROTOCOL_VERSION

# --- 5. setup ---------------------------------------------------------------
step "5. Setup: the tool trades the code for credentials" \
     "HVN_SETUP_CODE=$CODE; the tool runs ssh (through pdeath), sends the" \
     "code and writes the credential files into HVN_CONFIG_DIR."
start_holder
set +e
HVN_SETUP_CODE=$CODE run_clean "$TOOL" <"$WORK/stdin" 2>&1 | sed -u 's/^/    [tool setup] /'
rc=${PIPESTATUS[0]}
set -e
stop_holder
[[ $rc -eq 0 ]] || fail "setup exited with status $rc"
echo "    setup exited with status 0; files written:"
(cd "$WORK/config" && ls -l client-id.txt client-key.pem ftp-cert2.pem ftp-key2.pem \
   gridmap config v2done.txt) | sed 's/^/      /'

# --- 6. login ---------------------------------------------------------------
step "6. Login with the tool's own listener (HVN_FTP_PORT=0)" \
     "The tool listens on a free port of 127.0.0.1, asks the relay for a" \
     "reverse forward to it, signs the relay's challenge with client-key.pem" \
     "and reports its state on stdout.  Lines below: [tool status] is the" \
     "tool's stdout (what a parent application parses), [tool log] its" \
     "stderr, where '[ssh stderr]' and '[ftp stderr]' are its children's."
start_holder
# (stderr's filter first: a process substitution inherits the redirections
# made before it, and this one must write to the terminal, not to the other)
HVN_FTP_PORT=0 run_clean "$TOOL" <"$WORK/stdin" \
  2> >(tee "$WORK/tool.err" | sed -u 's/^/    [tool log] /') \
  > >(tee "$WORK/status.log" | sed -u 's/^/    [tool status] /') &
TOOL_PID=$!
wait_for "$WORK/status.log" '^RELAYTOOL=1 status=CONNECTED ' >/dev/null
wait_for "$WORK/status.log" '^RELAYTOOL=1 status=IDLE$' >/dev/null
FWD=$(wait_for "$WORK/tool.err" 'Allocated port [0-9]+ for remote forward' |
      sed -E 's/.*Allocated port ([0-9]+) .*/\1/')
for p in /proc/[0-9]*; do   # with pdeath on Linux, ssh is the tool's child
  if [[ $(awk '{print $4}' "$p/stat" 2>/dev/null) == "$TOOL_PID" &&
        $(cat "$p/comm" 2>/dev/null) == ssh ]]; then
    SSH_PID=${p#/proc/}
  fi
done
echo "    logged in; the relay forwards its port $FWD to the tool's listener" \
     "(ssh client pid ${SSH_PID:-?})"

# --- 7. transfers -----------------------------------------------------------
step "7. Transfers through the relay's port $FWD" \
     "Each connection to that port travels through sshd and the ssh client" \
     "to the tool's listener, which starts one worker for it" \
     "($WORKER, standing in for the GridFTP server)." \
     "Sending upload.dat to a worker, then fetching results.dat from one;" \
     "each connection stays open until the tool reports it as ACTIVE."
/usr/bin/python3 - "$FWD" "$WORK/upload.dat" "$WORK/files/results.dat" \
    "$WORK/status.log" <<'EOF'
import hashlib, socket, sys, time
port, upload, served, status_log = int(sys.argv[1]), *sys.argv[2:]

def status_lines():
    with open(status_log) as f:
        return f.read().splitlines()

def wait(what, predicate):
    deadline = time.monotonic() + 60
    while not predicate():
        if time.monotonic() > deadline:
            sys.exit("the tool never reported " + what)
        time.sleep(0.1)

def transfer(request, payload=b""):
    wait("IDLE", lambda: status_lines()[-1] == "RELAYTOOL=1 status=IDLE")
    before = len(status_lines())
    with socket.create_connection(("127.0.0.1", port), timeout=60) as s:
        s.sendall(request + b"\n" + payload)
        f = s.makefile("rb")
        head = f.readline().decode().split()
        if not head or head[0] != "OK":
            sys.exit("worker refused: %r" % " ".join(head))
        data = f.read(int(head[1])) if request.startswith(b"GET") else b""
        print("    [client] worker answered:", " ".join(head))
        # the worker runs until we hang up: let the tool report it first
        wait("the worker as ACTIVE", lambda: "RELAYTOOL=1 status=ACTIVE "
             "nr_workers=1" in status_lines()[before:])
    return head, data

def check(what, expected, got):
    ok = expected == got
    print("    [client] %-27s sha256 %s... %s" % (what, got[:16],
          "matches" if ok else "DIFFERS from %s..." % expected[:16]))
    if not ok:
        sys.exit(1)

data = open(upload, "rb").read()
head, _ = transfer(b"PUT %d" % len(data), data)
check("sent upload.dat (%d B)" % len(data), hashlib.sha256(data).hexdigest(),
      head[2])
want = hashlib.sha256(open(served, "rb").read()).hexdigest()
head, got = transfer(b"GET results.dat")
check("fetched results.dat (%d B)" % len(got), want,
      hashlib.sha256(got).hexdigest())
wait("IDLE after the transfers",
     lambda: status_lines()[-1] == "RELAYTOOL=1 status=IDLE")
EOF

step "8. Both files arrived intact; the tool is back to IDLE"
