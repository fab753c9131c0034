#!/usr/bin/python3
"""Every message of a PST as pypff (python3-pypff) reads it, one JSON object a line: node id, subject,
sender name, client submit time in UTC (ISO 8601, to the second).

8-bit strings are taken as pypff's raw record bytes and decoded here with Python's own codecs in the
message's code page (PR_MESSAGE_CODEPAGE, else PR_INTERNET_CPID, else 1252; a 7-bit internet form
stands for the Windows page of its script), so the text comes from neither of our readers. An absent
value is null.
"""
import json
import sys

import pypff

SEVEN_BIT = {50220: 932, 50221: 932, 50222: 932, 50225: 949, 52936: 936, 20127: 1252}


def entries(item):
    found = {}
    for r in range(item.number_of_record_sets):
        for e in item.get_record_set(r).entries:
            found.setdefault(e.entry_type, (e.value_type, e.data))
    return found


def code_page(props):
    for tag in (0x3FFD, 0x3FDE):
        if tag in props and props[tag][1] is not None and len(props[tag][1]) >= 4:
            page = int.from_bytes(props[tag][1][:4], "little")
            return SEVEN_BIT.get(page, page)
    return 1252


def text(props, tag, page, subject=False):
    if tag not in props:
        return "No Subject" if subject else None
    kind, data = props[tag]
    data = data or b""
    if kind == 0x1F:
        value = data.decode("utf-16-le", errors="replace")
        if subject and value[:1] == "\x01":
            value = value[2:]
    else:
        if subject and data[:1] == b"\x01":
            data = data[2:]
        try:
            value = data.decode("cp%d" % page)
        except (LookupError, UnicodeDecodeError):
            value = data.decode("cp1252", errors="replace")
    return value.split("\0")[0]


def sent(message):
    try:
        when = message.get_client_submit_time()
    except Exception:  # pypff raises for a value it cannot read
        return None
    return when.strftime("%Y-%m-%dT%H:%M:%SZ") if when is not None else None


def walk(folder):
    for i in range(folder.number_of_sub_messages):
        message = folder.get_sub_message(i)
        props = entries(message)
        page = code_page(props)
        print(json.dumps({"node": str(message.identifier), "subject": text(props, 0x0037, page, subject=True),
                          "sender": text(props, 0x0C1A, page), "sent": sent(message)}, ensure_ascii=False))
    for i in range(folder.number_of_sub_folders):
        walk(folder.get_sub_folder(i))


store = pypff.file()
store.open(sys.argv[1])
walk(store.get_root_folder())
