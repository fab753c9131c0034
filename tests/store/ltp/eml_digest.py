#!/usr/bin/env python3
"""Prints one line per .eml file under a directory, for the store oracle test:
relative folder path, then subject, plain-text body, HTML body and attachment names, each as hex
(UTF-8 for text), tab-separated. Line ends in bodies are normalised to LF."""
import email
import email.policy
import os
import sys

root = sys.argv[1]
for folder, _, files in sorted(os.walk(root)):
    for name in sorted(files):
        if not name.endswith('.eml'):
            continue
        with open(os.path.join(folder, name), 'rb') as f:
            message = email.message_from_binary_file(f, policy=email.policy.default)
        plain = html = b''
        attachments = []
        for part in message.walk():
            if part.is_multipart():
                continue
            data = part.get_payload(decode=True) or b''
            if part.get_filename():
                attachments.append(part.get_filename())
            elif part.get_content_type() == 'text/plain':
                plain = data
            elif part.get_content_type() == 'text/html':
                html = data
        fields = [os.path.relpath(folder, root), str(message['subject'] or '').encode(), plain.replace(b'\r\n', b'\n'),
                  html.replace(b'\r\n', b'\n'), ';'.join(attachments).encode()]
        print('\t'.join([fields[0]] + [x.hex() for x in fields[1:]]))
