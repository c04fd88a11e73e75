"""UD delta-frequency tables through UDDeltaFreqTableManager ("<SN>.csv")."""

import dataclasses
import os

import vexcore.qrvdev.QRVTableManager as tm

from . import kinds
from .common import TableResult
from .sandbox import Sandbox, collected_logs


@dataclasses.dataclass
class UDDelta(TableResult):
    sn: str = ""
    delta: object = None


def load(path):
    """Parses the file as the delta table of the serial number its name gives."""
    result = UDDelta(path, kinds.UD_DELTA)
    result.sn = os.path.splitext(os.path.basename(path))[0]
    with Sandbox() as sandbox, collected_logs() as logs:
        # The serial number matters inside the file too: a row holding it is a label.
        sandbox.copy_in(path, os.path.basename(path))
        manager = tm.UDDeltaFreqTableManager(result.sn)
        ret = manager.parse()
        detail = "; ".join(logs.exception_texts())
    if result.add_result(ret, "parse failed", detail=detail):
        result.delta = manager.getUDDeltaFreq().RetData
        result.summary = "%s: minimum LO/IF spacing %s" % (result.sn, result.delta)
    return result
