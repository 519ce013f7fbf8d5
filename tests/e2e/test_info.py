"""What `tessel info` says of streams whose content is known."""
import json
import unicodedata
import unittest

import support
from support import Stream, pat, pmt, sdt

NORMALISED = {"deu": "ger", "fra": "fre"}


def tables_then(*, programmes, services=None, maps=(), packets_on=(), rounds=3):
    """Tables, each round once, and packets on some PIDs; null packets end it."""
    stream = Stream()
    for _ in range(rounds):
        stream.table(0x00, pat(7, programmes))
        if services is not None:
            stream.table(0x11, sdt(7, 0x20FA, services))
        for pid in packets_on:
            stream.packet(pid, b"")
        for pid, section in maps:
            stream.table(pid, section)
    stream.null_packets(3)
    return bytes(stream.data)


class Recordings(support.ToolTest):
    """Another reader found the facts; here is where the tool knows less, by its rules."""

    def expected(self, facts, service):
        seen = str(service["pcr_pid"]) in facts["pids"]  # without its PCR PID a program map does not count
        components = [
            {"pid": c["pid"], "stream_type": c["stream_type"], "tags": sorted(c["tags"]), "scrambled": c["scrambled"],
             "language": NORMALISED.get(c["language"], c["language"])} for c in service["components"]]
        return {"id": service["id"], "name": service["name"], "provider": service["provider"], "type": service["type"],
                "pmt_pid": service["pmt_pid"], "pcr_pid": service["pcr_pid"] if seen else None,
                "channel": service["channel"], "components": components if seen else []}

    def told(self, service):
        shown = {key: service[key] for key in ("id", "name", "provider", "type", "pmt_pid", "pcr_pid", "channel")}
        shown["components"] = [
            {"pid": c["pid"], "stream_type": c["stream_type"], "tags": sorted(d["tag"] for d in c["descriptors"]),
             "scrambled": c["scrambled"],
             # The facts have those of audio alone.
             "language": c["language"] if any(d["tag"] == 0x0A for d in c["descriptors"]) else None}
            for c in service["components"]]
        return shown

    def test_facts(self):
        for facts in support.recordings():
            with self.subTest(facts["file"]):
                info = self.info(facts["path"], "--pids")
                self.assertEqual(info["packet_size"], facts["packet_size"])
                self.assertEqual(info["transport_stream_id"], next(iter(facts["transport_stream_ids"]), None))
                # A section is complete when the next begins: an SDT in a single packet is never heard of.
                heard = facts["pids"].get("17", 0) > 1
                self.assertEqual(info["original_network_id"], facts["original_network_id"] if heard else None)
                self.assertEqual([self.told(service) for service in info["services"]],
                                 [self.expected(facts, service) for service in facts["services"]])
                pids = {pid["pid"]: pid["scrambled"] for pid in info["pids"]}
                self.assertEqual({pid for pid, scrambled in pids.items() if scrambled}, set(facts["scrambled_pids"]))
                # The last packet is held back: a PID that only it has is not seen.
                last = facts["path"].read_bytes()[-support.PACKET:]
                unseen = {int(pid) for pid in facts["pids"]} - pids.keys()
                self.assertLessEqual(unseen, {int.from_bytes(last[1:3], "big") & 0x1FFF})
                self.assertTrue(all(facts["pids"][str(pid)] == 1 for pid in unseen))
                self.assertLessEqual(pids.keys(), {int(pid) for pid in facts["pids"]})


class TwoProgrammes(support.ToolTest):
    def test_services_and_components(self):
        info = self.info(support.two_programmes())
        self.assertEqual((info["packet_size"], info["transport_stream_id"], info["original_network_id"]),
                         (188, 0x1234, 0x2345))
        self.assertIs(info["complete"], True)
        shown = [(s["id"], s["name"], s["pmt_pid"], s["pcr_pid"], s["scrambled"], s["channel"],
                  [(c["pid"], c["stream_type"], c["media"], c["language"], c["scrambled"]) for c in s["components"]])
                 for s in info["services"]]
        self.assertEqual(shown, [
            (11, "First & Co", 4096, 256, False, None,
             [(256, 0x02, "video/mpeg2", None, False), (257, 0x03, "audio/mpeg1", "ger", False)]),
            (12, "Second", 4097, 258, False, None,
             [(258, 0x1B, "video/h264", None, False), (259, 0x81, "audio/ac3", "fre", False)])])

    def test_192_byte_units_say_the_same(self):
        plain = self.info(support.two_programmes(), "--pids")
        units = support.in_192_bytes(support.two_programmes().read_bytes())
        self.assertEqual(self.info(self.file("units.ts", units), "--pids"), dict(plain, packet_size=192))


class Times(support.ToolTest):
    def times(self, path, *options, **run):
        info = json.loads(self.done("info", "--json", *options, path, **run))
        return info["duration"], info["bit_rate"], info["seekable"]

    def test_a_file_has_them(self):
        path = support.two_programmes()  # 75 pictures at 25 a second
        duration, rate, seekable = self.times(path)
        self.assertAlmostEqual(duration, 3, delta=0.0001)
        self.assertEqual((rate, seekable), (round(path.stat().st_size * 8 / duration), True))
        text = self.done("info", path).decode()
        self.assertRegex(text, rf"duration +0:00:03.00\nbit rate +{rate} bit/s\nseekable +yes\n")

    def test_sound_alone(self):
        path = support.made_by_ffmpeg("sound", "-f", "lavfi", "-i", "sine=440:d=4.8:r=48000", "-c:a", "mp2")
        duration, _, seekable = self.times(path)
        self.assertAlmostEqual(duration, 4.8, delta=0.025)  # the last frame may be held back
        self.assertIs(seekable, True)

    def test_unknown_where_nothing_times_the_file(self):
        whole = support.two_programmes().read_bytes()
        scrambled = bytearray(whole)
        for start in range(0, len(whole), support.PACKET):
            if int.from_bytes(whole[start + 1:start + 3], "big") & 0x1FFF in range(256, 260):
                scrambled[start + 3] |= 0xC0
        no_clock = tables_then(programmes={5: 0x50}, maps=[(0x50, pmt(5, 0x51, [(0x02, 0x51)]))], packets_on=[0x51])
        cases = [("scrambled", bytes(scrambled)), ("no clock", no_clock), ("the clock goes back", whole * 2),
                 ("and again", whole * 40)]
        for what, data in cases:
            with self.subTest(what):
                self.assertEqual(self.times(self.file("unknown.ts", data)), (None, None, False))
        self.assertEqual(self.times(support.two_programmes(), "--push"), (None, None, False))
        self.assertEqual(self.times("-", input=whole), (None, None, False))


class TablesInFront(support.ToolTest):
    """Every program map comes before the first packet of its clock: what `info` lists, the others take."""

    def test_every_command_finds_the_streams(self):
        whole = support.two_programmes()
        data = whole.read_bytes()
        packets = [data[at:at + support.PACKET] for at in range(0, len(data), support.PACKET)]
        pids = [int.from_bytes(packet[1:3], "big") & 0x1FFF for packet in packets]
        tables = [packet for packet, pid in zip(packets, pids) if pid not in range(256, 260)]
        late = self.file("late.ts", b"".join(tables + [packet for packet in packets if packet not in tables]))
        self.assertEqual([[c["pid"] for c in s["components"]] for s in self.info(late)["services"]],
                         [[256, 257], [258, 259]])
        self.assertEqual(self.info(late)["duration"], self.info(whole)["duration"])
        self.assertEqual(self.done("frames", late, "--pid", 257), self.done("frames", whole, "--pid", 257))
        for options in ([], ["--push"]):
            files = []
            for path in (whole, late):
                folder = self.folder / f"{path.stem}{len(options)}"
                self.done("demux", path, "-o", folder, *options)
                files.append({file.name: file.read_bytes() for file in folder.iterdir()})
            self.assertEqual(files[0].keys(), files[1].keys())
            for name, written in files[0].items():
                self.assertTrue(files[1][name].endswith(written), (name, options))
        part = support.run("cut", late, "--service", 12, "--from", 1, "-o", "-")
        self.assertTrue(part.returncode == 0 and part.stdout, part.stderr)
        self.assertTrue(self.done("extract", late, "--pid", 257, "--from", 1, "-o", "-"))


class Sample(support.ToolTest):
    @unittest.skipUnless(support.SAMPLE.is_file(), "samples/tessel-sample.ts is missing")
    def test_three_services(self):
        info = self.info(support.SAMPLE, "--pids")
        self.assertEqual((info["transport_stream_id"], info["original_network_id"], info["complete"]),
                         (0x0457, 0xFF01, True))
        services = info["services"]
        self.assertEqual(
            [(s["id"], s["name"], s["provider"], s["type"], s["scrambled"], s["channel"]["minor"]) for s in services],
            [(101, "Мозаика", "Тессера", 0x01, False, 1), (102, "Ψηφιδωτό モザイク", "Mosaïque", 0x16, False, 2),
             (103, "Mozaika płatna", "Tessel", 0x01, True, 3)])
        self.assertEqual(
            [[(c["pid"], c["media"], c["language"], c["scrambled"]) for c in s["components"]] for s in services],
            [[(0x101, "video/mpeg2", None, False), (0x102, "audio/mpeg1", "ger", False),
              (0x103, "audio/mpeg1", "fre", False), (0x104, "vbi/teletext", "ger", False),
              (0x105, "subtitle/dvb", "ger", False)],
             [(0x201, "video/h264", None, False), (0x202, "audio/ac3", "eng", False),
              (0x203, "audio/aac", "fre", False)],
             [(0x301, "video/mpeg2", None, True), (0x302, "audio/ac3", "ger", True)]])
        self.assertEqual([pid["pid"] for pid in info["pids"] if pid["scrambled"]], [0x301, 0x302])
        texts = [(d["name"], d["text"]) for c in services[0]["components"] for d in c["descriptors"] if d["tag"] != 0x52]
        self.assertEqual(texts, [
            ("VideoStream", "VideoStream(MP@ML, 25 fps)"), ("ISO639Language", "ISO639Language(ger, Undefined)"),
            ("ISO639Language", "ISO639Language(fre, Undefined)"), ("Teletext", "Teletext(ger, InitialTeletextPage)"),
            ("Subtitling", "Subtitling([ger, NormalNoAspect, (1, 1)])")])
        below = "    257  video/mpeg2   -     ISO13818-2 Video\n         VideoStream(MP@ML, 25 fps)\n"
        self.assertIn(below, self.done("info", support.SAMPLE).decode())


class MadeStreams(support.ToolTest):
    def test_without_names_everything_unknown_is_null(self):
        data = tables_then(programmes={5: 0x50}, maps=[(0x50, pmt(5, 0x51, [(0x02, 0x51)]))], packets_on=[0x51])
        info = self.info(self.file("nameless.ts", data))
        self.assertEqual((info["transport_stream_id"], info["original_network_id"], info["complete"]), (7, None, False))
        [service] = info["services"]
        self.assertEqual([service[key] for key in ("name", "provider", "type", "type_name", "channel")], [None] * 5)
        self.assertEqual([component["pid"] for component in service["components"]], [0x51])

    def test_service_without_program_map_is_listed(self):
        data = tables_then(programmes={5: 0x50, 6: 0x60}, services=[(6, 1, b"P", b"Lost")],
                           maps=[(0x50, pmt(5, 0x51, [(0x02, 0x51)]))], packets_on=[0x51])
        path = self.file("lost.ts", data)
        info = self.info(path)
        self.assertIs(info["complete"], False)
        shown = [(s["id"], s["name"], s["pmt_pid"], s["pcr_pid"], len(s["components"])) for s in info["services"]]
        self.assertEqual(shown, [(5, None, 0x50, 0x51, 1), (6, "Lost", 0x60, None, 0)])
        self.assertIn("no usable program map of service 6", self.done("info", path).decode())

    def test_names_and_languages_of_components(self):
        """Numbers are shown where no standard has a name; what a private stream type means depends on who registered."""
        pages = b"".join(code + b"\x10\x01" for code in (b"deu", b"fra", b"deu"))
        subtitles = b"".join(code + b"\x10\0\1\0\1" for code in (b"ces", b"eng"))
        components = [(0x24, 0x64), (0x86, 0x65), (0x06, 0x66, b"\x7a\x01\x80" + b"\x7b\x01\0" + b"\xf3\0"), (0xC8, 0x67),
                      (0x06, 0x68, b"\x56\x0f" + pages), (0x06, 0x69, b"\x59\x10" + subtitles)]
        plain = pmt(5, 0x64, components)
        loop = b"\x05\4HDMV"
        registered = plain[:10] + bytes([0xF0, len(loop)]) + loop + plain[12:-4]
        registered = registered[:2] + bytes([registered[2] + len(loop)]) + registered[3:]
        registered += support.crc32(registered).to_bytes(4, "big")
        for table, private in ((plain, "SCTE 35 Splice Information"), (registered, "HDMV DTS-HD Audio (lossless)")):
            data = tables_then(programmes={5: 0x50}, maps=[(0x50, table)], packets_on=[0x64])
            [service] = self.info(self.file("names.ts", data))["services"]
            self.assertEqual([(c["stream_type_name"], c["language"]) for c in service["components"]],
                             [("ISO23008-2 Video (HEVC)", None), (private, None), ("ISO13818-1 PrivatePES", None),
                              ("StreamType[c8]", None), ("ISO13818-1 PrivatePES", "ger,fre"),
                              ("ISO13818-1 PrivatePES", "cze,eng")])
            self.assertEqual([(d["name"], d["text"]) for d in service["components"][2]["descriptors"]],
                             [("EnhancedAC3", "EnhancedAC3"), ("DTS", "DTS"), ("DescriptorTag[f3]", "DescriptorTag[f3]")])

    def test_texts_cannot_harm_terminal_or_json(self):
        texts = [
            (b"A\x1b[31m\x9b2J\x07\x7f\r\n\x00Z", "A\x1b[31m\x9b2J\x07\x7f\r\n"),  # NUL ends a name
            (b"\x11\xd8\x00\x00A\xdc\x00", "\ufffdA\ufffd"),  # halves of surrogate pairs
            (b"\x11\xd8\x3d\xde\x00", "\U0001f600"),
            *((b"\x11" + mark.encode("utf-16-be"), mark) for mark in  # direction, line ends, tags
              ("a\u202eb\u200f\u2066\u061c", "\u2028\u2029\u200b\ufeff", "\u2060\ufff9\U000e0041")),
            (b"\x11\x20\x0c\x20\x0d", "\u200c\u200d"),  # what joins letters stays
            (b"\xe1" * 126, "\xe1" * 126),
            (b"\x11\x00A\x00", "A"),  # half a character at the end
            (b'"\\</script>', '"\\</script>'),
            (b"\x15" + "Čas 日本 \U0001f600".encode(), "Čas 日本 \U0001f600"),
            (b"\x15a\xee\x82\x86b\xee\x82\x87c\xee\x82\x8ad\0e", "abcd"),  # emphasis, the end of a line, of the text
            (b"\x15\xff\xc3(\xed\xa0\x80\xc0\x80\xf4\x90\x80\x80", "\ufffd" * 2 + "(" + "\ufffd" * 9),
            (b"\x15", ""),
            (b"\x14\xb4\xfa", ""),  # a table without a converter
        ]
        programmes = {number: 0x50 for number in range(1, len(texts) + 1)} | {99: 0x63}
        services = [(n, 1, text, text) for n, (text, _) in zip(programmes, texts)] + [(99, 1, b"", b"\x9b" * 252)]
        descriptors = b"\x05\4\x9b2J\x7f" + b"\x0a\4\x1b[m\0"
        data = tables_then(programmes=programmes, services=services,
                           maps=[(0x63, pmt(99, 0x64, [(0x02, 0x64, descriptors)]))], packets_on=[0x64])
        path = self.file("texts.ts", data)
        info = self.info(path)
        longest = info["services"].pop()
        self.assertEqual((longest["provider"], longest["name"]), ("", "\x9b" * 252))
        self.assertEqual([d["text"] for d in longest["components"][0]["descriptors"]],
                         ["Registration(\x9b2J\x7f)", "ISO639Language(\x1b[m, Undefined)"])
        self.assertEqual(len(info["services"]), len(texts))
        for service, (sent, name) in zip(info["services"], texts):
            with self.subTest(sent):
                self.assertEqual((service["name"], service["provider"]), (name, name))
        shown = self.done("info", path).decode("utf-8", "strict")
        harmful = [c for c in shown if unicodedata.category(c) in ("Cc", "Cf", "Cs", "Zl", "Zp")]
        self.assertEqual(set(harmful), {"\n", "\u200c", "\u200d"})
        self.assertIn("Registration(\ufffd2J\u2421)\n", shown)
        self.assertIn('"' + "\ufffd" * 252 + '"\n', shown)
        self.assertIn("[31m", shown)


if __name__ == "__main__":
    unittest.main()
