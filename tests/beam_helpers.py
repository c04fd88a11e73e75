"""Shared pieces of the beam table tests: gain limits, recording check hooks, file helpers."""
import json

import pytest

from vexcore.QRVPublic import BeamType, RetCode
from vexcore.QRVUtils import RetType

SN = "K5350R019-28"
KIT = "AAKIT_QRVLAB-4x4_PRIME_28_IDEAL"

# Gain limits of a 4-board device (one IC of 4 channels per board), as the
# calibration manager hands them over: DR by mode name, COMDR/ELEDR by mode value
# then board index.
DR = {"TX": [-9.5, 5.0], "RX": [-5.0, 10.0]}
COMDR = [[10.0, 11.0, 12.0, 13.0], [20.0, 21.0, 22.0, 23.0]]
ELEDR = [[3.5, 1.0, 2.0, 2.5], [0.5, 0.25, 0.75, 1.5]]


class Hooks:
    """Check hooks of a device driver that record their calls and can refuse or correct."""

    def __init__(self):
        self.ic_calls = []
        self.beam_calls = []
        self.refuse_board = None      # zero-based board index the IC hook refuses
        self.beam_refusal = None      # result the beam hook returns instead of accepting
        self.correct = None           # (db, theta, phi) -> accepted values

    def ic(self, mode, board, gains, common):
        self.ic_calls.append((mode, board, list(gains), common))
        if board == self.refuse_board:
            return RetType(RetCode.ERROR, "gain out of range")
        return RetType(data=gains)

    def beam(self, mode, db, theta, phi, extra):
        self.beam_calls.append((mode, db, theta, phi, extra))
        if self.beam_refusal is not None:
            return self.beam_refusal
        values = (db, theta, phi) if self.correct is None else self.correct(db, theta, phi)
        return RetType(data=values)

    @property
    def funcs(self):
        return (self.beam, self.ic)


def make_manager(tm, hooks=None, layout=(4, 1, 4), num_beam=8, web_client_id=None, limits=True):
    """A manager with the module's sample gain limits applied (not yet loaded)."""
    manager = tm.BeamPatternTableManager(SN, 7, num_beam, layout, hooks.funcs if hooks else None, web_client_id)
    if limits:
        manager._updateFreq(28.0, DR, COMDR, ELEDR)
    return manager


def read_json(path):
    with open(path, encoding="utf-8") as f:
        return json.load(f)


def channel_beam(boards=4, channels=4, db=1.5, common=4.0, description="custom"):
    """A complete channel beam in table form."""
    config = {}
    for b in range(1, boards + 1):
        board = {"common_db": common}
        for c in range(1, channels + 1):
            board["channel_%d" % c] = {"sw": 1, "db": db, "deg": 45 * c}
        config["board_%d" % b] = board
    return {"beam_description": description, "beam_type": 1, "channel_config": config}


def steered_beam(db=2.0, theta=15, phi=30, description="steered"):
    return {"beam_description": description, "beam_type": 0, "beam_config": {"db": db, "theta": theta, "phi": phi}}


def saved_table(manager):
    """The beam table file of a manager, as json reads it."""
    return read_json(manager._BeamPatternTableManager__path)


def default_beam(manager, beam_type=BeamType.CHANNEL, mode=0):
    """The default beam the manager generates for a fresh id."""
    beam = {}
    manager._BeamPatternTableManager__generateDefaultBeam(beam, beam_type, mode)
    return beam


@pytest.fixture
def hooks():
    return Hooks()


@pytest.fixture
def manager(tm, files_dir, hooks):
    """A manager with recording hooks whose (empty) table is loaded for 28 GHz and KIT."""
    manager = make_manager(tm, hooks=hooks)
    assert manager._load(28.0, KIT).RetCode == RetCode.OK
    return manager
