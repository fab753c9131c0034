#!/usr/bin/python3
"""Every corpus message file renders, and its header block shows what independent readers find.

  msg_corpus_check.py TARNVIEW NODE ORACLES_DIR CORPUS_DIR WORKDIR [--repaired]

Each .msg is rendered twice with `tarnview render`: as the toolkit asks by default, and with --text.
With --compat (the toolkit's contract), the first must give a document (format 226 or 369) when the file
holds a compressed-RTF body, and status -9 otherwise (a message file's HTML property is not one of the
bodies the reader takes). With --repaired, tarnview's default, every file gives a document, 8-bit values
are shown converted from the message's code page and so must equal msgreader's decoding, and an HTML
document has inlined exactly the images that msgreader finds among the attachments and the body refers
to: no image the body still names by "cid:" or file name, and no image that is not an attachment. The --text document
opens with the header block as lines "Label:<tab>value"; Subject, From and its address, To and Cc there
must equal what npm @kenjiuno/msgreader reports, and, where our reading differs from that reader's by
design, what python3-olefile finds in the streams themselves:

- An 8-bit string property (a "__substg1.0_XXXX001E" stream) is shown as its bytes, in whatever code page
  its writer used; msgreader decodes it. Such a value is compared with the stream's bytes (olefile), and
  with msgreader only when it is ASCII.
- The address behind From is the sender's SMTP address (property 0x5D01), else the sent-representing
  e-mail address (0x0065), and is dropped when it holds no "@" (an Exchange X.500 address).
  msgreader's senderEmail is the sender's e-mail address (0x0C1F), which may be X.500; it is compared
  only where both hold an "@".
- To and Cc are the message's display properties (0x0E04, 0x0E03): the recipients' display names joined
  by "; ". msgreader lists recipient rows; their names of type to and cc, joined the same way, must match.
- A value ends at its first NUL: writers that store one behind the text are shown without it.

RTF documents are also read by unrtf, whose text must show each ASCII value.

Exit status 0 when every file passed, 1 with one line per fault.
"""
import base64
import json
import os
import re
import shutil
import struct
import subprocess
import sys

import olefile

SUBJECT, SENDER, SMTP, REPRESENTING_ADDRESS, TO, CC = "0037", "0C1A", "5D01", "0065", "0E04", "0E03"
LABELS = {"From:": "from", "To:": "to", "Cc:": "cc", "Subject:": "subject"}


def string_property(ole, prop):
    """(kind, bytes as shown): kind "unicode", "8bit" or None; the value as our document shows it."""
    for suffix, kind in (("001F", "unicode"), ("001E", "8bit")):
        name = "__substg1.0_" + prop + suffix
        if ole.exists(name):
            raw = ole.openstream(name).read()
            if kind == "unicode":
                text = raw[: len(raw) // 2 * 2].decode("utf-16-le", errors="replace").encode("utf-8")
            else:
                text = raw
            return kind, text.split(b"\0", 1)[0]
    return None, b""


def message_codec(ole):
    """Python's codec for the code page of a message's 8-bit strings: the message's own (0x3FFD), else
    its Internet code page (0x3FDE), else Windows-1252."""
    stream = ole.openstream("__properties_version1.0").read() if ole.exists("__properties_version1.0") else b""
    found = {}
    for at in range(32, len(stream) - 15, 16):
        kind, prop = struct.unpack_from("<HH", stream, at)
        if kind == 0x0003:
            found[prop] = struct.unpack_from("<I", stream, at + 8)[0]
    page = found.get(0x3FFD) or found.get(0x3FDE) or 1252
    # A 7-bit Internet code page is not how strings are stored: ISO-2022-JP mail keeps them in Shift_JIS.
    return {65001: "utf-8", 50220: "cp932", 20127: "cp1252", 28591: "latin-1"}.get(page, "cp%d" % page)


def has_rtf_body(ole):
    name = "__substg1.0_10090102"
    if not ole.exists(name):
        return False
    return ole.openstream(name).read()[8:12] in (b"LZFu", b"MELA")


def render(tarnview, path, out, text, repaired):
    args = [tarnview, "render", path, "-o", out] + ([] if repaired else ["--compat"]) + (["--text"] if text else [])
    run = subprocess.run(args, capture_output=True, text=True, timeout=300,
                         env=dict(os.environ, TARNKRN_LANGUAGE="0x0409"))
    if run.returncode != 0:
        status = re.search(r"returned (-?\d+)", run.stderr)
        return None, int(status.group(1)) if status else run.stderr.strip()
    return int(re.search(r"format (\d+)", run.stdout).group(1)), None


def image_faults(document, images, body):
    """What an HTML document got wrong about the images that msgreader finds among the attachments: every
    image that the message's body (`body`, as written) refers to by "cid:" and its id or by its file name
    in quotes must be inlined, and nothing else may be."""
    faults = []
    attached = {image["base64"] for image in images}
    for inlined in set(re.findall(rb"data:image;base64,([A-Za-z0-9+/=]*)", document)):
        if inlined.decode() not in attached:
            faults.append("an inlined image that is no attachment's")
    for image in images:
        references = ["cid:" + image["cid"]] * bool(image["cid"]) + ['"' + image["name"] + '"'] * bool(image["name"])
        if any(reference.encode() in body for reference in references) and \
                ("data:image;base64," + image["base64"]).encode() not in document:
            faults.append("%s is referred to but not inlined" % image["name"])
    return faults


def header_lines(document):
    """The header block of a --text document: {label: value bytes}."""
    if not document.startswith(b"\xef\xbb\xbf"):
        return None
    fields = {}
    for line in document[3:].split(b"\r\n"):
        if not line:
            break
        label, _, value = line.partition(b"\t")
        fields[label.decode("utf-8", "replace").strip()] = value
    return fields


def main():
    tarnview, node, oracles, corpus, workdir = sys.argv[1:6]
    repaired = sys.argv[6:] == ["--repaired"]
    shutil.rmtree(workdir, ignore_errors=True)
    os.makedirs(workdir)
    files = sorted(os.path.join(corpus, f) for f in os.listdir(corpus) if f.endswith(".msg"))
    run = subprocess.run([node, os.path.join(oracles, "msgfields.js")] + files, capture_output=True, timeout=300)
    if run.returncode != 0:
        print("msgreader failed: " + run.stderr.decode("utf-8", "replace"))
        return 1
    oracle = json.loads(run.stdout)
    faults, compared, documents, refused = [], 0, 0, 0

    for path in files:
        name = os.path.basename(path)
        seen = oracle[path]
        if "error" in seen:
            faults.append("%s: msgreader: %s" % (name, seen["error"]))
            continue
        ole = olefile.OleFileIO(path)
        props = {p: string_property(ole, p) for p in (SUBJECT, SENDER, SMTP, REPRESENTING_ADDRESS, TO, CC)}
        codec = message_codec(ole)
        has_text = ole.exists("__substg1.0_1000001F") or ole.exists("__substg1.0_1000001E")
        has_rtf = has_rtf_body(ole)
        ole.close()

        base = os.path.join(workdir, os.path.splitext(name)[0])
        fmt, status = render(tarnview, path, base, False, repaired)
        if repaired:
            if fmt not in (226, 369, 316):
                faults.append("%s: no document (%s)" % (name, status))
                continue
            documents += 1
            if fmt == 369:
                # The body as written: msgreader's HTML property, else the HTML recovered from the RTF
                # body, as the contract gives it with its references untouched.
                body = base64.b64decode(seen["html"])
                if not body and render(tarnview, path, base + ".compat", False, False)[0] == 369:
                    with open(base + ".compat", "rb") as f:
                        body = f.read()
                with open(base, "rb") as f:
                    faults.extend("%s: %s" % (name, fault) for fault in image_faults(f.read(), seen["images"], body))
        elif has_rtf:
            if fmt not in (226, 369):
                faults.append("%s: a compressed-RTF body, yet no document (%s)" % (name, status))
                continue
            documents += 1
        elif status != -9:
            faults.append("%s: no compressed-RTF body, yet format %s status %s (not -9)" % (name, fmt, status))
            continue
        else:
            refused += 1
        if not has_text:
            continue

        fmt_text, status = render(tarnview, path, base + ".txt", True, repaired)
        if fmt_text != 316:
            faults.append("%s: --text gave no text document (%s)" % (name, status))
            continue
        with open(base + ".txt", "rb") as f:
            shown = header_lines(f.read())
        if shown is None:
            faults.append("%s: the text document does not open with EF BB BF" % name)
            continue

        def expect(label, ours_kind, raw, reader_value):
            """The value the line must show: the stream's bytes for 8-bit text, else the reader's."""
            nonlocal compared
            if ours_kind == "8bit" and repaired:
                ours = raw.decode(codec, errors="replace")
                theirs = (reader_value or "").split("\0")[0]
                # msgreader reads every 8-bit string as Latin-1, whatever the message's code page.
                if theirs != ours and theirs != raw.decode("latin-1"):
                    faults.append("%s: %s: %s decodes %r, msgreader %r" % (name, label, codec, ours, theirs))
                return ours.encode("utf-8")
            if ours_kind == "8bit":
                if reader_value is not None and raw.isascii() and raw.decode() != reader_value.split("\0")[0]:
                    faults.append("%s: %s: the stream holds %r, msgreader says %r" % (name, label, raw, reader_value))
                return raw
            if ours_kind is None:
                return b""
            value = (reader_value or "").split("\0")[0].encode("utf-8")
            if value != raw:
                faults.append("%s: %s: olefile reads %r, msgreader %r" % (name, label, raw, value))
            return value

        expected = {}
        expected["subject"] = expect("Subject", props[SUBJECT][0], props[SUBJECT][1], seen["subject"])
        sender = expect("From", props[SENDER][0], props[SENDER][1], seen["senderName"])
        address = props[SMTP][1] or props[REPRESENTING_ADDRESS][1]
        if b"@" not in address:
            address = b""
        elif seen["senderEmail"] and "@" in seen["senderEmail"] and \
                seen["senderEmail"].lower().encode() != address.lower():
            faults.append("%s: From address %r, msgreader's %r" % (name, address, seen["senderEmail"]))
        expected["from"] = sender + (b" <" + address + b">" if sender and address else b"")
        for label, prop, key in (("To", TO, "to"), ("Cc", CC, "cc")):
            joined = "; ".join(seen[key])
            expected[key] = expect(label, props[prop][0], props[prop][1], joined)

        for label, key in LABELS.items():
            got = shown.get(label, b"")
            compared += 1
            if got != expected[key]:
                faults.append("%s: %s shows %r, expected %r" % (name, label, got, expected[key]))

        if fmt == 226:
            text = subprocess.run(["unrtf", "--text", base], capture_output=True, timeout=120).stdout
            text = re.sub(rb"\s+", b" ", text)
            for key in ("subject", "from", "to", "cc"):
                value = re.sub(rb"\s+", b" ", expected[key]).strip()
                if value and value.isascii() and value not in text:
                    faults.append("%s: unrtf text lacks the %s %r" % (name, key, value))

    for fault in faults:
        print("FAULT " + fault)
    print("%d message files: %d documents, %d refused with -9, %d header values compared"
          % (len(files), documents, refused, compared))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
