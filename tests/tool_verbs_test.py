#!/usr/bin/env python3
"""The program obreg as people and scripts run it: verbs, exit statuses, pipes, JSON, a terminal.

Environment: OBREGD and OBREG_TOOL, the paths of the programs. Runs in a mount namespace of its own (in-namespace.sh).
"""
import json
import os
import pty
import signal
import subprocess
import time
import unittest

TOOL = os.environ["OBREG_TOOL"]
FOLDER = "/var/opt/quorlin/ombrel/obregd/"
KEY = r"HKEY_LOCAL_MACHINE\Software\Acme"


def run(*words, stdin=b""):
    """Exit status, standard output, standard error."""
    done = subprocess.run([TOOL, *words], input=stdin, capture_output=True, timeout=60, check=False)
    return done.returncode, done.stdout, done.stderr.decode(errors="replace")


def on_terminal(*words, answer=b"", color=True):
    """Exit status and what a terminal shows."""
    terminal, side = pty.openpty()
    environment = {**os.environ, "TERM": "xterm", **({} if color else {"NO_COLOR": "1"})}
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
        self.daemon = subprocess.Popen([os.environ["OBREGD"]], stderr=subprocess.PIPE)
        self.assertTrue(any(b"listening on" in line for line in self.daemon.stderr))
        self.expect(0, "add", r"HKLM/Software\Acme")  # once there is a slash, both separate

    def tearDown(self):
        self.daemon.kill()
        self.daemon.wait()
        self.daemon.stderr.close()

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
            self.expect(0, "add", KEY, "-v", "@", "-t", kind, *words)
            self.expect(0, "get", KEY, "--raw", out=stored)
        for kind in "multi_sz", "none":
            self.expect(0, "set", KEY, "empty", "-t", kind)
            self.expect(0, "get", KEY, "empty", "--raw", out=b"\0")
        self.expect(0, "rm", KEY, "empty")
        for data in ["-"], ["-", "-t", "dword"], ["-t", "multi_sz", "--separator", ",", "-"]:
            self.expect(0, "set", KEY, "x", *data, stdin=b"5\n")
            self.expect(0, "get", KEY, "x", out=b"5\n")
        self.expect(0, "set", KEY, "x", "--data-file", "-", stdin=b"\0\1\xfe")
        self.expect(0, "query", KEY, "-v", "x", out=f"value\t{KEY}\tx\tREG_BINARY\t0001fe\n".encode())
        self.expect(0, "set", KEY, "x", "a:b", "--separator", ":", "--type", "multi_sz")
        self.expect(0, "query", KEY, "-v", "x", out=f"value\t{KEY}\tx\tREG_MULTI_SZ\ta\\0b\n".encode())

    def test_exit_statuses(self):
        self.expect(1, "get", KEY, "none", err="NOT_FOUND")
        self.expect(1, "ls", "HKLM/none", err="obreg ls HKEY_LOCAL_MACHINE")
        self.expect(2, err="a verb is missing")
        for words in ["--json"], ["--json", "ls"], ["ls", "--json", KEY, "extra"], ["bogus", "--json"]:
            status, out, err = run(*words)
            self.assertEqual((status, out, json.loads(err)["exit"]), (2, b"", 2))
        self.expect(4, "set", "HKPD", "x", "y", err="can only be read")
        for words in (["bogus"], ["get"], ["ls", "Software"], ["query", KEY, "-v", "a", "-s"], ["delete", "HKLM", "-y"],
                      ["set", KEY, "x", "1e5", "-t", "dword"], ["set", KEY, "x", "4294967296", "-t", "dword"],
                      ["set", KEY, "x", "abc", "-t", "binary"], ["set", KEY, "x", "y", "-t", "REG_NONSENSE"],
                      ["set", KEY, "x", "--data-file", "-"], ["set", KEY, "x", "--separator", ",", "--data-file", TOOL],
                      ["copy", KEY, KEY + r"\Below", "-s"]):
            self.expect(2, *words, err="")
        self.expect(4, "add", "HKLM/" + "n" * 300, err="BAD_NAME")
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
        self.expect(4, "import", "-", stdin=(header + '"a"="1"\n"b"=oops\n').encode(), err="line 4, column 5")
        self.expect(0, "import", "--check", "-", stdin=(header + '"a"="1"\n').encode())
        self.expect(1, "ls", KEY + r"\In", err="NOT_FOUND")
        long = header + '"a"="1"\n[HKLM\\' + "n" * 300 + ']\n"b"="2"\n'
        self.expect(4, "import", "-", stdin=long.encode(), err="line 4: HKEY_LOCAL_MACHINE")
        order = header + '"a"="1"\n"a"="2"\n"b"="1"\n"b"=-\n[-HKLM\\Software\\Acme\\In]\n' + header[9:] + \
            "".join(f'"c"="{i}"\n' for i in range(200)) + '[hklm\\software\\acme\\in]\n"C"="end"\n"none"=-\n'
        self.expect(0, "import", "-", stdin=order.encode())
        self.expect(0, "ls", KEY + r"\In", out=b"value\tc\tREG_SZ\tend\n")
        self.expect(0, "export", KEY, out=b"Windows Registry Editor Version 5.00\n\n[" + KEY.encode() + b"]\n\n[" +
                    KEY.encode() + b'\\In]\n"c"="end"\n')
        self.expect(2, "export", KEY, FOLDER + "registry.db", err="--yes")
        self.expect(4, "export", KEY, FOLDER + "none/file", err="No such file")

    def test_an_import_that_ends_early_says_what_stands(self):
        def stands(said):  # the lines whose values are there
            lines = self.expect(0, "ls", r"HKLM\In").decode().splitlines()
            self.assertEqual((said["done"], said["total"]), (1 + len(lines) + (504 in said.get("after", ())), 3001))
            return {3 + int(line.split("\t")[1][1:]) for line in lines}
        header = "REGEDIT4\n[HKLM\\In]\n"
        lines = [f'"v{i}"="{i}"\n' for i in range(3000)]
        lines[500:502] = ["[HKLM\\" + "n" * 300 + "]\n", "[HKLM\\In]\n"]  # keys go ahead of values that wait
        status, _, err = run("import", "-", "--json", stdin=(header + "".join(lines)).encode())
        said = json.loads(err)
        self.assertEqual((status, said["line"], stands(said)), (4, 503, {*range(3, 503), *said["after"]} - {504}))
        lines[700] = '"v700"=hex(0):\n'
        self.expect(4, "import", "-", "--keep-going", stdin=(header + "".join(lines)).encode(), err="line 503: ")
        self.assertEqual(len(self.expect(0, "ls", r"HKLM\In").splitlines()), 2997 + (703 in said["after"]))
        self.expect(0, "rm", r"HKLM\In")
        with open(FOLDER + "in.reg", "w", encoding="ascii") as file:
            file.write(header + "".join(lines[502:700] + lines[701:] + lines[:500] + ['"v1"="x"\n'] * 3))
        os.kill(self.daemon.pid, signal.SIGSTOP)
        with subprocess.Popen([TOOL, "import", "--json", FOLDER + "in.reg"], stderr=subprocess.PIPE) as interrupted:
            time.sleep(0.3)
            interrupted.send_signal(signal.SIGINT)
            time.sleep(0.1)
            os.kill(self.daemon.pid, signal.SIGCONT)
            said = json.loads(interrupted.stderr.read())
        self.assertEqual((interrupted.returncode, len(stands(said))), (130, said["line"] - 2))

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
        for ending, status in (signal.SIGTERM, -signal.SIGTERM), (None, 3):  # None: --timeout
            with subprocess.Popen([TOOL, "--timeout", "2", "export", "HKLM", FOLDER + "half"],
                                  stderr=subprocess.DEVNULL) as half:
                while not [name for name in os.listdir(FOLDER) if "half.new" in name]:
                    time.sleep(0.001)
                os.kill(self.daemon.pid, signal.SIGSTOP)
                if ending:
                    half.send_signal(ending)
            os.kill(self.daemon.pid, signal.SIGCONT)
            self.assertEqual(half.returncode, status)
            self.assertEqual([name for name in os.listdir(FOLDER) if "half" in name], [])

    def test_a_tree_is_read_whole_while_it_changes(self):
        self.import_many(r"HKLM\Busy", 500)
        loop = 'while :; do "$0" rm HKLM/Busy v0; "$0" set HKLM/Busy v0 x; "$0" add HKLM/Busy/Sub; "$0" rm HKLM/Busy/Sub; done'
        with subprocess.Popen(["bash", "-c", loop, TOOL], start_new_session=True) as writer:
            try:
                for _ in range(10):
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
        with subprocess.Popen([TOOL, "watch", "HKLM/Twin", "--interval", "0.05", "--count", "4", "--json"],
                              stdout=subprocess.PIPE) as watch:
            time.sleep(0.5)
            self.expect(0, "set", "HKLM/Twin", "n", "2")
            self.assertIn(b"changed-value", watch.stdout.readline())
            self.expect(0, "rm", "HKLM/Twin/Sub")
            self.assertIn(b"removed-key", watch.stdout.readline())
            self.expect(0, "add", "HKLM/Twin/More", "-v", "v", "-d", "x")
            rest = [json.loads(line)["kind"] for line in watch.stdout]
            self.assertEqual(rest, ["added-key", "added-value"])
        self.assertEqual(watch.returncode, 0)
        self.expect(1, "compare", KEY, "HKLM/Twin", "-s", out=(
            f"changed-value\t{KEY}\tn\tREG_SZ\t1\tREG_SZ\t2\nadded-key\tHKEY_LOCAL_MACHINE\\Twin\\More\n"
            f"removed-key\t{KEY}\\Sub\n").encode())

    def test_a_reader_that_leaves_ends_it_quietly(self):
        self.import_many(r"HKLM\Many", 3000, "x" * 200)
        for verb in ("query", "export"):
            done = subprocess.run(["bash", "-c", '"$0" "$1" HKLM/Many | head -n 1', TOOL, verb],
                                  capture_output=True, timeout=60, check=False)
            self.assertEqual((done.stdout.count(b"\n"), done.stderr), (1, b""))
        full = subprocess.run(f"'{TOOL}' query HKLM/Many > /dev/full", shell=True, capture_output=True, check=False)
        self.assertEqual((full.returncode, b"No space" in full.stderr), (4, True))

    def test_completions_come_from_the_registry(self):
        self.expect(0, "set", KEY, "Some name", "1")
        for words, expected in [(["que"], "query"), (["ls", "hkl"], "HKLM/"), (["ls", "HKLM/so"], "HKLM/Software/"),
                                (["ls", "HKLM\\Software\\"], "HKLM\\Software\\Acme\\"), (["get", KEY, "so"], "Some name"),
                                (["query", KEY, "-v", ""], "Some name"), (["--json", "ls", "HKLM/so"], "HKLM/Software/"),
                                (["--timeout", "3", "--color", "al"], "always"), (["set", "-t", "reg_q"], "REG_QWORD\nREG_QWORD_LITTLE_ENDIAN"), (["set", "--ty"], "--type"), (["import", ""], "")]:
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
