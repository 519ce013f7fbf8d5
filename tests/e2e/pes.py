"""PES payloads and time stamps of a clean stream of 188-byte packets: a second demultiplexer to compare with."""
PACKET = 188
WRAP = 1 << 33


class Elementary:
    """One PID: the payload of its PES packets, and where in it each begins, with its time stamp."""

    def __init__(self, pid):
        self.pid, self.counter, self.held = pid, None, 0
        self.parts, self.size = [], 0
        self.starts = []  # (offset, DTS or PTS or None)
        self.shown = []  # (offset, PTS) of those that have one

    def packet(self, packet):
        start = 5 + packet[4] if packet[3] & 0x20 else 4
        payload = packet[start:]
        counter = packet[3] & 0x0F
        if self.counter is not None and counter != (self.counter + 1) % 16:
            raise ValueError(f"PID {self.pid}: counter {counter} behind {self.counter}")
        self.counter = counter
        if packet[1] & 0x40:
            if payload[:3] != b"\0\0\1":
                raise ValueError(f"PID {self.pid}: a unit that is no PES")
            self.starts.append((self.size, time_stamp(payload)))
            if payload[7] & 0x80:
                self.shown.append((self.size, read_stamp(payload, 9)))
            payload = payload[9 + payload[8]:]
        self.parts.append(payload)
        self.size += len(payload)
        return len(payload)

    @property
    def payload(self):
        return b"".join(self.parts)

    @property
    def stamped(self):
        """(offset, time stamp) of the PES packets that have one."""
        return [(at, stamp) for at, stamp in self.starts if stamp is not None]

    @property
    def first(self):
        """Where the PES begins that is the first to have a time stamp."""
        return self.stamped[0][0]


def time_stamp(pes):
    """The DTS; the PTS where there is none; None where there is neither (ISO/IEC 13818-1, 2.4.3.7)."""
    at = {2: 9, 3: 14}.get(pes[7] >> 6)
    if at is None:
        return None
    return read_stamp(pes, at)


def read_stamp(pes, at):
    field = int.from_bytes(pes[at:at + 5], "big")
    return field >> 3 & 0x1C0000000 | field >> 2 & 0x3FFF8000 | field >> 1 & 0x7FFF


def elementary_streams(data, pids):
    """The elementary streams of these PIDs by PID. held: what of each lies in the last packet of the input."""
    found = {pid: Elementary(pid) for pid in pids}
    for at in range(0, len(data), PACKET):
        pid = (data[at + 1] & 0x1F) << 8 | data[at + 2]
        stream = found.get(pid)
        if stream is not None and data[at + 3] & 0x10:
            length = stream.packet(data[at:at + PACKET])
            if at + PACKET == len(data):
                stream.held = length
    return found


def later(stamp, first):
    """stamp - first in 90 kHz ticks, whichever of the two lies behind a wrap."""
    difference = (stamp - first) % WRAP
    return difference - WRAP if difference >= WRAP // 2 else difference
