"""The package as a numpy user meets it, over every kind and element type."""
import errno
import os
import pickle
import re
import tempfile

import numpy as np
import pytest

import zu_data_manager as zu

KINDS = ["vector", "deque", "file", "auto_vector", "auto_deque", "attached"]
OWNING = KINDS[:-1]
DTYPES = [np.uint8, np.uint16, np.uint32, np.int64]
FILE_KINDS = {"file"}  # the self-spilling kinds stay in memory at these sizes
ROOT = os.path.join(os.path.dirname(__file__), "..", "..")


pytestmark = pytest.mark.usefixtures("data_dir")  # every test: a fresh data directory


def sorted_values(dtype, n=300_000, seed=1):
    info = np.iinfo(dtype)
    low, high = max(info.min, -(2**40)), min(info.max, 2**40)
    return np.sort(np.random.default_rng(seed).integers(low, high, n, endpoint=True)).astype(dtype)


def made(kind, values):
    if kind == "attached":
        return zu.attach(values)
    a = getattr(zu, kind + "_array")(values.dtype)
    a.append(values)
    return a


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("kind", KINDS)
def test_reads_as_numpy_does(kind, dtype):
    v = sorted_values(dtype)
    a = made(kind, v)
    n = len(v)
    assert (len(a), a.shape, a.ndim, a.size, a.dtype) == (n, (n,), 1, n, np.dtype(dtype))
    assert type(a[-1]) is np.dtype(dtype).type and a[-1] == v[-1] and a[7] == v[7]
    for bad in (n, -n - 1, 2**64):
        with pytest.raises(IndexError):
            a[bad]
    for s in (slice(10, 20), slice(None, None, 1000), slice(5, -5, 7), slice(None, None, -3),
              slice(-1, 100, -40), slice(n, None), slice(3, 3)):
        np.testing.assert_array_equal(a[s], v[s])
    index = np.array([[0, -1], [n // 2, 5]])
    np.testing.assert_array_equal(a[index], v[index])
    np.testing.assert_array_equal(a[[3, -2]], v[[3, -2]])
    np.testing.assert_array_equal(a[v > v[n // 2]], v[v > v[n // 2]])
    np.testing.assert_array_equal(np.asarray(a), v)
    np.testing.assert_array_equal(a.to_numpy(n - 7, 2**63), v[-7:])
    assert a.to_numpy(2**64 - 1).size == 0
    # Views wherever one run holds every element; a self-spilling deque keeps blocks in memory.
    assert np.shares_memory(np.asarray(a), np.asarray(a)) == (kind not in ("deque", "auto_deque"))


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("kind", KINDS)
def test_searches_per_kind(kind, dtype):
    v = sorted_values(dtype)
    a = made(kind, v)
    rng = np.random.default_rng(2)
    keys = np.concatenate([rng.choice(v, 600), rng.integers(int(v[0]) - 2, int(v[-1]) + 2, 600)])
    keys = keys.clip(np.iinfo(dtype).min, np.iinfo(dtype).max).astype(dtype)
    reals = np.concatenate([keys, keys + 0.5, [np.nan, np.inf, -np.inf, -1, 2.0**64]])
    for side in ("left", "right"):  # exact on every kind, beyond the dtype's range too
        np.testing.assert_array_equal(np.searchsorted(a, reals, side), np.searchsorted(v, reals, side))
        assert a.searchsorted(int(keys[0]), side) == np.searchsorted(v, keys[0], side)
    grid = keys[:600].reshape(20, 30)  # numpy's own function reaches the method, any shape
    np.testing.assert_array_equal(np.searchsorted(a, grid, side="right"), np.searchsorted(v, grid, "right"))
    left, right = np.searchsorted(v, keys, "left"), np.searchsorted(v, keys, "right")
    found = np.where((left < len(v)) & (v[left.clip(0, len(v) - 1)] == keys), left, len(v))
    if kind == "attached":  # the upper_bound slot of a view is the exact-match search
        np.testing.assert_array_equal(a.upper_bound(keys), found)
        for search in (a.lower_bound, a.find, a.find_floor, a.find_nearest):
            with pytest.raises(NotImplementedError):
                search(keys)
        return
    np.testing.assert_array_equal(a.lower_bound(keys), left)
    np.testing.assert_array_equal(a.find(keys), found)
    assert a.lower_bound(int(keys[3])) == left[3]  # one key, one int
    floor, (nearest, value) = a.find_floor(keys), a.find_nearest(keys)
    np.testing.assert_array_equal(nearest, left)
    if kind in FILE_KINDS:  # documented: past a segment's last element, the next segment
        np.testing.assert_array_equal(a.upper_bound(keys), np.where(right == len(v), 2**27 // v.itemsize, right))
        inside = floor < len(v)  # else every element is greater; inside: a sampled position
        assert (floor[inside] % (4096 // v.itemsize) == 0).all() and (v[floor[inside]] <= keys[inside]).all()
        np.testing.assert_array_equal(value, keys)  # tolerance 0: a page scan, the key unchanged
    else:
        np.testing.assert_array_equal(a.upper_bound(keys), right)
        np.testing.assert_array_equal(floor, np.where(found < len(v), left, left - 1))
        np.testing.assert_array_equal(value, np.where(left < len(v), v[left.clip(0, len(v) - 1)], keys))


def test_searchsorted_across_file_segments():
    v = np.arange(2**24 + 1000, dtype=np.int64) // 3  # two segments of 2**24 elements
    with zu.file_array(np.int64) as a:
        a.append(v)
        keys = np.concatenate([v[2**24 - 5 : 2**24 + 5], v[[0, -1]], [-1, v[-1] + 1]])
        for side in ("left", "right"):
            np.testing.assert_array_equal(a.searchsorted(keys, side), np.searchsorted(v, keys, side))


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("kind", OWNING)
def test_no_silent_change_of_values(kind, dtype):
    a = getattr(zu, kind + "_array")(dtype)
    info = np.iinfo(dtype)
    a.append([info.min, 5])
    a.append(np.array([6, 7], dtype))
    a.append(np.array([True]))  # bool casts safely
    refused = [(3.9, TypeError), (np.float32(2), TypeError), (info.max + 1, OverflowError),
               (info.min - 1, OverflowError), ([1, info.max + 1], OverflowError),
               (np.array([1.0]), TypeError), (np.array([[1, 2]], dtype), ValueError),
               (np.array([info.max], np.uint64) + 1, OverflowError)]
    if info.min == 0:  # int64 -> unsigned is not a same_kind cast, even for values that fit
        refused.append((np.array([1], np.int64), TypeError))
    for bad, error in refused:
        with pytest.raises(error):
            a.append(bad)
    with pytest.raises(TypeError):
        a.lower_bound(2.5)
    np.testing.assert_array_equal(a.to_numpy(), np.array([info.min, 5, 6, 7, 1], dtype))
    a[-1] = info.max  # the last chunk of a segment: file storage writes it too
    assert a[-1] == info.max
    for index, value, error in [(5, 1, IndexError), (0, -1 if info.min == 0 else 2**63, OverflowError),
                                (0, 1.0, TypeError), (slice(0, 1), 1, TypeError)]:
        with pytest.raises(error):
            a[index] = value


def test_appends_and_reads_split_into_pieces():
    old = zu._core._set_call_limits(1000, 2500)  # as the real limits of 2**30 and 2**32 - 1 do
    try:
        v = np.arange(10_000, dtype=np.int64)
        for kind in OWNING:
            a = getattr(zu, kind + "_array")(np.int64)
            a.append(v)
            np.testing.assert_array_equal(a.to_numpy(1500, 5000), v[1500:6500])
            np.testing.assert_array_equal(a[2000::3], v[2000::3])
    finally:
        zu._core._set_call_limits(*old)


def test_failures_are_python_exceptions(data_dir):
    zu.set_data_directory("")
    for values in (5, np.arange(10)):
        with pytest.raises(OSError, match="no data directory") as raised:
            zu.file_array(np.int64).append(values)
        assert raised.value.errno == errno.ENOSPC
    view = zu.attach(np.arange(4, dtype=np.uint8))
    for refused in (lambda: view.append(1), view.clear, lambda: view.__setitem__(0, 1)):
        with pytest.raises(NotImplementedError):
            refused()
    zu.set_data_directory(data_dir)
    source = zu.file_array(np.uint16)
    source.append(np.arange(70_000, dtype=np.uint16) // 2)
    copy = zu.file_array(np.uint16)
    copy.load_description(source.save_description())
    np.testing.assert_array_equal(copy.to_numpy(), source.to_numpy())
    missing = os.path.join(data_dir, "{00000000-0000-0000-0000-000000000000}.KMB")
    with pytest.raises(ValueError, match=re.escape(missing) + ".*missing.*passwd.*foreign"):
        copy.load_description({"files": [{"file_path": missing, "size": 1},
                                         {"file_path": "/etc/passwd", "size": 1}]})
    assert len(copy) == 70_000  # refused before anything changed
    for kind in ("vector", "auto_deque"):
        with pytest.raises(ValueError):
            getattr(zu, kind + "_array")(np.uint16).load_description(source.save_description())
    assert zu.vector_array(np.uint16).save_description() is None
    copy.close()
    source.close()


def test_lifetime(data_dir):
    with zu.file_array(np.int64) as a:
        a.append(np.arange(100))
        assert len(os.listdir(data_dir)) == 1
    assert os.listdir(data_dir) == [] and a.closed
    for closed_use in (lambda: len(a), lambda: a[0], lambda: a.append(1), a.to_numpy):
        with pytest.raises(ValueError):
            closed_use()
    a.close()  # again: nothing happens
    with pytest.raises(TypeError, match="pickle"):
        pickle.dumps(zu.vector_array(np.int64))
    v = zu.vector_array(np.int64)
    v.append([1, 2, 3])
    view = np.asarray(v)  # zero-copy, writable
    view[0] = 9
    assert v[0] == 9
    for refused in (lambda: v.append(4), v.clear, v.close):
        with pytest.raises(BufferError):
            refused()
    del view
    v.append(4)
    assert v.to_numpy().tolist() == [9, 2, 3, 4]


def test_version_is_the_library_version():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as cmake:
        assert re.search(r"project\(zu_data_manager VERSION ([0-9.]+)", cmake.read())[1] == zu.__version__
