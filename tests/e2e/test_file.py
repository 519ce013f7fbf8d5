"""What the tool makes of files that can be sought in: played by the file source, cut by time, and still growing."""
import json
import os
import unittest

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


STREAMS = ("mpeg2", "h264", "mp2", "ac3", "two")


class FileTest(support.ToolTest):
    def demux(self, path, *options, code=0):
        """The summary, what was written ({name: bytes}) and what was said."""
        folder = self.folder / f"out-{len(list(self.folder.iterdir()))}"
        result = run("demux", path, "--json", "-o", folder, *options)
        self.assertEqual(result.returncode, code, result.stderr.decode())
        return json.loads(result.stdout), {file.name: file.read_bytes() for file in folder.iterdir()}, result.stderr.decode()


class Played(FileTest):
    def test_a_played_file_gives_what_a_pushed_one_gives(self):
        jobs = [(name, []) for name in STREAMS] + [("two", ["--service", "12"]), ("two", ["--pid", "257:packets,0,256"]),
                                                  ("two", ["--service", "11", "--audio", "fre", "--pid", "4096"])]
        for name, options in jobs:
            with self.subTest(name, options=options):
                if "fre" in options:  # the first service has German alone
                    self.assertEqual(run("demux", made(name), "--discard", *options).returncode, 1)
                    continue
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
        one_pcr = self.file("one-pcr.ts", bytes(one_pcr.data))
        jump = self.file("jump.ts", data[:188 * 100] + data[188 * 2000:188 * 4000])
        for path in (one_pcr, jump):
            with self.subTest(path.name):
                played, files, _ = self.demux(path)
                pushed, wanted, _ = self.demux(path, "--push")
                self.assertEqual((played, files), (pushed, wanted))
                self.assertIn(b"the file source does not open this file", self.done("demux", path, "--discard"))
                self.assertNotIn(b"file source", self.done("demux", path, "--discard", "--push"))

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


if __name__ == "__main__":
    unittest.main()
