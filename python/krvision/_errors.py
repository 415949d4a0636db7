"""The error passed between modules."""

from __future__ import annotations


class Error(Exception):
    """An error of a module, in any language, or of the library.

    Raise it in a published method to report an error: the caller gets the same three texts, also in another
    process or language.

    Attributes:
        module: name of the module, or of the class of the library, that raised it.
        method: the method that was called.
        description: what was wrong, and what would be right.
    """

    def __init__(self, module: str, method: str, description: str) -> None:
        super().__init__(module, method, description)
        self.module = module
        self.method = method
        self.description = description

    def __str__(self) -> str:
        return f"{self.module}.{self.method}: {self.description}"
