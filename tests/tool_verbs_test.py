#!/usr/bin/env python3
"""The program obreg as people and scripts run it: verbs, exit statuses, pipes, JSON, a terminal.

Environment: OBREGD and OBREG_TOOL, the paths of the programs. Runs in a mount namespace of its own (in-namespace.sh).
"""
import json
import os
import pty
import signal
import subprocess
import termios
import time
import unittest

TOOL = os.environ["OBREG_TOOL"]
SLOWER = 5 if os.environ.get("OBREG_SANITIZED") else 1  # what is done again and again is done less often
FOLDER = "/var/opt/quorlin/ombrel/obregd/"
KEY = r"HKEY_LOCAL_MACHINE\Software\Acme"


def run(*words, stdin=b""):
    """Exit status, standard output, standard error."""
    done = subprocess.run([TOOL, *words], input=stdin, capture_output=True, timeout=60, check=False)
    return done.returncode, done.stdout, done.stderr.decode(errors="replace")


def on_terminal(*words, answer=b"", color=True, columns=0):
    """Exit status and what a terminal shows."""
    terminal, side = pty.openpty()
    termios.tcsetwinsize(side, (24, columns))
    environment = {**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8", **({} if color else {"NO_COLOR": "1"})}
    with subprocess.Popen([TOOL, *words], stdin=side, stdout=side, stderr=side, env=environment) as process:
        os.close(side)
        os.write(terminal, answer)
        shown = b""
        try:
            while piece := os.read(terminal, 4096):
                shown += piece
        except OSError:  # a terminal's end
            os.close(terminal)
    return process.returncode, shown.decode()


class WithDaemon(unittest.TestCase):
    def setUp(self):
        for name in os.listdir(FOLDER):
            os.remove(FOLDER + name)
        self.start()
        self.expect(0, "add", r"HKLM/Software\Acme")  # once there is a slash, both separate

    def start(self, *words):
        self.daemon = subprocess.Popen([os.environ["OBREGD"], *words], stderr=subprocess.PIPE)
        self.assertTrue(any(b"listening on" in line for line in self.daemon.stderr))

    def tearDown(self):
        self.daemon.kill()
        self.daemon.wait()
        self.daemon.stderr.close()

    def restart(self, *words):
        self.tearDown()
        self.start(*words)

    def expect(self, status, *words, out=None, err=None, stdin=b""):
        """Runs the tool; compares the exit status, the whole output and a part of the errors."""
        got, stdout, stderr = run(*words, stdin=stdin)
        self.assertEqual(got, status, (words, stdout, stderr))
        if out is not None:
            self.assertEqual(stdout, out, words)
        self.assertIn(err or "", stderr, words)
        self.assertTrue(err is not None or stderr == "", stderr)
        return stdout

    def import_many(self, key, count, data="x"):
        lines = "".join(f'"v{i}"="{data}"\n' for i in range(count))
        self.expect(0, "import", "-", stdin=f"REGEDIT4\n[{key}]\n{lines}".encode())


class Verbs(WithDaemon):
    def test_values_of_every_type(self):
        cases = [  # type, data words, stored bytes, printed
            ("REG_SZ", ["héllo\n"], "héllo\n\0".encode(), "héllo\n\n"),
            ("expand_sz", ["%X%"], b"%X%\0", "%X%\n"),
            ("REG_MULTI_SZ", ["a", "b c"], b"a\0b c\0\0", "a\nb c\n"),
            ("dword", ["0x2A"], b"\x2a\0\0\0", "42\n"),
            ("REG_DWORD_BIG_ENDIAN", ["258"], b"\0\0\1\2", "258\n"),
            ("11", ["18446744073709551615"], b"\xff" * 8, "18446744073709551615\n"),
            ("REG_BINARY", ["00 ff:0A"], b"\0\xff\n", "00ff0a\n"),
            ("0x4D2", ["01"], b"\1", "01\n"),
        ]
        for kind, data, stored, printed in cases:
            self.expect(0, "set", KEY, "get", *data, "--type", kind, out=b"")
            self.expect(0, "get", KEY, "get", "--raw", out=stored)
            self.expect(0, "get", "HKLM/software/acme", "GET", out=printed.encode())
            self.expect(0, "rm", KEY, "get", out=b"")
            words = [word for one in data for word in ("-d", one)]
            self.expect(0, "add", KEY, "-v", "@", "-t", kind, "--force-type", *words)
            self.expect(0, "get", KEY, "--raw", out=stored)
        for kind in "multi_sz", "none":
            self.expect(0, "set", KEY, "empty", "-t", kind, "--force-type")
            self.expect(0, "get", KEY, "empty", "--raw", out=b"\0")
        self.expect(0, "rm", KEY, "empty")
        for data in ["-"], ["-", "-t", "dword"], ["-t", "multi_sz", "--separator", ",", "-"]:
            self.expect(0, "set", KEY, "x", *data, "--force-type", stdin=b"5\n")
            self.expect(0, "get", KEY, "x", out=b"5\n")
        self.expect(0, "set", KEY, "x", "a:b", "--separator", ":")
        for status, words, stored in [  # over a REG_MULTI_SZ: what it is then
                (0, ["one"], "REG_MULTI_SZ\tone"), (4, ["7", "-t", "dword"], "REG_MULTI_SZ\tone"),
                (0, ["7", "-t", "dword", "--force-type"], "REG_DWORD\t7"), (0, ["8"], "REG_DWORD\t8"),
                (2, ["text"], "REG_DWORD\t8"), (2, ["1", "2"], "REG_DWORD\t8"), (2, ["--data-file", "-"], "REG_DWORD\t8"),
                (0, ["--data-file", "-", "--force-type"], "REG_BINARY\t0001fe")]:
            self.expect(status, "set", KEY, "x", *words, stdin=b"\0\1\xfe", err="--force-type" if status else None)
            self.expect(0, "query", KEY, "-v", "x", out=f"value\t{KEY}\tx\t{stored}\n".encode())

    def test_exit_statuses(self):
        self.expect(1, "get", KEY, "none", err="NOT_FOUND")
        self.expect(1, "ls", "HKLM/none", err="obreg ls HKEY_LOCAL_MACHINE")
        self.expect(2, err="a verb is missing")
        for words in ["--json"], ["--json", "ls"], ["ls", "--json", KEY, "extra"], ["bogus", "--json"]:
            status, out, err = run(*words)
            self.assertEqual((status, out, json.loads(err)["exit"]), (2, b"", 2))
        self.expect(4, "set", "HKPD", "x", "y", err="can only be read")
        for words, said in [(["qurey"], "did you mean query?"), (["query", "--recursiv"], "did you mean --recursive?"),
                            (["ls", "HKML"], "did you mean HKLM?"), (["ls", KEY, "b", "--c", "d"], '"b", "--c", "d"'),
                            (["set", KEY, "", "x"], "unset"), (["rm", KEY, ""], "unset"), (["add", KEY, "-v", ""], "unset")]:
            self.expect(2, *words, err=said)
        self.expect(0, "--", "set", KEY, "--", "-x", "--", out=b"")
        self.expect(0, "get", KEY, "--", "-x", out=b"--\n")
        self.assertEqual(run("help", "rm"), run("rm", "--help"))
        self.assertEqual(run("help"), run("--help"))
        for words in (["get"], ["query", KEY, "-v", "a", "-s"], ["delete", "HKLM", "-y"],
                      ["set", KEY, "x", "1e5", "-t", "dword"], ["set", KEY, "x", "4294967296", "-t", "dword"],
                      ["set", KEY, "x", "abc", "-t", "binary"], ["set", KEY, "x", "y", "-t", "REG_NONSENSE"],
                      ["set", KEY, "x", "--data-file", "-"], ["set", KEY, "x", "--separator", ",", "--data-file", TOOL],
                      ["copy", KEY, KEY + r"\Below", "-s"]):
            self.expect(2, *words, err="")
        self.expect(4, "add", "HKLM/" + "n" * 1025, err="BAD_NAME")
        with open(FOLDER + "big", "wb") as big:
            big.truncate(65 << 20)
        self.expect(4, "set", KEY, "x", "--data-file", FOLDER + "big", err="max-payload")
        os.kill(self.daemon.pid, signal.SIGSTOP)
        self.expect(3, "get", KEY, "x", "--timeout", "0.2", err="--timeout")
        with subprocess.Popen([TOOL, "ping"], stdout=subprocess.DEVNULL) as ping:
            time.sleep(0.2)
            for _ in range(2):  # the second one ends it whatever it waits for
                ping.send_signal(signal.SIGINT)
                time.sleep(0.1)
        self.assertEqual(ping.returncode, -signal.SIGINT)
        os.kill(self.daemon.pid, signal.SIGCONT)
        self.tearDown()
        self.expect(3, "ls", "HKLM", err="obregd")
        self.expect(3, "get", KEY, "x", "--json", out=b"", err="REQUEST_FAILED")
        self.expect(0, "__complete", "ls", "HKLM/", out=b"")

    def test_a_recursive_delete_is_asked_for(self):
        self.expect(0, "add", KEY + r"\a/b\Deep")
        self.expect(2, "delete", "HKLM/Software", err="--yes")
        self.assertEqual(on_terminal("delete", "HKLM/Software", answer=b"n\n")[0], 4)
        self.expect(0, "tree", "HKLM/Software", "--depth", "1",
                    out=f"key\tHKEY_LOCAL_MACHINE\\Software\nkey\t{KEY}\n".encode())
        self.assertEqual(on_terminal("rm", "HKLM/Software", answer=b"y\n")[0], 0)
        self.expect(0, "ls", "HKLM", out=b"")
        self.import_many(r"HKLM\Many", 11)
        self.expect(2, "rm", "HKLM/Many", err="11 values")
        self.expect(0, "rm", "HKLM/Many", "-y")

    def test_lists_in_a_pipe_as_json_and_on_a_terminal(self):
        self.expect(0, "add", b"HKLM\\Software\\Acme\\\xff/")
        self.expect(0, "set", KEY, "list", "a\t\\", "b", "\33")
        self.expect(0, "set", KEY, b"\xc3\x28", "text")
        self.expect(0, "add", KEY, "-d", "unnamed")
        self.expect(0, "ls", KEY, out=b"subkey\t\xff/\nvalue\t@\tREG_SZ\tunnamed\n"
                    b"value\tlist\tREG_MULTI_SZ\ta\\t\\\\\\0b\\0\\x1b\nvalue\t\xc3\x28\tREG_SZ\ttext\n")
        self.expect(0, "set", KEY, "odd", "--data-file", "-", "-t", "REG_SZ", stdin=b"no end \xff")
        facts = json.loads(self.expect(0, "query", KEY, "--json"))
        self.assertEqual([fact["kind"] for fact in facts], ["key"] + ["value"] * 4 + ["subkey"])
        self.assertEqual(facts[2], {"kind": "value", "key": KEY, "name": "list", "type": "REG_MULTI_SZ",
                                    "data": ["a\t\\", "b", "\33"]})
        self.assertEqual((facts[3]["data"], facts[3]["hex"]), (None, b"no end \xff".hex()))
        self.assertEqual((facts[4]["name"], facts[4]["nameHex"]), ("\ufffd(", "c328"))
        for words in (["tree", KEY], ["info", KEY], ["ping"], ["ping", "--latency", "--count", "5"], ["ls", "HKCU"],
                      ["set", KEY, "j", "1"], ["rm", KEY, "j"], ["compare", KEY, KEY], ["copy", KEY, "HKLM/New"],
                      ["export", "HKLM/New", FOLDER + "n"], ["import", FOLDER + "n"], ["add", "HKLM/New"]):
            json.loads(self.expect(0, *words, "--json"))
        status, shown = on_terminal("query", KEY)
        self.assertEqual((status, "\33[36m@\33" in shown, "\\x1b" in shown), (0, True, True))
        self.assertNotIn("\33", on_terminal("query", KEY, color=False)[1])

    def test_import_checks_first_and_says_where_it_failed(self):
        header = "REGEDIT4\n[HKLM\\Software\\Acme\\In]\n"
        self.tearDown()
        self.start("--max-payload", "1M")
        too_big = "x" * (1 << 20)
        for status, lines, said in [
                (5, '"b"=oops', "line 4, column 5"), (4, f"[HKLM\\{'n' * 1025}]", "line 4: HKEY_LOCAL_MACHINE"),
                (4, "[HKLM" + "\\k" * 513 + "]", "BAD_NAME"), (4, f'"{"n" * 16384}"="1"', "BAD_NAME"),
                (4, f'"b"="{too_big}"', "max-payload"), (4, "[-HKPD\\Requests]", "ACCESS_DENIED"),
                (4, '[HKPD]\n"b"="1"', "line 5: HKEY_PERFORMANCE"), (4, "[HKPD\\New]", "can only be read")]:
            for word in [[], ["--check"], ["--dry-run"]]:
                out = run("import", "-", *word, stdin=(header + '"a"="1"\n' + lines).encode())
                self.assertEqual((out[0], said in out[2], "nothing was written" in out[2]), (status, True, True), out[2][-300:])
        fits = header + "[HKPD]\n[-HKLM\\None]\n[HKLM" + "\\k" * 512 + "]\n" + f'"{"n" * 16383}"="1"\n'
        self.expect(0, "import", "--check", "-", stdin=fits.encode(), out=b"")
        self.expect(1, "ls", KEY + r"\In", err="NOT_FOUND")
        self.expect(0, "import", "-", stdin=fits.encode())
        order = header + '"a"="1"\n"a"="2"\n"b"="1"\n"b"=-\n[-HKLM\\Software\\Acme\\In]\n' + header[9:] + \
            "".join(f'"c"="{i}"\n' for i in range(200)) + '[hklm\\software\\acme\\in]\n"C"="end"\n"none"=-\n'
        self.expect(0, "import", "-", stdin=order.encode())
        self.expect(0, "ls", KEY + r"\In", out=b"value\tc\tREG_SZ\tend\n")
        self.expect(0, "export", KEY, out=b"Windows Registry Editor Version 5.00\n\n[" + KEY.encode() + b"]\n\n[" +
                    KEY.encode() + b'\\In]\n"c"="end"\n')
        self.expect(2, "export", KEY, FOLDER + "registry.db", err="--yes")
        self.expect(4, "export", KEY, FOLDER + "none/file", err="No such file")

    def test_changes_are_shown_first_and_can_be_taken_back(self):
        self.expect(0, "set", KEY, "n", "1")
        self.expect(0, "add", KEY + r"\Sub", "-v", "@", "-d", "a", "b")
        self.expect(0, "copy", KEY, "HKLM/Other", "-s")
        before = self.expect(0, "export", "HKLM")
        changes = "REGEDIT4\n[HKLM\\New\\A]\n\"n\"=\"1\"\n[HKLM\\Other]\n\"N\"=\"2\"\n\"m\"=\"3\"\n\"m\"=-\n" \
            "[-HKLM\\Other\\Sub]\n[HKLM\\Other\\Sub]\n@=\"x\"\n\"y\"=\"z\"\n[-HKLM\\Software]\n[HKLM\\Software\\Acme]\n\"n\"=\"1\"\n"
        for words, facts in [
                (["import", "-"], "+k +k +v ~v +v -v -k +k +v +v -k +k +k +v"), (["rm", KEY, "-y"], "-k"),
                (["rm", KEY, "n"], "-v"), (["delete", KEY, "--all-values"], "-v"),
                (["copy", KEY + r"\Sub", KEY], "+v"), (["copy", KEY, "HKLM/New", "-s"], "+k +v +k +v"),
                (["copy", KEY, "HKLM/Other", "-s"], ""), (["rename", KEY, "New"], "+k +v +k +v -k"),
                (["move", KEY, "HKLM/New/A", "-v", "n"], "+k +k +v -v")]:
            shown = self.expect(0, *words, "--dry-run", stdin=changes.encode()).decode().splitlines()
            short = {"added": "+", "changed": "~", "removed": "-"}
            kinds = [line.split("\t")[0].split("-") for line in shown]
            self.assertEqual(" ".join(short[change] + what[0] for change, what in kinds), facts, words)
            self.assertEqual(self.expect(0, "export", "HKLM"), before, words)
            self.expect(0, *words, "--backup", FOLDER + "undo", "--force", stdin=changes.encode())
            self.assertEqual(self.expect(0, "export", "HKLM") != before, facts != "", words)
            self.expect(0, "import", FOLDER + "undo")
            self.assertEqual(self.expect(0, "export", "HKLM"), before, words)
        self.expect(4, "rm", KEY, "-y", "--backup", FOLDER + "undo", err="--force")
        self.expect(4, "set", "HKPD", "x", "y", "--dry-run", err="can only be read")
        self.expect(1, "rm", KEY, "none", "--dry-run", err="NOT_FOUND")
        self.assertEqual(self.expect(0, "export", "HKLM"), before)

    def test_an_import_that_is_refused(self):
        lines = [f'"v{i}"="{i}"\n' for i in range(3000)]
        lines[500:502] = ["[HKLM\\" + "n" * 1025 + "]\n", '"x"="y"\n', "[HKLM\\In]\n"]
        lines[700] = '"v699"=hex(0):\n'
        text = ("REGEDIT4\n[HKLM\\In]\n" + "".join(lines)).encode()
        self.expect(4, "import", "-", stdin=text, err="line 503: ")
        self.expect(1, "ls", r"HKLM\In", err="NOT_FOUND")  # nothing was written
        for words in ["--check"], ["--dry-run"], ["--backup", FOLDER + "undo"], []:
            status, _, err = run("import", "-", "--keep-going", "--json", *words, stdin=text)
            refused = sorted(json.loads(line)["line"] for line in err.splitlines())
            self.assertEqual((status, refused), (4, [503, 504, 703]), words)
        self.assertEqual(len(self.expect(0, "ls", r"HKLM\In").splitlines()), 2997)
        self.expect(0, "import", FOLDER + "undo")
        self.expect(1, "ls", r"HKLM\In", err="NOT_FOUND")

    def test_what_ends_early_says_what_stands(self):
        def numbers():
            return {int(line.split("\t")[1][1:]) for line in run("ls", r"HKLM\In")[1].decode().splitlines()}
        with open(FOLDER + "in.reg", "w", encoding="ascii") as file:
            file.write("REGEDIT4\n[HKLM\\In]\n" + "".join(f'"v{i}"="{i}"\n' for i in range(3, 20000)))
        # Ctrl-C, while it looks and while it writes; a daemon that is killed
        for status, *words in (130,), (130, "--keep-going"), (3, "--keep-going"):
            run("rm", r"HKLM\In", "--yes")
            os.kill(self.daemon.pid, signal.SIGSTOP)
            with subprocess.Popen([TOOL, "import", *words, "--json", FOLDER + "in.reg"],
                                  stderr=subprocess.PIPE) as ended:
                time.sleep(0.3)
                if status == 130:
                    ended.send_signal(signal.SIGINT)
                    time.sleep(0.1)
                os.kill(self.daemon.pid, signal.SIGCONT)
                if status == 3:
                    time.sleep(0.01)
                    self.tearDown()
                said = json.loads(ended.stderr.read())
            if status == 3:
                self.start()
            self.assertEqual((ended.returncode, said["total"]), (status, 19998))
            stands = {*range(3, said["line"]), *said.get("after", ())} - {2}
            there = numbers()
            self.assertLessEqual(stands, there)
            self.assertLessEqual(there, stands | {said["line"], *said.get("unknown", ())})
        self.expect(0, "import", FOLDER + "in.reg")
        with subprocess.Popen([TOOL, "--json", "delete", r"HKLM\In", "--all-values"], stderr=subprocess.PIPE) as ended:
            while json.loads(self.expect(0, "info", r"HKLM\In", "--json"))["values"] == 19997:
                pass
            ended.send_signal(signal.SIGINT)
            said = json.loads(ended.stderr.read())
        self.assertEqual((ended.returncode, said["deleted"]), (130, 19997 - len(numbers())))

    def test_export_keeps_what_a_file_is(self):
        with open(FOLDER + "private", "wb"):
            os.chmod(FOLDER + "private", 0o600)
        os.symlink("private", FOLDER + "link")
        os.mkfifo(FOLDER + "pipe")
        self.expect(0, "export", KEY, FOLDER + "link", "--yes")
        self.assertEqual(os.readlink(FOLDER + "link"), "private")
        self.assertEqual(os.stat(FOLDER + "private").st_mode & 0o7777, 0o600)
        self.assertEqual(run("import", "--check", FOLDER + "private")[0], 0)
        with subprocess.Popen(["cat", FOLDER + "pipe"], stdout=subprocess.PIPE) as reader:
            self.expect(0, "export", KEY, FOLDER + "pipe", "--yes")
            self.assertIn(b"Acme", reader.stdout.read())
        self.assertTrue(os.path.exists(FOLDER + "pipe") and not os.path.isfile(FOLDER + "pipe"))
        self.import_many(r"HKLM\Many", 20000)
        for ending, status, *words in [(signal.SIGTERM, -signal.SIGTERM, "export", "HKLM"), (None, 3, "export", "HKLM"),
                                       (signal.SIGINT, 130, "rm", "HKLM/Many", "-y", "--backup")]:  # None: --timeout
            with subprocess.Popen([TOOL, "--timeout", "2", *words, FOLDER + "half"], stderr=subprocess.DEVNULL) as half:
                while not [name for name in os.listdir(FOLDER) if "half.new" in name]:
                    time.sleep(0.001)
                if ending != signal.SIGINT:  # which ends work that goes on
                    os.kill(self.daemon.pid, signal.SIGSTOP)
                if ending:
                    half.send_signal(ending)
            os.kill(self.daemon.pid, signal.SIGCONT)
            self.assertEqual(half.returncode, status)
            self.assertEqual(json.loads(self.expect(0, "info", "HKLM/Many", "--json"))["values"], 20000)
            self.assertEqual([name for name in os.listdir(FOLDER) if "half" in name], [])

    def test_a_tree_is_read_whole_while_it_changes(self):
        self.import_many(r"HKLM\Busy", 500)
        loop = 'while :; do "$0" rm HKLM/Busy v0; "$0" set HKLM/Busy v0 x; "$0" add HKLM/Busy/Sub; "$0" rm HKLM/Busy/Sub; done'
        with subprocess.Popen(["bash", "-c", loop, TOOL], start_new_session=True) as writer:
            try:
                for _ in range(10 // SLOWER):
                    status, out, err = run("export", "HKLM/Busy")
                    self.assertIn(status, (0, 4), err)
                    if status == 0:
                        self.assertIn(out.count(b'="x"'), (499, 500))
            finally:
                os.killpg(writer.pid, signal.SIGKILL)

    def test_copy_compare_and_watch_tell_changes(self):
        self.expect(0, "set", KEY, "n", "1")
        self.expect(0, "add", KEY + r"\Sub")
        self.expect(0, "copy", KEY, KEY + "Twin", "-s")  # beside it, not below it
        self.expect(0, "copy", KEY, "HKLM/Twin", "-s")
        self.expect(0, "compare", KEY, "HKLM/Twin", "-s", out=b"")
        with subprocess.Popen([TOOL, "watch", "HKLM/Twin", "--count", "5", "--json"],
                              stdout=subprocess.PIPE) as watch:
            time.sleep(0.5)
            self.expect(0, "set", "HKLM/Twin", "n", "2")
            self.assertIn(b"changed-value", watch.stdout.readline())
            self.tearDown()
            self.start()
            self.expect(0, "rm", "HKLM/Twin/Sub")
            self.assertIn(b"removed-key", watch.stdout.readline())
            self.expect(0, "add", "HKLM/Twin/More", "-v", "v", "-d", "x")
            self.expect(0, "rm", "HKLM/Twin/More", "v")
            rest = [json.loads(line)["kind"] for line in watch.stdout]
            self.assertEqual(rest, ["added-key", "added-value", "removed-value"])
        self.assertEqual(watch.returncode, 0)
        self.expect(1, "compare", KEY, "HKLM/Twin", "-s", out=(
            f"value-differs\t{KEY}\tn\tREG_SZ\t1\tREG_SZ\t2\nkey-missing-left\tHKEY_LOCAL_MACHINE\\Twin\\More\n"
            f"key-missing-right\t{KEY}\\Sub\n").encode())
        self.expect(0, "set", KEY, "only here", "1")
        patch = run("compare", KEY, "HKLM/Twin", "-s", "--reg")[1]
        self.expect(0, "import", "-", stdin=patch)
        self.expect(0, "compare", KEY, "HKLM/Twin", "-s", out=b"")
        self.expect(4, "compare", KEY, "HKLM/None", err="NOT_FOUND")

    def test_find_looks_at_names_and_data(self):
        for key, name, *data in [("a", "n", "1421", "-t", "dword"), ("a", "B", "00ff12", "-t", "binary"),
                                 ("a", "T", "GRÜN"), ("grün/x", "list", "y", "grüner z")]:
            self.expect(0, "set", f"HKLM/Find/{key}", name, *data)
        self.expect(0, "set", "HKLM/Find/a", "Unended", "-t", "sz", "--data-file", "-", stdin=b"Ende")
        for words, found in [(["ende", "--data"], ["Unended"]), (["grün"], ["T", "grün", "list"]), (["grün", "--names"], ["grün"]), (["42"], ["n"]),
                             (["f1"], []), (["FF12", "--data"], ["B"]), (["^grün.?$", "--regex"], ["T", "grün"]),
                             (["", "-t", "dword"], ["n"]), (["z", "--depth", "1"], [])]:
            status, out, _ = run("find", "HKLM/Find", *words)
            names = [line.split("\t")[2] if line.startswith("value") else line.rpartition("\\")[2]
                     for line in out.decode().splitlines()]
            self.assertEqual((status, names), (0 if found else 1, found), words)

    def test_move_and_rename_leave_nothing_behind(self):
        self.import_many(KEY + r"\Deep\er", 300)
        for i in "zya":
            self.expect(0, "set", KEY, i, i)
        before = run("export", KEY)[1]
        self.expect(4, "move", KEY, "HKLM/Software", err="already")
        for words in ["rename", KEY, "ACME"], ["move", KEY, KEY + r"\Deep"], ["rename", KEY, "a\\b"], ["move", "HKLM", "HKU/x"]:
            self.expect(2, *words, err="")
        self.expect(0, "move", KEY, "HKLM/New/Place")
        self.assertIn(b'"one transaction"', self.expect(0, "rename", "HKLM/New/Place", "Acme", "--json"))
        self.expect(0, "rename", "HKLM/New/Acme", "-v", "z", "q")
        self.expect(1, "get", "HKLM/New/Acme", "q", "z", "a", out=b"z\na\n", err='"z"')
        self.expect(0, "rename", "HKLM/New/Acme", "-v", "q", "z")
        self.expect(0, "move", "HKLM/New/Acme", KEY)
        self.assertEqual(run("export", KEY)[1], before)
        self.expect(0, "tree", "HKLM/New", out=b"key\tHKEY_LOCAL_MACHINE\\New\n")

    def test_conditions(self):
        for status, words in [  # each on what those before it have left
                (6, ["set", KEY, "n", "1", "--if-equals", "0"]), (0, ["set", KEY, "n", "5", "-t", "dword", "--if-absent"]),
                (6, ["set", KEY, "n", "6", "--if-absent"]), (6, ["set", KEY, "n", "6", "--if-equals", "4"]),
                (0, ["set", KEY, "n", "6", "--if-equals", "0x5", "--dry-run"]), (0, ["set", KEY, "n", "6", "--if-equals", "5"]),
                (6, ["rm", KEY, "n", "--if-equals", "5", "--dry-run"]), (2, ["rm", KEY, "--if-equals", "6"]),
                (0, ["set", "HKLM/New/Key", "l", "a", "b", "--if-absent"]),
                (0, ["set", "HKLM/New/Key", "l", "c", "--if-equals", "a", "--if-equals", "b"]),
                (6, ["delete", "HKLM/None", "-v", "n", "--if-equals", "5"]), (4, ["set", "HKPD", "n", "5", "--if-absent"]),
                (0, ["delete", KEY, "-v", "n", "--if-equals", "6"])]:
            self.expect(status, *words, err="" if status else None)
        self.expect(0, "ls", KEY, out=b"")
        for lines, holds in [(f'[?{KEY}]\n"n"=-\n[?-HKLM\\X]\n[HKLM\\X]\n"a"="1"\n', True), ("[?HKLM\\Y]", False),
                             ('[HKLM\\Z]\n[?HKLM\\X]\n"a"="2"\n', False), ('[?HKLM\\X]\n"a"=-', False), ("[?-HKLM\\X]", False),
                             ("[?HKLM\\X]\nunchanged-since=0", False),
                             ('[?HKLM\\X]\n"a"="1"\n[-HKLM\\X]', True)]:
            text = ("REGEDIT4\n" + lines).encode()
            before = self.expect(0, "export", "HKLM")
            shown = self.expect(0 if holds else 6, "import", "--atomic", "-", "--dry-run", stdin=text, err=None if holds else "not hold")
            self.assertEqual(b"condition-fails" in shown, not holds)
            self.expect(0 if holds else 6, "import", "--atomic", "-", "--check", stdin=text, err=None if holds else ", line ")
            self.assertEqual(self.expect(0, "export", "HKLM"), before)
            self.expect(5, "import", "-", stdin=text, err="--atomic")
            self.expect(0 if holds else 6, "import", "--atomic", "-", stdin=text, err=None if holds else ", column 1: ")
            self.assertEqual(self.expect(0, "export", "HKLM") != before, holds)
        for status, line, said in [(5, '"a"=oops', "line 3, column 5"), (4, '[HKPD\\x]', "line 3, column 1: "),
                                   (4, '"b"=hex(0):', "line 3, column 1: "), (4, "[HKLM\\" + "n" * 1025 + "]", "BAD_NAME"),
                                   (4, '"x"="y"\n' * 100001, "--max-statements")]:
            self.expect(status, "import", "--atomic", "-", stdin=f"REGEDIT4\n[HKLM\\X]\n{line}\n".encode(), err=said)
            self.expect(1, "ls", r"HKLM\X", err="NOT_FOUND")

    def test_processes_that_count_together_lose_nothing(self):
        steps = 40 // SLOWER * int(os.environ.get("OBREG_TORTURE", 1))
        path = f"{os.path.dirname(TOOL)}:{os.path.dirname(__file__)}/../examples:{os.environ['PATH']}"
        subprocess.run(["counter.sh", KEY, "n", str(steps)], env={**os.environ, "PATH": path}, timeout=3000, check=True)
        self.expect(0, "get", KEY, "n", out=f"{steps}\n".encode())

    def test_lines_fit_the_terminal(self):
        self.expect(0, "set", KEY, "long", "é漢" * 60)
        self.expect(0, "set", KEY, "r", "00", "-t", "REG_RESOURCE_REQUIREMENTS_LIST")
        for words, width in (["ls", KEY], 60), (["ls", KEY, "--wide"], 60 + 158):
            shown = on_terminal(*words, color=False, columns=60)[1].splitlines()
            self.assertEqual(len(shown[0]) + shown[0].count("漢"), width)
            self.assertEqual(shown[0].index("é"), shown[1].index("00"))

    def test_wait_ends_when_its_condition_holds(self):
        self.expect(0, "set", KEY, "there", "12", "--type", "REG_DWORD")
        self.expect(0, "wait", KEY, "there", out=b"12\n")
        self.expect(0, "wait", KEY, "there", "--equals", "0xc", out=b"12\n")
        self.expect(7, "--timeout", "0.1", "wait", KEY, "there", "--changed", err="the time is up")
        self.expect(2, "wait", KEY, "there", "--absent", "--changed", err="--absent and --changed")
        waits = [["later", "--equals", "ready"], ["later", "--not-equals", "not yet"], ["there", "--absent"],
                 ["there", "--changed"]]
        waiting = [subprocess.Popen([TOOL, "wait", "HKLM/To/Come", *words], stdout=subprocess.PIPE) for words in waits]
        self.assertEqual(waiting[2].wait(), 0)  # absent from the beginning
        time.sleep(0.3)
        for text in "not yet", "ready":
            self.expect(0, "set", "HKLM/To/Come", "later", text)
        self.tearDown()
        self.start()
        self.assertIsNone(waiting[3].poll())
        self.expect(0, "set", "HKLM/To/Come", "there", "")
        self.assertEqual([each.communicate(timeout=20)[0] for each in waiting], [b"ready\n", b"ready\n", b"", b"\n"])
        self.assertEqual([each.returncode for each in waiting], [0] * 4)

    def test_a_reader_that_leaves_ends_it_quietly(self):
        self.import_many(r"HKLM\Many", 3000, "x" * 200)
        for verb in ("query", "export"):
            done = subprocess.run(["bash", "-c", '"$0" "$1" HKLM/Many | head -n 1', TOOL, verb],
                                  capture_output=True, timeout=60, check=False)
            self.assertEqual((done.stdout.count(b"\n"), done.stderr), (1, b""))

    def test_what_cannot_be_written_is_an_error(self):
        self.tearDown()
        self.daemon = subprocess.Popen(["sh", "-c", 'sleep 0.3; exec "$OBREGD" <&- >&- 2>&-'], stderr=subprocess.PIPE)
        self.expect(3, "get", KEY, err="run this again")  # the daemon was not there yet
        self.assertEqual([os.readlink(f"/proc/{self.daemon.pid}/fd/{fd}") for fd in range(3)], ["/dev/null"] * 3)
        self.expect(0, "set", KEY, "v", "x" * 100)
        with subprocess.Popen(f"exec '{TOOL}' watch '{KEY}' >&-", shell=True, stderr=subprocess.PIPE) as watch:
            time.sleep(0.5)
            self.expect(0, "set", KEY, "v", "y" * 100)
            self.assertIn(b"standard output: ", watch.stderr.read())
        for verb in f"get '{KEY}' v --raw", "--help", "--version", "__complete ge":
            for streams, fails in [("<&-", False), ("<&- 2>&-", False), ("2>&-", False), (">/dev/full", True), (">&-", True),
                                   ("<&- >&-", True), ("2>&- >&-", True), ("<&- >&- 2>&-", True)]:
                done = subprocess.run(f"'{TOOL}' {verb} {streams}", shell=True, capture_output=True, check=False)
                self.assertEqual(done.returncode, 4 if fails else 0, (verb, streams))
                self.assertEqual(b"standard output: " in done.stderr, fails and "2>" not in streams, (verb, streams))
                self.assertEqual(bool(done.stdout), not fails, (verb, streams))

    def test_completions_come_from_the_registry(self):
        self.expect(0, "set", KEY, "Some name", "1")
        for words, expected in [(["que"], "query"), (["ls", "hkl"], "HKLM/"), (["ls", "HKLM/so"], "HKLM/Software/"),
                                (["ls", "HKLM\\Software\\"], "HKLM\\Software\\Acme\\"), (["get", KEY, "so"], "Some name"),
                                (["query", KEY, "-v", ""], "Some name"), (["--json", "ls", "HKLM/so"], "HKLM/Software/"),
                                (["--timeout", "3", "--color", "al"], "always"), (["set", "-t", "reg_q"], "REG_QWORD\nREG_QWORD_LITTLE_ENDIAN"), (["set", "--ty"], "--type"), (["import", ""], ""), (["help", "se"], "set")]:
            self.expect(0, "__complete", *words, out=(expected + "\n").encode() if expected else b"")
        self.expect(0, "add", "HKLM/Software/With space")
        script = os.path.join(os.path.dirname(__file__), "../packaging/completions/obreg.bash")
        for typed, expected in [("HKLM/software/w", r"HKLM/software/With\ space/"), (r"hklm\\soft", r"hklm\\Software\\"),
                                (r"'HKLM\Software\wi", "HKLM\\Software\\With space\\")]:
            shell = 'source "$1"; COMP_WORDS=("$0" ls "$2"); COMP_CWORD=2; _obreg; printf "%s\n" "${COMPREPLY[@]}"'
            done = subprocess.run(["bash", "-c", shell, TOOL, script, typed], capture_output=True, timeout=60, check=True)
            self.assertEqual(done.stdout.decode(), expected + "\n")


if __name__ == "__main__":
    unittest.main()
