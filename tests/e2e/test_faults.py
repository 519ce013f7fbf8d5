"""What the tool does when the system gives it no memory, or no thread: at every place where it asks for one if
TESSEL_ALL_FAULTS is set, else at some of them."""
import concurrent.futures
import json
import os
import pathlib
import re
import tempfile
import unittest

import support
from support import faulty, run

SOME = 100  # places a command


def small_stream():
    return support.made_by_ffmpeg(
        "faults", "-f", "lavfi", "-i", "testsrc2=s=176x144:r=25:d=1.5", "-f", "lavfi", "-i", "sine=440:d=1.5:r=48000",
        "-c:v", "mpeg2video", "-b:v", "200k", "-c:a", "mp2", "-mpegts_transport_stream_id", "0x1234",
        "-metadata", "service_name=Small")


# What goes to standard output, but for what is a matter of threads; the files are to be the same to the byte.
def but_for_samples(output):
    return [dict(stream, samples=None) for stream in json.loads(output)["streams"]]


COMMANDS = {
    "info": (["info", "--json", "--pids", "{}"], None),
    "info, pushed": (["info", "--push", "{}"], None),
    "extract": (["extract", "{}", "--pid", "256,257", "-o", "out"], None),
    "sections": (["extract", "{}", "--sections", "--pid", "0,4096", "-o", "out"], None),
    "demux": (["demux", "{}", "--json", "-o", "."], but_for_samples),
    "demux, pushed": (["demux", "{}", "--json", "--push", "-o", "."], but_for_samples),
    "cut": (["cut", "{}", "--from", "0.5", "--to", "1", "-o", "out"], None),
    "frames": (["frames", "{}", "--pid", "257", "--json"], None),
    "watch": (["watch", "{}", "--json"], None),
    "classes": (["classes", "--json"], None),
}


class Faults(support.ToolTest):
    def run_in_folder(self, command, **faults):
        """Exit code, standard output, standard error, {name: bytes} of the files, and the counts."""
        words, seen = COMMANDS[command]
        with tempfile.TemporaryDirectory(dir=self.folder) as folder, tempfile.NamedTemporaryFile("r") as counts:
            result = run(*(word.format(small_stream()) for word in words), cwd=folder,
                         env=faulty(counts=counts.name, **faults))
            files = {path.name: path.read_bytes() for path in pathlib.Path(folder).iterdir()}
            output = seen(result.stdout) if seen and result.returncode == 0 else result.stdout
            numbers = counts.read().split()
        return result.returncode, output, result.stderr.decode(), files, dict(zip(numbers[::2], map(int, numbers[1::2])))

    def check(self, kind, count, text):
        """Lets the system fail in turn at the places that count chooses of their number: the tool does all, or says in one
        line that it could not."""
        for command in COMMANDS:
            wanted = self.run_in_folder(command)
            self.assertEqual(wanted[0], 0, (command, wanted[2]))
            notes = re.escape(wanted[2])

            def outcome(place):
                code, output, error, files, _ = self.run_in_folder(command, **{kind: place})
                whole = (code, output, error, files) == wanted[:4]
                said = code == 1 and re.fullmatch(f"({notes})?tessel: [^\n]*{text}[^\n]*\n", error)
                return None if whole or said else f"{kind} {place}: exit {code}, {error or 'and nothing said'}"

            with self.subTest(command), concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
                places = count(wanted[4][f"{kind}s"])
                self.assertEqual([bad for bad in pool.map(outcome, places) if bad], [])

    def test_no_memory(self):
        def places(number):
            return range(1, number + 1, 1 if "TESSEL_ALL_FAULTS" in os.environ else number // SOME)

        # Of a thread, and of a module, the system does not say what it lacks.
        self.check("allocation", places, "(out of memory|Cannot allocate memory|no more threads|the module: |its classes: )")

    def test_no_thread(self):
        self.check("thread", lambda number: range(1, number + 1), "no more threads")


if __name__ == "__main__":
    unittest.main()
