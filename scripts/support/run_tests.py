#!/usr/bin/env python3
"""Runs a build's tests and counts them.

Runs ctest on the given build folder and, with --e2e, the files *_test.py of that folder (unittest
style) against the build's vesk; with --only of that alone, those whose names hold one of some words.
Prints what failed and closes with "N passed, N failed".
"""
import argparse
import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

JOBS = max(2, os.cpu_count() or 2)
E2E_FILE_SECONDS = 1200


class Tally:
    """Counts of tests, and the names of those that failed."""

    def __init__(self):
        self.passed = 0
        self.skipped = []
        self.failed = []

    def add(self, other):
        self.passed += other.passed
        self.skipped += other.skipped
        self.failed += other.failed


def run_ctest(build, rooms, without):
    """Runs the build's ctest; its own output goes to standard output."""
    tally = Tally()
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder) / "report.xml"
        command = ["ctest", "--test-dir", build, "--output-on-failure", "--no-tests=error", "-j", str(JOBS), "--progress",
                   "--output-junit", str(report)]
        if rooms:
            command += ["-R", "^(" + "|".join(rooms) + ")/"]
        if without:
            command += ["-E", without]
        status = subprocess.run(command, stdin=subprocess.DEVNULL).returncode
        if report.exists():
            for case in xml.etree.ElementTree.parse(report).getroot().iter("testcase"):
                kind = case.get("status")
                if kind == "run":
                    tally.passed += 1
                elif case.find("skipped") is not None and kind != "fail":
                    tally.skipped.append(case.get("name"))
                else:
                    tally.failed.append(case.get("name"))
    if status != 0 and not tally.failed:
        tally.failed.append(f"ctest (exit status {status})")
    return tally


def run_one_e2e_file(path):
    """Runs one file in this process and prints its counts as JSON on the last line."""
    sys.path.insert(0, str(path.parent))
    suite = unittest.defaultTestLoader.discover(str(path.parent), pattern=path.name)
    result = unittest.TextTestRunner(stream=sys.stderr, verbosity=2).run(suite)
    # A test with several failing subtests counts once.
    failed = {str(getattr(test, "test_case", test)) for test, _ in result.failures + result.errors}
    failed |= {str(test) for test in result.unexpectedSuccesses}
    skipped = [str(test) for test, _ in result.skipped]
    passed = max(0, result.testsRun - len(skipped) - len([name for name in failed]))
    print(json.dumps({"passed": passed, "skipped": skipped, "failed": sorted(failed)}))


def run_e2e(folder, build, words, jobs):
    environment = {**os.environ, "VESK_PROGRAM": str(pathlib.Path(build).resolve() / "apps/vesk"),
                   "PYTHONDONTWRITEBYTECODE": "1"}

    def run(path):
        tally = Tally()
        try:
            done = subprocess.run([sys.executable, __file__, "--e2e-file", path], stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, errors="replace", env=environment,
                                  timeout=E2E_FILE_SECONDS)
            counts = json.loads(done.stdout.splitlines()[-1])
        except (subprocess.TimeoutExpired, IndexError, ValueError) as error:
            tally.failed.append(f"{path}: {type(error).__name__}")
            return tally, ""
        tally.passed = counts["passed"]
        tally.skipped = [f"{path.name}: {name}" for name in counts["skipped"]]
        tally.failed = [f"{path.name}: {name}" for name in counts["failed"]]
        if tally.passed == 0 and not tally.failed and not tally.skipped:
            tally.failed.append(f"{path.name}: no tests")
        return tally, done.stderr if tally.failed else ""

    total = Tally()
    files = [path for path in sorted(pathlib.Path(folder).glob("*_test.py"))
             if not words or any(word in path.name for word in words)]
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for tally, output in pool.map(run, files):
            if output:
                print(output)
            total.add(tally)
    return total


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", nargs="?", help="the build folder")
    parser.add_argument("--rooms", default="", help="only the tests of these rooms")
    parser.add_argument("--without", default="", metavar="REGEX", help="leave out tests whose names hold a match")
    parser.add_argument("--e2e", metavar="FOLDER", help="also the Python tests in this folder")
    parser.add_argument("--only", metavar="WORDS", help="only the files of that folder with such a word in their name")
    parser.add_argument("--jobs", type=int, default=JOBS, help="how many of them run at once")
    parser.add_argument("--e2e-file", type=pathlib.Path, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.e2e_file:
        run_one_e2e_file(options.e2e_file.resolve())
        return 0

    tally = Tally() if options.only is not None else run_ctest(options.build, options.rooms.split(), options.without)
    if options.e2e:
        tally.add(run_e2e(options.e2e, options.build, (options.only or "").split(), options.jobs))
    for name in tally.skipped:
        print(f"skipped: {name}")
    for name in tally.failed:
        print(f"failed: {name}")
    print(f"{tally.passed} passed, {len(tally.failed)} failed", flush=True)
    return 1 if tally.failed or tally.passed == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
