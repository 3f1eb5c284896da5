"""Compares a document with a JSON Schema (2020-12), as far as the schemas in docs/client-json go.

Strict on purpose: a keyword that is not known here is an error, so that nothing in a schema is
silently not looked at.
"""

import json
import math
import re
from pathlib import Path

_IGNORED = {"$schema", "$id", "$defs", "title", "description"}
_TYPES = {
    "object": lambda value: isinstance(value, dict),
    "array": lambda value: isinstance(value, list),
    "string": lambda value: isinstance(value, str),
    "boolean": lambda value: isinstance(value, bool),
    "null": lambda value: value is None,
    "number": lambda value: isinstance(value, (int, float)) and not isinstance(value, bool)
    and math.isfinite(value),
    "integer": lambda value: isinstance(value, int) and not isinstance(value, bool),
}


class Mismatch(AssertionError):
    pass


class Schemas:
    """The schemas of a directory, by file name."""

    def __init__(self, directory):
        self._directory = Path(directory)
        self._loaded = {}

    def load(self, name):
        if name not in self._loaded:
            path = self._directory / name
            self._loaded[name] = json.loads(path.read_text(encoding="utf-8"))
        return self._loaded[name]

    def check(self, name, document):
        """Raises Mismatch unless `document` is what the schema file describes."""
        self._check(self.load(name), document, name, "$")

    def check_command(self, command, text):
        """`text` is what a command printed: one document on one line."""
        if not text.endswith("\n") or text.count("\n") != 1:
            raise Mismatch(f"not one line: {text!r}")
        document = json.loads(text, parse_constant=_refuse)
        self.check(f"{command}.schema.json", document)
        return document

    def _resolve(self, reference, name):
        target, _, pointer = reference.partition("#")
        target = target or name
        schema = self.load(target)
        for step in filter(None, pointer.split("/")):
            schema = schema[step]
        return schema, target

    def _check(self, schema, value, name, path):
        for keyword, wanted in schema.items():
            if keyword in _IGNORED:
                continue
            check = getattr(self, "_" + keyword.removeprefix("$"), None)
            if check is None:
                raise Mismatch(f"{name}: the keyword {keyword!r} is not known")
            check(wanted, value, schema, name, path)

    def _ref(self, wanted, value, _schema, name, path):
        schema, target = self._resolve(wanted, name)
        self._check(schema, value, target, path)

    def _type(self, wanted, value, _schema, _name, path):
        kinds = [wanted] if isinstance(wanted, str) else wanted
        if not any(_TYPES[kind](value) for kind in kinds):
            raise Mismatch(f"{path}: {value!r} is no {wanted}")

    def _properties(self, wanted, value, _schema, name, path):
        for key, schema in wanted.items():
            if isinstance(value, dict) and key in value:
                self._check(schema, value[key], name, f"{path}.{key}")

    def _required(self, wanted, value, _schema, _name, path):
        missing = [key for key in wanted if isinstance(value, dict) and key not in value]
        if missing:
            raise Mismatch(f"{path}: {missing} missing")

    def _additionalProperties(self, wanted, value, schema, _name, path):
        if wanted is not False:
            raise Mismatch("only a closed object is known here")
        extra = sorted(set(value) - set(schema["properties"])) if isinstance(value, dict) else []
        if extra:
            raise Mismatch(f"{path}: {extra} not described")

    def _items(self, wanted, value, _schema, name, path):
        for index, item in enumerate(value if isinstance(value, list) else []):
            self._check(wanted, item, name, f"{path}[{index}]")

    def _uniqueItems(self, wanted, value, _schema, _name, path):
        texts = [json.dumps(item, sort_keys=True) for item in value]
        if wanted and len(texts) != len(set(texts)):
            raise Mismatch(f"{path}: something is there twice")

    def _enum(self, wanted, value, _schema, _name, path):
        if value not in wanted:
            raise Mismatch(f"{path}: {value!r} is none of {wanted}")

    def _const(self, wanted, value, _schema, _name, path):
        if value != wanted or isinstance(value, bool) != isinstance(wanted, bool):
            raise Mismatch(f"{path}: {value!r} is not {wanted!r}")

    def _minimum(self, wanted, value, _schema, _name, path):
        if value < wanted:
            raise Mismatch(f"{path}: {value} is less than {wanted}")

    def _minLength(self, wanted, value, _schema, _name, path):
        if len(value) < wanted:
            raise Mismatch(f"{path}: {value!r} is too short")

    def _maxLength(self, wanted, value, _schema, _name, path):
        if len(value) > wanted:
            raise Mismatch(f"{path}: {value!r} is too long")

    def _pattern(self, wanted, value, _schema, _name, path):
        if not re.search(wanted, value):
            raise Mismatch(f"{path}: {value!r} does not match {wanted}")

    def _oneOf(self, wanted, value, _schema, name, path):
        reasons = []
        for schema in wanted:
            try:
                self._check(schema, value, name, path)
            except Mismatch as mismatch:
                reasons.append(str(mismatch))
        if len(wanted) - len(reasons) != 1:
            raise Mismatch(f"{path}: {len(wanted) - len(reasons)} of {len(wanted)} forms fit: "
                           + "; ".join(reasons))


def _refuse(constant):
    raise Mismatch(f"{constant} is no JSON")
