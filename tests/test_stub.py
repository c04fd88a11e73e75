"""The shipped type stub names what the module offers, so editors and type checkers see the real surface."""
import ast
import inspect
import os

import vexcore.qrvdev.QRVTableManager as tm

FOLDER = os.path.dirname(tm.__file__)


def stub_names():
    """(module-level names, {class name: method names}) declared in the installed stub."""
    with open(os.path.join(FOLDER, "__init__.pyi"), encoding="utf-8") as stub:
        tree = ast.parse(stub.read())
    top, members = set(), {}
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            members[node.name] = {n.name for n in node.body if isinstance(n, ast.FunctionDef)}
        if isinstance(node, (ast.ClassDef, ast.FunctionDef)):
            top.add(node.name)
        elif isinstance(node, ast.AnnAssign):
            top.add(node.target.id)
        elif isinstance(node, (ast.Import, ast.ImportFrom)):
            top.update(alias.asname or alias.name for alias in node.names)
    return top, members


def test_stub_names_every_module_name_and_method():
    assert os.path.isfile(os.path.join(FOLDER, "py.typed"))
    top, members = stub_names()
    assert {name for name in vars(tm) if not name.startswith("__")} - top == set()
    for name, value in vars(tm).items():
        if inspect.isclass(value) and value.__module__ == tm.__name__ and not issubclass(value, tm.Enum):
            methods = {m for m, v in vars(value).items() if callable(v) and not m.startswith("__") or m == "__init__"}
            assert methods - members[name] == set(), name
