#!/usr/bin/env python3
"""Every option of every ombrix subcommand, from the tool's own option table
(ombrix --list-options), given a malformed value: exit code 2 and a message
that names the option, before any work. Also: --help of every subcommand
lists each of its options; an unknown option is exit code 2.
Usage: options.py OMBRIX"""
import subprocess, sys

tool = sys.argv[1]
# A malformed value for each value type, chosen here, not by the tool.
bad = {"int": ["8abc", "", "1e3", "99999999999999999999"], "real": ["1.5x", "nan", ""], "choice": ["foo", ""],
       "size": ["12x", "x3", "3x4x", "axb"], "pair": ["3", "1,", "a,b"], "list": ["1,2,x", "1,,2", ""],
       "color": ["GGHHII", "fff", "1234567"], "text": [""], "flag": None}
failures, checked = [], 0


def run(*args):
    return subprocess.run([tool, *args], capture_output=True, text=True)


table = [line.split() for line in run("--list-options").stdout.splitlines()]
commands = sorted({c for c, _, _ in table} | {l.split()[0] for l in run("help").stdout.splitlines()[3:] if l.strip()})
if len(table) < 20 or len(commands) < 15:
    failures.append(f"option table too small: {len(table)} options, {len(commands)} commands")
for cmd, opt, kind in table:
    values = [f"{opt}={v}" for v in ("1", "")] if kind == "flag" else [[opt, v] for v in bad[kind]]
    for v in values:
        args = [cmd] + (v if isinstance(v, list) else [v])
        p = run(*args)
        checked += 1
        if p.returncode != 2 or opt not in p.stderr:
            failures.append(f"{' '.join(args)!r}: exit {p.returncode}, stderr {p.stderr.strip()[:100]!r}")
for cmd in commands:
    p = run(cmd, "--help")
    opts = [o for c, o, _ in table if c == cmd]
    if p.returncode != 0 or not p.stdout.startswith(f"usage: ombrix {cmd}") or any(o not in p.stdout for o in opts):
        failures.append(f"{cmd} --help: exit {p.returncode}, options missing or no usage line")
    p = run(cmd, "--no-such-option")
    if p.returncode != 2 or "--no-such-option" not in p.stderr:
        failures.append(f"{cmd} --no-such-option: exit {p.returncode}")
    checked += 2
for f in failures:
    print("FAIL:", f)
print(f"{checked} checks over {len(table)} options of {len(commands)} commands, {len(failures)} failures")
sys.exit(1 if failures else 0)
