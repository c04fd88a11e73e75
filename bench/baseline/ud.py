"""UD delta-frequency table in pure Python."""

import csv
import glob
import logging
from pathlib import Path

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType, _Utils


class UDDeltaFreqTableManager:
    """Minimum LO/IF spacing of one UD device, from the optional file "{SN}.csv"."""

    def __init__(self, sn):
        self.__logger = logging.getLogger("UDDeltaTbl")
        self.__sn = sn
        self.__defaultDir = Path(_Utils._get_files_dir())
        self.__delta_freq = 0

    def parse(self):
        paths = glob.glob(str(self.__defaultDir / (self.__sn + ".csv")))
        if not paths:
            return self.__warn("Delta csv not exist, skip it")
        self.__logger.info("Delta csv path: %s", paths[0])
        try:
            with open(paths[0], "r") as f:
                for row in csv.reader(f):
                    if not row or row[0] == self.__sn or row[0].startswith("#"):
                        continue
                    self.__delta_freq = int(row[0])
                    self.__logger.info("Update delta freq to %d", self.__delta_freq)
        except Exception:
            ret = RetType(RetCode.ERROR, "Exception while delta csv parsing")
            self.__logger.exception(ret.RetMsg)
            return ret
        if self.__delta_freq == 0:
            return self.__warn("No delta freq info, skip it")
        return RetType()

    def getUDDeltaFreq(self):
        return RetType(data=self.__delta_freq)

    def __warn(self, message):
        ret = RetType(RetCode.WARNING, message)
        self.__logger.warning(ret.RetMsg)
        return ret
