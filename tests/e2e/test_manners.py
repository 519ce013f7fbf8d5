"""How the tool behaves as a program: exit codes, messages, pipes and files."""
import json
import os
import pathlib
import pty
import random
import resource
import select
import shutil
import signal
import subprocess
import threading
import time
import unittest

import pes
import support
import test_file
from support import Stream, pat, run

BYTE_LIMIT = 10_000_000  # `info` gives up on names after this many
READ_SIZE = 256 * 1024


class MannersTest(support.ToolTest):
    def setUp(self):
        super().setUp()
        self.stream = support.two_programmes()

    def assertFails(self, code, text, *arguments, **options):
        result = run(*arguments, **options)
        error = result.stderr.decode()
        self.assertEqual(result.returncode, code, (arguments, error))
        self.assertRegex(error, r"\Atessel: [^\n]+\n\Z", "one line")
        self.assertIn(text, error)
        self.assertFalse(result.stdout, arguments)


class Inputs(MannersTest):
    def test_inputs_that_are_no_stream(self):
        noise = bytes(random.Random(5).choices(range(256), k=100_000))
        inputs = [
            (self.folder / "missing.ts", "cannot open: No such file or directory"),
            (self.folder, "is a directory"),
            (pathlib.Path("/dev/null"), "is empty"),
            (self.file("empty.ts", b""), "is empty"),
            (self.file("noise.ts", noise), "no transport stream packets in 100000 bytes"),
            (self.file("only-sync.ts", b"\x47"), "no transport stream packets in 1 bytes"),
            (self.file("text.txt", b"GOOD MORNING, Gentle reader.\n" * 1000), "no transport stream packets"),
        ]
        for path, text in inputs:
            for command in (["info", path], ["info", "--json", "--pids", path],
                            ["extract", path, "--pid", "0", "-o", "-"],
                            ["extract", path, "--sections", "--pid", "0", "-o", self.folder / "out"],
                            ["demux", path, "--discard"], ["cut", path, "-o", self.folder / "out"],
                            ["frames", path, "--pid", "257"], ["watch", path]):
                with self.subTest(path=path.name, command=command[0]):
                    self.assertFails(1, f"{path}: {text}", *command)

    def test_standard_input(self):
        data = self.stream.read_bytes()
        self.assertFails(1, "standard input: is empty", "info", "-", input=b"")
        for command in (["info", "--push", "{}"], ["info", "--push", "--json", "--pids", "{}"],
                        ["extract", "{}", "--pid", "257", "-o", "-"],
                        ["extract", "{}", "--sections", "--pid", "0", "-o", "-"]):
            with self.subTest(command):
                from_file = self.done(*(word.format(self.stream) for word in command))
                self.assertTrue(self.done(*(word.format("-") for word in command), input=data) == from_file)
                with open(self.stream, "rb") as file:
                    self.assertTrue(self.done(*(word.format("-") for word in command), stdin=file) == from_file)

    def bytes_read(self, path, *options):
        """Reads path as standard input: the offset that the tool leaves is how far it came."""
        with open(path, "rb") as file:
            output = self.done("info", *options, "-", stdin=file)
            return os.lseek(file.fileno(), 0, os.SEEK_CUR), output.decode()

    def test_info_reads_no_more_of_a_huge_file_than_it_needs(self):
        nameless = Stream()
        for _ in range(4):
            nameless.table(0x00, pat(7, {5: 0x50}))
        cases = [("named", self.stream.read_bytes(), self.stream.stat().st_size + READ_SIZE, "complete"),
                 ("nameless", bytes(nameless.data), BYTE_LIMIT + READ_SIZE, "incomplete after")]
        for name, data, limit, text in cases:
            with self.subTest(name):
                path = self.file("huge.ts", data)
                os.truncate(path, 10 * 2**30)
                count, output = self.bytes_read(path)
                self.assertLessEqual(count, limit)
                self.assertIn(text, output)
                self.assertEqual(self.done("info", path).decode(), output)
                path.unlink()


class Outputs(MannersTest):
    def test_output_must_not_be_the_input(self):
        data = self.stream.read_bytes()
        path = self.file("in.ts", data)
        (self.folder / "symbolic.ts").symlink_to(path)
        os.link(path, self.folder / "hard.ts")
        for output in (path, self.folder / "." / "in.ts", self.folder / "symbolic.ts", self.folder / "hard.ts"):
            with self.subTest(output.name):
                self.assertFails(2, "is also the input", "extract", path, "--pid", "257", "-o", output)
                with open(path, "rb") as file:
                    self.assertFails(2, "is also the input", "extract", "-", "--pid", "257", "-o", output, stdin=file)
        with open(path, "ab") as file:
            self.assertFails(2, "is also the input", "extract", path, "--pid", "257", "-o", "-", stdout=file)
        self.assertTrue(path.read_bytes() == data)

    def test_output_replaces_what_was_there(self):
        wanted = self.extract(self.stream, [257])
        output = self.file("out.ts", b"x" * (len(wanted) + 1000))
        output.chmod(0o640)
        link = self.folder / "link.ts"
        link.symlink_to(output)
        self.assertEqual(self.done("extract", self.stream, "--pid", "0x101", "--output", link), b"")
        self.assertTrue(output.read_bytes() == wanted)
        self.assertEqual((link.is_symlink(), output.stat().st_mode & 0o777), (True, 0o640))
        self.assertEqual(sorted(self.folder.iterdir()), [link, output])

    def test_an_output_stays_until_something_has_come_for_it(self):
        for name in ("out.ts", "11-256.m2v", "11-256.m2v.csv"):
            self.file(name, b"precious")
        head = self.file("head.ts", self.stream.read_bytes()[:188 * 400])
        before = {path: path.read_bytes() for path in self.folder.iterdir()}
        output = ["-o", self.folder / "out.ts"]
        for code, command in ((2, ["extract", self.stream, "--pid", "8192", *output]),
                              (1, ["extract", self.folder / "missing.ts", "--pid", "1", *output]),
                              (1, ["extract", self.stream, "--pid", "8191", *output]),
                              (1, ["extract", self.stream, "--pid", "8191", "--sections", *output]),
                              (1, ["extract", "/dev/null", "--pid", "256", *output]),
                              (1, ["extract", self.stream, "--pid", "256", "--from", "99", *output]),
                              (1, ["cut", self.stream, "--service", "13", *output]),
                              (1, ["demux", head, "--push", "--timestamps", "-o", self.folder])):
            with self.subTest(command):
                self.assertEqual(run(*command).returncode, code)
                self.assertEqual({path: path.read_bytes() for path in self.folder.iterdir()}, before)

    def test_what_cannot_be_finished_ends_with_a_whole_packet(self):
        def limit(size):  # Python ignores the signal of the limit, and the tool shall too
            return {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)),
                    "restore_signals": False}

        path = self.file("long.ts", self.stream.read_bytes() * 8)
        extract, cut = ["extract", path, "--pid", "256,258", "-o"], ["cut", path, "-o"]
        output, whole = self.file("out.ts", b"precious"), self.folder / "whole.ts"
        for command in (extract, cut):
            self.done(*command, whole)
            for size, text in ((100_000, "File too large"), (1_500_000, "bytes before that are kept")):
                with self.subTest(command[0], size=size):
                    output.write_bytes(b"precious")
                    self.assertFails(1, text, *command, output, **limit(size))
                    data = output.read_bytes()
                    if size < 1 << 20:  # not even the first block
                        self.assertEqual(data, b"precious")
                    else:
                        self.assertEqual((len(data) > 1_000_000, len(data) % 188), (True, 0))
                        self.assertTrue(whole.read_bytes().startswith(data))

    def test_output_that_cannot_be_written(self):
        self.assertFails(1, "cannot write: Is a directory", "extract", self.stream, "--pid", "0", "-o", self.folder)
        nowhere = self.folder / "no" / "out.ts"
        self.assertFails(1, "cannot write: No such file", "extract", self.stream, "--pid", "0", "-o", nowhere)
        with open("/dev/full", "wb") as full:
            for command in (["info", self.stream], ["extract", self.stream, "--pid", "256", "-o", "-"]):
                self.assertFails(1, "standard output: cannot write: No space left", *command, stdout=full)
        self.assertFails(1, "/dev/full: cannot write: No space left", "extract", self.stream, "--pid", "256", "-o",
                         "/dev/full")

    def test_reader_that_goes_away(self):
        data = self.stream.read_bytes() * 8  # more than a pipe and the tool's buffer hold
        for command in (["extract", self.file("long.ts", data), "--pid", "256", "-o", "-"], ["info", self.stream]):
            with self.subTest(command[0]):
                tool = subprocess.Popen([support.TOOL, *command], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                if command[0] == "extract":
                    self.assertEqual(len(tool.stdout.read(100)), 100)
                tool.stdout.close()
                error = tool.stderr.read()
                tool.stderr.close()
                self.assertEqual((tool.wait(240), error), (0, b""))


class Demux(MannersTest):
    """What demux does as a program; test_demux.py looks at the bytes."""

    def demux(self, *options, source=None, **more):
        """The summary, and what was written: {name: bytes}."""
        folder = self.folder / "out"
        summary = json.loads(self.done("demux", source or self.stream, "--json", "-o", folder, *options, **more))
        files = {file.name: file.read_bytes() for file in folder.iterdir()}
        shutil.rmtree(folder)
        return summary, files

    def test_selection(self):
        cases = [([], ["11-256.m2v", "11-257.mp2", "12-258.h264", "12-259.ac3"]),
                 (["--service", "12"], ["12-258.h264", "12-259.ac3"]),
                 (["--service", "First & Co", "--audio", "ger"], ["11-256.m2v", "11-257.mp2"]),
                 (["--audio", "fre"], ["11-256.m2v", "12-258.h264", "12-259.ac3"]),
                 (["--service", "12", "--pid", "17"], ["0-17.psi", "12-258.h264", "12-259.ac3"]),
                 (["--pid", "257:packets,4096", "--pid", "0x100:es"], ["11-256.m2v", "11-257.ts", "11-4096.psi"])]
        for options, names in cases:
            with self.subTest(options):
                summary, files = self.demux(*options)
                self.assertEqual(sorted(files), names)
                self.assertNotIn(b"", files.values())
                shown = {stream["file"]: stream["bytes"] for stream in summary["streams"]}
                self.assertEqual(shown, {name: len(data) for name, data in files.items()})
                self.assertEqual([stream["dropped_bytes"] or 0 for stream in summary["streams"]], [0] * len(names))

    def test_pipe_and_discard_say_what_a_file_does(self):
        def streams(summary, **changed):
            # In how many samples the bytes come is a matter of threads.
            return [dict(stream, samples=None, **changed) for stream in summary["streams"]]

        summary, files = self.demux("--timestamps", "--push")
        names = [name for name in files if not name.endswith(".csv")]
        self.assertEqual(sorted(files), sorted(names + [name + ".csv" for name in names]))
        piped, from_pipe = self.demux("--timestamps", source="-", input=self.stream.read_bytes())
        self.assertEqual(streams(piped), streams(summary))
        self.assertTrue(all(from_pipe[name] == files[name] for name in names))
        counted = json.loads(self.done("demux", self.stream, "--discard", "--push", "--json"))
        self.assertEqual(streams(counted), streams(summary, file=None, dropped_bytes=None))
        text = self.done("demux", self.stream, "--discard", "--push").decode()
        for name, data in files.items():
            if name in names:
                self.assertRegex(text, name.split(".")[0].replace("-", " +") + fr" .* {len(data)} ")

    def test_what_cannot_start_is_said(self):
        whole = self.stream.read_bytes()
        scrambled, broken = bytearray(whole), bytearray(whole)
        for at in range(0, len(whole), support.PACKET):
            pid = int.from_bytes(whole[at + 1:at + 3], "big") & 0x1FFF
            scrambled[at + 3] |= 0xC0 if pid == 256 else 0
            broken[at + 20] ^= pid == 0x11
        cases = [(whole[:188 * 400], ["--push"], ""), (bytes(scrambled), ["--pid", "256:packets"], "is scrambled"),
                 (bytes(broken), ["--pid", "0x11"], "no section was whole"), (whole, ["--pid", "300"], "no packets came")]
        for data, options, reason in cases:
            for where in (["--discard"], ["-o", self.folder / "out"]):
                with self.subTest(reason, where=where):
                    result = run("demux", self.file("in.ts", data), "--json", *options, *where)
                    self.assertEqual(result.returncode, 1)
                    self.assertRegex(result.stderr.decode(), r"\Atessel: [^\n]*in.ts: nothing came out[^\n]*\n\Z")
                    notes = [stream["note"] or "" for stream in json.loads(result.stdout)["streams"]]
                    self.assertTrue(notes and all(note and reason in note for note in notes), notes)
        self.assertEqual(list((self.folder / "out").iterdir()), [])

    def test_a_name_that_is_no_utf_8_is_called_so(self):
        path = self.file(os.fsdecode(b"\xff.ts"), self.stream.read_bytes())
        summary = json.loads(self.done("demux", "--discard", "--json", path))
        self.assertEqual(summary["why_pushed"], "its name is no UTF-8")

    def test_outputs_that_are_refused(self):
        folder = self.folder / "in"
        folder.mkdir()
        data = self.stream.read_bytes()
        path = self.folder / "in" / "11-256.m2v"
        path.write_bytes(data)
        self.assertFails(2, "is also the input", "demux", path, "-o", folder)
        self.assertTrue(path.read_bytes() == data)
        self.assertFails(1, "No such file", "demux", path, "-o", self.folder / "no" / "where")
        self.assertFails(1, "is no directory", "demux", path, "-o", path)


class Signals(MannersTest):
    def start(self, *command, **options):
        tool = subprocess.Popen([support.TOOL, *map(str, command)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                **{"stderr": subprocess.PIPE, **options})
        for pipe in filter(None, (tool.stdin, tool.stdout, tool.stderr)):
            self.addCleanup(pipe.close)
        self.addCleanup(tool.wait)
        self.addCleanup(tool.kill)
        return tool

    def start_cut(self):
        """A cut of programme 1 that waits for the reader of its output, and what came of it. More is left to cut."""
        fifo = self.folder / "fifo"
        if not fifo.exists():
            os.mkfifo(fifo)
        tool = self.start("cut", test_file.made("mpeg2"), "-o", fifo)
        pipe = open(fifo, "rb")
        self.addCleanup(pipe.close)
        return tool, pipe, pipe.read(1000)

    def assertInterrupted(self, tool):
        output, error = tool.communicate(timeout=60)
        self.assertEqual(tool.returncode, 130, error)
        self.assertRegex(error.decode(), r"\Atessel: interrupted: [^\n]+\n\Z")
        return output

    def test_an_interrupt_ends_the_input(self):
        """Of a pipe: all but what the pipe holds has been read when all has been written into it."""
        data = self.stream.read_bytes()
        out = self.folder / "out"
        for number, command in ((signal.SIGINT, ["demux", "-", "--json", "-o", out]),
                                (signal.SIGTERM, ["extract", "-", "--pid", "256", "-o", out / "256.ts"]),
                                (signal.SIGHUP, ["frames", "-", "--pid", "257"]),
                                (signal.SIGINT, ["info", "-", "--pids", "--json"]),
                                (signal.SIGHUP, ["watch", "-"])):
            with self.subTest(command[0]):
                shutil.rmtree(out, ignore_errors=True)
                out.mkdir()
                tool = self.start(*command)
                tool.stdin.write(data)
                tool.stdin.flush()
                tool.send_signal(number)
                output = self.assertInterrupted(tool)
                if command[0] in ("frames", "watch"):
                    self.assertTrue(output and self.done(*command, input=data).startswith(output))
                elif command[0] == "extract":
                    got = (out / "256.ts").read_bytes()
                    self.assertTrue(got and len(got) % 188 == 0 and self.extract(self.stream, [256]).startswith(got))
                elif command[0] == "demux":
                    summary = json.loads(output)
                    self.assertIs(summary["interrupted"], True)
                    self.assertEqual({stream["file"]: stream["bytes"] for stream in summary["streams"]},
                                     {file.name: file.stat().st_size for file in out.iterdir()})

    def test_an_interrupted_cut_ends_with_whole_pes_packets(self):
        tool, pipe, got = self.start_cut()
        tool.send_signal(signal.SIGTERM)
        got += pipe.read()
        self.assertInterrupted(tool)
        whole = pes.elementary_streams(test_file.made("mpeg2").read_bytes(), [256, 257])
        for pid, stream in pes.elementary_streams(got, [256, 257]).items():
            self.assertTrue(0 < stream.size < whole[pid].size and whole[pid].payload.startswith(stream.payload))
            self.assertIn(stream.size, [at for at, _ in whole[pid].starts])

    def test_the_second_of_any_ends_it_at_once(self):
        for first, second in ((signal.SIGHUP, signal.SIGTERM), (signal.SIGINT, signal.SIGINT)):
            tool, pipe, _ = self.start_cut()
            tool.send_signal(first)
            tool.send_signal(second)
            while tool.poll() is None:  # two that come at once may be one
                tool.send_signal(second)
                time.sleep(0.01)
            pipe.close()
            self.assertIn(tool.returncode, (-first, -second))
        tool = self.start("extract", "-", "--pid", "256", "-o", "-",
                          preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        tool.send_signal(signal.SIGHUP)  # as under nohup
        output, _ = tool.communicate(self.stream.read_bytes(), timeout=60)
        self.assertTrue(tool.returncode == 0 and output == self.extract(self.stream, [256]))

    def test_progress_is_shown_on_a_terminal(self):
        data = self.stream.read_bytes()
        for command in (["extract", "-", "--pid", "256", "-o", "-"], ["frames", "-", "--pid", "257"],
                        ["info", "-", "--pids"], ["cut"]):
            with self.subTest(command[0]):
                terminal, other = pty.openpty()
                self.addCleanup(os.close, terminal)
                if command[0] == "cut":
                    command = ["cut", self.file("long.ts", data * 8), "-o", "-"]
                tool = self.start(*command, stderr=other)
                os.close(other)
                reader = threading.Thread(target=tool.stdout.read)
                deadline = time.monotonic() + 60
                if command[0] == "cut":
                    tool.stdout.read(1)  # it waits for the rest to be taken
                    time.sleep(0.3)
                reader.start()
                while not select.select([terminal], [], [], 0.05)[0]:
                    self.assertLess(time.monotonic(), deadline, "nothing was shown")
                    if command[0] != "cut":
                        tool.stdin.write(data)
                        tool.stdin.flush()
                self.assertRegex(os.read(terminal, 1000).decode(), "MB/s")
                tool.stdin.close()
                tool.wait(60)
                reader.join()


class Descriptors(MannersTest):
    def test_what_is_closed_at_the_start_is_no_file_of_ours(self):
        wanted = self.extract(self.stream, [256])
        output = self.folder / "out.ts"
        for closed in ((0,), (1,), (2,), (0, 1, 2)):
            with self.subTest(closed):
                result = run("extract", self.stream, "--pid", "256,8191", "-o", output,
                             preexec_fn=lambda: [os.close(number) for number in closed])
                self.assertTrue(result.returncode == 0 and output.read_bytes() == wanted)
                result = run("info", self.stream, preexec_fn=lambda: [os.close(number) for number in closed])
                self.assertEqual(result.returncode, 0)
        self.assertFails(1, "is empty", "info", "-", preexec_fn=lambda: os.close(0))

    def test_too_few_descriptors_are_said_and_change_nothing(self):
        short = 0
        for command in (["info", self.stream], ["demux", self.stream, "--discard"], ["frames", self.stream, "--pid", "257"],
                        ["extract", self.stream, "--pid", "256", "--from", "1", "--to", "2", "-o", "-"],
                        ["cut", self.stream, "--from", "1", "--to", "2", "-o", "-"]):
            wanted = run(*command).stdout
            for most in range(4, 10):
                with self.subTest(command, most=most):
                    result = run(*command,
                                 preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (most, most)))
                    if result.returncode == 0:
                        self.assertTrue(result.stdout == wanted)
                    else:
                        self.assertRegex(result.stderr, rb"\Atessel: [^\n]*: Too many open files[^;\n]*\n\Z")
                        short += 1
        self.assertGreater(short, 10)

    def test_names_do_not_drive_the_terminal(self):
        self.assertFails(1, "a␛[31m␊b.ts: cannot open", "info", self.folder / "a\x1b[31m\nb.ts")
        self.assertFails(1, "␛.ts: is empty", "extract", self.file("\x1b.ts", b""), "--pid", "1", "-o", "-")


class Arguments(MannersTest):
    def test_bad_pids(self):
        for pid in ("8192", "0x2000", "-1", "", ",", "1,", "1,,2", "abc", "1.5", "0x", "0x-1", "+1", "9" * 11,
                    "5-4", "5-", "5--6", "1-2-3", "8190-8192", " ", "1 - ", "-"):
            with self.subTest(pid):
                self.assertFails(2, "", "extract", self.stream, f"--pid={pid}", "-o", "-")

    def test_good_pids(self):
        wanted = self.extract(self.stream, [256, 257])
        for pids in (["0x100,0x101"], ["0X101,256"], ["256,257,256"], ["00256,0x0101"], ["256-257"], ["0x100 - 0x101"],
                     [" 256 , 257 "], ["256 257"], ["256", "--pid", "257"], ["257-257", "--pid", "0x100"]):
            with self.subTest(pids):
                self.assertTrue(self.done("extract", "--pid", *pids, self.stream, "-o", "-") == wanted)

    def test_ranges_name_what_is_there(self):
        def pids(*options):
            summary = json.loads(self.done("demux", "--json", "--discard", *options, self.stream))
            return [(stream["pid"], stream["content"]) for stream in summary["streams"]]

        self.assertEqual(pids("--pid", "100 - 258 :packets"), [(256, "packets"), (257, "packets"), (258, "packets")])
        self.assertEqual(pids("--pid", "0x102-8191", "--pid", "0"),
                         [(258, "es"), (259, "es"), (4096, "sections"), (4097, "sections"), (0, "sections")])
        self.assertFails(1, "none of those PIDs is there", "demux", self.stream, "--discard", "--pid", "300-400")

    def test_languages_have_two_codes(self):
        for code in ("fre", "fra", "FRA", "fr"):
            summary = json.loads(self.done("demux", self.stream, "--discard", "--json", "--service", "12", "--audio", code))
            self.assertEqual([stream["pid"] for stream in summary["streams"]], [258, 259], code)

    def test_nothing_found_is_a_failure(self):
        self.assertFails(1, "no clear packet", "extract", self.stream, "--pid", "8191", "-o", "-")
        self.assertFails(1, "no complete section", "extract", self.stream, "--sections", "--pid", "8191", "-o", "-")

    def test_wrong_use(self):
        stream = self.stream
        for arguments in ([], ["frobnicate"], ["info"], ["info", stream, "second.ts"], ["info", "--loud", stream],
                          ["extract", stream], ["extract", stream, "--pid", "1"], ["extract", stream, "-o", "-"],
                          ["extract", "--pid", "1", "-o", "-"], ["extract", stream, "--pid"]):
            with self.subTest(arguments):
                help = f"tessel {arguments[0]} --help`" if arguments[:1] in (["info"], ["extract"]) else "tessel --help`"
                self.assertFails(2, help, *arguments)

    def test_demux_that_makes_no_sense(self):
        into = ["-o", self.folder / "out"]
        cases = [(2, "--discard", []), (2, "--discard", ["--discard", *into]), (2, "--timestamps", ["--discard", "--timestamps"]),
                 (2, "directory", ["-o", "-"]), (2, "is no mode", ["--mode", "slow", *into]),
                 (2, "is no PID", ["--pid", "8192", *into]), (2, "is no PID", ["--pid", " " * 100_000, *into]),
                 (2, ":es, :packets", ["--pid", "1:pes", *into]),
                 (2, "add --service", ["--pid", "256", "--audio", "ger", *into]),
                 (1, 'no service "Third"', ["--service", "Third", *into]), (1, 'no service "13"', ["--service", "13", *into]),
                 (1, 'no audio in the language "eng"', ["--audio", "eng", *into]),
                 (1, "is in no program map", ["--pid", "300:es", *into])]
        for code, text, options in cases:
            with self.subTest(options):
                self.assertFails(code, text, "demux", self.stream, *options)

    def test_help_and_version(self):
        for command in ([], ["info"], ["extract"], ["cut"], ["watch"], ["frames"], ["demux"]):
            for option in ("--help", "-h"):
                self.assertRegex(self.done(*command, option).decode(), "INPUT" if command else "Exit code")
        self.assertRegex(self.done("--version").decode(), r"\Atessel \d+\.\d+\.\d+\n\Z")


if __name__ == "__main__":
    unittest.main()
