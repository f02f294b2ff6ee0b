"""numpy access to vlkr: volume resize, affine warp, remap and integer convolution, spherical
harmonics, and ray casting over triangle meshes.

Volumes are C-ordered numpy arrays indexed (z, y, x), as scipy.ndimage sees them; the library's
x, y, z order is taken care of here. Every call releases the GIL while the library works.

Interpolation is chosen by name or by the library's selector number:

    ========== ====== ============================================
    name       number kernel
    ========== ====== ============================================
    nearest    1      nearest neighbour
    linear     2      trilinear
    lagrange   4      four-point Lagrange cubic
    bspline    5      cubic B-spline (B = 1, C = 0), smooths
    catmull-rom 6     Catmull-Rom cubic (B = 0, C = 1/2)
    mitchell   7      B/C cubic with B = 1/2, C = 3/10, smooths
    ========== ====== ============================================

The numbers are the library's selectors, not scipy's spline orders: 1 is nearest, not linear.
"""

import numbers

import numpy as np

from . import _vlkr
from ._vlkr import library_version

__all__ = [
    "INTERPOLATIONS",
    "Scene",
    "affine_transform",
    "convolve",
    "library_version",
    "map_coordinates",
    "resize",
    "sh_band",
    "sh_basis",
    "sh_forward",
    "sh_inverse",
]

INTERPOLATIONS = {
    "nearest": 1,
    "linear": 2,
    "lagrange": 4,
    "bspline": 5,
    "catmull-rom": 6,
    "mitchell": 7,
}

SH_METHODS = {"direct": 0, "recurrence": 1}


def _selector(order):
    if isinstance(order, str):
        try:
            return INTERPOLATIONS[order.lower()]
        except KeyError:
            raise ValueError(
                f"unknown interpolation {order!r}; use one of {sorted(INTERPOLATIONS)}"
            ) from None
    if isinstance(order, (bool, np.bool_)) or not isinstance(order, numbers.Integral):
        raise TypeError(f"interpolation must be a name or an int, got {type(order).__name__}")
    if not -(2**31) <= int(order) < 2**31:
        raise ValueError("vlkStatusInterpolation: selector out of range")
    return int(order)


def _triple(value, name):
    """A scalar or a (z, y, x) sequence as three floats in z, y, x order."""
    arr = np.asarray(value, dtype=np.float64)
    if arr.ndim == 0:
        return (float(arr),) * 3
    if arr.shape != (3,):
        raise ValueError(f"{name}: expected a scalar or three values (z, y, x)")
    return tuple(float(v) for v in arr)


def _float_rows(value, name, columns=3):
    arr = np.ascontiguousarray(value, dtype=np.float32)
    if arr.ndim != 2 or arr.shape[1] != columns:
        raise ValueError(f"{name}: expected shape (n, {columns}), got {arr.shape}")
    return arr


# ---------------------------------------------------------------- volumes


def resize(volume, zoom, order="linear", shift=0.0):
    """Resize a uint8, uint16 or float32 (z, y, x) volume by ``zoom`` (scalar or per axis).

    Sample centres follow the half-voxel grid (scipy's ``grid_mode=True``): output voxel d reads
    the input at ``(d + 0.5) / zoom - 0.5 - shift / zoom``. Each output extent is ``n * zoom``
    rounded half up. Borders repeat the edge voxel. ``shift`` (scalar or (z, y, x)) moves the
    image in output voxels; a positive shift leaves untouched zeros in front of it.
    """
    fz, fy, fx = _triple(zoom, "zoom")
    sz, sy, sx = _triple(shift, "shift")
    return _vlkr.resize(volume, fx, fy, fz, sx, sy, sz, _selector(order))


def _output_for(volume, shape, output, cval):
    if not isinstance(volume, np.ndarray):
        raise TypeError(f"volume: expected a numpy array, got {type(volume).__name__}")
    if output is None:
        return np.full(shape, cval, dtype=volume.dtype)
    if not isinstance(output, np.ndarray):
        raise TypeError("output: expected a numpy array")
    if output.shape != tuple(shape):
        raise ValueError(f"output: expected shape {tuple(shape)}, got {output.shape}")
    if np.may_share_memory(output, volume):
        raise ValueError("output: must not share memory with the input volume")
    return output


def affine_transform(volume, matrix, offset=0.0, output_shape=None, order="linear",
                     output=None, cval=0):
    """Affine transform with scipy.ndimage's convention, in (z, y, x) order.

    Output voxel o samples the input at ``matrix @ o + offset``; ``matrix`` is (3,) (diagonal),
    (3, 3), (3, 4) or (4, 4) homogeneous. Voxels whose sample point falls outside the input
    (edges inclusive) keep their value: ``cval`` in a new output, or what ``output`` held.
    The library refuses a matrix whose inverse has an all-zero diagonal (vlkStatusCoeff), and
    writes nothing for a near-singular one.
    """
    if not isinstance(volume, np.ndarray):
        raise TypeError(f"volume: expected a numpy array, got {type(volume).__name__}")
    m = np.asarray(matrix, dtype=np.float64)
    home = np.eye(4)
    if m.shape == (3,):
        home[:3, :3] = np.diag(m)
    elif m.shape == (3, 3):
        home[:3, :3] = m
    elif m.shape in ((3, 4), (4, 4)):
        home[:3, :] = m[:3, :]
    else:
        raise ValueError(f"matrix: expected shape (3,), (3, 3), (3, 4) or (4, 4), got {m.shape}")
    if m.shape in ((3,), (3, 3)):
        home[:3, 3] = _triple(offset, "offset")
    if not np.all(np.isfinite(home)):
        raise ValueError("matrix: values must be finite")
    # The library wants the forward map (input to output) in x, y, z order.
    try:
        forward = np.linalg.inv(home)
    except np.linalg.LinAlgError:
        raise ValueError("matrix: singular") from None
    rev = [2, 1, 0]
    coeffs = np.empty((3, 4))
    coeffs[:, :3] = forward[np.ix_(rev, rev)]
    coeffs[:, 3] = forward[rev, 3]
    shape = volume.shape if output_shape is None else tuple(int(s) for s in output_shape)
    out = _output_for(volume, shape, output, cval)
    _vlkr.warp_affine(volume, coeffs, _selector(order), out)
    return out


def map_coordinates(volume, coordinates, order="linear", output=None, cval=0):
    """Sample a (z, y, x) volume at ``coordinates`` of shape (3, ...) given as (z, y, x) rows.

    Points outside the volume (edges inclusive) keep their value: ``cval`` in a new output, or
    what ``output`` held. The output has shape ``coordinates.shape[1:]``.
    """
    coords = np.asarray(coordinates, dtype=np.float32)
    if coords.ndim < 2 or coords.shape[0] != 3:
        raise ValueError(f"coordinates: expected shape (3, ...), got {coords.shape}")
    shape = coords.shape[1:]
    out = _output_for(volume, shape, output, cval)
    if out.size == 0:
        return out
    grid = shape if len(shape) == 3 else (1, 1, int(np.prod(shape)))
    maps = [np.ascontiguousarray(c).reshape(grid) for c in coords]
    if not out.flags.c_contiguous:
        raise ValueError("output: must be C-contiguous")
    _vlkr.remap(volume, maps[0], maps[1], maps[2], _selector(order), out.reshape(grid))
    return out


_PAD_MODES = {
    "reflect": "symmetric",
    "nearest": "edge",
    "mirror": "reflect",
    "wrap": "wrap",
    "constant": "constant",
}


def convolve(volume, kernel, divisor=1, mode="reflect", cval=0, anchor=None):
    """3-D convolution of an int16 (z, y, x) volume with an integer kernel.

    Sums are formed in 32-bit integers, divided by ``divisor`` with rounding to nearest (ties to
    even) and saturated to int16. Borders follow scipy.ndimage's ``mode``; ``anchor`` (z, y, x)
    names the kernel element aligned with each output voxel, by default scipy's centre.
    """
    if not isinstance(volume, np.ndarray):
        raise TypeError(f"volume: expected a numpy array, got {type(volume).__name__}")
    if volume.dtype != np.int16:
        raise TypeError(f"volume: expected int16, got {volume.dtype}")
    if volume.ndim != 3:
        raise ValueError(f"volume: expected a 3-D array (z, y, x), got {volume.ndim}-D")
    k = np.asarray(kernel)
    if k.dtype.kind not in "iub":
        raise TypeError(f"kernel: expected integer weights, got {k.dtype}")
    if k.ndim != 3 or k.size == 0:
        raise ValueError("kernel: expected a non-empty 3-D array (z, y, x)")
    if k.size and (k.min() < -(2**31) or k.max() >= 2**31):
        raise ValueError("kernel: weights must fit in int32")
    if isinstance(divisor, (bool, np.bool_)) or not isinstance(divisor, numbers.Integral):
        raise TypeError("divisor: expected an int")
    if not -(2**31) <= int(divisor) < 2**31:
        raise ValueError("divisor: must fit in int32")
    if mode not in _PAD_MODES:
        raise ValueError(f"mode: expected one of {sorted(_PAD_MODES)}")
    if anchor is None:
        anchor = tuple(n // 2 for n in k.shape)
    anchor = tuple(int(a) for a in anchor)
    if len(anchor) != 3 or any(not 0 <= a < n for a, n in zip(anchor, k.shape)):
        raise ValueError("anchor: must name an element of the kernel")
    pads = [(n - 1 - a, a) for n, a in zip(k.shape, anchor)]
    if mode == "constant":
        padded = np.pad(volume, pads, mode="constant", constant_values=np.int16(cval))
    else:
        padded = np.pad(volume, pads, mode=_PAD_MODES[mode])
    return _vlkr.filter(padded, np.ascontiguousarray(k, dtype=np.int32), anchor, int(divisor))


# ---------------------------------------------------------------- spherical harmonics


def _sh_type(method):
    try:
        return SH_METHODS[method]
    except (KeyError, TypeError):
        raise ValueError(f"method: expected one of {sorted(SH_METHODS)}") from None


def _order_of(count):
    L = int(round(np.sqrt(count))) - 1
    if L < 0 or (L + 1) ** 2 != count:
        raise ValueError(f"coeffs: {count} is not a square band count (L + 1)**2")
    return L


def sh_basis(dirs, L, method="direct"):
    """Real orthonormal SH basis of bands 0..L (L <= 15) for unit directions (n, 3).

    Returns float32 (n, (L + 1)**2), column l*l + l + m for order m of band l.
    """
    return _vlkr.sh_basis(_float_rows(dirs, "dirs"), int(L), _sh_type(method))


def sh_band(dirs, L):
    """Band L only (2L + 1 values per direction, m = -L..L), by the closed forms."""
    return _vlkr.sh_band(_float_rows(dirs, "dirs"), int(L))


def sh_forward(dirs, values, L, method="direct", coeffs=None):
    """Project samples onto bands 0..L: ``coeffs += sum_i values[i] * Y(dirs[i])``.

    ``values`` is (n,) or (n, 3) for three channels; the result is ((L + 1)**2,) or
    (3, (L + 1)**2). No quadrature weight is applied. With ``coeffs`` given (float32,
    C-contiguous, writable) the sums are added into it.
    """
    vals = np.ascontiguousarray(values, dtype=np.float32)
    count = (int(L) + 1) ** 2
    shape = (count,) if vals.ndim == 1 else (3, count)
    if coeffs is None:
        coeffs = np.zeros(shape, dtype=np.float32)
    _vlkr.sh_forward(_float_rows(dirs, "dirs"), vals, int(L), _sh_type(method), coeffs)
    return coeffs


def sh_inverse(coeffs, dirs, method="direct"):
    """Evaluate coefficients ((L + 1)**2,) or (3, (L + 1)**2) at directions (n, 3).

    Returns (n,) or (n, 3) float32.
    """
    c = np.ascontiguousarray(coeffs, dtype=np.float32)
    if c.ndim not in (1, 2):
        raise ValueError("coeffs: expected shape ((L+1)**2,) or (3, (L+1)**2)")
    L = _order_of(c.shape[-1])
    return _vlkr.sh_inverse(c, _float_rows(dirs, "dirs"), L, _sh_type(method))


# ---------------------------------------------------------------- ray tracing


class Scene:
    """A triangle mesh ready for ray queries: bounding box, per-triangle records, k-d tree.

    ``vertices`` (n, 3) floats, ``triangles`` (m, 3) vertex indices. ``quality`` in [0, 1] and
    ``memory_mb`` (>= 32) steer the surface-area build; ``mode="simple"`` puts every triangle in
    one leaf.
    """

    def __init__(self, vertices, triangles, quality=1.0, memory_mb=64, depth=50, mode="sah"):
        if mode not in ("sah", "simple"):
            raise ValueError("mode: expected 'sah' or 'simple'")
        tris = np.asarray(triangles)
        if tris.dtype.kind not in "iu":
            raise TypeError(f"triangles: expected integer indices, got {tris.dtype}")
        if tris.size and (tris.min() < 0 or tris.max() >= 2**31):
            raise ValueError("triangles: vertex index out of range")
        if not 0 <= int(memory_mb) < 2**32 or not 0 <= int(depth) < 2**32:
            raise ValueError("memory_mb and depth must be non-negative 32-bit values")
        self._scene = _vlkr.Scene(
            _float_rows(vertices, "vertices"),
            np.ascontiguousarray(tris, dtype=np.int32),
            float(quality),
            int(memory_mb),
            int(depth),
            mode == "sah",
        )

    @property
    def bounds(self):
        """Padded scene box: min x, y, z, max x, y, z."""
        return self._scene.box

    @staticmethod
    def _origins(origins):
        o = np.ascontiguousarray(origins, dtype=np.float32)
        return o if o.shape == (3,) else _float_rows(o, "origins")

    def intersect(self, origins, directions, tmax=np.inf):
        """Nearest hit of each ray ``origin + t * direction`` with t < tmax.

        ``origins`` is one (3,) point or (n, 3). Returns ``(t, bary, ids)``: distances (inf on a
        miss), barycentric weights of corners A and B (n, 2), triangle ids (-1 on a miss).
        """
        d = _float_rows(directions, "directions")
        limit = np.ascontiguousarray(np.broadcast_to(np.float32(tmax), (d.shape[0],))
                                     if np.ndim(tmax) == 0 else tmax, dtype=np.float32)
        t, bary, ids = self._scene.intersect(self._origins(origins), d, limit)
        t[ids < 0] = np.inf
        bary = np.ascontiguousarray(bary)
        bary[ids < 0] = 0.0
        return t, bary, ids

    def occluded(self, origins, directions):
        """True where the segment ``origin + t * direction``, 0 < t < 1, meets a triangle."""
        return self._scene.occluded(self._origins(origins), _float_rows(directions, "directions"))
