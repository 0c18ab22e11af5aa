# SPDX-License-Identifier: Apache-2.0
"""Makes captures of many connections out of recorded ones, and cuts captures into files."""
import heapq
import random
import struct

MAGIC = b"\xd4\xc3\xb2\xa1"  # microseconds, little-endian


def packets_of(capture):
    """Time in microseconds and frame of each packet of a little-endian pcap file over Ethernet."""
    data = capture.read_bytes()
    assert data[:4] == MAGIC
    packets, at = [], 24
    while at < len(data):
        seconds, micros, length, _ = struct.unpack_from("<4I", data, at)
        packets.append((seconds * 1_000_000 + micros, data[at + 16 : at + 16 + length]))
        at += 16 + length
    return packets


def write(path, packets):
    with open(path, "wb") as file:
        file.write(MAGIC + struct.pack("<HHiIII", 2, 4, 0, 0, 262_144, 1))
        for time, frame in packets:
            file.write(struct.pack("<4I", *divmod(time, 1_000_000), len(frame), len(frame)) + frame)
    return path


def _from_client(frame, client):
    """The frame with another address in place of the client's; servers have ports below 32768."""
    ip = 14
    tcp = ip + 4 * (frame[ip] & 15)
    is_from_client = struct.unpack_from("!H", frame, tcp)[0] >= 32_768
    place = ip + (12 if is_from_client else 16)
    return frame[:place] + client + frame[place + 4 :]


def many_connections(recorded, copies, milliseconds=10):
    """Packets of `copies` connections, one begun every few milliseconds, from the recorded ones in turn."""
    sources = [packets_of(capture) for capture in recorded]

    def copy(number):
        source = sources[number % len(sources)]
        start = 1_700_000_000_000_000 + number * milliseconds * 1_000
        client = struct.pack("!I", 0x0A000001 + number)
        for count, (time, frame) in enumerate(source):
            # Their packets come slowly enough for others to lie between them.
            yield start + (time - source[0][0]) + count * 2_000, number, _from_client(frame, client)

    return [(time, frame) for time, _, frame in heapq.merge(*map(copy, range(copies)))]


def cut(folder, packets, count, seed=1):
    """The packets in `count` files, cut at random places."""
    places = [0, *sorted(random.Random(seed).sample(range(1, len(packets)), count - 1)), len(packets)]
    return [write(folder / f"ring-{i:03}.pcap", packets[places[i] : places[i + 1]]) for i in range(count)]
