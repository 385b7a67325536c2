#!/usr/bin/python3
"""Holds the JSON Schemas against the manual, the installed files, and files with mistakes.

usage: schema_test.py SOURCE_TREE INSTALLED_CONFIGURATION
"""
import json
import pathlib
import re
import sys
import unittest

import jsonschema

source = pathlib.Path(sys.argv[1])
installed = pathlib.Path(sys.argv[2])
configuration = json.loads((source / "packaging/schemas/vorl_proxy.schema.json").read_text())
session = json.loads((source / "packaging/schemas/session.schema.json").read_text())
manual = (source / "docs/man/vorl_proxy.json.5.scd").read_text()
types = {"string": str, "integer": int, "boolean": bool, "list of strings": list}


def documented(text):
    """Yields key, type and default (None without one) of each entry of the manual."""
    entry = r"((?:\*[\w:]+\*(?:, )?)+) \(([^()]*)\)"
    # Keys that share one description stand on lines of their own, which "++" joins.
    for keys, facts in re.findall(entry, text.replace(" ++\n", "\n")):
        kind, *rest = facts.split(", ")
        default = next((json.loads(fact[8:]) for fact in rest if fact.startswith("default ")), None)
        for key in re.findall(r"\*([\w:]+)\*", keys):
            yield key, types[kind], default


class Schemas(unittest.TestCase):
    def test_manual(self):
        keys, session_keys = manual.split("# SESSION DESCRIPTION")
        for schema, text in ((configuration, keys), (session, session_keys)):
            properties = schema["properties"]
            entries = list(documented(text))
            self.assertEqual({key for key, _, _ in entries}, set(properties))
            for key, kind, default in entries:
                if kind is not list:  # the manual has that default in a block of its own
                    self.assertEqual(properties[key].get("default"), default, key)
                if default is not None:
                    self.assertIs(type(default), kind, key)
        self.assertIn(json.dumps(configuration["properties"]["x11rdp:args"]["default"]), manual)

    def test_defaults_and_what_is_installed_are_right(self):
        for schema in (configuration, session):
            for key, rule in schema["properties"].items():
                if "default" in rule:
                    jsonschema.validate(rule["default"], rule)
        jsonschema.validate(json.loads(installed.read_text()), configuration)
        example = json.loads((source / "packaging/examples/session.json").read_text())
        jsonschema.validate(example, session)
        for block in re.findall(r"```\n(\{.*?\n\})\n```", manual, re.S):
            text = json.loads(block)
            jsonschema.validate(text, session if "display" in text else configuration)

    def test_mistakes_are_found(self):
        good = json.loads(installed.read_text())
        for mistake in (
            {"listen:adr": "127.0.0.1"},
            {"listen:port": "3389"},
            {"listen:port": 65536},
            {"listen:addr": "localhost"},
            {"listen:addr": "::1"},
            {"listen:timeout": None},
            {"debug:level": "verbose"},
            {"tcp:keepalive:enable": "yes"},
            {"x11rdp:args": "/ipc-socket:%{socket}"},
            {"x11rdp:args": ["/ipc-socket:/run/socket"]},
        ):
            self.assertFalse(valid({**good, **mistake}, configuration), mistake)
        alice = json.loads((source / "packaging/examples/session.json").read_text())
        for mistake in (
            {"display": ":10"},
            {"sec:nla": False},
            {"sec:auth": False},  # with "sec:nla": FreeRDP 3 refuses every client
            {"ntlm": ""},
            {"ntlm": "secret"},
            {"password": "secret"},
        ):
            self.assertFalse(valid({**alice, **mistake}, session), mistake)


def valid(text, schema):
    return not list(jsonschema.Draft7Validator(schema).iter_errors(text))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
