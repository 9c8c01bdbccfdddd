#!/usr/bin/env python3
"""The manual against what it describes: man_test.py PAGES INCLUDES PROGRAM...

PAGES is the folder of the rendered pages and of the joined sources beside them, INCLUDES that of the headers. Every
function's page must have its declaration and its parameters, every option of the programs and of their verbs have its
line, and the examples compile.
(That there is a page for each function, and a line for each status, is code_test.py's affair.)
"""

import os
import re
import subprocess
import sys

pages, includes, *programs = sys.argv[1:]
mistakes = []


def run(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True, errors="replace").stdout


def expect(condition, mistake):
    if not condition:
        mistakes.append(mistake)


def page(name):
    """The source of a page, which must have been rendered too."""
    path = os.path.join(pages, name)
    expect(os.path.exists(path) and os.path.getsize(path) > 0, f"there is no page {name}")
    with open(path + ".scd", encoding="utf-8") as file:
        return file.read()


def section(text, heading):
    """What stands under a heading, up to the next of its rank."""
    rank = heading.split()[0]
    found = re.search(rf"^{re.escape(heading)}\n(.*?)(?=^#{{1,{len(rank)}}} |\Z)", text, re.M | re.S)
    return found.group(1) if found else ""


def code(text):
    return "\n".join(re.findall(r"^```\n(.*?)^```", text, re.M | re.S))


def squeeze(text):
    return re.sub(r"\s+", " ", text).strip()


def check_function(name, declaration):
    text = page(name + ".3")
    synopsis = code(section(text, "# SYNOPSIS"))
    example = code(section(text, "# EXAMPLE"))
    expect(squeeze(declaration) in squeeze(synopsis), f"{name}.3: the declaration is not the header's")
    for parameter in re.findall(r"(\w+)[,)]", declaration):
        expect(has_line(section(text, "# PARAMETERS"), parameter), f"{name}.3: parameter {parameter} has no line")
    expect(name in example, f"{name}.3: the example does not call it")
    check_compiles(f"{name}.3", "#include <stddef.h>\n" + synopsis.split("REGSTATUS")[0] + example)


def check_compiles(where, source):
    result = subprocess.run([os.environ.get("CC", "cc"), "-std=c99", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", "-I",
                             includes, "-xc", "-"], input=source, capture_output=True, text=True, check=False)
    expect(result.returncode == 0, f"{where}: the example does not compile:\n{result.stderr}")


def check_library():
    headers = ""
    for name in "obreg.h", "roots.h":
        with open(os.path.join(includes, "obreg", name), encoding="utf-8") as file:
            headers += file.read()
    declared = {re.search(r"(\w+)\(", text).group(1): text
                for text in re.findall(r"^OBREG_API (REGSTATUS \w+\([^;]*;)", headers, re.M)}
    expect(len(declared) == headers.count("\nOBREG_API "), "not all of the headers' functions can be found")
    for name, declaration in declared.items():
        check_function(name, declaration)

    overview = page("obreg.7")
    for name in re.findall(r"#define ((?:REG_|HKEY_|OBREG_STATUS_)\w+) ", headers):
        expect(f"*{name}*" in overview or name.endswith("_KEY"), f"obreg.7: {name} is missing")
    check_compiles("obreg.7", code(section(overview, "# DESCRIPTION")))


def options_in(help_text):
    """The options that a help text lists: the words with dashes at the beginnings of its lines."""
    options = set()
    for line in re.findall(r"^\s+(-.*)", help_text, re.M):
        names = re.match(r"-[\w-]*(?:,\s*-[\w-]+)*", line).group(0)
        options.update(re.split(r",\s*", names))
    return options


def has_line(text, option):
    return re.search(rf"^\t*\*(?:.*[ *])?{re.escape(option)}\*", text, re.M)


def check_program(program):
    name = os.path.basename(program)
    text = page(f"{name}.8" if name.endswith("d") else f"{name}.1")
    help_text = run(program, "--help")
    everywhere = section(text, "# OPTIONS")
    options = options_in(help_text)
    expect("--help" in options, f"{name} --help: the options cannot be found")
    expect(re.fullmatch(rf"{name} \d+\.\d+\.\d+\n", run(program, "--version")), f"{name} --version: no version")
    for option in options:
        expect(has_line(everywhere, option), f"{name}: {option} has no line under OPTIONS")
    verbs = re.findall(r"^  (\w+)(?:,| )", help_text.partition("Subcommands:")[2], re.M)
    for verb in verbs:
        own = section(text, f"## {verb}")
        expect(own.strip(), f"{name}: the verb {verb} has no section")
        for option in options_in(run(program, verb, "--help")):
            expect(has_line(own + everywhere, option), f"{name} {verb}: {option} has no line")
    return f"{name}: {len(verbs)} verbs"


check_library()
checked = [check_program(program) for program in programs]
page("obreg-reg.5")
print("\n".join(mistakes or [f"the manual is complete; {', '.join(checked)}"]))
sys.exit(bool(mistakes))
