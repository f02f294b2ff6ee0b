"""Volume calls: bit-exact against the C entry points, close to scipy.ndimage, and refusals."""

import ctypes
import threading
import time

import numpy as np
import pytest
import scipy.ndimage as ndi
from conftest import (TYPE_CODES, Cuboid, planes, ptr, random_volume, volume_size, whole)

import vlkr

DTYPES = [np.uint8, np.uint16, np.float32]
SELECTORS = [1, 2, 4, 5, 6, 7]


def c_resize(lib, src, zoom_zyx, interpolation):
    """vlkrResize_*_C1V on one block, with the destination box from vlkrGetResizeCuboid."""
    fz, fy, fx = (ctypes.c_double(f) for f in zoom_zyx)
    zero = ctypes.c_double(0.0)
    src_voi = whole(src)
    dst_voi = Cuboid()
    assert lib.vlkrGetResizeCuboid(ctypes.byref(src_voi), ctypes.byref(dst_voi), fx, fy, fz,
                                   zero, zero, zero, interpolation) == 0
    dst = np.zeros((dst_voi.depth, dst_voi.height, dst_voi.width), src.dtype)
    size = ctypes.c_int()
    assert lib.vlkrResizeGetBufSize(ctypes.byref(src_voi), ctypes.byref(dst_voi), 1,
                                    interpolation, ctypes.byref(size)) == 0
    buf = np.zeros(size.value, np.uint8)
    fn = getattr(lib, f"vlkrResize_{TYPE_CODES[src.dtype]}_C1V")
    st = fn(ptr(src), ctypes.byref(volume_size(src)), src.strides[1], src.strides[0],
            ctypes.byref(src_voi), ptr(dst), dst.strides[1], dst.strides[0],
            ctypes.byref(dst_voi), fx, fy, fz, zero, zero, zero, interpolation, ptr(buf))
    assert st == 0
    return dst


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interpolation", SELECTORS)
@pytest.mark.parametrize("zoom", [(2.0, 2.0, 2.0), (0.5, 0.75, 0.6), (1.3, 0.7, 2.25)])
def test_resize_equals_c_call(lib, dtype, interpolation, zoom):
    rng = np.random.default_rng(12111)
    src = random_volume(rng, (9, 11, 13), dtype)
    got = vlkr.resize(src, zoom, order=interpolation)
    want = c_resize(lib, src, zoom, interpolation)
    assert got.dtype == src.dtype and got.shape == want.shape
    assert got.tobytes() == want.tobytes()


def test_resize_names_match_selectors():
    src = random_volume(np.random.default_rng(1), (5, 6, 7), np.float32)
    for name, number in vlkr.INTERPOLATIONS.items():
        a = vlkr.resize(src, 1.5, order=name)
        b = vlkr.resize(src, 1.5, order=number)
        assert a.tobytes() == b.tobytes(), name


def test_resize_shape_rounds_half_up():
    src = np.zeros((3, 5, 7), np.float32)
    assert vlkr.resize(src, 0.5).shape == (2, 3, 4)
    assert vlkr.resize(src, (1, 2, 3)).shape == (3, 10, 21)


@pytest.mark.parametrize("zoom", [2.0, 3.0, (2.0, 1.0, 4.0)])
def test_resize_nearest_equals_scipy_zoom(zoom):
    src = random_volume(np.random.default_rng(2), (6, 7, 8), np.uint16)
    want = ndi.zoom(src, zoom, order=0, grid_mode=True, mode="nearest")
    assert np.array_equal(vlkr.resize(src, zoom, order="nearest"), want)


@pytest.mark.parametrize("zoom", [2.0, 0.5, (4.0, 0.5, 2.0)])
def test_resize_linear_close_to_scipy_zoom(zoom):
    src = random_volume(np.random.default_rng(3), (8, 10, 12), np.float32)
    want = ndi.zoom(src.astype(np.float64), zoom, order=1, grid_mode=True, mode="nearest")
    got = vlkr.resize(src, zoom, order="linear")
    np.testing.assert_allclose(got, want, rtol=0, atol=1e-4)


@pytest.mark.parametrize("order", ["linear", "lagrange", "catmull-rom"])
def test_resize_by_one_copies_float_exactly(order):
    src = random_volume(np.random.default_rng(4), (4, 5, 6), np.float32)
    assert vlkr.resize(src, 1.0, order=order).tobytes() == src.tobytes()


def test_resize_takes_strided_and_read_only_input():
    src = random_volume(np.random.default_rng(5), (10, 12, 14), np.float32)
    view = src[::2, 1::3, ::-1]
    want = vlkr.resize(np.ascontiguousarray(view), 1.7)
    view.flags.writeable = False
    assert vlkr.resize(view, 1.7).tobytes() == want.tobytes()
    fortran = np.asfortranarray(src)
    assert vlkr.resize(fortran, 0.8).tobytes() == vlkr.resize(src, 0.8).tobytes()


def test_resize_runs_in_threads():
    src = random_volume(np.random.default_rng(6), (24, 24, 24), np.float32)
    want = vlkr.resize(src, 1.9, order="catmull-rom")
    results = [None] * 4

    def work(i):
        results[i] = vlkr.resize(src, 1.9, order="catmull-rom")

    threads = [threading.Thread(target=work, args=(i,)) for i in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for r in results:
        assert r.tobytes() == want.tobytes()


def c_warp(lib, src, coeffs, interpolation, dst):
    fn = getattr(lib, f"vlkrWarpAffine_{TYPE_CODES[src.dtype]}_C1PV")
    c = (ctypes.c_double * 12)(*np.asarray(coeffs, np.float64).ravel())
    st = fn(planes(src), ctypes.byref(volume_size(src)), src.strides[1], ctypes.byref(whole(src)),
            planes(dst), dst.strides[1], ctypes.byref(whole(dst)), c, interpolation)
    assert st == 0


MATRIX = np.array([[1.05, 0.1, 0.0], [0.0, 0.9, 0.05], [0.02, 0.0, 1.1]])
OFFSET = np.array([0.3, -0.2, 0.5])


def lib_coeffs(matrix, offset):
    """The forward x, y, z map that scipy's (z, y, x) output-to-input matrix stands for."""
    home = np.eye(4)
    home[:3, :3] = matrix
    home[:3, 3] = offset
    fwd = np.linalg.inv(home)
    rev = [2, 1, 0]
    return np.hstack([fwd[np.ix_(rev, rev)], fwd[rev, 3][:, None]])


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interpolation", SELECTORS)
def test_affine_equals_c_call(lib, dtype, interpolation):
    src = random_volume(np.random.default_rng(7), (9, 10, 11), dtype)
    got = vlkr.affine_transform(src, MATRIX, OFFSET, order=interpolation, output_shape=(8, 9, 12))
    want = np.zeros((8, 9, 12), dtype)
    c_warp(lib, src, lib_coeffs(MATRIX, OFFSET), interpolation, want)
    assert got.tobytes() == want.tobytes()


def test_affine_linear_close_to_scipy_inside():
    src = random_volume(np.random.default_rng(8), (10, 11, 12), np.float32)
    want = ndi.affine_transform(src.astype(np.float64), MATRIX, OFFSET, order=1, cval=np.nan)
    got = vlkr.affine_transform(src, MATRIX, OFFSET, order="linear", cval=np.nan)
    inside = ~np.isnan(want) & ~np.isnan(got)
    assert inside.sum() > 0.5 * src.size
    np.testing.assert_allclose(got[inside], want[inside], rtol=0, atol=1e-4)


def test_affine_homogeneous_forms_agree():
    src = random_volume(np.random.default_rng(9), (6, 7, 8), np.uint8)
    h = np.eye(4)
    h[:3, :3] = MATRIX
    h[:3, 3] = OFFSET
    a = vlkr.affine_transform(src, MATRIX, OFFSET)
    assert np.array_equal(vlkr.affine_transform(src, h), a)
    assert np.array_equal(vlkr.affine_transform(src, h[:3]), a)


def test_affine_keeps_output_outside_and_cval():
    src = np.ones((4, 4, 4), np.float32)
    out = np.full((4, 4, 4), 7.0, np.float32)
    res = vlkr.affine_transform(src, np.eye(3), offset=(0, 0, 1.5), output=out)
    assert res is out
    assert np.all(out[..., :2] == 1.0) and np.all(out[..., 2:] == 7.0)
    assert np.all(vlkr.affine_transform(src, np.eye(3), offset=100, cval=-3) == -3)


def c_remap(lib, src, maps_zyx, interpolation, dst):
    fn = getattr(lib, f"vlkrRemap_{TYPE_CODES[src.dtype]}_C1PV")
    z, y, x = maps_zyx
    st = fn(planes(src), ctypes.byref(volume_size(src)), src.strides[1], ctypes.byref(whole(src)),
            planes(x), planes(y), planes(z), x.strides[1], planes(dst), dst.strides[1],
            ctypes.byref(volume_size(dst)), interpolation)
    assert st == 0


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interpolation", SELECTORS)
def test_map_coordinates_equals_c_call(lib, dtype, interpolation):
    rng = np.random.default_rng(10)
    src = random_volume(rng, (7, 8, 9), dtype)
    coords = (rng.random((3, 4, 5, 6)) * np.array([8, 9, 10])[:, None, None, None] - 0.5)
    coords = coords.astype(np.float32)
    got = vlkr.map_coordinates(src, coords, order=interpolation)
    want = np.zeros((4, 5, 6), dtype)
    c_remap(lib, src, [np.ascontiguousarray(c) for c in coords], interpolation, want)
    assert got.tobytes() == want.tobytes()


def test_map_coordinates_linear_close_to_scipy():
    rng = np.random.default_rng(11)
    src = random_volume(rng, (7, 8, 9), np.float32)
    coords = rng.random((3, 50)) * np.array([6, 7, 8])[:, None]
    want = ndi.map_coordinates(src.astype(np.float64), coords, order=1)
    got = vlkr.map_coordinates(src, coords, order="linear")
    assert got.shape == (50,)
    np.testing.assert_allclose(got, want, rtol=0, atol=1e-4)


def test_map_coordinates_integer_points_copy_nearest():
    src = random_volume(np.random.default_rng(12), (5, 6, 7), np.uint16)
    idx = np.indices(src.shape).astype(np.float32)
    assert np.array_equal(vlkr.map_coordinates(src, idx, order="nearest"), src)


@pytest.mark.parametrize("shape", [(3, 3, 3), (2, 3, 4), (1, 1, 5), (5, 1, 1)])
@pytest.mark.parametrize("mode", ["reflect", "nearest", "mirror", "wrap", "constant"])
def test_convolve_equals_scipy(shape, mode):
    rng = np.random.default_rng(13)
    src = rng.integers(-1000, 1000, (6, 7, 8)).astype(np.int16)
    kernel = rng.integers(-5, 6, shape)
    want = ndi.convolve(src.astype(np.int64), kernel, mode=mode)
    assert np.array_equal(vlkr.convolve(src, kernel, mode=mode), want.astype(np.int16))


@pytest.mark.parametrize("divisor", [2, 4, 3, -3, 7, 16])
def test_convolve_rounds_ties_to_even_and_saturates(divisor):
    rng = np.random.default_rng(14)
    src = rng.integers(-3000, 3000, (5, 6, 7)).astype(np.int16)
    kernel = rng.integers(-4, 5, (3, 3, 3))
    sums = ndi.convolve(src.astype(np.int64), kernel, mode="reflect")
    want = np.clip(np.round(sums / divisor), -32768, 32767).astype(np.int16)
    assert np.array_equal(vlkr.convolve(src, kernel, divisor=divisor), want)


def test_convolve_saturates():
    src = np.full((3, 3, 3), 30000, np.int16)
    out = vlkr.convolve(src, np.full((1, 1, 2), 1))
    assert np.all(out == 32767)
    assert np.all(vlkr.convolve(-src, np.full((1, 1, 2), 1)) == -32768)


def test_convolve_anchor_shifts():
    src = np.arange(4 * 5 * 6, dtype=np.int16).reshape(4, 5, 6)
    k = np.zeros((1, 1, 3), np.int32)
    k[0, 0, 0] = 1
    out = vlkr.convolve(src, k, anchor=(0, 0, 0), mode="nearest")
    assert np.array_equal(out, src)


# ---------------------------------------------------------------- refusals


def status_error(excinfo, name):
    return name in str(excinfo.value)


@pytest.mark.parametrize("dtype", [np.int8, np.int16, np.int32, np.float64, np.complex64, bool])
def test_resize_refuses_other_dtypes(dtype):
    with pytest.raises(TypeError):
        vlkr.resize(np.zeros((2, 2, 2), dtype), 2)


def test_refuses_byte_swapped_data():
    with pytest.raises(TypeError):
        vlkr.resize(np.zeros((2, 2, 2), ">u2"), 2)


def test_refuses_non_arrays():
    with pytest.raises(TypeError):
        vlkr.resize([[[1.0]]], 2)
    with pytest.raises(TypeError):
        vlkr.affine_transform("volume", np.eye(3))
    with pytest.raises(TypeError):
        vlkr.convolve(None, np.ones((1, 1, 1)))


@pytest.mark.parametrize("shape", [(4,), (4, 4), (2, 2, 2, 2)])
def test_refuses_wrong_dimension(shape):
    with pytest.raises(ValueError):
        vlkr.resize(np.zeros(shape, np.float32), 2)
    with pytest.raises(ValueError):
        vlkr.affine_transform(np.zeros(shape, np.float32), np.eye(3), output_shape=(2, 2, 2))


def test_refuses_empty_volume():
    with pytest.raises(ValueError, match="vlkStatusSize"):
        vlkr.resize(np.zeros((0, 3, 3), np.float32), 2)


def test_refuses_bad_zoom_and_interpolation():
    v = np.zeros((2, 3, 4), np.uint8)
    with pytest.raises(ValueError, match="vlkStatusResizeFactor"):
        vlkr.resize(v, 0.0)
    with pytest.raises(ValueError, match="vlkStatusResizeFactor"):
        vlkr.resize(v, (1, -2, 1))
    with pytest.raises(ValueError, match="vlkStatusInterpolation"):
        vlkr.resize(v, 2, order=3)
    with pytest.raises(ValueError, match="vlkStatusInterpolation"):
        vlkr.affine_transform(v, np.eye(3), order=0)
    with pytest.raises(ValueError, match="vlkStatusInterpolation"):
        vlkr.map_coordinates(v, np.zeros((3, 2)), order=8)
    with pytest.raises(ValueError, match="unknown interpolation"):
        vlkr.resize(v, 2, order="cubic")
    with pytest.raises(TypeError):
        vlkr.resize(v, 2, order=1.0)
    with pytest.raises(TypeError):
        vlkr.resize(v, 2, order=True)
    with pytest.raises(ValueError):
        vlkr.resize(v, (1, 2))
    with pytest.raises(ValueError, match="vlkStatusResizeFactor"):
        vlkr.resize(v, np.nan)
    with pytest.raises(ValueError, match="int range"):
        vlkr.resize(v, 1e12)
    with pytest.raises(ValueError, match="int range"):
        vlkr.resize(v, 2, shift=np.inf)


def test_affine_refusals():
    v = np.zeros((4, 4, 4), np.float32)
    with pytest.raises(ValueError, match="vlkStatusCoeff"):
        vlkr.affine_transform(v, np.eye(3)[[1, 2, 0]])
    with pytest.raises(ValueError):
        vlkr.affine_transform(v, np.ones((2, 2)))
    with pytest.raises(ValueError):
        vlkr.affine_transform(v, np.zeros((3, 3)))
    with pytest.raises(ValueError):
        vlkr.affine_transform(v, np.full((3, 3), np.nan))


def test_output_refusals():
    v = np.zeros((4, 4, 4), np.float32)
    ro = np.zeros((4, 4, 4), np.float32)
    ro.flags.writeable = False
    with pytest.raises(ValueError, match="read-only"):
        vlkr.affine_transform(v, np.eye(3), output=ro)
    with pytest.raises(ValueError, match="contiguous"):
        vlkr.affine_transform(v, np.eye(3), output=np.zeros((4, 4, 8), np.float32)[..., ::2])
    with pytest.raises(TypeError):
        vlkr.affine_transform(v, np.eye(3), output=np.zeros((4, 4, 4), np.float64))
    with pytest.raises(ValueError):
        vlkr.affine_transform(v, np.eye(3), output=np.zeros((4, 4, 3), np.float32))
    with pytest.raises(ValueError, match="share memory"):
        vlkr.affine_transform(v, np.eye(3), output=v)
    with pytest.raises(TypeError):
        vlkr.affine_transform(v, np.eye(3), output=[0.0])
    with pytest.raises(ValueError, match="read-only"):
        vlkr.map_coordinates(v, np.zeros((3, 4, 4, 4)), output=ro)
    with pytest.raises(ValueError):
        vlkr.map_coordinates(v, np.zeros((3, 4, 4, 8))[..., ::2],
                             output=np.zeros((4, 8, 4), np.float32)[:, ::2])


def test_map_coordinates_refusals():
    v = np.zeros((4, 4, 4), np.float32)
    with pytest.raises(ValueError):
        vlkr.map_coordinates(v, np.zeros((2, 5)))
    with pytest.raises(ValueError):
        vlkr.map_coordinates(v, np.zeros(3))
    with pytest.raises(TypeError):
        vlkr.map_coordinates(np.zeros((4, 4, 4), np.int16), np.zeros((3, 5)))
    assert vlkr.map_coordinates(v, np.zeros((3, 0))).shape == (0,)


def test_low_level_refusals():
    v = np.zeros((4, 4, 4), np.float32)
    out = np.zeros((4, 4, 4), np.float32)
    with pytest.raises(ValueError):
        vlkr._vlkr.warp_affine(v, np.eye(3), 2, out)
    with pytest.raises(ValueError):
        vlkr._vlkr.remap(v, out, out, np.zeros((4, 4, 3), np.float32), 2, out)
    with pytest.raises(TypeError):
        vlkr._vlkr.remap(v, out, out, out.astype(np.float64), 2, out)
    with pytest.raises(ValueError, match="anchor"):
        vlkr._vlkr.filter(np.zeros((4, 4, 4), np.int16), np.ones((3, 3, 3), np.int32),
                          (0, 3, 0), 1)
    with pytest.raises(ValueError):
        vlkr._vlkr.filter(np.zeros((2, 4, 4), np.int16), np.ones((3, 3, 3), np.int32),
                          (1, 1, 1), 1)


def test_convolve_refusals():
    v = np.zeros((4, 4, 4), np.int16)
    with pytest.raises(ValueError, match="vlkStatusSize"):
        vlkr.convolve(v, np.ones((3, 3, 3), int), divisor=0)
    with pytest.raises(TypeError):
        vlkr.convolve(v, np.ones((3, 3, 3), np.float32))
    with pytest.raises(TypeError):
        vlkr.convolve(v.astype(np.uint16), np.ones((3, 3, 3), int))
    with pytest.raises(TypeError):
        vlkr.convolve(v, np.ones((3, 3, 3), int), divisor=1.5)
    with pytest.raises(ValueError):
        vlkr.convolve(v, np.ones((3, 3), int))
    with pytest.raises(ValueError):
        vlkr.convolve(v, np.full((1, 1, 1), 2**40))
    with pytest.raises(ValueError):
        vlkr.convolve(v, np.ones((3, 3, 3), int), anchor=(0, 0, 3))
    with pytest.raises(ValueError):
        vlkr.convolve(v, np.ones((3, 3, 3), int), mode="unknown")
    with pytest.raises(ValueError):
        vlkr.convolve(v, np.ones((3, 3, 3), int), divisor=2**33)
    strided = np.zeros((4, 4, 8), np.int16)[..., ::2]
    assert vlkr.convolve(strided, np.ones((3, 3, 3), int)).shape == (4, 4, 4)


def test_calls_release_the_gil():
    # While a long resize runs in a worker, this thread must keep running Python code.
    src = np.random.default_rng(15).random((128, 128, 128), dtype=np.float32)
    start = time.perf_counter()
    vlkr.resize(src, 1.6, order="catmull-rom")
    alone = time.perf_counter() - start
    worker = threading.Thread(target=vlkr.resize, args=(src, 1.6), kwargs={"order": "catmull-rom"})
    stamps = []
    worker.start()
    while worker.is_alive():
        stamps.append(time.perf_counter())
    worker.join()
    gaps = np.diff(stamps) if len(stamps) > 1 else np.array([alone])
    assert gaps.max() < 0.5 * alone
