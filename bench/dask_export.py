"""Exports COPIES copies of a store through one process (one tarnpst.export call over all of them) and
through tarnpst.dask.export_many on a LocalCluster of WORKERS worker processes, and prints the wall
time, the throughput and the peak memory of each.

Usage: dask_export.py STORE COPIES WORKERS DIR   (the module on PYTHONPATH; copies and output in DIR;
       bench/run.sh dask)
"""

import os
import shutil
import sys
import tempfile
import time

import tarnpst
import tarnpst.dask


def peak_mib():
    # VmHWM, not getrusage's maxrss: a worker process inherits its parent's maxrss when it is forked.
    with open("/proc/self/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM:")) / 1024


def report(what, seconds, size, rows, peak):
    print("%-44s %6.1f s  %6.1f MiB/s  %6d messages  peak %5.0f MiB" % (what, seconds, size / seconds / 2**20, rows, peak))


def main(store, copies, workers, base):
    work = tempfile.mkdtemp(prefix="tarnpst-dask-", dir=base)
    try:
        paths = [os.path.join(work, "copy%d.pst" % n) for n in range(1, copies + 1)]
        for path in paths:
            shutil.copyfile(store, path)
        size = sum(os.path.getsize(p) for p in paths)
        print("== dask: %d copies of %s (%.0f MiB in all), %d cores" % (copies, os.path.basename(store), size / 2**20,
                                                                       os.cpu_count()))

        start = time.perf_counter()
        rows = len(tarnpst.export(paths, os.path.join(work, "one"), keep_rows=True))
        report("one process, tarnpst.export (default jobs)", time.perf_counter() - start, size, rows, peak_mib())
        shutil.rmtree(os.path.join(work, "one"))

        from distributed import Client, LocalCluster

        with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None) as cluster:
            with Client(cluster) as client:
                client.wait_for_workers(workers)
                start = time.perf_counter()
                manifests = tarnpst.dask.export_many(paths, os.path.join(work, "many"), client=client)
                seconds = time.perf_counter() - start
                peaks = client.run(peak_mib)
        report("%d-worker LocalCluster, export_many" % workers, seconds, size, sum(map(len, manifests)),
               max(peaks.values()))
        print("(peak: the exporting process, rows kept; for the cluster the largest worker's, the client aside)")
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4])
