"""What `tessel extract` writes, against a second implementation of what it should select."""
import collections
import unittest

import support
from support import Model, crc32

TABLE_PIDS = (0x00, 0x11, 4096, 4097)  # of the stream of two programmes


def streams():
    """Streams by name: made here, the sample, and recordings when there are any."""
    found = {"two-programmes": support.two_programmes()}
    if support.SAMPLE.is_file():
        found["sample"] = support.SAMPLE
    try:
        found.update((facts["file"], facts["path"]) for facts in support.recordings())
    except unittest.SkipTest:
        pass
    return found


class ExtractTest(support.ToolTest):
    def assertSelects(self, path, one_by_one):
        """Every PID of one_by_one, then all that occur in one go, come out as the model says."""
        model = Model(path.read_bytes())
        for pids in [{pid} for pid in sorted(one_by_one)] + [model.present]:
            # assertEqual would print megabytes.
            self.assertTrue(self.extract(path, sorted(pids)) == model.packets_of(pids), (path.name, pids))
        return model

    def assertSections(self, path, pid):
        sections = support.split_sections(self.extract(path, [pid], "--sections"))
        for section in sections:
            if section[1] & 0x80 and section[0] != 0x71:
                self.assertEqual(crc32(section), 0, (path.name, pid, section[:8]))
        self.assertEqual(sections, Model(path.read_bytes(), (pid,)).sections_of({pid}), (path.name, pid))
        return sections


class Packets(ExtractTest):
    def test_every_pid_of_whole_streams(self):
        for name, path in streams().items():
            with self.subTest(name):
                self.assertSelects(path, Model(path.read_bytes()).present)

    def test_nothing_is_missing_but_the_last_packet(self):
        data = support.two_programmes().read_bytes()
        pids = Model(data).present
        self.assertTrue(self.extract(support.two_programmes(), sorted(pids)) == data[:-support.PACKET])

    def test_damaged_streams(self):
        refused = collections.Counter()
        for name in ("two-programmes", "sample", "encoder-h264-sdt.ts", "dvb-eit-five-services.ts"):
            if name not in streams():
                continue
            original = streams()[name].read_bytes()[:600_000 // 188 * 188]
            for seed in (1, 2, 3):
                with self.subTest(name, seed=seed):
                    path = self.file("damaged.ts", support.damage(original, seed))
                    refused += self.assertSelects(path, Model(original).present).refused
        # The damage reached every rule, or this has shown little.
        self.assertEqual(set(refused), {"transport_error_indicator", "scrambled", "adaptation_field_length",
                                        "no room for a payload", "pointer_field"})

    def test_192_byte_units(self):
        for name, path in streams().items():
            data = path.read_bytes()
            if any(data[at] != 0x47 for at in range(0, len(data), support.PACKET)):
                continue
            with self.subTest(name):
                units = self.file("units.ts", support.in_192_bytes(data))
                pids = sorted(Model(data).present)
                self.assertTrue(self.extract(units, pids) == self.extract(path, pids))

    def test_short_inputs(self):
        """Four packets fix the packet size; fewer are read as 188 bytes, and the last one waits."""
        data = support.two_programmes().read_bytes()
        for size in (188, 195, 2 * 188, 3 * 188, 3 * 188 + 6, 3 * 188 + 18, 3 * 188 + 19, 4 * 188, 5 * 188 + 7):
            for garbage in (b"", b"\x47", b"noise before the first packet"):
                with self.subTest(size=size, garbage=garbage):
                    short = garbage + data[:size]
                    model = Model(short)
                    result = support.run("extract", self.file("short.ts", short), "--pid", "17,0,4096,4097", "-o", "-")
                    self.assertTrue(result.stdout == model.packets_of({0x11, 0x00, 4096, 4097}))
                    self.assertEqual(result.returncode, 0 if model.selected else 1)


class Sections(ExtractTest):
    def test_every_table_pid(self):
        for name, path in streams().items():
            model = Model(path.read_bytes())
            pids = {0x00, 0x10, 0x11, 0x12, 0x14, 0x1FFB, *model.filters} & model.present
            with self.subTest(name):
                found = {pid: len(self.assertSections(path, pid)) for pid in sorted(pids)}
                self.assertTrue(0x00 not in pids or found[0x00] > 0, found)

    def test_damaged_sections_do_not_come_out(self):
        data = support.two_programmes().read_bytes()
        for seed in (3, 4):
            path = self.file("damaged.ts", support.damage(data, seed))
            for pid in TABLE_PIDS:
                with self.subTest(seed=seed, pid=pid):
                    self.assertSections(path, pid)
        # One bit anywhere in the table: that section is dropped, the next is whole.
        flipped = bytearray(data)
        tables = [at for at in range(0, len(data), support.PACKET) if data[at + 1:at + 3] == b"\x40\x11"]
        flipped[tables[2] + 20] ^= 0x10
        intact = self.assertSections(support.two_programmes(), 0x11)
        self.assertEqual(self.assertSections(self.file("flipped.ts", flipped), 0x11), intact[1:])  # all alike

    def test_sections_of_several_packets(self):
        stream = support.Stream()
        services = [(number, 1, b"Provider", b"Service %d" % number) for number in range(1, 40)]
        section = support.sdt(7, 1, services)
        for _ in range(4):
            stream.table(0x11, section)
        stream.null_packets(4)
        sections = self.assertSections(self.file("long.ts", stream.data), 0x11)
        self.assertEqual(sections, [section] * 3)


if __name__ == "__main__":
    unittest.main()
