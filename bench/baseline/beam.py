"""Beam pattern tables in pure Python: load (with old-format conversion), default beams, save,
single and batch get/set with validation through the driver's check hooks."""

import json
import logging
from enum import Flag, auto
from pathlib import Path

from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType, _Utils

FORMAT_VERSION = "2.0.0"
CURRENT_VERSION = "v" + FORMAT_VERSION
OLDEST_CURRENT_LAYOUT = "v1.1.0"  # files below this version hold per-mode beam lists


class BTModeFilter(Flag):
    TX = 1
    RX = auto()
    ALL = TX | RX


class BTSetOption(Flag):
    VALIDATE = 1
    GET = auto()
    SAVE = auto()
    REPLACE_ALL = auto()
    UI_IMPORT = VALIDATE
    UI_EXPORT = VALIDATE | GET
    UI_SAVE_UPSERT = VALIDATE | SAVE
    UI_SAVE_REPLACE = VALIDATE | SAVE | REPLACE_ALL


class _Refused(Exception):
    """Carries an error result out of a nested step of the old-format conversion."""

    def __init__(self, ret):
        super().__init__(ret.RetMsg)
        self.ret = ret


class BeamPatternTableManager:
    """Beam table of one device, frequency and antenna kit, local files only."""

    def __init__(self, sn, devtype, num_beam, rf_layout, check_funcs=None, web_client_id=None):
        if web_client_id is not None:
            raise NotImplementedError("the pure-Python peer covers local files only")
        self.__logger = logging.getLogger("BeamTbl")
        self.__web_mode = False
        self.__func_beam_checking = None
        self.__func_ic_gain_checking = None
        if check_funcs is not None:
            self.__func_beam_checking = check_funcs[0]
            self.__func_ic_gain_checking = check_funcs[1]
        self.__defaultDir = Path(_Utils._get_files_dir()) / "BeamTable"
        self.__path = ""
        self.__sn = sn
        self.__devtype = devtype
        self.__num_beam = num_beam
        self.__freq = None
        self.__DR = {}
        self.__COMDR = {}
        self.__ELEDR = {}
        self.__aakit = ""
        layout = rf_layout() if callable(rf_layout) else rf_layout
        self.__num_board, self.__num_ic_per_board, self.__num_channel_per_ic = layout
        self.__totalCH = self.__num_board * self.__num_ic_per_board * self.__num_channel_per_ic
        self._BeamTable = None

    def _updateFreq(self, freq, DR, comDR, eleDR):
        self.__freq, self.__DR, self.__COMDR, self.__ELEDR = freq, DR, comDR, eleDR

    def _updateAAKit(self, kitName):
        self.__aakit = kitName

    # --------------------------------------------------------------- load ---

    def __fileName(self):
        freq = self.__freq
        freq_text = str(int(freq)) if freq == int(freq) else str(freq)
        kit = "_" + self.__aakit if self.__aakit else ""
        return "Beam_Configuration_" + self.__sn + "_" + freq_text + "GHz" + kit + ".json"

    def _load(self, freq, aakit, callback=None):
        self.__logger.info("Loading Beam Table by: " + format(freq, "1.1f") + "GHz, AAKIT_NAME: '" + aakit + "'")
        try:
            self._BeamTable = None
            self.__freq = freq
            self.__aakit = aakit
            self.__path = self.__defaultDir / self.__fileName()
            if not self.__path.exists():
                if not self.__defaultDir.is_dir():
                    self.__defaultDir.mkdir(parents=True, exist_ok=True)
                self.__generateDefaultBeamTableFile()
            with open(self.__path, "r", encoding="utf-8") as f:
                self._BeamTable = json.load(f)
            version = self._BeamTable["VERSION"] if "VERSION" in self._BeamTable else self._BeamTable["version"]
            self.__logger.info("Beam Table version: %s", version)
            if version < OLDEST_CURRENT_LAYOUT:
                self.__convertOldTable(self._BeamTable)
            self.__logger.info("Loaded Beam Table from: %s", self.__path)
            if version != CURRENT_VERSION:
                self.__logger.info("Upgrade Beam Table version to %s", FORMAT_VERSION)
                self._saveToBeamTableFile()
            return RetType(RetCode.OK, data=self._BeamTable)
        except _Refused as refused:
            return refused.ret
        except Exception:
            self.__logger.exception("BeamTable loading exception")
            return RetType(RetCode.ERROR_BF_BEAM, "BeamTable loading exception")

    # ------------------------------------------------ old-format conversion ---

    def __convertOldTable(self, table):
        for mode in RFMode:
            for beam in table[mode.name + "_beam_list"]:
                self.__dropOldSteering(beam)
        table.pop("version", None)
        table["VERSION"] = CURRENT_VERSION
        table["DEV_TYPE"] = self.__devtype
        table["FREQ"] = self.__freq
        table["AAKIT_NAME"] = self.__aakit
        for mode in RFMode:
            old_beams = table.pop(mode.name + "_beam_list")
            table[mode.name] = {}
            self.__logDefaults(mode)
            for beam in old_beams:
                self.__convertOldBeam(table[mode.name], beam, mode)

    def __dropOldSteering(self, beam):
        if self.__aakit:
            beam["beam_type"] = BeamType.BEAM.value
            beam["beam_config"] = {"db": beam["db"], "theta": beam["theta"], "phi": beam["phi"]}
        for key in ("db", "theta", "phi", "channel_switch"):
            beam.pop(key, None)

    def __logDefaults(self, mode):
        steered, channel = {}, {}
        self.__generateDefaultBeam(steered, BeamType.BEAM, mode)
        self.__generateDefaultBeam(channel, BeamType.CHANNEL, mode)
        self.__logger.debug("[%s] Default beam config: %s", mode.name, steered)
        self.__logger.debug("[%s] Default channel config: %s", mode.name, channel)

    def __convertOldBeam(self, section, beam, mode):
        beam_id = beam["beamId"]
        beam_type = beam.get("beam_type")
        if beam_type is None:
            return  # an old beam without a type is not carried over
        entry = {"beam_description": "", "beam_type": beam_type}
        if beam_type == BeamType.BEAM.value:
            entry["beam_config"] = beam["beam_config"]
        else:
            entry["channel_config"] = self.__convertOldChannels(beam["channel_config"], beam_id, mode)
        self.__logger.debug("Transfer config: [%s][%s] %s", mode.name, beam_id, entry)
        section[str(beam_id)] = entry

    def __convertOldChannels(self, channels, beam_id, mode):
        if len(channels) != self.__totalCH:
            self.__refuse(
                mode.name
                + " BeamID:"
                + str(beam_id)
                + ": count of channel_config("
                + str(len(channels))
                + ") not match with channel count("
                + str(self.__totalCH)
                + ")"
            )
        by_seq = {}
        for channel in channels:
            by_seq.setdefault(channel["channel"], channel)
        per_ic = self.__num_channel_per_ic
        config = {}
        for ch in range(1, self.__totalCH + 1):
            old = by_seq.get(ch)
            if old is None:
                self.__refuse("Can not find channel seq: %d" % ch)
            if ch % per_ic == 1:
                board = int(ch / per_ic) + 1
                board_config = {"common_db": None}
            limit = self.__COMDR[mode.value][board - 1] + self.__ELEDR[mode.value][board - 1]
            board_config["channel_%d" % ((ch - 1) % per_ic + 1)] = {
                "sw": old["sw"],
                "db": min(old["db"], limit),
                "deg": old["deg"],
            }
            if ch % per_ic == 0:
                config["board_%d" % board] = board_config
        return config

    def __refuse(self, message):
        self.__logger.error(message)
        raise _Refused(RetType(RetCode.ERROR_BF_BEAM_FILE, message))

    # ------------------------------------------------------ defaults, save ---

    def __generateDefaultBeamTableFile(self):
        try:
            self.__logger.info("Generate Beam Table: %s", self.__path)
            self._BeamTable = {
                "VERSION": CURRENT_VERSION,
                "SN": self.__sn,
                "DEV_TYPE": self.__devtype,
                "FREQ": self.__freq,
                "AAKIT_NAME": self.__aakit,
            }
            for mode in RFMode:
                self._BeamTable[mode.name] = {}
            self._saveToBeamTableFile()
            return RetType(data=self._BeamTable)
        except Exception:
            self.__logger.exception("BeamTable generating exception")
            return RetType(RetCode.ERROR_BF_BEAM, "BeamTable generating exception")

    def __generateDefaultBeam(self, beam, beam_type, mode):
        if not isinstance(beam, dict):
            raise TypeError("beam must be a dict")
        beam["beam_description"] = ""
        beam["beam_type"] = beam_type.value
        if beam_type == BeamType.BEAM:
            beam["beam_config"] = {"db": self.__DR[mode.name], "theta": 0, "phi": 0}
            return
        per_ic = self.__num_channel_per_ic
        comdr, eledr = self.__COMDR[mode.value], self.__ELEDR[mode.value]
        config = {}
        for ch in range(1, self.__totalCH + 1):
            if ch % per_ic == 1:
                board = int(ch / per_ic) + 1
                board_config = {"common_db": comdr[board - 1]}
            board_config["channel_%d" % ((ch - 1) % per_ic + 1)] = {"sw": 0, "db": eledr[board - 1], "deg": 0}
            if ch % per_ic == 0:
                config["board_%d" % board] = board_config
        beam["channel_config"] = config

    def _saveToBeamTableFile(self, callback=None, new_table=None):
        try:
            if callback:
                extra = {} if new_table is None else {"new_table": new_table}
                return callback(func_name="saveToBeamTableFile", **extra)
            self.__logger.debug("Saving beam file to %s", self.__path)
            table = new_table if new_table is not None else self._BeamTable
            with open(self.__path, "w", encoding="utf-8") as f:
                json.dump(table, f, ensure_ascii=False, indent=2)
            return RetType()
        except Exception:
            self.__logger.exception("BeamFile saving exception")
            return RetType(RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")

    # --------------------------------------------------------- single beam ---

    def getBeamIdStorage(self):
        return RetType(data=self.__num_beam)

    def getBeamPattern(self, mode, beamId):
        try:
            if self._BeamTable is None:
                return self.__notReady()
            mode = RFMode(mode)
            section = self._BeamTable[mode.name]
            if not 1 <= beamId <= self.__num_beam:
                message = "Invaid beam id: %d" % beamId
                self.__logger.error(message)
                return RetType(RetCode.ERROR_BF_BEAM, message)
            beam = section.get(str(beamId))
            if beam is None:
                beam = {}
                self.__generateDefaultBeam(beam, BeamType.CHANNEL, mode)
            return RetType(data=beam)
        except Exception:
            self.__logger.exception("GetBeamPattern exception")
            return RetType(RetCode.ERROR_BF_BEAM, "GetBeamPattern exception")

    def __notReady(self):
        self.__logger.error("BeamTable is not ready")
        return RetType(RetCode.ERROR_BF_BEAM, "BeamTable is not ready")

    def setBeamPattern(self, mode, beamId, beamType, config=None, description=None, save=True):
        try:
            ret = self.getBeamPattern(RFMode(mode), beamId)
            if ret.RetCode != RetCode.OK:
                return ret
            mode = RFMode(mode)
            beam = ret.RetData
            beam_type = BeamType(beamType)
            if description is not None:
                beam["beam_description"] = description
            beam["beam_type"] = beam_type.value
            if beam_type != BeamType.BEAM:
                ret = self.__setChannelBeam(beam, beamId, mode, config)
            else:
                beam, ret = self.__setSteeredBeam(beam, mode, config, description)
            if ret.RetCode != RetCode.OK:
                return ret
            self.__logger.info("Set/update beam:%s pattern -> %s", beamId, beam)
            self._BeamTable[mode.name].update({str(beamId): beam})
            if save:
                return self._saveToBeamTableFile()
            return RetType()
        except Exception:
            self.__logger.exception("SetBeamPattern exception")
            return RetType(RetCode.ERROR_BF_BEAM, "SetBeamPattern exception")

    def __setChannelBeam(self, beam, beamId, mode, config):
        if "beam_config" in beam:
            # A steered beam turns into a channel beam: start from the default channels.
            self.__logger.debug("Skip check beam:%d due to original type is beam_config", beamId)
            del beam["beam_config"]
            fresh = {}
            self.__generateDefaultBeam(fresh, BeamType.CHANNEL, mode)
            beam["channel_config"] = fresh["channel_config"]
        try:
            if config is not None:
                channel_config = beam["channel_config"]
                for board_key, board_values in config.items():
                    target = channel_config[board_key]
                    for key, value in board_values.items():
                        target[key] = value
            else:
                self.__logger.debug("Skip assign channel config, just checking original gains")
            ret = self.__validateChannelConfig(beam, mode)
        except Exception:
            self.__logger.exception("Invalid channel config")
            return RetType(RetCode.ERROR_BF_BEAM, "Invalid channel config")
        if ret.RetCode != RetCode.OK:
            ret.RetMsg = "BeamID_" + str(beamId) + ": Checking channel config failed: " + ret.RetMsg
            self.__logger.error(ret.RetMsg)
        return ret

    def __setSteeredBeam(self, beam, mode, config, description):
        if "channel_config" in beam:
            beam = {}
            self.__generateDefaultBeam(beam, BeamType.BEAM, mode)
            if description is not None:
                beam["beam_description"] = description
        if config is not None:
            db, theta, phi = config["db"], config["theta"], config["phi"]
        else:
            current = beam["beam_config"]
            db, theta, phi = current["db"], current["theta"], current["phi"]
        ret = self.__func_beam_checking(mode, db, theta, phi, None)
        if ret.RetCode != RetCode.OK:
            return beam, ret
        steering = beam["beam_config"]
        steering["db"], steering["theta"], steering["phi"] = ret.RetData
        return beam, RetType()

    def __validateChannelConfig(self, config, mode):
        channel_config = config["channel_config"]
        for b in range(self.__num_board):
            board = channel_config["board_%d" % (b + 1)]
            common = board["common_db"]
            gains = [board["channel_%d" % (c + 1)]["db"] for c in range(self.__num_channel_per_ic)]
            self.__logger.debug("Checking board_%d gain list: %s with common gain: %s", b + 1, gains, common)
            if self.__func_ic_gain_checking(mode, b, gains, common).RetCode != RetCode.OK:
                message = "Checking board_%d gain list failed" % (b + 1)
                self.__logger.error(message)
                return RetType(RetCode.ERROR_BF_BEAM, message)
            self.__logger.debug("Checked  board_%d gain list: %s", b + 1, gains)
        return RetType()

    # --------------------------------------------------------------- batch ---

    def _getBatchBeamPattern(self, mode_filter=BTModeFilter.ALL, callback=None):
        self.__logger.info("getBatchBeamPattern with filter: %s", mode_filter)
        if callback:
            self.__logger.info("calling _load()")
            ret = self._load(self.__freq, self.__aakit, callback)
            if ret.RetCode != RetCode.OK:
                return ret
            self._BeamTable = ret.RetData
        if self._BeamTable is None:
            return self.__notReady()
        mode_filter = BTModeFilter(mode_filter)
        batch = {}
        if BTModeFilter.TX in mode_filter:
            batch["TX"] = self._BeamTable["TX"]
        if BTModeFilter.RX in mode_filter:
            batch["RX"] = self._BeamTable["RX"]
        return RetType(data=batch)

    def _setBatchBeamPattern(self, batch_config, option, callback=None):
        if not isinstance(batch_config, dict):
            raise TypeError("batch_config must be a dict")
        self.__logger.info("setBatchBeamPattern with option: %s", option)
        try:
            option = BTSetOption(option)
            result = RetType()
            if BTSetOption.SAVE in option:
                ret = self.__applyBatch(batch_config, BTSetOption.REPLACE_ALL in option, callback)
                if ret.RetCode != RetCode.OK:
                    return ret
                result = RetType(data=self._BeamTable)
            if BTSetOption.VALIDATE in option:
                ret = self.__validateBatch(batch_config)
                if ret.RetCode != RetCode.OK:
                    return ret
            if BTSetOption.GET in option:
                result = RetType(data=batch_config)
            return result
        except Exception:
            self.__logger.exception("SetBatchBeamPattern exception")
            return RetType(RetCode.ERROR_BF_BEAM, "SetBatchBeamPattern exception")

    @staticmethod
    def __batchModes(batch_config):
        """(mode, beams) of every batch key that names a radio mode; other keys are ignored."""
        return [(RFMode[name], beams) for name, beams in batch_config.items() if name in RFMode.__members__]

    def __applyBatch(self, batch_config, replace_all, callback):
        for mode, beams in self.__batchModes(batch_config):
            if replace_all:
                self._BeamTable[mode.name] = {}
            for beam_id, beam in beams.items():
                config = beam["beam_config"] if beam["beam_type"] == BeamType.BEAM.value else beam["channel_config"]
                ret = self.setBeamPattern(
                    mode, int(beam_id), beam["beam_type"], config, beam["beam_description"], save=False
                )
                if ret.RetCode != RetCode.OK:
                    return ret
        if callback:
            return self._saveToBeamTableFile(callback, new_table=self._BeamTable)
        return self._saveToBeamTableFile()

    def __validateBatch(self, batch_config):
        for mode, beams in self.__batchModes(batch_config):
            for beam in beams.values():
                if beam["beam_type"] == BeamType.BEAM.value:
                    steering = beam["beam_config"]
                    ret = self.__func_beam_checking(mode, steering["db"], steering["theta"], steering["phi"], None)
                else:
                    ret = self.__validateChannelConfig(beam, mode)
                if ret.RetCode != RetCode.OK:
                    return ret
        return RetType()
