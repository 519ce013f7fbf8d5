"""The events that `watch` prints."""
import json
import unittest

import support
from support import Stream, crc32, pat, pmt, run, sdt


def in_version(section, version):
    head = section[:5] + bytes([0xC1 | version << 1]) + section[6:-4]
    return head + crc32(head).to_bytes(4, "big")


class Watch(support.ToolTest):
    def watch(self, path, **options):
        lines = self.done("watch", "--json", path, **options).decode("utf-8", "strict").splitlines()
        return [json.loads(line) for line in lines]

    def tables(self, events, kind="table_ready"):
        return [(e["table"], e["key"]) for e in events if e["event"] == kind]

    def test_two_programmes(self):
        path = support.two_programmes()
        events = self.watch(path)
        ready = self.tables(events)
        self.assertEqual(len(ready), 4, "each table once")
        self.assertEqual(set(ready),
                         {("PAT", 0x1234), ("PMT", 11), ("PMT", 12), ("SDT", 0x2345 << 16 | 0x1234)})
        self.assertEqual([e["services"] for e in events if e["event"] == "services_ready"],
                         [[{"id": 11, "name": "First & Co"}, {"id": 12, "name": "Second"}]])
        used = [(e["table_id"], e["pid"]) for e in events if e["event"] == "pid_used"]
        for row in ((0x00, 0), (0x42, 0x11), (0xC7, 0x1FFB), (0x02, 4096), (0x02, 4097)):
            self.assertIn(row, used)
        for _ in range(8):
            self.assertEqual(self.watch(path), events, "in the same order at every run")
            self.assertEqual(self.watch("-", input=path.read_bytes()), events)
        text = self.done("watch", path).decode()
        self.assertIn("\ntable_ready  table_id 2  PMT  key 11\n", text)
        self.assertIn('\n  service 12  "Second"\n', text)

    def test_a_new_version_makes_the_old_one_stale(self):
        stream = Stream()
        for version in (3, 3, 3, 4, 4, 4):
            stream.table(0x00, pat(7, {5: 0x50}))
            stream.packet(0x51, bytes(100))
            stream.table(0x50, in_version(pmt(5, 0x51, [(0x02, 0x51)]), version))
            stream.table(0x11, sdt(7, 9, [(5, 1, b"P", b"A\x1b[31m")]))
        stream.null_packets(4)
        path = self.file("versions.ts", stream.data)
        events = self.watch(path)
        self.assertEqual([row for row in self.tables(events) if row[0] == "PMT"], [("PMT", 5)] * 2)
        self.assertEqual(self.tables(events, "table_stale"), [("PMT", 5)])
        self.assertEqual(len([e for e in events if e["event"] == "services_ready"]), 1, "once")
        self.assertNotIn(b"\x1b", self.done("watch", path))

    def test_output_that_cannot_be_written(self):
        with open("/dev/full", "wb") as full:
            result = run("watch", support.two_programmes(), stdout=full)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"standard output: cannot write: No space left", result.stderr)


if __name__ == "__main__":
    unittest.main()
