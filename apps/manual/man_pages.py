"""Manual pages of a program and its commands."""


def escaped(text):
    for character, name in (("\\", "\\e"), ("-", "\\-"), ("'", "\\(aq"), ("`", "\\(ga"), ("^", "\\(ha"), ("~", "\\(ti"), ("…", "...")):
        text = text.replace(character, name)
    return "\\&" + text if text.startswith(".") else text


def lower_first(text):
    return text[:1].lower() + text[1:]


class Page:
    """One page, from top to bottom."""

    def __init__(self, name, version):
        self.lines = [f'.TH {escaped(name.upper())} 1 "" "{escaped(version)}" "User Commands"', ".nh", ".ad l"]

    def section(self, title):
        self.lines.append(f'.SH "{escaped(title.upper())}"')

    def subsection(self, title):
        self.lines.append(f'.SS "{escaped(title)}"')

    def paragraph(self, text):
        self.lines += [".PP", escaped(text)]

    def synopsis(self, usage):
        words = usage.split()
        count = next((at for at, word in enumerate(words) if not word[0].islower()), len(words))
        rest = "".join(f" {escaped(word)}" for word in words[count:])
        self.lines += [".PP", f"\\fB{escaped(' '.join(words[:count]))}\\fR{rest}"]

    def item(self, head, about):
        self.lines += [".TP", head, escaped(about) if about else "\\&"]

    def options(self, entries):
        for entry in entries:
            value = f" \\fI{escaped(entry.value)}\\fR" if entry.value else ""
            self.item(", ".join(f"\\fB{escaped(flag)}\\fR" for flag in entry.flags) + value, entry.about)

    def arguments(self, entries):
        for entry in entries:
            self.item(f"\\fI{escaped(entry.value)}\\fR", entry.about)

    def entries(self, entries):
        for entry in entries:
            self.item(f"\\fB{escaped(entry.head)}\\fR", entry.about)

    def text(self):
        return "\n".join(self.lines) + "\n"


def add_parts(page, command):
    """What a command takes, as sections of its own page."""
    if command.arguments:
        page.section("Arguments")
        page.arguments(command.arguments)
    if command.options:
        page.section("Options")
        page.options(command.options)


def add_action(page, command):
    """An action of a command, "controls set", on the command's page."""
    page.subsection(" ".join(command.words[1:]))
    page.synopsis(command.usage)
    page.paragraph(command.about + ".")
    for note in command.notes:
        page.paragraph(note)
    page.arguments(command.arguments)
    page.options([entry for entry in command.options if "--help" not in entry.flags])
    if "Examples" in command.sections:
        page.paragraph("Examples:")
        page.entries(command.sections["Examples"])


def page_name(command):
    return "-".join(command.words[:2])


def man_page(command, program, version):
    """The page of the program, or of one of its commands."""
    is_program = command is program
    page = Page(page_name(command), version)
    page.section("Name")
    about = program_summary(command) if is_program else command.about
    page.lines.append(f"{escaped(page_name(command))} \\- {escaped(lower_first(about).rstrip('.'))}")
    page.section("Synopsis")
    page.synopsis(command.usage)
    page.section("Description")
    page.paragraph(command.about if command.about.endswith(".") else command.about + ".")
    for note in command.notes:
        page.paragraph(note)
    if command.commands:
        page.section("Commands" if is_program else "Actions")
        for each in command.commands:
            if is_program:
                page.item(f"\\fB{escaped(each.words[-1])}\\fR", f"{each.about}: see {page_name(each)}(1).")
            else:
                add_action(page, each)
    add_parts(page, command)
    if not is_program:
        page.paragraph("The options and environment variables of all commands, --capture and --json among them, stand in "
                       f"{page_name(program)}(1).")
    sections = command.sections if is_program else {"Exit status": program.sections["Exit status"], **command.sections}
    for title in ("Exit status", "Environment", "Examples"):
        if title in sections:
            page.section(title)
            page.entries(sections[title])
    others = [page_name(each) for each in [program, *program.commands] if each is not command]
    if not program.commands and "-" in page_name(program):
        others.append(page_name(program).split("-")[0])  # of vesk-camera: vesk
    if others:
        page.section("See also")
        page.paragraph(", ".join(f"{name}(1)" for name in others) + ".")
    return page.text()


def program_summary(program):
    """The first sentence about a program, without the name that it begins with."""
    return program.about.split(". ")[0].removeprefix(program.words[0].capitalize()).strip()


def man_pages(program, version):
    """{file name: text} of all pages."""
    return {f"{page_name(command)}.1": man_page(command, program, version) for command in [program, *program.commands]}
