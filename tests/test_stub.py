"""The shipped type stub names what the module offers, so editors and type checkers see the real surface."""
import ast
import inspect
import os

import vexcore.qrvdev.QRVTableManager as tm

STUB = os.path.join(os.path.dirname(tm.__file__), "__init__.pyi")


def _stub_names():
    tree = ast.parse(open(STUB, encoding="utf-8").read())
    top, members = set(), {}
    for node in tree.body:
        if isinstance(node, (ast.ClassDef, ast.FunctionDef)):
            top.add(node.name)
            if isinstance(node, ast.ClassDef):
                members[node.name] = {n.name for n in node.body if isinstance(n, ast.FunctionDef)}
        elif isinstance(node, ast.AnnAssign):
            top.add(node.target.id)
        elif isinstance(node, (ast.Import, ast.ImportFrom)):
            top.update(alias.asname or alias.name for alias in node.names)
    return top, members


def test_stub_is_installed_beside_the_extension():
    assert os.path.isfile(STUB)
    assert os.path.isfile(os.path.join(os.path.dirname(tm.__file__), "py.typed"))


def test_every_module_name_is_in_the_stub():
    top, _ = _stub_names()
    public = {name for name in vars(tm) if not name.startswith("__")}
    assert public - top == set()


def test_every_method_is_in_the_stub():
    _, members = _stub_names()
    for name, value in vars(tm).items():
        if inspect.isclass(value) and value.__module__ == tm.__name__ and not issubclass(value, tm.Enum):
            methods = {m for m, v in vars(value).items() if callable(v) and not m.startswith("__") or m == "__init__"}
            assert methods - members[name] == set(), name
