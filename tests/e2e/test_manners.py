"""How the tool behaves as a program: exit codes, messages, pipes and files."""
import os
import random
import subprocess
import unittest

import support
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
            (self.file("empty.ts", b""), "is empty"),
            (self.file("noise.ts", noise), "no transport stream packets in 100000 bytes"),
            (self.file("only-sync.ts", b"\x47"), "no transport stream packets in 1 bytes"),
            (self.file("text.txt", b"GOOD MORNING, Gentle reader.\n" * 1000), "no transport stream packets"),
        ]
        for path, text in inputs:
            for command in (["info", path], ["info", "--json", "--pids", path],
                            ["extract", path, "--pid", "0", "-o", "-"],
                            ["extract", path, "--sections", "--pid", "0", "-o", self.folder / "out"]):
                with self.subTest(path=path.name, command=command[0]):
                    self.assertFails(1, f"{path}: {text}", *command)

    def test_standard_input(self):
        data = self.stream.read_bytes()
        self.assertFails(1, "standard input: is empty", "info", "-", input=b"")
        for command in (["info", "{}"], ["info", "--json", "--pids", "{}"],
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
        self.assertEqual(self.done("extract", self.stream, "--pid", "0x101", "--output", output), b"")
        self.assertTrue(output.read_bytes() == wanted)

    def test_wrong_use_leaves_an_output_alone(self):
        output = self.file("out.ts", b"precious")
        self.assertFails(2, "is no PID", "extract", self.stream, "--pid", "8192", "-o", output)
        self.assertFails(1, "cannot open", "extract", self.folder / "missing.ts", "--pid", "1", "-o", output)
        self.assertEqual(output.read_bytes(), b"precious")

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


class Arguments(MannersTest):
    def test_bad_pids(self):
        for pid in ("8192", "0x2000", "-1", "", ",", "1,", "1,,2", "abc", "1.5", "0x", "0x-1", "1 2", "+1", "9" * 11):
            with self.subTest(pid):
                self.assertFails(2, "", "extract", self.stream, f"--pid={pid}", "-o", "-")

    def test_good_pids(self):
        wanted = self.extract(self.stream, [256, 257])
        for pids in ("0x100,0x101", "0X101,256", "256,257,256", "00256,0x0101"):
            with self.subTest(pids):
                self.assertTrue(self.done("extract", self.stream, "--pid", pids, "-o", "-") == wanted)

    def test_nothing_found_is_a_failure(self):
        self.assertFails(1, "no clear packet", "extract", self.stream, "--pid", "8191", "-o", "-")
        self.assertFails(1, "no complete section", "extract", self.stream, "--sections", "--pid", "8191", "-o", "-")

    def test_wrong_use(self):
        stream = self.stream
        for arguments in ([], ["frobnicate"], ["info"], ["info", stream, "second.ts"], ["info", "--loud", stream],
                          ["extract", stream], ["extract", stream, "--pid", "1"], ["extract", stream, "-o", "-"],
                          ["extract", "--pid", "1", "-o", "-"], ["extract", stream, "--pid"]):
            with self.subTest(arguments):
                self.assertFails(2, "--help", *arguments)

    def test_help_and_version(self):
        helps = {(): ("info", "extract", "Exit code"), ("info",): ("INPUT", "--json", "--pids"),
                 ("extract",): ("INPUT", "--pid", "--sections", "--output")}
        for command, words in helps.items():
            for option in ("--help", "-h"):
                text = self.done(*command, option).decode()
                for word in words:
                    self.assertIn(word, text)
        self.assertRegex(self.done("--version").decode(), r"\Atessel \d+\.\d+\.\d+\n\Z")


if __name__ == "__main__":
    unittest.main()
