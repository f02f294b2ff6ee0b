"""Spherical harmonics: equal to the C calls, close to a double-precision reference, refusals."""

import ctypes

import numpy as np
import pytest
import scipy.special
from conftest import SHContext, ptr

import vlkr

METHODS = {"direct": 0, "recurrence": 1}


def unit_dirs(n, seed=12111):
    d = np.random.default_rng(seed).normal(size=(n, 3))
    return (d / np.linalg.norm(d, axis=1, keepdims=True)).astype(np.float32)


def reference_basis(dirs, L):
    """Real orthonormal harmonics with the Condon-Shortley sign, column l*l + l + m, in double."""
    d = dirs.astype(np.float64)
    theta = np.arccos(np.clip(d[:, 2], -1, 1))
    phi = np.arctan2(d[:, 1], d[:, 0])
    out = np.zeros((len(d), (L + 1) ** 2))
    for l in range(L + 1):
        for m in range(-l, l + 1):
            am = abs(m)
            k = np.sqrt((2 * l + 1) / (4 * np.pi) * scipy.special.factorial(l - am)
                        / scipy.special.factorial(l + am))
            p = scipy.special.lpmv(am, l, np.cos(theta))
            if m == 0:
                v = k * p
            elif m > 0:
                v = np.sqrt(2) * k * np.cos(m * phi) * p
            else:
                v = np.sqrt(2) * k * np.sin(am * phi) * p
            out[:, l * l + l + m] = v
    return out


def c_context(lib, L, sh_type):
    size = ctypes.c_int()
    assert lib.vlkrSHGetSize_32f(L, sh_type, ctypes.byref(size)) == 0
    block = np.zeros(size.value + 64, np.uint8)
    start = (-block.ctypes.data) % 64
    ctx = block[start:start + size.value]
    assert lib.vlkrSHInit_32f(ptr(ctx), L, sh_type) == 0
    return block, ptr(ctx)


def xyz(dirs):
    return [np.ascontiguousarray(dirs[:, i]) for i in range(3)]


@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("L", [0, 1, 2, 5, 15])
def test_basis_equals_c_call(lib, method, L):
    dirs = unit_dirs(37)
    block, ctx = c_context(lib, L, METHODS[method])
    want = np.zeros((37, (L + 1) ** 2), np.float32)
    x, y, z = xyz(dirs)
    assert lib.vlkrSH_32f(ptr(x), ptr(y), ptr(z), 37, ptr(want), L, ctx) == 0
    assert vlkr.sh_basis(dirs, L, method=method).tobytes() == want.tobytes()


@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("L", [0, 1, 3, 6, 10])
def test_basis_close_to_reference(method, L):
    dirs = unit_dirs(50)
    got = vlkr.sh_basis(dirs, L, method=method)
    np.testing.assert_allclose(got, reference_basis(dirs, L), rtol=0, atol=2e-5)


@pytest.mark.parametrize("L", [0, 4, 15])
def test_band_is_the_slice_of_the_direct_basis(lib, L):
    dirs = unit_dirs(21)
    full = vlkr.sh_basis(dirs, L)
    band = vlkr.sh_band(dirs, L)
    assert band.tobytes() == np.ascontiguousarray(full[:, L * L:]).tobytes()


def test_known_values():
    for method in METHODS:
        band0 = vlkr.sh_basis(unit_dirs(3), 0, method=method)
        assert band0.shape == (3, 1) and np.all(band0.view(np.uint32) == 0x3E906EBB)
    b = vlkr.sh_basis(np.array([[0, 1, 0]], np.float32), 1)
    assert b[0, 1] == np.float32(-0.48860251)
    c = vlkr.sh_forward(np.array([[0, 0, 1]], np.float32), np.ones(1), 1)
    assert c.tolist() == [band0[0, 0], 0, np.float32(0.48860251), 0]


@pytest.mark.parametrize("method", METHODS)
def test_forward_equals_c_call_and_accumulates(lib, method):
    dirs = unit_dirs(40)
    vals = np.random.default_rng(2).normal(size=40).astype(np.float32)
    L = 4
    block, ctx = c_context(lib, L, METHODS[method])
    want = np.zeros(25, np.float32)
    x, y, z = xyz(dirs)
    assert lib.vlkrSHTFwd_32f_C1I(ptr(x), ptr(y), ptr(z), ptr(vals), 40, ptr(want), L, ctx) == 0
    got = vlkr.sh_forward(dirs, vals, L, method=method)
    assert got.tobytes() == want.tobytes()
    again = vlkr.sh_forward(dirs, vals, L, method=method, coeffs=got.copy())
    assert lib.vlkrSHTFwd_32f_C1I(ptr(x), ptr(y), ptr(z), ptr(vals), 40, ptr(want), L, ctx) == 0
    assert again.tobytes() == want.tobytes()
    np.testing.assert_allclose(got, reference_basis(dirs, L).T @ vals, rtol=0, atol=1e-4)


def test_three_channels_match_one_channel_calls():
    dirs = unit_dirs(30)
    vals = np.random.default_rng(3).normal(size=(30, 3)).astype(np.float32)
    three = vlkr.sh_forward(dirs, vals, 3)
    assert three.shape == (3, 16)
    for c in range(3):
        assert three[c].tobytes() == vlkr.sh_forward(dirs, vals[:, c], 3).tobytes()
    back = vlkr.sh_inverse(three, dirs)
    assert back.shape == (30, 3)
    for c in range(3):
        np.testing.assert_allclose(back[:, c], vlkr.sh_inverse(three[c], dirs), rtol=0, atol=1e-6)


@pytest.mark.parametrize("method", METHODS)
def test_inverse_equals_c_call(lib, method):
    dirs = unit_dirs(33)
    L = 5
    coeffs = np.random.default_rng(4).normal(size=36).astype(np.float32)
    block, ctx = c_context(lib, L, METHODS[method])
    want = np.zeros(33, np.float32)
    x, y, z = xyz(dirs)
    assert lib.vlkrSHTInv_32f_C1(ptr(coeffs), L, ptr(x), ptr(y), ptr(z), ptr(want), 33, ctx) == 0
    got = vlkr.sh_inverse(coeffs, dirs, method=method)
    assert got.tobytes() == want.tobytes()
    np.testing.assert_allclose(got, reference_basis(dirs, L) @ coeffs, rtol=0, atol=1e-4)


def test_round_trip_of_a_band_limited_function():
    # A fine Fibonacci sphere with weight 4 pi / n integrates band-limited products well.
    n = 4000
    i = np.arange(n) + 0.5
    z = 1 - 2 * i / n
    r = np.sqrt(1 - z * z)
    phi = np.pi * (1 + 5**0.5) * i
    dirs = np.stack([r * np.cos(phi), r * np.sin(phi), z], axis=1).astype(np.float32)
    coeffs = np.random.default_rng(5).normal(size=16).astype(np.float32)
    values = vlkr.sh_inverse(coeffs, dirs)
    back = vlkr.sh_forward(dirs, values * np.float32(4 * np.pi / n), 3)
    np.testing.assert_allclose(back, coeffs, rtol=0, atol=2e-2)


def test_empty_direction_sets():
    empty = np.zeros((0, 3), np.float32)
    assert vlkr.sh_basis(empty, 2).shape == (0, 9)
    assert vlkr.sh_inverse(np.zeros(9), empty).shape == (0,)
    assert np.all(vlkr.sh_forward(empty, np.zeros(0), 2) == 0)


def test_refusals():
    dirs = unit_dirs(4)
    for L in (-1, 16, 2**31):
        with pytest.raises((ValueError, OverflowError, TypeError)):
            vlkr.sh_basis(dirs, L)
        with pytest.raises((ValueError, OverflowError, TypeError)):
            vlkr.sh_band(dirs, L)
    with pytest.raises(ValueError):
        vlkr.sh_basis(dirs, 2, method="fast")
    with pytest.raises(ValueError):
        vlkr.sh_basis(dirs[:, :2], 2)
    with pytest.raises(ValueError):
        vlkr.sh_basis(dirs.ravel(), 2)
    with pytest.raises(ValueError):
        vlkr.sh_inverse(np.zeros(8), dirs)
    with pytest.raises(ValueError):
        vlkr.sh_inverse(np.zeros((2, 9)), dirs)
    with pytest.raises(ValueError):
        vlkr.sh_forward(dirs, np.zeros(5), 2)
    with pytest.raises(ValueError):
        vlkr.sh_forward(dirs, np.zeros((4, 2)), 2)
    ro = np.zeros(9, np.float32)
    ro.flags.writeable = False
    with pytest.raises(ValueError, match="read-only"):
        vlkr.sh_forward(dirs, np.zeros(4), 2, coeffs=ro)
    with pytest.raises(TypeError):
        vlkr.sh_forward(dirs, np.zeros(4), 2, coeffs=np.zeros(9))
    with pytest.raises(ValueError):
        vlkr.sh_forward(dirs, np.zeros(4), 2, coeffs=np.zeros(10, np.float32))
    with pytest.raises(ValueError):
        vlkr.sh_forward(dirs, np.zeros(4), 2, coeffs=np.zeros(18, np.float32)[::2])
    with pytest.raises(ValueError):
        vlkr.sh_basis(np.array([["a", "b", "c"]]), 1)


def test_long_direction_runs_split_without_changing_bits(lib):
    # More directions than one library call takes: the pieces must join seamlessly.
    n = (1 << 20) + 5
    dirs = unit_dirs(n)
    L = 1
    block, ctx = c_context(lib, L, 0)
    want = np.zeros((n, 4), np.float32)
    x, y, z = xyz(dirs)
    assert lib.vlkrSH_32f(ptr(x), ptr(y), ptr(z), n, ptr(want), L, ctx) == 0
    assert vlkr.sh_basis(dirs, L).tobytes() == want.tobytes()
    vals = np.random.default_rng(6).normal(size=n).astype(np.float32)
    fwd = np.zeros(4, np.float32)
    assert lib.vlkrSHTFwd_32f_C1I(ptr(x), ptr(y), ptr(z), ptr(vals), n, ptr(fwd), L, ctx) == 0
    assert vlkr.sh_forward(dirs, vals, L).tobytes() == fwd.tobytes()
    inv = np.zeros(n, np.float32)
    assert lib.vlkrSHTInv_32f_C1(ptr(fwd), L, ptr(x), ptr(y), ptr(z), ptr(inv), n, ctx) == 0
    assert vlkr.sh_inverse(fwd, dirs).tobytes() == inv.tobytes()
