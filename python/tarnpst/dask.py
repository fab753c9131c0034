"""Many sources at once on a Dask cluster: one task per source (or per folder set of a large store).

    from distributed import Client
    manifests = export_many(paths, "/shared/out", client=Client("scheduler:8786"), attachments=True)

The workers read the sources and write `out` themselves, so on a real cluster both must lie on storage
that every worker reaches under the same paths.
"""

import json
import os
import uuid

import tarnpst


def _export_one(source, out, folders, options):
    # A retried task finds what an earlier attempt finished: resume keeps it and writes the rest, so
    # the result is the export that never failed.
    options = dict(options)
    options.setdefault("resume", not options.get("force", False))
    tarnpst.export([source], out, folders=list(folders or []), keep_rows=False, **options)
    # The manifest as written: a row kept by resume is on disk in full, while export() returns it bare.
    with open(os.path.join(out, "manifest.jsonl"), encoding="utf-8") as manifest:
        rows = [json.loads(line) for line in manifest]
    return [row for row in rows if not row.get("summary")]


def _tasks(paths, split):
    """(source, folder under out, folder set or None) for each task, in the order of `paths`."""
    for entry in paths:
        if isinstance(entry, (str, bytes, os.PathLike)):
            source, folder_sets = entry, split(entry) if split else None
        else:
            source, folder_sets = entry
        source = os.fsdecode(source)
        stem = os.path.splitext(os.path.basename(source))[0]
        if not folder_sets:
            yield source, stem, None
            continue
        for n, folders in enumerate(folder_sets, 1):
            yield source, os.path.join(stem, "part-%d" % n), folders


def export_many(paths, out, client=None, retries=2, split=None, **options):
    """Exports each source into `out/<stem>/` (with its own manifest.jsonl) as one Dask task and
    returns the manifests, one list of row dicts per task, in the order of `paths`.

    An entry of `paths` is a path, or (path, folder_sets) to split a large store: each set of folder
    paths (as Source.folders() gives them) becomes one task written to `out/<stem>/part-N/`, its
    messages numbered as in the whole store. `split(path)`, when given, returns the folder sets of
    each plain path (None or [] for one task). Without a client, a LocalCluster of worker processes
    is started for the call and closed after it. A task that fails, or whose worker dies, is tried
    again up to `retries` times; every task runs with resume (unless force=True is given), so a retry,
    or a later call into the same `out`, finishes what an earlier one began. The options are those of
    tarnpst.export. Two sources with the same
    stem would share a folder and raise ValueError; the first failed task's error is raised.
    """
    tasks = list(_tasks(paths, split))
    targets = [target for _, target, _ in tasks]
    if len(set(targets)) != len(targets):
        raise ValueError("two sources would be written to the same folder: %r" % targets)
    own = None
    if client is None:
        from distributed import Client, LocalCluster

        own = LocalCluster(processes=True, threads_per_worker=1, dashboard_address=":0")  # any free port
        client = Client(own)
    call = uuid.uuid4().hex  # a key of its own per call: Dask would hand back an earlier call's result
    try:
        futures = [
            client.submit(_export_one, source, os.path.join(os.fsdecode(out), target), folders, options,
                          key="tarnpst-export-%s-%s" % (call, target), retries=retries)
            for source, target, folders in tasks
        ]
        return client.gather(futures)
    finally:
        if own is not None:
            client.close()
            own.close()
