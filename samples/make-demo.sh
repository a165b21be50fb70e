#!/usr/bin/env bash
# Remakes samples/demo.pcap: real traffic between hosts in network namespaces,
# captured on the client's Ethernet link (a veth pair) in pcap format.
#
# Usage (as root): samples/make-demo.sh [OUTPUT.pcap]   (default: samples/demo.pcap)
#
#   office ──vlan100── client ══eth0 (captured)══ server ──vlan100── intranet
#
# client and server are the main pair. office and intranet talk over VLAN 100:
# a small relay in client and server tags their frames with 802.1Q id 100 on
# the captured link (plain VLAN subinterfaces need kernel 802.1Q support, which
# not every kernel has), so the tags are really on the wire.
#
# Nothing outside the namespaces is touched: addresses are private and live
# only inside them, server state stays in a temporary directory, and the
# namespaces and every process started in them are removed on exit.

# Inner scripts passed to bash -c take their arguments as $0, $1...: single quotes are meant.
# shellcheck disable=SC2016
set -Eeuo pipefail

SAMPLES_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
readonly SAMPLES_DIR
readonly OUTPUT=${1:-$SAMPLES_DIR/demo.pcap}
readonly CLIENT_NS=quelm-demo-client
readonly SERVER_NS=quelm-demo-server
readonly OFFICE_NS=quelm-demo-office
readonly INTRANET_NS=quelm-demo-intranet
readonly ALL_NS=("$CLIENT_NS" "$SERVER_NS" "$OFFICE_NS" "$INTRANET_NS")
readonly DOMAIN=demo.quelm.test

readonly CLIENT_MAC=02:99:00:00:00:02
readonly CLIENT_V4=10.99.0.2 CLIENT_V6=fd00:99::2
# The server is one host with one address per service, so flows are easy to
# tell apart by address as well as by port.
readonly SERVER_MAC=02:99:00:00:00:01
readonly GATEWAY_V4=10.99.0.1 GATEWAY_V6=fd00:99::1
readonly WWW_V4=10.99.0.10 WWW_V6=fd00:99::10
readonly SECURE_V4=10.99.0.11 SECURE_V6=fd00:99::11
readonly LOGIN_V4=10.99.0.12 LOGIN_V6=fd00:99::12
readonly ECHO_V4=10.99.0.20 ECHO_V6=fd00:99::20
readonly SHELL_V4=10.99.0.22
readonly DNS_V4=10.99.0.53 DNS_V6=fd00:99::53
readonly VLAN_ID=100
readonly OFFICE_MAC=02:99:00:00:64:02 OFFICE_V4=10.99.100.2
readonly INTRANET_MAC=02:99:00:00:64:01 INTRANET_V4=10.99.100.1

die() {
    echo "make-demo.sh: $*" >&2
    exit 1
}

[[ $EUID -eq 0 ]] || die "run as root (namespaces, veth and tcpdump need it)"

install_missing_packages() {
    local -A package_of=(
        [ip]=iproute2 [tcpdump]=tcpdump [ethtool]=ethtool [nginx]=nginx-light
        [openssl]=openssl [curl]=curl [dnsmasq]=dnsmasq-base [dig]=bind9-dnsutils
        [ping]=iputils-ping [socat]=socat [sshd]=openssh-server [ssh]=openssh-client
        [python3]=python3-minimal
    )
    local -a missing=()
    local tool
    for tool in "${!package_of[@]}"; do
        command -v "$tool" >/dev/null || [[ -x /usr/sbin/$tool ]] || missing+=("${package_of[$tool]}")
    done
    ((${#missing[@]} == 0)) && return
    echo "installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

WORK_DIR=
cleanup() {
    local ns pid
    for ns in "${ALL_NS[@]}"; do
        [[ -e /run/netns/$ns ]] || continue
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill "$pid" 2>/dev/null || true; done
        sleep 0.3
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
        ip netns delete "$ns" 2>/dev/null || true
    done
    if [[ -n $WORK_DIR ]]; then rm -rf "$WORK_DIR"; fi
}

in_client() { ip netns exec "$CLIENT_NS" "$@"; }
in_server() { ip netns exec "$SERVER_NS" "$@"; }

# Runs a client program that resolves names through the demo DNS server: it
# gets its own resolv.conf in a private mount namespace.
resolving_client() {
    ip netns exec "$CLIENT_NS" unshare --mount -- \
        bash -c 'mount --bind "$0" /etc/resolv.conf && exec "$@"' "$WORK_DIR/resolv.conf" "$@"
}

# Polls until something listens on a TCP (t) or UDP (u) port in a namespace.
wait_for_listener() {
    local ns=$1 proto=$2 port=$3
    for _ in $(seq 50); do
        ip netns exec "$ns" ss -Hln"$proto" "sport = :$port" | grep -q . && return
        sleep 0.1
    done
    die "nothing listens on $proto port $port in $ns (server logs: $(tail -n 5 "$WORK_DIR"/*.log))"
}

# Frames crossing the captured link must be wire-sized, carry real checksums
# and keep VLAN tags in the frame: the relay and tcpdump see them as they are.
disable_offloads() {
    ip netns exec "$1" ethtool -K "$2" tso off gso off gro off tx off rx off rxvlan off txvlan off \
        >/dev/null 2>&1 || true
}

set_up_network() {
    local ns
    for ns in "${ALL_NS[@]}"; do
        ip netns add "$ns"
        ip netns exec "$ns" ip link set lo up
        # No duplicate-address probes, router solicitations or autoconfiguration:
        # the capture should hold the demo flows, not IPv6 housekeeping.
        ip netns exec "$ns" sysctl -qw net.ipv6.conf.default.accept_dad=0 net.ipv6.conf.all.accept_dad=0 \
            net.ipv6.conf.default.accept_ra=0 net.ipv6.conf.all.accept_ra=0 \
            net.ipv6.conf.default.router_solicitations=0 net.ipv6.conf.all.router_solicitations=0
    done
    # The VLAN pair speaks IPv4 only.
    for ns in "$OFFICE_NS" "$INTRANET_NS"; do
        ip netns exec "$ns" sysctl -qw net.ipv6.conf.default.disable_ipv6=1 net.ipv6.conf.all.disable_ipv6=1
    done

    ip link add name eth0 netns "$CLIENT_NS" address "$CLIENT_MAC" type veth \
        peer name eth0 netns "$SERVER_NS" address "$SERVER_MAC"
    ip link add name eth0 netns "$OFFICE_NS" address "$OFFICE_MAC" type veth \
        peer name "vlan$VLAN_ID" netns "$CLIENT_NS"
    ip link add name eth0 netns "$INTRANET_NS" address "$INTRANET_MAC" type veth \
        peer name "vlan$VLAN_ID" netns "$SERVER_NS"
    for ns in "$CLIENT_NS" "$SERVER_NS"; do
        ip netns exec "$ns" sysctl -qw "net.ipv6.conf.vlan$VLAN_ID.disable_ipv6=1"
        disable_offloads "$ns" "vlan$VLAN_ID"
        ip netns exec "$ns" ip link set "vlan$VLAN_ID" up
    done

    in_client ip addr add "$CLIENT_V4/24" dev eth0
    in_client ip addr add "$CLIENT_V6/64" dev eth0 nodad
    local address
    for address in "$GATEWAY_V4" "$WWW_V4" "$SECURE_V4" "$LOGIN_V4" "$ECHO_V4" "$SHELL_V4" "$DNS_V4"; do
        in_server ip addr add "$address/24" dev eth0
    done
    for address in "$GATEWAY_V6" "$WWW_V6" "$SECURE_V6" "$LOGIN_V6" "$ECHO_V6" "$DNS_V6"; do
        in_server ip addr add "$address/64" dev eth0 nodad
    done
    ip netns exec "$OFFICE_NS" ip addr add "$OFFICE_V4/24" dev eth0
    ip netns exec "$INTRANET_NS" ip addr add "$INTRANET_V4/24" dev eth0

    for ns in "${ALL_NS[@]}"; do
        disable_offloads "$ns" eth0
        ip netns exec "$ns" ip link set eth0 up
    done
}

write_vlan_relay() {
    # Bridges one untagged access port and a trunk port for a single VLAN:
    # frames from the access port leave the trunk tagged, tagged frames of that
    # VLAN arriving on the trunk leave the access port untagged.
    cat >"$WORK_DIR/vlan-relay.py" <<'EOF'
import select, socket, struct, sys

ETH_P_ALL = 0x0003
ETH_P_8021Q = 0x8100
SOL_PACKET = 263
PACKET_AUXDATA = 8
PACKET_OUTGOING = 4
TP_STATUS_VLAN_VALID = 1 << 4
AUXDATA = struct.Struct("IIIHHHH")  # struct tpacket_auxdata

trunk_name, access_name, vlan_id = sys.argv[1], sys.argv[2], int(sys.argv[3])


def open_port(name):
    port = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    port.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
    port.bind((name, 0))
    return port


def receive(port):
    """Returns (untagged frame, VLAN id or None); (None, None) for frames sent here."""
    frame, ancillary, _, address = port.recvmsg(65536, socket.CMSG_SPACE(AUXDATA.size))
    if address[2] == PACKET_OUTGOING:
        return None, None
    # The kernel usually moves the tag out of the frame into packet metadata.
    for level, kind, data in ancillary:
        if level == SOL_PACKET and kind == PACKET_AUXDATA:
            status, _, _, _, _, tci, _ = AUXDATA.unpack(data[: AUXDATA.size])
            if status & TP_STATUS_VLAN_VALID:
                return frame, tci & 0x0FFF
    if int.from_bytes(frame[12:14], "big") == ETH_P_8021Q:
        return frame[:12] + frame[16:], int.from_bytes(frame[14:16], "big") & 0x0FFF
    return frame, None


trunk, access = open_port(trunk_name), open_port(access_name)
tag = struct.pack("!HH", ETH_P_8021Q, vlan_id)
print("relay ready", flush=True)
while True:
    for port in select.select([trunk, access], [], [])[0]:
        frame, frame_vlan = receive(port)
        if frame is None:
            continue
        if port is trunk and frame_vlan == vlan_id:
            access.send(frame)
        elif port is access and frame_vlan is None:
            trunk.send(frame[:12] + tag + frame[12:])
EOF
}

# Prints an nginx configuration whose state lives in $WORK_DIR/nginx-NAME;
# the remaining arguments are its server blocks.
nginx_config() {
    local state=$WORK_DIR/nginx-$1
    shift
    mkdir -p "$state"
    cat <<EOF
daemon off;
user root;
worker_processes 1;
pid $state/nginx.pid;
error_log $state/error.log;
events { worker_connections 64; }
http {
    access_log $state/access.log;
    client_body_temp_path $state/body;
    proxy_temp_path $state/proxy;
    fastcgi_temp_path $state/fastcgi;
    uwsgi_temp_path $state/uwsgi;
    scgi_temp_path $state/scgi;
    types { text/html html; text/plain txt; application/json json; }
    default_type application/octet-stream;
    server_tokens off;
    keepalive_timeout 5s;
$*
}
EOF
}

write_server_files() {
    mkdir -p "$WORK_DIR"/{www,intranet,ssh,home}
    cat >"$WORK_DIR/www/index.html" <<'EOF'
<!DOCTYPE html>
<html><head><title>quelm demo</title></head>
<body><h1>quelm demo site</h1><p>Served to the capture in samples/demo.pcap.</p></body></html>
EOF
    cat >"$WORK_DIR/intranet/index.html" <<'EOF'
<!DOCTYPE html>
<html><head><title>intranet</title></head><body><p>Reached over VLAN 100.</p></body></html>
EOF
    # A fixed-content download (66 000 bytes) gives the capture one bulk TCP transfer.
    local line
    for line in $(seq -w 1 1000); do
        printf 'quelm demo report line %s: 0123456789abcdefghijklmnopqrstuvwxyz\n' "$line"
    done >"$WORK_DIR/www/report.txt"

    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 3650 \
        -subj "/CN=secure.$DOMAIN" \
        -addext "subjectAltName=DNS:secure.$DOMAIN,DNS:login.$DOMAIN" \
        -keyout "$WORK_DIR/tls.key" -out "$WORK_DIR/tls.crt" 2>/dev/null

    nginx_config server "
    server {
        listen $WWW_V4:80;
        listen [$WWW_V6]:80;
        server_name www.$DOMAIN;
        root $WORK_DIR/www;
        location = /api/status { default_type application/json; return 200 '{\"status\":\"ok\",\"service\":\"www\"}\n'; }
        location = /api/login  { default_type application/json; return 200 '{\"token\":\"demo-token-0001\"}\n'; }
    }
    server {
        listen $SECURE_V4:443 ssl;
        listen $LOGIN_V4:443 ssl;
        listen [$SECURE_V6]:443 ssl;
        listen [$LOGIN_V6]:443 ssl;
        server_name secure.$DOMAIN login.$DOMAIN;
        ssl_certificate $WORK_DIR/tls.crt;
        ssl_certificate_key $WORK_DIR/tls.key;
        ssl_protocols TLSv1.2 TLSv1.3;
        root $WORK_DIR/www;
        location = /api/status { default_type application/json; return 200 '{\"status\":\"ok\",\"service\":\"secure\"}\n'; }
    }" >"$WORK_DIR/nginx-server.conf"
    nginx_config intranet "
    server {
        listen $INTRANET_V4:80;
        server_name intranet.$DOMAIN;
        root $WORK_DIR/intranet;
    }" >"$WORK_DIR/nginx-intranet.conf"

    ssh-keygen -q -t ed25519 -N '' -C "shell.$DOMAIN" -f "$WORK_DIR/ssh/host_ed25519_key"
    cat >"$WORK_DIR/ssh/sshd_config" <<EOF
ListenAddress $SHELL_V4:22
HostKey $WORK_DIR/ssh/host_ed25519_key
PidFile none
UsePAM no
PasswordAuthentication no
KbdInteractiveAuthentication no
EOF

    cat >"$WORK_DIR/resolv.conf" <<EOF
nameserver $DNS_V4
options timeout:2 attempts:1
EOF
}

start_servers() {
    # Launched without wrapper functions, so no subshell lingers per server.
    ip netns exec "$SERVER_NS" dnsmasq --keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts \
        --bind-interfaces --listen-address="$DNS_V4" --listen-address="$DNS_V6" \
        --user=root --pid-file= --log-queries --log-facility="$WORK_DIR/dnsmasq.log" \
        --local="/$DOMAIN/" \
        --host-record="www.$DOMAIN,$WWW_V4,$WWW_V6" \
        --host-record="secure.$DOMAIN,$SECURE_V4,$SECURE_V6" \
        --host-record="login.$DOMAIN,$LOGIN_V4,$LOGIN_V6" \
        --host-record="echo.$DOMAIN,$ECHO_V4,$ECHO_V6" \
        --host-record="shell.$DOMAIN,$SHELL_V4" \
        --host-record="ns.$DOMAIN,$DNS_V4,$DNS_V6" \
        --mx-host="$DOMAIN,www.$DOMAIN,10" \
        --txt-record="$DOMAIN,quelm demo zone" &
    ip netns exec "$SERVER_NS" nginx -c "$WORK_DIR/nginx-server.conf" &
    ip netns exec "$INTRANET_NS" nginx -c "$WORK_DIR/nginx-intranet.conf" &
    # sshd insists on /run/sshd; a private /run keeps the host's untouched.
    ip netns exec "$SERVER_NS" unshare --mount -- bash -c 'mount -t tmpfs none /run && mkdir -m 755 /run/sshd && exec "$@"' \
        _ /usr/sbin/sshd -D -e -f "$WORK_DIR/ssh/sshd_config" 2>"$WORK_DIR/sshd.log" &
    # UDP echo: every datagram comes back, so oversized ones fragment both ways.
    ip netns exec "$SERVER_NS" socat -b 65536 "UDP4-RECVFROM:7,bind=$ECHO_V4,fork" PIPE &
    ip netns exec "$SERVER_NS" socat -b 65536 "UDP6-RECVFROM:7,bind=[$ECHO_V6],fork" PIPE &
    local ns
    for ns in "$CLIENT_NS" "$SERVER_NS"; do
        ip netns exec "$ns" python3 "$WORK_DIR/vlan-relay.py" eth0 "vlan$VLAN_ID" "$VLAN_ID" \
            >"$WORK_DIR/relay-$ns.log" 2>&1 &
    done

    wait_for_listener "$SERVER_NS" u 53
    wait_for_listener "$SERVER_NS" t 80
    wait_for_listener "$SERVER_NS" t 443
    wait_for_listener "$SERVER_NS" t 22
    wait_for_listener "$SERVER_NS" u 7
    wait_for_listener "$INTRANET_NS" t 80
    for ns in "$CLIENT_NS" "$SERVER_NS"; do
        wait_for_log_line "$WORK_DIR/relay-$ns.log" 'relay ready'
    done
}

wait_for_log_line() {
    local log=$1 line=$2
    for _ in $(seq 50); do
        grep -q "$line" "$log" 2>/dev/null && return
        sleep 0.1
    done
    die "no '$line' in $log: $(cat "$log" 2>/dev/null)"
}

start_capture() {
    # MLD reports and router solicitations are kernel chatter, not demo traffic.
    # Started without a wrapper function so that $! is tcpdump itself.
    ip netns exec "$CLIENT_NS" tcpdump -i eth0 -s 0 -U -Z root -w "$WORK_DIR/demo.pcap" \
        'not (ip6 dst ff02::16 or ip6 dst ff02::2)' 2>"$WORK_DIR/tcpdump.log" &
    CAPTURE_PID=$!
    wait_for_log_line "$WORK_DIR/tcpdump.log" 'listening on'
}

stop_capture() {
    sleep 1
    kill -TERM "$CAPTURE_PID" # background jobs ignore SIGINT; tcpdump flushes on TERM too
    wait "$CAPTURE_PID" || true
    grep -E 'captured|dropped' "$WORK_DIR/tcpdump.log" >&2 || true
}

tolerate_failure() { "$@" || true; }

# Runs one client action; the short pause spreads flows out in time as real
# use would and keeps their order in the capture stable.
step() {
    echo "+ ${*: -1}"
    "$@" >"$WORK_DIR/step.log" 2>&1 || die "client step failed: $*
$(cat "$WORK_DIR/step.log")"
    sleep 0.3
}

run_clients() {
    local dig=(resolving_client dig +tries=1 +time=2)
    local curl_any_status=(resolving_client curl -sS -o /dev/null --cacert "$WORK_DIR/tls.crt")
    local curl=("${curl_any_status[@]}" --fail)
    local office=(ip netns exec "$OFFICE_NS")
    local fragment_payload
    fragment_payload=$(for i in $(seq -w 1 140); do printf 'quelm-demo-fragment-%s\n' "$i"; done)

    # ICMP echo over IPv4 (after ARP) and IPv6 (after neighbour discovery).
    step in_client ping -c 3 -i 0.2 "$GATEWAY_V4"
    step in_client ping -6 -c 3 -i 0.2 "$GATEWAY_V6"

    # DNS: A, AAAA, NXDOMAIN, MX, TXT and PTR over UDP; one query over TCP and
    # one over IPv6.
    step "${dig[@]}" "@$DNS_V4" "www.$DOMAIN" A
    step "${dig[@]}" "@$DNS_V4" "www.$DOMAIN" AAAA
    step "${dig[@]}" "@$DNS_V4" "nosuch.$DOMAIN" A
    step "${dig[@]}" "@$DNS_V4" "$DOMAIN" MX
    step "${dig[@]}" "@$DNS_V4" "$DOMAIN" TXT
    step "${dig[@]}" "@$DNS_V4" -x "$WWW_V4"
    step "${dig[@]}" +tcp "@$DNS_V4" "secure.$DOMAIN" A
    step "${dig[@]}" "@$DNS_V6" "login.$DOMAIN" AAAA

    # HTTP over IPv4: two requests on one keep-alive connection, a POST, a 404
    # and a 66 KB download. curl looks the names up through the demo DNS server.
    step "${curl[@]}" -4 -A "quelm-demo/1.0" "http://www.$DOMAIN/index.html" "http://www.$DOMAIN/api/status"
    step "${curl[@]}" -4 -A "quelm-demo/1.0" -H 'Content-Type: application/json' \
        --data '{"user":"demo","password":"demo"}' "http://www.$DOMAIN/api/login"
    step "${curl_any_status[@]}" -4 "http://www.$DOMAIN/missing.html"
    step "${curl[@]}" -4 "http://www.$DOMAIN/report.txt"
    # HTTP over IPv6.
    step "${curl[@]}" -6 -A "quelm-demo/1.0" "http://www.$DOMAIN/index.html"

    # HTTPS with SNI: TLS 1.2 and TLS 1.3 over IPv4, TLS 1.3 over IPv6.
    step "${curl[@]}" -4 --tlsv1.2 --tls-max 1.2 "https://secure.$DOMAIN/"
    step "${curl[@]}" -4 --tlsv1.3 "https://secure.$DOMAIN/api/status"
    step "${curl[@]}" -6 --tlsv1.3 "https://login.$DOMAIN/"

    # UDP datagrams larger than the 1500-byte MTU, echoed back: IPv4 and IPv6
    # fragments in both directions.
    step resolving_client bash -c 'printf %s "$1" | socat -b 65536 -t 1 - "UDP4:$2:7" | wc -c' _ \
        "$fragment_payload" "echo.$DOMAIN"
    step resolving_client bash -c 'printf %s "$1" | socat -b 65536 -t 1 - "UDP6:$2:7" | wc -c' _ \
        "${fragment_payload:0:3000}" "echo.$DOMAIN"

    # VLAN 100: office pings the intranet host and fetches its page.
    step "${office[@]}" ping -c 2 -i 0.2 "$INTRANET_V4"
    step "${office[@]}" curl -sS --fail -o /dev/null -A "quelm-demo/1.0" \
        --resolve "intranet.$DOMAIN:80:$INTRANET_V4" "http://intranet.$DOMAIN/"

    # SSH: banners and key exchange, then the login is refused (no credentials).
    step tolerate_failure resolving_client env HOME="$WORK_DIR/home" ssh -F /dev/null -o BatchMode=yes \
        -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o ConnectTimeout=5 \
        "demo@shell.$DOMAIN" true
}

main() {
    install_missing_packages
    trap cleanup EXIT
    trap 'echo "make-demo.sh: failed at line $LINENO: $BASH_COMMAND" >&2' ERR
    trap 'exit 130' INT TERM
    cleanup # leftovers of an interrupted earlier run
    WORK_DIR=$(mktemp -d /tmp/quelm-demo.XXXXXX)

    set_up_network
    write_vlan_relay
    write_server_files
    start_servers
    sleep 2 # let IPv6 multicast joins settle before the capture starts
    start_capture
    run_clients
    stop_capture

    cp "$WORK_DIR/demo.pcap" "$OUTPUT"
    echo "wrote $OUTPUT ($(stat -c %s "$OUTPUT") bytes)"
}

main "$@"
