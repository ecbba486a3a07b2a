"""Reads what a program says about itself with --help: of the command line parsers of vesk and of vesk-camera."""
import dataclasses
import re
import subprocess


@dataclasses.dataclass
class Entry:
    """A line of a section: an option, an argument, a command, an example, with what is said about it."""

    head: str
    about: str

    @property
    def flags(self):
        """The spellings of an option: -h and --help."""
        return re.findall(r"(?<![\w-])--?[A-Za-z][\w-]*", self.head)

    @property
    def choices(self):
        """The words that its value can be, when there are only some: those of {left,right}."""
        found = re.search(r"\{([^}]*)\}", self.head)
        return found.group(1).split(",") if found else []

    @property
    def value(self):
        """What the help calls its value; empty for a switch."""
        text = re.sub(r"\{[^}]*\}|\bREQUIRED\b|:", "", self.head)
        for flag in self.flags:
            text = re.sub(rf"(?<![\w-]){re.escape(flag)}(?![\w-])", "", text)
        return text.strip(" ,=")


@dataclasses.dataclass
class Command:
    """A program, or a command of one."""

    words: list  # ["vesk", "controls", "set"]
    about: str = ""
    usage: str = ""
    notes: list = dataclasses.field(default_factory=list)  # paragraphs
    sections: dict = dataclasses.field(default_factory=dict)  # title: entries, in order
    commands: list = dataclasses.field(default_factory=list)

    @property
    def options(self):
        return [entry for title, entries in self.sections.items() if "Options" in title for entry in entries]

    @property
    def arguments(self):
        return self.sections.get("Positionals", [])


def read_entries(lines):
    """The entries of a section, whose second column begins at the same place in each line."""
    starts = [found.end() - 1 for found in (re.search(r"\S {2,}\S", line) for line in lines) if found]
    starts += [len(line) - len(line.lstrip()) for line in lines if line.startswith(" " * 8)]
    column = max(set(starts), key=starts.count) if starts else None
    entries = []
    for line in lines:
        is_split = column and line[column - 1:column] == " " and len(line) > column
        head, about = (line[:column].strip(), line[column:].strip()) if is_split else (line.strip(), "")
        if head:
            entries.append(Entry(head, about))
        elif entries:
            entries[-1].about = f"{entries[-1].about} {about}".strip()
    return entries


def read_help(words, text):
    """The command of these words, whose help this text is."""
    command = Command(words)
    lines = [line.rstrip() for line in text.splitlines()]
    if "Usage:" in lines:  # GLib begins the line after it
        at = lines.index("Usage:")
        lines[at:at + 2] = ["Usage: " + lines[at + 1].strip()]
    while lines:
        line = lines.pop(0)
        if not line:
            continue
        if line.startswith("Usage: "):
            command.usage = line.removeprefix("Usage: ")
        elif re.fullmatch(r"[A-Z][A-Za-z ]*:", line):
            body = []
            while lines and lines[0]:
                body.append(lines.pop(0))
            command.sections[line.rstrip(":")] = read_entries(body)
        else:
            paragraph = [line.strip()]
            while lines and lines[0] and not lines[0].startswith("Usage: "):
                paragraph.append(lines.pop(0).strip())
            command.notes.append(" ".join(paragraph))
    if command.notes:
        command.about = command.notes.pop(0)
    return command


def ask(program, *arguments):
    done = subprocess.run([*program, *arguments], capture_output=True, text=True, stdin=subprocess.DEVNULL, check=False,
                          timeout=60)
    if done.returncode != 0:
        raise SystemExit(f"{' '.join([*program, *arguments])} ended with {done.returncode}: {done.stderr}")
    return done.stdout


def read_program(program, name):
    """The program with all its commands, each as its own --help shows it."""
    def read(words):
        command = read_help([name, *words], ask(program, *words, "--help"))
        command.commands = [read([*words, entry.head]) for entry in command.sections.get("Subcommands", [])]
        return command
    return read([])
