"""The checks behind check.sh, which prepares what they need. Prints each finding with its remedy."""

import concurrent.futures
import hashlib
import json
import os
import re
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
CACHE = Path(os.environ["ZOP_CACHE"]) / "lint"
LINT_BUILD = ROOT / "build/lint"
CLANG_TIDY = "clang-tidy-16"

# A room includes from itself and from rooms further down this list.
ROOMS = ["tools", "api", "relocation", "security", "config", "runtime"]
AROUND = ["tests", "bench"]  # these may include from everywhere, and nothing includes from them
# What every Windows has. The compiler's runtime is linked in; the database client is shipped.
ALLOWED_IMPORTS = {
    "activeds.dll", "advapi32.dll", "bcrypt.dll", "crypt32.dll", "dbghelp.dll", "kernel32.dll",
    "libmariadb.dll", "mpr.dll", "msvcrt.dll", "netapi32.dll", "ntdll.dll", "ole32.dll", "oleaut32.dll",
    "psapi.dll", "rpcrt4.dll", "secur32.dll", "shell32.dll", "shlwapi.dll", "user32.dll", "userenv.dll",
    "version.dll", "wtsapi32.dll", "ws2_32.dll",
}

# pattern, name for the exception, where it holds, what is wrong, what to do
WORDS = [
    (r"(?<!operator )\bnew\b(?!\()", "new", "all", "naked new",
     "use std::make_unique, a container, or an owner from runtime/"),
    (r"(?<!= )(?<!=)(?<!operator )\bdelete\b", "delete", "all", "naked delete",
     "give the object an owner (std::unique_ptr)"),
    (r"\busing\s+namespace\b", "using", "headers", "using namespace in a header",
     "write the names out, or put it inside a function of a source"),
    (r"\bSleep(Ex)?\s*\(|\bsleep_(for|until)\b", "sleep", "product", "a sleep in product code",
     "wait for the state itself (an event, a handle)"),
    (r"\bsystem\s*\(|\bpopen\s*\(", "system", "all", "a command through the shell",
     "start the program by CreateProcessW with its arguments quoted"),
]
UNFINISHED = re.compile(r"\b(" + "|".join(["TO" + "DO", "FIX" + "ME", "XX" + "X"]) + r")\b")
# clang-tidy looks for the same and is wrong less often.
CPPCHECK_OFF = ["identicalConditionAfterEarlyExit", "nullPointerRedundantCheck", "passedByValue"]
CPPCHECK_OFF += ["nullPointer:*/tests/*", "accessMoved:*/tests/*"]  # on purpose

findings = []


def find(place, message, remedy):
    findings.append(f"{place}: {message}\n    remedy: {remedy}")


def relative(path):
    return os.path.relpath(path, ROOT)


def run(*command):
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, errors="replace")


def in_parallel(work, items):
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        return list(pool.map(work, items))


def without_comments_and_strings(text):
    """The code alone, line for line."""
    token = r'//[^\n]*|/\*.*?\*/|R"\((?:.*?)\)"|"(?:\\.|[^"\\\n])*"|(?<![0-9a-fA-F])\'(?:\\.|[^\'\\\n])+\''
    blank = lambda match: re.sub(r"[^\n]", " ", match.group())
    return re.sub(token, blank, text, flags=re.S)


def project_sources():
    return sorted(
        path
        for room in ROOMS + AROUND
        for path in (ROOT / room).rglob("*")
        if path.suffix in (".cpp", ".h")
    )


def includes(path):
    """(line number, included file) of a file's own includes, those in quotes."""
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = re.match(r'\s*#\s*include\s*"([^"]+)"', line)
        if match:
            yield number, match.group(1)


def check_layout(sources):
    def one(path):
        return path, run("clang-format", "--dry-run", "--Werror", path)

    for path, result in in_parallel(one, sources):
        if result.returncode:
            lines = re.findall(r":(\d+):\d+: error", result.stderr)
            find(f"{relative(path)}:{lines[0] if lines else 1}", "not laid out by .clang-format",
                 f"clang-format -i {relative(path)}")


def check_includes(sources):
    for path in sources:
        room = path.relative_to(ROOT).parts[0]
        once = r"^#pragma once|^#ifndef ZOP_\w+_H$"  # the guard is for headers that C reads, too
        if path.suffix == ".h" and not re.search(once, path.read_text(encoding="utf-8"), re.M):
            find(relative(path), "header without #pragma once", "add it below the opening comment")
        for number, name in includes(path):
            place = f"{relative(path)}:{number}"
            other = name.split("/")[0]
            if ".." in name.split("/") or not (ROOT / name).is_file():
                find(place, f'"{name}" is no path from the project root',
                     'write "room/file.h"; system and library headers in angle brackets')
            elif other in AROUND and room not in AROUND:
                find(place, f"product code includes {other}/", "move what it needs into a room")
            elif room in ROOMS and other in ROOMS and ROOMS.index(other) < ROOMS.index(room):
                find(place, f"{room}/ includes from {other}/, which stands above it ({' -> '.join(ROOMS)})",
                     f"move what both need down, or hand it in from {other}/ (parameter, event)")


def check_words(sources):
    for path in sources:
        room = path.relative_to(ROOT).parts[0]
        text = path.read_text(encoding="utf-8")
        lines = text.splitlines()
        for number, code in enumerate(without_comments_and_strings(text).splitlines(), 1):
            if code.lstrip().startswith("#include"):
                continue
            # An exception gives its reason, on the line or above it: // allow(sleep): why
            around = "\n".join(lines[max(0, number - 2) : number])
            for pattern, name, where, message, remedy in WORDS:
                holds = where == "all" or (where == "headers" and path.suffix == ".h")
                holds = holds or (where == "product" and room not in AROUND)
                if holds and re.search(pattern, code) and not re.search(rf"allow\({name}\): \w", around):
                    find(f"{relative(path)}:{number}", message,
                         f"{remedy}; where it must be: // allow({name}): REASON")
        for number, line in enumerate(lines, 1):
            if UNFINISHED.search(line):
                find(f"{relative(path)}:{number}", "unfinished work", "finish it, or open an issue")


def reachable(path, known):
    """The project files that a source includes, directly or through others."""
    if path not in known:
        known[path] = {path}  # before the descent, so that a circle ends
        for _, name in includes(path):
            if (ROOT / name).is_file():
                known[path] |= reachable(ROOT / name, known)
    return known[path]


def check_tidy(sources):
    """clang-tidy, a process a source; a clean result holds until something it read has changed."""
    # Without the place of the clone, so that every clone on the machine shares the results.
    commands = {Path(entry["file"]): entry["command"].replace(str(ROOT), "")
                for entry in json.loads((LINT_BUILD / "compile_commands.json").read_text())}
    version = run(CLANG_TIDY, "--version").stdout
    compiler = run("x86_64-w64-mingw32-g++-posix", "-dumpfullversion").stdout
    known = {}
    CACHE.mkdir(parents=True, exist_ok=True)

    def one(source):
        configs = [folder / ".clang-tidy" for folder in source.parents if (folder / ".clang-tidy").is_file()]
        config = "".join(path.read_text() for path in configs)
        state = hashlib.sha256((version + compiler + config + commands[source]).encode())
        for path in sorted(reachable(source, known)):
            state.update(relative(path).encode() + path.read_bytes())
        clean = CACHE / state.hexdigest()
        if clean.exists():
            clean.touch()
            return source, "", 0
        result = run(CLANG_TIDY, "--quiet", "-p", LINT_BUILD, source)
        if result.returncode == 0:
            clean.touch()
        return source, result.stdout + (result.stderr if not result.stdout else ""), result.returncode

    chosen = [path for path in sources if path in commands]
    for path in sorted(set(sources) - set(chosen)):
        if path.parent == ROOT / "tests/package":  # a project of its own
            continue
        find(relative(path), "no target builds it", "add its folder to a CMakeLists.txt, or delete it")
    for path in chosen:
        reachable(path, known)  # before the threads share it
    seen = set()
    for source, output, code in in_parallel(one, chosen):
        errors = re.findall(r"^(\S+?):(\d+):\d+: (?:error|warning): (.*?) \[([^\]]*)\]$", output, re.M)
        for path, number, message, check in errors:
            check = check.split(",")[0]
            if (path, number, message) not in seen:  # a header is read with each source
                seen.add((path, number, message))
                find(f"{relative(path)}:{number}", f"{message} [{check}]",
                     f"follow the message; where the check is wrong: // NOLINT({check}): REASON")
        if code and not errors:
            find(relative(source), f"{CLANG_TIDY} failed:\n{output.strip()}", "see its message")
    month_ago = time.time() - 30 * 24 * 3600
    for old in CACHE.iterdir():
        if old.stat().st_mtime < month_ago:
            old.unlink(missing_ok=True)


def check_cppcheck(sources, everything):
    build = LINT_BUILD / "cppcheck"  # remembers the files that have not changed
    build.mkdir(exist_ok=True)
    only = [] if everything else [f"--file-filter={path}" for path in sources if path.suffix == ".cpp"]
    if not everything and not only:
        return
    result = run("cppcheck", "--quiet", "-j", str(len(os.sched_getaffinity(0))),
                 f"--project={LINT_BUILD / 'compile_commands.json'}", f"--cppcheck-build-dir={build}", "-i/usr/src",
                 *only, "--enable=warning,performance,portability", "--platform=win64", "--library=windows",
                 "--library=googletest", "--suppress=*:/usr/*", *[f"--suppress={check}" for check in CPPCHECK_OFF], "--suppress=*:*/host-headers/*", "--inline-suppr",
                 "--template={file}\t{line}\t{message}\t{id}")
    for line in sorted(set(result.stderr.splitlines())):
        fields = line.split("\t")
        if len(fields) == 4:
            path, number, message, check = fields
            find(f"{relative(ROOT / path)}:{number}", f"{message} [cppcheck {check}]",
                 f"follow the message; where the check is wrong: // cppcheck-suppress {check}")
    if result.returncode:
        find("cppcheck", f"failed: {result.stdout}{result.stderr}", "see its message")


def check_examples():
    """The C++ in README.md is compiled and run: it stands between "// [README" and "// README]"."""
    source = ROOT / "tests/dll/example_usage_test.cpp"
    marked = re.findall(r"^// \[README\n(.*?)^// README\]", source.read_text(encoding="utf-8"), re.M | re.S)
    shown = re.findall(r"^```cpp\n(.*?)^```", (ROOT / "README.md").read_text(encoding="utf-8"), re.M | re.S)
    if not shown or shown != marked:
        find("README.md", f"its C++ is not what {relative(source)} compiles between its marks",
             "make both the same, in the same order")


def check_dll_imports():
    dll = ROOT / "build/release/bin/zopnative.dll"
    listing = run("x86_64-w64-mingw32-objdump", "-p", dll)
    imported = re.findall(r"DLL Name: (\S+)", listing.stdout)
    if not imported:
        find(relative(dll), f"its imports cannot be read: {listing.stderr}", "build the release preset")
    for name in imported:
        if name.lower() not in ALLOWED_IMPORTS:
            find(relative(dll), f"imports {name}, which a server need not have",
                 "link it statically; if it is part of every Windows, add it to scripts/check.py")


def main(arguments):
    everything = not arguments
    sources = project_sources()
    if not everything:
        named = {Path(argument).resolve() for argument in arguments}
        unknown = named - set(sources)
        if unknown:
            sys.exit("No source of the project: " + ", ".join(map(str, sorted(unknown))))
        sources = sorted(named)
    checks = [
        ("layout", lambda: check_layout(sources)),
        ("includes", lambda: check_includes(sources)),
        ("words", lambda: check_words(sources)),
        ("clang-tidy", lambda: check_tidy([path for path in sources if path.suffix == ".cpp"])),
        ("cppcheck", lambda: check_cppcheck(sources, everything)),
    ]
    if everything:
        checks.append(("examples", check_examples))
        checks.append(("imports of the DLL", check_dll_imports))
    for name, check in checks:
        start, before = time.monotonic(), len(findings)
        check()
        print(f"{name}: {len(findings) - before} findings, {time.monotonic() - start:.1f} s", flush=True)
        print("\n".join(findings[before:]), end="\n" if len(findings) > before else "", flush=True)
    print(f"{len(sources)} files checked: {len(findings) or 'no'} findings")
    return 1 if findings else 0


sys.exit(main(sys.argv[1:]))
