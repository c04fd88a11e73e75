"""Pure-Python table managers: the peer a user of the SDK would otherwise have.

Each file holds one manager written plainly with csv, json and dicts, following the
same algorithms as the C++ module (same results, messages and files), so that the
benchmark compares equal work. They cover the local-file mode of single-polarization
devices, which is what the benchmark measures; web mode and dual polarization are left
out.
"""
