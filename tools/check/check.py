#!/usr/bin/env python3
"""Small checks of the source tree that compilers and formatters don't make. Prints file:line: [rule] text for each
finding and ends with 1 if there was one.

  layer     an include that goes up a layer, or not by "folder/header.h"; ranks come from src/CMakeLists.txt
  detail    an include of another folder's detail
  global    a mutable variable at namespace scope, a mutable static in a function or class
  number    a bare class, property or event number where a named constant belongs (a heuristic)
  function  a function past 70 lines
  file      a file past 900 lines
  catch     a catch of everything
  word      a word that speaks of documents rather than of the system

Exceptions stand in allowed.txt beside this file, each with its reason. An exception that nothing needs any more is a
finding too.
"""

import json
import pathlib
import re
import subprocess
import sys

FUNCTION_LIMIT = 70
FILE_LIMIT = 900
CODE_DIRS = ("src", "siblings", "tools")
LAYER_LINE = re.compile(r"^tarmik_layer\(([^)]*)\)", re.M)
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
CATCH_ALL = re.compile(r"\bcatch\s*\(\s*\.\.\.\s*\)")
LOCAL_STATIC = re.compile(r"^\s+(?:inline\s+)?(?:static|thread_local)\b[^()]*?\b(\w+)\s*(?:;|=|\{|\[)")
IMMUTABLE = re.compile(r"\bconstexpr\b|\bconst\b")
# Declarations, explicit instantiations, and metrics, which stand where the code that feeds them is.
NO_STATE = re.compile(r"\bextern\b|\btemplate\s+(?:class|struct)\b|\bmeter::")
# Cut in two, so that this file doesn't hold the words that it looks for.
WORDS = re.compile(r"\b(?:sp" r"ecs?|sp" r"ecifications?)\b|\bPar" r"ts? \d+\.\d+|\bissue #?\d+\b", re.I)
NUMBERS = [re.compile(p) for p in (
    r"\bdevent\s*<\s*\d+",
    r"\b(?:event_t|class_t|nodetype_t|property_id_t)\s*[({]\s*[1-9]\d*\s*[)}]",
    r"static_cast<\s*(?:\w+::)*(?:event_t|class_t|nodetype_t|property_id_t)\s*>\(\s*[1-9]\d*\s*\)",
    r"\b(?:nodetype|class_number|class_id|property_id|property_number|event_number)(?:\(\))?\s*[=!]=\s*[1-9]\d*\b",
    r"\b(?:get_property|find_property|getProperty|findProperty|set_property|setProperty)\s*\(\s*\d+",
)]


def strip(text):
    """The text with comments and the inside of literals blanked, line by line as before."""
    token = re.compile(
        r'R"(?P<tag>[^()\\ ]{0,16})\(.*?\)(?P=tag)"|//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"'
        r"|(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])+'", re.S)

    def blank(match):
        return re.sub(r"[^\n]", " ", match.group(0))

    return token.sub(blank, text)


class Tree:
    def __init__(self, root):
        self.root = pathlib.Path(root)
        names = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=root,
                               capture_output=True, check=True).stdout.decode().split("\0")
        self.names = sorted(n for n in names if n and (self.root / n).is_file())
        self.text = {}
        for name in self.names:
            try:
                self.text[name] = (self.root / name).read_text()
            except UnicodeDecodeError:
                pass
        self.cpp = [n for n in self.text if n.endswith((".h", ".cpp"))]
        self.code = {n: strip(self.text[n]) for n in self.cpp}
        self.layers = self.read_layers()

    def read_layers(self):
        """Folder of src -> all folders that it may include from, itself included."""
        direct = {}
        for line in LAYER_LINE.findall(self.text.get("src/CMakeLists.txt", "")):
            folder, *uses = line.split()
            direct[folder] = uses
        reach = {}

        def close(folder):
            if folder not in reach:
                reach[folder] = {folder}
                for used in direct.get(folder, []):
                    reach[folder] |= close(used)
            return reach[folder]

        for folder in direct:
            close(folder)
        return reach

    def layer_of(self, path):
        """The layer in whose folder a path relative to src lies, or None."""
        fits = [f for f in self.layers if path.startswith(f + "/")]
        return max(fits, key=len, default=None)


def in_dirs(name, dirs):
    return name.split("/", 1)[0] in dirs


def check_includes(tree):
    for name in tree.cpp:
        top, _, rest = name.partition("/")
        mine = tree.layer_of(rest)
        for number, line in enumerate(tree.text[name].split("\n"), 1):
            found = INCLUDE.match(line)
            if not found:
                continue
            target = found.group(1)
            theirs = tree.layer_of(target)
            # A test's helper beside it is nobody else's business, so its bare name will do.
            if top == "tests" and str(pathlib.PurePath(name).parent / target) in tree.text:
                continue
            if "/" not in target or target.startswith("."):
                yield name, number, "layer", target, f'"{target}" is not included by "folder/header.h"'
            elif top == "src" and theirs is None:
                yield name, number, "layer", target, f'"{target}" is in no layer'
            elif top == "src" and mine and theirs not in tree.layers[mine]:
                yield name, number, "layer", target, f"{mine} may not include from {theirs}"
            elif top in ("siblings", "tools") and theirs and theirs.split("/")[0] == "dbms":
                yield name, number, "layer", target, f"{top} may not include from dbms"
            folder, hit, _ = target.partition("/detail/")
            # A folder's own tests may look at its details.
            if hit and not rest.startswith(folder + "/"):
                yield name, number, "detail", target, f'"{target}" belongs to {folder} alone'


def ctags(tree):
    names = [n for n in tree.cpp if in_dirs(n, CODE_DIRS + ("tests",))]
    out = subprocess.run(["ctags", "--languages=C++", "--langmap=C++:.h.cpp", "--kinds-C++=fv", "--fields=+neKs",
                          "--output-format=json", "-f", "-", "-L", "-"], cwd=tree.root, check=True,
                         input="\n".join(names), capture_output=True, text=True).stdout
    return [json.loads(line) for line in out.splitlines()]


def is_mutable(head):
    """Whether a variable declared by `head`, the text ahead of its name, can change."""
    after_pointer = head.rsplit("*", 1)[-1] if "*" in head else head
    return not (re.search(r"\bconstexpr\b", head) or IMMUTABLE.search(after_pointer))


def check_tags(tree, tags):
    for tag in tags:
        name, line = tag["path"], tag["line"]
        if tag["kind"] == "function":
            length = tag.get("end", line) - line + 1
            if length > FUNCTION_LIMIT:
                yield name, line, "function", tag["name"], f"{tag['name']} has {length} lines"
        elif tag.get("scopeKind", "namespace") == "namespace" and in_dirs(name, CODE_DIRS):
            lines = tree.code[name].split("\n")
            above = lines[line - 2] if line > 1 and not re.search(r"[;{}]\s*$", lines[line - 2]) else ""
            ahead = re.split(r"\b%s\b" % re.escape(tag["name"]), lines[line - 1])[0]
            if NO_STATE.search(ahead):
                continue
            if is_mutable(above + " " + ahead):
                yield name, line, "global", tag["name"], f"{tag['name']} can change and belongs to no object"


def check_lines(tree):
    for name in tree.cpp:
        lines = tree.code[name].split("\n")
        for number, line in enumerate(lines, 1):
            if CATCH_ALL.search(line):
                yield name, number, "catch", "", "a catch of everything hides what went wrong"
            if not in_dirs(name, CODE_DIRS):
                continue
            static = LOCAL_STATIC.match(line)
            if static and is_mutable(line[:static.start(1)]):
                yield name, number, "global", static.group(1), f"{static.group(1)} is static and can change"
            for pattern in NUMBERS:
                if found := pattern.search(line):
                    yield name, number, "number", "", f"name the number in: {found.group(0)}"


def check_files(tree):
    for name, text in tree.text.items():
        count = text.count("\n")
        if name.endswith((".h", ".cpp", ".py")) and count > FILE_LIMIT:
            yield name, 1, "file", "", f"{count} lines"
        if WORDS.search(re.sub(r"[_.-]", " ", name)):
            yield name, 1, "word", "", "the file's name speaks of a document"
        for number, line in enumerate(text.split("\n"), 1):
            if found := WORDS.search(line):
                yield name, number, "word", "", f'"{found.group(0)}"'


def read_allowed(path):
    """(rule, file, item) -> line number in the list; an item of "*" stands for all."""
    allowed = {}
    if path.exists():
        for number, line in enumerate(path.read_text().split("\n"), 1):
            entry, hash_sign, reason = line.partition("#")
            if not entry.strip():
                continue
            fields = entry.split()
            if len(fields) != 3 or not reason.strip():
                sys.exit(f"{path}:{number}: wants: rule file item # reason")
            allowed[tuple(fields)] = number
    return allowed


def run(root, allowed_path):
    tree = Tree(root)
    allowed = read_allowed(allowed_path)
    needed = set()
    findings = []
    for source in (check_includes(tree), check_tags(tree, ctags(tree)), check_lines(tree), check_files(tree)):
        for name, line, rule, item, text in source:
            keys = {(rule, name, item), (rule, name, "*")} & allowed.keys()
            needed |= keys
            if not keys:
                findings.append((name, line, rule, text))
    for key in allowed.keys() - needed:
        findings.append((str(allowed_path), allowed[key], "allowed", f"nothing needs: {' '.join(key)}"))
    return sorted(set(findings))


def main():
    root = subprocess.run(["git", "rev-parse", "--show-toplevel"], capture_output=True, check=True,
                          text=True).stdout.strip()
    findings = run(root, pathlib.Path(__file__).resolve().parent / "allowed.txt")
    for name, line, rule, text in findings:
        print(f"{name}:{line}: [{rule}] {text}")
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
