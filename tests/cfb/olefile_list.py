#!/usr/bin/env python3
"""Lists every stream of a compound file as olefile sees it: one line per stream, the path's names as
UTF-16 code units in hex (names joined by '/'), a tab, and the stream's size in bytes.

Run by the compound-file tests as an independent reader; olefile is used as a black box."""
import sys

import olefile


def main():
    ole = olefile.OleFileIO(sys.argv[1])
    for path in ole.listdir(streams=True, storages=False):
        pieces = []
        for name in path:
            units = name.encode("utf-16-le")
            pieces.append(units.hex())
        print("/".join(pieces) + "\t" + str(ole.get_size("/".join(path))))
    ole.close()


if __name__ == "__main__":
    main()
