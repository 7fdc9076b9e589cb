#!/usr/bin/env python3
"""Answers ARP requests for testbed hosts after a delay: a computer that is slow to answer.

The kernel here has no netem, so a late host turns its own ARP answers off (arp_ignore=8) and this
program answers for it instead. One process serves every late host: it opens a packet socket inside
each host's network namespace and then serves them all from one loop.

usage: testbed-arp-responder.py READY_FILE DELAY_MS NAMESPACE:IFNAME:IP:MAC ...
READY_FILE is written once every socket listens. Exits on SIGTERM; a host whose namespace is removed
is dropped quietly.
"""
import ctypes
import heapq
import os
import select
import signal
import socket
import struct
import sys
import time

CLONE_NEWNET = 0x40000000
ETH_P_ARP = 0x0806
PACKET_OUTGOING = 4
ARP_REQUEST = 1
ARP_REPLY = 2

libc = ctypes.CDLL(None, use_errno=True)


def setns(path):
    fd = os.open(path, os.O_RDONLY)
    try:
        if libc.setns(fd, CLONE_NEWNET) != 0:
            err = ctypes.get_errno()
            raise OSError(err, "setns " + path + ": " + os.strerror(err))
    finally:
        os.close(fd)


def open_in(namespace, ifname):
    own = "/proc/self/ns/net"
    home = os.open(own, os.O_RDONLY)
    try:
        setns("/run/netns/" + namespace)
        sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ARP))
        sock.bind((ifname, ETH_P_ARP))
        sock.setblocking(False)
        return sock
    finally:
        libc.setns(home, CLONE_NEWNET)
        os.close(home)


def reply_frame(request, mac, ip):
    """The ARP reply to an Ethernet frame holding a request for ip, or None."""
    if len(request) < 42:
        return None
    htype, ptype, hlen, plen, op = struct.unpack("!HHBBH", request[14:22])
    if (htype, ptype, hlen, plen, op) != (1, 0x0800, 6, 4, ARP_REQUEST):
        return None
    sha, spa, _tha, tpa = request[22:28], request[28:32], request[32:38], request[38:42]
    if tpa != ip:
        return None
    eth = sha + mac + struct.pack("!H", ETH_P_ARP)
    arp = struct.pack("!HHBBH", 1, 0x0800, 6, 4, ARP_REPLY) + mac + ip + sha + spa
    return eth + arp


def main(argv):
    if len(argv) < 3:
        sys.stderr.write(__doc__)
        return 2
    ready_file, delay = argv[0], int(argv[1]) / 1000.0
    hosts = {}
    for entry in argv[2:]:
        namespace, ifname, ip, mac = entry.split(":", 3)
        sock = open_in(namespace, ifname)
        hosts[sock.fileno()] = (sock, bytes.fromhex(mac.replace("-", "").replace(":", "")),
                                socket.inet_aton(ip))
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    with open(ready_file + ".tmp", "w") as f:
        f.write(str(os.getpid()) + "\n")
    os.rename(ready_file + ".tmp", ready_file)

    due = []  # (time, sequence, fd, frame)
    sequence = 0
    while hosts:
        timeout = max(0.0, due[0][0] - time.monotonic()) if due else None
        readable, _, _ = select.select(list(hosts), [], [], timeout)
        for fd in readable:
            sock, mac, ip = hosts[fd]
            try:
                frame, address = sock.recvfrom(2048)
            except OSError:
                del hosts[fd]
                continue
            if address[2] == PACKET_OUTGOING:
                continue
            reply = reply_frame(frame, mac, ip)
            if reply is not None:
                sequence += 1
                heapq.heappush(due, (time.monotonic() + delay, sequence, fd, reply))
        now = time.monotonic()
        while due and due[0][0] <= now:
            _, _, fd, reply = heapq.heappop(due)
            if fd in hosts:
                try:
                    hosts[fd][0].send(reply)
                except OSError:
                    del hosts[fd]
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
