"""A camera that comes and goes."""
import os
import pathlib
import time

from guest import Running, plug, record, step, unplug

RAW = ("--format", "2vuy:640x480", "--no-audio")
CYCLES = 4


@step
def watched():
    """What is told while nothing is captured, and what the program holds open before and after."""
    running = Running("--json", "devices", "--watch")
    running.wait_for_text('"microphones"')
    held = lambda: len(os.listdir(f"/proc/{running.process.pid}/fd"))
    before = held()
    for cycle in range(1, CYCLES + 1):
        unplug()
        running.wait_for(lambda: running.out.count('"removed"') >= 2 * cycle, "camera and microphone to be told gone")
        plug()
        running.wait_for(lambda: running.out.count('"added"') >= 2 * cycle, "camera and microphone to be told there")
    time.sleep(1)  # what is told twice comes late
    after = held()
    return {**running.interrupt(), "held": [before, after]}


@step
def gone():
    """Unplugged while it is recorded."""
    def pull(running):
        unplug()
        return True
    return record("gone", "--format", "2vuy:640x480", pictures=30, meanwhile=pull)


@step
def refused():
    """There is no camera now."""
    running = Running("--json", "record", "/tmp/none.mov")
    answer = running.end()
    return {**answer, "left": [str(path) for path in pathlib.Path("/tmp").glob("none*")]}


@step
def waited():
    """Recorded from before it comes, and beyond its going, with its microphone."""
    def come(running):
        running.wait_for_text('"waiting"')
        plug()

    def lose(running):
        unplug()
        running.wait_for(lambda: running.out.count('"waiting"') == 2, "waiting to be told")
        running.count_anew()
        plug()
    return record("waited", "--wait", "--format", "2vuy:640x480", pictures=20, before=come, meanwhile=lose)
