"""The manual pages and shell completions that the build makes from the program's help."""
import os
import pathlib
import pty
import re
import select
import shlex
import signal
import subprocess
import tempfile
import time
import unittest

from program import PROGRAM, TIMEOUT, tool, vesk

APPS = pathlib.Path(PROGRAM).resolve().parent
MANUAL = APPS / "manual"
CAMERA = APPS / "bin/vesk-camera"  # where the desktop's toolkit is there
PATH = f"{APPS}:{CAMERA.parent}:{os.environ['PATH']}"


def subcommands(*words):
    text = vesk(*words, "--help").stdout
    _, found, section = text.partition("Subcommands:\n")
    return re.findall(r"^  ([a-z]+) ", section.partition("\n\n")[0], re.MULTILINE) if found else []


class ManualPages(unittest.TestCase):
    def pages(self):
        pages = sorted((MANUAL / "man/man1").glob("*.1"))
        names = {page.stem for page in pages}
        expected = {"vesk"} | {f"vesk-{command}" for command in subcommands()}
        self.assertEqual(names, expected | ({"vesk-camera"} if CAMERA.exists() else set()))
        return pages

    def test_are_formatted_without_a_warning(self):
        for page in self.pages():
            for command in ("man --warnings -E UTF-8 -l -Tutf8 -Z", "groff -ww -man -Tutf8 -z"):
                done = subprocess.run([*command.split(), page], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                                      timeout=TIMEOUT, stdin=subprocess.DEVNULL)
                self.assertEqual((done.returncode, done.stderr), (0, ""), f"{command} {page.name}")
            self.assertRegex(tool("lexgrog", page), rf'^[^\n]*: "{page.stem} - [a-z]', "what apropos finds it by")

    def test_tell_all_that_the_help_tells(self):
        for page in self.pages():
            os.environ["MANWIDTH"] = "1000"  # a paragraph a line
            shown = " ".join(tool("man", "-E", "UTF-8", "-l", page).split())
            if page.stem == "vesk-camera":
                self.assert_shown(tool("env", "LC_ALL=C.UTF-8", CAMERA, "--help"), shown, page.name)
                continue
            command = page.stem.split("-")[1:]
            for words in [command] + ([[*command, action] for action in subcommands(*command)] if command else []):
                text = vesk(*words, "--help").stdout
                if words != command:  # an action stands on the page of its command, which has told of --help
                    text = re.sub(r"(?m)^  -h,--help.*\n", "", text)
                self.assert_shown(text, shown, page.name)
            self.assertIn("EXIT STATUS", shown)

    def assert_shown(self, text, shown, name):
        for line in text.splitlines():
            if line in ("Usage:", "Positionals:", "Subcommands:", "Help Options:", "Application Options:"):
                continue
            line = re.sub(r":\{.*?\}| REQUIRED|^Usage: |:$", "", line).replace("-h,-", "-h, -").replace("OPTION…", "OPTION...")
            for piece in re.split(r" {2,}", line.replace("=", " ").strip()):
                self.assertIn(piece.lower(), shown.lower(), name)


class Shell:
    """An interactive shell that shows what the Tab key makes of a line."""

    def __init__(self, case, arguments, setup, folder):
        self.case = case
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            environment = {"PATH": PATH, "HOME": str(folder), "TERM": "dumb", "LC_ALL": "C.UTF-8"}
            os.execvpe(arguments[0], arguments, environment)
        self.seen = b""
        self.setup = folder / "setup"
        self.setup.write_text(setup)
        self.type("source ./setup; echo 'rea''dy'\n")
        self.expect(rb"ready\r?\n")

    def close(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.terminal)

    def type(self, text):
        os.write(self.terminal, text.encode())

    def expect(self, pattern):
        end = time.monotonic() + 60
        while not (found := re.search(pattern, self.seen, re.DOTALL)):
            if not select.select([self.terminal], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError(f"the shell shows {self.seen!r}")
            self.seen += os.read(self.terminal, 4096)
        self.seen = self.seen[found.end():]
        return found

    def complete(self, before, word=""):
        """The words that the shell puts in place of `word`: all that fit, or with the Tab key the one that does."""
        self.type(f"\x15{before}{word}\x18{'c' if word in ('', '-') else 't'}\x18p")
        line = self.expect(rb"<<<(.*?)>>>").group(1).decode()
        self.case.assertTrue(line.startswith(before), line)
        return shlex.split(line.removeprefix(before))


BASH = r"""PS1='$ '
source /usr/share/bash-completion/bash_completion
for file in {manual}/bash/*; do source $file; done
show() {{ printf '<<<%s>>>' "$READLINE_LINE"; }}
bind '"\C-xc": insert-completions'
bind '"\C-xt": complete'
bind -x '"\C-xp": show'
bind 'set enable-bracketed-paste off'
"""
ZSH = r"""PS1='$ '
fpath=({manual}/zsh $fpath)
autoload -U compinit && compinit -u -D
all() {{ compstate[insert]=all; compstate[list]= }}
complete_all() {{ comppostfuncs=(all); _main_complete }}
zle -C complete-all complete-word complete_all
show() {{ print -rn -- "<<<$BUFFER>>>" }}
zle -N show
bindkey -e
bindkey '^Xc' complete-all
bindkey '^Xt' complete-word
bindkey '^Xp' show
unsetopt zle_bracketed_paste always_last_prompt auto_remove_slash
"""


class Completions(unittest.TestCase):
    """Each line is completed by each shell as a person would, and all give the same words."""

    CAMERAS = ["Simulated Camera", "Simulated Plain Camera"]
    MICROPHONES = ["Simulated Microphone", "Simulated Mono Microphone"]

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.path = pathlib.Path(cls.folder.name)
        (cls.path / "lesson.mov").touch()

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def check(self, complete):
        (self.path / "setup").unlink(missing_ok=True)
        commands = subcommands()
        self.assertEqual(sorted(complete("vesk ")), sorted(commands))
        for words in [[command] for command in commands] + [["controls", action] for action in subcommands("controls")]:
            section = vesk(*words, "--help").stdout.partition("Options:")[2].partition("\n\n")[0]
            options = set(re.findall(r"(?<![\w-])--[a-z][\w-]*", section))
            offered = set(complete(f"vesk {' '.join(words)} ", "-"))
            self.assertLessEqual(options | {"--capture", "--json"}, offered, words)
        if CAMERA.exists():
            self.assertEqual(sorted(complete("vesk-camera --capture simulated --camera ")), self.CAMERAS)
            self.assertEqual(complete("vesk-camera ", "--ver"), ["--version"])
        for before, word, words in (
                ("vesk ", "rese", []), ("vesk ", "res", ["resolutions"]), ("vesk --capture simulated ", "doc", ["doctor"]),
                ("vesk controls ", "ke", ["keep"]), ("vesk nudge ", "", ["left", "right", "up", "down", "reset"]),
                ("vesk --pace ", "", ["realtime", "fast"]), ("vesk --capture ", "sim", ["simulated"]),
                ("vesk --json --capture ", "file:les", ["file:lesson.mov"]), ("vesk record ", "les", ["lesson.mov"]),
                ("vesk controls load ", "les", ["lesson.mov"]), ("vesk --capture simulated record --camera ", "", self.CAMERAS),
                ("vesk --capture=simulated controls list --camera ", "", self.CAMERAS),
                ("vesk record out.mov --capture simulated --mic ", "", self.MICROPHONES),
                ("vesk --capture simulated record --camera ", "Simulated\\ P", self.CAMERAS[1:]),
                ("vesk --capture simulated record ", "--camera=Simulated\\ P", ["--camera=" + self.CAMERAS[1]]),
                ("vesk --capture simulated preview --mic ", '"Simulated Mo', self.MICROPHONES[1:])):
            with self.subTest(before + word):
                self.assertEqual(sorted(complete(before, word)), sorted(words or [word]))

    def in_terminal(self, arguments, setup):
        shell = Shell(self, arguments, setup.format(manual=shlex.quote(str(MANUAL))), self.path)
        self.addCleanup(shell.close)
        self.check(shell.complete)

    def test_bash(self):
        self.in_terminal(["bash", "--norc", "--noprofile", "-i"], BASH)

    def test_zsh(self):
        self.in_terminal(["zsh", "-f", "-i"], ZSH)

    def test_fish(self):
        environment = {"PATH": PATH, "HOME": str(self.path), "LC_ALL": "C.UTF-8"}
        script = f"for file in {shlex.quote(str(MANUAL))}/fish/*; source $file; end; complete -C $argv[1]"

        def complete(before, word=""):
            done = subprocess.run(["fish", "--no-config", "-c", script, before + word], capture_output=True, text=True,
                                  stdin=subprocess.DEVNULL, cwd=self.path, timeout=TIMEOUT, env=environment)
            self.assertEqual(done.stderr, "")
            found = [shown.split("\t")[0].replace("\\ ", " ").strip("\"'") for shown in done.stdout.splitlines()]
            return found or [word]
        self.check(complete)


if __name__ == "__main__":
    unittest.main()
