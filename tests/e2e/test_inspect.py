"""The HTTP side of `inspect`: who is let in, what the event stream tells, what requests change."""
import http.client
import json
import pathlib
import re
import signal
import socket
import subprocess
import threading
import time
import unittest
import urllib.parse

import support
from support import SAMPLE, Stream, crc32, pat, pmt, sdt

DEADLINE = 60
PAGES = ["Services", "PAT", "SDT", "NIT", "GLT", "SGT", "CAT", "VCT", "PID Map", "OutPins"]


class Inspector:
    """A running tool, and requests to it."""

    def __init__(self, *arguments, stdin=subprocess.DEVNULL, listen="127.0.0.1:0"):
        self.process = subprocess.Popen([support.TOOL, "inspect", *map(str, arguments), "--listen", listen],
                                        stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        line = self.process.stdout.readline().decode()
        found = re.search(r"http://\S+:(\d+)/", line)
        assert found, f"the tool said {line!r} {self.process.stderr.read() if not line else ''}"
        self.port = int(found[1])
        self.token = re.search(r'name="tessel-token" content="([0-9a-f]+)"', self.request("GET", "/")[1].decode())[1]

    def request(self, method, path, body=None, **headers):
        """Status, body and headers; headers with a value of None are left out."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=DEADLINE)
        connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        given = {"Host": f"127.0.0.1:{self.port}", **{name.replace("_", "-"): value for name, value in headers.items()}}
        if body is not None:
            given.setdefault("Content-Length", str(len(body)))
        for name, value in given.items():
            if value is not None:
                connection.putheader(name, value)
        connection.endheaders(body)
        response = connection.getresponse()
        answer = response.status, response.read(), response.headers
        connection.close()
        return answer

    def post(self, path, request, **headers):
        headers.setdefault("X_Tessel_Token", self.token)
        body = request if isinstance(request, bytes) else json.dumps(request).encode()
        status, answer, _ = self.request("POST", path, body, **headers)
        return status, json.loads(answer)

    def end(self):
        """Ctrl-C; gives the exit code and what it said."""
        self.process.send_signal(signal.SIGINT)
        _, errors = self.process.communicate(timeout=DEADLINE)
        return self.process.returncode, errors

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()


class Events:
    """Reads the event stream on a thread: the last of each topic, and all lines of the log."""

    def __init__(self, inspector):
        self.socket = socket.create_connection(("127.0.0.1", inspector.port), timeout=DEADLINE)
        self.socket.sendall(f"GET /events HTTP/1.1\r\nHost: 127.0.0.1:{inspector.port}\r\n\r\n".encode())
        self.changed = threading.Condition()
        self.topics, self.pages, self.log, self.sessions = {}, {}, [], []
        threading.Thread(target=self.read, daemon=True).start()

    def close(self):
        self.socket.close()

    def read(self):
        response = http.client.HTTPResponse(self.socket)
        try:
            response.begin()
            event = None
            for line in response:
                line = line.decode("utf-8", "strict").rstrip("\n")
                if line.startswith("event: "):
                    event = line[7:]
                elif line.startswith("data: "):
                    with self.changed:
                        self.take(event, json.loads(line[6:]))
                        self.changed.notify_all()
        except (OSError, http.client.HTTPException):
            pass  # closed

    def take(self, event, data):
        if event == "page":
            self.pages[data["key"]] = data
        elif event == "log":
            self.log += data
        elif event == "session":
            self.sessions.append(data)
            self.pages, self.topics, self.log = {}, {}, []
        else:
            self.topics[event] = data

    def wait(self, what, holds):
        """Gives what holds(self) gives once that is true."""
        end = time.monotonic() + DEADLINE
        with self.changed:
            while True:
                try:
                    got = holds(self)
                except (KeyError, IndexError, StopIteration):
                    got = None
                if got:
                    return got
                left = end - time.monotonic()
                if left <= 0:
                    raise AssertionError(f"waited {DEADLINE} s for {what}; overview {self.topics.get('overview')}")
                self.changed.wait(left)

    def control(self, page, number):
        return next(c for c in self.pages[page]["controls"] if c["id"] == number)

    def texts(self, page, number=102):
        return [" ".join(row) for row in self.control(page, number)["rows"]]

    def output(self, name):
        return next(o for o in self.topics["overview"]["outputs"] if o["name"] == name)


def with_version(table, version):
    head = table[:5] + bytes([0xC1 | version << 1]) + table[6:-4]
    return head + crc32(head).to_bytes(4, "big")


def programme(version, components, name=b"One", rounds=3):
    """A stream of one programme; its tables come a few times."""
    stream = Stream()
    for _ in range(rounds):
        stream.table(0x00, pat(7, {5: 0x50}))
        stream.packet(0x51, bytes(100))
        stream.table(0x50, with_version(pmt(5, 0x51, components), version))
        stream.table(0x11, sdt(7, 9, [(5, 1, b"P", name)]))
    stream.null_packets(8)
    return bytes(stream.data)


class Inspect(support.ToolTest):
    def inspect(self, *arguments, **options):
        inspector = Inspector(*arguments, **options)
        self.addCleanup(inspector.kill)
        return inspector

    def events(self, inspector):
        events = Events(inspector)
        self.addCleanup(events.close)
        return events

    def test_the_pages_of_the_sample(self):
        inspector = self.inspect(SAMPLE)
        status, page, headers = inspector.request("GET", "/")
        self.assertEqual(status, 200)
        self.assertIn("default-src 'self'", headers["Content-Security-Policy"])
        self.assertEqual(headers["Cache-Control"], "no-store")
        for path in re.findall(rb'(?:src|href)="(/[^"]+)"', page):
            self.assertEqual(inspector.request("GET", path.decode())[0], 200, path)
        self.assertNotIn(b"://", page, "nothing comes from elsewhere")

        events = self.events(inspector)
        events.wait("ten pages", lambda e: len(e.pages) == 10)
        self.assertEqual([page["title"] for page in events.topics["pages"]["pages"]], PAGES)
        for key, row in (("services", "0101, Program Clock Reference"), ("pat", "0100 PMT of Service(id=0065"),
                         ("sdt", "0065 Free"), ("vct", "7.1 TSID=0000/SID=0065, 'TESS-A'")):
            events.wait(f"{row} on {key}", lambda e: any(t.startswith(row) for t in e.texts(key)))
        for key in ("nit", "sgt", "glt", "cat"):
            self.assertEqual((events.control(key, 102)["text"], events.texts(key)), ("Not decoded", []))
        events.wait("the PIDs of the map", lambda e: any(t.startswith("0201") for t in e.texts("pidmap", 112)))
        events.wait("packets seen", lambda e: any(t.startswith("0101") for t in e.texts("outpins", 1006)))
        overview = events.wait("the end", lambda e: e.topics["overview"]["state"] == "ended" and e.topics["overview"])
        self.assertEqual([(s["id"], s["name"]) for s in overview["services"]][0], (101, "Мозаика"))
        pids = {row["pid"]: row for row in overview["pids"]}
        self.assertEqual((pids[0x101]["packets"], pids[0x101]["lost"], pids[0x101]["pcr"]), (884, 0, True))
        self.assertEqual((pids[0x301]["scrambled"], pids[0x301]["packets"]), (True, 210))
        self.assertEqual([pids[pid]["words"] for pid in (0x100, 0x101, 0x102, 0x202, 0x11)],
                         ["Program map", "MPEG-2 video", "MPEG audio, ger", "AC-3 audio, eng", "SDT and BAT"])
        self.assertTrue(pids[0x102]["text"].startswith("ISO11172 Audio, ger"))
        self.assertAlmostEqual(overview["rate"], 1_600_000, delta=200_000)
        self.assertEqual(inspector.end(), (0, b""))

    def test_who_is_let_in(self):
        inspector = self.inspect(SAMPLE, "--loop")
        port, token = inspector.port, inspector.token
        ours = f"http://127.0.0.1:{port}"
        click = json.dumps({"page": "nit", "control": 104, "action": "click"}).encode()
        for method, path, body, headers, status in (
                ("GET", "/", None, {"Host": "evil.example"}, 403),
                ("GET", "/", None, {"Host": f"evil.example:{port}"}, 403),
                ("GET", "/", None, {"Host": f"127.0.0.1:{port + 1}"}, 403),
                ("GET", "/", None, {"Host": f"127.0.0.1.evil.example:{port}"}, 403),
                ("GET", "/", None, {"Host": None}, 403),
                ("GET", "/", None, {"Host": f"localhost:{port}"}, 200),
                ("GET", "/", None, {"Host": f"[::1]:{port}"}, 200),
                ("GET", "/app.css", None, {"Origin": "http://evil.example"}, 403),
                ("GET", "/events", None, {"Origin": "http://evil.example"}, 403),
                ("GET", "/events", None, {"Origin": "null"}, 403),
                ("GET", "/../../etc/passwd", None, {}, 404),
                ("POST", "/api/act", click, {}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": ""}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": token[:-1] + "x"}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": token[:-1]}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": token + "0"}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": token, "Origin": "http://evil.example"}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": token, "Origin": f"https://127.0.0.1:{port}"}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": token, "Host": "evil.example"}, 403),
                ("POST", "/api/upload", b"\x47" * 188, {}, 403),
                ("DELETE", "/", None, {}, 403),
                ("POST", "/api/act", click, {"X_Tessel_Token": token, "Origin": ours}, 200),
                ("POST", "/api/act", click, {"X_Tessel_Token": token}, 200)):
            self.assertEqual(inspector.request(method, path, body, **headers)[0], status, (method, path, headers))

    def test_requests_that_make_no_sense(self):
        inspector = self.inspect(SAMPLE, "--loop")
        act = {"page": "pidmap", "control": 1004, "action": "click"}
        for request, status in (
                (b"", 400), (b"{", 400), (b"[]", 400), (b"\xff\xfe", 400), (b"{" * 70_000, 413),
                (b"[" * 60_000, 400), ({}, 409), ({**act, "page": "none"}, 409), ({**act, "page": 3}, 409),
                ({**act, "control": -7}, 409), ({**act, "control": "x"}, 409), ({**act, "action": "fly"}, 409),
                ({**act, "action": "type"}, 409), ({**act, "control": 112, "action": "select", "rows": [1 << 40], "rev": 0}, 409),
                ({**act, "control": 1010, "action": "type", "text": "\0" * 9000}, 200)):
            answer = inspector.post("/api/act", request)
            self.assertEqual(answer[0], status, (request if len(request) < 200 else len(request), answer))
            self.assertEqual("error" in answer[1], status != 200)
        self.assertEqual(inspector.post("/api/map", {"pin": "None", "pid": "101"}),
                         (409, {"error": "The pin is not there any more."}))

    def test_map_and_unmap(self):
        inspector = self.inspect(SAMPLE, "--loop")
        events = self.events(inspector)
        events.wait("the services", lambda e: e.topics["overview"]["complete"])
        on_pin = [{"pid": 257, "text": "257 (0x0101)"}]
        self.assertEqual(inspector.post("/api/map", {"pin": "Output1", "pid": "257"})[1]["messages"], [])
        events.wait("the PID on the pin", lambda e: e.output("Output1")["pids"] == on_pin)
        events.wait("the PID in the page's list", lambda e: e.texts("pidmap", 113)[0].startswith("0101"))
        events.wait("samples", lambda e: e.output("Output1")["samples"] > 3)
        for pid in ("8192", "0x2000", "101a", "xyz", "-1"):
            status, answer = inspector.post("/api/map", {"pin": "Output1", "pid": pid})
            self.assertEqual(status, 200)
            self.assertIn(f"'{pid}' is not a PID. A PID is a number up to 8191", answer["messages"][0])
        for typed, asked in (("0101", "PID 101 (0x0065)"), (" 0x1ABC ", "PID 6844 (0x1ABC)")):
            self.assertIn(asked, inspector.post("/api/map", {"pin": "Output1", "pid": typed})[1]["ask"])
        self.assertEqual(events.output("Output1")["pids"], on_pin, "what was only asked about is not mapped")
        inspector.post("/api/map", {"pin": "Output1", "pid": "0x1abc", "sure": True})
        events.wait("both PIDs", lambda e: [p["pid"] for p in e.output("Output1")["pids"]] == [257, 0x1ABC])
        inspector.post("/api/act", {"page": "pidmap", "control": 1010, "action": "type", "text": "999"})
        click = {"page": "pidmap", "control": 1004, "action": "click"}
        self.assertIn("PID 999 (0x03E7)", inspector.post("/api/act", click)[1]["ask"])
        for pid in (257, 0x1ABC):
            self.assertEqual(inspector.post("/api/unmap", {"pin": "Output1", "pid": pid})[0], 200)
        events.wait("no PID on the pin", lambda e: e.output("Output1")["pids"] == [])
        events.wait("lines about it", lambda e: {"PID 257 (0x0101) mapped on Output1", "PID 257 (0x0101) taken off Output1"} <=
                    {line["text"] for line in e.log})
        self.assertEqual(inspector.post("/api/unmap", {"pin": "Output1", "pid": 257})[0], 409)

    def test_a_new_pin_is_connected(self):
        inspector = self.inspect(SAMPLE, "--loop")
        events = self.events(inspector)
        events.wait("the services", lambda e: e.topics["overview"]["complete"])
        for control, text in ((1013, "Mine"), (1010, "all pids"), (1010, "All PIDs")):
            inspector.post("/api/act", {"page": "pidmap", "control": control, "action": "type", "text": text})
        content = events.wait("a choice of contents", lambda e: e.control("pidmap", 1012)["enabled"] and e.control("pidmap", 1012))
        inspector.post("/api/act", {"page": "pidmap", "control": 1012, "action": "select", "rows": [0],
                                    "rev": content["rev"]})
        answer = inspector.post("/api/act", {"page": "pidmap", "control": 1004, "action": "click"})
        self.assertEqual(answer, (200, {"result": "done", "messages": []}))
        events.wait("samples of the new pin", lambda e: e.output("Mine")["samples"] > 3)
        events.wait("another round", lambda e: e.topics["overview"]["rounds"] > 1)
        self.assertFalse(any(row["lost"] for row in events.topics["overview"]["pids"]), "nothing is lost from round to round")
        events.wait("the services again", lambda e: len(e.topics["overview"]["services"]) == 3)

    def test_a_service_is_chosen_and_a_component_mapped(self):
        inspector = self.inspect(SAMPLE, "--loop")
        events = self.events(inspector)
        events.wait("packets of both", lambda e: {0x101, 0x102} <= {row["pid"] for row in e.topics["overview"]["pids"]
                                                                    if row["packets"]})
        events.wait("a service to choose", lambda e: e.control("services", 118)["enabled"])
        answer = inspector.post("/api/act", {"page": "services", "control": 118, "action": "click"})
        self.assertEqual(answer, (200, {"result": "done", "messages": []}))
        for pin, pid in (("Video", 0x101), ("Audio", 0x102)):
            events.wait(f"samples of {pin}", lambda e: [p["pid"] for p in e.output(pin)["pids"]] == [pid] and e.output(pin)["samples"] > 3)
        rows = events.wait("AC-3 in the PAT's list", lambda e: any(t.startswith("0202") for t in e.texts("pat")) and
                           e.control("pat", 102))
        row = [cells[0] for cells in rows["rows"]].index("0202")
        inspector.post("/api/act", {"page": "pat", "control": 102, "action": "select", "rows": [row], "rev": rows["rev"]})
        inspector.post("/api/act", {"page": "pat", "control": 118, "action": "click"})
        events.wait("samples of the free pin", lambda e: e.output("Output2")["pids"][0]["pid"] == 0x202 and
                    e.output("Output2")["samples"] > 3)

    def test_a_row_of_an_older_list_is_not_taken(self):
        inspector = self.inspect(SAMPLE, "--loop")
        events = self.events(inspector)
        rev = events.wait("rows", lambda e: e.texts("pat") and e.control("pat", 102))["rev"]
        act = {"page": "pat", "control": 102, "action": "select", "rows": [1]}
        self.assertEqual(inspector.post("/api/act", {**act, "rev": rev + 1})[0], 409)
        rev = events.wait("all rows", lambda e: len(e.texts("pat")) > 12 and e.control("pat", 102))["rev"]
        self.assertEqual(inspector.post("/api/act", {**act, "rev": rev})[0], 200)
        events.wait("the row", lambda e: e.control("pat", 102)["selected"] == [1])

    def test_lost_repeated_and_damaged_packets(self):
        packets = [SAMPLE.read_bytes()[at:at + 188] for at in range(0, SAMPLE.stat().st_size, 188)]

        def nth(pid, number):
            return [at for at, packet in enumerate(packets) if int.from_bytes(packet[1:3], "big") & 0x1FFF == pid and
                    packet[3] & 0x10][number]
        del packets[nth(0x101, 20)]
        packets.insert(nth(0x102, 20), packets[nth(0x102, 20)])
        damaged = nth(0x103, 20)
        packets[damaged] = bytes([0x47, packets[damaged][1] | 0x80]) + packets[damaged][2:]
        inspector = self.inspect("-", stdin=subprocess.PIPE)
        events = self.events(inspector)
        inspector.process.stdin.write(b"".join(packets))
        inspector.process.stdin.close()
        inspector.process.stdin = None
        overview = events.wait("the end", lambda e: e.topics["overview"]["state"] == "ended" and e.topics["overview"])
        lost = {row["pid"]: row["lost"] for row in overview["pids"] if row["lost"]}
        self.assertEqual((lost, overview["damaged"]), ({0x101: 1, 0x103: 1}, 1))

    def test_a_pipe_that_ends(self):
        read, write = subprocess.PIPE, SAMPLE.read_bytes()
        inspector = self.inspect("-", stdin=read)
        events = self.events(inspector)
        inspector.process.stdin.write(write[:len(write) // 2])
        inspector.process.stdin.flush()
        events.wait("a wait for more", lambda e: e.topics["overview"]["state"] == "waiting")
        half = events.wait("packets", lambda e: e.topics["overview"]["packets"])
        inspector.process.stdin.write(write[len(write) // 2:])
        inspector.process.stdin.close()
        inspector.process.stdin = None
        events.wait("the end", lambda e: e.topics["overview"]["state"] == "ended")
        self.assertGreater(events.topics["overview"]["packets"], half)
        events.wait("a line about it", lambda e: any(line["text"] == "The input has ended" for line in e.log))
        self.assertTrue(any("TESS-A" in text for text in self.events(inspector).wait("the VCT", lambda e: e.texts("vct"))))
        self.assertEqual(inspector.end(), (0, b""))

    def test_a_file_that_grows_and_a_new_version(self):
        path = self.file("growing.ts", programme(1, [(0x02, 0x51)]))
        inspector = self.inspect(path)
        events = self.events(inspector)
        events.wait("the first version", lambda e: len(e.texts("services")) == 2)
        events.wait("the end", lambda e: e.topics["overview"]["state"] == "ended")
        self.assertEqual(len(events.sessions), 1)
        with path.open("ab") as file:
            file.write(programme(2, [(0x02, 0x51), (0x03, 0x52)]))
        for key in ("services", "pat"):
            events.wait(f"the new component on {key}", lambda e: any(t.startswith("0052") for t in e.texts(key)))
        self.assertEqual(len(events.sessions), 1, "nothing was loaded anew")
        events.wait("lines about it", lambda e: {"PMT 0x0005 is current", "PMT 0x0005 is replaced"} <=
                    {line["text"] for line in e.log})

    def test_names_are_shown_safely(self):
        for name, shown in ((b"<script>alert(1)</script>", "<script>alert(1)</script>"),
                            (b"A\x1b[31m\x07", None), (b"\x11" + "\u202eevil\u200f".encode("utf-16-be"), "\ufffdevil\ufffd"), (b"x" * 230, "x" * 230)):
            inspector = self.inspect(self.file("name.ts", programme(1, [(0x02, 0x51)], name)))
            events = self.events(inspector)
            title = events.wait("the service", lambda e: "P" in e.texts("services", 1007)[0] and e.texts("services", 1007)[0])
            if shown:
                self.assertIn(f"'{shown}'", title)
            everything = json.dumps([events.pages, events.topics], ensure_ascii=False)
            self.assertFalse(set(everything) & set(map(chr, [*range(9), *range(14, 32), *range(0x7F, 0xA0), 0x202E, 0x200F])))
            self.assertNotIn("\\u001b", everything.lower())
            inspector.kill()

    def test_a_stream_that_is_sent(self):
        inspector = self.inspect(self.file("none.ts", bytes(100_000)))
        events = self.events(inspector)
        events.wait("a file of no packets", lambda e: e.topics["overview"]["state"] == "ended" and
                    not e.topics["overview"]["found"])
        name = urllib.parse.quote("a <b> ‮.ts")
        status, answer = inspector.post(f"/api/upload?name={name}", SAMPLE.read_bytes())
        self.assertEqual((status, answer["bytes"]), (200, SAMPLE.stat().st_size))
        events.wait("the new session", lambda e: e.topics["pages"]["input"] == "a <b> �.ts")
        events.wait("its tables", lambda e: len(e.texts("vct")) == 3)
        events.wait("its end", lambda e: e.topics["overview"]["state"] == "ended")
        for body, reason in ((b"", "empty"), (b"\0\0\0\x18ftypisom" + bytes(90_000), "an MP4 file"),
                             ((b"\x47" + bytes(203)) * 50, "204 bytes"), (bytes(20_000), "no packets")):
            status, answer = inspector.post("/api/upload", body)
            self.assertEqual(status, 415)
            self.assertIn(reason, answer["error"])
        self.assertEqual(len(events.sessions), 2, "what is no stream takes no stream's place")
        self.assertEqual(inspector.post("/api/upload", b"--x\r\n", Content_Type="multipart/form-data; boundary=x")[0], 415)
        self.assertEqual(inspector.request("POST", "/api/upload", b"x" * 100, X_Tessel_Token=inspector.token,
                                           Content_Length=str(1 << 40))[0], 413)

    def test_one_upload_at_a_time_and_at_a_pace(self):
        inspector = self.inspect(SAMPLE, "--loop")
        slow = socket.create_connection(("127.0.0.1", inspector.port), timeout=DEADLINE)
        self.addCleanup(slow.close)
        slow.sendall(f"POST /api/upload?name=slow HTTP/1.1\r\nHost: 127.0.0.1:{inspector.port}\r\n"
                     f"X-Tessel-Token: {inspector.token}\r\nContent-Length: 1000000\r\n\r\n".encode() +
                     SAMPLE.read_bytes()[:188 * 100])
        events = self.events(inspector)
        events.wait("the slow stream", lambda e: e.topics["pages"]["input"] == "slow")
        for path, body in (("/api/upload", SAMPLE.read_bytes()), ("/api/room", {"bytes": 1000})):
            status, answer = inspector.post(path, body)
            self.assertEqual((status, "Another stream" in answer["error"]), (409, True))
        self.assertIn(b" 400 ", slow.recv(1000), "the one that stands still is given up")
        status, answer = inspector.post("/api/room", {"bytes": 1 << 50})
        self.assertEqual((status, "there is room for" in answer["error"]), (413, True))
        self.assertEqual(inspector.post("/api/room", {"bytes": 1000})[0], 200)

    def test_those_who_never_finish(self):
        inspector = self.inspect(SAMPLE, "--loop")
        head = f"GET / HTTP/1.1\r\nHost: 127.0.0.1:{inspector.port}\r\n".encode()

        def begin(data):
            connection = socket.create_connection(("127.0.0.1", inspector.port), timeout=DEADLINE)
            self.addCleanup(connection.close)
            connection.sendall(data)
            return connection
        for data, status in ((b"GET /" + b"x" * 5000 + b" HTTP/1.1\r\n\r\n", b"414"), (b"G" * 20_000, b"414"),
                             (head + b"X: " + b"y" * 5000 + b"\r\n\r\n", b"431"),
                             (head + b"X: y\r\n" * 100 + b"\r\n", b"431"), (head + b"X: yyyy\r\n" * 50, b"408")):
            self.assertEqual(begin(data).recv(1000).split(b" ")[1], status, data[:40])
        idle = [begin(head) for _ in range(100)]
        self.assertEqual(inspector.request("GET", "/")[0], 200, "a hundred that wait hold nobody up")
        trickling, end = begin(head), time.monotonic() + DEADLINE
        with self.assertRaises(OSError, msg="a request has a time, not each of its bytes"):
            while time.monotonic() < end:
                trickling.sendall(b"X")
                time.sleep(0.2)
        del idle

    def test_a_browser_that_does_not_read(self):
        inspector = self.inspect(SAMPLE, "--loop")
        idle = socket.create_connection(("127.0.0.1", inspector.port))
        idle.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
        idle.sendall(f"GET /events HTTP/1.1\r\nHost: 127.0.0.1:{inspector.port}\r\n\r\n".encode())
        events = self.events(inspector)
        before = events.wait("packets", lambda e: e.topics["overview"]["packets"])
        events.wait("more packets", lambda e: e.topics["overview"]["packets"] > before + 2000)
        self.assertEqual(inspector.end(), (0, b""), "nor does it hold up the end")
        idle.close()

    def test_addresses(self):
        inspector = self.inspect(SAMPLE)
        second = support.run("inspect", SAMPLE, "--listen", f"127.0.0.1:{inspector.port}")
        self.assertEqual(second.returncode, 1)
        self.assertEqual(second.stderr, b"tessel: cannot listen: the port is taken; choose another with --listen, or "
                                        b"port 0 for any that is free\n")
        for listen in ("", "8210", "127.0.0.1:", "127.0.0.1:x", "127.0.0.1:65536", "::1:80", "127.0.0.1:-1"):
            result = support.run("inspect", SAMPLE, "--listen", listen)
            self.assertEqual((result.returncode, result.stdout), (2, b""), listen)
        everywhere = self.inspect(SAMPLE, listen="0.0.0.0:0")
        self.assertEqual(everywhere.request("GET", "/", Host=f"evil.example:{everywhere.port}")[0], 403)
        code, said = everywhere.end()
        self.assertEqual(code, 0)
        self.assertIn(b"can be reached from other machines", said)

    def test_inputs_that_are_no_stream(self):
        inspector = self.inspect(self.file("film.ts", b"\0\0\0\x18ftypisom" + bytes(90_000)))
        events = self.events(inspector)
        events.wait("a line about it", lambda e: any("an MP4 file" in line["text"] for line in e.log))
        code, said = inspector.end()
        self.assertEqual(code, 0)
        self.assertIn(b"film.ts: seems to be no transport stream: it is an MP4 file", said)

    def test_inputs_that_cannot_be(self):
        for arguments, text in ((["/nowhere.ts"], b"cannot open"), (["-", "--loop"], b"what a pipe has given is gone")):
            result = support.run("inspect", *arguments, input=b"") if arguments[0] == "-" else support.run("inspect", *arguments)
            self.assertNotEqual(result.returncode, 0)
            self.assertIn(text, result.stderr)


if __name__ == "__main__":
    unittest.main()
