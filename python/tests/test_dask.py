"""dask over the arrays: in this process through views, and on a local cluster of worker
processes through the files alone."""
import os
import subprocess
import sys
import tempfile

import numpy as np
import pytest

import zu_data_manager as zu

dask = pytest.importorskip("dask", reason="./dev installs python3-dask for these tests")
distributed = pytest.importorskip("distributed")

SEGMENT = 2**24  # int64 elements of one file


@pytest.fixture(scope="module")
def two_files():
    """A file array over two files, and its elements."""
    with tempfile.TemporaryDirectory(prefix="zu-dask-") as d:
        zu.set_data_directory(d)
        v = np.arange(SEGMENT + 1000, dtype=np.int64) * 7 - 5_000_000
        a = zu.file_array(np.int64)
        a.append(v)
        yield a, v
        a.close()
        zu.set_data_directory("")
        assert os.listdir(d) == []


def test_to_dask_views_each_file(two_files):
    a, v = two_files
    x = a.to_dask()
    assert x.chunks == ((SEGMENT, 1000),) and x.dtype == v.dtype
    assert int(x.sum().compute()) == int(v.sum()) and int((x % 3 == 0).sum()) == (v % 3 == 0).sum()
    whole = np.asarray(a)
    chunks = [x.dask[key] for key in x.__dask_keys__()]
    assert all(np.shares_memory(chunk, whole) for chunk in chunks)  # no copy in this process
    with pytest.raises(BufferError):  # the dask array holds its views
        a.clear()
    del x, chunks
    empty = zu.vector_array(np.uint8)
    assert empty.to_dask().compute().tolist() == []


@pytest.mark.filterwarnings("ignore::DeprecationWarning")  # tornado's, under distributed
def test_files_on_a_local_cluster(two_files):
    a, v = two_files
    description = a.save_description()
    x = zu.dask_array(description, np.int64)
    assert x.chunks == ((SEGMENT, 1000),)
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                       host="127.0.0.1", dashboard_address=None,
                                       worker_dashboard_address=None)
    with cluster, distributed.Client(cluster, timeout=60) as client:
        total, multiples = dask.compute(x.sum(), (x % 3 == 0).sum())
        assert (total, multiples) == (v.sum(), (v % 3 == 0).sum())
        # The workers read the files with numpy alone: this package never loaded there.
        loaded = client.run(eval, "'zu_data_manager' in __import__('sys').modules")
        assert len(loaded) == 2 and not any(loaded.values())
        # Files that are gone: a task that maps one fails.
        gone = zu.file_array(np.int64)
        gone.append(v[:100])
        late = zu.dask_array(gone.save_description(), np.int64)
        gone.close()
        with pytest.raises(FileNotFoundError):
            late.sum().compute()


def test_dask_array_checks_its_arguments():
    with pytest.raises(TypeError):
        zu.dask_array({"files": []}, np.float64)
    for bad in ({}, {"files": [{"file_path": "x"}]}, '{"files": [{"file_path": "x", "size": -1}]}'):
        with pytest.raises(ValueError):
            zu.dask_array(bad, np.int64)
    assert zu.dask_array('{"files": []}', np.uint16).shape == (0,)


def test_without_dask_the_error_names_the_packages():
    code = ("import sys; sys.modules['dask'] = None\n"
            "import numpy as np, zu_data_manager as zu\n"
            "try:\n    zu.vector_array(np.uint8).to_dask()\n"
            "except ImportError as e:\n    print(e)\n")
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                         timeout=60).stdout
    assert "python3-dask" in out and "python3-distributed" in out
