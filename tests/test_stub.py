"""The shipped type stubs name what the module offers, with the signatures help() shows."""
import ast
import inspect
import os

import pytest

import vexcore
import vexcore.qrvdev.QRVTableManager as tm

FOLDER = os.path.dirname(tm.__file__)


def stub_tree(path):
    with open(path, encoding="utf-8") as stub:
        return ast.parse(stub.read())


STUB = stub_tree(os.path.join(FOLDER, "__init__.pyi")).body


def stub_functions():
    """{(owner, name): FunctionDef} of the module stub; owner "" for module functions."""
    found = {("", node.name): node for node in STUB if isinstance(node, ast.FunctionDef)}
    for node in (node for node in STUB if isinstance(node, ast.ClassDef)):
        found.update({(node.name, f.name): f for f in node.body if isinstance(f, ast.FunctionDef)})
    return found


def stub_top_names():
    names = {node.name for node in STUB if isinstance(node, (ast.ClassDef, ast.FunctionDef))}
    names.update(node.target.id for node in STUB if isinstance(node, ast.AnnAssign))
    for node in (node for node in STUB if isinstance(node, (ast.Import, ast.ImportFrom))):
        names.update(alias.asname or alias.name for alias in node.names)
    return names


def native_functions():
    """{(owner, name): bound native function} of every class and module function."""
    found = {("", name): value for name, value in vars(tm).items() if hasattr(value, "__nb_signature__")}
    for name, cls in vars(tm).items():
        if inspect.isclass(cls) and cls.__module__ == tm.__name__ and not issubclass(cls, tm.Enum):
            found.update({(name, m): f for m, f in vars(cls).items() if hasattr(f, "__nb_signature__")})
    return found


def shape(function):
    """The parts of a signature that matter to a caller: parameters, types, defaults, result."""
    return ast.dump(function.args), ast.dump(function.returns)


def test_every_module_name_and_method_is_in_the_stub():
    assert os.path.isfile(os.path.join(os.path.dirname(vexcore.__file__), "py.typed"))
    assert {name for name in vars(tm) if not name.startswith("__")} - stub_top_names() == set()
    assert set(native_functions()) - set(stub_functions()) == set()


@pytest.mark.parametrize("owner, name", sorted(native_functions()))
def test_help_shows_the_stub_signature_and_a_docstring(owner, name):
    function = native_functions()[(owner, name)]
    ((signature, doc, _),) = function.__nb_signature__
    native = ast.parse(signature + ": ...").body[0]
    assert shape(native) == shape(stub_functions()[(owner, name)])
    assert doc and doc[0].isupper() and len(doc) > 40


def test_classes_and_sibling_modules_are_documented_and_typed():
    for cls in (value for value in vars(tm).values() if inspect.isclass(value) and value.__module__ == tm.__name__):
        assert cls.__doc__, cls
    import vexcore.QRVUtils as utils

    declared = {node.name for node in stub_tree(utils.__file__ + "i").body if isinstance(node, ast.ClassDef)}
    assert declared == {name for name, value in vars(utils).items() if inspect.isclass(value)
                        and value.__module__ == utils.__name__}
