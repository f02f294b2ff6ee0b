"""Shared pieces of the Python tests: the library opened through ctypes as an independent path."""

import ctypes
import os

import numpy as np
import pytest

import vlkr  # noqa: F401  (loads libvlkr, so the soname below resolves to the same copy)


class VolumeSize(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int), ("height", ctypes.c_int), ("depth", ctypes.c_int)]


class Cuboid(ctypes.Structure):
    _fields_ = [(n, ctypes.c_int) for n in ("x", "y", "z", "width", "height", "depth")]


class SHContext(ctypes.Structure):
    _fields_ = [("maxOrder", ctypes.c_int), ("shType", ctypes.c_int),
                ("coefA", ctypes.c_void_p), ("coefB", ctypes.c_void_p)]


@pytest.fixture(scope="session")
def lib():
    return ctypes.CDLL(os.environ.get("VLKR_LIBRARY", "libvlkr.so.8"))


def ptr(a):
    return a.ctypes.data_as(ctypes.c_void_p)


def planes(a):
    """Plane address array of a C-ordered (z, y, x) volume."""
    step = a.strides[0]
    return (ctypes.c_void_p * a.shape[0])(*[a.ctypes.data + z * step for z in range(a.shape[0])])


def volume_size(a):
    return VolumeSize(a.shape[2], a.shape[1], a.shape[0])


def whole(a):
    return Cuboid(0, 0, 0, a.shape[2], a.shape[1], a.shape[0])


TYPE_CODES = {np.dtype(np.uint8): "8u", np.dtype(np.uint16): "16u", np.dtype(np.float32): "32f"}


def random_volume(rng, shape, dtype):
    if np.dtype(dtype) == np.float32:
        return (rng.random(shape, dtype=np.float32) * 200.0 - 50.0).astype(np.float32)
    top = np.iinfo(dtype).max
    return rng.integers(0, top, shape, endpoint=True).astype(dtype)
