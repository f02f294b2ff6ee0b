"""Ray queries: known hits, agreement with an every-triangle reference, refusals."""

import numpy as np
import pytest

import vlkr

QUAD = (np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]], np.float32),
        np.array([[0, 1, 2], [0, 2, 3]]))


def random_mesh(rng, count):
    centres = rng.random((count, 1, 3)) * 10.0
    corners = centres + rng.normal(scale=0.6, size=(count, 3, 3))
    return corners.reshape(-1, 3).astype(np.float32), np.arange(3 * count).reshape(count, 3)


def brute_force(vertices, triangles, origins, dirs):
    """Nearest hit of every ray against every triangle, in double."""
    v = vertices.astype(np.float64)
    a, b, c = v[triangles[:, 0]], v[triangles[:, 1]], v[triangles[:, 2]]
    o = np.broadcast_to(origins, dirs.shape).astype(np.float64)[:, None, :]
    d = dirs.astype(np.float64)[:, None, :]
    e1, e2 = a - c, b - c
    p = np.cross(d, e2)
    det = np.sum(e1 * p, axis=-1)
    with np.errstate(divide="ignore", invalid="ignore"):
        s = o - c
        u = np.sum(s * p, axis=-1) / det
        q = np.cross(s, e1)
        w = np.sum(d * q, axis=-1) / det
        t = np.sum(e2 * q, axis=-1) / det
    ok = (u >= 0) & (w >= 0) & (u + w <= 1) & (t > 0) & np.isfinite(t)
    t = np.where(ok, t, np.inf)
    ids = np.argmin(t, axis=1)
    best = t[np.arange(len(t)), ids]
    ids = np.where(np.isfinite(best), ids, -1)
    return best, ids


@pytest.mark.parametrize("mode", ["sah", "simple"])
def test_quad_hits(mode):
    scene = vlkr.Scene(*QUAD, mode=mode)
    origins = np.array([[0.25, 0.75, 2], [0.75, 0.25, 2], [2, 2, 2], [0.5, 0.5, -3]], np.float32)
    dirs = np.array([[0, 0, -1], [0, 0, -2], [0, 0, -1], [0, 0, 1]], np.float32)
    t, bary, ids = scene.intersect(origins, dirs)
    np.testing.assert_allclose(t, [2, 1, np.inf, 3], rtol=1e-6)
    assert ids.tolist() == [1, 0, -1, 1] or ids.tolist() == [1, 0, -1, 0]
    v, tri = QUAD
    for r in (0, 1):
        a, b, c = v[tri[ids[r]]]
        point = bary[r, 0] * a + bary[r, 1] * b + (1 - bary[r].sum()) * c
        np.testing.assert_allclose(point, origins[r] + t[r] * dirs[r], atol=1e-6)
    assert np.all(bary[2] == 0)


def test_tmax_limits_the_search():
    scene = vlkr.Scene(*QUAD)
    t, _, ids = scene.intersect([0.5, 0.25, 2], [[0, 0, -1], [0, 0, -1]], tmax=[1.5, 2.5])
    assert ids[0] == -1 and ids[1] >= 0 and t[0] == np.inf


def test_random_mesh_agrees_with_every_triangle():
    rng = np.random.default_rng(12111)
    vertices, triangles = random_mesh(rng, 300)
    scene = vlkr.Scene(vertices, triangles, quality=0.5, memory_mb=64)
    assert scene.bounds.shape == (6,)
    eye = np.array([5, 5, -8], np.float32)
    targets = rng.random((2000, 3)) * 10
    dirs = (targets - eye).astype(np.float32)
    t, _, ids = scene.intersect(eye, dirs)
    want_t, want_ids = brute_force(vertices, triangles, eye, dirs)
    hit = want_ids >= 0
    assert hit.sum() > 200
    assert np.array_equal(ids >= 0, hit)
    np.testing.assert_allclose(t[hit], want_t[hit], rtol=1e-4)
    assert np.mean(ids[hit] == want_ids[hit]) > 0.99
    # One origin per ray gives the same answers as the shared origin.
    t2, _, ids2 = scene.intersect(np.tile(eye, (2000, 1)), dirs)
    assert np.array_equal(ids2, ids) and np.array_equal(t2, t)


def test_occlusion():
    rng = np.random.default_rng(7)
    vertices, triangles = random_mesh(rng, 200)
    scene = vlkr.Scene(vertices, triangles)
    light = np.array([5, 5, 20], np.float32)
    points = (rng.random((500, 3)) * 10).astype(np.float32)
    dirs = points - light
    blocked = scene.occluded(light, dirs)
    t, ids = brute_force(vertices, triangles, light, dirs)
    want = (ids >= 0) & (t < 1)
    clear = np.abs(t - 1) > 1e-3
    assert np.array_equal(blocked[clear], want[clear])
    each = scene.occluded(np.tile(light, (500, 1)), dirs)
    assert np.array_equal(each, blocked)
    assert scene.occluded(light, np.zeros((0, 3))).shape == (0,)


def test_refusals():
    v, tri = QUAD
    with pytest.raises(ValueError, match="out of range"):
        vlkr.Scene(v, [[0, 1, 4]])
    with pytest.raises(ValueError):
        vlkr.Scene(v, [[0, 1, -1]])
    with pytest.raises(TypeError):
        vlkr.Scene(v, tri.astype(np.float32))
    with pytest.raises(ValueError):
        vlkr.Scene(v[:, :2], tri)
    with pytest.raises(ValueError):
        vlkr.Scene(v, tri[:, :2])
    with pytest.raises(ValueError):
        vlkr.Scene(v, np.zeros((0, 3), int))
    with pytest.raises(ValueError, match="vlkStatusOutOfRange"):
        vlkr.Scene(v, tri, quality=2.0)
    with pytest.raises(ValueError, match="vlkStatusOutOfRange"):
        vlkr.Scene(v, tri, quality=np.nan)
    with pytest.raises(ValueError, match="finite"):
        vlkr.Scene(np.where(v == 1, np.inf, v), tri)
    with pytest.raises(ValueError, match="vlkStatusOutOfRange"):
        vlkr.Scene(v, tri, depth=51)
    with pytest.raises(MemoryError, match="vlkStatusNoMemory"):
        vlkr.Scene(v, tri, memory_mb=8)
    with pytest.raises(ValueError):
        vlkr.Scene(v, tri, memory_mb=-1)
    with pytest.raises(ValueError):
        vlkr.Scene(v, tri, mode="bvh")
    scene = vlkr.Scene(v, tri)
    with pytest.raises(ValueError):
        scene.intersect([0, 0, 1], np.zeros((4, 2)))
    with pytest.raises(ValueError):
        scene.intersect(np.zeros((3, 3)), np.zeros((4, 3)))
    with pytest.raises(ValueError):
        scene.intersect([0, 0], np.zeros((4, 3)))
    with pytest.raises(ValueError):
        scene.intersect([0, 0, 1], np.zeros((4, 3)), tmax=np.ones(3))
    with pytest.raises(ValueError):
        scene.occluded(np.zeros((2, 3)), np.zeros((4, 3)))
    with pytest.raises(ValueError):
        scene.occluded([0, 0, 1], [["x", "y", "z"]])
