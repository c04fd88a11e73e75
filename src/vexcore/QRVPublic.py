"""Shared enumerations of the vexcore SDK."""

from enum import Enum, IntEnum


class RFMode(IntEnum):
    """Radio modes; ``name`` is a table key and ``value`` an index."""

    TX = 0
    RX = 1


class CellRFMode(IntEnum):
    """Radio modes of dual-polarization devices."""

    TX = 0
    RX = 1
    STANDBY = 2


class BeamType(IntEnum):
    """Kinds of stored beams: steered (BEAM) or per-channel (CHANNEL)."""

    BEAM = 0
    CHANNEL = 1


class POLARIZATION(IntEnum):
    """Polarizations of dual-polarization devices (bound as POL by the table manager)."""

    HORIZON = 0
    VERTICAL = 1


class RetCode(Enum):
    """Result codes carried by ``RetType.RetCode``."""

    OK = 0
    WARNING = 1
    ERROR = 2
    ERROR_BF_CALI_PATH = 10
    ERROR_BF_CALI_PARSE = 11
    ERROR_BF_CALI_INCOMPLTE = 12  # spelled so; callers rely on the name
    ERROR_BF_BEAM = 20
    ERROR_BF_BEAM_FILE = 21
    ERROR_BF_AAKIT = 30
    ERROR_BF_NO_AAKIT = 31
    ERROR_DB_FEEDBACK = 40
    ERROR_DB_SERVER = 41
