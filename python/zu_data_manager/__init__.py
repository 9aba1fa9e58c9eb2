"""Typed arrays that grow beyond memory into mapped temporary files, used like numpy arrays.

    import numpy as np
    import zu_data_manager as zu

    zu.set_data_directory("/var/tmp/myapp")
    with zu.file_array(np.int64) as a:          # the files go when the block ends
        a.append(np.arange(0, 30_000_000, 3))
        a[-1], a[1000:1005], a.searchsorted([301, 302], side="right")

Every kind is an Array: see help(zu_data_manager.Array). np.asarray(a) views file storage
without a copy; a.to_dask() and dask_array(description, dtype) hand the data to dask.
"""
from ._core import (
    Array,
    __version__,
    attach,
    auto_deque_array,
    auto_vector_array,
    clean_tmp_files,
    deque_array,
    file_array,
    get_data_directory,
    set_data_directory,
    vector_array,
)
from ._dask import dask_array, to_dask

Array.to_dask = to_dask
del to_dask

__all__ = [
    "Array",
    "attach",
    "auto_deque_array",
    "auto_vector_array",
    "clean_tmp_files",
    "dask_array",
    "deque_array",
    "file_array",
    "get_data_directory",
    "set_data_directory",
    "vector_array",
]
