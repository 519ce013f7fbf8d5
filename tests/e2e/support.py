"""Helpers of the end-to-end tests: the tool, its streams, and a second opinion on what it should select.

TESSEL names the tool, TESSEL_SOURCE the checkout, TESSEL_E2E_CACHE a folder for streams made here.
TESSEL_STREAMS may name a folder of recordings with a facts.json, TESSEL_FAULTS the library that makes the system
fail; what needs them is skipped without.
"""
import collections
import hashlib
import json
import os
import pathlib
import random
import shutil
import subprocess
import tempfile
import unittest

PACKET = 188
NULL_PID = 0x1FFF
TOOL = os.environ.get("TESSEL", "")
FAULTS = os.environ.get("TESSEL_FAULTS", "")
SOURCE = pathlib.Path(os.environ.get("TESSEL_SOURCE", pathlib.Path(__file__).parents[2]))
CACHE = pathlib.Path(os.environ.get("TESSEL_E2E_CACHE", pathlib.Path(tempfile.gettempdir(), "tessel-e2e")))
SAMPLE = SOURCE / "samples" / "tessel-sample.ts"


# --- the tool

def run(*arguments, **options):
    """Runs the tool; gives a CompletedProcess with bytes. The time-out only ends a hang."""
    if not os.access(TOOL, os.X_OK):
        raise AssertionError(f"TESSEL={TOOL!r} is no program; set it to the built tool")
    if "input" not in options:
        options.setdefault("stdin", subprocess.DEVNULL)
    options.setdefault("stdout", subprocess.PIPE)
    return subprocess.run([TOOL, *map(str, arguments)], stderr=subprocess.PIPE, timeout=240, **options)


def faulty(**faults):
    """The environment of a tool in which the system fails: faulty(read_file=path, read_from=188_000, read_bytes=512),
    faulty(allocation=17), faulty(thread=1); tests/faults/Faults.cpp has the others."""
    if not FAULTS:
        raise unittest.SkipTest("TESSEL_FAULTS is not set; it names the library of tests/faults")
    return dict(os.environ, LD_PRELOAD=FAULTS, **{f"FAULT_{name.upper()}": str(fault) for name, fault in faults.items()})


class ToolTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="tessel-e2e-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def file(self, name, data):
        path = self.folder / name
        path.write_bytes(data)
        return path

    def done(self, *arguments, **options):
        """Runs the tool, which must succeed and say nothing on stderr; gives what it wrote."""
        result = run(*arguments, **options)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout

    def info(self, path, *options):
        """The JSON of `info`; text that is no strict UTF-8 is an error here."""
        return json.loads(self.done("info", "--json", *options, path).decode("utf-8", "strict"))

    def extract(self, path, pids, *options):
        """The bytes that `extract` writes; none if the tool says that there is nothing."""
        pids = ",".join(map(str, pids))
        result = run("extract", path, "--pid", pids, *options, "-o", "-")
        if result.stdout:
            self.assertEqual((result.returncode, result.stderr), (0, b""), (path, pids))
        else:
            self.assertEqual(result.returncode, 1, (path, pids))
            self.assertIn(b"on the PIDs asked for", result.stderr)
        return result.stdout


# --- streams

def recordings():
    """The facts of the recordings, each with its "path"; skips the test when there are none."""
    folder = os.environ.get("TESSEL_STREAMS")
    if not folder:
        raise unittest.SkipTest("TESSEL_STREAMS is not set; it names a folder of recordings with a facts.json")
    facts = pathlib.Path(folder, "facts.json")
    if not facts.is_file():
        raise unittest.SkipTest(f"TESSEL_STREAMS has no {facts}")
    return [dict(entry, path=facts.parent / entry["file"]) for entry in json.loads(facts.read_text())]


def ffmpeg(arguments, what):
    """Runs ffmpeg, which must succeed."""
    if shutil.which("ffmpeg") is None:
        raise AssertionError(f"ffmpeg is not installed; {what} needs it (scripts/test installs it)")
    result = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", *map(str, arguments)], capture_output=True)
    if result.returncode != 0:
        raise AssertionError(f"ffmpeg fails, {what}: " + result.stderr.decode(errors="replace"))


def made_by_ffmpeg(name, *arguments):
    """The stream that ffmpeg makes of these arguments; kept in CACHE."""
    path = CACHE / f"{name}-{hashlib.sha256(repr(arguments).encode()).hexdigest()[:16]}.ts"
    if path.is_file():
        return path
    CACHE.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=CACHE) as folder:
        made = pathlib.Path(folder, "made.ts")
        ffmpeg([*arguments, "-f", "mpegts", made], f"making the stream {name}")
        made.replace(path)
    return path


def two_programmes():
    """A stream of two programmes by ffmpeg: PIDs 256 and 257 (PMT 4096), 258 and 259 (PMT 4097)."""
    return made_by_ffmpeg(
        "two-programmes",
        "-f", "lavfi", "-i", "testsrc2=s=352x288:r=25:d=3", "-f", "lavfi", "-i", "sine=440:d=3:r=48000",
        "-map", "0:v", "-map", "1:a", "-map", "0:v", "-map", "1:a",
        "-c:v:0", "mpeg2video", "-b:v:0", "800k", "-c:a:0", "mp2",
        "-c:v:1", "libx264", "-preset", "veryfast", "-g:v:1", "25", "-b:v:1", "500k", "-c:a:1", "ac3",
        "-metadata:s:a:0", "language=deu", "-metadata:s:a:1", "language=fra",
        "-program", "title=First & Co:program_num=11:st=0:st=1", "-program", "title=Second:program_num=12:st=2:st=3",
        "-mpegts_transport_stream_id", "0x1234", "-mpegts_original_network_id", "0x2345",
        "-metadata", "service_provider=Provider")


def in_192_bytes(data):
    """Each packet with 4 bytes in front, as recorders write it."""
    return b"".join(i.to_bytes(4, "big") + data[at:at + PACKET] for i, at in enumerate(range(0, len(data), PACKET)))


class Stream:
    """Writes packets and tables, with the continuity counters that they need."""

    def __init__(self):
        self.data = bytearray()
        self.counters = collections.Counter()

    def pcr(self, pid, base):
        """A packet of an adaptation field alone; base in 90 kHz."""
        field = b"\xb7\x10" + (base << 15 | 0x7E00).to_bytes(6, "big")
        self.data += (bytes([0x47, pid >> 8, pid & 0xFF, 0x20 | (self.counters[pid] - 1) % 16]) + field).ljust(
            PACKET, b"\xff")

    def packet(self, pid, payload, start=False):
        counter = self.counters[pid] % 16
        self.counters[pid] += 1
        head = bytes([0x47, start << 6 | pid >> 8, pid & 0xFF, 0x10 | counter])
        self.data += (head + payload).ljust(PACKET, b"\xff")

    def table(self, pid, section):
        payload = b"\0" + section
        for at in range(0, len(payload), PACKET - 4):
            self.packet(pid, payload[at:at + PACKET - 4], start=at == 0)

    def null_packets(self, count):
        for _ in range(count):
            self.packet(NULL_PID, b"")


def crc32(data):
    """CRC-32/MPEG-2, bit by bit; 0 over a section with its CRC."""
    value = 0xFFFFFFFF
    for byte in data:
        value ^= byte << 24
        for _ in range(8):
            value = (value << 1 ^ 0x04C11DB7 if value & 0x80000000 else value << 1) & 0xFFFFFFFF
    return value


def section(table_id, extension, body):
    length = 5 + len(body) + 4
    head = bytes([table_id, 0xB0 | length >> 8, length & 0xFF]) + extension.to_bytes(2, "big") + b"\xc1\0\0"
    return head + body + crc32(head + body).to_bytes(4, "big")


def pat(transport_stream_id, programmes):
    pairs = [(number.to_bytes(2, "big"), (0xE000 | pid).to_bytes(2, "big")) for number, pid in programmes.items()]
    return section(0x00, transport_stream_id, b"".join(number + pid for number, pid in pairs))


def pmt(number, pcr_pid, components):
    """components: (stream_type, PID) or (stream_type, PID, descriptors as they are transmitted)."""
    body = (0xE000 | pcr_pid).to_bytes(2, "big") + b"\xf0\0"
    for stream_type, pid, *loop in components:
        loop = b"".join(loop)
        body += bytes([stream_type]) + (0xE000 | pid).to_bytes(2, "big")
        body += (0xF000 | len(loop)).to_bytes(2, "big") + loop
    return section(0x02, number, body)


def sdt(transport_stream_id, network_id, services):
    """services: (id, type, provider, name), texts as they are transmitted."""
    body = network_id.to_bytes(2, "big") + b"\xff"
    for number, service_type, provider, name in services:
        text = bytes([service_type, len(provider)]) + provider + bytes([len(name)]) + name
        body += number.to_bytes(2, "big") + b"\xfc" + (0x8000 | len(text) + 2).to_bytes(2, "big")
        body += bytes([0x48, len(text)]) + text
    return section(0x42, transport_stream_id, body)


def split_sections(data):
    sections = []
    while data:
        size = 3 + (int.from_bytes(data[1:3], "big") & 0xFFF)
        sections.append(data[:size])
        data = data[size:]
    return sections


def damage(data, seed):
    """Bits flipped in packet heads, lengths that lie, bytes cut out and garbage put in; the same for a seed."""
    dice = random.Random(seed)
    out = bytearray()
    for at in range(0, len(data), PACKET):
        packet = bytearray(data[at:at + PACKET])
        what, start = dice.random(), packet[1] & 0x40
        if what < 0.03:
            packet[dice.randrange(6)] ^= 1 << dice.randrange(8)
        elif what < 0.04:
            del packet[dice.randrange(PACKET):]
        elif what < 0.05:
            packet += bytes(dice.choices(range(256), k=dice.randrange(1, 500)))
        elif what < 0.055:
            packet += b"\x47" * dice.randrange(1, 400)
        elif what < (0.2 if start else 0.075):
            packet[3] |= 0x20
            packet[4] = dice.choice([0, 182, 183, 184, 255])
        elif start and what < 0.25:
            packet[4] = 0xFF  # a pointer_field, or the length of an adaptation field
        out += packet
    return bytes(out)


# --- which packets and sections are to come out

class SectionModel:
    """The sections of one PID. One is complete when the next begins; more than one a packet are lost."""

    LONG_FORM_ON = {0x00: 0x00, 0x01: 0x01, 0x40: 0x10, 0x41: 0x10, 0x42: 0x11, 0x46: 0x11, 0x4A: 0x11,
                    0x4E: 0x12, 0x4F: 0x12}

    def __init__(self, pid):
        self.pid, self.collected, self.counter = pid, b"", 0

    def judge(self, data):
        """The section at the start of data, or None; and whether the one behind it is taken up."""
        if len(data) < 3:
            return None, False
        total = 3 + (int.from_bytes(data[1:3], "big") & 0xFFF)
        long_form = bool(data[1] & 0x80)
        if total > len(data) or data[0] == 0x72:
            return None, False
        if data[0] in self.LONG_FORM_ON and (not long_form or self.pid != self.LONG_FORM_ON[data[0]]):
            return None, False
        if data[0] == 0x02 and not long_form:
            return None, False
        if long_form and data[0] != 0x71 and (total < 7 or crc32(data[:total]) != 0):
            return None, True
        return data[:total], True

    def take(self, payload, start, discontinuity, counter):
        """A completed section or None; raises ValueError for a packet that is refused."""
        if self.collected:
            if counter == self.counter:
                return None
            if not discontinuity and counter != (self.counter + 1) % 16:
                self.collected = b""
                return None
            self.counter = counter
        if not start:
            if self.collected:
                self.collected = self.collected + payload if len(self.collected) < 4096 else b""
            return None
        pointer = payload[0]
        if pointer >= len(payload):
            raise ValueError("pointer_field")
        done = None
        if self.collected:
            done, go_on = self.judge(self.collected + payload[1:1 + pointer])
            self.collected = b""
            if not go_on:
                return None
        self.collected, self.counter = payload[1 + pointer:], counter
        return done


def find_packets(data):
    """Packets between two sync bytes and 6 bytes more, at the distance that four sync bytes show."""
    at, size, end = 0, None, len(data)
    while end - at >= 582:
        at = data.find(b"\x47", at)
        if at < 0:
            return
        if end - at <= 582:
            break
        sizes = [s for s in (188, 192) if all(data[at + k * s] == 0x47 for k in (1, 2, 3))]
        if sizes:
            size = sizes[0]
            break
        at += 1
    if size is None:
        if end > 4 * 192 + 6:
            return
        size = PACKET  # too short for four of any size
    while end - at >= size + 6:
        at = data.find(b"\x47", at)
        if at < 0 or end - at <= size + 6:
            return
        if data[at + size] == 0x47:
            yield data[at:at + PACKET]
            at += size
        else:
            at += 1


class Model:
    """Reads data as the tool should: selected has (PID, packet) in order, sections (PID, section)."""

    def __init__(self, data, section_pids=()):
        self.selected, self.sections, self.present = [], [], set()
        self.refused = collections.Counter()
        self.section_pids = section_pids
        self.transport_stream_id = 0
        self.filters = {}
        self.want_tables(0x00)
        for packet in find_packets(data):
            self.packet(packet)

    def want_tables(self, *pids):
        for pid in (*pids, 0x11, 0x1FFB, *self.section_pids):
            self.filters.setdefault(pid, SectionModel(pid))

    def packet(self, packet):
        pid = int.from_bytes(packet[1:3], "big") & 0x1FFF
        self.present.add(pid)
        try:
            self.pass_on(packet, pid)
        except ValueError as reason:
            self.refused[str(reason)] += 1

    def pass_on(self, packet, pid):
        adaptation = packet[4] if packet[3] & 0x20 else None
        if packet[1] & 0x80:
            raise ValueError("transport_error_indicator")
        if packet[3] & 0xC0:
            raise ValueError("scrambled")
        if adaptation is not None and adaptation > 183:
            raise ValueError("adaptation_field_length")
        if pid in self.filters and packet[3] & 0x10:
            payload = packet[4:] if adaptation is None else packet[5 + adaptation:]
            if not payload:
                raise ValueError("no room for a payload")
            discontinuity = bool(adaptation) and bool(packet[5] & 0x80)
            done = self.filters[pid].take(payload, bool(packet[1] & 0x40), discontinuity, packet[3] & 0x0F)
            if done:
                self.section(pid, done)
        self.selected.append((pid, packet))

    def section(self, pid, done):
        self.sections.append((pid, done))
        if done[0] != 0x00:
            return
        transport_stream_id = int.from_bytes(done[3:5], "big")
        if transport_stream_id != self.transport_stream_id:
            self.transport_stream_id = transport_stream_id
            self.filters = {0x00: self.filters[0x00]}
        entries = [done[at:at + 4] for at in range(8, len(done) - 4, 4)]
        self.want_tables(*(int.from_bytes(entry[2:], "big") & 0x1FFF for entry in entries if entry[:2] != b"\0\0"))

    def packets_of(self, pids):
        return b"".join(packet for pid, packet in self.selected if pid in pids)

    def sections_of(self, pids):
        return [done for pid, done in self.sections if pid in pids]
