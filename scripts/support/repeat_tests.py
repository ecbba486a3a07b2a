"""Runs GoogleTest programs many times over, shuffled, in few processes.

A process for each test, as ctest has it, costs more than most tests do. Here each program runs all its
tests again and again in one process per share, several shares at a time. A process that dies or that a
test keeps for too long is counted against that test, and another goes on with the rounds that are left.
"""
import collections
import concurrent.futures
import json
import os
import pathlib
import random
import re
import select
import subprocess
import time

TEST_SECONDS = 300
RUN = re.compile(rb"^\[ RUN      \] (\S+)")
OK = re.compile(rb"^\[       OK \] (\S+)")
SKIPPED = re.compile(rb"^\[  SKIPPED \] (\S+) \(")
FAILED = re.compile(rb"^\[  FAILED  \] ([^,\s]+).* \(\d+ ms\)$")
ROUND = re.compile(rb"^Repeating all tests \(iteration (\d+)\)")
SEED = re.compile(rb"^Note: Randomizing tests' orders with a seed of (\d+)")

Program = collections.namedtuple("Program", "module path folder")


class Outcomes:
    """What became of each test, over all rounds."""

    def __init__(self):
        self.passed = collections.Counter()
        self.skipped = collections.Counter()
        self.failed = collections.Counter()
        self.texts = []  # what failing tests said

    def add(self, other):
        self.passed += other.passed
        self.skipped += other.skipped
        self.failed += other.failed
        self.texts += other.texts

    def fail(self, test, text):
        self.failed[test] += 1
        if self.failed[test] <= 3:  # more of the same helps nobody
            self.texts.append(text)


def programs(build, modules):
    """The test programs that the build's ctest knows, of these modules or of all."""
    listed = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, check=True).stdout
    found = {}
    for test in json.loads(listed)["tests"]:
        module = test["name"].split("/")[0]
        if "command" not in test or modules and module not in modules:
            continue
        folder = [each["value"] for each in test.get("properties", []) if each["name"] == "WORKING_DIRECTORY"]
        found[test["command"][0]] = Program(module, pathlib.Path(test["command"][0]), folder[0] if folder else build)
    return list(found.values())


def tests_of(program):
    """The full names of its tests."""
    listed = subprocess.run([program.path, "--gtest_list_tests"], cwd=program.folder, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, text=True, check=True).stdout
    suite = ""
    for line in listed.splitlines():
        name = line.split("#")[0].rstrip()
        if name.startswith("  "):
            yield suite + name.strip()
        elif name.endswith("."):
            suite = name


def lines_of(process):
    """The process's lines as they come; the last is None when it said nothing for too long."""
    rest = b""
    deadline = time.monotonic() + TEST_SECONDS
    while True:
        ready, _, _ = select.select([process.stdout], [], [], max(0, deadline - time.monotonic()))
        if not ready:
            yield None
            return
        data = os.read(process.stdout.fileno(), 1 << 16)
        if not data:
            break
        *lines, rest = (rest + data).split(b"\n")
        if any(RUN.match(line) for line in lines):
            deadline = time.monotonic() + TEST_SECONDS
        yield from lines
    if rest:
        yield rest


def run_share(program, excluded, rounds, share, shares):
    """Runs one share of a program's tests for so many rounds."""
    outcomes = Outcomes()
    done = 0
    while done < rounds:
        command = [program.path, "--gtest_shuffle", f"--gtest_repeat={rounds - done}", "--gtest_color=no",
                   f"--gtest_random_seed={random.randint(1, 99999)}"]
        if excluded:
            command.append("--gtest_filter=-" + ":".join(excluded))
        environment = {**os.environ, "GTEST_TOTAL_SHARDS": str(shares), "GTEST_SHARD_INDEX": str(share)}
        running = None
        said = []
        seed = "?"
        began = done
        with subprocess.Popen(command, cwd=program.folder, env=environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process:
            def failure(test, why):
                head = f"----- {program.module}/{test}: {why} (--gtest_shuffle --gtest_random_seed={seed})\n"
                outcomes.fail(f"{program.module}/{test}", head + b"\n".join(said).decode(errors="replace"))

            for line in lines_of(process):
                if line is None:
                    process.kill()
                    break
                if match := ROUND.match(line):
                    done = began + int(match[1]) - 1
                elif match := SEED.match(line):
                    seed = int(match[1])
                elif match := RUN.match(line):
                    running, said = match[1].decode(), []
                elif running and (match := OK.match(line)):
                    outcomes.passed[f"{program.module}/{running}"] += 1
                    running = None
                elif running and (match := SKIPPED.match(line)):
                    outcomes.skipped[f"{program.module}/{running}"] += 1
                    running = None
                elif running and (match := FAILED.match(line)):
                    failure(running, "failed")
                    running = None
                elif running:
                    said.append(line)
        status = process.returncode
        if running:
            failure(running, f"still running after {TEST_SECONDS} s" if status == -9 else f"ended with status {status}")
        elif status not in (0, 1) or (status == 1 and not outcomes.failed):
            said = []
            failure("(outside any test)", f"ended with status {status}")
        elif done + 1 >= rounds or status == 0:
            break
        done += 1  # of a round that broke off the rest is left out
    return outcomes


def run(build, modules, without, rounds, jobs):
    """Runs every test so many times."""
    outcomes = Outcomes()
    work = []
    pattern = re.compile(without) if without else None
    for program in programs(build, modules):
        tests = list(tests_of(program))
        excluded = [test for test in tests if pattern and pattern.search(f"{program.module}/{test}")]
        shares = max(1, min(2 * jobs, len(tests) - len(excluded)))
        work += [(program, excluded, rounds, share, shares) for share in range(shares)]
    random.shuffle(work)  # what runs beside what differs, too
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for each in concurrent.futures.as_completed(pool.submit(run_share, *item) for item in work):
            outcomes.add(each.result())
    return outcomes
