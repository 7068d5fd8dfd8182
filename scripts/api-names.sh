#!/bin/sh
# Prints the names of the functions that public headers declare with IMG_API.
cat "$@" | grep -v '^[[:space:]]*#' | tr '\n' ' ' | grep -oE 'IMG_API[^;(]*\(' |
  sed -E 's/.*[^A-Za-z0-9_]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*\($/\1/' | sort -u
