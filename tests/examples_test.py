#!/usr/bin/env python3
"""The examples and what README and docs show, run as a reader would:
examples_test.py OBREGD SOURCES LIBRARY PROGRAM...

PROGRAMs are the built examples. The pages' blocks in C, C++ and Python are built and run, their console blocks typed
line by line, and what they print compared. Runs in a mount namespace of its own (in-namespace.sh).
"""
import os
import re
import struct
import subprocess
import sys
import tempfile

daemon, sources, library, *programs = sys.argv[1:]
folder = os.path.dirname(library)
with open(library, "rb") as elf:
    bits = {1: 32, 2: 64}[elf.read(5)[4]]
text = ""
for page in "README.md", "docs/library.md", "docs/shell.md":
    with open(os.path.join(sources, page), encoding="utf-8") as file:
        text += file.read()

work = tempfile.TemporaryDirectory()
os.chdir(work.name)
os.environ["LD_LIBRARY_PATH"] = folder
os.environ["PATH"] = folder + ":" + os.path.dirname(daemon) + ":" + os.environ["PATH"]


def run(*words):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60, check=False, text=True)
    if done.returncode != 0:
        sys.exit(f"{' '.join(words)} ends with {done.returncode}:\n{done.stdout}")
    return done.stdout


def blocks(language):
    found = re.findall(rf"^```{language}\n(.*?)^```", text, re.M | re.S)
    if not found:
        sys.exit(f"the pages have no block in {language}")
    return found


def compile_and_run(block, compiler, suffix, standard):
    with open("block" + suffix, "w", encoding="utf-8") as file:
        file.write(block)
    run(compiler, f"-m{bits}", "-std=" + standard, "-Wall", "-Wextra", "-Werror", "block" + suffix,
        "-I" + os.path.join(sources, "include"), "-L" + folder, "-lobreg", "-o", "block")
    run("./block")


def type_in(block):
    """Commands after "$ ", each with the lines that it prints."""
    for command, expected in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.M):
        printed = run("sh", "-c", command)
        if printed != expected:
            sys.exit(f"{command}\nprints\n{printed}and should print\n{expected}")


def run_watch(*words):
    """One that watches what the first example writes."""
    with subprocess.Popen([*words, "1"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as watch:
        if "watching" not in watch.stdout.readline():
            sys.exit(f"{words} does not watch")
        run(programs[0])
        told = watch.communicate(timeout=20)[0]
        if not re.fullmatch(r"\d+.*set\s.*Title\n", told) or watch.returncode != 0:
            sys.exit(f"{words} ends with {watch.returncode} and says\n{told}")


with subprocess.Popen([daemon], stderr=subprocess.PIPE) as process:
    if not any(b"listening on" in line for line in process.stderr):
        sys.exit("the daemon does not come up")
    try:
        for program in programs:
            if "watch" in program.rsplit("/", 1)[-1]:
                run_watch(program)
            else:
                print(run(program))
        for one in blocks("c"):
            compile_and_run(one, "cc", ".c", "c99")
        for one in blocks("cpp"):
            compile_and_run(one, "c++", ".cpp", "c++17")
        if struct.calcsize("P") * 8 == bits:
            print(run(sys.executable, os.path.join(sources, "examples", "example.py")))
            run_watch(sys.executable, os.path.join(sources, "examples", "watch.py"))
            for one in blocks("python"):
                run(sys.executable, "-c", one)
        for one in blocks("console"):
            type_in(one)
    finally:
        process.terminate()
