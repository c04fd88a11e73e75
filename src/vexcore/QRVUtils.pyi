"""Shared utilities of the vexcore SDK: the result record and the files directory."""

from typing import Any

from vexcore.QRVPublic import RetCode as _RetCode

class RetType:
    """Result record of every SDK operation: a code, a message and a payload."""

    RetCode: _RetCode
    RetMsg: str
    RetData: Any
    def __init__(
        self,
        code: _RetCode = ...,
        msg: str = ...,
        data: Any = ...,
        *,
        RetCode: _RetCode = ...,
        RetMsg: str = ...,
        RetData: Any = ...,
    ) -> None: ...

class _Utils:
    @staticmethod
    def _get_files_dir() -> str: ...
