"""The Python module against tarnview run as a program: the same fields, documents and exported files,
and failures raised with the status tarnview reports."""

import errno
import faulthandler
import json
import os
import re
import shutil
import threading
import time

import pytest
from conftest import SAMPLES, SHARED, corpus, tarnview

import tarnpst
import tarnpst.dask

SAMPLE = os.path.join(SAMPLES, "sample.pst")
STORES = corpus("pst") + [SAMPLE, "synthetic"]


def resolve(path, request):
    return request.getfixturevalue("synthetic_store") if path == "synthetic" else path


def files(root):
    """Every file under `root` by its relative path, with its bytes."""
    found = {}
    for folder, _, names in os.walk(root):
        for name in names:
            with open(os.path.join(folder, name), "rb") as f:
                found[os.path.relpath(os.path.join(folder, name), root)] = f.read()
    return found


def manifest_rows(root):
    with open(os.path.join(root, "manifest.jsonl"), encoding="utf-8") as f:
        return [row for row in map(json.loads, f) if not row.get("summary")]


@pytest.mark.parametrize("path", STORES, ids=os.path.basename)
def test_fields_equal_tarnview_list(path, request):
    path = resolve(path, request)
    listed = json.loads(tarnview("list", "--json", path, check=False).stdout)
    seen = [{"index": m.number - 1, "folder": m.folder, "subject": m.subject, "sender": m.sender,
             "sent": m.sent.strftime("%a %b %d, %Y %I:%M %p") if m.sent else "", "to": m.to, "cc": m.cc,
             "bcc": m.bcc, "importance": m.importance} for m in tarnpst.open(path)]
    assert seen == listed


RENDER_OPTIONS = [{}, {"text": True}, {"lang": 0x0411}, {"compat": True}, {"text": True, "compat": True}]


@pytest.mark.parametrize("path", STORES + corpus("msg") + corpus("eml") + [os.path.join(SAMPLES, "hello.eml")],
                         ids=os.path.basename)
def test_render_equals_tarnview_render(path, request, tmp_path):
    path = resolve(path, request)
    source = tarnpst.open(path)
    numbers = {1, len(source)} if source.kind == "pst" else {1}
    for number in sorted(numbers):
        for options in RENDER_OPTIONS if path == SAMPLE else RENDER_OPTIONS[:2]:
            args = ["render", path, "--message", str(number), "-o", str(tmp_path / "doc")]
            args += ["--text"] * options.get("text", False) + ["--compat"] * options.get("compat", False)
            args += ["--lang", "0x%04X" % options["lang"]] if "lang" in options else []
            done = tarnview(*args, check=False)
            if done.returncode:
                with pytest.raises(tarnpst.Error) as raised:
                    source.render(number, **options)
                assert str(raised.value.status) == re.search(rb"returned (-?\d+)", done.stderr).group(1).decode()
                continue
            document = source.render(number, **options)
            assert bytes(document) == (tmp_path / "doc").read_bytes(), (number, options)
            formats = {"226": "rtf", "316": "text", "369": "html"}
            assert document.format == formats[re.search(rb"format (\d+)", done.stdout).group(1).decode()]


EXPORTS = [  # (source, options)
    (SAMPLE, {}),
    ("synthetic", {"text": True, "jobs": 2}),
    (os.path.join(SHARED, "corpus", "pst", "unicode-attach-and-inline.pst"), {"attachments": True}),
    (os.path.join(SHARED, "corpus", "pst", "unicode-contacts-dist-list-row-order.pst"),  # rows with errors
     {"lang": 0x0407, "compat": True, "attachments": True}),
    (os.path.join(SHARED, "corpus", "pst", "unicode-gopst-support-html.pst"), {"compat": True}),  # filter notes
    (corpus("msg")[2], {"attachments": True}),
    (corpus("eml")[3], {"attachments": True}),
]


@pytest.mark.parametrize("path,options", EXPORTS, ids=lambda v: os.path.basename(v) if isinstance(v, str) else None)
def test_export_equals_tarnview_export(path, options, request, tmp_path):
    path = resolve(path, request)
    args = ["--text"] * options.get("text", False) + ["--compat"] * options.get("compat", False)
    args += ["--attachments"] * options.get("attachments", False) + ["--jobs", str(options.get("jobs", 1))]
    args += ["--lang", "0x%04X" % options["lang"]] if "lang" in options else []
    tarnview("export", path, "-o", str(tmp_path / "cli"), *args, check=False)
    progress = []
    rows = tarnpst.export(path, tmp_path / "py", progress=lambda done, total: progress.append(done), **options)
    assert files(tmp_path / "py") == files(tmp_path / "cli")
    assert rows == manifest_rows(tmp_path / "py")
    assert progress == list(range(1, len(rows) + 1))


@pytest.fixture(scope="module")
def client():
    from distributed import Client, LocalCluster

    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster:
        with Client(cluster) as client:
            yield client


def test_export_many_equals_tarnview_export(client, synthetic_store, tmp_path):
    copies = [str(tmp_path / ("copy%d.pst" % n)) for n in range(1, 5)]
    for copy in copies:
        shutil.copyfile(synthetic_store, copy)
    manifests = tarnpst.dask.export_many(copies, tmp_path / "out", client=client, attachments=True)
    for copy, manifest in zip(copies, manifests):
        stem = os.path.splitext(os.path.basename(copy))[0]
        tarnview("export", copy, "-o", str(tmp_path / "cli" / stem), "--attachments")
        assert files(tmp_path / "out" / stem) == files(tmp_path / "cli" / stem)
        assert manifest == manifest_rows(tmp_path / "cli" / stem)


def test_export_many_splits_a_store_by_folders_on_its_own_cluster(tmp_path):
    folder_sets = [[path] for path, _ in tarnpst.open(SAMPLE).folders()]
    assert len(folder_sets) > 1
    whole = tarnpst.export(SAMPLE, tmp_path / "whole")
    parts = tarnpst.dask.export_many([(SAMPLE, folder_sets)], tmp_path / "parts")
    assert len(parts) == len(folder_sets)
    written = sorted((row for part in parts for row in part if row["exported"]), key=lambda row: row["index"])
    assert written == whole
    with pytest.raises(ValueError):
        tarnpst.dask.export_many([SAMPLE, SAMPLE], tmp_path / "twice", client=object())


def stop(done, total):
    return False


def fail(done, total):
    raise ZeroDivisionError("from the callback")


@pytest.mark.parametrize("call,raised,status", [
    (lambda tmp: tarnpst.open(tmp / "missing.pst"), tarnpst.Error, -10),
    (lambda tmp: tarnpst.open(SAMPLE).render(1, lang=0x10000), ValueError, None),
    (lambda tmp: tarnpst.open(SAMPLE).render(3, compat=True), tarnpst.Error, -9),
    (lambda tmp: tarnpst.export(SAMPLE, tmp / "out", progress=stop), tarnpst.Error, -1),
    (lambda tmp: tarnpst.export(SAMPLE, tmp / "out", progress=fail), ZeroDivisionError, None),
    (lambda tmp: tarnpst.export(SAMPLE, os.path.join(SAMPLE, "out")), tarnpst.Error, -10),
], ids=["missing", "language", "no-document", "stopped", "callback-raises", "out-not-a-folder"])
def test_errors_raise_with_their_status(call, raised, status, tmp_path):
    with pytest.raises(raised) as caught:
        call(tmp_path)
    assert getattr(caught.value, "status", None) == status
    assert str(caught.value)


def render_pipe(path):
    shutil.copyfile(os.path.join(SAMPLES, "hello.eml"), path)
    source = tarnpst.open(path)
    os.remove(path)
    os.mkfifo(path)  # render reads the source anew from its path, now a pipe
    return lambda: source.render(1)


@pytest.mark.parametrize("prepare", [
    lambda path: os.mkfifo(path) or (lambda: tarnpst.open(path)),
    render_pipe,
    lambda path: os.mkfifo(path) or (lambda: tarnpst.export(path, path + ".out")),
], ids=["open", "render", "export"])
def test_the_gil_is_released_while_a_source_is_read(prepare, tmp_path):
    """A pipe holds its reader until a writer comes: were the GIL held meanwhile, this thread could never
    write, and the watchdog would end the process. What the reader makes of the pipe does not matter."""
    path = str(tmp_path / "message.eml")
    work = prepare(path)
    reader = threading.Thread(target=lambda: outcome.append(attempt(work)))
    outcome, wrote = [], False
    faulthandler.dump_traceback_later(120, exit=True)
    reader.start()
    while reader.is_alive():  # the pipe is served as often as the reader opens it (an export does twice)
        try:  # without blocking: a reader that fails before it opens the pipe must not hang the test
            writer = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO  # no reader at the moment
            time.sleep(0.01)
            continue
        try:
            os.set_blocking(writer, True)
            wrote = os.write(writer, b"Subject: piped\r\n\r\nbody\r\n") > 0 or wrote
        except BrokenPipeError:
            pass  # the reader had what it wanted
        os.close(writer)
    reader.join()
    faulthandler.cancel_dump_traceback_later()
    assert wrote, outcome


def attempt(work):
    try:
        return work()
    except tarnpst.Error as error:
        return error
