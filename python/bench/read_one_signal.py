"""Benchmark of the Python module: all events of one signal out of 10,000 in a file of over
200 MB into numpy arrays, against the C++ filtered reader on the same file and signal.

    PYTHONPATH=build/rel/python /usr/bin/python3 python/bench/read_one_signal.py \\
        build/rel/python/bench/python_bench_one_signal [FILE] [RUNS]

FILE (default /tmp/tarvel_python_bench.twf) is written first when it is not there. Each side
runs RUNS times (default 5) after one untimed run that brings the file into the page cache;
the medians of wall and CPU time are printed (CPU time counts every thread of the process).
Python: tarvel.open(FILE, signals=[name]), then the signal's times, deltas and values.
C++: CreateFilteredRawTarvelRead of the signal's handle and name, its events copied into
vectors.
"""

import os
import statistics
import subprocess
import sys
import time

import tarvel

HANDLE = 5000
NAME = f"top.block{HANDLE // 100}.sig{HANDLE}"


def cpp_runs(helper, path, runs):
    out = subprocess.run([helper, "read", path, str(HANDLE), NAME, str(runs)], check=True, capture_output=True, text=True)
    rows = [line.split() for line in out.stdout.splitlines()]
    return [float(r[0]) for r in rows], [float(r[1]) for r in rows], int(rows[0][2])


def python_once(path):
    wall, cpu = time.perf_counter(), time.process_time()
    with tarvel.open(path, signals=[NAME]) as f:
        s = f[NAME]
        times, deltas, values = s.times, s.deltas, s.values
    return (time.perf_counter() - wall) * 1e3, (time.process_time() - cpu) * 1e3, len(times), values


def main():
    helper = sys.argv[1]
    path = sys.argv[2] if len(sys.argv) > 2 else "/tmp/tarvel_python_bench.twf"
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    subprocess.run([helper, "make", path], check=True)
    size = os.path.getsize(path)
    cpp_runs(helper, path, 1)  # the page cache
    python_once(path)
    walls, cpus = [], []
    cpp_wall, cpp_cpu = [], []
    for _ in range(runs):  # alternated, so that both see the same state of the machine
        w, c, events, values = python_once(path)
        walls.append(w)
        cpus.append(c)
        cw, cc, cpp_events = cpp_runs(helper, path, 1)
        cpp_wall += cw
        cpp_cpu += cc
    assert events == cpp_events, (events, cpp_events)
    print(f"file {path}: {size / 1e6:.0f} MB, 10,000 signals; {NAME}: {events} events ({values.dtype})")
    print("                      wall ms   cpu ms")
    print(f"C++ filtered reader  {statistics.median(cpp_wall):8.0f} {statistics.median(cpp_cpu):8.0f}")
    print(f"Python tarvel.open   {statistics.median(walls):8.0f} {statistics.median(cpus):8.0f}")
    print(f"ratio (wall)         {statistics.median(walls) / statistics.median(cpp_wall):8.2f}")


if __name__ == "__main__":
    main()
