"""The Python module end to end: kinds, numpy in and out, searches, descriptions."""
import json
import os
import tempfile

import numpy as np
import pytest

import zu_data_manager as zu


@pytest.fixture
def data_dir():
    with tempfile.TemporaryDirectory(prefix="zu-py-") as d:
        zu.set_data_directory(d)
        yield d
        zu.set_data_directory("")
        leftovers = [n for n in os.listdir(d) if n.upper().endswith(".KMB")]
        assert leftovers == [], "files left behind"


@pytest.mark.parametrize("make", [zu.vector_array, zu.deque_array, zu.file_array,
                                  zu.auto_vector_array, zu.auto_deque_array])
def test_every_kind_round_trips_numpy(make, data_dir):
    a = make(np.int64)
    values = np.arange(-500, 300_000, 3, dtype=np.int64)
    assert a.append(values[:10]) == zu.OK
    assert a.append(int(values[10])) == zu.OK
    assert a.append(values[11:]) == zu.OK
    assert len(a) == len(values)
    np.testing.assert_array_equal(a.to_numpy(), values)
    np.testing.assert_array_equal(a.to_numpy(100, 5), values[100:105])
    assert a[-1] == values[-1] and a[0] == -500
    with pytest.raises(IndexError):
        a[len(values)]
    probe = int(values[5000]) + 1
    assert a.lower_bound(probe) == np.searchsorted(values, probe, "left")
    assert a.upper_bound(probe) == np.searchsorted(values, probe, "right")
    assert a.find(int(values[777])) == 777
    assert a.find(probe) == len(values)


def test_element_types_and_refusals():
    for dtype in (np.uint8, np.uint16, np.uint32, np.int64):
        assert len(zu.vector_array(dtype)) == 0
    with pytest.raises(TypeError):
        zu.vector_array(np.float64)
    small = zu.vector_array(np.uint8)
    assert small.append(np.array([1, 2, 300], dtype=np.int64)) == zu.OK  # cast like numpy
    assert list(small.to_numpy()) == [1, 2, 44]
    assert small.find_floor(0) == -1  # every element is greater


def test_attach_keeps_the_buffer_alive():
    data = np.array([10, 20, 20, 30], dtype=np.uint32)
    view = zu.attach(data)
    del data  # the view holds the numpy array
    assert len(view) == 4 and view[3] == 30
    with pytest.raises(ValueError):
        zu.attach(np.arange(10, dtype=np.int64)[::2])


def test_descriptions_as_dicts(data_dir):
    source = zu.file_array(np.uint16)
    source.append(np.arange(70_000, dtype=np.uint16) // 2)
    desc = source.save_description()
    assert isinstance(desc, dict) and len(desc["files"]) == 1
    copy = zu.file_array(np.uint16)
    assert copy.load_description(json.dumps(desc))
    np.testing.assert_array_equal(copy.to_numpy(), source.to_numpy())
    assert zu.vector_array(np.uint16).save_description() is None
    with pytest.raises(ValueError):
        copy.load_description("{broken")
