"""The Python binding: every export present, the same pixels as the recorded
C outputs, arrays, regions, errors, progress and cancellation."""

import inspect
import keyword
import os
import re
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import numpy as np
import pytest

import imgcolor

SOURCE = Path(os.environ.get("IMG_SOURCE", Path(__file__).resolve().parents[2]))
OPS = {op["name"]: op for op in imgcolor.operations()}
METHOD = {name: getattr(imgcolor.Bitmap, name.replace("-", "_")) for name in OPS}
RNG = np.random.default_rng(7)


def photo(bits=24, order=imgcolor.ORDER_BGR):
    """The sample photo in the kind the test sweep records its outputs on."""
    b = imgcolor.read(SOURCE / "data" / "chelsea.png")
    b.convert(bits, order, 0, 0)
    return b


def fnv(data, h):
    for byte in data:
        h = ((h ^ byte) * 0x100000001B3) & 0xFFFFFFFFFFFFFFFF
    return h


def output_hash(b, report):
    """The sweep's FNV-1a: report, kind, image rows without padding, palette."""
    h = fnv(report.encode(), 0xCBF29CE484222325)
    h = fnv(b.bits.to_bytes(4, "little", signed=True) + b.order.to_bytes(4, "little", signed=True), h)
    h = fnv(b._rows(), h)
    return fnv(b"".join(bytes((blue, green, red)) for red, green, blue in b.palette), h)


def test_every_export_has_a_method():
    header = (SOURCE / "include" / "imgcolor.h").read_text()
    exports = set(re.findall(r"IMG_API int32_t (Q_\w+)\(", header))
    assert len(exports) == 51
    assert exports <= {op["export"] for op in OPS.values()}
    for name, op in OPS.items():
        params = inspect.signature(METHOD[name]).parameters
        assert METHOD[name].export == op["export"]
        names = [a["name"].replace("-", "_") for a in op["args"]]  # Python keywords take a trailing _
        assert [p for p in params if p not in ("self", "others", "progress")] == [
            n + "_" if keyword.iskeyword(n) else n for n in names
        ]


REFERENCES = dict(
    line.rsplit(" ", 1)
    for line in (SOURCE / "tests" / "data" / "reference_outputs.txt").read_text().splitlines()
    if line and not line.startswith("#")
)


@pytest.mark.parametrize("name", sorted(OPS))
def test_same_pixels_as_the_recorded_c_outputs(name):
    b = photo()
    report = imgcolor.raw_call(b, name)
    assert f"1:{output_hash(b, report):016x}" == REFERENCES[f"{name} 24bgr"]
    if OPS[name]["files"]:
        return
    # The method, every argument given as a Python value, calls the same.
    m = photo()
    defaults = {k: p.default for k, p in inspect.signature(METHOD[name]).parameters.items() if k not in ("self", "progress")}
    METHOD[name](m, **defaults)
    assert m._rows() == b._rows()


ARRAYS = [
    RNG.integers(0, 256, (5, 7), dtype=np.uint8),
    RNG.integers(0, 65536, (5, 7), dtype=np.uint16),
    RNG.integers(0, 256, (5, 7, 3), dtype=np.uint8),
    RNG.integers(0, 256, (4, 5, 4), dtype=np.uint8),
    RNG.integers(0, 65536, (3, 6, 3), dtype=np.uint16),
    RNG.integers(0, 65536, (3, 5, 4), dtype=np.uint16),
]


@pytest.mark.parametrize("array", ARRAYS, ids=lambda a: f"{a.dtype}{a.shape}")
@pytest.mark.parametrize("order", ["rgb", "bgr"])
def test_arrays_round_trip(array, order):
    b = imgcolor.Bitmap.from_numpy(array, order=order)
    assert (b.width, b.height, b.bits) == (array.shape[1], array.shape[0], array.itemsize * 8 * (array.shape[2] if array.ndim == 3 else 1))
    out = b.to_numpy(order=order)
    np.testing.assert_array_equal(out, array)
    # A view unless four samples are asked for in the other order.
    assert np.shares_memory(out, b.to_numpy(order=order)) == (array.ndim == 2 or array.shape[2] == 3 or order == "bgr")
    assert not np.shares_memory(b.to_numpy(order=order, copy=True), out)


def test_pixel_order_is_explicit():
    red = np.zeros((1, 2, 3), np.uint8)
    red[..., 0] = 255
    b = imgcolor.Bitmap.from_numpy(red)  # RGB by default
    assert b._rows() == bytes([0, 0, 255] * 2)  # the library's rows are blue, green, red
    np.testing.assert_array_equal(b.to_numpy(order="bgr")[0, 0], [0, 0, 255])
    np.testing.assert_array_equal(imgcolor.Bitmap.from_numpy(red, order="bgr").to_numpy()[0, 0], [0, 0, 255])


def test_views_outlive_reallocation_and_palette_bitmaps_convert():
    b = photo()
    view = b.to_numpy()
    before = view.copy()
    b.color_replace_weights()  # converts to 8 bits: new pixel memory
    np.testing.assert_array_equal(view, before)
    assert b.bits == 8 and b.to_numpy().shape == (300, 451)  # a gray mask
    p = photo(4)
    assert p.to_numpy().shape == (300, 451, 3)


@pytest.mark.parametrize("shape", ["rect", "ellipse"])
def test_regions_limit_the_change(shape):
    a = RNG.integers(0, 256, (20, 30, 3), dtype=np.uint8)
    b = imgcolor.Bitmap.from_numpy(a)
    getattr(b, f"set_region_{shape}")(5, 4, 25, 16)
    b.invert()
    out = b.to_numpy()
    yy, xx = np.mgrid[0:20, 0:30]
    if shape == "rect":
        inside = (xx >= 5) & (xx < 25) & (yy >= 4) & (yy < 16)
    else:
        inside = ((xx + 0.5 - 15) / 10) ** 2 + ((yy + 0.5 - 10) / 6) ** 2 <= 1
    np.testing.assert_array_equal(out[inside], 255 - a[inside])
    np.testing.assert_array_equal(out[~inside], a[~inside])
    b.clear_region().invert()
    np.testing.assert_array_equal(b.to_numpy()[~inside], 255 - a[~inside])


def test_reported_values_and_several_bitmaps():
    a = RNG.integers(0, 4, (6, 9, 3), dtype=np.uint8)
    b = imgcolor.Bitmap.from_numpy(a)
    assert b.count_colors() == {"colors": len(np.unique(a.reshape(-1, 3), axis=0))}
    profile = b.line_profile(x1=0, y1=2, x2=8, y2=2)
    np.testing.assert_array_equal(np.array([profile["red"], profile["green"], profile["blue"]]).T, a[2])
    planes = b.separate(model="rgb")
    assert [p.to_numpy().tolist() for p in planes] == [a[..., 2].tolist(), a[..., 1].tolist(), a[..., 0].tolist()]
    (merged,) = planes[0].merge(planes[1], planes[2], model="rgb")
    np.testing.assert_array_equal(merged.to_numpy(), a)


ERRORS = [  # method, bitmap, arguments, exception, status
    ("channel_mix", "gray", {}, imgcolor.Error, -12),
    ("contrast", "colour", {"change": 5000}, ValueError, None),
    ("contrast", "colour", {"change": 1.5}, TypeError, None),
    ("contrast", "colour", {"nonsense": 1}, TypeError, None),
    ("math_function", "colour", {"function": "cube"}, ValueError, None),
    ("merge", "colour", {}, ValueError, None),
]


@pytest.mark.parametrize("method,kind,kwargs,exception,status", ERRORS)
def test_errors(method, kind, kwargs, exception, status):
    array = np.zeros((4, 4) if kind == "gray" else (4, 4, 3), np.uint8)
    b = imgcolor.Bitmap.from_numpy(array)
    with pytest.raises(exception) as caught:
        getattr(b, method)(**kwargs)
    if status is not None:
        assert (caught.value.status, caught.value.name) == (status, imgcolor.status_name(status))
        assert caught.value.name == "RC_UNSUPPORTED_BITMAP"


def test_progress_cancellation_and_exceptions():
    seen = []
    photo().contrast(progress=seen.append)
    assert seen and seen == sorted(seen) and seen[-1] == 100
    calls = []
    b = photo()
    with pytest.raises(imgcolor.Cancelled) as caught:
        b.contrast(progress=lambda p: calls.append(p) or False)
    assert caught.value.status == 0 and calls == [seen[0]]

    def fails(percent):
        raise ZeroDivisionError("from the callback")

    with pytest.raises(ZeroDivisionError):
        b.contrast(progress=fails)


def test_threads_each_with_their_own_progress():
    def run(change):
        seen = []
        b = photo()
        b.contrast(change=change, progress=lambda p: seen.append((threading.get_ident(), p)))
        return b._rows(), {ident for ident, _ in seen}

    with ThreadPoolExecutor(2) as pool:
        results = list(pool.map(run, [300, 300, -200, -200]))
    assert results[0][0] == results[1][0] != results[2][0] == results[3][0]
    assert all(len(idents) == 1 for _, idents in results)  # reported on the calling thread


def test_folder_example_with_a_process_pool(tmp_path):
    import pickle
    import shutil
    import subprocess
    import sys

    error = pickle.loads(pickle.dumps(imgcolor.Error(-13, "RC_INVALID_PARAMETER", "m")))
    assert (error.status, error.name, str(error)) == (-13, "RC_INVALID_PARAMETER", "m")
    for name in ("a.png", "b.png"):
        shutil.copy(SOURCE / "data" / "chelsea.png", tmp_path / name)
    script = SOURCE / "examples" / "python" / "map_folder.py"
    subprocess.run([sys.executable, script, tmp_path, tmp_path / "out", "hue", "--angle", "40", "--jobs", "2"], check=True)
    expected = imgcolor.read(SOURCE / "data" / "chelsea.png").hue(angle=40).to_numpy()
    for name in ("a", "b"):
        np.testing.assert_array_equal(np.load(tmp_path / "out" / f"{name}.npy"), expected)
