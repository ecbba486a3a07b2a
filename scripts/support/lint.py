#!/usr/bin/env python3
"""Runs clang-tidy over C++ files, several of a folder at a time.

Most of clang-tidy's time goes into the headers of the standard library and of GoogleTest, so that
files which stand together as one translation unit take a fraction of the time. What is found in such
a unit is not told but looked for again in halves of it, down to single files: names that two files
have each for itself clash in a unit, and what a file alone does not show is no fault of it. One check,
of names taken over and never used, looks at the main file only, so that files with a name that stands
nowhere else in them are given to it alone.
"""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

TIDY = "clang-tidy-14"
FILES_OF_A_UNIT = 8
USING_DECLARATION = re.compile(r"^\s*using (?!namespace)[\w:]*?(\w+);", re.MULTILINE)
NO_CODE = re.compile(r"//.*|^#include.*", re.MULTILINE)


class Linter:
    def __init__(self, root, build, folder):
        self.root = root
        self.folder = pathlib.Path(folder)
        commands = json.loads((build / "compile_commands.json").read_text())
        self.commands = {pathlib.Path(entry["file"]): entry for entry in commands}

    def tidy(self, files, checks=None):
        """What clang-tidy finds in the files as one unit: its exit status and what it says."""
        unit = files[0]
        with tempfile.TemporaryDirectory(dir=self.folder) as folder:
            entries = [self.commands[file] for file in files]
            if len(files) > 1:
                unit = pathlib.Path(folder) / "unit.cpp"
                unit.write_text("".join(f'#include "{file}"  // NOLINT: these are sources\n' for file in files))
            entry = {"file": str(unit), "directory": entries[0]["directory"],
                     "arguments": self.flags(entries) + ["-c", str(unit)]}
            (pathlib.Path(folder) / "compile_commands.json").write_text(json.dumps([entry]))
            command = [TIDY, "-p", folder, "--quiet", f"--config-file={self.root / '.clang-tidy'}"]
            if checks:
                command.append(f"--checks=-*,{checks}")
            done = subprocess.run([*command, str(unit)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  errors="replace")
        # Counts of suppressed warnings are of no interest.
        errors = [line for line in done.stderr.splitlines() if "warnings generated" not in line]
        return done.returncode, "\n".join([done.stdout.strip(), *errors]).strip()

    @staticmethod
    def flags(entries):
        """All that the files are compiled with, each once and in their order."""
        found = {}
        for entry in entries:
            words = iter(shlex.split(entry["command"])[1:])
            compiler = shlex.split(entry["command"])[0]
            for word in words:
                if word in ("-o", "-c"):
                    next(words)
                elif word in ("-isystem", "-include"):
                    found[(word, next(words))] = True
                else:
                    found[(word,)] = True
        return [compiler, *(word for group in found for word in group)]

    def findings(self, files):
        """What is wrong in these files, each looked at alone when they do not get on as one."""
        status, said = self.tidy(files)
        if status == 0:
            return []
        if len(files) == 1:
            return [said]
        middle = len(files) // 2
        return self.findings(files[:middle]) + self.findings(files[middle:])

    @staticmethod
    def may_hold_unused_names(file):
        text = NO_CODE.sub("", file.read_text())
        return any(not re.search(rf"(?<!::)\b{name}\b", text) for name in USING_DECLARATION.findall(text))

    def unused_names(self, file):
        status, said = self.tidy([file], "misc-unused-using-decls")
        return [said] if status else []

    def units(self, files):
        by_folder = collections.defaultdict(list)
        for file in files:
            by_folder[file.parent].append(file)
        for of_folder in by_folder.values():
            count = -(-len(of_folder) // FILES_OF_A_UNIT)
            for number in range(count):
                yield of_folder[number * len(of_folder) // count:(number + 1) * len(of_folder) // count]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path, help="the build folder")
    parser.add_argument("files", nargs="+", type=pathlib.Path)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        linter = Linter(pathlib.Path.cwd(), options.build, folder)
        files = [file.resolve() for file in options.files]
        unknown = [file for file in files if file not in linter.commands]
        if unknown:
            print("\n".join(f"{file} is not in the build" for file in unknown), file=sys.stderr)
            return 1
        units = list(linter.units(files))
        alone = [file for unit in units if len(unit) > 1 for file in unit if linter.may_hold_unused_names(file)]
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            found = [pool.submit(linter.findings, unit) for unit in units]
            found += [pool.submit(linter.unused_names, file) for file in alone]
            texts = dict.fromkeys(text for each in found for text in each.result())
    for text in texts:
        print(text)
    return 1 if texts else 0


if __name__ == "__main__":
    sys.exit(main())
