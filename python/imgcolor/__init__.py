"""Python binding of the imgcolor family.

``imgcolor.Bitmap`` holds a bitmap in memory owned by the library. Arrays
come in and go out in RGB order by default (``order="bgr"`` keeps the
library's own blue-green-red rows); every operation of the command-line tool
is a method with the tool's typed arguments and defaults (``help(Bitmap.hue)``),
built from the same operation descriptors. See docs/python.md.
"""

import inspect
import keyword
import re

import numpy as np

from . import _imgcolor as _native

__all__ = ["Bitmap", "Error", "Cancelled", "operations", "raw_call", "status_name", "read"]

ORDER_RGB, ORDER_BGR, ORDER_GRAY = 0, 1, 2
_RAMP = [(i, i, i) for i in range(256)]
_REGION_COMBINE = {"set": 0, "and": 1, "or": 2, "xor": 3, "subtract": 4}


class Error(Exception):
    """A status other than success from the library: ``status`` (negative
    RC_ code) and ``name`` (``Q_StatusName``: "RC_INVALID_PARAMETER")."""

    def __init__(self, status, name, message):
        super().__init__(message)
        self.status = status
        self.name = name

    def __reduce__(self):  # raised in a worker process, it pickles back whole
        return (type(self), (self.status, self.name, str(self)))


class Cancelled(Error):
    """The progress callable returned False (or raised, in which case its own
    exception is raised instead); the operation returned status 0."""


_native._set_error_classes(Error, Cancelled)
Bitmap = _native.Bitmap
status_name = _native.status_name


def operations():
    """Every operation: name, export, family, arguments (type, unit, range,
    default, help) and accepted kinds, as the descriptors state them."""
    return _native.operations()


def read(path):
    """A PNG or JPEG file as a new Bitmap (in the kind the file holds)."""
    return Bitmap.read(str(path))


def raw_call(bitmap, name, args=None, progress=None):
    """Runs operation ``name`` exactly as the tool and the test sweep do: its
    descriptor's one-bitmap call, arguments in the command line's text form
    (``{"angle": "30"}``). Returns the report text ("" for image operations)."""
    report, _ = bitmap._call(name, dict(args or {}), progress, False, [])
    return report


# ---- Arrays ---------------------------------------------------------------------------------


def _check_order(order):
    if order not in ("rgb", "bgr"):
        raise ValueError(f"order must be 'rgb' or 'bgr', not {order!r}")
    return order


def _swap(array):
    """RGB <-> BGR: a view for three samples (negative stride), a copy for
    four (the fourth sample keeps its place)."""
    return array[..., ::-1] if array.shape[2] == 3 else array[..., [2, 1, 0, 3]]


def _from_numpy(cls, array, order="rgb"):
    """A new Bitmap from a uint8 or uint16 array: (H, W) gray, (H, W, 3) or
    (H, W, 4) colour in ``order``. Always one copy: the library owns pixel
    memory it may reallocate or free, and its rows are padded to 4 bytes."""
    _check_order(order)
    array = np.asarray(array)
    if array.dtype not in (np.uint8, np.uint16):
        raise TypeError(f"arrays of uint8 or uint16 only, not {array.dtype}")
    if array.ndim == 2:
        bits, stored = 8 * array.itemsize, ORDER_GRAY
    elif array.ndim == 3 and array.shape[2] in (3, 4):
        bits, stored = 8 * array.itemsize * array.shape[2], ORDER_BGR
        if order == "rgb":
            array = _swap(array)
    else:
        raise ValueError(f"shape (H, W), (H, W, 3) or (H, W, 4), not {array.shape}")
    bitmap = cls.allocate(array.shape[1], array.shape[0], bits, stored)
    bitmap._stored_view(False)[...] = array
    return bitmap


def _to_numpy(self, order="rgb", copy=False):
    """The pixels as an array, top row first: (H, W) for gray, (H, W, 3) or
    (H, W, 4) for colour, uint8 or uint16 (12-bit gray: uint16 holding
    0..4095). Without ``copy`` the array is a view of the bitmap's memory
    whenever the layout allows: gray, any colour bitmap in its stored order,
    and three-sample colour in the other order (a negative channel stride).
    An 8-bit bitmap whose palette is the gray ramp is gray whatever its
    order. It copies four-sample colour asked for in the other order, and
    converts other palette and 16-bit (5-5-5) colour bitmaps to a 24-bit copy. A view is
    live until the next operation on the bitmap; from then on it keeps the
    pixels as they were (the bitmap goes on in a copy of its own)."""
    _check_order(order)
    source = self
    direct = self.bits in (24, 32, 48, 64) or self.order == ORDER_GRAY and self.bits in (8, 12, 16)
    if self.bits == 8 and self.palette == _RAMP:
        direct = True  # the pixels are the gray levels (planes, masks)
    if not direct:
        source = self.copy()
        source.convert(24, ORDER_BGR, 0, 0)
        copy = False  # already a copy of its own
    view = source._stored_view(direct and source.bits == 8)
    if view.ndim == 3 and ("rgb" if source.order == ORDER_RGB else "bgr") != order:
        view = _swap(view)
    return view.copy() if copy else view


def _region(shape):
    def method(self, left, top, right, bottom, combine="set"):
        if combine not in _REGION_COMBINE:
            raise ValueError(f"combine must be one of {sorted(_REGION_COMBINE)}")
        self._region(shape, left, top, right, bottom, _REGION_COMBINE[combine])
        return self

    method.__name__ = f"set_region_{shape}"
    method.__doc__ = (
        f"Limits later operations to the {'rectangle' if shape == 'rect' else 'ellipse inscribed in'} "
        "left..right, top..bottom (right and bottom exclusive), combined with the current region "
        "by 'set', 'and', 'or', 'xor' or 'subtract'. Returns the bitmap."
    )
    return method


def _clear_region(self):
    """Removes the region: operations work on the whole bitmap again."""
    self._region("clear", 0, 0, 0, 0, 0)
    return self


Bitmap.from_numpy = classmethod(lambda cls, array, order="rgb": _from_numpy(cls, array, order))
Bitmap.from_numpy.__func__.__doc__ = _from_numpy.__doc__
Bitmap.to_numpy = _to_numpy
Bitmap.set_region_rect = _region("rect")
Bitmap.set_region_ellipse = _region("ellipse")
Bitmap.clear_region = _clear_region
Bitmap.__repr__ = lambda self: f"<imgcolor.Bitmap {self.width}x{self.height}, {self.bits} bits, order {self.order}>"

# ---- One method per operation ----------------------------------------------------------------


def _py_name(name):
    name = name.replace("-", "_")
    return name + "_" if keyword.iskeyword(name) else name


def _default(arg):
    text, kind = arg["default"], arg["type"]
    if kind in ("int", "uint"):
        return int(text, 0)
    if kind == "bool":
        return text.lower() in ("true", "yes", "1", "on")
    if kind == "int list":
        return tuple(int(v, 0) for v in text.split(","))
    return text  # enum name, colour as "#RRGGBB" or a number


_ANNOTATION = {"int": int, "uint": int, "bool": bool, "enum": str, "colour": "int | str | tuple", "int list": "list[int]"}


def _integer(arg, value):
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"{arg['name']}: an integer, not {type(value).__name__}")
    return str(int(value))


def _text(arg, value):
    """A Python value as the command line's text, which the descriptor's
    parser checks (ranges, enum names) exactly as the tool does."""
    kind = arg["type"]
    if kind in ("int", "uint"):
        return _integer(arg, value)
    if kind == "bool":
        if not isinstance(value, (bool, np.bool_)):
            raise TypeError(f"{arg['name']}: True or False, not {type(value).__name__}")
        return "true" if value else "false"
    if kind == "enum":
        for name, number, _ in arg["values"]:
            if value == name or (not isinstance(value, str) and _integer(arg, value) == str(number)):
                return name
        raise ValueError(f"{arg['name']}: one of {[v[0] for v in arg['values']]}, not {value!r}")
    if kind == "colour":
        if isinstance(value, str):
            return value
        if isinstance(value, tuple) and len(value) == 3:
            return "#%02X%02X%02X" % tuple(int(v) & 0xFF for v in value)
        return _integer(arg, value)
    if isinstance(value, (str, bytes)) or not hasattr(value, "__iter__"):
        raise TypeError(f"{arg['name']}: a sequence of integers")
    return ",".join(_integer(arg, v) for v in value)


def _report(text):
    """The report of an operation that writes no image: 'name: value' lines
    as a dict (integers where they are), comma-separated lines as a dict of
    columns."""
    lines = [line for line in text.splitlines() if line]
    if lines and ":" not in lines[0] and "," in lines[0]:
        header = lines[0].split(",")
        rows = [[int(v) for v in line.split(",")] for line in lines[1:]]
        return {h: [row[i] for row in rows] for i, h in enumerate(header)}
    values = {}
    for line in lines:
        key, _, value = line.partition(":")
        value = value.strip()
        values[key.strip()] = int(value) if re.fullmatch(r"-?\d+", value) else value
    return values


def _method(op):
    args = {_py_name(a["name"]): a for a in op["args"]}
    several = op["files"]
    params = [inspect.Parameter("self", inspect.Parameter.POSITIONAL_ONLY)]
    if several and op["max_inputs"] > 1:
        params.append(inspect.Parameter("others", inspect.Parameter.VAR_POSITIONAL))
    for name, a in args.items():
        params.append(
            inspect.Parameter(name, inspect.Parameter.KEYWORD_ONLY, default=_default(a), annotation=_ANNOTATION[a["type"]])
        )
    params.append(inspect.Parameter("progress", inspect.Parameter.KEYWORD_ONLY, default=None))
    signature = inspect.Signature(params)

    def method(self, *others, progress=None, **kwargs):
        signature.bind(self, *others, progress=progress, **kwargs)  # TypeError for unknown names
        if progress is not None and not callable(progress):
            raise TypeError("progress must be callable")
        for other in others:
            if not isinstance(other, Bitmap):
                raise TypeError("the other inputs must be Bitmaps")
        texts = {args[k]["name"]: _text(args[k], v) for k, v in kwargs.items()}
        report, images = self._call(op["name"], texts, progress, several, list(others))
        if several:
            return images
        return self if op["writes_image"] else _report(report)

    lines = [f"{op['summary']}. ({op['export']}; kinds: {op['kind_names']})", "", op["help"], ""]
    for name, a in args.items():
        lines.append(f"{name} ({a['type']}, {a['unit']}): {a['help']}; default {a['default']}")
    lines.append("progress: callable(percent) -> False to cancel, or None")
    if several:
        lines.append("Returns the bitmaps it makes (the tool's output files, in order).")
    elif op["writes_image"]:
        lines.append("Changes the bitmap in place and returns it.")
    else:
        lines.append("Returns the values it reports.")
    method.__name__ = method.__qualname__ = _py_name(op["name"])
    method.__doc__ = "\n".join(lines)
    method.__signature__ = signature
    method.export = op["export"]
    return method


def _install_methods():
    for op in _native.operations():
        name = _py_name(op["name"])
        if hasattr(Bitmap, name):
            raise RuntimeError(f"operation {op['name']} collides with Bitmap.{name}")
        setattr(Bitmap, name, _method(op))


_install_methods()
