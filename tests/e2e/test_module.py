"""The module and its registration: what it shows of itself, and `classes`, `register` and `unregister`."""
import json
import os
import pathlib
import shutil
import subprocess

import support
from support import TOOL, run

MODULE = "cvneTessel.ax"
ENTRY_POINTS = {"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"}
SPLITTERS = {
    "Corvane MPEG TS Splitter": "{05A20097-501E-4CE4-965A-C1F2F1BEEC42}",
    "Corvane MPEG TS Splitter (Async)": "{EF437ED2-736C-4777-ACE1-1D18C7887970}",
    "Corvane MPEG TS Splitter (Rec)": "{0A354CEF-937C-4748-AF03-70100D2F5B55}",
}


class ModuleTest(support.ToolTest):
    def setUp(self):
        super().setUp()
        self.registry = self.folder / "registry"
        self.module = pathlib.Path(TOOL).with_name(MODULE)

    def classes(self, tool=TOOL, *options):
        options = options or ("--registry", self.registry)
        result = subprocess.run([tool, *options, "classes", "--json"], capture_output=True, timeout=240)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return json.loads(result.stdout)

    def assertFails(self, text, *command):
        result = subprocess.run(command, capture_output=True, timeout=240)
        error = result.stderr.decode()
        self.assertEqual((result.returncode, result.stdout), (1, b""), error)
        self.assertRegex(error, r"\Atessel: [^\n]+\n\Z", "one line")
        self.assertIn(text, error)

    def copy(self, name, place=".", module=None):
        """A tool of its own, with a module in place beside it; gives the two."""
        folder = self.folder / name
        (folder / place).mkdir(parents=True)
        tool = pathlib.Path(shutil.copy(TOOL, folder / "tessel"))
        return tool, pathlib.Path(shutil.copy(module or self.module, folder / place / MODULE))


class Exports(ModuleTest):
    def test_the_module_shows_its_entry_points_alone(self):
        out = subprocess.run(["nm", "-D", "--defined-only", self.module], capture_output=True, check=True, timeout=60)
        self.assertEqual({line.split()[-1] for line in out.stdout.decode().splitlines()}, ENTRY_POINTS)


class Registration(ModuleTest):
    def test_register_and_unregister(self):
        before = self.classes()
        self.assertEqual({c["name"]: c["clsid"] for c in before if "Splitter" in c["name"] and c["kind"] == "filter"},
                         SPLITTERS)
        self.assertFalse(any(c["registered"] or c["server"] for c in before))
        self.assertFalse(self.registry.exists(), "classes only looks")
        for entry in before:
            self.assertEqual(entry.get("merit"), 0x200000 if entry["kind"] == "filter" else None)
            if entry["name"] in SPLITTERS:
                pins = [(pin["name"], pin["direction"], len(pin["media_types"])) for pin in entry["pins"]]
                self.assertEqual(pins, [("Input", "input", 2), ("Output", "output", 14)])

        self.done("register", "--registry", self.registry)
        self.assertEqual(self.classes(), [dict(c, registered=True, server=str(self.module.resolve())) for c in before])
        text = self.registry.read_text()
        self.assertEqual(text.count("filter Corvane MPEG TS "), sum(c["kind"] == "filter" for c in before))
        self.assertIn("Corvane Auxiliary Filters", text)
        self.assertIn("Corvane", self.done("--registry", self.registry, "classes").decode())

        self.done("unregister", "--registry", self.registry)
        self.assertEqual(self.classes(), before)
        self.assertFalse([line for line in self.registry.read_text().splitlines() if line and line[0] != "#"])

    def test_where_the_registry_is(self):
        home, data = self.folder / "home", self.folder / "data"
        plain = {k: v for k, v in os.environ.items() if k not in ("XDG_DATA_HOME", "TESSEL_REGISTRY")}
        cases = [({"HOME": home}, home / ".local/share/tessel/registry"),
                 ({"HOME": home, "XDG_DATA_HOME": "not/absolute"}, home / ".local/share/tessel/registry"),
                 ({"HOME": home, "XDG_DATA_HOME": data}, data / "tessel/registry"),
                 ({"HOME": home, "TESSEL_REGISTRY": self.registry}, self.registry)]
        for variables, path in cases:
            with self.subTest(variables):
                output = self.done("register", env={**plain, **{k: str(v) for k, v in variables.items()}})
                self.assertIn(str(path), output.decode())
                self.assertIn("[class ", path.read_text())
                path.unlink()

    def test_registries_that_are_none(self):
        cases = [(self.file("diary.txt", b"# 1 May\n[today]\nRain.\n"), "line 3 is not of a class registry"),
                 (self.file("noise", bytes(range(256)) * 50), "line 1 is not"),
                 (self.folder, "Is a directory"),
                 (self.folder / "missing" / "registry", "No such file or directory")]
        for path, text in cases:
            before = path.read_bytes() if path.is_file() else None
            for command in ("register", "unregister"):
                with self.subTest(path=path.name, command=command):
                    self.assertFails(f"{path}: ", TOOL, command, "--registry", path)
                    self.assertFails(text, TOOL, command, "--registry", path)
                    self.assertEqual(path.read_bytes() if path.is_file() else None, before)

class Modules(ModuleTest):
    def test_one_in_a_lib_folder(self):
        for place in ("lib", "../lib", "../lib/tessel"):
            with self.subTest(place):
                tool, module = self.copy(f"bin-{place.replace('/', '-')}", place)
                subprocess.run([tool, "register", "--registry", self.registry], check=True, capture_output=True)
                self.assertEqual({c["server"] for c in self.classes(tool)}, {str(module.resolve())})
                module.unlink()

    def test_missing_and_foreign_ones(self):
        maps = pathlib.Path("/proc/self/maps").read_text().split()
        library = next(word for word in maps if "/libc" in word and ".so" in word)
        tool, module = self.copy("bin")
        text = self.file("text", b"This is no module.\n")
        damaged = self.file("damaged", self.module.read_bytes()[:5000])
        cases = [(None, f"there is no {MODULE} in {tool.parent.resolve()}"), (text, str(module)),
                 (damaged, str(module)), (library, "has no Dll")]
        for foreign, error in cases:
            module.unlink()
            if foreign:
                shutil.copy(foreign, module)
            else:
                module.symlink_to("nowhere")
            for command in ("classes", "register", "unregister"):
                with self.subTest(foreign=foreign, command=command):
                    self.assertFails(error, tool, command, "--registry", self.registry)
        self.assertFalse(self.registry.exists())

    def test_two_versions_side_by_side(self):
        tools, modules = zip(self.copy("one"), self.copy("two"))
        for mine, other in ((0, 1), (1, 0)):
            subprocess.run([tools[mine], "register", "--registry", self.registry], check=True, capture_output=True)
            server = str(modules[mine].resolve())
            self.assertEqual({(c["registered"], c["server"]) for c in self.classes(tools[mine])}, {(True, server)})
            self.assertEqual({(c["registered"], c["server"]) for c in self.classes(tools[other])}, {(False, server)})
            text = run("classes", "--registry", self.registry).stdout.decode()
            self.assertIn(f"by {server}", text)
