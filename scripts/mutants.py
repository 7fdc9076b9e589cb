#!/usr/bin/env python3
"""Plants known faults into the program one at a time and reports which tests catch each.

Each mutant changes one spot of the source (the nth occurrence of a text), the dev build is rebuilt and the
fast tests run (no browser, namespace or package tests); the source is put back afterwards. A mutant no test
catches means a fault the suite would let through; one whose text is gone means the code moved and the
mutant needs updating.
    usage: scripts/mutants.py [NAME ...]     (in a clean work tree; all mutants without names)
"""
import re
import subprocess
import sys
from pathlib import Path

# name, file, text, replacement, which occurrence (1 = first)
MUTANTS = [
    ("header-byte", "src/http/Response.cpp", '"Server: zel"', '"Server: zeI"', 1),
    ("sort-direction", "src/pages/RemoteASP.cpp", "bool descending = EqualsNoCase(sortDirection_, \"DESC\");",
     "bool descending = !EqualsNoCase(sortDirection_, \"DESC\");", 1),
    ("name-rule-equals", "src/settings/ComputerRegistry.cpp", "c == '=' || ", "", 1),
    ("computer-limit", "src/settings/ComputerRegistry.h", "kMaxLearnedComputers = 1024", "kMaxLearnedComputers = 1025", 1),
    ("missed-save", "src/settings/ComputerRegistry.cpp", "hs_.SaveIniSetting(kArpSection, ip, mac, kIniFile);", "",
     1),
    ("heartbeat-shortest", "src/xap/XapNode.cpp", "interval = 5;", "interval = 4;", 1),
    ("guard-origin", "src/http/Guard.cpp", "if (post && !SameOrigin(headers))", "if (post && false)", 1),
    ("guard-lockout", "src/http/Guard.h", "kMaxFailures = 5;", "kMaxFailures = 6;", 1),
    ("wake-copies", "src/lan/ComputerActions.cpp", "copy < 16;", "copy < 15;", 1),
    ("form-plus", "src/http/Request.cpp", "out += c == '+' ? ' ' : c;", "out += c;", 2),
    ("sweep-skips-reserved", "src/lan/NativeSweep.cpp", "first >= 224", "first > 224", 1),
    ("role-any", "src/xap/XapHandler.cpp", 'role != "any"', 'role != "all"', 1),
    ("ini-newline-check", "src/settings/IniTool.cpp", 'key.find_first_of("=\\r\\n")', 'key.find_first_of("\\r\\n")', 1),
    ("xap-block-close", "src/xap/XapMessage.cpp", 'output_.append("}\\n");', 'output_.append("}");', 1),
    ("sweep-silent-retry", "src/lan/NativeSweep.cpp", "if (!answered.count(ip)) silent.push_back(ip);",
     "if (answered.count(ip)) silent.push_back(ip);", 1),
    ("hs-folder-names", "src/settings/Hs.cpp", 'std::string_view("/\\\\:<>\\"|?*")', 'std::string_view("\\\\:<>\\"|?*")', 1),
    ("turned-away-acted", "src/pages/RemoteASP.cpp", "if (!response.Answered()) result = ManagementPage();",
     "result = ManagementPage();", 1),
    ("tray-late-host", "src/platform/linux/Tray.cpp", "if (self.hostPresent_ && self.shown_)", "if (false)", 1),
    ("request-time-limit", "src/http/ConnectionSlot.h", "kRequestTimeout{10000}", "kRequestTimeout{20000}", 1),
    ("time-today-ignored", "src/xap/XapHandler.cpp", '} else if (msg.CompareClass("Time.Today")) {',
     '} else if (msg.CompareClass("Time.Tomorrow")) {', 1),
]


def run(cmd, **kw):
    return subprocess.run(cmd, shell=True, capture_output=True, text=True, **kw)


def main(names):
    root = Path(run("git rev-parse --show-toplevel").stdout.strip())
    if run("git status --porcelain --untracked-files=no", cwd=root).stdout.strip():
        sys.exit("mutants.py: the work tree has changes; commit or stash them first")
    if run("cmake --preset dev", cwd=root).returncode != 0:
        sys.exit("mutants.py: cmake --preset dev failed")
    chosen = [m for m in MUTANTS if not names or m[0] in names]
    survived = 0
    for name, file, text, replacement, nth in chosen:
        path = root / file
        source = path.read_text()
        spots = [m.start() for m in re.finditer(re.escape(text), source)]
        if len(spots) < nth:
            print(f"{name:22} MOVED: {file} no longer holds {text!r}")
            survived += 1
            continue
        at = spots[nth - 1]
        path.write_text(source[:at] + replacement + source[at + len(text):])
        try:
            build = run("cmake --build --preset dev -j2", cwd=root)
            if build.returncode != 0:
                print(f"{name:22} does not build")
                continue
            tests = run("ctest --preset dev -j2 -LE 'browser|package' --timeout 120", cwd=root)
            failed = re.findall(r"^\s*\d+ - (\S+) \(", tests.stdout, re.M)
            if failed:
                print(f"{name:22} caught by {', '.join(sorted(set(failed)))}")
            else:
                print(f"{name:22} SURVIVED")
                survived += 1
        finally:
            path.write_text(source)
        sys.stdout.flush()
    run("cmake --build --preset dev -j2", cwd=root)
    return 1 if survived else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
