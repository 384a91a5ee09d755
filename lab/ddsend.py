#!/usr/bin/python3
"""Sends one discovery datagram on an interface (run inside the RE's netns)
and prints, hex-encoded one a line, every CAP answer heard within a time.
Answers are sniffed on a packet socket: the CAP's source address may be the
RE's own factory address, which the RE's IP stack drops as martian.
usage: ddsend.py IFNAME PAYLOAD_HEX SECONDS"""
import socket
import struct
import sys
import time

PORT = 19553


def udp_payload(frame):
    """UDP payload of an Ethernet/IPv4 frame to PORT, else None."""
    if len(frame) < 34 or frame[12:14] != b"\x08\x00" or frame[23] != 17:
        return None
    ihl = (frame[14] & 0x0F) * 4
    dport, length = struct.unpack("!HH", frame[14 + ihl + 2:14 + ihl + 6])
    if dport != PORT:
        return None
    return frame[14 + ihl + 8:14 + ihl + length]


def main():
    ifname, payload, wait = sys.argv[1].encode(), bytes.fromhex(sys.argv[2]), float(sys.argv[3])
    rx = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
    rx.bind((ifname.decode(), 0x0800))
    tx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    tx.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    tx.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, ifname)
    tx.sendto(payload, ("255.255.255.255", PORT))
    end = time.monotonic() + wait
    while (left := end - time.monotonic()) > 0:
        rx.settimeout(left)
        try:
            data = udp_payload(rx.recv(2048))
        except socket.timeout:
            break
        if data and data.startswith(b"KORVANE_CAP_DD"):
            print(data.hex(), flush=True)


if __name__ == "__main__":
    main()
