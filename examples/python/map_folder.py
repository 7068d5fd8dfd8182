"""Runs one imgcolor operation over every PNG and JPEG of a folder with a
pool of processes, one image at a time per process.

    python3 map_folder.py IN_DIR OUT_DIR hue --angle 30 [--jobs N]

Each worker process imports imgcolor itself; only file names and the
arguments cross between processes (bitmaps do not pickle). Results are
written as .npy arrays in RGB order (the binding reads PNG and JPEG but does
not write them): numpy.load() gives them back.
"""

import argparse
import sys
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path

import numpy as np

import imgcolor


def process(path, out_dir, operation, arguments):
    bitmap = imgcolor.read(path)
    getattr(bitmap, operation)(**arguments)
    target = Path(out_dir) / (Path(path).stem + ".npy")
    np.save(target, bitmap.to_numpy())
    return target


def parse_value(text):
    try:
        return int(text, 0)
    except ValueError:
        return text


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("in_dir")
    parser.add_argument("out_dir")
    parser.add_argument("operation", help="a Bitmap method: hue, contrast, equalize, ...")
    parser.add_argument("--jobs", type=int, default=None, help="processes (default: one per core)")
    known, rest = parser.parse_known_args(argv)
    # The remaining --name value pairs are the operation's keyword arguments.
    arguments = {rest[i].lstrip("-").replace("-", "_"): parse_value(rest[i + 1]) for i in range(0, len(rest), 2)}
    files = sorted(p for p in Path(known.in_dir).iterdir() if p.suffix.lower() in (".png", ".jpg", ".jpeg"))
    Path(known.out_dir).mkdir(parents=True, exist_ok=True)
    failed = 0
    with ProcessPoolExecutor(known.jobs) as pool:
        futures = {pool.submit(process, str(f), known.out_dir, known.operation, arguments): f for f in files}
        for future, f in futures.items():
            try:
                print(f"{f.name} -> {future.result()}")
            except (imgcolor.Error, ValueError, TypeError) as e:
                failed += 1
                print(f"{f.name}: {e}", file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
