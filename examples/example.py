#!/usr/bin/env python3
"""The same in Python, through ctypes: nothing but libobreg.so is needed."""

import ctypes
from ctypes import byref, c_char_p, c_uint32, c_void_p

HKEY_CURRENT_USER = c_void_p(0x80000001)
KEY_ALL_ACCESS = 0xF003F
REG_SZ = 1
SUCCESS, BUFFER_TOO_SMALL = 0, 0xC7F10007

library = ctypes.CDLL("libobreg.so")


def function(name, *types):
    found = getattr(library, name)
    found.argtypes = types
    found.restype = c_uint32
    return found


create_key = function("OBRegCreateKeyExA", c_void_p, c_char_p, c_uint32, c_void_p, c_uint32, c_uint32, c_void_p,
                      c_void_p, c_void_p)
set_value = function("OBRegSetValueExA", c_void_p, c_char_p, c_uint32, c_uint32, c_char_p, c_uint32)
query_value = function("OBRegQueryValueExA", c_void_p, c_char_p, c_void_p, c_void_p, c_char_p, c_void_p)
close_key = function("OBRegCloseKey", c_void_p)


def check(status):
    if status != SUCCESS:
        raise OSError(f"registry status {status:08X}")


def read(key, name):
    """A value's data, as long as it may be: asks again when it has grown in between."""
    room = 64
    while True:
        data, length = ctypes.create_string_buffer(room), c_uint32(room)
        status = query_value(key, name, None, None, data, byref(length))
        room = length.value
        if status != BUFFER_TOO_SMALL:
            check(status)
            return data.raw[:room]


key = c_void_p()
check(create_key(HKEY_CURRENT_USER, rb"Software\Example", 0, None, 0, KEY_ALL_ACCESS, None, byref(key), None))
title = "Feldnotizen über Vögel, und einiges mehr: Falter, Libellen, Käfer".encode() + b"\0"
check(set_value(key, b"Title", 0, REG_SZ, title, len(title)))
if read(key, b"Title") != title:
    raise SystemExit("another program has changed the title in between")
print("Title is", read(key, b"Title").rstrip(b"\0").decode())
check(close_key(key))
