#!/usr/bin/env python3
"""Plants one fault of each kind in a small tree and sees that the checks find exactly these."""

import pathlib
import subprocess
import sys
import tempfile

import check

FILES = {
    "src/CMakeLists.txt": "tarmik_layer(low)\ntarmik_layer(high low)\ntarmik_layer(high/top high)\ntarmik_layer(dbms high/top)\n",
    "src/low/low.h": '#include "high/high.h"\n#include "low.h"\n#include "nowhere/x.h"\n',
    "src/high/high.h": '#include "low/low.h"\n#include "low/detail/inner.h"\n#include "high/detail/own.h"\n'
                       '#include "high/top/x.h"\n',
    "src/high/top/x.h": '#include "high/high.h"\n// #include "dbms/x.h" is no include\n',
    "src/low/state.cpp": "namespace low {\nint counter = 0;\nconst int fixed = 1;\nconst char* text;\n"
                         "constexpr const char* word = \"w\";\nconst char* const kept = word;\n"
                         "struct S {\n    static int shared;\n    static constexpr int limit = 3;\n    static int f();\n};\n"
                         "int f() {\n    static int calls = 0;\n    static const int once = 1;\n    int local = 2;\n"
                         "    return calls + once + local;\n}\n}\n",
    "src/low/metrics.cpp": "namespace {\nmeter::Group group{\"low\"};\n}\ntemplate class Box<int>;\nextern int there;\n",
    "src/low/numbers.cpp": "using E = devent<76, int>;\nbool f(int nodetype) { return nodetype == 12; }\n"
                           "// nodetype == 13 in words\nbool g(int nodetype) { return nodetype == kNode; }\n",
    "src/low/catch.cpp": 'void f() {\n    try {\n        g("catch (...)");\n    } catch (...) {\n    }\n}\n',
    "src/low/long.cpp": "void longest() {\n" + "    g();\n" * 68 + "}\nvoid longer() {\n" + "    g();\n" * 69 + "}\n",
    "src/low/longest.h": "\n" * 901,
    "docs/words.md": "As the sp" "ecification says.\nSee Par" "t 3.2.\nA timespec is fine, part 3 too.\n",
    "docs/old-sp" "ec.md": "\n",
    "tools/t.cpp": '#include "dbms/server.h"\n#include "high/high.h"\n',
    "tests/low/t.cpp": '#include "low/detail/inner.h"\n#include "high/detail/own.h"\nint counter;\n',
}

EXPECTED = {
    ("src/low/low.h", 1, "layer"), ("src/low/low.h", 2, "layer"), ("src/low/low.h", 3, "layer"),
    ("src/high/high.h", 2, "detail"), ("src/high/high.h", 4, "layer"),
    ("src/low/state.cpp", 2, "global"), ("src/low/state.cpp", 4, "global"), ("src/low/state.cpp", 8, "global"),
    ("src/low/state.cpp", 13, "global"),
    ("src/low/numbers.cpp", 1, "number"), ("src/low/numbers.cpp", 2, "number"),
    ("src/low/catch.cpp", 4, "catch"),
    ("src/low/long.cpp", 71, "function"), ("src/low/longest.h", 1, "file"),
    ("docs/words.md", 1, "word"), ("docs/words.md", 2, "word"), ("docs/old-sp" "ec.md", 1, "word"),
    ("tools/t.cpp", 1, "layer"), ("tests/low/t.cpp", 2, "detail"),
    ("allowed.txt", 2, "allowed"),
}


def main():
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder) / "tree"
        for name, text in FILES.items():
            path = root / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        subprocess.run(["git", "init", "-q"], cwd=root, check=True)
        allowed = pathlib.Path(folder) / "allowed.txt"
        allowed.write_text("# list\nword nothing.h * # no longer there\n")
        found = {(name.rsplit("/", 1)[-1] if rule == "allowed" else name, line, rule)
                 for name, line, rule, _ in check.run(root, allowed)}
    for what, difference in (("not found", EXPECTED - found), ("found without a fault", found - EXPECTED)):
        for entry in sorted(difference):
            print(f"selftest: {what}: {entry}", file=sys.stderr)
    sys.exit(0 if found == EXPECTED else 1)


if __name__ == "__main__":
    main()
