#!/usr/bin/env python3
"""The toolkit's documents of every corpus file, held to a record made before the filter learnt any
repair: messages 1 to 3 of each store and the one message of each message file and Internet message,
each as rendered and with the plain-text flag, in English and in UTC.

  compat_documents.py TARNVIEW CORPUS RECORD [--record] [-- FLAG...]
  compat_documents.py TARNVIEW CORPUS --repaired

Without --record it renders every document again and prints each that differs from RECORD (status,
format, size or SHA-256); it exits 1 if any does. With --record it writes RECORD instead. FLAGs are
passed to every `tarnview render` (the flag that asks for the contract's bytes).

With --repaired it checks the default, repaired documents instead: every one of them is made (status 1),
and every RTF document has balanced groups in each of the nine languages of the header labels."""
import hashlib
import os
import re
import subprocess
import sys
import tempfile


def documents(corpus):
    for kind, numbers in (('pst', (1, 2, 3)), ('msg', (None,)), ('eml', (None,))):
        folder = os.path.join(corpus, kind)
        for name in sorted(os.listdir(folder)):
            if name.endswith('.' + kind):
                for number in numbers:
                    for text in (False, True):
                        yield f'{kind}/{name}', number, text


def render(tarnview, corpus, flags, path, number, text, out):
    args = [tarnview, 'render', os.path.join(corpus, path), '-o', out] + flags
    if number is not None:
        args += ['--message', str(number)]
    if text:
        args.append('--text')
    env = dict(os.environ, TZ='UTC', TARNKRN_LANGUAGE='0x0409')
    run = subprocess.run(args, capture_output=True, env=env)
    said = run.stdout.decode('utf-8', 'replace') + run.stderr.decode('utf-8', 'replace')
    if run.returncode == 0:
        data = open(out, 'rb').read()
        fmt = re.search(r'format (\d+)', said).group(1)
        return ['1', fmt, str(len(data)), hashlib.sha256(data).hexdigest()]
    # A store error while the store is opened or counted leaves the entry point as an exception.
    status = re.search(r'returned (-?\d+)|uncaught exception: (.*)', said)
    if status is None:
        sys.exit(f'{path}: tarnview failed without a status: {said.strip()}')
    return [status.group(1) or 'exception: ' + status.group(2).strip(), '-', '-', '-']


LANGUAGES = ('0x0409', '0x0407', '0x0418', '0x040C', '0x0411', '0x0804', '0x0404', '0x0412', '0x2C01')


def balanced(rtf):
    depth = 0
    i = 0
    while i < len(rtf):
        c = rtf[i]
        if c == 0x5C:  # a backslash escapes the next byte ("\\'hh" needs no more: hex digits are no braces)
            i += 2
            continue
        depth += (c == 0x7B) - (c == 0x7D)
        if depth < 0:
            return False
        i += 1
    return depth == 0


def check_repaired(tarnview, corpus):
    faults = 0
    made = 0
    with tempfile.TemporaryDirectory() as scratch:
        out = os.path.join(scratch, 'document')
        for path, number, text in documents(corpus):
            row = render(tarnview, corpus, [], path, number, text, out)
            if row[0] != '1':
                faults += 1
                print(f'{path} {number or "-"} {"text" if text else "document"}: status {row[0]}')
                continue
            made += 1
            if row[1] != '226':
                continue
            for language in LANGUAGES:
                render(tarnview, corpus, ['--lang', language], path, number, text, out)
                if not balanced(open(out, 'rb').read()):
                    faults += 1
                    print(f'{path} {number or "-"} in {language}: RTF groups do not balance')
    print(f'{made} repaired documents made, {faults} faults')
    sys.exit(1 if faults else 0)


def main():
    argv = sys.argv[1:]
    if '--repaired' in argv:
        check_repaired(argv[0], argv[1])
        return
    flags = argv[argv.index('--') + 1:] if '--' in argv else []
    argv = argv[:argv.index('--')] if '--' in argv else argv
    recording = '--record' in argv
    tarnview, corpus, record = [a for a in argv if a != '--record']
    rows = {}
    with tempfile.TemporaryDirectory() as scratch:
        out = os.path.join(scratch, 'document')
        for path, number, text in documents(corpus):
            key = (path, str(number or '-'), 'text' if text else 'document')
            rows[key] = render(tarnview, corpus, flags, path, number, text, out)
    if recording:
        with open(record, 'w') as f:
            f.write('# source\tmessage\trequest\tstatus\tformat\tsize\tsha256\n')
            for key, row in rows.items():
                f.write('\t'.join(list(key) + row) + '\n')
        print(f'{len(rows)} documents recorded')
        return
    recorded = {}
    for line in open(record):
        if not line.startswith('#'):
            fields = line.rstrip('\n').split('\t')
            recorded[tuple(fields[:3])] = fields[3:]
    differ = 0
    for key in sorted(set(rows) | set(recorded)):
        if rows.get(key) != recorded.get(key):
            differ += 1
            print(f'{" ".join(key)}: recorded {recorded.get(key)}, now {rows.get(key)}')
    print(f'{len(rows) - differ} documents as recorded, {differ} differ')
    sys.exit(1 if differ else 0)


if __name__ == '__main__':
    main()
