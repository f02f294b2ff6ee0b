"""Resize a volume larger than one chunk with dask, one vlkr.resize call per chunk.

Each chunk is resized together with a halo of neighbouring voxels wide enough for the cubic
kernels, then the resized halo is cut away again. With an integer zoom the chunk grids line up
with the whole-volume grid, so the stitched result equals one vlkr.resize of the whole volume
bit for bit; the script checks that and exits non-zero otherwise.

    PYTHONPATH=build-tests/python /usr/bin/python3 examples/dask_resize.py
"""

import sys

import dask.array as da
import numpy as np

import vlkr

HALO = 2  # the cubic kernels read two source voxels either side of a sample


def resize_chunked(volume, zoom, order, chunks):
    lazy = da.from_array(volume, chunks=chunks)

    def resize_block(block):
        out = vlkr.resize(block, zoom, order=order)
        cut = HALO * zoom
        return out[cut:-cut, cut:-cut, cut:-cut]

    # Edge chunks get a halo that repeats the edge voxel, as the library does at the border.
    out_chunks = tuple(tuple(c * zoom for c in axis) for axis in lazy.chunks)
    resized = da.map_overlap(resize_block, lazy, depth=HALO, boundary="nearest", trim=False,
                             chunks=out_chunks, dtype=volume.dtype)
    return resized.compute(scheduler="threads")


def main():
    rng = np.random.default_rng(12111)
    volume = rng.random((40, 48, 56), dtype=np.float32)
    failures = 0
    for dtype in (np.float32, np.uint16, np.uint8):
        data = (volume * np.iinfo(dtype).max).astype(dtype) if dtype != np.float32 else volume
        for order in ("nearest", "linear", "catmull-rom", "bspline"):
            whole = vlkr.resize(data, 2, order=order)
            chunked = resize_chunked(data, 2, order, chunks=(16, 20, 24))
            same = chunked.shape == whole.shape and chunked.tobytes() == whole.tobytes()
            print(f"{np.dtype(dtype).name:8s} {order:12s} {whole.shape} "
                  f"{'equal' if same else 'DIFFERENT'}")
            failures += not same
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
