"""Shared utilities of the vexcore SDK: the result record and the files directory."""

import os

from vexcore.QRVPublic import RetCode as _RetCode

_UNSET = object()
_OK = _RetCode.OK


class RetType:
    """Result record of every SDK operation: a code, a message and a payload.

    Accepted forms: ``RetType()``, ``RetType(code, msg)``, ``RetType(code, data=x)``,
    ``RetType(data=x)``, ``RetType(msg=text)``; the fields may also be given by
    their attribute names (``RetCode=``, ``RetMsg=``, ``RetData=``), but not both ways.
    """

    __slots__ = ("RetCode", "RetMsg", "RetData")

    # Every operation builds one of these, so construction is kept to the bare minimum:
    # the attribute-name keywords arrive in `aliases` (an empty dict on the usual path,
    # which is cheaper than three keyword-only parameters) and are looked at only when
    # given, here rather than in a helper, as a call would cost more than the checks.
    def __init__(self, code=_UNSET, msg=_UNSET, data=_UNSET, **aliases):
        if aliases:
            long_code = aliases.pop("RetCode", _UNSET)
            long_msg = aliases.pop("RetMsg", _UNSET)
            long_data = aliases.pop("RetData", _UNSET)
            if aliases:
                # What Python itself says of an unknown keyword, before looking at any value.
                raise TypeError("RetType.__init__() got an unexpected keyword argument '%s'" % next(iter(aliases)))
            if long_code is not _UNSET:
                if code is not _UNSET:
                    raise TypeError("RetType() got values for both 'code' and 'RetCode'")
                code = long_code
            if long_msg is not _UNSET:
                if msg is not _UNSET:
                    raise TypeError("RetType() got values for both 'msg' and 'RetMsg'")
                msg = long_msg
            if long_data is not _UNSET:
                if data is not _UNSET:
                    raise TypeError("RetType() got values for both 'data' and 'RetData'")
                data = long_data
        self.RetCode = _OK if code is _UNSET else code
        self.RetMsg = "" if msg is _UNSET else msg
        self.RetData = None if data is _UNSET else data

    def __repr__(self):
        return "RetType(RetCode=%s, RetMsg=%r, RetData=%r)" % (self.RetCode, self.RetMsg, self.RetData)


class _Utils:
    """Helpers shared by the SDK's modules."""

    @staticmethod
    def _get_files_dir():
        """The SDK files directory: $VEXCORE_FILES_DIR, else ./files of the working directory."""
        configured = os.environ.get("VEXCORE_FILES_DIR")
        if configured:
            return configured
        return os.path.join(os.getcwd(), "files")
