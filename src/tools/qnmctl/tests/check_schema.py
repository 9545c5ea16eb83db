#!/usr/bin/env python3
"""Checks what qnmctl told in JSON against its schema.

  usage: check_schema.py SCHEMA FILE...     *.json: one document, *.jsonl: a record a line

Every record is then spoilt in several ways, and has to be refused each time: a schema that
lets everything through finds nothing.
"""
import copy
import json
import sys

import jsonschema


# Members that a record may lack: of a frame, fields that were not captured; of a dump, the results of
# a call, of which the golden file has one. All other members are required.
OPTIONAL = {
    "event": {"card", "changes", "why"},
    "frame": {"fields."},
    "result": {"addr", "value", "mask", "vlan_id", "status", "page", "verified"},
    "stats": {"calls", "calls.qnm_get_qnsvids"},
}


def without_a_member(value, path=""):
    """The value less one member of it, or of an object or the first of a list within; and which."""
    if isinstance(value, list):
        for less, name in without_a_member(value[0], path) if value else ():
            yield [less, *value[1:]], name
    elif isinstance(value, dict):
        for key, inner in value.items():
            yield {other: kept for other, kept in value.items() if other != key}, path + key
            for less, name in without_a_member(inner, f"{path}{key}."):
                yield {**value, key: less}, name


def is_optional(record, name):
    return any(
        name == one or one.endswith(".") and name.startswith(one)
        for one in OPTIONAL.get(record["record"], ())
    )


def spoilt(record):
    """What no longer is the record it was."""
    yield {**record, "surplus": 1}
    yield {**record, "record": "unheard-of"}
    for name, value in record.items():
        if name != "record":
            yield {**record, name: {"of": "another type"}}
        if name == "id" and value is not None:
            yield {**record, name: int(value, 16)}
    for less, name in without_a_member(record):
        if not is_optional(record, name):
            yield less


def fits_one(validator, branches, instance, schema):
    """What oneOf means, told without the reasons: a branch that does not fit is left at its first error.
    With them each spoilt record would be compared with all that every kind of record has."""
    fitting = sum(next(validator.descend(instance, one), None) is None for one in branches)
    if fitting != 1:
        yield jsonschema.ValidationError(f"fits {fitting} of {len(branches)}")


Refuser = jsonschema.validators.extend(jsonschema.Draft202012Validator, {"oneOf": fits_one})


def check(path, document, record):
    """The number of records in the file."""
    with open(path, encoding="utf-8") as file:
        if path.endswith(".jsonl"):
            schema, told = record.schema, [json.loads(line) for line in file]
            for one in told:
                record.validate(one)
        else:
            schema, whole = document.schema, json.load(file)
            document.validate(whole)
            told = whole["records"]
    refuser = Refuser(schema)
    for one in told:
        for wrong in spoilt(one):
            tried = wrong if path.endswith(".jsonl") else {**whole, "records": [wrong]}
            if refuser.is_valid(tried):
                raise ValueError(f"the schema does not refuse {json.dumps(wrong)}")
    if not path.endswith(".jsonl"):
        for name in whole:
            less = copy.deepcopy(whole)
            del less[name]
            if document.is_valid(less):
                raise ValueError(f"the schema does not miss {name}")
    return len(told)


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    document = jsonschema.Draft202012Validator(schema)
    line = {"$defs": schema["$defs"], "$ref": "#/$defs/line"}
    record = jsonschema.Draft202012Validator(line)
    count = 0
    for path in sys.argv[2:]:
        try:
            count += check(path, document, record)
        except (ValueError, jsonschema.ValidationError) as wrong:
            sys.exit(f"{path}: {wrong}")
    if count == 0:
        sys.exit("no record was checked")
    print(f"{len(sys.argv) - 2} files, {count} records")


if __name__ == "__main__":
    main()
