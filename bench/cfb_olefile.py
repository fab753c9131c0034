#!/usr/bin/env python3
"""The compound-file benchmark's comparison: olefile (run as a black box) opens the same message and
reads every stream in full. Usage: cfb_olefile.py FILE [SECONDS]; prints the mean time per iteration."""
import sys
import time

import olefile


def once(path):
    total = 0
    ole = olefile.OleFileIO(path)
    for entry in ole.listdir(streams=True, storages=False):
        total += len(ole.openstream(entry).read())
    ole.close()
    return total


def main():
    path = sys.argv[1]
    budget = float(sys.argv[2]) if len(sys.argv) > 2 else 3.0
    once(path)  # warm the page cache and the module, as the C++ benchmark's first iterations do
    iterations, total = 0, 0
    start = time.perf_counter()
    while time.perf_counter() - start < budget:
        total = once(path)
        iterations += 1
    elapsed = time.perf_counter() - start
    print("olefile %s: %.2f ms per open and full read (%d iterations, %d bytes each)"
          % (olefile.__version__, 1000.0 * elapsed / iterations, iterations, total))


if __name__ == "__main__":
    main()
