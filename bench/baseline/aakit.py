"""Antenna-array-kit tables in pure Python: parse, select, list, and the renaming of old custom kits."""

import csv
import datetime as _datetime
import glob
import logging
from enum import Enum
from pathlib import Path

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType, _Utils

datetime = _datetime.datetime


class AAKitField(Enum):
    AAKIT_NAME = 0
    DEV_TYPE = 1
    TYPE = 2
    SPACING = 3
    STEERING_H = 4
    STEERING_V = 5
    OFFSET_TX = 6
    OFFSET_RX = 7


class _SkipFile(Exception):
    """Ends the reading of one kit file that must not enter the table."""


class AAKitTableManager:
    """The kit files of one device type, local files only."""

    # The one list shared by every manager built without support_dev is the module's own
    # default, so the peer keeps it.
    def __init__(self, devtype, total_ch, path="files/", num_polar=1, support_dev=[], web_client_id=None):  # noqa: B006
        if web_client_id is not None:
            raise NotImplementedError("the pure-Python peer covers local files only")
        self.__logger = logging.getLogger("AAKitTbl")
        self.__devtype = devtype
        self._num_polarization = num_polar
        self.__supportDevs = support_dev
        self.__totol_ch = total_ch
        self._aakit_name = ""
        self.__web_mode = False
        self._AAKitTable = {}
        self.__defaultDir = Path(_Utils._get_files_dir())
        channels = total_ch * num_polar
        self.__fieldlimit = {
            "SPACING": 2,
            "STEERING_H": 2,
            "STEERING_V": 2,
            "OFFSET_TX": channels,
            "OFFSET_RX": channels,
        }

    def _getAAKitTablePath(self):
        files = glob.glob(str(self.__defaultDir / "AAKIT_*.csv"))
        files.sort()
        return files

    # -------------------------------------------------------------- parse ---

    def parse(self):
        files = self._getAAKitTablePath()
        if not files:
            ret = RetType(RetCode.ERROR_BF_NO_AAKIT, RetMsg="'%s' does not exist any AAKit table" % self.__defaultDir)
            self.__logger.error(ret.RetMsg)
            return ret
        self._AAKitTable = {}
        for path in files:
            name, record = self.__readKitFile(path)
            if name:
                self.__accept(path, name, record)
        if not self._AAKitTable:
            ret = RetType(RetCode.ERROR_BF_NO_AAKIT, RetMsg="No available AAKit table here")
            self.__logger.error(ret.RetMsg)
            return ret
        return RetType()

    def __readKitFile(self, path):
        """(kit name, record) of one file; an empty name when the file is skipped."""
        name, record = "", {}
        try:
            with open(path, "r") as f:
                try:
                    for row in csv.reader(f):
                        if row:
                            key = row.pop(0)
                            if key == "AAKIT_NAME":
                                name = row[0]
                            else:
                                self.__readField(path, name, key, row, record)
                except _SkipFile:
                    if not name:
                        self.__logger.error("Skip %s due to unknown file", path)
                    return "", record
        except Exception as e:
            self.__logger.exception(e)
            return "", record
        if not name:
            self.__logger.error("Skip %s due to unknown file", path)
        return name, record

    def __readField(self, path, name, key, values, record):
        if key == "DEV_TYPE":
            dev_type = int(values[0])
            if dev_type not in self.__supportDevs:
                self.__logger.warning("Skip " + path + ", due to dev type(" + str(dev_type) + ") not match")
                raise _SkipFile()
            record["DEV_TYPE"] = dev_type
        elif key == "TYPE":
            kit_type = int(values[0])
            if kit_type > 1:
                self.__logger.error("Unknown custom type: %d", kit_type)
                raise _SkipFile()
            record["TYPE"] = kit_type
        elif key == "SPACING" or key in "STEERING_H" or key in "STEERING_V":
            record[key] = [float(values[0]), float(values[1])]
        elif key in "OFFSET_TX" or key in "OFFSET_RX":
            if len(values) != self.__totol_ch:
                self.__logger.error(
                    key + ": number of channel:" + str(len(values)) + " not equal to " + str(self.__totol_ch)
                )
                raise _SkipFile()
            record[key] = [int(v) for v in values]

    def __accept(self, path, name, record):
        self._AAKitTable[name] = record
        self.__logger.info("Parsing (" + name + ")" + path + " done")
        if record["TYPE"] != 1:
            return
        parts = name.split("_")
        if len(parts) >= 2 and self.__checkAAKitTimeFormat(parts[-1]):
            self.__logger.debug("Valid custom AAKit name")
            return
        self.__logger.info("Invalid custom AAKit name(old format): %s", name)
        new_name = self.computeAAKitFullName(name)
        self._AAKitTable[new_name] = record
        self.__logger.info(" -> new custom AAKit name(new format): %s", new_name)
        if self.__renameAAKit(name, new_name).RetCode != RetCode.OK:
            self.__logger.error("Rename file failed")

    # ----------------------------------------------------- names, queries ---

    def computeAAKitFullName(self, kitName):
        now = datetime.now().astimezone()
        return kitName + "_" + now.strftime("%Y%m%d%H%M%S%f")[:-4] + now.strftime("%z")

    def __checkAAKitTimeFormat(self, time_str):
        try:
            parts = time_str.split("+")
            stamp = parts[0][:-2]
            # strptime alone would take fewer digits ("%m" matches "3"): insist on all fourteen.
            if len(stamp) != 14 or not (stamp.isascii() and stamp.isdigit()):
                return False
            datetime.strptime(stamp, "%Y%m%d%H%M%S")
            datetime.strptime("+" + parts[1], "%z")
            return True
        except Exception:
            return False

    def _selectAAKit(self, kitName):
        if kitName != "" and self._AAKitTable.get(kitName) is None:
            ret = RetType(RetCode.ERROR_BF_NO_AAKIT, "There is NOT matched AAKit name: %s" % kitName)
            self.__logger.error(ret.RetMsg)
            return ret
        self._aakit_name = kitName
        return RetType()

    def getAAKitList(self, force_refresh=False, callback=None):
        if callback:
            ret = callback(self.__devtype, self.__totol_ch, self.__supportDevs)
            if ret.RetCode == RetCode.OK:
                self._AAKitTable = ret.RetData
        if force_refresh or not self._AAKitTable:
            self.parse()
        return RetType(data=list(self._AAKitTable.keys()))

    def getAAKitInfo(self, kitName=None, local=False):
        ret = RetType()
        try:
            if kitName:
                ret.RetData = self._AAKitTable[kitName]
            elif local:
                ret.RetData = self._AAKitTable
            elif self._aakit_name == "":
                ret.RetCode = RetCode.ERROR_BF_AAKIT
                ret.RetMsg = "Fail to getAAKitInfo, please call selectAAKit() first"
                self.__logger.error(ret.RetMsg)
            else:
                ret.RetData = self._AAKitTable[self._aakit_name]
        except Exception:
            ret.RetCode = RetCode.ERROR_BF_AAKIT
            ret.RetMsg = "getAAKitInfo exception"
            self.__logger.exception(ret.RetMsg)
        return ret

    # --------------------------------- renaming an old custom kit on parse ---

    def __renameAAKit(self, oldName, newName, callback=None):
        self.__logger.debug("Rename AAKit -> delete old then add new one")
        ret = self.deleteAAKitInfo(oldName, callback=callback)
        if ret.RetCode != RetCode.OK:
            return ret
        return self.saveAAKitFile(newName, callback=callback, check=False)

    def deleteAAKitInfo(self, kitName, callback=None, check=True):
        try:
            if check and kitName not in self.getAAKitList().RetData:
                return self.__refuse("%s not exist in list" % kitName)
            if self._AAKitTable[kitName]["TYPE"] != 1:
                return self.__refuse("%s must be customized AAKit for deletion" % kitName)
            del self._AAKitTable[kitName]
            if callback:
                self.__logger.info("Forward to deleting AAKit")
                return callback(func_name="deleteAAKitInfo", kitName=kitName, check=False)
            path = self.__defaultDir / ("AAKIT_" + kitName + ".csv")
            path.unlink()
            self.__logger.info("Deleted %s", path)
            return RetType()
        except Exception as e:
            self.__logger.exception(e)
            return RetType(RetCode.ERROR_BF_AAKIT, str(e))

    def saveAAKitFile(self, kitName=None, callback=None, check=True, context=None):
        try:
            if not kitName:
                if self._aakit_name == "":
                    return self.__refuse("Fail to save, please call selectAAKit() first or assign aakit name")
                kitName = self._aakit_name
            if check and kitName not in self.getAAKitList().RetData:
                return self.__refuse("%s not exist in list" % kitName)
            record = self._AAKitTable[kitName]
            if callback:
                self.__logger.info("Forward to saving AAKit")
                ret = callback(func_name="saveAAKitFile", kitName=kitName, check=False, context=record)
                return ret if ret.RetCode != RetCode.OK else RetType()
            path = self.__defaultDir / ("AAKIT_" + kitName + ".csv")
            self.__logger.info("Ready to save %s", path)
            with open(path, "w", newline="") as f:
                writer = csv.writer(f)
                writer.writerow(["AAKIT_NAME", kitName])
                for field in list(AAKitField)[1:]:
                    self.__writeCSVRow(writer, record, field.name)
            return RetType()
        except Exception as e:
            self.__logger.exception(e)
            return RetType(RetCode.ERROR_BF_AAKIT, str(e))

    def __writeCSVRow(self, writer, table, field):
        value = table[field]
        writer.writerow([field] + value if isinstance(value, list) else [field, value])

    def __refuse(self, message):
        self.__logger.error(message)
        return RetType(RetCode.ERROR_BF_AAKIT, message)
