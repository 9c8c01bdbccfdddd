#!/usr/bin/env python3
"""The code against its own rules, those of HACKING.md: code_test.py LIBRARY"""
import os
import re
import subprocess
import sys
from fnmatch import fnmatch

library = os.path.abspath(sys.argv[1])
os.chdir(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SHARED = "obreg/ platform.h common/"
STREAMS = "standardstreams.h"
TOP = " ".join(f"daemon/{name}.h" for name in ("figures", "files", "log", "options", "tree"))
ROOMS = {  # each folder of the product, and all that it may include of ours: folders and files
    "obreg": "obreg/", "": "none", "common": SHARED, "client": f"{SHARED} client/", "regtext": "obreg/ regtext/",
    "tool": f"obreg/ tool/ regtext/ {STREAMS}",
    "daemon": f"{SHARED} daemon/ regtext/ {STREAMS}", "daemon/serve": f"{SHARED} daemon/ regtext/", "daemon/engine": f"{SHARED} daemon/ regtext/", "etcd": "daemon/engine/engine.h etcd/",
    "daemon/store": f"{SHARED} {TOP} daemon/store/ daemon/govern/", "daemon/govern": f"{SHARED} {TOP} daemon/govern/",
}
INSIDE = {"IpcInit", "IpcShutdown", "OBRegForkHandler", "ReqReply", "getCChannel"}  # visible, but nobody's to call
INCLUDE_FOLDERS = ("include", "registry/linux", "registry/linux/tool", "tests")
mistakes, texts, used = [], {}, {"README.md"}


def expect(condition, mistake):
    mistakes.extend([] if condition else [mistake])


if not os.path.exists(".git"):
    sys.exit(77)  # skipped: only git knows which files are ours
for path in subprocess.check_output(["git", "-c", "safe.directory=*", "ls-files"], text=True).split():
    if path[0] != "." and "/seeds/" not in path and os.path.exists(path):
        with open(path, encoding="utf-8", errors="replace") as file:
            texts[path] = file.read()
for path, text in texts.items():
    folder, room = os.path.dirname(path), re.match("(?:include|registry/linux)/(?:(.*)/)?", path)
    expect(text.count("\n") < 500 or path.endswith((".md", ".svg")), f"{path} has 500 lines or more")
    for name in re.findall(r'^#include ["<](.*)[">]', text, re.M):
        meant = (os.path.normpath(os.path.join(place, name)) for place in (folder, *INCLUDE_FOLDERS))
        target = next((file for file in meant if file in texts), path)  # or it is not ours
        used.update({target} - {path})
        allowed = tuple(ROOMS.get(room[1] or "", "").split()) if room and target != path else ""
        expect(re.sub("^(include|registry/linux)/", "", target).startswith(allowed), f"{path} may not include {target}")
    for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", text) if path.endswith(".md") else ():
        used.add(os.path.normpath(os.path.join(folder, link)))
        expect(os.path.exists(os.path.join(folder, link)), f"{path}: there is no {link}")
forms = re.findall(r"\${name}[\w.]+", "".join(texts[path] for path in texts if path.endswith("CMakeLists.txt")))
for path, text in texts.items():
    folder, name = os.path.split(path)
    if path.endswith((".c", ".cpp")):
        while folder and f"{folder}/CMakeLists.txt" not in texts:
            folder = os.path.dirname(folder)
        words = re.findall(r'[^\s()"]+', own := texts[os.path.join(folder, "CMakeLists.txt")])
        words += [form.replace("${name}", call) for call in re.findall(r"obreg_\w+\((\w+)", own) for form in forms]
        expect(any(fnmatch(os.path.relpath(path, folder), word) for word in words), f"{path} is in no CMakeLists.txt")
    elif path.endswith((".h", ".hpp", ".md")):
        expect(path in used, f"{path} is included, or linked, by nothing")
    elif os.access(path, os.X_OK) or path.endswith((".sh", ".py")):
        call = name if re.search("[-_.]", name) else f"{os.path.basename(folder) or '.'}/{name}"
        expect(any(call in other for at, other in texts.items() if at != path), f"{path} is named nowhere")

elf = subprocess.check_output(["readelf", "-dW", "--dyn-syms", library], text=True)
expect("soname: [libobreg.so]" in elf, "the library's soname is not libobreg.so")
headers = {path: set(re.findall(r"^OBREG_API [^;(]*?(\w+)[;(]", text, re.M)) for path, text in texts.items()}
functions, declared = headers["include/obreg/obreg.h"], set().union(*headers.values())
for where, names, expected in (
        ("exported", set(re.findall(r" DEFAULT +\d+ (\S+)$", elf, re.M)), declared),
        ("libobreg.map", set(re.findall(r"^ +(\w+);", texts["registry/linux/client/libobreg.map"], re.M)), declared),
        ("the manual's pages", {name[:-4] for name in os.listdir("docs/man/functions")}, functions),
        ("obreg.7", set(re.findall(r"\*(OBReg\w+)\*\(3\)", texts["docs/man/obreg.7.scd"])), functions),
        ("docs/library.md", {name for name in declared if f"{name}`" in texts["docs/library.md"]},
         declared - functions - INSIDE)):
    expect(names == expected, f"{where}: {sorted(names - expected)} too much, {sorted(expected - names)} missing")
statuses = re.findall(r"define OBREG_STATUS_(\w+) .*(0x\w+)u", "".join(texts[p] for p in texts if "/obreg/" in p))
for name, value in statuses:
    for where, words in (("include/obreg/status.hpp", f'{{OBREG_STATUS_{name}, "{name}",'),
                         ("docs/man/common/statuses.txt", f"\n{name} {value} "),
                         ("docs/library.md", f"\n| {value} | `OBREG_STATUS_{name}` |"),
                         ("docs/daemon.md", f"`OBREG_STATUS_{name}`" if value.startswith("0xC7F2") else "")):
        expect(words in texts[where], f"{where}: {name} {value} is missing")
LOGGED = r"\b(?:logLine|warn|cutOff|enter|writeText)\(((?:(?!LOG_NOTICE|LOG_DEBUG)[^;\"])*\".*?)\);"
for path, text in texts.items():  # what stays the same in the texts of warnings and errors
    for call in re.findall(LOGGED, text, re.S) if "/daemon/" in path and path.endswith(".cpp") else ():
        for piece in re.split(r"%\w*|\0", "\0".join(re.findall('"(.*?)"', re.sub(r'"\s+(?:PRIu64\s+)?"', "", call)))):
            expect(piece.strip(" :;()") in texts["docs/log-messages.md"], f"docs/log-messages.md lacks {path}: {piece}")
print("\n".join(mistakes) or f"{len(texts)} files, {len(declared)} exported names, {len(statuses)} statuses")
sys.exit(bool(mistakes))
