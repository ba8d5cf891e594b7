#!/usr/bin/env python3
"""float and double arithmetic of the 32-bit library is SSE arithmetic: no x87
arithmetic instruction outside the determinant code, whose extended sums are
the x87 80-bit format on purpose (functions with "det" in their name)."""
import re
import subprocess
import sys

lib = sys.argv[1]
asm = subprocess.run(["objdump", "-d", "--no-show-raw-insn", "-C", lib], capture_output=True, text=True,
                     check=True).stdout
x87 = re.compile(r"^\s+[0-9a-f]+:\s+(f(?:i?(?:add|sub|subr|mul|div|divr)p?|sqrt|prem1?|scale|rndint|sin|cos|"
                 r"sincos|patan|ptan|yl2x|yl2xp1|2xm1)[slt]?)\s")
func, bad = "", {}
for line in asm.splitlines():
    m = re.match(r"^[0-9a-f]+ <(.*)>:$", line)
    if m:
        func = m.group(1)
        continue
    m = x87.match(line)
    if m and not re.search("det", func, re.I):
        bad.setdefault(func, m.group(1))
for f, ins in list(bad.items())[:20]:
    print(f"x87 arithmetic ({ins}) in {f}")
print(f"{len(bad)} functions with x87 arithmetic outside the determinant code")
sys.exit(1 if bad else 0)
