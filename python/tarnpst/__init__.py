"""Tarnpst for Python: Outlook PST stores, message files (.msg) and Internet messages (.eml) as the
filter's documents (HTML, RTF or text, with an Outlook-style header block).

    src = tarnpst.open("inbox.pst")
    for message in src:
        print(message.number, message.folder, message.subject, message.sent)
    document = src.render(1)              # bytes, with document.format "html", "rtf" or "text"
    rows = tarnpst.export(["inbox.pst"], "out", attachments=True)

Failures raise tarnpst.Error, whose .status is the filter's status code. tarnpst.dask.export_many
exports many sources on a Dask cluster.
"""

import os as _os


class Error(Exception):
    """A failure of the filter, with its status code (below 1) and words naming the file."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status


class Document(bytes):
    """A document as the toolkit's loader is handed it: its bytes, `format` ("html", "rtf" or "text")
    and `repairs`, the names of the repairs it needed (empty with compat=True)."""

    def __new__(cls, data, format, repairs=()):
        document = super().__new__(cls, data)
        document.format = format
        document.repairs = list(repairs)
        return document


from ._tarnpst import Message, MessageIterator, Source, status_text  # noqa: E402  (needs Error, Document)
from . import _tarnpst  # noqa: E402


def open(path):
    """Opens a PST store, a message file or an Internet message; raises Error when it cannot be read."""
    return _tarnpst.open(_os.fsdecode(path))


def export(paths, out, attachments=False, jobs=None, progress=None, **options):
    """Writes every message of each source into the folder `out` as `tarnview export -o out` does,
    manifest.jsonl included, and returns the manifest's rows as dicts (its keys are the manifest's).

    `paths` is one path or a list of them. `progress(done, total)` is called after each message, with
    the GIL held; returning False stops the export, which then raises Error. The other options are
    those of tarnview export: text, lang (a LANGID), compat, force, resume, and folders (the paths
    Source.folders() gives; only their messages are written, numbered as in the whole store);
    keep_rows=False returns no rows, so that memory stays flat however large the sources are (the
    manifest lists them all the same); pdf=True lays each document out beside it (rows gain "pdf",
    "pdf_bytes", "pdf_sha256" and "pages").
    A message that fails is recorded in its row; Error is raised only when the export cannot start
    or stops before its end.
    """
    if isinstance(paths, (str, bytes, _os.PathLike)):
        paths = [paths]
    return _tarnpst.export([_os.fsdecode(p) for p in paths], _os.fsdecode(out), attachments=attachments,
                           jobs=jobs, progress=progress, **options)


__all__ = ["Error", "Document", "Message", "MessageIterator", "Source", "open", "export", "status_text"]
