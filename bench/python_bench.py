#!/usr/bin/env python3
"""The Python package next to numpy (numpy.memmap and an in-RAM ndarray) on the same fresh data.

Rows (int64, ascending, fresh random data each run of the script; the peer of each row in
brackets, against which every contender's median time is given as a ratio):
  write     file_array.append(v)         | [ndarray.tofile(path)]
  view all  np.asarray(file_array)       | [numpy.memmap(path)]   (and the growth of anonymous
            memory while the result is held: RssAnon of /proc/self/status)
  copy all  np.array(file_array)         | [np.array(memmap)] | ndarray.copy
  search    a.searchsorted / lower_bound / upper_bound / find (keys unsorted, one call each)
            | np.searchsorted(memmap, keys) | np.searchsorted(ndarray, keys)
            | [numpy at its best]: argsort the keys, np.searchsorted of the sorted keys in the
              in-RAM ndarray, answers put back in the keys' order (the sort counted)
Every search round draws fresh random keys, the same for all contenders of that round. Every
contender of a row runs in turn, round after round, so that drift of the machine hits all
alike; the table gives the median and the range (min-max) of the rounds. The files are in the
page cache while measured (each was just written): this compares the code paths, not the disk.

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


def anon_bytes():
    """Anonymous memory of this process (RssAnon), in bytes."""
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("RssAnon:"):
                return int(line.split()[1]) * 1024
    return 0


def rounds(contenders, runs, before_round=None):
    """Runs each (name, fn) once per round, `runs` rounds, after before_round() (not timed).
    Returns {name: [seconds, ...]} and {name: [anonymous bytes grown while the result was
    held, ...]}; each result is dropped before the next contender runs."""
    times = {name: [] for name, _ in contenders}
    growth = {name: [] for name, _ in contenders}
    for _ in range(runs):
        if before_round is not None:
            before_round()
        for name, fn in contenders:
            anon = anon_bytes()
            start = time.perf_counter()
            result = fn()
            times[name].append(time.perf_counter() - start)
            growth[name].append(anon_bytes() - anon)
            del result
    return times, growth


def span(seconds):
    return f"{seconds * 1e3:.1f} ms" if seconds >= 1e-3 else f"{seconds * 1e6:.1f} us"


def row(title, times, peer, unit_count, unit, growth=None):
    base = statistics.median(times[peer])
    lines = []
    for name, runs in times.items():
        median = statistics.median(runs)
        label = f"[{name}]" if name == peer else name
        grown = "" if growth is None else f" | {statistics.median(growth[name]) / 2**20:.1f} MiB"
        lines.append(f"| {title} | {label} | {span(median)} | {span(min(runs))}-{span(max(runs))} | "
                     f"{unit_count / median / 1e6:.1f} M {unit}/s | {median / base:.2f}x{grown} |")
    return lines


def numpy_at_best(values, keys, side="left"):
    """np.searchsorted with the keys sorted first, answers in the keys' order."""
    order = np.argsort(keys)
    answers = np.empty(len(keys), dtype=np.intp)
    answers[order] = np.searchsorted(values, keys[order], side)
    return answers


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=100_000_000, help="elements (int64)")
    parser.add_argument("--keys", type=int, default=1_000_000, help="keys per search batch")
    parser.add_argument("--runs", type=int, default=7, help="rounds per row")
    parser.add_argument("--dir", default=None, help="directory for the files (default: temp)")
    args = parser.parse_args()

    rng = np.random.default_rng()
    values = np.cumsum(rng.integers(0, 8, args.count, dtype=np.int64))
    head = "| row | contender | median | range | rate | time / [peer] |"
    with tempfile.TemporaryDirectory(prefix="zu-pybench-", dir=args.dir) as work:
        zu.set_data_directory(os.path.join(work, "zu"))
        raw = os.path.join(work, "values.raw")
        lines = [head, "|---|---|---|---|---|---|"]

        kept = []

        def append():
            kept[:] = [zu.file_array(np.int64)]  # drops (closes) the one before
            kept[0].append(values)

        write, _ = rounds([("file_array.append", append),
                           ("ndarray.tofile", lambda: values.tofile(raw))], args.runs)
        lines += row("write", write, "ndarray.tofile", args.count, "elem")
        array = kept.pop()
        memmap = np.memmap(raw, dtype=np.int64, mode="r")
        assert np.array_equal(np.asarray(array), values) and np.array_equal(memmap, values)

        view, grown = rounds([("np.asarray(file_array)", lambda: np.asarray(array)),
                              ("numpy.memmap", lambda: np.memmap(raw, np.int64, "r"))],
                             args.runs)
        view_lines = row("view all", view, "numpy.memmap", args.count, "elem", grown)
        copy, _ = rounds([("np.array(file_array)", lambda: np.array(array)),
                          ("np.array(memmap)", lambda: np.array(memmap)),
                          ("ndarray.copy", values.copy)], args.runs)
        lines += row("copy all", copy, "np.array(memmap)", args.count, "elem")

        keys = np.empty(0, np.int64)

        def fresh_keys():
            nonlocal keys
            keys = rng.integers(-10, int(values[-1]) + 10, args.keys, dtype=np.int64)

        fresh_keys()
        left = np.searchsorted(values, keys)
        right = np.searchsorted(values, keys, "right")
        found = np.where(values[np.minimum(left, len(values) - 1)] == keys, left, len(values))
        assert np.array_equal(array.searchsorted(keys), left)
        assert np.array_equal(array.lower_bound(keys), left)
        assert np.array_equal(array.find(keys), found)
        # File storage: a key at or above the last element answers the end of its last file.
        next_file = -(-len(values) // 2**24) * 2**24
        assert np.array_equal(array.upper_bound(keys), np.where(right == len(values), next_file, right))
        assert np.array_equal(np.searchsorted(array, keys), left)
        assert np.array_equal(numpy_at_best(values, keys), left)
        search, _ = rounds([("a.searchsorted", lambda: array.searchsorted(keys)),
                            ("a.lower_bound", lambda: array.lower_bound(keys)),
                            ("a.upper_bound", lambda: array.upper_bound(keys)),
                            ("a.find", lambda: array.find(keys)),
                            ("np.searchsorted(memmap)", lambda: np.searchsorted(memmap, keys)),
                            ("np.searchsorted(ndarray)", lambda: np.searchsorted(values, keys)),
                            ("numpy at its best", lambda: numpy_at_best(values, keys))],
                           args.runs, before_round=fresh_keys)
        lines += row("search", search, "numpy at its best", args.keys, "keys")
        array.close()
        del memmap

    print(f"zu_data_manager {zu.__version__}, numpy {np.__version__}: {args.count:,} int64, "
          f"{args.keys:,} fresh random keys per round, {args.runs} rounds; medians, range "
          f"(min-max) of the rounds")
    print("\n".join(lines))
    print()
    print("| row | contender | median | range | rate | time / [peer] | anonymous memory grown |")
    print("|---|---|---|---|---|---|---|")
    print("\n".join(view_lines))


if __name__ == "__main__":
    main()
