"""Functions for krpythonhost.so: loads files of modules for host programs such as ``kr run``."""

from __future__ import annotations

import importlib.util
import os
import sys
import traceback
from types import ModuleType
from typing import Tuple, Type

from ._broker import Broker
from ._errors import Error
from ._modules import Extractor, Module, VisionExtractor

_SUFFIX = "Extractor"
_files: dict[str, ModuleType] = {}  # already run


class Refusal(Exception):
    """An error message for the user at the command line."""


def load(path: str, class_name: str) -> Tuple[Type[Module], str, str]:
    """Runs a file, once, and finds the class of modules in it.

    Returns:
        The class, its name, and the default name of a module of it.

    Raises:
        Refusal: the file cannot be run; there is no such class, or none was named and there are several.
    """
    file = os.path.abspath(path)
    if file not in _files:
        _files[file] = _run(file, path)
    contents = vars(_files[file])
    offered = [
        each
        for each in contents.values()
        if isinstance(each, type) and issubclass(each, Module) and each.__module__ == _files[file].__name__
    ]
    names = ", ".join(each.__name__ for each in offered)
    if class_name:
        cls = contents.get(class_name)
        if not isinstance(cls, type) or not issubclass(cls, Module) or cls in (Module, Extractor, VisionExtractor):
            raise Refusal(f"{path} has no class {class_name} that is a krvision.Module; it has {names or 'none'}")
    elif len(offered) == 1:
        cls = offered[0]
    else:
        raise Refusal(
            f"{path} has several classes of modules: {names}; name one, as in {path}:{offered[0].__name__}"
            if offered
            else f"{path} has no class derived from krvision.Module"
        )
    name = cls.__name__
    return cls, name, name[: -len(_SUFFIX)] if name.endswith(_SUFFIX) and name != _SUFFIX else name


def create(cls: Type[Module], path: str, broker: object, name: str) -> object:
    """Creates a module of a class in the broker of the program.

    Returns:
        A capsule with the C++ module, which the program owns.

    Raises:
        Error: as Broker.create().
        Refusal: the constructor raises something else.
    """
    adopted = Broker._adopt(broker)  # closed with the module
    try:
        return cls(adopted, name)._body.release()
    except Error:
        adopted.close()
        raise
    except BaseException as error:
        adopted.close()
        raise Refusal(_describe(error, os.path.abspath(path), path)) from error


def _run(file: str, path: str) -> ModuleType:
    name = os.path.splitext(os.path.basename(file))[0]
    if name in sys.modules:
        name = f"krvision_host_{name}"
    spec = importlib.util.spec_from_file_location(name, file)
    if spec is None or spec.loader is None:
        raise Refusal(f"{path} is not a Python file")
    folder = os.path.dirname(file)
    if folder not in sys.path:
        sys.path.insert(0, folder)  # as when run as a program
    sys.argv = [path]
    module = importlib.util.module_from_spec(spec)
    sys.modules[name] = module
    try:
        spec.loader.exec_module(module)
    except BaseException as error:
        del sys.modules[name]
        raise Refusal(_describe(error, file, path)) from error
    return module


def _describe(error: BaseException, file: str, path: str) -> str:
    kind = type(error).__name__
    if isinstance(error, SyntaxError):
        where = path if error.filename == file else error.filename
        return f"{where}:{error.lineno}: {kind}: {error.msg}"
    traceback.print_exception(error)
    lines = [frame.lineno for frame in traceback.extract_tb(error.__traceback__) if frame.filename == file]
    return f"{path}{f':{lines[-1]}' if lines else ''}: {kind}: {error}"
