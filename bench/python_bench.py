#!/usr/bin/env python3
"""The Python package next to numpy.memmap on the same fresh data, in one process.

Rows (int64, ascending, fresh random data each run of the script):
  write      file_array.append(v)          | v.tofile(path) (then numpy.memmap over it)
  read all   np.asarray(file_array)        | np.array(memmap) (a copy) | v.copy() (memcpy)
  search     file_array.lower_bound(keys)  | np.searchsorted(memmap, keys) | np.searchsorted(v, keys)
             file_array.searchsorted(keys)  | the same on memmap with the keys sorted first
Every contender of a row runs in turn, round after round, so that drift of the machine hits
all alike; the table gives the median and the range of the runs and the ratio of the
package's median time over each peer's (below 1: the package is faster). Both files are in
the page cache while measured (each was just written): this compares the code paths, not the
disk.

Run from the repository root after building the default preset (or with the package installed):
  PYTHONPATH=build/default/python python3 bench/python_bench.py [--count N] [--keys K]
                                                                  [--runs R] [--dir DIR]
or ./dev bench python [options].
"""
import argparse
import os
import statistics
import tempfile
import time

import numpy as np

import zu_data_manager as zu


def timed(fn):
    start = time.perf_counter()
    result = fn()
    return time.perf_counter() - start, result


def rounds(contenders, runs, keep=None):
    """Runs each (name, fn) once per round, `runs` rounds. Returns {name: [seconds, ...]} and
    the last result of the contender named `keep`; other results are dropped at once, so that
    a copy is freed (or an array closed) before the next contender runs, outside the timing."""
    times = {name: [] for name, _ in contenders}
    kept = None
    for _ in range(runs):
        for name, fn in contenders:
            seconds, result = timed(fn)
            times[name].append(seconds)
            if name == keep:
                kept = result  # drops (closes) the previous one
            del result
    return times, kept


def in_key_order(sorted_values, keys):
    """np.searchsorted with the keys visited in ascending order, answers in the keys' order:
    what the package does inside one call, done with numpy."""
    order = np.argsort(keys)
    answers = np.empty(len(keys), dtype=np.intp)
    answers[order] = np.searchsorted(sorted_values, keys[order])
    return answers


def row(title, times, ours, unit_count, unit):
    base = statistics.median(times[ours])
    lines = []
    for name, runs in times.items():
        median = statistics.median(runs)
        ratio = "" if name == ours else f"{base / median:.2f}x"
        lines.append(f"| {title} | {name} | {median * 1e3:.1f} ms | {min(runs) * 1e3:.1f}-"
                     f"{max(runs) * 1e3:.1f} ms | {unit_count / median / 1e6:.1f} M {unit}/s | "
                     f"{ratio} |")
    return lines


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=100_000_000, help="elements (int64)")
    parser.add_argument("--keys", type=int, default=1_000_000, help="keys per search batch")
    parser.add_argument("--runs", type=int, default=7, help="rounds per row")
    parser.add_argument("--dir", default=None, help="directory for the files (default: temp)")
    args = parser.parse_args()

    rng = np.random.default_rng()
    values = np.cumsum(rng.integers(0, 8, args.count, dtype=np.int64))
    keys = rng.integers(-10, int(values[-1]) + 10, args.keys, dtype=np.int64)
    with tempfile.TemporaryDirectory(prefix="zu-pybench-", dir=args.dir) as work:
        zu.set_data_directory(os.path.join(work, "zu"))
        raw = os.path.join(work, "values.raw")
        lines = ["| row | contender | median | range | rate | zu time / peer |",
                 "|---|---|---|---|---|---|"]

        def append():
            array = zu.file_array(np.int64)
            array.append(values)
            return array

        write, array = rounds([("file_array.append", append),
                               ("ndarray.tofile", lambda: values.tofile(raw))], args.runs,
                              keep="file_array.append")
        lines += row("write", write, "file_array.append", args.count, "elem")
        memmap = np.memmap(raw, dtype=np.int64, mode="r")
        assert np.array_equal(np.asarray(array), values) and np.array_equal(memmap, values)

        read, _ = rounds([("np.asarray(file_array)", lambda: np.asarray(array)),
                       ("np.array(memmap)", lambda: np.array(memmap)),
                       ("ndarray.copy", values.copy)], args.runs)
        lines += row("read all", read, "np.asarray(file_array)", args.count, "elem")

        expected = np.searchsorted(values, keys)
        assert np.array_equal(array.lower_bound(keys), expected)
        assert np.array_equal(array.searchsorted(keys), expected)
        assert np.array_equal(in_key_order(memmap, keys), expected)
        search, _ = rounds([("file_array.lower_bound", lambda: array.lower_bound(keys)),
                         ("file_array.searchsorted", lambda: array.searchsorted(keys)),
                         ("np.searchsorted(memmap)", lambda: np.searchsorted(memmap, keys)),
                         ("same, keys sorted first", lambda: in_key_order(memmap, keys)),
                         ("np.searchsorted(ndarray)", lambda: np.searchsorted(values, keys))],
                        args.runs)
        lines += row("search", search, "file_array.lower_bound", args.keys, "keys")
        array.close()
        del memmap

    print(f"zu_data_manager {zu.__version__}, numpy {np.__version__}: {args.count:,} int64, "
          f"{args.keys:,} random keys, {args.runs} rounds; medians, range of the runs")
    print("\n".join(lines))


if __name__ == "__main__":
    main()
