#!/usr/bin/env python3
"""Compares the TCP and UDP flows of `quelm flows` with tshark's dissection of the same captures.

Usage: compare_tshark.py QUELM CAPTURE...  (needs tshark; prints one line per capture that differs
and a total). For every conversation (the two address-port endpoints of a TCP or UDP exchange, keyed
on the outermost IP header as quelm keys it without --tunnels) it checks the packets of each
direction and their bytes as the README defines them: an IPv4 packet counts its frame on Ethernet,
or its IP packet plus 14 bytes on other link types; an IPv6 packet counts its IP packet and
whatever follows it in the frame.
"""
import collections
import json
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

ETHERNET = {"eth", "vlan"}


def tshark_conversations(capture):
    """{(endpoint, endpoint): [packets, bytes] per direction} from tshark's PDML."""
    # Without reassembly, so that each fragment is a packet of its own, as quelm counts it.
    pdml = subprocess.run(["tshark", "-r", capture, "-T", "pdml", "-o", "tcp.analyze_sequence_numbers:FALSE",
                           "-o", "ip.defragment:FALSE", "-o", "ipv6.defragment:FALSE"],
                          capture_output=True, text=True).stdout
    flows = collections.defaultdict(lambda: [0, 0, 0, 0])
    datagrams = {}  # (source, destination, identification) of a first fragment: its conversation
    try:
        root = ElementTree.fromstring(pdml)
    except ElementTree.ParseError:
        return None
    for packet in root.iter("packet"):
        protos = packet.findall("proto")
        names = [p.get("name") for p in protos]
        frame = protos[names.index("frame")]
        frame_len = int(next(f.get("show") for f in frame.iter("field") if f.get("name") == "frame.len"))
        ip = next((p for p in protos if p.get("name") in ("ip", "ipv6")), None)
        if ip is None:
            continue
        v4 = ip.get("name") == "ip"
        at = int(ip.get("pos"))
        on_ethernet = names[names.index("frame") + 1] in ETHERNET
        size = (frame_len if on_ethernet else frame_len - at + 14) if v4 else frame_len - at
        fields = {f.get("name"): f.get("show") for f in ip.iter("field")}
        addresses = (fields.get("ip.src" if v4 else "ipv6.src"), fields.get("ip.dst" if v4 else "ipv6.dst"))
        datagram = addresses + (fields.get("ip.id" if v4 else "ipv6.fraghdr.ident"),)
        offset = fields.get("ip.frag_offset" if v4 else "ipv6.fraghdr.offset", "0")
        if offset != "0":  # a later fragment counts for its datagram's flow, when that is known
            if datagram in datagrams:
                key, way = datagrams[datagram]
                flows[key][2 * way] += 1
                flows[key][2 * way + 1] += size
            continue
        l4 = next((p for p in protos if p.get("name") in ("tcp", "udp")), None)
        if l4 is None or names.index(l4.get("name")) < names.index(ip.get("name")):
            continue
        # The first transport header after the first IP header: tshark may also dissect what an
        # ICMP error quotes, which is no flow.
        if any(n in ("icmp", "icmpv6") for n in names[names.index(ip.get("name")):names.index(l4.get("name"))]):
            continue
        fields.update({f.get("name"): f.get("show") for f in l4.iter("field")})
        src = (addresses[0], fields.get(l4.get("name") + ".srcport"))
        dst = (addresses[1], fields.get(l4.get("name") + ".dstport"))
        key, way = ((src, dst), 0) if src <= dst else ((dst, src), 1)
        if fields.get("ip.flags.mf") == "1" or fields.get("ipv6.fraghdr.more") == "1":
            datagrams[datagram] = (key, way)
        flows[key][2 * way] += 1
        flows[key][2 * way + 1] += size
    return flows


def quelm_conversations(quelm, capture):
    out = subprocess.run([quelm, "flows", "-r", capture, "--no-dpi", "--format", "json", "--idle", "100000000",
                          "--lifetime", "100000000", "--max-flows", "1000000"], capture_output=True, text=True).stdout
    flows = collections.defaultdict(lambda: [0, 0, 0, 0])
    for line in out.splitlines():
        r = json.loads(line)
        if "src_port" not in r:
            continue
        src, dst = (r["src_ip"], str(r["src_port"])), (r["dest_ip"], str(r["dest_port"]))
        f = r["flow"]
        counts = [f["pkts_toserver"], f["bytes_toserver"], f["pkts_toclient"], f["bytes_toclient"]]
        key, order = ((src, dst), (0, 1, 2, 3)) if src <= dst else ((dst, src), (2, 3, 0, 1))
        for i, c in zip(order, counts):
            flows[key][i] += c
    return flows


def main():
    quelm, captures = sys.argv[1], sys.argv[2:]
    agree = differ = 0
    for capture in captures:
        want = tshark_conversations(capture)
        if not want:
            continue
        got = quelm_conversations(quelm, capture)
        # tshark writes compressed IPv6 addresses as quelm does; both sides use the same text.
        bad = [(k, want.get(k), got.get(k)) for k in set(want) | set(got) if want.get(k) != got.get(k)]
        if bad:
            differ += 1
            print(f"{capture}: {len(bad)} of {len(want)} conversations differ, e.g. {bad[0]}")
        else:
            agree += 1
    print(f"{agree} captures agree, {differ} differ")


if __name__ == "__main__":
    main()
