"""Calibration tables in pure Python: file search, parse, and the DR/COMDR/ELEDR/TC queries."""

import csv
import glob
import json
import logging
from pathlib import Path

from vexcore.QRVPublic import RetCode, RFMode
from vexcore.QRVUtils import RetType, _Utils

# Row keys whose cells are dispatched to a reader method, in the order they are tested.
_HEADER_KEYS = ("VER", "REALVER", "SN", "FCENTER")


class CalibrationTableManager:
    """Calibration table of one device (serial number) at one frequency, local files only."""

    def __init__(self, sn, freq, rf_layout, support_polar=False, web_client_id=None, fetchCsvFromFile=True):
        if support_polar or web_client_id is not None:
            raise NotImplementedError("the pure-Python peer covers local files of single-polarization devices")
        self.__logger = logging.getLogger("CaliTbl")
        self.sn = sn
        self.__freq = freq
        self._freq_list = []
        self.__support_polar = support_polar
        self.__allOffset = None
        self.__allXXXDR = None
        self.__allComDataMap = {}
        self._num_board, self._num_ic_per_board, self._num_channel_per_ic = rf_layout()
        self._cali_table_ver_limit = "2.0.0"
        self.__web_mode = False
        self._CaliTable = {}
        if fetchCsvFromFile:
            self.defaultDir = Path(_Utils._get_files_dir())
            self.path_cali = ""
            self._searchCaliFile()

    # ----------------------------------------------------------- location ---

    def _searchCaliFile(self, extension=".csv"):
        self._freq_list = []
        found = False
        paths = glob.glob(str(self.defaultDir / f"{self.sn}*GHz{extension}"))
        if not paths:
            return False
        for path in paths:
            freq = float(path.split("_")[-1].split("GHz" + extension)[0])
            if freq == self.__freq:
                found = path
            self._freq_list.append(freq)
        self._freq_list.sort()
        return found

    def __basicCheck(self, table):
        ret = RetType()
        if table["VER"] < self._cali_table_ver_limit:
            ret.RetMsg = "Version of Cali table is too low, please upgrade it."
        elif table["SN"] != self.sn:
            ret.RetMsg = "Wrong SN!"
        elif float(table["FCENTER"]) != self.__freq:
            ret.RetMsg = "Wrong Freq"
        else:
            return ret
        ret.RetCode = RetCode.ERROR_BF_CALI_INCOMPLTE
        self.__logger.error(ret.RetMsg)
        return ret

    # -------------------------------------------------------------- parse ---

    def __updateDict(self, d, key, value):
        try:
            if d.get(key) is None:
                d[key] = value
            else:
                d[key].update(value)
        except Exception:
            self.__logger.exception(f"__updateDict exception with key:{key}, value:{value}")
            # Chained implicitly, as the module's own error is: the cause stays in the traceback.
            raise Exception("__updateDict exception")  # noqa: B904

    def __insert(self, path, value):
        """Puts value at the end of a key path, merging into the mappings on the way."""
        node = self._CaliTable
        for key in path[:-2]:
            self.__updateDict(node, key, {})
            node = node[key]
        self.__updateDict(node, path[-2], {path[-1]: value})

    def parse(self, freq=None, fileObject=None, exportToJson=False):
        if freq is not None:
            self.__freq = freq
            self.__allOffset = None
            self.__allXXXDR = None
            self.__allComDataMap = {}
        if fileObject is None:
            path = self._searchCaliFile()
            if not path:
                ret = RetType(RetCode.ERROR_BF_CALI_PATH, "Can not find file for Cali table")
                self.__logger.error(ret.RetMsg)
                return ret
            self.__logger.info("Cali file path: %s", path)
            self.path_cali = path
        self._CaliTable = {}
        ret = RetType()
        f = None
        try:
            f = fileObject if fileObject is not None else open(self.path_cali, "r")
            ret = self.__readRows(f)
        except Exception:
            ret = RetType(RetCode.ERROR_BF_CALI_PARSE, "parse exception")
            self.__logger.exception(ret.RetMsg)
        finally:
            if f is not None:
                f.close()
        if ret.RetCode == RetCode.ERROR_BF_CALI_INCOMPLTE:
            return ret  # the header check refused the table: nothing to export
        if exportToJson:
            return self.__export(ret)
        return ret

    def __export(self, ret):
        try:
            with open(self.path_cali.replace("csv", "json"), "w", encoding="utf-8") as out:
                json.dump(self._CaliTable, out, ensure_ascii=False, indent=4)
            return ret
        except Exception:
            self.__logger.exception("parse exception")
            return RetType(RetCode.ERROR_BF_CALI_PARSE, "parse exception")

    def __readRows(self, f):
        for row in csv.reader(line.replace("\0", "") for line in f):
            if not row:
                continue
            key = row.pop(0)
            if key == "END":
                self.__logger.info("%s parsing done", getattr(self, "path_cali", ""))
                return RetType()
            ret = self.__readRow(key, row)
            if ret is not None:
                return ret
        ret = RetType(RetCode.ERROR_BF_CALI_PARSE, "cali file is broken")
        self.__logger.error(ret.RetMsg)
        return ret

    def __readRow(self, key, values):
        """Stores one row; returns a result only when the header check refuses the table."""
        if key in _HEADER_KEYS:
            self.__logger.debug("%s: %s", key, values[0])
            self._CaliTable[key] = values[0]
        elif key == "DR":
            self.__readDR(values)
        elif key == "OFFSET_TX" or key == "OFFSET_RX":
            self.__readOffsets(key.split("_")[1], values)
        elif key == "COMDR" or key == "ELEDR":
            ret = self.__basicCheck(self._CaliTable)
            if ret.RetCode != RetCode.OK:
                return ret
            self.__insert(["BOARD_" + values[2], values[0], key], [float(v) for v in values[4:]])
        elif key == "TEMPADC":
            board = "BOARD_" + values[1]
            for mode in RFMode:
                self.__insert([board, mode.name, "TEMPADC"], values[3])
        elif key == "TC":
            board = "BOARD_" + values[1]
            self.__insert([board, "TX", "TC"], [values[3], values[4]])
            self.__insert([board, "RX", "TC"], [values[5], values[6]])
        elif key == "COMSTEPDR":
            self.__insert(["BOARD_" + values[2], "COMSTEPDR", "COM_" + values[3]], [float(v) for v in values[4:]])
        elif key == "DATA":
            self.__readData(values)
        return None

    def __readDR(self, values):
        self._CaliTable["DR"] = {}
        for mode in RFMode:
            low, high = float(values[2 * mode.value]), float(values[2 * mode.value + 1])
            self.__logger.debug("%s mode DR: {%f~%f}", mode.name, low, high)
            self.__updateDict(self._CaliTable["DR"], mode.name, [low, high])

    def __readOffsets(self, mode_name, values):
        cells = iter(values)
        for board in range(1, self._num_board + 1):
            for chip in range(1, self._num_ic_per_board + 1):
                channels = {}
                for channel in range(1, self._num_channel_per_ic + 1):
                    channels["CHANNEL_%d" % channel] = int(next(cells))
                self.__insert(["BOARD_%d" % board, mode_name, "OFFSET_CHIP_%d" % chip], channels)

    def __readData(self, values):
        # DATA, label, label, board, label, chip, arm, mode, gain, phase, one register per channel;
        # the entry is named mode_gain_phase with the gain truncated to an integer step.
        entry = "%s_%d_%s" % (values[6], int(float(values[7])), values[8])
        self.__insert(
            ["BOARD_" + values[2], "DATA_CHIP_" + values[4], "COM_" + values[5], entry], [int(v) for v in values[9:]]
        )

    # ------------------------------------------------------------ queries ---

    def getDR(self, rf_mode=None):
        if rf_mode is None:
            return RetType(data=self._CaliTable["DR"])
        return RetType(data=self._CaliTable["DR"][RFMode(rf_mode).name])

    def __getXXXDR(self, key):
        if self.__allXXXDR is not None:
            self.__logger.debug("Fetch %s from cache", key)
            return self.__allXXXDR[key]
        cache = {kind: [[] for _ in RFMode] for kind in ("COMDR", "ELEDR", "COMSTEPDR")}
        for mode in RFMode:
            for board in range(1, self._num_board + 1):
                board_table = self._CaliTable["BOARD_%d" % board]
                cache["COMDR"][mode.value].append(board_table[mode.name]["COMDR"])
                cache["ELEDR"][mode.value].append(board_table[mode.name]["ELEDR"])
                cache["COMSTEPDR"][mode.value].append(board_table["COMSTEPDR"])
        self.__allXXXDR = cache
        self.__logger.info("All DR: %s", cache)
        return cache[key]

    def getCOMDR(self):
        return RetType(data=self.__getXXXDR("COMDR"))

    def getELEDR(self):
        return RetType(data=self.__getXXXDR("ELEDR"))

    def _getBoardCOMDR(self, mode, board_idx):
        return self.__getXXXDR("COMDR")[RFMode(mode).value][board_idx]

    def _getBoardELEDR(self, mode, board_idx):
        return self.__getXXXDR("ELEDR")[RFMode(mode).value][board_idx]

    def _getBoardsOffset(self, boards, rf_mode_str=RFMode.TX.name, chip=1):
        """Per-board channel offsets of one chip, cached; callers get copies."""
        if self.__allOffset is None:
            self.__allOffset = {}
        mode_cache = self.__allOffset.setdefault(rf_mode_str, {})
        chip_name = "OFFSET_CHIP_%s" % chip
        result = []
        for board in [boards] if isinstance(boards, int) else boards:
            board_name = "BOARD_%s" % board
            cached = mode_cache.get(board_name, {}).get(chip_name)
            if cached is None:
                stored = self._CaliTable[board_name][rf_mode_str][chip_name]
                cached = [int(stored["CHANNEL_%d" % ch]) for ch in range(1, self._num_channel_per_ic + 1)]
                mode_cache.setdefault(board_name, {})[chip_name] = cached
            result.append(list(cached))
        return result

    def _getTC(self):
        result = []
        for number in range(1, self._num_board * self._num_ic_per_board + 1):
            board_table = self._CaliTable["BOARD_%d" % number]
            values = []
            for mode in RFMode:
                values.extend(int(v) for v in board_table[mode.name]["TC"])
            result.append(values)
        return result
