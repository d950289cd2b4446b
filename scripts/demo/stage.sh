#!/bin/bash
# stage.sh, for story.sh: what the demo is told with, and the stage that it plays on. $1 is the folder of the build.
# shellcheck disable=SC2034,SC2317  # most of it is for the story, which calls most functions through `check`

read -ra runner <<<"${DEMO_RUNNER-}"
gatewayd=(${runner[@]+"${runner[@]}"} "$1/examples/gatewayd")
lanclient=(${runner[@]+"${runner[@]}"} "$1/examples/lanclient")
patience=${DEMO_PATIENCE:-2} # seconds that gatewayd waits for a peer
bold='' dim='' green='' red='' plain=''
if [ -t 1 ]; then
  bold=$'\e[1m' dim=$'\e[2m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
fi

# ---- How it is told ----

chapters=0 checks=0 failures=0 answer='' outcome=0

chapter() { printf '\n%s%d. %s%s\n' "$bold" $((++chapters)) "$1" "$plain"; }
say() { printf '   %s\n' "$1"; }

check() { # WHAT COMMAND...: what should hold, and the command that says whether it does
  local what=$1
  shift
  checks=$((checks + 1))
  if "$@"; then
    printf '   %s✓%s %s\n' "$green" "$plain" "$what"
  else
    failures=$((failures + 1))
    printf '   %s✗ %s%s\n' "$red" "$what" "$plain"
  fi
}

on() { # HOST COMMAND...
  if [ "$1" = gateway ]; then "${@:2}"; else nsenter --net="/run/netns/$1" "${@:2}"; fi
}

beside() { # HOST COMMAND...: goes on beside the story; its process is $!
  nsenter --net="/run/netns/$1" "${@:2}" &
}

show() { # HOST QUESTION: the question and the answer to it, a long one's beginning; of events, their end
  printf '   %s%-8s▸%s %s\n' "$dim" "$1" "$plain" "$2"
  [ -z "$answer" ] || printf '%s\n' "$answer" | awk -v dim="$dim" -v plain="$plain" -v question="$2" '
    function put(text) {
      if (length(text) > 110) text = substr(text, 1, 109) "…"
      print "            " dim "│" plain " " text
    }
    { line[NR] = $0 }
    END {
      most = NR > 9 ? 8 : NR
      first = question == "events" ? NR - most : 0
      if (first > 0) put("… " first " lines before these")
      for (i = 1; i <= most; i++) put(line[first + i])
      if (first + most < NR) put("… " NR - most " lines more")
    }'
}

ask() { # HOST WAY... -- COMMAND...: one question through lanclient
  local host=$1 way=()
  shift
  while [ "$1" != -- ]; do
    way+=("$1")
    shift
  done
  shift
  outcome=0
  answer=$(on "$host" timeout 30 "${lanclient[@]}" "${way[@]}" "$@" 2>&1 |
    sed 's/^lanclient: .*) [0-9]*: /lanclient: … /') || outcome=$? # without the function that says so
  show "$host" "${*:-(${way[*]})}"
}

laptop() { ask laptop tls /tmp/cert.pem 192.168.77.1 8443 -- "$@"; }
phone() { ask phone tls /tmp/cert.pem 2001:db8:77::1 8443 -- "$@"; }
local_() { ask gateway unix /run/gatewayd.status -- "$@"; }

answered() { [ "$outcome" = 0 ]; }
is() { answered && [ "$answer" = "$1" ]; }
has() { answered && grep -Eq -- "$1" <<<"$answer"; }
is_error() { [ "$outcome" = 1 ] && [ "$answer" = "error: $1" ]; }
refused() { [ "$outcome" = 1 ] && [[ $answer == "error: "* ]]; }
lines() { answered && [ "$(wc -l <<<"$answer")" = "$1" ]; }
not() { ! "$@"; }
lacks() { answered && ! grep -q -- "$1" <<<"$answer"; }
follows() { grep -A1 -- "$1" <<<"$answer" | tail -n 1 | grep -q -- "$2"; }

matches() { # PATTERNS, one for each line of the answer
  local pattern line
  [ "$(wc -l <<<"$1")" = "$(wc -l <<<"$answer")" ] || return 1
  while read -r pattern <&3 && read -r line <&4; do
    grep -qx -- "$pattern" <<<"$line" || return 1
  done 3<<<"$1" 4<<<"$answer"
}

wait_for() { # SECONDS COMMAND...
  local tries=$(($1 * 10))
  shift
  until "$@"; do
    [ $((tries--)) -gt 0 ] || return 1
    sleep 0.1
  done
}

# ---- The stage ----

private_files() {
  mount -t proc proc /proc
  cp -a /etc /tmp/etc 2>/dev/null || : # as far as it can be read
  mount --bind /tmp/etc /etc
  rm -f /etc/resolv.conf /etc/hosts /etc/nsswitch.conf
  echo 'nameserver 127.0.0.1' >/etc/resolv.conf
  echo '127.0.0.1 localhost' >/etc/hosts
  echo 'hosts: files dns' >/etc/nsswitch.conf
  : >/tmp/kmsg
  local device
  for device in /dev/kmsg /dev/log; do # this machine's own logs hear nothing of it
    [ ! -e $device ] || mount --bind /tmp/kmsg $device
  done
}

host() { # NAME PORT: a host, and its link to the gateway's interface PORT
  ip netns add "$1"
  ip link add "$2" type veth peer name eth0 netns "$1"
  echo 0 >"/proc/sys/net/ipv6/conf/$2/accept_dad"
  ip link set "$2" up
  on "$1" sh -c 'echo 0 >/proc/sys/net/ipv6/conf/eth0/accept_dad
    ip link set lo up && ip link set eth0 up'
}

network() {
  ip link del hutil0
  echo 1 >/proc/sys/net/ipv6/conf/all/forwarding # a router takes no address from its own advertisement
  ip link add br0 type bridge forward_delay 0
  ip addr add 192.168.77.1/24 dev br0
  ip addr add 2001:db8:77::1/64 dev br0 nodad
  ip link set br0 up
  local name
  for name in laptop phone; do
    host "$name" "lan-$name"
    ip link set "lan-$name" master br0
  done
  host internet wan0
  ip addr add 203.0.113.2/24 dev wan0
  on internet ip addr add 203.0.113.1/24 dev eth0
}

web_server() {
  mkdir /tmp/www
  printf '<h1>Hello from beyond the uplink</h1>\n<p>second line</p>\n' >/tmp/www/index.html
  seq -f 'line %05.0f of a long page' 1 1000 >/tmp/www/long.txt
  seq -f 'line %05.0f of a longer one' 1 2000 >/tmp/www/longer.txt
  on internet busybox httpd -f -p 203.0.113.1:80 -h /tmp/www &
  # It takes a connection and never says a word.
  nsenter --net=/run/netns/internet busybox nc -l -p 81 < <(sleep infinity) >/dev/null &
}

dhcp_server() {
  dnsmasq --keep-in-foreground --conf-file=/dev/null --pid-file= --user=root --group= --log-facility=/tmp/dnsmasq.log \
    --interface=br0 --interface=lo --bind-dynamic --no-resolv --no-hosts --domain=lan --dhcp-authoritative --no-ping \
    --dhcp-range=192.168.77.50,192.168.77.99,255.255.255.0,1h \
    --dhcp-range=2001:db8:77::100,2001:db8:77::1ff,slaac,64,1h --enable-ra &
  dnsmasq=$!
}

dhcp_client() { # HOST
  on "$1" udhcpc -i eth0 -f -n -q -t 20 -T 1 -A 1 -x "hostname:$1" -s /tmp/udhcpc.sh >"/tmp/udhcpc-$1.log" 2>&1
}

certificate() { # NAME IP...: in /tmp/NAME.pem, its key beside it
  local name=$1 names
  shift
  names=$(printf ',IP:%s' "$@")
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=gateway -addext "subjectAltName=${names#,}" \
    -keyout "/tmp/$name-key.pem" -out "/tmp/$name.pem" 2>/tmp/openssl.log
}

dhcp_script() {
  cat >/tmp/udhcpc.sh <<'SCRIPT'
#!/bin/sh
case $1 in
  bound | renew)
    ip addr replace "$ip/$mask" dev "$interface"
    ip route replace default via "$router"
    ;;
esac
SCRIPT
  chmod +x /tmp/udhcpc.sh
}

start_gatewayd() {
  "${gatewayd[@]}" --cert /tmp/cert.pem --key /tmp/cert-key.pem --heartbeat 1 --patience "$patience" --stderr \
    2>>/tmp/gatewayd.log &
  daemon=$! born=$SECONDS
  wait_for 10 alive
}

# The control socket is the last that it opens.
alive() { "${lanclient[@]}" control /run/gatewayd.control status >/dev/null 2>&1; }

ipv4_of() { on "$1" ip -4 -o addr show dev eth0 | sed 's/.*inet \([0-9.]*\).*/\1/'; }
mac_of() { on "$1" ip -o link show dev eth0 | sed 's/.*ether \([0-9a-f:]*\).*/\1/'; }
has_global_ipv6() { [ -n "$(on phone ip -6 -o addr show dev eth0 scope global)" ]; }

status_says() {
  answer=$("${lanclient[@]}" unix /run/gatewayd.status status) && grep -qx "$1" <<<"$answer"
}

event() {
  answer=$("${lanclient[@]}" unix /run/gatewayd.status events) && grep -q "$1" <<<"$answer"
}

logged() { # COUNT PATTERN: that often, since gatewayd last started
  [ "$(grep "gatewayd\[$daemon\]:" /tmp/gatewayd.log | grep -c -- "$2")" = "$1" ]
}

milliseconds() { echo $((${EPOCHREALTIME/[.,]/} / 1000)); }

stay_here() {
  start_gatewayd
  mkdir /tmp/bin
  local name
  for name in laptop phone internet; do
    printf '#!/bin/sh\nexec nsenter --net=/run/netns/%s "$@"\n' "$name" >"/tmp/bin/$name"
  done
  chmod +x /tmp/bin/*
  export PATH=/tmp/bin:$PATH:${lanclient[-1]%/*}
  cat <<'HOW'

   This is a shell on the gateway; leaving it ends everything. For instance:
     laptop lanclient tls /tmp/cert.pem 192.168.77.1 8443 help
     laptop openssl s_client -connect 192.168.77.1:8443 -CAfile /tmp/cert.pem -quiet
     phone lanclient tls /tmp/cert.pem 2001:db8:77::1 8443 ifaces
     phone ip link set eth0 down
     lanclient unix /run/gatewayd.status events
     tail -f /tmp/gatewayd.log
HOW
  PS1='gateway# ' bash --norc || :
}
