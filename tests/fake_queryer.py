"""A scripted stand-in for the query service vexcore.db.QRVDBQueryer.

Installed in sys.modules under the service's name, so the table-database adapter
loads it by name as it would load the real service. Every call is recorded with a
deep copy of its arguments taken at call time (the adapter may reuse or empty its
mappings afterwards), and the original objects are kept for identity checks.
"""
import copy
import sys
import types

SERVICE_NAME = "vexcore.db.QRVDBQueryer"


class FakeService:
    """Replies come from `replies` (consumed in order) or, when it is empty, from
    `data`: a mapping from (category, dotted key) to value, the way a table database would."""

    def __init__(self):
        self.tables = []
        self.calls = []
        self.replies = []
        self.data = {}
        self.module = types.ModuleType(SERVICE_NAME)
        self.module.DBQueryer = self.make_queryer

    def make_queryer(self, table_name):
        self.tables.append(table_name)
        service = self

        class Queryer:
            def queryDB(self, payload, queryCmd=None):
                call = types.SimpleNamespace(table=table_name, payload_object=payload,
                                             payload=copy.deepcopy(payload), query_cmd=queryCmd)
                service.calls.append(call)
                if service.replies:
                    return service.replies.pop(0)
                return service.answer(call)

        return Queryer()

    def answer(self, call):
        if call.query_cmd is not None:
            return {"code": 0, "data": self.data[call.query_cmd]}
        category = call.payload["category"]
        return {"code": 0, "data": {key: self.data[(category, key)] for key in call.payload["query"]}}

    def install(self, monkeypatch):
        monkeypatch.setitem(sys.modules, SERVICE_NAME, self.module)
        return self
