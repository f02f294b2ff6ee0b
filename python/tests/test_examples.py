"""The Python examples run and hold their own checks."""

import pathlib
import runpy

import pytest

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"


def test_dask_resize_matches_one_call():
    pytest.importorskip("dask.array")
    example = runpy.run_path(str(EXAMPLES / "dask_resize.py"))
    assert example["main"]() == 0
