#!/usr/bin/env python3
"""Counts a PST store's messages the way its folders state them, as pypff (libpff) reads the store.

Walks the folder hierarchy from the root folder and prints one line per folder reached, tab-separated:

    folder  NODE-ID  KIND  COUNT  NAME

NODE-ID is the folder's node id in decimal; KIND is "normal" (node type 2), "search" (node type 3) or
"other"; COUNT is the content count (property 0x3602) from the folder's record set, or "-" when the
folder has none; NAME is the display name, with tabs and line breaks turned into spaces. Then, for
every orphan item that pypff finds outside the hierarchy and that is a folder, the same line beginning
with "orphan" instead of "folder". The last line is

    total  SUM  MISSING

SUM is the sum of the content counts of the normal folders reached, leaving out those named exactly
"Freebusy Data"; MISSING is how many of those folders have no content count.

Run by the PST corpus tests as an independent reader; pypff is used as a black box."""
import sys

import pypff

CONTENT_COUNT = 0x3602
FREEBUSY = "Freebusy Data"


def content_count(folder):
    for record_set in folder.record_sets:
        for entry in record_set.entries:
            if entry.entry_type == CONTENT_COUNT:
                return entry.data_as_integer
    return None


def kind(identifier):
    return {2: "normal", 3: "search"}.get(identifier & 0x1F, "other")


def describe(label, folder):
    identifier = folder.identifier
    count = content_count(folder)
    name = folder.name or ""
    for separator in "\t\r\n":
        name = name.replace(separator, " ")
    shown = "-" if count is None else str(count)
    print("\t".join([label, str(identifier), kind(identifier), shown, name]))
    return identifier, count, name


def main():
    store = pypff.file()
    store.open(sys.argv[1])
    total = 0
    missing = 0
    # Depth first, children in hierarchy order; a folder met twice (a damaged hierarchy) is not
    # walked again.
    seen = set()
    stack = [store.get_root_folder()]
    while stack:
        folder = stack.pop()
        identifier, count, name = describe("folder", folder)
        if identifier in seen:
            continue
        seen.add(identifier)
        if kind(identifier) == "normal" and name != FREEBUSY:
            if count is None:
                missing += 1
            else:
                total += count
        children = [folder.get_sub_folder(i) for i in range(folder.number_of_sub_folders)]
        stack.extend(reversed(children))
    for index in range(store.number_of_orphan_items):
        item = store.get_orphan_item(index)
        if isinstance(item, pypff.folder):
            describe("orphan", item)
    print("total\t%d\t%d" % (total, missing))
    store.close()


if __name__ == "__main__":
    main()
