"""Shared utilities of the vexcore SDK: the result record and the files directory."""
import os

from vexcore.QRVPublic import RetCode as _RetCode

_UNSET = object()
_OK = _RetCode.OK
_FIELDS = (("code", "RetCode"), ("msg", "RetMsg"), ("data", "RetData"))
_LONG_NAMES = frozenset(long for _, long in _FIELDS)


class RetType:
    """Result record of every SDK operation: a code, a message and a payload.

    Accepted forms: ``RetType()``, ``RetType(code, msg)``, ``RetType(code, data=x)``,
    ``RetType(data=x)``, ``RetType(msg=text)``; the fields may also be given by
    their attribute names (``RetCode=``, ``RetMsg=``, ``RetData=``), but not both ways.
    """

    __slots__ = ("RetCode", "RetMsg", "RetData")

    # Every operation builds one of these, so construction is kept to the bare minimum:
    # the attribute-name keywords arrive in `aliases` (an empty dict on the usual path,
    # which is cheaper than three keyword-only parameters) and are resolved elsewhere.
    def __init__(self, code=_UNSET, msg=_UNSET, data=_UNSET, **aliases):
        if aliases:
            code, msg, data = _resolve_aliases(code, msg, data, aliases)
        self.RetCode = _OK if code is _UNSET else code
        self.RetMsg = "" if msg is _UNSET else msg
        self.RetData = None if data is _UNSET else data

    def __repr__(self):
        return "RetType(RetCode=%s, RetMsg=%r, RetData=%r)" % (self.RetCode, self.RetMsg, self.RetData)


def _resolve_aliases(code, msg, data, aliases):
    """The fields given by attribute name merged with the short ones; each field one way only."""
    for name in aliases:
        if name not in _LONG_NAMES:
            # What Python itself says of an unknown keyword, before looking at any value.
            raise TypeError("RetType.__init__() got an unexpected keyword argument '%s'" % name)
    values = [code, msg, data]
    for position, (short, long) in enumerate(_FIELDS):
        value = aliases.get(long, _UNSET)
        if value is _UNSET:
            continue
        if values[position] is not _UNSET:
            raise TypeError("RetType() got values for both '%s' and '%s'" % (short, long))
        values[position] = value
    return values


class _Utils:
    """Helpers shared by the SDK's modules."""

    @staticmethod
    def _get_files_dir():
        """The SDK files directory: $VEXCORE_FILES_DIR, else ./files of the working directory."""
        configured = os.environ.get("VEXCORE_FILES_DIR")
        if configured:
            return configured
        return os.path.join(os.getcwd(), "files")
