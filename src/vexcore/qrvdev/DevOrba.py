"""Parts of the OrbaPrime/OrbaLite device driver that the table manager's demonstration uses."""

from enum import IntEnum

DEV_TYPE_ORBA_PRIME = 9  # 16 channels: 4 boards x 1 IC x 4 channels
DEV_TYPE_ORBA_LITE = 12  # 4 channels


class _ICMode(IntEnum):
    """Operating modes of a beamformer IC."""

    SLEEP = 0
    TX = 1
    RX = 2
    STANDBY = 3
