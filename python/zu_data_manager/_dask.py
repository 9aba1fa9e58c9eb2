"""dask arrays over an Array's data: Array.to_dask and dask_array.

to_dask() views the elements where they lie, in this process; dask_array() needs only a saved
description, and its chunks are read with numpy.memmap wherever dask runs them, so that workers
in other processes, or on other machines that see the same storage, need neither the extension
nor the Array that made the files. dask stays optional: without it both raise ImportError.
"""
import json
import uuid

import numpy as np

_SEGMENT_BYTES = 1 << 27  # the library's files hold 128 MiB of elements each
_DTYPES = tuple(np.dtype(t) for t in (np.uint8, np.uint16, np.uint32, np.int64))


def _dask_array_module():
    try:
        import dask.array
    except ImportError as error:
        raise ImportError(
            "zu_data_manager's dask arrays need dask: on Debian, apt-get install python3-dask "
            "(and python3-distributed for a cluster)") from error
    return dask.array


def _from_chunks(name, chunks, dtype):
    """A dask array whose chunk k is chunks[k]: an ndarray or a task that makes one."""
    da = _dask_array_module()
    sizes = tuple(size for size, _ in chunks)
    graph = {(name, k): value for k, (_, value) in enumerate(chunks)}
    if not chunks:  # dask wants one chunk, even an empty one
        sizes, graph = (0,), {(name, 0): np.empty(0, dtype)}
    return da.Array(graph, name, (sizes,), dtype=dtype)


def to_dask(self):
    """The array's elements as a dask.array, one chunk per file or run of memory, without a copy.

    Each chunk is a read-only view (a vector array's: writable) of elements that lie in one run
    of memory, cut at the library's file boundaries (134217728 // itemsize elements): a file of
    file storage, a block of a deque array, a 128 MiB piece of a vector array. Elements that the
    library reads through calls only (appended one by one and not yet written, a file that
    a[i] = v changed) are copied into their chunk now. The dask array has the size of the call
    and holds its views as np.asarray does (see help(Array)): while it lives, the array refuses
    clear, close and load_description. Computed in this process (dask's threads), nothing is
    copied; a distributed scheduler ships the chunks' bytes to its workers, where
    dask_array(a.save_description(), a.dtype) lets them read the files themselves.
    Returns a dask.array.Array. Raises ImportError without dask, ValueError once closed.
    """
    n = len(self)
    segment = _SEGMENT_BYTES // self.itemsize
    chunks = []
    i = 0
    while i < n:
        boundary = min(n, (i // segment + 1) * segment)
        run = self._read_run(i)
        if run is None:
            chunks.append((boundary - i, self.to_numpy(i, boundary - i)))
            i = boundary
            continue
        end = min(boundary, run[0] + run[1])
        chunks.append((end - i, self.to_numpy(i, end - i, copy=False)))
        i = end
    return _from_chunks("zu-array-" + uuid.uuid4().hex, chunks, self.dtype)


def dask_array(description, dtype):
    """A dask.array over the files of a saved description, one chunk per file.

    description: what Array.save_description() returned (a dict, or its JSON text); dtype: the
    array's dtype (uint8, uint16, uint32 or int64), which descriptions do not record. Each chunk
    is numpy.memmap(file_path, dtype, "r", shape=(size,)), made where dask runs the task: a worker
    needs numpy and the file, not this package. The files must stay until the computation ends:
    the Array that made them (or one that loaded the description) deletes them when it is
    closed, cleared or collected. A task that starts after that raises FileNotFoundError; one
    that mapped its file before goes on reading what the file held. Elements written after the
    description was saved (a[i] = v in a file's last 1 MiB) may be seen or not.
    Returns a dask.array.Array. Raises ImportError without dask, TypeError for another dtype,
    ValueError for a malformed description.
    """
    dtype = np.dtype(dtype)
    if dtype not in _DTYPES:
        raise TypeError(f"element type must be uint8, uint16, uint32 or int64, not {dtype}")
    if isinstance(description, (str, bytes)):
        description = json.loads(description)
    try:
        files = [(str(f["file_path"]), int(f["size"])) for f in description["files"]]
    except (KeyError, TypeError, ValueError) as error:
        raise ValueError('a description is {"files": [{"file_path": str, "size": int}, ...]}, '
                         f"not {description!r:.200}") from error
    if any(size < 0 for _, size in files):
        raise ValueError("a description's sizes are not negative")
    chunks = [(size, (np.asarray, (np.memmap, path, dtype, "r", 0, (size,))))
              for path, size in files if size > 0]
    return _from_chunks("zu-files-" + uuid.uuid4().hex, chunks, dtype)
