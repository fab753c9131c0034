"""Writes every compressed-RTF body of the corpus, as its file holds it, for the de-encapsulation check.

Usage: compressed_rtf_streams.py CORPUS OUTDIR
Message files (CORPUS/msg/*.msg) are read with olefile (the top-level stream __substg1.0_10090102), stores
(CORPUS/pst/*.pst) with pypff (property 0x1009 of every message of every folder). Each body is written to
OUTDIR/N.bin, and one line "N.bin<TAB>where it came from" per body goes to stdout.
"""
import glob
import os
import sys

import olefile
import pypff

RTF_STREAM = "__substg1.0_10090102"
RTF_PROPERTY = 0x1009


def message_file_bodies(corpus):
    for path in sorted(glob.glob(os.path.join(corpus, "msg", "*.msg"))):
        with olefile.OleFileIO(path) as ole:
            if ole.exists(RTF_STREAM):
                yield os.path.basename(path), ole.openstream(RTF_STREAM).read()


def folder_bodies(folder, where):
    for index, message in enumerate(folder.sub_messages):
        for record_set in message.record_sets:
            for entry in record_set.entries:
                if entry.entry_type == RTF_PROPERTY and entry.data:
                    yield f"{where} message {index}", entry.data
    for sub in folder.sub_folders:
        yield from folder_bodies(sub, f"{where}/{sub.name}")


def store_bodies(corpus):
    for path in sorted(glob.glob(os.path.join(corpus, "pst", "*.pst"))):
        store = pypff.file()
        store.open(path)
        try:
            yield from folder_bodies(store.get_root_folder(), os.path.basename(path))
        finally:
            store.close()


def main():
    corpus, out = sys.argv[1], sys.argv[2]
    os.makedirs(out, exist_ok=True)
    count = 0
    for where, data in list(message_file_bodies(corpus)) + list(store_bodies(corpus)):
        name = f"{count}.bin"
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
        print(f"{name}\t{where}")
        count += 1


if __name__ == "__main__":
    main()
