"""Shared utilities of the vexcore SDK: the result record and the files directory."""
import os

from vexcore.QRVPublic import RetCode as _RetCode

_UNSET = object()


class RetType:
    """Result record of every SDK operation: a code, a message and a payload.

    Accepted forms: ``RetType()``, ``RetType(code, msg)``, ``RetType(code, data=x)``,
    ``RetType(data=x)``, ``RetType(msg=text)``; the fields may also be given by
    their attribute names (``RetCode=``, ``RetMsg=``, ``RetData=``).
    """

    __slots__ = ("RetCode", "RetMsg", "RetData")

    def __init__(self, code=_UNSET, msg=_UNSET, data=_UNSET, *,
                 RetCode=_UNSET, RetMsg=_UNSET, RetData=_UNSET):
        self.RetCode = _pick("code", code, "RetCode", RetCode, _RetCode.OK)
        self.RetMsg = _pick("msg", msg, "RetMsg", RetMsg, "")
        self.RetData = _pick("data", data, "RetData", RetData, None)

    def __repr__(self):
        return "RetType(RetCode=%s, RetMsg=%r, RetData=%r)" % (self.RetCode, self.RetMsg, self.RetData)


def _pick(short, short_value, long, long_value, default):
    if short_value is not _UNSET and long_value is not _UNSET:
        raise TypeError("RetType() got values for both '%s' and '%s'" % (short, long))
    if short_value is not _UNSET:
        return short_value
    if long_value is not _UNSET:
        return long_value
    return default


class _Utils:
    """Helpers shared by the SDK's modules."""

    @staticmethod
    def _get_files_dir():
        """The SDK files directory: $VEXCORE_FILES_DIR, else ./files of the working directory."""
        configured = os.environ.get("VEXCORE_FILES_DIR")
        if configured:
            return configured
        return os.path.join(os.getcwd(), "files")
