#!/usr/bin/env python3
"""The library exports exactly the implemented names of the registry."""
import re
import subprocess
import sys

lib, table = sys.argv[1], sys.argv[2]
want = set()
for line in open(table):
    m = re.match(r'ZEL_EXPORT(?:_PLAIN|_NOCALL)?\("(\w+)", (?:"[^"]*", ){5}(\d), "', line)
    if m and m.group(2) == "1":
        want.add(m.group(1))
nm = subprocess.run(["nm", "-D", "--defined-only", lib], capture_output=True, text=True, check=True).stdout
got = set()
for line in nm.splitlines():
    parts = line.split()
    if len(parts) >= 3 and parts[1] in "TtDdBbRrVvWwi":
        got.add(parts[2].split("@")[0])
missing, extra = sorted(want - got), sorted(got - want)
print(f"{len(got)} exported, {len(want)} implemented in the registry")
if missing:
    print("not exported:", " ".join(missing[:20]))
if extra:
    print("exported but not in the registry:", " ".join(extra[:20]))
sys.exit(1 if missing or extra else 0)
