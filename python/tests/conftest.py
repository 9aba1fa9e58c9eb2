"""Fixtures shared by the package's tests."""
import os
import tempfile

import pytest

import zu_data_manager as zu


@pytest.fixture
def data_dir():
    """A fresh data directory, which must hold no data file once the test is done."""
    with tempfile.TemporaryDirectory(prefix="zu-py-") as d:
        zu.set_data_directory(d)
        yield d
        zu.set_data_directory("")
        assert [n for n in os.listdir(d) if n.upper().endswith(".KMB")] == []
