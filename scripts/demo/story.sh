#!/bin/bash
# story.sh BUILD_DIR [--stay]
# The demo itself, for demo.sh, which has put it into namespaces: a chapter for each thing that gatewayd does.
# shellcheck disable=SC2317  # most functions are called through `check`
set -euo pipefail
trap 'echo "demo.sh: broke off at line $LINENO of story.sh" >&2' ERR
# shellcheck source=scripts/demo/stage.sh
. "$(dirname "$0")/stage.sh"
stay=${2-}

bad_command_line() { # ARGUMENT...: one line on standard error, and status 2
  outcome=0
  answer=$("${gatewayd[@]}" "$@" 2>&1 >/dev/null) || outcome=$?
  show gateway "gatewayd $*"
  [ "$outcome" = 2 ] && [ "$(wc -l <<<"$answer")" = 1 ] && [[ $answer == "gatewayd: "* ]]
}

setting_out() {
  chapter 'A gateway, a laptop and a phone on its bridge, a web server beyond its uplink'
  private_files
  network
  certificate
  web_server
  say 'gateway 192.168.77.1 (br0: lan-laptop, lan-phone), 203.0.113.2 (wan0); internet 203.0.113.1'
  check 'an unknown option is refused' bad_command_line --certificate /tmp/cert.pem
  check 'a port is a number' bad_command_line --cert /tmp/cert.pem --key /tmp/key.pem --port https
  check 'a missing certificate file is refused' bad_command_line --cert /tmp/none.pem --key /tmp/key.pem
  check 'a key is no certificate' bad_command_line --cert /tmp/key.pem --key /tmp/key.pem
  check 'gatewayd starts' start_gatewayd
  check 'and is the only one' not "${gatewayd[@]}" --cert /tmp/cert.pem --key /tmp/key.pem 2>/tmp/second.log
}

handing_out() {
  chapter 'dnsmasq hands out addresses, gatewayd reads what it wrote'
  local_ leases
  check 'nothing is leased yet' is ''
  dhcp_server
  check 'the laptop gets an address (udhcpc)' dhcp_client laptop
  check 'the phone gets one too' dhcp_client phone
  check 'and makes itself an IPv6 one from the advertised prefix' wait_for 10 has_global_ipv6
  laptop leases
  local name
  for name in laptop phone; do
    check "the ${name}'s own address and hardware address are listed" \
      has "^$(ipv4_of $name) $(mac_of $name) $name expires=3[56][0-9][0-9]s\$"
  done
  check 'and the identifier of the DHCPv6 server' \
    has "^server-duid $(sed -n 's/^duid //p' /var/lib/misc/dnsmasq.leases)\$"
  check 'the timer service has seen the leases' wait_for 5 status_says 'leases 2'
}

asking() {
  chapter 'The laptop and the phone ask over TLS'
  laptop ifaces
  check 'every interface of the kernel is there' lines "$(ip -o link | wc -l)"
  check 'the loopback' has '^lo mac=00:00:00:00:00:00 kind=loopback state=up ipv4=127.0.0.1/255.0.0.0$'
  check 'the bridge, with its addresses' has "^br0 mac=$(tr a-f A-F </sys/class/net/br0/address) kind=ethernet \
state=up ipv4=192.168.77.1/255.255.255.0 ipv6=2001:0db8:0077:0000:0000:0000:0000:0001\$"
  check 'the uplink' has "^wan0 mac=$(tr a-f A-F </sys/class/net/wan0/address) .* ipv4=203.0.113.2/255.255.255.0\$"
  laptop range 192.168.77.1 255.255.255.0
  check 'a DHCP range' is '192.168.77.2 192.168.77.255'
  phone range 10.0.0.1 255.0.255.0
  check 'a netmask with a hole has none' refused
  phone resolve laptop.lan
  check "a DHCP client's name has the address it leased" is "$(ipv4_of laptop)"
  phone resolve nobody.lan
  check 'an unknown name has none' refused
  phone clients
  check 'the phone itself is connected, over IPv6' has '^tls 2001:db8:77:.*;[0-9]+$'
  laptop clients
  check 'the laptop over IPv4, at the same port' has "^tls ::ffff:$(ipv4_of laptop);[0-9]+\$"
}

s_client() { # a stranger's TLS client, which checks the certificate
  on laptop timeout 20 openssl s_client -connect 192.168.77.1:8443 -quiet -CAfile /tmp/cert.pem \
    -verify_return_error -verify_ip 192.168.77.1 2>/tmp/s_client.log
}

typing() {
  chapter 'A stranger types into one connection: openssl s_client'
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
  laptop status
  check 'and everybody else is served as before' has '^uptime [0-9]+ s$'
}

changing() {
  chapter 'Links go down and up, addresses come and go'
  ip link set lan-phone down
  ip link set lan-phone up
  ip addr add 192.168.78.1/24 dev wan0
  ip addr del 192.168.78.1/24 dev wan0
  ip addr add 2001:db8:78::1/64 dev wan0 nodad
  wait_for 5 event 'new-address wan0 .*ip-version=6$'
  ip route add 198.51.100.0/24 via 203.0.113.1
  ip rule add from 198.51.100.0/24 lookup main
  tc qdisc add dev wan0 root pfifo
  ip link add br1 type bridge
  ip link add spare type veth peer name spare-peer
  ip link del spare
  check 'the last change arrives' wait_for 5 event 'del-link spare'
  laptop events
  check 'the port of the phone changed' has "Z new-link lan-phone mac=$(cat /sys/class/net/lan-phone/address)"
  check 'an address came' has 'Z new-address wan0 .*ip-version=4$'
  check 'and went' has 'Z del-address wan0 .*ip-version=4$'
  check 'an IPv6 one came' has 'Z new-address wan0 .*ip-version=6$'
  check 'a bridge came next: routes, rules and queues are no such changes' follows 'ip-version=6$' 'Z new-link br1 '
  local i
  for i in {1..60}; do # at a pace that no receive buffer is overrun by
    printf 'addr add 10.9.%d.1/24 dev wan0 label wan0:%d\naddr del 10.9.%d.1/24 dev wan0\n' "$i" "$i" "$i" | ip -batch -
    [ $((i % 6)) != 0 ] || wait_for 5 event "del-address wan0:$i "
  done
  ip link add last type veth peer name last-peer
  check 'many more arrive' wait_for 5 event 'new-link last '
  laptop events
  check 'the last hundred are kept' lines 100
  laptop ifaces
  check 'the new interface is down' has '^last .* state=down$'
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
  laptop fetch http://203.0.113.1:9/
  check 'nobody serves there' refused
  laptop fetch file:///etc/hosts
  check "the device's own files are no pages" refused
  on laptop "${lanclient[@]}" tls 192.168.77.1 8443 fetch http://203.0.113.1:81/ >/tmp/hanging 2>&1 &
  local hanging=$!
  check 'a server that never says a word is asked' wait_for 5 connected_to_nobody
  phone status
  check 'which holds nobody up' answered
  check 'and is still going on' kill -0 "$hanging"
  kill "$nobody"
  check 'until the far end goes' not wait "$hanging"
  answer=$(cat /tmp/hanging)
  outcome=1
  show laptop 'fetch http://203.0.113.1:81/'
  check 'and this one is an error too' refused
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

leaving() {
  chapter 'The end'
  check 'its heart beats, into the log' wait_for 15 grep -q "\[$daemon\]: heartbeat 1: up [0-9]* s, " /tmp/gatewayd.log
  check 'and no faster than once a second' calm_heart
  kill -TERM "$daemon"
  outcome=0
  wait "$daemon" || outcome=$?
  check 'gatewayd ends when it is told to' test "$outcome" = 0
  check 'and takes its sockets away' test ! -e /run/gatewayd.status -a ! -e /run/gatewayd.control
}

calm_heart() { [ "$(grep -c "\[$daemon\]: heartbeat [0-9]*:" /tmp/gatewayd.log)" -le $((SECONDS - born + 2)) ]; }

setting_out
handing_out
asking
typing
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
