#!/bin/sh
# Prints the names of the functions that a public header declares with IMG_API.
grep -v '^[[:space:]]*#' "$1" | tr '\n' ' ' | grep -oE 'IMG_API[^;(]*\(' |
  sed -E 's/.*[^A-Za-z0-9_]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*\($/\1/' | sort -u
