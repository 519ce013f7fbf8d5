"""What the tool makes of files that can be sought in: played by the file source, cut by time, and still growing."""
import json
import pathlib
import re
import signal
import subprocess
import time
import unittest

import pes
import support
from support import run

LONG = ["-f", "lavfi", "-i", "testsrc2=s=352x288:r=25:d=12"]
TONE = ["-f", "lavfi", "-i", "sine=440:d=12:r=48000"]
MPEG2 = ["-c:v", "mpeg2video", "-bf", "2", "-g", "12", "-b:v", "800k"]
H264 = ["-c:v", "libx264", "-preset", "veryfast", "-bf", "3", "-g", "50", "-sc_threshold", "0", "-b:v", "500k"]


def made(name):
    """A stream of 12 seconds: of one programme, but for "two"."""
    arguments = {"mpeg2": [*LONG, *TONE, *MPEG2, "-c:a", "mp2"], "h264": [*LONG, *TONE, *H264, "-c:a", "ac3"],
                 "mp2": [*TONE, "-c:a", "mp2"], "ac3": [*TONE, "-c:a", "ac3"]}
    return support.two_programmes() if name == "two" else support.made_by_ffmpeg(name + "-12s", *arguments[name])


def packets_of(data, pid):
    packets = [data[at:at + support.PACKET] for at in range(0, len(data), support.PACKET)]
    return [packet for packet in packets if (packet[1] & 0x1F) << 8 | packet[2] == pid]


STREAMS = ("mpeg2", "h264", "mp2", "ac3", "two")


class FileTest(support.ToolTest):
    def demux(self, path, *options, code=0):
        """The summary, what was written ({name: bytes}) and what was said."""
        folder = self.folder / f"out-{len(list(self.folder.iterdir()))}"
        result = run("demux", path, "--json", "-o", folder, *options)
        self.assertEqual(result.returncode, code, result.stderr.decode())
        files = {file.name: file.read_bytes() for file in folder.iterdir()}
        return json.loads(result.stdout), files, result.stderr.decode()


class Played(FileTest):
    def test_a_played_file_gives_what_a_pushed_one_gives(self):
        jobs = [(name, []) for name in STREAMS]
        jobs += [("two", ["--service", "12"]), ("two", ["--pid", "257:packets,0,256"]),
                 ("two", ["--service", "11", "--audio", "ger", "--pid", "4096:packets"])]
        for name, options in jobs:
            with self.subTest(name, options=options):
                played, files, _ = self.demux(made(name), *options)
                pushed, wanted, _ = self.demux(made(name), "--push", *options)
                self.assertEqual((played["mode"], pushed["mode"]), ("file", "rec"))
                self.assertTrue(wanted and b"" not in wanted.values())
                self.assertEqual(sorted(files), sorted(wanted))
                self.assertEqual([file for file in wanted if files[file] != wanted[file]], [])
                # Media time begins with the clock, the splitter's with the start.
                same = ("service", "pid", "content", "language", "bytes", "discontinuities", "dropped_bytes", "note")
                self.assertEqual([[stream[key] for key in same] for stream in played["streams"]],
                                 [[stream[key] for key in same] for stream in pushed["streams"]])
                self.assertEqual(played["bytes"], made(name).stat().st_size)

    def test_what_the_file_source_refuses_is_pushed(self):
        data = made("mpeg2").read_bytes()
        one_pcr = support.Stream()  # no clock to play by
        for at in range(4):
            one_pcr.table(0, support.pat(1, {5: 0x50}))
            if at == 0:
                one_pcr.pcr(0x51, 90_000)
            one_pcr.table(0x50, support.pmt(5, 0x51, [(3, 0x51)]))
            one_pcr.packet(0x51, b"payload")
        cases = [("one-pcr.ts", bytes(one_pcr.data), [], "no clock of"),
                 ("jump.ts", data[:188 * 100] + data[188 * 2000:188 * 4000], [], "its clock jumps"),
                 ("late.ts", b"\x11" * 11_000 + data, [], "first 10,240 bytes"),
                 ("no-tables.ts", b"".join(packets_of(data, 256)), ["--pid", "256"], "no tables")]
        for name, bytes_of_it, options, why in cases:
            with self.subTest(name):
                path = self.file(name, bytes_of_it)
                played, files, _ = self.demux(path, *options)
                pushed, wanted, _ = self.demux(path, "--push", *options)
                self.assertIn(why, played.pop("why_pushed"))
                self.assertIsNone(pushed.pop("why_pushed"))
                for stream in played["streams"] + pushed["streams"]:
                    stream["samples"] = None  # a matter of threads
                self.assertEqual((played, files), (pushed, wanted))
                self.assertIn(why, self.done("demux", path, "--discard", *options).decode())
                result = run("extract", path, "--from", "1", "--pid", "256", "-o", self.folder / "part.ts")
                self.assertEqual(result.returncode, 1)
                self.assertRegex(result.stderr.decode(), rf"\Atessel: [^\n]*cannot be cut by time: [^\n]*\n\Z")

    def test_a_clock_that_jumps_ends_playing_and_says_so(self):
        data = made("mpeg2").read_bytes()
        half = len(data) // 376 * 188
        path = self.file("joined.ts", data[:half] + data[:half])
        summary, files, said = self.demux(path, code=1)
        self.assertRegex(said, r"\Atessel: [^\n]*joined.ts: its clock jumps[^\n]*--push[^\n]*\n\Z")
        self.assertIs(summary["aborted"], True)
        self.assertLess(summary["bytes"], half + 2 * 65536)
        pushed, wanted, _ = self.demux(path, "--push")
        self.assertIs(pushed["aborted"], False)
        for name, data in files.items():  # what was queued may be gone, whole streams of it
            self.assertTrue(wanted[name].startswith(data), name)
        for stream, other in zip(summary["streams"], pushed["streams"], strict=True):
            self.assertGreater(stream["dropped_bytes"], other["bytes"] // 3)


class Unreadable(FileTest):
    """A sector that the system cannot read ends every command with what came before it, or is left out."""
    COMMANDS = {"demux": [], "demux --push": [], "demux --from 1": [], "cut --from 1": ["-o"],
                "extract --pid 256,257": ["-o"], "frames --pid 257": None, "info --pids --json": None,
                "watch --json": None}

    def made_of(self, command, path, *options, **more):
        """The exit code, {name: bytes} and what was said."""
        folder = self.folder / f"out-{len(list(self.folder.iterdir()))}"
        folder.mkdir()
        into = self.COMMANDS[command]
        target = [] if into is None else ["-o", folder / "file"]
        result = run(*command.split(), path, *target, *options, **more)
        files = {file.name: file.read_bytes() for file in folder.rglob("*") if file.is_file()}
        if into is None:
            files["stdout"] = result.stdout
        return result.returncode, files, result.stderr.decode()

    def test_what_cannot_be_read_is_said_or_left_out(self):
        data = made("mpeg2").read_bytes()
        bad = len(data) // 2 // 512 * 512
        path = self.file("bad.ts", data)
        head = self.file("head.ts", data[:bad])
        hole = self.file("hole.ts", data[:bad] + bytes(512) + data[bad + 512:])
        faults = support.faulty(read_file=path, read_from=bad, read_bytes=512)
        for command in self.COMMANDS:
            with self.subTest(command):
                code, files, said = self.made_of(command, path, env=faults)
                self.assertEqual(code, 1)
                self.assertRegex(said, rf"(?m)^tessel: [^\n]*bad.ts: cannot read byte {bad}: Input/output error[^\n]*\n\Z")
                if not command.startswith("info"):  # which tells how long the file is
                    self.assertEqual(files, self.made_of(command, head)[1])
                code, files, said = self.made_of(command, path, "--skip-unreadable", env=faults)
                self.assertEqual(code, 0)
                self.assertRegex(said, rf"(?m)^tessel: [^\n]*bad.ts: 512 bytes could not be read[^\n]* {bad}\n\Z")
                self.assertEqual(files, self.made_of(command, hole)[1])
                self.assertTrue(files and b"" not in files.values())


TIMES = (0, 0.3, 0.48, 3.21, 6, 11.9)
LEAD = 1.5  # seconds that ffmpeg sends a picture before it is due, and a bit
# The file of the stream that times each, how long a group of its pictures or a frame is, and how a group begins.
TIMED = {"mpeg2": ("1-256.m2v", 0.48, b"\0\0\1\xb3"), "h264": ("1-256.h264", 2, b"\0\0\0\1\x09"),
         "mp2": ("1-256.mp2", 0.3, b"\xff\xfd"), "ac3": ("1-256.ac3", 0.3, b"\x0b\x77")}


def has_idr(data):
    """Whether a picture that needs no other comes before the second access unit delimiter."""
    return b"\0\0\1\x65" in data.split(b"\0\0\0\1\x09")[1]


class TimedTest(FileTest):
    def setUp(self):
        super().setUp()
        self.models = {}

    def model(self, name, pid=256):
        """The whole stream, and {offset: seconds from its first picture}."""
        if name not in self.models:
            stream = pes.elementary_streams(made(name).read_bytes(), [pid])[pid]
            first = stream.shown[0][1]
            self.models[name] = stream, {at: pes.later(stamp, first) / 90_000 for at, stamp in stream.shown}
        return self.models[name]

    def assertBegins(self, name, data, begin, time):
        """data begins where decoding may, at or before that time, and by less than a group."""
        stream, times = self.model(name)
        _, group, mark = TIMED[name]
        self.assertIn(begin, times)
        self.assertLessEqual(times[begin], time + 0.0001)
        self.assertGreater(times[begin] + group, time - 0.0001)
        self.assertTrue(data.startswith(mark), data[:16])
        self.assertTrue(name != "h264" or has_idr(data))

    def assertEnds(self, name, end, time, most=LEAD):
        """All that is shown by then is there, and not much more."""
        stream, times = self.model(name)
        self.assertGreaterEqual(min([shown for at, shown in times.items() if at >= end], default=time), time)
        self.assertLess(max(shown for at, shown in times.items() if at < end), time + most)


class CutByTime(TimedTest):
    def test_from_begins_with_an_access_point(self):
        for name, (file, _, _) in TIMED.items():
            stream, _ = self.model(name)
            for time in TIMES:
                with self.subTest(name, time=time):
                    _, files, _ = self.demux(made(name), "--from", time)
                    data = files[file]
                    self.assertTrue(data and stream.payload[:stream.size - stream.held].endswith(data))
                    self.assertBegins(name, data, stream.size - stream.held - len(data), time)

    def test_to_ends_when_all_has_been_shown(self):
        for name, (file, _, _) in TIMED.items():
            stream, _ = self.model(name)
            for time in (0.1, 3.21, 9, 100):
                with self.subTest(name, time=time):
                    _, files, _ = self.demux(made(name), "--to", time)
                    self.assertTrue(stream.payload.startswith(files[file]))
                    self.assertEnds(name, len(files[file]), time)

    def test_extract_takes_the_same_part(self):
        for name, (file, _, _) in TIMED.items():
            with self.subTest(name):
                packets = self.done("extract", made(name), "--pid", "256,0", "--from", "0:00:04.5", "--to", "7.25",
                                    "-o", "-")
                _, files, _ = self.demux(made(name), "--from", "0:04.5", "--to", "7.250", "--pid", "256")
                self.assertEqual(pes.elementary_streams(packets, [256])[256].payload, files[file])
                self.assertIn(packets, self.extract(made(name), [256, 0]))
                stream, _ = self.model(name)
                begin = stream.payload.index(files[file])
                self.assertBegins(name, files[file], begin, 4.5)
                self.assertEnds(name, begin + len(files[file]), 7.25)

    def test_every_service_begins_with_a_picture(self):
        _, files, _ = self.demux(made("two"), "--from", "1.7")
        self.assertEqual(len(files), 4)
        self.assertTrue(files["11-256.m2v"].startswith(b"\0\0\1\xb3"))
        self.assertTrue(files["12-258.h264"].startswith(b"\0\0\0\1\x09") and has_idr(files["12-258.h264"]))

    def test_times_that_make_no_sense(self):
        path = made("mpeg2")
        cases = [(2, "is no time", [option, time]) for option in ("--from", "--to")
                 for time in ("x", "-1", "1:60", "1:2:3:4", "1.", ".5", "1:", "1e3", "0:99:00", "9" * 30)]
        cases += [(2, "nothing lies between", ["--from", "3", "--to", "3"]), (2, "nothing lies between", ["--to", "0"]),
                  (1, "behind its end, at 0:00:12.0", ["--from", "13"])]
        for code, text, options in cases:
            for command in (["demux", path, "--discard"], ["extract", path, "--pid", "256", "-o", self.folder / "out"]):
                with self.subTest(options, command=command[0]):
                    result = run(*command, *options)
                    self.assertEqual(result.returncode, code, result.stderr)
                    self.assertRegex(result.stderr.decode(), r"\Atessel: [^\n]*" + text + r"[^\n]*\n\Z")
        self.assertEqual(list(self.folder.iterdir()), [], "nothing was written")
        for options, code in ((["--push"], 2), (["--mode", "rec"], 2)):
            self.assertEqual(run("demux", path, "--discard", "--from", "1", *options).returncode, code)
        self.assertEqual(run("demux", "-", "--discard", "--from", "1", input=b"").returncode, 2)


class Cuts(TimedTest):
    """A cut is a stream that others play, from its first packet to its last, and says nothing of other services."""

    def cut(self, name, *options):
        """The cut; with --from it says, last, where that really begins."""
        path = self.folder / "cut.ts"
        result = run("cut", made(name), *options, "-o", path)
        self.assertEqual((result.returncode, result.stdout), (0, b""), result.stderr)
        said = re.fullmatch(r"(?:tessel: the part begins at 0:00:([0-9.]+)\n)?", result.stderr.decode())
        self.assertEqual(said[1] is not None, "--from" in options, result.stderr)
        self.said = float(said[1] or 0)
        return path

    def assertPlays(self, path, wanted):
        """ffprobe finds one service with these streams, and ffmpeg decodes them without a word."""
        shown = json.loads(subprocess.run(
            ["ffprobe", "-v", "error", "-of", "json", "-show_entries", "program=program_id:program_stream=codec_name",
             path], capture_output=True, check=True).stdout)
        found = {entry["program_id"]: [stream["codec_name"] for stream in entry["streams"]]
                 for entry in shown["programs"]}
        self.assertEqual(found, wanted)
        decoded = subprocess.run(["ffmpeg", "-nostdin", "-v", "warning", "-i", path, "-f", "null", "-"],
                                 capture_output=True)
        self.assertEqual((decoded.returncode, decoded.stderr), (0, b""))

    def assertTables(self, name, data, service, pmt_pid):
        pats = packets_of(data, 0)
        self.assertEqual(data[:support.PACKET], pats[0])
        wanted = support.pat(int.from_bytes(packets_of(made(name).read_bytes(), 0)[0][8:10], "big"), {service: pmt_pid})
        for number, packet in enumerate(pats):
            self.assertEqual(packet, (bytes([0x47, 0x40, 0, 0x10 | number % 16, 0]) + wanted).ljust(188, b"\xff"))
        maps = packets_of(data, pmt_pid)
        self.assertEqual(data[support.PACKET:2 * support.PACKET], maps[0])
        self.assertIn(b"".join(maps), b"".join(packets_of(made(name).read_bytes(), pmt_pid)))

    def test_cuts_play(self):
        codecs = {"mpeg2": ["mpeg2video", "mp2"], "h264": ["h264", "ac3"], "mp2": ["mp2"], "ac3": ["ac3"]}
        for name in codecs:
            stream, _ = self.model(name)
            for begin, end in ((3.21, 7.9), (None, 4), (6, None), (11.5, None), (None, None)):
                with self.subTest(name, begin=begin, end=end):
                    options = ["--from", begin] * (begin is not None) + ["--to", end] * (end is not None)
                    path = self.cut(name, *options)
                    self.assertPlays(path, {1: codecs[name]})
                    data = path.read_bytes()
                    self.assertTables(name, data, 1, 4096)
                    pids = range(256, 256 + len(codecs[name]))
                    found = pes.elementary_streams(data, pids)  # refuses a jump of a counter
                    self.assertEqual([found[pid].starts[0][0] for pid in pids], [0] * len(pids), "a whole PES is first")
                    got = found[256].payload
                    at = stream.payload.index(got)
                    self.assertBegins(name, got, at, begin or 0)
                    self.assertAlmostEqual(self.said, self.model(name)[1][at], delta=0.01)
                    if end is None:
                        self.assertEqual(at + len(got), stream.size, "up to the last packet of the file")
                    else:
                        self.assertEnds(name, at + len(got), end, TIMED[name][1])

    def test_one_service_of_two(self):
        for service, pids, pmt_pid, codecs in (("11", (256, 257), 4096, ["mpeg2video", "mp2"]),
                                               ("Second", (258, 259), 4097, ["h264", "ac3"])):
            number = 11 if service == "11" else 12
            path = self.cut("two", "--service", service, "--from", "1.2", "--to", "2")
            self.assertPlays(path, {number: codecs})
            data = path.read_bytes()
            self.assertTables("two", data, number, pmt_pid)
            self.assertEqual({(data[at + 1] & 0x1F) << 8 | data[at + 2] for at in range(0, len(data), 188)},
                             {0, pmt_pid, *pids})
        units = self.file("units.ts", support.in_192_bytes(made("two").read_bytes()))
        again = run("cut", units, "--service", "12", "--from", "1.2", "--to", "2", "-o", "-")
        self.assertEqual((again.returncode, again.stdout == data), (0, True))

    def test_what_is_refused_leaves_files_alone(self):
        path = self.file("in.ts", made("mpeg2").read_bytes())
        output = self.file("out.ts", b"precious")
        cases = [(2, "is also the input", [path, "-o", path]),
                 (1, "no service", [path, "--service", "2", "-o", output]),
                 (1, "behind its end", [path, "--from", "99", "-o", output]), (2, "needs a file", ["-", "-o", output])]
        for code, text, arguments in cases:
            with self.subTest(text):
                result = run("cut", *arguments)
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertRegex(result.stderr.decode(), r"\Atessel: [^\n]*" + text + r"[^\n]*\n\Z")
                self.assertEqual((output.read_bytes(), path.read_bytes()), (b"precious", made("mpeg2").read_bytes()))


class Recordings(FileTest):
    def setUp(self):
        super().setUp()
        self.facts = support.recordings()

    def test_every_recording_plays_or_says_why_not(self):
        played = 0
        for facts in self.facts:
            with self.subTest(facts["file"]):
                result = run("demux", facts["path"], "--discard", "--json")
                if result.returncode != 0:
                    self.assertRegex(result.stderr.decode(), r"\Atessel: [^\n]+\n\Z")
                    continue
                summary = json.loads(result.stdout)
                self.assertEqual(summary["mode"] == "rec", summary["why_pushed"] is not None)
                for service in {stream["service"] for stream in summary["streams"]}:
                    alone, files, _ = self.demux(facts["path"], "--service", service)
                    pushed, wanted, _ = self.demux(facts["path"], "--service", service, "--push")
                    self.assertTrue(wanted and wanted.items() <= files.items(), (service, alone))
                    # Half a second of clock references is not everywhere.
                    self.assertTrue(all(s["file"] or s["note"] for s in pushed["streams"]), pushed)
                    played += alone["mode"] == "file"
                    cut = self.folder / "cut.ts"
                    self.done("cut", facts["path"], "--service", service, "-o", cut)
                    _, again, _ = self.demux(cut)
                    # A stream that begins in the middle of a PES packet has lost that, and a cut ends with whole ones.
                    self.assertEqual(sorted(again), sorted(files))
                    for name, data in again.items():
                        self.assertTrue(name.endswith(".ts") or data in files[name] or files[name] in data, name)
        self.assertGreater(played, 0, "no recording was played")


class Follows(FileTest):
    """A file that grows while it is read: nothing of it is missing when it has stopped growing."""

    PIECE = 30_011  # of no packet size
    LIMIT = 60  # seconds; only a hang takes that long

    def follow(self, name, command, before=0):
        """Runs command on a file that gets the stream a piece at a time, from its first bytes on. Gives the process."""
        path = self.file("growing.ts", made(name).read_bytes()[:before])
        tool = subprocess.Popen([support.TOOL, *(str(word).replace("{}", str(path)) for word in command)],
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(tool.communicate)
        self.addCleanup(tool.kill)
        data = made(name).read_bytes()
        with open(path, "ab", buffering=0) as file:
            for at in range(before, len(data), self.PIECE):
                file.write(data[at:at + self.PIECE])
                time.sleep(0.01)
        return tool

    def assertDone(self, tool):
        output, error = tool.communicate(timeout=self.LIMIT)
        self.assertEqual((tool.returncode, error), (0, b""))
        return output

    def test_demux(self):
        for name, before in (("mpeg2", 0), ("two", 100_000)):
            with self.subTest(name):
                folder = self.folder / f"follow-{name}"
                tool = self.follow(name, ["demux", "{}", "--follow", "--idle", "1.5", "--json", "-o", folder], before)
                self.assertEqual(json.loads(self.assertDone(tool))["mode"], "rec")
                _, wanted, _ = self.demux(made(name), "--push")
                self.assertEqual({file.name: file.read_bytes() for file in folder.iterdir()}, wanted)

    def test_extract(self):
        for options in (["--pid", "256,4096"], ["--sections", "--pid", "4096"]):
            output = self.folder / "out"
            tool = self.follow("two", ["extract", "{}", *options, "--follow", "--idle", "1", "-o", output])
            self.assertDone(tool)
            self.assertEqual(output.read_bytes(), self.done("extract", made("two"), *options, "-o", "-"))

    def test_it_says_what_became_of_the_file(self):
        whole = made("mpeg2").read_bytes()
        data = whole[:len(whole) // 376 * 188]

        def replace(path):
            self.file("new.ts", data).rename(path)

        def cut(path):
            path.write_bytes(data[:188 * 50])

        cases = [(replace, "--follow", 0, "was replaced, and the old file", data),
                 (replace, "--follow=name", 0, "was replaced; the new file", data * 2),
                 (cut, "--follow", 1, "was cut to 9400 bytes when", data),
                 (cut, "--follow=name", 0, "was cut; it is read", data + data[:188 * 50])]
        for change, option, code, said, wanted in cases:
            with self.subTest(said):
                path = self.file("followed.ts", data)
                tool = subprocess.Popen([support.TOOL, "extract", path, "--pid", "256", option, "--idle", "2", "-o", "-"],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                self.addCleanup(tool.kill)
                # Until all has been read, the last block of 128 KiB at once.
                deadline = time.monotonic() + self.LIMIT
                while int(pathlib.Path(f"/proc/{tool.pid}/io").read_text().split()[1]) < len(data):
                    self.assertLess(time.monotonic(), deadline)
                    time.sleep(0.01)
                change(path)
                output, error = tool.communicate(timeout=self.LIMIT)
                self.assertEqual(tool.returncode, code, error)
                self.assertRegex(error.decode(), rf"\Atessel: [^\n]*followed.ts: {said}[^\n]*\n\Z")
                self.assertEqual(output, self.extract(self.file("wanted.ts", wanted), [256]))

    def test_an_interrupt_ends_it(self):
        output = self.folder / "out"
        tool = self.follow("mpeg2", ["extract", "{}", "--pid", "256", "--follow", "-o", output])
        with self.assertRaises(subprocess.TimeoutExpired, msg="it ended by itself"):
            tool.wait(1)
        tool.send_signal(signal.SIGINT)
        self.assertDone(tool)
        self.assertEqual(output.read_bytes(), self.extract(made("mpeg2"), [256]))

    def test_what_makes_no_sense(self):
        path, out = made("mpeg2"), ["-o", self.folder / "out"]
        head = self.file("head.ts", path.read_bytes()[:188 * 100])
        cases = [(2, "complete", ["demux", path, "--follow", "--from", "1", *out]),
                 (2, "add --follow", ["demux", path, "--idle", "1", *out]),
                 (1, "no services", ["demux", head, "--follow", "--idle", "0.7", *out]),
                 (1, "is empty", ["demux", self.file("empty.ts", b""), "--follow", "--idle", "0.3", *out]),
                 (1, "only a file can be followed", ["extract", "-", "--pid", "1", "--follow", *out]),
                 (2, "--follow=name", ["extract", path, "--pid", "1", "--follow=x", *out]),
                 (2, "--idle", ["extract", path, "--pid", "1", "--follow", "--idle", "0", *out])]
        for code, text, command in cases:
            with self.subTest(command=command):
                result = run(*command, input=b"")
                self.assertEqual((result.returncode, text in result.stderr.decode()), (code, True), result.stderr)


if __name__ == "__main__":
    unittest.main()
