"""Whether what a host answered is what its documents' schemas say. What comes from a host may be anything.

Keys that the schemas do not know are let through: the host may have a newer zddevices than the controller.
"""
from __future__ import annotations

import json
import os

import jsonschema

SCHEMAS = {"inventory": "zddevices-1", "firmware": "zddevices-firmware-1", "optical": "zddevices-optical-1"}
DIRECTORY = os.path.join(os.path.dirname(__file__), "..", "..", "schemas")

# Some hundred thousand devices' worth. One host's answer must not fill the file and the page of all hosts.
SIZE_LIMIT = 16 << 20

PROBLEMS = {
    "type": "array",
    "items": {
        "type": "object",
        "required": ["reason", "document", "message"],
        "properties": {
            "reason": {"enum": ["time_limit", "not_root", "not_installed", "device", "error"]},
            "document": {"enum": [*SCHEMAS, None]},
            "message": {"type": "string"},
        },
    },
}


def opened(schema):
    """The schema without its refusal of other keys."""
    if isinstance(schema, dict):
        return {key: opened(value) for key, value in schema.items() if (key, value) != ("additionalProperties", False)}
    if isinstance(schema, list):
        return [opened(one) for one in schema]
    return schema


def read_schema(name):
    with open(os.path.join(DIRECTORY, name + ".schema.json"), encoding="utf-8") as file:
        return opened(json.load(file))


def is_integer(_, value):
    return isinstance(value, int) and not isinstance(value, bool)


# By itself jsonschema takes 4.0 for an integer. Programs that read the merged file do not.
TYPES = jsonschema.Draft202012Validator.TYPE_CHECKER.redefine("integer", is_integer)
Validator = jsonschema.validators.extend(jsonschema.Draft202012Validator, type_checker=TYPES)

# Made once, in Ansible's main process; the processes that ask the hosts are forks of it.
VALIDATORS = {name: Validator(read_schema(schema)) for name, schema in SCHEMAS.items()}
VALIDATORS["problems"] = Validator(PROBLEMS)


def compact(value):
    return json.dumps(value, separators=(",", ":"), allow_nan=False)


def bounded(digits):
    if not -(1 << 63) <= int(digits) < 1 << 64:
        raise ValueError("%.20s... is no number of 64 bits" % digits)


def complaint(fact):
    """The part of a fact that is not as it should be and what is wrong with it, or None."""
    part = None
    try:
        text = compact(fact)
        size = len(text)
        if size > SIZE_LIMIT:
            return None, "the fact has %d bytes, more than the %d that are taken of a host" % (size, SIZE_LIMIT)
        # One such number or half of a character, also in a key that nobody knows, and no program in C++ would read the
        # file of all hosts.
        json.loads(text, parse_int=bounded)
        json.dumps(fact, ensure_ascii=False).encode()
        for part, validator in VALIDATORS.items():
            value = fact.get(part, [] if part == "problems" else None)
            error = None if value is None else next(validator.iter_errors(value), None)
            if error:
                place = "/".join(str(step) for step in (part, *error.absolute_path))
                return part, "%s: %s" % (place, error.message)
    except (RecursionError, ValueError) as error:
        # Nested deeper than Python can go, or no number that JSON has.
        return part, str(error)
    return None
