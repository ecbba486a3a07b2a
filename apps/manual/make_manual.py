#!/usr/bin/env python3
"""Makes a program's manual pages and shell completions from what it says with --help.

Usage: make_manual.py FOLDER NAME PROGRAM…

Asks PROGRAM (with an emulator in front of it or not), which is installed as NAME, for the help of each of its commands,
and writes FOLDER/man/man1/*.1 and FOLDER/{bash,zsh,fish}/*.
"""
import os
import pathlib
import sys

sys.dont_write_bytecode = True  # nothing is left in the source tree

import completions  # noqa: E402
import help_text  # noqa: E402
import man_pages  # noqa: E402


def main():
    if len(sys.argv) < 4:
        raise SystemExit(__doc__)
    folder, name, program = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3:]
    os.environ |= {"LC_ALL": "C.UTF-8", "LANGUAGE": ""}
    described = help_text.read_program(program, name)
    version = help_text.ask(program, "--version").strip()
    files = {f"man/man1/{page}": text for page, text in man_pages.man_pages(described, version).items()}
    files |= completions.completions(described)
    for path, text in files.items():
        (folder / path).parent.mkdir(parents=True, exist_ok=True)
        (folder / path).write_text(text, encoding="utf-8")


main()
