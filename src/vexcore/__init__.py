"""vexcore: device SDK for millimetre-wave phased-array beamformer boxes."""

from importlib import metadata as _metadata

try:
    # The installed distribution's version: pyproject.toml is the one place it is written.
    __version__ = _metadata.version("vexcore")
except _metadata.PackageNotFoundError:  # imported from a source tree that was never installed
    __version__ = "0+unknown"
