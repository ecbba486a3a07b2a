#!/usr/bin/env python3
"""Runs a build's tests and counts them.

Runs ctest on the given build folder and, with --e2e, the files *_test.py of that folder (unittest
style) against the build's vesk; with --only of that alone, those whose names hold one of some words.
With --repeat, each test runs so many times, shuffled, and passes when it did so every time; with --load,
busy loops run beside them. Prints what failed and closes with "N passed, N failed".
"""
import argparse
import concurrent.futures
import contextlib
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

import repeat_tests

JOBS = max(2, os.cpu_count() or 2)
E2E_FILE_SECONDS = 1200
# Some files need modules of Debian's packages, which another Python that comes first does not see.
DEBIANS_PYTHON = "/usr/bin/python3"
# Who sees only the end of a run is to learn why tests failed.
REPEATED_TESTS = 4
REPEATED_LINES = 12
FIRST_SIGN = re.compile(r": Failure$|ERROR: |WARNING: ThreadSanitizer|runtime error: |Assertion|terminate called|^(FAIL|ERROR): ")


class Tally:
    """Counts of tests, and the names of those that failed."""

    def __init__(self):
        self.passed = 0
        self.skipped = []
        self.failed = []
        self.reasons = []  # what failing tests said

    def add(self, other):
        self.passed += other.passed
        self.skipped += other.skipped
        self.failed += other.failed
        self.reasons += other.reasons

    @classmethod
    def of(cls, outcomes, rounds):
        """Counts each test once: it passed when it did so every time."""
        tally = cls()
        tally.passed = len(outcomes.passed.keys() - outcomes.failed.keys())
        tally.skipped = sorted(outcomes.skipped.keys() - outcomes.passed.keys() - outcomes.failed.keys())
        times = [f" ({count} of {rounds} times)" if rounds > 1 else "" for _, count in sorted(outcomes.failed.items())]
        tally.failed = [name + time for name, time in zip(sorted(outcomes.failed), times)]
        return tally


def reason_in(text):
    """The lines of what a failing test said that tell why: from the first sign of it on, or the last ones."""
    lines = text.splitlines()
    first = next((number for number, line in enumerate(lines) if FIRST_SIGN.search(line)), -REPEATED_LINES)
    return lines[first:][:REPEATED_LINES]


def run_ctest(build, modules, without):
    """Runs the build's ctest; its own output goes to standard output."""
    tally = Tally()
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder) / "report.xml"
        command = ["ctest", "--test-dir", build, "--output-on-failure", "--no-tests=error", "-j", str(JOBS), "--progress",
                   "--output-junit", str(report)]
        if modules:
            command += ["-R", "^(" + "|".join(modules) + ")/"]
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
                    tally.reasons.append(case.findtext("system-out") or "")
    if status != 0 and not tally.failed:
        tally.failed.append(f"ctest (exit status {status})")
    return tally


def run_repeated(build, modules, without, rounds):
    """Runs every test of the build's test programs so many times."""
    outcomes = repeat_tests.run(build, modules, without, rounds, JOBS)
    for text in outcomes.texts:
        print(text)
    tally = Tally.of(outcomes, rounds)
    if tally.passed == 0 and not tally.failed:
        tally.failed.append("no tests")
    return tally


@contextlib.contextmanager
def load(loops):
    """Busy loops beside what runs in it, which end with this process."""
    beside = "import os\nparent = os.getppid()\nwhile os.getppid() == parent:\n  for i in range(10**6): pass"
    processes = [subprocess.Popen([sys.executable, "-c", beside], stdin=subprocess.DEVNULL) for _ in range(loops)]
    try:
        yield
    finally:
        for process in processes:
            process.kill()
            process.wait()


def shuffle(suite):
    """The suite with the tests of each class in any order."""
    parts = [shuffle(part) if isinstance(part, unittest.TestSuite) else part for part in suite]
    random.shuffle(parts)
    return type(suite)(parts)


def names_of(suite):
    for part in suite:
        if isinstance(part, unittest.TestSuite):
            yield from names_of(part)
        else:
            yield str(part)


def run_one_e2e_file(path, shuffled):
    """Runs one file in this process and prints its counts as JSON on the last line."""
    sys.path.insert(0, str(path.parent))
    suite = unittest.defaultTestLoader.discover(str(path.parent), pattern=path.name)
    if shuffled:
        suite = shuffle(suite)
    names = set(names_of(suite))
    result = unittest.TextTestRunner(stream=sys.stderr, verbosity=2).run(suite)
    # A test with several failing subtests counts once.
    failed = {str(getattr(test, "test_case", test)) for test, _ in result.failures + result.errors}
    failed |= {str(test) for test in result.unexpectedSuccesses}
    skipped = {str(test) for test, _ in result.skipped}
    print(json.dumps({"passed": sorted(names - skipped - failed), "skipped": sorted(skipped), "failed": sorted(failed)}))


def run_e2e(folder, build, words, jobs, rounds=1):
    """Runs the files of that folder, each so many times; what failing ones say goes to standard output."""
    environment = {**os.environ, "VESK_PROGRAM": str(pathlib.Path(build).resolve() / "apps/vesk"),
                   "PYTHONDONTWRITEBYTECODE": "1"}
    outcomes = repeat_tests.Outcomes()

    def run(path):
        command = [DEBIANS_PYTHON if os.path.exists(DEBIANS_PYTHON) else sys.executable, __file__, "--e2e-file", path, "--repeat", str(rounds)]
        try:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
                                  env=environment, timeout=E2E_FILE_SECONDS)
            counts = json.loads(done.stdout.splitlines()[-1])
        except (subprocess.TimeoutExpired, IndexError, ValueError) as error:
            return path, {"failed": [type(error).__name__]}, ""
        if not any(counts.values()):
            counts["failed"].append("no tests")
        return path, counts, done.stderr

    files = [path for path in sorted(pathlib.Path(folder).glob("*_test.py"))
             if not words or any(word in path.name for word in words)]
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for path, counts, said in pool.map(run, files * rounds):
            if counts["failed"]:
                print(said)
                outcomes.texts.append(said)
            for kind, names in counts.items():
                getattr(outcomes, kind).update(f"{path.name}: {name}" for name in names)
    tally = Tally.of(outcomes, rounds)
    tally.reasons = outcomes.texts
    return tally


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", nargs="?", help="the build folder")
    parser.add_argument("--modules", default="", help="only the tests of these modules")
    parser.add_argument("--without", default="", metavar="REGEX", help="leave out tests whose names hold a match")
    parser.add_argument("--e2e", metavar="FOLDER", help="also the Python tests in this folder")
    parser.add_argument("--only", metavar="WORDS", help="only the files of that folder with such a word in their name")
    parser.add_argument("--jobs", type=int, default=JOBS, help="how many of them run at once")
    parser.add_argument("--repeat", type=int, default=1, metavar="N", help="run each test so many times, shuffled")
    parser.add_argument("--repeat-e2e", type=int, metavar="N", help="and those of the folder so many times")
    parser.add_argument("--load", action="store_true", help="busy loops beside the tests, one for each processor")
    parser.add_argument("--e2e-file", type=pathlib.Path, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.e2e_file:
        run_one_e2e_file(options.e2e_file.resolve(), options.repeat > 1)
        return 0

    tally = Tally()
    with load(JOBS if options.load else 0):
        if options.only is None and options.repeat > 1:
            tally.add(run_repeated(options.build, options.modules.split(), options.without, options.repeat))
        elif options.only is None:
            tally.add(run_ctest(options.build, options.modules.split(), options.without))
        if options.e2e:
            rounds = options.repeat if options.repeat_e2e is None else options.repeat_e2e
            if rounds:
                tally.add(run_e2e(options.e2e, options.build, (options.only or "").split(), options.jobs, rounds))
    for text in tally.reasons[:REPEATED_TESTS]:
        print("\n".join(reason_in(text)))
    for name in tally.skipped:
        print(f"skipped: {name}")
    for name in tally.failed:
        print(f"failed: {name}")
    print(f"{tally.passed} passed, {len(tally.failed)} failed", flush=True)
    return 1 if tally.failed or tally.passed == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
