#!/bin/bash
# story.sh BUILD_DIR [--stay]
# The demo itself, for demo.sh, which has put it into namespaces: a chapter for each thing that gatewayd does.
# shellcheck disable=SC2317  # most functions are called through `check`
set -euo pipefail
trap 'echo "demo.sh: broke off at line $LINENO of story.sh" >&2' ERR
# shellcheck source=scripts/demo/stage.sh
. "$(dirname "$0")/stage.sh"
stay=${2-}

setting_out() {
  private_files
  network
  certificate cert 192.168.77.1 2001:db8:77::1
  dhcp_script
  web_server
  start_gatewayd
}

s_client() { # OPTION...: a stranger's TLS client, which checks the certificate
  on laptop timeout 20 openssl s_client -connect 192.168.77.1:8443 -quiet -CAfile /tmp/cert.pem \
    -verify_return_error -verify_ip 192.168.77.1 "$@" 2>/tmp/s_client.log
}

first_glance() {
  chapter 'Two hosts come into the LAN and ask their gateway over TLS'
  say 'gateway 192.168.77.1 with laptop and phone on its bridge br0, 203.0.113.2 on its uplink wan0'
  check 'gatewayd serves' alive
  dhcp_server
  check 'the laptop gets an address (udhcpc, dnsmasq)' dhcp_client laptop
  check 'the phone gets one too' dhcp_client phone
  laptop leases
  local name
  for name in laptop phone; do
    check "gatewayd knows of the ${name}'s" has "^$(ipv4_of $name) $(mac_of $name) $name expires=3[56][0-9][0-9]s\$"
  done
  check 'and of what the DHCPv6 server calls itself' \
    has "^server-duid $(sed -n 's/^duid //p' /var/lib/misc/dnsmasq.leases)\$"
  check 'the phone has made itself an IPv6 address from the advertised prefix' wait_for 10 has_global_ipv6
  phone clients
  check 'the phone itself is connected, over IPv6' has '^tls 2001:db8:77:.*;[0-9]+$'
  outcome=0
  answer=$(echo quit | s_client -msg -msgfile /tmp/messages) || outcome=$?
  show laptop 'quit (openssl s_client)'
  check 'a stranger trusts the certificate, and speaks TLS 1.3' grep -q 'TLS 1.3.*Finished' /tmp/messages
  check 'the last answer arrives' is $'ok 1\nbye'
  check 'and behind it the gateway ends the connection in order' grep -q '^<<< .*close_notify' /tmp/messages
}

silent_peers() { # They connect, and say nothing.
  beside laptop bash -c 'for i in {1..20}; do exec {fd}<>/dev/tcp/192.168.77.1/8443; done; exec sleep 60'
  strangers+=($!)
}

dripping_peers() { # They send a client's hello, a byte every now and then.
  # shellcheck disable=SC2016  # for the other shell
  beside laptop bash -c '
    trap "" PIPE
    for i in {1..5}; do exec {fd}<>/dev/tcp/192.168.77.1/8443; all+=("$fd"); done
    for byte in 16 03 01 02 00 01 00 01 fc 03 03 {100..400}; do
      for fd in "${all[@]}"; do printf "\x${byte: -2}" >&"$fd"; done
      sleep 0.1
    done' 2>/dev/null
  strangers+=($!)
}

typing() { # into one connection, as a stranger does
  outcome=0
  answer=$({ printf 'ran'; sleep 0.3; printf 'ge 10.1.0.1 255.255.0.0\r\nresolve localhost\nbogus\nrange one\n'
    printf '\n'; head -c 5000 /dev/zero | tr '\0' x
    printf '\nget\tmode\nrange 10.0.0.1 255.0.0.0\nquit\n'; } | s_client) || :
  show laptop 'ran … ge 10.1.0.1 255.255.0.0⏎ resolve localhost⏎ bogus⏎ range one⏎ ⏎ xxxxx…x⏎ get→mode⏎ range … quit⏎'
  local expected=('ok 1' '10.1.0.2 10.1.255.255' 'ok [0-9]*' '127.0.0.1' 'error: unknown command bogus, try help'
    'error: usage: range GATEWAY NETMASK' 'error: empty line, try help' 'error: line too long'
    'error: control characters in the line' 'ok 1' '10.0.0.2 10.255.255.255' 'ok 1' 'bye')
  check 'split lines, many lines, bad lines: every one is answered in its turn, then the line is closed' \
    matches "$(printf '%s\n' "${expected[@]}")"
  outcome=0
  answer=$(on laptop timeout 5 bash -c 'exec 3<>/dev/tcp/192.168.77.1/8443; echo status >&3; cat <&3' 2>/dev/null) || :
  show laptop 'status (in clear, to the TLS port)'
  check 'who speaks no TLS hears nothing of ours' lacks 'uptime'
}

bad_company() {
  chapter 'Nobody holds anybody up'
  strangers=()
  silent_peers
  dripping_peers
  sleep 0.2
  local begin
  begin=$(milliseconds)
  laptop status
  local took=$(($(milliseconds) - begin))
  check "beside 20 TLS peers that say nothing and 5 that drip, an honest one is served: in $took ms" \
    test "$took" -lt $((patience * 1000))
  check 'and nobody has been taken out for that' logged 0 'taken out'
  beside laptop "${lanclient[@]}" tls /tmp/cert.pem 192.168.77.1 8443 fetch http://203.0.113.1:81/ >/tmp/hanging 2>&1
  hanging=$!
  beside phone openssl s_client -connect '[2001:db8:77::1]:8443' -quiet < <(exec sleep 60) >/dev/null 2>&1
  local goes=$!
  check 'the phone comes once more' wait_for 10 logged 2 'tls: 2001:db8:77:[^ ]* has come'
  kill -KILL "$goes"
  { wait "$goes" || :; } 2>/dev/null
  check 'and is killed: what gatewayd keeps for it goes too' wait_for 10 logged 2 'tls: 2001:db8:77:[^ ]* has gone'
  certificate impostor 192.168.77.1 "$(ipv4_of phone)"
  beside phone openssl s_server -quiet -accept 8443 -cert /tmp/impostor.pem -key /tmp/impostor-key.pem \
    >/tmp/overheard 2>&1
  local impostor=$!
  wait_for 10 on laptop bash -c "exec 3<>/dev/tcp/$(ipv4_of phone)/8443" 2>/dev/null
  ask laptop tls /tmp/cert.pem "$(ipv4_of phone)" 8443 -- set wifi_password hunter2
  check 'the phone plays the gateway, with a certificate of its own making: it is not trusted' test "$outcome" = 3
  check 'and hears nothing' not grep -q hunter2 /tmp/overheard
  kill "$impostor"
  typing
  check "in $patience s the 25 are gone" wait_for $((patience * 3)) \
    logged 25 'taken out: handshake not finished in time'
  answer=$(grep -m 1 'not finished in time' /tmp/gatewayd.log | sed 's/.*: client/… client/')
  show gateway '(its log)'
  kill "${strangers[@]}"
}

looking() {
  chapter 'What the gateway knows of its interfaces'
  laptop ifaces
  check 'every interface of the kernel is there' lines "$(ip -o link | wc -l)"
  check 'the loopback' has '^lo state=up kind=loopback mac=00:00:00:00:00:00 ipv4=127.0.0.1/255.0.0.0$'
  check 'the bridge, with its addresses' has "^br0 state=up kind=ethernet mac=$(tr a-f A-F </sys/class/net/br0/address) \
ipv4=192.168.77.1/255.255.255.0 ipv6=2001:0db8:0077:0000:0000:0000:0000:0001\$"
  check 'the uplink' has "^wan0 state=up .* mac=$(tr a-f A-F </sys/class/net/wan0/address) \
ipv4=203.0.113.2/255.255.255.0\$"
  laptop range 192.168.77.1 255.255.255.0
  check 'a DHCP range' is '192.168.77.2 192.168.77.255'
  phone range 10.0.0.1 255.0.255.0
  check 'a netmask with a hole has none' refused
  phone resolve laptop.lan
  check "a DHCP client's name has the address it leased" is "$(ipv4_of laptop)"
  phone resolve nobody.lan
  check 'an unknown name has none' refused
  check 'the timer service has counted the leases' wait_for 5 status_says 'leases 2'
  laptop clients
  check 'the laptop is connected over IPv4, at the same port as the phone' has "^tls ::ffff:$(ipv4_of laptop);[0-9]+\$"
}

a_hundred_are_kept() { event 'wan0:60 is gone' && [ "$(wc -l <<<"$answer")" = 100 ]; }

changing() {
  chapter 'A cable is pulled, links come and go, addresses too'
  on laptop ip link set eth0 down
  check 'the laptop is off' wait_for 5 event 'lan-laptop state=no-cable$'
  on laptop ip link set eth0 up
  check 'and on again' wait_for 5 event 'lan-laptop state=up$'
  ip addr add 192.168.78.1/24 dev wan0 label wan0:1
  check 'an address comes' wait_for 5 event 'wan0:1 is new: .* ipv4=192.168.78.1/255.255.255.0$'
  ip addr del 192.168.78.1/24 dev wan0
  check 'and goes' wait_for 5 event 'wan0:1 is gone$'
  ip addr add 2001:db8:78::1/64 dev wan0 nodad
  check 'an IPv6 one comes' wait_for 5 event 'wan0 ipv6=2001:0db8:0078:0000:0000:0000:0000:0001$'
  ip route add 198.51.100.0/24 via 203.0.113.1
  ip rule add from 198.51.100.0/24 lookup main
  tc qdisc add dev wan0 root pfifo
  ip link add br1 type bridge
  check 'a bridge comes' wait_for 5 event 'br1 is new: state=down'
  phone events
  check 'routes, rules and queues are no such changes' follows 'wan0 ipv6=' 'br1 is new'
  local i
  for i in {1..60}; do
    printf 'addr add 10.9.%d.1/24 dev wan0 label wan0:%d\n' "$i" "$i"
  done | ip -batch -
  check 'sixty more come at once' wait_for 5 event 'wan0:60 is new'
  for i in {1..60}; do printf 'addr del 10.9.%d.1/24 dev wan0\n' "$i"; done | ip -batch -
  check 'and go, and the last hundred changes are kept' wait_for 10 a_hundred_are_kept
  laptop events
}

other_doors() {
  chapter 'The same commands in clear on a Unix socket; control and discovery datagrams'
  local_ clients
  check 'a Unix client is there too' has '^unix '
  ask gateway control /run/gatewayd.control -- pid dnsmasq
  check 'the control socket finds dnsmasq' is "$dnsmasq"
  ask gateway control /run/gatewayd.control -- resolve phone.lan
  check 'and waits for the resolver aside' is "$(ipv4_of phone)"
  ask gateway control /run/gatewayd.control -- pid nobody-by-that-name
  check 'nobody by that name' refused
  ask laptop discover 192.168.77.255 8443 --
  check 'the laptop calls into the LAN and finds the gateway' is 'gatewayd tls 8443'
  ask phone discover 192.168.77.1 8443 --
  check 'the phone asks it directly' is 'gatewayd tls 8443'
  check 'the Unix sockets are for root alone' \
    test "$(stat -c %a /run/gatewayd.status /run/gatewayd.control | uniq)" = 700
}

fetching() {
  chapter 'Pages from beyond the uplink'
  laptop fetch http://203.0.113.1/
  check 'the page of the web server' is "$(cat /tmp/www/index.html)"
  phone fetch http://203.0.113.1/long.txt
  check 'a long one, whole' is "$(cat /tmp/www/long.txt)"
  laptop fetch http://203.0.113.1/longer.txt
  check 'one longer than gatewayd takes is refused' refused
  laptop fetch http://203.0.113.1/nothing
  check 'what the server does not have is no page' is_error 'status 404 from http://203.0.113.1/nothing'
  laptop fetch http://203.0.113.1:9/
  check 'nobody serves there' refused
  laptop fetch file:///etc/hosts
  check "the device's own files are no pages" refused
  outcome=0
  wait "$hanging" || outcome=$?
  answer=$(cat /tmp/hanging)
  show laptop 'fetch http://203.0.113.1:81/ (since chapter 2)'
  check "a server that never says a word was given up after $patience s" refused
}

remembering() {
  chapter 'Settings outlive a daemon that is killed'
  laptop get wan_mode
  check 'no such setting yet' refused
  laptop set wan_mode bridge
  check 'stored' answered
  phone set greeting 'good morning, = and all'
  check 'stored too' answered
  check 'both are in the file' test "$(sort /data/persistent_data.conf)" = \
    "$(printf 'greeting=!=%%=good morning, = and all\nwan_mode=!=%%=bridge')"
  kill -KILL "$daemon"
  { wait "$daemon" || :; } 2>/dev/null
  say 'kill -KILL gatewayd'
  laptop get wan_mode
  check 'it is gone' test "$outcome" = 3
  check 'it starts again, over the socket files that it left behind' start_gatewayd
  laptop get wan_mode
  check 'the setting is there' is bridge
  phone get greeting
  check 'and the other one' is 'good morning, = and all'
  laptop set wan_mode router
  phone get wan_mode
  check 'a setting can change' is router
}

bad_command_line() { # ARGUMENT...: one line on standard error, and status 2
  outcome=0
  answer=$("${gatewayd[@]}" "$@" 2>&1 >/dev/null) || outcome=$?
  show gateway "gatewayd $*"
  [ "$outcome" = 2 ] && [ "$(wc -l <<<"$answer")" = 1 ] && [[ $answer == "gatewayd: "* ]]
}

leaving() {
  chapter 'The end, and what is no beginning'
  check 'its heart beats, into the log' wait_for 15 grep -q "\[$daemon\]: heartbeat 1: up [0-9]* s, " /tmp/gatewayd.log
  check 'and no faster than once a second' calm_heart
  check 'gatewayd is the only one' not "${gatewayd[@]}" --cert /tmp/cert.pem --key /tmp/cert-key.pem 2>/tmp/second.log
  kill -TERM "$daemon"
  outcome=0
  wait "$daemon" || outcome=$?
  check 'it ends when it is told to' test "$outcome" = 0
  check 'and takes its sockets away' test ! -e /run/gatewayd.status -a ! -e /run/gatewayd.control
  check 'an unknown option is refused' bad_command_line --certificate /tmp/cert.pem
  check 'a port is a number' bad_command_line --cert /tmp/cert.pem --key /tmp/cert-key.pem --port https
  check 'a missing certificate file is refused' bad_command_line --cert /tmp/none.pem --key /tmp/cert-key.pem
  check 'a key is no certificate' bad_command_line --cert /tmp/cert-key.pem --key /tmp/cert-key.pem
}

calm_heart() { [ "$(grep -c "\[$daemon\]: heartbeat [0-9]*:" /tmp/gatewayd.log)" -le $((SECONDS - born + 2)) ]; }

setting_out
first_glance
bad_company
looking
changing
other_doors
fetching
remembering
leaving
if [ "$failures" = 0 ]; then
  printf '\n%s%d checks, all as they should be, in %d s%s\n' "$green" "$checks" "$SECONDS" "$plain"
else
  printf '\n%s%d of %d checks failed%s; the end of the log:\n' "$red" "$failures" "$checks" "$plain"
  tail -n 30 /tmp/gatewayd.log
fi
[ -z "$stay" ] || stay_here
exit $((failures > 0))
