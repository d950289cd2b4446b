#!/bin/bash
# check.sh EXAMPLE PROGRAM_DIR CERT_DIR
# Uses one example as its reader would, and fails where it does not do what its page says. To be run through
# scripts/isolate.sh. EXAMPLE_RUNNER holds words to run the examples through.
# shellcheck disable=SC2317  # the functions named after examples are called by that name
set -euo pipefail
example=$1 programs=$2 certs=$3
read -ra runner <<<"setpriv --pdeathsig KILL ${EXAMPLE_RUNNER-}" # nothing outlives a test that is cut short
export no_proxy='*'

run() { # PROGRAM ARGUMENT...
  local program=$programs/$1
  shift
  "${runner[@]}" "$program" "$@"
}

fail() {
  echo "check.sh: $*" >&2
  [ ! -s /tmp/said ] || sed 's/^/said: /' /tmp/said >&2
  exit 1
}

says() { # TEXT COMMAND...: succeeds with exactly that text
  local expected=$1 text
  shift
  text=$("$@") || fail "exit status $?: $*"
  [ "$text" = "$expected" ] || fail "$* said '$text', not '$expected'"
}

refuses() { # STATUS COMMAND...: exits with that status and prints nothing
  local expected=$1 text status=0
  shift
  text=$("$@" 2>/dev/null) || status=$?
  [ "$status $text" = "$expected " ] || fail "$*: exit status $status, said '$text'"
}

await() { # COMMAND...: succeeds sooner or later
  local tries
  for tries in {1..100}; do
    if "$@" >/dev/null 2>&1; then return; fi
    sleep 0.1
  done
  fail "in $tries tries never succeeded: $*"
}

start() { # ARGUMENT...: the example, as a daemon
  "${runner[@]}" "$programs/$example" "$@" >/tmp/said 2>&1 &
  daemon=$!
}

ends() {
  local status=0
  kill -TERM "$daemon"
  wait "$daemon" || status=$?
  [ "$status" = 0 ] || fail "exit status $status"
}

said() { grep -qE "^$1\$" /tmp/said; }

first_daemon() {
  cd /tmp
  refuses 1 run first_daemon
  cp "$certs/server.pem" cert.pem
  cp "$certs/server-key.pem" key.pem
  start
  await run request_client tls ::1 8443 ready "$certs/ca.pem"
  exec 3<>/dev/tcp/127.0.0.1/8443 # who never says a word
  says hello run request_client tls 127.0.0.1 8443 hello "$certs/ca.pem"
  ends
}

echo_server() {
  start 7007
  await run request_client tcp ::1 7007 ready
  says hello run request_client tcp 127.0.0.1 7007 hello
  refuses 1 run echo_server 7007
  ends
  start 7008 "$certs/server.pem" "$certs/server-key.pem"
  await run request_client tls ::1 7008 ready "$certs/ca.pem"
  says hello run request_client tls 127.0.0.1 7008 hello "$certs/ca.pem"
  says verified s_client verified
  refuses 1 run request_client tcp ::1 7008 hello
  ends
  refuses 1 run echo_server 7008 "$certs/server.pem" /nowhere
}

s_client() { # a stranger, who checks the certificate
  { echo "$1" && sleep 1; } | openssl s_client -connect localhost:7008 -quiet -no_ign_eof \
    -CAfile "$certs/ca.pem" -verify_return_error -verify_hostname localhost 2>/dev/null
}

s_server() { # WHAT_TO_ANSWER: a stranger's server, in place of this shell
  exec setpriv --pdeathsig KILL openssl s_server -quiet "$1" -accept 7443 -cert "$certs/server.pem" \
    -key "$certs/server-key.pem" >/tmp/said 2>&1
}

request_client() {
  s_server -rev &
  local server=$!
  await run request_client tls ::1 7443 ready "$certs/ca.pem"
  says olleh run request_client tls 127.0.0.1 7443 hello "$certs/ca.pem"
  refuses 1 run request_client tls 127.0.0.1 7443 hello "$certs/other-ca.pem"
  refuses 1 run request_client tls 127.0.0.2 7443 hello "$certs/ca.pem"
  kill "$server"
  refuses 1 run request_client tcp 127.0.0.1 7444 hello
  refuses 1 run request_client unix /tmp/nobody hello
  refuses 2 run request_client tcp 127.0.0.1 7443
}

link_watcher() {
  start
  await said 'has lo 00:00:00:00:00:00 running'
  said 'has hutil0 .* running' || fail 'no hutil0'
  ip link add probe address 02:00:00:00:00:01 type veth peer name peer
  await said 'link probe 02:00:00:00:00:01 down'
  ip link set probe up
  await said 'link probe 02:00:00:00:00:01 no cable'
  ip link set peer up
  await said 'link probe 02:00:00:00:00:01 running'
  ip address add 192.0.2.1/24 dev probe
  await said 'IPv4 address on probe'
  ip link add bridge type bridge
  ip link set probe master bridge
  ip link set probe nomaster
  ip link delete probe
  await said 'gone probe'
  [ "$(grep -c 'gone probe' /tmp/said)" = 1 ] || fail 'gone while it was there'
  ends
}

# As systemd does it: a listening socket as descriptor 3, and a socket to tell of readiness.
activate() {
  exec setpriv --pdeathsig KILL python3 - "${runner[@]}" "$programs/activated_echo" <<'ACTIVATE'
import os, socket, sys
listening = socket.create_server(("::", 7010), family=socket.AF_INET6, dualstack_ipv6=True)
os.dup2(listening.fileno(), 3, inheritable=True)
os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1", NOTIFY_SOCKET="/run/notify")
os.execvp(sys.argv[1], sys.argv[1:])
ACTIVATE
}

activated_echo() {
  refuses 1 run activated_echo
  python3 -c 'if True:
    import socket
    notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    notify.bind("/run/notify")
    print(notify.recv(100).decode())' >/tmp/ready &
  await test -S /run/notify
  activate >/tmp/said 2>&1 &
  daemon=$!
  await grep -qx READY=1 /tmp/ready
  says hello run request_client tcp 127.0.0.1 7010 hello
  ends
}

lease_lister() {
  local leases=/var/lib/misc/dnsmasq.leases
  local phone='192.168.1.7      02:00:00:00:00:07  2023-11-14T22:13:20Z  phone'
  refuses 1 run lease_lister
  printf '%s\n' '1700000000 02:00:00:00:00:07 192.168.1.7 phone 01:02:00:00:00:00:07' \
    '0 02:00:00:00:00:08 192.168.1.108 * *' 'duid 00:01:00:01:2c:00' >$leases
  says "$phone"$'\n''192.168.1.108    02:00:00:00:00:08  never                 *' run lease_lister
  says "$phone" run lease_lister 02:00:00:00:00:07
  refuses 1 run lease_lister 02:00:00:00:00:09
}

settings_tool() {
  refuses 1 run settings_tool get mode
  says '' run settings_tool set mode bridge
  says '' run settings_tool set greeting 'good = morning'
  says '' run settings_tool set mode router
  says router run settings_tool get mode
  says 'good = morning' run settings_tool get greeting
  refuses 1 run settings_tool set mode $'two\nlines'
  refuses 2 run settings_tool set mode
}

periodic_tasks() {
  start 20
  await said 'task 0: poll 9'
  said 'task 1: try 3 of 3' || fail 'no third try'
  [ "$(grep -c try /tmp/said)" = 3 ] || fail 'tried on'
  ends
}

multi_server_runner() {
  start 7009 /run/control
  await run request_client tcp ::1 7009 ready
  says 'line 1: hello' run request_client tcp 127.0.0.1 7009 hello
  says 'line 1: hello' run request_client tcp 127.0.0.1 7009 hello
  says 'control: hello' run request_client unix /run/control hello
  ends
  [ ! -e /run/control ] || fail 'the socket file is still there'
}

http_fetch() {
  mkdir /tmp/www
  printf 'a page' >/tmp/www/page
  cd /tmp/www
  s_server -WWW &
  local server=$!
  await run http_fetch https://localhost:7443/page "$certs/ca.pem"
  says 'a page' run http_fetch https://127.0.0.1:7443/page "$certs/ca.pem"
  refuses 1 run http_fetch https://127.0.0.1:7443/page "$certs/other-ca.pem"
  kill "$server"
  busybox httpd -p 127.0.0.1:7080 -h /tmp/www
  await run http_fetch http://127.0.0.1:7080/page
  refuses 1 run http_fetch http://127.0.0.1:7080/nothing
  refuses 1 run http_fetch http://127.0.0.1:7444/
  refuses 1 run http_fetch file:///tmp/www/page
  refuses 2 run http_fetch
}

[ "$(type -t "$example")" = function ] || fail "nothing here tries $example: add a function of that name"
"$example"
echo "check.sh: $example does what its page says"
