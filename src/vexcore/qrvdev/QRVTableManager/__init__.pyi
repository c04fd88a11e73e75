"""Table manager of the vexcore SDK: calibration, antenna-array-kit, beam pattern and UD delta tables."""

import csv as csv
import glob as glob
import importlib as importlib
import json as json
import logging as logging
import os as os
import time as time
from collections.abc import Mapping, Sequence
from datetime import datetime as datetime
from enum import Enum as Enum
from enum import Flag as Flag
from enum import auto as auto
from pathlib import Path as Path
from typing import Any
from typing import Callable as Callable
from typing import Union as Union

from vexcore.QRVPublic import POLARIZATION as POL
from vexcore.QRVPublic import BeamType as BeamType
from vexcore.QRVPublic import CellRFMode as CellRFMode
from vexcore.QRVPublic import RetCode as RetCode
from vexcore.QRVPublic import RFMode as RFMode
from vexcore.QRVUtils import RetType as RetType
from vexcore.QRVUtils import _Utils as _Utils

from . import _codec as _codec  # internal: native codecs for the package's tools, tests and benchmarks

# Method signatures are written out in full (no aliases): help() shows the same text,
# and a test holds this file and the module's own signatures to each other.

class BTModeFilter(Flag):
    TX = 1
    RX = 2
    ALL = 3

class BTSetOption(Flag):
    VALIDATE = 1
    GET = 2
    SAVE = 4
    REPLACE_ALL = 8
    UI_IMPORT = 1
    UI_EXPORT = 3
    UI_SAVE_UPSERT = 5
    UI_SAVE_REPLACE = 13

class BTField(Enum):
    _version = "2.0.0"
    VERSION = 0
    SN = 1
    DEV_TYPE = 2
    FREQ = 3
    AAKIT_NAME = 4
    TX = 5
    RX = 6

class BTBeamField(Enum):
    beam_description = 0
    beam_type = 1
    beam_config = 2
    db = 3
    theta = 4
    phi = 5
    channel_config = 6
    board_ = 7
    common_db = 8
    channel_ = 9
    sw = 10
    deg = 11

class BeamPatternTableManager:
    _BeamTable: dict[str, Any] | None
    def __init__(
        self,
        sn: str,
        devtype: int,
        num_beam: int,
        rf_layout: Sequence[int] | Callable[[], Sequence[int]],
        check_funcs: Sequence[Callable[..., RetType]] | None = None,
        web_client_id: str | None = None,
    ) -> None: ...
    def _updateFreq(
        self, freq: float, DR: Mapping[str, Any], comDR: Sequence[Sequence[Any]], eleDR: Sequence[Sequence[Any]]
    ) -> None: ...
    def _updateAAKit(self, kitName: str) -> None: ...
    def _load(self, freq: float, aakit: str, callback: Callable[..., RetType] | None = None) -> RetType: ...
    def _BeamPatternTableManager__generateDefaultBeamTableFile(self) -> RetType: ...
    def _BeamPatternTableManager__generateDefaultBeam(
        self, beam: dict[str, Any], beam_type: BeamType | int, mode: RFMode | int
    ) -> None: ...
    def _saveToBeamTableFile(
        self, callback: Callable[..., RetType] | None = None, new_table: dict[str, Any] | None = None
    ) -> RetType: ...
    def getBeamIdStorage(self) -> RetType: ...
    def getBeamPattern(self, mode: RFMode | int, beamId: int) -> RetType: ...
    def setBeamPattern(
        self,
        mode: RFMode | int,
        beamId: int,
        beamType: BeamType | int,
        config: Mapping[str, Any] | None = None,
        description: str | None = None,
        save: bool = True,
    ) -> RetType: ...
    def _BeamPatternTableManager__validateChannelConfig(
        self, config: Mapping[str, Any], mode: RFMode | int
    ) -> RetType: ...
    def _getBatchBeamPattern(
        self, mode_filter: BTModeFilter | int = BTModeFilter.ALL, callback: Callable[..., RetType] | None = None
    ) -> RetType: ...
    def _setBatchBeamPattern(
        self, batch_config: Mapping[str, Any], option: BTSetOption | int, callback: Callable[..., RetType] | None = None
    ) -> RetType: ...

moss_cali: dict[str, Any]

class CalibrationTableManager:
    sn: str
    defaultDir: Path
    path_cali: str
    _freq_list: list[float]
    _CaliTable: dict[str, Any]
    _num_board: int
    _num_ic_per_board: int
    _num_channel_per_ic: int
    _cali_table_ver_limit: str
    def __init__(
        self,
        sn: str,
        freq: float,
        rf_layout: Callable[[], Sequence[int]],
        support_polar: bool = False,
        web_client_id: str | None = None,
        fetchCsvFromFile: bool = True,
    ) -> None: ...
    def _searchCaliFile(self, extension: str = ".csv") -> str | bool: ...
    def _CalibrationTableManager__updateDict(self, srcDict: dict[str, Any], key: str, value: Any) -> None: ...
    def _CalibrationTableManager__basicCheck(self, table: Mapping[str, Any]) -> RetType: ...
    def checkCaliTableLocation(self) -> RetType: ...
    def getFrequencyList(self, force_refresh: bool = False) -> RetType: ...
    def queryCaliTableVer(self) -> RetType: ...
    def parse(self, freq: float | None = None, fileObject: Any = None, exportToJson: bool = False) -> RetType: ...
    def parseRawJson(self) -> RetType: ...
    def _getBoardsOffset(
        self, boards: int | Sequence[int], rf_mode_str: str = "TX", chip: int = 1
    ) -> list[list[int]]: ...
    def getDR(self, rf_mode: RFMode | CellRFMode | int | None = None) -> RetType: ...
    def _CalibrationTableManager__getXXXDR(self, key: str) -> list[list[Any]]: ...
    def getCOMDR(self) -> RetType: ...
    def getELEDR(self) -> RetType: ...
    def _getBoardCOMDR(self, mode: RFMode | int, board_idx: int) -> Any: ...
    def _getBoardELEDR(self, mode: RFMode | int, board_idx: int) -> Any: ...
    def _getTC(self) -> list[list[int]]: ...
    def _CalibrationTableManager__appendComDictToList(
        self, comDict: Mapping[str, Sequence[float]], min: float, max: float
    ) -> list[int]: ...
    def _searchComStepDR(
        self, board: int, rf_mode_str: str, min: float, max: float, polar: POL | int | None
    ) -> list[int]: ...
    def _getComData(
        self,
        rf_mode_str: str,
        board: int,
        chip: int,
        channel: list[int],
        gain: list[float],
        phase: list[Any],
        com_list: list[int],
    ) -> dict[str, list[int]]: ...

class AAKitField(Enum):
    AAKIT_NAME = 0
    DEV_TYPE = 1
    TYPE = 2
    SPACING = 3
    STEERING_H = 4
    STEERING_V = 5
    OFFSET_TX = 6
    OFFSET_RX = 7

class AAKitTableManager:
    _num_polarization: int
    _aakit_name: str
    _AAKitTable: dict[str, dict[str, Any]]
    def __init__(
        self,
        devtype: int,
        total_ch: int,
        path: str = "files/",
        num_polar: int = 1,
        support_dev: Sequence[int] = [],
        web_client_id: str | None = None,
    ) -> None: ...
    def _getAAKitTablePath(self) -> list[str]: ...
    def parse(self) -> RetType: ...
    def _selectAAKit(self, kitName: str) -> RetType: ...
    def getAAKitList(self, force_refresh: bool = False, callback: Callable[..., RetType] | None = None) -> RetType: ...
    def getAAKitInfo(self, kitName: str | None = None, local: bool = False) -> RetType: ...
    def computeAAKitFullName(self, kitName: str) -> str: ...
    def _AAKitTableManager__checkAAKitTimeFormat(self, time_str: str) -> bool: ...
    def _AAKitTableManager__checkAAKitField(self, field_name: str, field: list[Any] | dict[str, Any]) -> bool: ...
    def setAAKitInfo(
        self,
        kitName: str,
        spacing: list[float],
        steeringH: list[float],
        steeringV: list[float],
        offsetTx: list[int] | dict[str, list[int]],
        offsetRx: list[int] | dict[str, list[int]],
        custom: int = 1,
        callback: Callable[..., RetType] | None = None,
        dev_type: int | None = None,
        newKitName: str | None = None,
    ) -> RetType: ...
    def _AAKitTableManager__renameAAKit(
        self, oldName: str, newName: str, callback: Callable[..., RetType] | None = None
    ) -> RetType: ...
    def deleteAAKitInfo(
        self, kitName: str, callback: Callable[..., RetType] | None = None, check: bool = True
    ) -> RetType: ...
    def _AAKitTableManager__writeCSVRow(self, writer: Any, table: Mapping[str, Any], field: str) -> None: ...
    def saveAAKitFile(
        self,
        kitName: str | None = None,
        callback: Callable[..., RetType] | None = None,
        check: bool = True,
        context: Mapping[str, Any] | None = None,
    ) -> RetType: ...

class UDDeltaFreqTableManager:
    def __init__(self, sn: str) -> None: ...
    def parse(self) -> RetType: ...
    def getUDDeltaFreq(self) -> RetType: ...

class QRVTableDBError(Exception):
    ret: RetType
    def __init__(self, code: RetCode, msg: str) -> None: ...

class _QRVTableDB:
    def __init__(self, table_name: str, temp: dict[str, Any]) -> None: ...
    def _QRVTableDB__returnDB(self, db_info: Any) -> RetType: ...
    def getTableList(self, name: str) -> RetType: ...
    def setAAKitName(self, name: str) -> RetType: ...
    def setFreq(self, freq: float) -> RetType: ...
    def cleanQueryCache(self) -> None: ...
    def query(self, key: str | list[Any] = "", category: str = "GENERAL", applySetting: bool = True) -> RetType: ...

def fake_rf_layout() -> tuple[int, int, int]: ...
def fake_check(a: Any, b: Any, c: Any, d: Any) -> RetType: ...
def fake_ic_check(a: Any, b: Any, c: Any) -> RetType: ...
