#!/usr/bin/env python3
"""The same in Python, through ctypes, in a thread: watch.py [COUNT] ends after COUNT changes."""

import ctypes
import queue
import sys
import threading
import time
from ctypes import byref, c_char_p, c_uint32, c_void_p

HKEY_CURRENT_USER, HKEY_DYN_DATA = c_void_p(0x80000001), c_void_p(0x80000006)
KEY_READ = 0x20019
SUCCESS, BUFFER_TOO_SMALL, REQUEST_FAILED = 0, 0xC7F10007, 0xC7F10001

registry = ctypes.CDLL("libobreg.so")  # a call lets Python's other threads run
for name in "OBRegOpenKeyExA", "OBRegCreateKeyExA", "OBRegQueryValueExA":
    getattr(registry, name).restype = c_uint32


def check(status):
    if status != SUCCESS:
        raise OSError(f"registry status {status:08X}")


def ask(changes, question):
    """The answer's strings; waits until there is something to tell."""
    room = 1024
    while True:
        data, length = ctypes.create_string_buffer(room), c_uint32(room)
        status = registry.OBRegQueryValueExA(changes, c_char_p(question.encode()), None, None, data, byref(length))
        room = length.value
        if status == REQUEST_FAILED:  # the daemon is away
            time.sleep(1)
        elif status != BUFFER_TOO_SMALL:
            check(status)
            return data.raw[:length.value].decode(errors="replace").rstrip("\0").split("\0")


def watch(key, take):
    """Calls take(number, kind, path, name) for each change; take(None, ...) when changes are missing."""
    changes = c_void_p()
    check(registry.OBRegOpenKeyExA(HKEY_DYN_DATA, b"Changes", 0, KEY_READ, byref(changes)))
    since = ask(changes, f"{key.value:x} now 0 tree")[0]
    take("watching", "", "", "")
    while True:
        number, *lines = ask(changes, f"{key.value:x} {since} 60000 tree")
        since, _, lost = number.partition(" ")
        if lost:
            take(None, "", "", "")
        for line in lines:
            take(*line.split("\t"))


own = c_void_p()
check(registry.OBRegCreateKeyExA(HKEY_CURRENT_USER, rb"Software\Example", 0, None, 0, KEY_READ, None, byref(own), None))
told = queue.Queue()
threading.Thread(target=watch, args=(own, lambda *change: told.put(change)), daemon=True).start()
left = int(sys.argv[1]) + 1 if len(sys.argv) > 1 else -1  # and the first line
while left != 0:
    print(*told.get(), flush=True)  # a program would do other things meanwhile
    left -= 1
