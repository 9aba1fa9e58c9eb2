"""Views without copies: what they share, and that none outlives or misreports the array.

Every case that could read freed or changed memory runs in a child process, so that a crash
fails its test instead of ending the run.
"""
import os
import subprocess
import sys
import tempfile
import textwrap
import tracemalloc

import numpy as np
import pytest

import zu_data_manager as zu

CHILD = """
import gc, os, resource, signal, sys
import numpy as np
import zu_data_manager as zu
zu.set_data_directory(sys.argv[1])
v = np.arange(300_000, dtype=np.int64) * 3
def made(kind, values=v):
    a = getattr(zu, kind + "_array")(np.int64)
    a.append(values)
    return a
"""


def in_child(code):
    """Runs CHILD + code in a fresh interpreter over a fresh data directory; its stdout."""
    with tempfile.TemporaryDirectory(prefix="zu-py-") as d:
        result = subprocess.run([sys.executable, "-c", CHILD + textwrap.dedent(code), d],
                                capture_output=True, text=True, timeout=120)
        assert result.returncode == 0, f"child ended with {result.returncode}: {result.stderr}"
        assert [n for n in os.listdir(d) if n.upper().endswith(".KMB")] == []
    return result.stdout


# (kind, elements, change, allowed while a view lives). 9,000,000 elements put a self-spilling
# array in files.
CHANGES = [
    ("file", "300_000", "a.clear()", False),
    ("file", "300_000", "a.close()", False),
    ("file", "300_000", "a.load_description(other.save_description())", False),
    ("file", "300_000", "a[5] = 1", False),
    ("file", "300_000", "a.append(v)", True),
    ("auto_vector", "300_000", "a.append(v)", False),
    ("auto_vector", "300_000", "a[5] = 1", True),
    ("auto_vector", "9_000_000", "a.append(v)", False),
    ("auto_vector", "9_000_000", "a[5] = 1", False),
    ("auto_deque", "9_000_000", "a.clear()", False),
]


@pytest.mark.parametrize("kind, n, change, allowed", CHANGES)
def test_a_view_refuses_what_would_end_it(kind, n, change, allowed):
    assert in_child(f"""
        a = made("{kind}", np.arange({n}, dtype=np.int64))
        other = made("file", v[:10])
        view, part = np.asarray(a), a.to_numpy(1000, 5, copy=False)
        assert np.shares_memory(view, part) and not view.flags.writeable
        try:
            {change}
            done = True
        except BufferError:
            done = False
        assert done == {allowed}, done
        np.testing.assert_array_equal(view, a[:len(view)])  # never a value a[i] does not have
        np.testing.assert_array_equal(part, a[1000:1005])
        del view, part
        {change}  # once the views are gone
        print("ok")
    """) == "ok\n"


def test_views_keep_the_array_alive():
    assert in_child("""
        a = made("file")
        view, part = np.asarray(a), a.to_numpy(7, 3, copy=False)
        files = os.listdir(sys.argv[1])
        del a
        gc.collect()
        assert os.listdir(sys.argv[1]) == files and (view == v).all() and (part == v[7:10]).all()
        del view
        assert os.listdir(sys.argv[1]) == files
        del part  # the last view lets the array go, and its files with it
        assert os.listdir(sys.argv[1]) == []
        print("ok")
    """) == "ok\n"


def test_views_of_a_file_array_growing_across_files():
    # int64 files hold 2**24 elements: the views stay valid while the array grows past one.
    assert in_child("""
        a = made("file", np.arange(2**24 - 100, dtype=np.int64))
        first = np.asarray(a)
        a.append(np.arange(2**24 - 100, 2**24 + 100))
        across = a.to_numpy(2**24 - 50, 100, copy=False)
        for i in range(2**24 + 100, 2**24 + 5000):
            a.append(i)
        a.append(np.arange(2**24 + 5000, 2**24 + 9000))
        whole = np.asarray(a)  # one run over both files
        assert len(whole) == len(a) == 2**24 + 9000 and np.shares_memory(whole, across)
        assert (whole == np.arange(len(a))).all() and (first == whole[:len(first)]).all()
        assert (across == np.arange(2**24 - 50, 2**24 + 50)).all()
        print("ok")
    """) == "ok\n"


def test_a_view_outlives_an_append_that_found_no_room():
    # A file-size limit makes the file array's growth fail: the failed file stays mapped.
    out = in_child("""
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        a = made("file")
        view = np.asarray(a)
        held = sum(os.path.getsize(os.path.join(sys.argv[1], f)) for f in os.listdir(sys.argv[1]))
        resource.setrlimit(resource.RLIMIT_FSIZE, (held + 2**20, resource.RLIM_INFINITY))
        try:
            a.append(np.arange(4_000_000))
        except OSError as e:
            print(e.errno)
        print(len(a) < len(v), (view == v).all())
    """)
    assert out == "28\nTrue True\n"


def test_copies_and_views_on_request(data_dir):
    v = np.arange(300_000, dtype=np.int64) * 3
    for kind in ("vector", "deque", "file", "auto_vector", "auto_deque"):
        a = getattr(zu, kind + "_array")(np.int64)
        a.append(v)
        copied, viewed = a.to_numpy(10, 100), a.to_numpy(10, 100, copy=None)
        assert copied.flags.writeable and not np.shares_memory(copied, viewed)
        assert np.shares_memory(viewed, a.to_numpy(50, 2, copy=False))  # within one run
        assert viewed.flags.writeable == (kind == "vector") and (viewed == v[10:110]).all()
        if kind in ("deque", "auto_deque"):  # blocks: a range across them has no view
            with pytest.raises(ValueError, match="not one run"):
                a.to_numpy(0, len(v), copy=False)
            assert (a.to_numpy(0, len(v), copy=None) == v).all()
        assert (a.__array__(copy=True) == v).all() and a.to_numpy(len(v), copy=False).size == 0
        del viewed
        a.close()
    a = zu.file_array(np.int64)
    a.append(v)
    a[0] = 7  # the file now differs from a[0]: its elements leave the runs
    with pytest.raises(ValueError, match=r"a\[i\] = v"):
        a.to_numpy(0, 5, copy=False)
    with pytest.raises(ValueError, match="copy=False"):
        a.__array__(copy=False)
    with pytest.raises(BufferError):
        memoryview(a)
    assert not np.shares_memory(np.asarray(a), np.asarray(a))
    a.close()


def test_searchsorted_is_numpys_and_copies_nothing(data_dir):
    v = np.arange(1_000_000, dtype=np.int64) * 2
    a = zu.deque_array(np.int64)  # no view: a fallback would copy 8 MB
    a.append(v)
    keys = np.random.default_rng(3).integers(-5, 2_000_005, 1000)
    tracemalloc.start()
    found = np.searchsorted(a, keys, side="right")
    peak = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    assert peak < 1_000_000 and (found == np.searchsorted(v, keys, side="right")).all()
    assert a.searchsorted(v=np.int64(7)) == 4 and np.ndim(a.searchsorted(7.5)) == 0
    with pytest.raises(ValueError, match="sorter"):  # not TypeError: numpy would copy instead
        np.searchsorted(a, keys, sorter=np.arange(len(v)))
