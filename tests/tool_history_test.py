#!/usr/bin/env python3
"""What the program obreg tells of the past and takes back: log, blame, undo. Environment as for tool_verbs_test.py."""
import unittest
from random import Random

import tool_verbs_test as tool

KEY = tool.KEY


class History(tool.WithDaemon):
    def history(self, *words):
        """What log says, without when it was and of which process."""
        lines = self.expect(0, "log", *words).decode().splitlines()
        return [line.split("\t")[:1] + line.split("\t")[6:] for line in lines]

    def last(self, *words):
        return self.expect(0, "log", "-n", "1", *words).decode().split("\t")[1]

    def test_log_blame_and_undo(self):
        self.restart("--secret=HKLM/Software/*/Passwords")
        passwords = KEY + r"\Passwords"
        for words in (KEY, "n", "1"), (KEY, "n", "2"), (passwords, "p", "s1"), (passwords, "p", "s2"):
            self.expect(0, "set", *words)
        made = self.last()
        self.expect(0, "rm", KEY, "N")
        secret = ["REG_SZ", r"\secret"]
        self.assertEqual(self.history("HKLM/Software"), [
            ["value-deleted", KEY, "n", "REG_SZ", "2", "-", r"\absent"], ["value-set", passwords, "p", *secret, *secret],
            ["value-set", passwords, "p", "-", r"\absent", *secret], ["key-made", passwords],
            ["value-set", KEY, "n", "REG_SZ", "1", "REG_SZ", "2"], ["value-set", KEY, "n", "-", r"\absent", "REG_SZ", "1"],
            ["key-made", KEY], ["key-made", r"HKEY_LOCAL_MACHINE\Software"]])
        for words, count in [((KEY, "--no-subkeys"), 5), (("-v", "P"), 2), (("--until", "3"), 3), (("--since", made), 2),
                             (("--since", "2001-02-03 04:05"), 8), (("--until", "10m"), 0), (("--user", "root"), 8),
                             (("--user", "12345"), 0), (("-n", "3"), 3), ((KEY + r"\None",), 0)]:
            self.assertEqual(len(self.history(*words)), count, words)
        for words in ["log", "--since", "soon"], ["log", "--user", "no such user"], ["undo", "n"]:
            self.expect(2, *words, err="")
        shown = tool.on_terminal("log", "HKLM", "-v", "n", color=False)[1].splitlines()
        self.assertEqual(shown[1:3] + shown[5:8], [f"  {KEY}  n", "  - REG_SZ     2", f"  {KEY}  n", "  - REG_SZ     1", "  + REG_SZ     2"])
        self.expect(0, "undo", self.last())
        self.expect(0, "get", KEY, "n", out=b"2\n")
        self.expect(6, "undo", "4", err="change")  # n = 2, which was changed again
        self.expect(6, "undo", "2", err="sub-keys now")
        self.expect(4, "undo", made, err="secret")
        self.expect(1, "undo", "999", err="no change 999")
        self.expect(0, "rm", passwords, "p")
        self.expect(0, "add", KEY + r"\Other\Sub", "-v", "v", "-d", "x")
        before = self.expect(0, "export", KEY)
        blamed = [line.split("\t") for line in self.expect(0, "blame", KEY).decode().splitlines()]
        self.assertEqual([(line[3], *line[5:]) for line in blamed], [("root", KEY, "n", "REG_SZ", "2")])
        now = self.last()
        self.expect(0, "delete", KEY, "-y")
        added = self.expect(0, "undo", self.last(), "--dry-run")
        self.assertEqual(added.count(b"added-"), 6)
        self.expect(0, "undo", self.last())
        self.assertEqual(self.expect(0, "export", KEY), before)
        self.expect(0, "rm", KEY, "n")
        self.expect(0, "undo", KEY, "--to", now)
        self.assertEqual(self.expect(0, "export", KEY), before)

    def test_undo_to_any_number_gives_back_what_was_then(self):
        random = Random(14)
        states = {}
        for _ in range(60 // tool.SLOWER):
            key = "HKLM/Run" + "".join("/" + random.choice("ab") for _ in range(random.randrange(3)))
            change = random.choice([["set", key, random.choice("vwVW@"), random.choice("12"), "--force-type"], ["add", key],
                                    ["rm", key, "-y"], ["rm", key, "v"], ["set", key, "w", "0A", "-t", "binary", "--force-type"]])
            tool.run(*change)
            states[self.last()] = tool.run("export", "HKLM/Run")[1]
        for number in random.sample(list(states), min(12, len(states))) + ["2"]:
            expected = states.get(number, b"")
            before = self.last()
            self.expect(0, "undo", "HKLM/Run", "--to", number)
            self.assertEqual(tool.run("export", "HKLM/Run")[1], expected, number)
            self.expect(0, "undo", "HKLM/Run", "--to", before)
            self.assertEqual(tool.run("export", "HKLM/Run")[1], states[max(states, key=int)])


if __name__ == "__main__":
    unittest.main()
