"""What `tessel demux` writes, against ffmpeg's reading of the same stream and a small PES reader of our own."""
import concurrent.futures
import csv
import json
import os
import re
import subprocess
import time
import unittest

import pes
import support
from support import crc32

# What an elementary stream is made with: ffmpeg's encoder with its options, the raw format that ffmpeg copies it to
# (H.264 comes out in another shape there, and is compared with the PES payloads alone), the ending of our file.
CODECS = {
    "mpeg2": (["mpeg2video", "-bf", "2", "-g", "12", "-b", "800k"], "mpeg2video", "m2v"),
    "h264": (["libx264", "-preset", "veryfast", "-bf", "0", "-g", "25", "-b", "500k"], None, "h264"),
    "h264b": (["libx264", "-preset", "veryfast", "-bf", "3", "-g", "25", "-b", "500k"], None, "h264"),
    "mp2": (["mp2", "-b", "128k"], "mp2", "mp2 mpa"),
    "ac3": (["ac3", "-b", "192k"], "ac3", "ac3"),
    "aac": (["aac", "-b", "96k"], "adts", "aac"),
}
FIRST_PID = 256
ONE = {11: ["mpeg2", "mp2"]}
THREE = {11: ["mpeg2", "mp2"], 12: ["h264", "ac3"], 13: ["h264b", "aac"]}
FIVE = {21: ["mpeg2", "mp2", "mp2", "ac3"], 22: ["h264", "aac", "mp2", "ac3"], 23: ["h264b", "ac3", "aac", "mp2"],
        24: ["mpeg2", "ac3", "ac3", "mp2"], 25: ["h264", "aac", "aac", "aac"]}
WRAP_SECONDS = pes.WRAP / 90_000
MODES = ("rec", "strm", "live")
KINDS = {"sync", "discontinuity", "preroll"}


def multiplex(name, programmes, seconds=20, size="352x288", options=()):
    """A stream of these programmes ({service: codecs}), and its elementary streams: (service, PID, codec)."""
    arguments = ["-f", "lavfi", "-i", f"testsrc2=s={size}:r=25:d={seconds}",
                 "-f", "lavfi", "-i", f"sine=440:d={seconds}:r=48000"]
    streams = [(service, codec) for service, codecs in programmes.items() for codec in codecs]
    for index, (_, codec) in enumerate(streams):
        encoder, *settings = CODECS[codec][0]
        arguments += ["-map", "0:v" if "-bf" in settings else "1:a", f"-c:{index}", encoder]
        arguments += [f"{word}:{index}" if word[0] == "-" else word for word in settings]
    for service in programmes:
        indexes = "".join(f":st={index}" for index, stream in enumerate(streams) if stream[0] == service)
        arguments += ["-program", f"title=Service {service}:program_num={service}{indexes}"]
    path = support.made_by_ffmpeg(name, *arguments, *options)
    return path, [(service, FIRST_PID + index, codec) for index, (service, codec) in enumerate(streams)]


def copied_by_ffmpeg(path, streams, folder):
    """What ffmpeg writes of each PID as a raw stream, {PID: bytes}; one run for all."""
    arguments, found = ["-i", path], {}
    for _, pid, codec in streams:
        if CODECS[codec][1]:
            found[pid] = folder / f"ffmpeg-{pid}"
            arguments += ["-map", f"0:i:{pid}", "-c", "copy", "-f", CODECS[codec][1], found[pid]]
    support.ffmpeg(arguments, "copying raw streams")
    return {pid: file.read_bytes() for pid, file in found.items()}


def stamps_by_ffprobe(path):
    """{PID: {offset in the elementary stream: DTS, or else PTS}} of each packet that ffprobe finds."""
    result = subprocess.run(
        ["ffprobe", "-v", "error", "-of", "json", "-show_entries", "stream=index,id:packet=stream_index,dts,pts,size",
         path], capture_output=True, check=True)
    shown = json.loads(result.stdout)
    pids = {stream["index"]: int(stream["id"], 16) for stream in shown["streams"]}
    found, sizes = {pid: {} for pid in pids.values()}, dict.fromkeys(pids.values(), 0)
    for packet in shown["packets"]:
        pid = pids[packet["stream_index"]]
        found[pid][sizes[pid]] = packet.get("dts", packet.get("pts"))
        sizes[pid] += int(packet["size"])
    return found


def time_rows(path):
    """(offset, time or None, flags) of a CSV file beside an elementary stream."""
    with open(path, newline="") as file:
        rows = list(csv.reader(file))[1:]
    return [(int(row[0]), int(row[1]) if row[1] else None, set(re.findall("[a-z]+", row[2]))) for row in rows]


class DemuxTest(support.ToolTest):
    def demux(self, path, *options, **more):
        """Runs demux into a new folder; gives {name: path} of what it wrote."""
        folder = self.folder / f"out-{len(list(self.folder.iterdir()))}"
        result = support.run("demux", path, "-o", folder, *options, **more)
        self.assertEqual(result.returncode, 0, result.stderr.decode())
        return {file.name: file for file in sorted(folder.iterdir())}

    def output_of(self, files, service, pid, codec):
        """The file of an elementary stream; its name says what it is."""
        names = [f"{service}-{pid}.{ending}" for ending in CODECS[codec][2].split()]
        there = [name for name in names if name in files]
        self.assertEqual(len(there), 1, f"one of {names} in {sorted(files)}")
        return files[there[0]]

    def assertSame(self, got, wanted, what):
        """assertEqual would print megabytes."""
        if got != wanted:
            common = os.path.commonprefix([got, wanted])
            self.fail(f"{what}: {len(got)} bytes for {len(wanted)}, the first difference at {len(common)}")


class WholeStreams(DemuxTest):
    def check(self, name, programmes, **options):
        path, streams = multiplex(name, programmes, **options)
        model = pes.elementary_streams(path.read_bytes(), [pid for _, pid, _ in streams])
        copied = copied_by_ffmpeg(path, streams, self.folder)
        probed = stamps_by_ffprobe(path)
        for how in (["--mode", "rec"], []):  # pushed, and played by the file source
            self.check_files(self.demux(path, "--timestamps", *how), name, streams, model, copied, probed)

    def check_files(self, files, name, streams, model, copied, probed):
        self.assertEqual(len(files), 2 * len(streams), sorted(files))
        for service, pid, codec in streams:
            with self.subTest(name, pid=pid, codec=codec):
                self.assertEqual({offset: probed[pid].get(offset) for offset, _ in model[pid].stamped},
                                 dict(self.unwrapped(model[pid])), "ffprobe reads other times than the model")
                if pid in copied:
                    self.assertSame(model[pid].payload, copied[pid], "ffmpeg copies other bytes than the model")
                file = self.output_of(files, service, pid, codec)
                head = self.assertWhole(file.read_bytes(), model[pid], f"{name} {file.name}")
                self.assertTimes(time_rows(files[file.name + ".csv"]), model[pid], head, file.stat().st_size)

    def unwrapped(self, stream):
        first = stream.stamped[0][1]
        return [(offset, first + pes.later(stamp, first)) for offset, stamp in stream.stamped]

    def assertWhole(self, got, stream, what):
        """Every byte but what precedes the first time stamp and the last packet of the input. Gives the head's size."""
        head = stream.size - stream.held - len(got)
        print(f"{what}: head {head}, tail {stream.held}", flush=True)
        self.assertEqual(head, stream.first, "what precedes the first time stamp")
        self.assertSame(got, stream.payload[head:stream.size - stream.held], what)
        return head

    def assertTimes(self, rows, stream, head, size):
        """A time for every PES that has a stamp, at its first byte, as far from the first as the stamps are."""
        offsets = [offset for offset, _, _ in rows]
        self.assertEqual(offsets, sorted(set(offsets)))
        self.assertEqual((offsets[0], offsets[-1] < size), (0, True))
        stamps = dict(self.unwrapped(stream))
        timed = [(offset + head, time) for offset, time, _ in rows if time is not None]
        wanted = [offset for offset in stamps if head <= offset < head + size]
        self.assertEqual([offset for offset, _ in timed], wanted)
        (first_offset, first_time), first_flags = timed[0], rows[0][2]
        wrong = [(offset, time) for offset, time in timed
                 if abs((time - first_time) - (stamps[offset] - stamps[first_offset]) * 1000 / 9) > 1000 / 9]
        self.assertEqual(wrong, [], "times off by more than a tick")
        for offset, time, flags in rows:
            self.assertLessEqual(flags, KINDS)
            self.assertEqual("sync" in flags, time is not None, "a sample with a time is a sync point")
        self.assertIn("discontinuity", first_flags)
        self.assertEqual([row for row in rows[1:] if "discontinuity" in row[2]], [])

    def test_one_programme(self):
        self.check("one", ONE)

    def test_three_programmes(self):
        self.check("three", THREE)

    def test_five_services_of_four_streams(self):
        self.check("five", FIVE, size="176x144")

    def test_a_pipe_gives_what_the_file_gives(self):
        path, streams = multiplex("three", THREE)
        from_file = self.demux(path, "--push", "--timestamps")
        with subprocess.Popen(["cat", path], stdout=subprocess.PIPE) as pipe:
            from_pipe = self.demux("-", "--timestamps", stdin=pipe.stdout)
        self.assertEqual(list(from_pipe), list(from_file))
        self.assertEqual(len(from_file), 2 * len(streams))
        for name, file in from_file.items():
            self.assertSame(from_pipe[name].read_bytes(), file.read_bytes(), name)


class LongHeaders(DemuxTest):
    """PES headers that are longer than a packet are in no stream, and nobody misses them."""

    def test_nothing_is_dropped(self):
        stream = support.Stream()
        # Twelve frames of 24 ms and a header of 264 bytes fill 39 packets.
        frame = b"\xff\xfd\xa4\0" + bytes(range(2, 73)) * 8 + b"\2" * 4
        for i in range(190):
            stamp = 90_000 + i * 25_920
            stream.pcr(0x100, stamp - 9_000)
            stream.table(0, support.pat(1, {1: 0x50}))
            stream.table(0x50, support.pmt(1, 0x100, [(0x03, 0x101)]))
            field = 0x2100010001 | (stamp >> 30) << 33 | (stamp >> 15 & 0x7FFF) << 17 | (stamp & 0x7FFF) << 1
            data = b"\0\0\1\xc0\x1c\x02\x80\x80\xff" + field.to_bytes(5, "big") + b"\xff" * 250 + frame * 12
            for at in range(0, len(data), 184):
                stream.packet(0x101, data[at:at + 184], start=at == 0)
        stream.null_packets(5)
        path = self.file("long.ts", bytes(stream.data))
        for how in ([], ["--push"]):
            [row] = json.loads(self.done("demux", path, "-o", self.folder / "out", "--json", *how))["streams"]
            self.assertEqual((row["bytes"], row["dropped_bytes"]), (190 * 12 * len(frame), 0))
        listed = self.done("frames", path, "--pid", 0x101, "--json").splitlines()
        self.assertEqual([json.loads(line)["position"] for line in listed],
                         list(range(0, 190 * 12 * len(frame), len(frame))))


class Wrap(DemuxTest):
    """PCR and PTS begin again at 0 in mid-stream: contents synchronise again, and nothing behind that is missing."""

    SECONDS = 8
    # Where contents synchronise again or wait for the clock, in seconds on either side.
    NEAR = 1.5

    def check(self, mode, path, streams):
        files = self.demux(path, "--mode", mode, "--timestamps")
        model = pes.elementary_streams(path.read_bytes(), [pid for _, pid, _ in streams])
        for service, pid, codec in streams:
            with self.subTest(mode=mode, codec=codec):
                stream = model[pid]
                file = self.output_of(files, service, pid, codec)
                got = file.read_bytes()
                begin = stream.first
                wanted = stream.payload[begin:stream.size - stream.held]
                stamps = [(at - begin, pes.later(stamp, 0)) for at, stamp in stream.stamped]
                before = [at for at, stamp in stamps if stamp < -self.NEAR * 90_000]
                behind = [at for at, stamp in stamps if stamp > self.NEAR * 90_000]
                self.assertTrue(before and behind, "the stream does not wrap")
                self.assertTrue(got.endswith(wanted[behind[0]:]), f"{len(got)} bytes of {len(wanted)}")
                if mode == "live":  # what is late by the clock is cut at a start, and this machine may be late
                    continue
                self.assertSame(got, wanted, "a wrap costs no byte")
                jumps = [at for at, _, flags in time_rows(files[file.name + ".csv"]) if "discontinuity" in flags]
                self.assertEqual((jumps[0], len(jumps)), (0, 2), "a discontinuity at the start, and one at the wrap")
                self.assertTrue(before[-1] < jumps[1] < behind[0], (before[-1], jumps, behind[0]))

    def test_in_every_mode(self):
        # At a constant rate: live mode expects a PCR after as many bytes as the last one took.
        options = ("-muxrate", "1800000", "-output_ts_offset", str(WRAP_SECONDS - self.SECONDS / 2))
        path, streams = multiplex("wrap", ONE, seconds=self.SECONDS, options=options)
        for mode in MODES:
            self.check(mode, path, streams)


class LongStreams(DemuxTest):
    """A stream of any length takes the same memory and keeps its time. TESSEL_E2E_SECONDS (300) is how long it is."""

    SECONDS = float(os.environ.get("TESSEL_E2E_SECONDS", 300))
    ROUND = 12  # whole frames of both streams fit in
    # Each content may hold more or less of what is queued, up to 3 MiB, whatever the length.
    MEMORY = 2 * 3 * 1024

    def pushed(self, path, seconds, *options):
        """Pipes seconds of the stream into demux; gives its peak of resident memory in KiB."""
        # AddressSanitizer keeps what was freed for a while, which would look like growth.
        environment = dict(os.environ, ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=4")
        peak, limit = 0, time.monotonic() + 120 + seconds / 10
        with subprocess.Popen([support.SOURCE / "scripts" / "make-long", path, str(seconds)], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as maker, \
                subprocess.Popen([support.TOOL, "demux", "-", *options], stdin=maker.stdout, stdout=subprocess.DEVNULL,
                                 env=environment) as tool:
            maker.stdout.close()
            while tool.poll() is None:
                with open(f"/proc/{tool.pid}/status") as status:
                    peak = max([peak] + [int(line.split()[1]) for line in status if line.startswith("VmHWM")])
                if time.monotonic() > limit:
                    tool.kill()
                    self.fail(f"demux did not end on {seconds} seconds of stream in time")
                time.sleep(0.01)
        self.assertEqual((maker.returncode, tool.returncode), (0, 0))
        return peak

    def test_memory_stays_and_times_do_not_drift(self):
        path, [_, (service, pid, codec)] = multiplex("long", ONE, seconds=self.ROUND)
        short = self.pushed(path, 5 * self.ROUND, "--discard")
        long = self.pushed(path, self.SECONDS, "--discard")
        print(f"peak memory: {short} KiB on {5 * self.ROUND} s, {long} KiB on {self.SECONDS:.0f} s", flush=True)
        self.assertGreater(short, 0)
        self.assertLess(long, short + self.MEMORY)
        self.pushed(path, self.SECONDS, "--pid", str(pid), "--timestamps", "-o", self.folder / "long")
        files = {file.name: file for file in (self.folder / "long").iterdir()}
        rows = time_rows(files[self.output_of(files, service, pid, codec).name + ".csv"])
        times = [at for _, at, _ in rows if at is not None]
        stamps = [stamp for _, stamp in pes.elementary_streams(path.read_bytes(), [pid])[pid].stamped]
        rounds = round(self.SECONDS / self.ROUND)
        self.assertEqual(len(times), rounds * len(stamps))
        wanted = (rounds - 1) * self.ROUND * 10_000_000 + pes.later(stamps[-1], stamps[0]) * 1000 / 9
        self.assertLessEqual(abs(times[-1] - times[0] - wanted), 1000 / 9)


class LateTables(DemuxTest):
    def test_packets_and_sections_wait_for_none(self):
        stream = support.Stream()
        guides = [support.section(0x4E, number, bytes(1_000)) for number in range(30)]
        for guide in guides:
            stream.table(18, guide)
        for number in range(50_000):
            stream.packet(256, number.to_bytes(4, "big"))
        stream.pcr(257, 1)
        for _ in range(2):
            stream.table(0, support.pat(1, {1: 100}))
            stream.table(100, support.pmt(1, 257, []))
        stream.packet(256, b"last")
        stream.null_packets(5)
        path = self.file("late.ts", stream.data)
        files = self.demux(path, "--push", "--pid", "256:packets,18:sections")
        packets = [stream.data[at:at + 188] for at in range(0, len(stream.data), 188)]
        self.assertSame(files["0-256.ts"].read_bytes(), b"".join(at for at in packets if at[1:3] == b"\x01\0"), "packets")
        self.assertEqual(support.split_sections(files["0-18.psi"].read_bytes()), guides[:-1])


class Recordings(DemuxTest):
    LIMIT = 60  # seconds for a run; the longest recording lasts 10, and live mode takes as long

    def setUp(self):
        super().setUp()
        self.facts = support.recordings()

    def test_every_mode_comes_to_an_end(self):
        def demux(facts, mode):
            folder = self.folder / f"{facts['file']}-{mode}"
            command = [support.TOOL, "demux", facts["path"], "-o", folder, "--mode", mode, "--timestamps"]
            result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=self.LIMIT)
            return facts, mode, folder, result

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for facts, mode, folder, result in pool.map(lambda job: demux(*job),
                                                        [(facts, mode) for mode in MODES for facts in self.facts]):
                with self.subTest(facts["file"], mode=mode):
                    self.assertEnded(facts, folder, result)

    def assertEnded(self, facts, folder, result):
        """Done, or one line that says why not; what has packets and did not come out is named in the summary."""
        text = result.stdout.decode() + result.stderr.decode()
        self.assertIn(result.returncode, (0, 1), text)
        if result.returncode == 1:
            self.assertRegex(result.stderr.decode(), r"\Atessel: [^\n]+\n\Z")
            return
        sizes = {file.name: file.stat().st_size for file in folder.iterdir()}
        for service in facts["services"]:
            for component in service["components"]:
                pid = component["pid"]
                came = any(name.startswith(f"{service['id']}-{pid}.") and size for name, size in sizes.items())
                if not came and str(pid) in facts["pids"]:
                    self.assertRegex(text, rf"\b{pid}\b", f"PID {pid} is neither written nor named")

    def test_sections_pass_their_crc(self):
        found = 0
        for facts in self.facts:
            tables = [0x00, 0x10, 0x11, 0x12, 0x14, *(service["pmt_pid"] for service in facts["services"])]
            pids = [pid for pid in tables if str(pid) in facts["pids"]]
            if not facts["services"]:
                continue
            files = self.demux(facts["path"], "--push", "--pid", ",".join(f"{pid}:sections" for pid in pids))
            completed = support.Model(facts["path"].read_bytes(), pids).sections
            for pid in pids:
                with self.subTest(facts["file"], pid=pid):
                    there = [file for name, file in files.items() if name.endswith(f"-{pid}.psi")]
                    sections = support.split_sections(there[0].read_bytes()) if there else []
                    long_form = [section for section in sections if section[1] & 0x80 and section[0] != 0x71]
                    self.assertEqual([section[:8] for section in long_form if crc32(section)], [])
                    self.assertEqual(sections, [section for at, section in completed if at == pid])
                    found += len(sections)
        self.assertGreater(found, 0)


if __name__ == "__main__":
    unittest.main()
