#!/usr/bin/env python3
"""Reads every property of every message of a PST with pypff (Debian python3-pypff), as the peer of
ltp_bench: each record-set entry's value is fetched whole. Prints the time and properties per second,
the best of `runs` runs.

Usage: ltp_pypff.py FILE [RUNS]"""
import sys
import time

import pypff


def read_all(path):
    properties = 0
    data_bytes = 0
    store = pypff.file()
    store.open(path)
    stack = [store.get_root_folder()]
    while stack:
        folder = stack.pop()
        for i in range(folder.get_number_of_sub_folders()):
            stack.append(folder.get_sub_folder(i))
        for i in range(folder.get_number_of_sub_messages()):
            message = folder.get_sub_message(i)
            for r in range(message.get_number_of_record_sets()):
                record_set = message.get_record_set(r)
                for e in range(record_set.get_number_of_entries()):
                    data = record_set.get_entry(e).get_data()
                    properties += 1
                    data_bytes += len(data) if data else 0
    store.close()
    return properties, data_bytes


def main():
    path = sys.argv[1]
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    best = None
    for _ in range(runs):
        start = time.perf_counter()
        properties, data_bytes = read_all(path)
        elapsed = time.perf_counter() - start
        best = elapsed if best is None else min(best, elapsed)
    print(f"pypff: {properties} properties ({data_bytes} value bytes) in {best * 1000:.0f} ms: "
          f"{properties / best:,.0f} properties/s (best of {runs})")


if __name__ == "__main__":
    main()
