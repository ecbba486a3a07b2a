"""Completions of a program's command line for bash, zsh and fish.

Each knows the commands and options from the help, and asks "vesk devices" for the names of cameras and microphones:
that opens no camera.
"""
import dataclasses
import re

# Prints the names of the devices under a heading of "vesk devices", one a line.
NAMES = r"""sed -nE "/^$heading/,/^[^ ]/s/^  +[0-9]+  (.*[^ ]) +[0-9a-f]{4}:[0-9a-f]{4}  .*/\1/p" """.strip()

SOURCES = ["linux", "simulated", "file:"]


@dataclasses.dataclass
class Actions:
    """How a shell's completion is told what to offer, with {function}, {heading} and {words} for what goes in."""

    devices: str
    files: str
    sources: str
    words: str
    nothing: str

    def offer(self, entry, function):
        """For the value of an option or for an argument."""
        words = entry.choices
        if "--capture" in entry.flags:
            words = [source for source in SOURCES if source in entry.about]
        heading = {"--camera": "Cameras", "--mic": "Microphones"}.get(entry.flags[-1]) if entry.flags else None
        if heading:
            action = self.devices
        elif is_file(entry):
            action = self.files
        elif "file:" in words:
            action = self.sources
        else:
            action = self.words if words else self.nothing
        return action.format(function=function, heading=heading, words=" ".join(words))


def is_file(entry):
    """OUT, OUT.mov, FILE and FILES are names of files."""
    return bool(re.fullmatch(r"(OUT|FILE)\S*", entry.value))


def options_behind(command, chain):
    """Options of the command and of those above it, which may stand behind it too."""
    options = list(command.options)
    for above in reversed(chain):
        known = {flag for entry in options for flag in entry.flags}
        options += [entry for entry in above.options if not set(entry.flags) & known and "--version" not in entry.flags]
    return options


def walk_with_options(program):
    """(command, all options that may stand behind it) of the program and its commands."""
    def walk_below(command, chain):
        yield command, options_behind(command, chain)
        for each in command.commands:
            yield from walk_below(each, [*chain, command])
    return walk_below(program, [])


def identifier(words):
    return "_" + "_".join(words).replace("-", "_")


# ---- bash


BASH = Actions(devices="{function}__devices {heading}", files="_filedir", sources="{function}__sources {words}",
               words="{function}__words {words}", nothing=":")


def bash(program):
    name = program.words[0]
    function = identifier([name])
    values, commands = {}, []
    for command, options in walk_with_options(program):
        flags = [flag for entry in options for flag in entry.flags]
        choices = [each.words[-1] for each in command.commands]
        choices += [word for entry in command.arguments for word in entry.choices]
        files = " files=yes" if any(is_file(entry) for entry in command.arguments) else ""
        commands.append(f'  "{" ".join(command.words[1:])}")'
                        f' options="{" ".join(flags)}" choices="{" ".join(choices)}"{files} ;;')
        for entry in options:
            if entry.value:
                values.setdefault(BASH.offer(entry, function), {}).update(dict.fromkeys(entry.flags))
    actions = "\n".join(f"  {'|'.join(flags)}) {action}; return ;;" for action, flags in values.items())
    with_value = "|".join(flag for flags in values.values() for flag in flags)
    known = "|".join(f'"{" ".join(command.words[1:])}"' for command, _ in walk_with_options(program))
    commands = "\n".join(commands)
    return f"""# Completion of {name} for bash, made from its help.

{function}__words() {{
  COMPREPLY=($(compgen -W "$*" -- "$cur"))
}}

# Offers the names under a heading of "vesk devices", with the devices of the --capture that was typed.
{function}__devices() {{
  local heading=$1 name names typed=${{cur#[\\"\\']}}
  mapfile -t names < <(vesk "${{capture[@]}}" devices 2>/dev/null | {NAMES})
  for name in "${{names[@]}}"; do
    # Within quotes as it is, else with its spaces escaped.
    if [[ $cur != [\\"\\']* ]]; then printf -v name %q "$name"; fi
    if [[ $name == "$typed"* ]]; then COMPREPLY+=("$name"); fi
  done
  __ltrim_colon_completions "$cur"
}}

{function}__sources() {{
  if [[ $cur == file:* ]]; then
    cur=${{cur#file:}}
    _filedir
    return
  fi
  compopt -o nospace
  {function}__words "$@"
}}

{function}() {{
  local cur prev words cword split
  _init_completion -s -n : || return
  local at word command= capture=() options= choices= files=no
  for ((at = 1; at < cword; at++)); do
    word=${{words[at]}}
    case $word in
    --capture) capture=(--capture "${{words[++at]}}") ;;
    --capture=*) capture=("$word") ;;
    {with_value}) ((++at)) ;;
    -*) ;;
    *)
      case "${{command:+$command }}$word" in
      {known}) command+=${{command:+ }}$word ;;
      esac
      ;;
    esac
  done
  case $prev in
{actions}
  esac
  if $split; then return; fi
  case $command in
{commands}
  esac
  if [[ $cur == -* ]]; then choices=$options files=no; fi
  {function}__words "$choices"
  if [[ $files == yes ]]; then _filedir; fi
}} &&
  complete -F {function} {name}
"""


# ---- zsh


def zsh_text(text):
    """For a description in brackets, within single quotes."""
    return text.replace("\\", "\\\\").replace("[", "\\[").replace("]", "\\]").replace(":", "\\:").replace("'", "'\\''")


# The space keeps _arguments from adding words of its own to those of a function.
ZSH = Actions(devices=" {function}__devices {heading}", files="_files", sources=" {function}__sources",
              words="({words})", nothing=" ")


def zsh_options(options, function):
    for entry in options:
        together, value = f"({' '.join(entry.flags)})", ""
        if entry.value:
            together, value = "", f":{zsh_text(entry.value)}:{ZSH.offer(entry, function)}"
        for flag in entry.flags:
            sign = ("=" if flag.startswith("--") else "+") if value else ""
            yield f"'{together}{flag}{sign}[{zsh_text(entry.about)}]{value}'"


def zsh_function(command, options, function):
    lines = list(zsh_options(options, function))
    for entry in command.arguments:
        lines.append(f"':{zsh_text(entry.value)}:{ZSH.offer(entry, function)}'")
    if command.commands:
        lines += ["'1: :->command'", "'*:: :->arguments'"]
    head = f"{identifier(command.words)}() {{\n"
    specs = " \\\n    ".join(lines)
    # The whole line, which _arguments cuts down for the functions of the commands.
    kept = "  local -a typed=(\"${words[@]}\")\n" if len(command.words) == 1 else ""
    if not command.commands:
        return f"{head}{kept}  _arguments -s \\\n    {specs}\n}}\n"
    described = "\n      ".join(f"'{each.words[-1]}:{zsh_text(each.about)}'" for each in command.commands)
    cases = "\n      ".join(f"{each.words[-1]}) {identifier(each.words)} ;;" for each in command.commands)
    return f"""{head}  local context state state_descr line
  typeset -A opt_args
{kept}  _arguments -C -s -A '-*' \\
    {specs} && return
  case $state in
  command)
    local -a commands=(
      {described}
    )
    _describe command commands
    ;;
  arguments)
    case ${{words[1]}} in
      {cases}
    esac
    ;;
  esac
}}
"""


def zsh(program):
    name = program.words[0]
    function = identifier([name])
    functions = "\n".join(zsh_function(command, options, function) for command, options in walk_with_options(program))
    return f"""#compdef {name}
# Completion of {name} for zsh, made from its help.

# Offers the names under a heading of "vesk devices", with the devices of the --capture that was typed.
{function}__devices() {{
  local heading=$1 at
  local -a names capture
  for ((at = 2; at < ${{#typed}}; at++)); do
    case ${{typed[at]}} in
    --capture) capture=(--capture "${{(Q)typed[at + 1]}}") ;;
    --capture=*) capture=("${{(Q)typed[at]}}") ;;
    esac
  done
  names=("${{(@f)$(vesk "${{capture[@]}}" devices 2>/dev/null | {NAMES})}}")
  if [[ -n $names ]]; then compadd -- "${{names[@]}}"; fi
}}

{function}__sources() {{
  if compset -P file:; then
    _files
  else
    compadd -S '' -- {' '.join(SOURCES)}
  fi
}}

{functions}
if [[ $funcstack[1] == _{name} ]]; then
  {function} "$@"
else
  compdef {function} {name}
fi
"""


# ---- fish


def fish_text(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


FISH = Actions(devices=" -xa '({function}__devices {heading})'", files=" -rF",
               sources=" -xa '({function}__sources {words})'", words=" -xa '{words}'", nothing=" -x")


def fish_condition(command):
    """True in fish's words when this command is the one that was typed, as far as it was."""
    conditions = [f"__fish_seen_subcommand_from {word}" for word in command.words[1:]]
    if command.commands:
        conditions.append(f"not __fish_seen_subcommand_from {' '.join(each.words[-1] for each in command.commands)}")
    return "; and ".join(conditions)


def fish(program):
    name = program.words[0]
    function = identifier([name])
    lines = [f"complete -c {name} -f"]
    for command, options in walk_with_options(program):
        condition = fish_condition(command)
        when = f"complete -c {name}" + (f" -n {fish_text(condition)}" if condition else "")
        lines += [f"{when} -a {each.words[-1]} -d {fish_text(each.about)}" for each in command.commands]
        for entry in options:
            flags = "".join(f" -l {flag[2:]}" if flag.startswith("--") else f" -s {flag[1:]}" for flag in entry.flags)
            value = FISH.offer(entry, function) if entry.value else ""
            lines.append(f"{when}{flags}{value} -d {fish_text(entry.about)}")
        for entry in command.arguments:
            if is_file(entry):
                lines.append(f"{when} -F")
            elif entry.choices:
                lines.append(f"{when} -a {fish_text(' '.join(entry.choices))}")
    rules = "\n".join(lines)
    return f"""# Completion of {name} for fish, made from its help.

# Prints the names under a heading of "vesk devices", with the devices of the --capture that was typed.
function {function}__devices
    set -l heading $argv[1]
    set -l typed (commandline -opc)
    set -l capture
    if set -l at (contains -i -- --capture $typed)
        set capture --capture $typed[(math $at + 1)]
    else
        set capture (string match -- '--capture=*' $typed)
    end
    vesk $capture devices 2>/dev/null | {NAMES}
end

function {function}__sources
    set -l typed (string replace -- --capture= '' (commandline -ct))
    if string match -q 'file:*' -- $typed
        printf 'file:%s\\n' (__fish_complete_path (string replace file: '' -- $typed))
    else
        printf '%s\\n' $argv
    end
end

{rules}
"""


def completions(program):
    """{file: text} of all shells."""
    name = program.words[0]
    return {f"bash/{name}": bash(program), f"zsh/_{name}": zsh(program), f"fish/{name}.fish": fish(program)}
