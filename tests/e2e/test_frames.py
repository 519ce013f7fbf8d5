"""What `tessel frames` lists, against the packets that ffprobe finds."""
import json
import shutil
import subprocess
import unittest

import support

MP2, AC3, VIDEO = 257, 259, 256


class Frames(support.ToolTest):
    def frames(self, path, pid, **options):
        return [json.loads(line) for line in self.done("frames", path, "--pid", pid, "--json", **options).splitlines()]

    def packets(self, path, pid):
        if shutil.which("ffprobe") is None:
            raise AssertionError("ffprobe is not installed; it comes with ffmpeg (scripts/test installs it)")
        result = subprocess.run(["ffprobe", "-v", "error", "-show_streams", "-show_packets", "-of", "json", path],
                                capture_output=True, check=True, timeout=240)
        probed = json.loads(result.stdout)
        [index] = {stream["index"] for stream in probed["streams"] if int(stream["id"], 16) == pid}
        return [packet for packet in probed["packets"] if packet["stream_index"] == index]

    def assert_same(self, frames, packets):
        """But for the last one, which the input may break off in."""
        self.assertGreater(len(packets), 80)
        self.assertIn(len(frames), (len(packets), len(packets) - 1))
        position = 0
        for frame, packet in zip(frames, packets[:-1]):
            self.assertEqual((frame["position"], frame["length"]), (position, int(packet["size"])))
            self.assertAlmostEqual(frame["samples"] / frame["rate"], float(packet["duration_time"]), delta=0.00002)
            self.assertAlmostEqual(frame["time"], float(packet["pts_time"]), delta=0.00003)
            position += frame["length"]

    def test_as_ffprobe(self):
        path = support.two_programmes()
        units = self.file("units.ts", support.in_192_bytes(path.read_bytes()))
        for pid in (MP2, AC3):
            with self.subTest(pid):
                frames = self.frames(path, pid)
                self.assert_same(frames, self.packets(path, pid))
                self.assertEqual({(frame["rate"], frame["channels"]) for frame in frames}, {(48000, 1)})
                self.assertEqual(self.frames(units, pid), frames)
                self.assertEqual(self.frames("-", pid, input=path.read_bytes()), frames)
                lines = self.done("frames", path, "--pid", hex(pid)).decode().splitlines()
                self.assertEqual(lines[0].split(), ["POSITION", "LENGTH", "SAMPLES", "RATE", "CHANNELS", "TIME"])
                self.assertEqual([int(line.split()[1]) for line in lines[1:]], [frame["length"] for frame in frames])

    def test_lengths_that_vary(self):
        """At 44.1 kHz every other frame or so has a byte more; and another kind of header."""
        path = support.made_by_ffmpeg("cd-sound", "-f", "lavfi", "-i", "sine=440:d=4:r=44100", "-ac", "2",
                                      "-c:a", "mp2", "-b:a", "192k")
        frames = self.frames(path, 256)
        self.assertTrue(all(round(frame["time"], 6) == frame["time"] for frame in frames), "a time stamp tells no more")
        self.assert_same(frames, self.packets(path, 256))
        self.assertEqual({frame["length"] for frame in frames}, {626, 627})

    def test_lost_and_doubled_packets(self):
        """A packet more changes nothing; one less costs the frames that it was of, and no other."""
        data = support.two_programmes().read_bytes()
        own = [start for start in range(0, len(data), support.PACKET)
               if int.from_bytes(data[start + 1:start + 3], "big") == MP2]  # no unit start
        at = own[len(own) // 2]
        end = at + support.PACKET
        whole = self.frames(support.two_programmes(), MP2)
        self.assertEqual(self.frames(self.file("twice.ts", data[:end] + data[at:]), MP2), whole)
        lost = self.frames(self.file("lost.ts", data[:at] + data[end:]), MP2)
        self.assertLess(len(lost), len(whole))
        self.assertGreaterEqual(len(lost), len(whole) - 3)
        self.assertEqual({frame["length"] for frame in lost}, {frame["length"] for frame in whole})
        self.assertEqual(lost[-1]["time"], whole[-1]["time"])

    def test_what_has_no_frames(self):
        stream = support.two_programmes()
        for pid, text in ((VIDEO, "is video/mpeg2"), (300, "is in no program map")):
            result = support.run("frames", stream, "--pid", pid)
            self.assertEqual((result.returncode, result.stdout), (1, b""))
            self.assertIn(f"{stream}: PID {pid} {text}".encode(), result.stderr)
        result = support.run("frames", self.file("text.txt", b"GOOD MORNING\n" * 1000), "--pid", MP2)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"no transport stream packets", result.stderr)


if __name__ == "__main__":
    unittest.main()
