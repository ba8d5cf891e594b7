#!/usr/bin/env python3
"""The 32-bit and 64-bit builds write the same bits: runs the digest program
of each build and compares their lines (export, call, status, digest)."""
import subprocess
import sys

ref, own = sys.argv[1], sys.argv[2]
a = subprocess.run([ref], capture_output=True, text=True, check=True).stdout.splitlines()
b = subprocess.run([own], capture_output=True, text=True, check=True).stdout.splitlines()
diff = [(x, y) for x, y in zip(a, b) if x != y]
print(f"{len(b)} digests compared with {ref}")
for x, y in diff[:20]:
    print(f"  reference {x}\n  this build {y}")
if len(a) != len(b):
    print(f"different numbers of digests: {len(a)} and {len(b)}")
sys.exit(1 if diff or len(a) != len(b) or not a else 0)
