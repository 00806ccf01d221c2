# SPDX-License-Identifier: Apache-2.0
"""The sources against what they have to fit: Python 3.9, the library's interface, the version."""

import ast
import ctypes
import re
import xml.etree.ElementTree as xml
from pathlib import Path

import pytest

import zem
from zem import _library

PROJECT = Path(__file__).resolve().parents[2]
SOURCES = sorted((PROJECT / "python/zem").glob("*.py"))
INTERFACE = xml.parse(PROJECT / "libzem/abi/libzem.abi").getroot()
RECORDS = {
    "zem_engine_options": _library.EngineOptions,
    "zem_description": _library.DescriptionRecord,
    "zem_statistics": _library.StatisticsRecord,
    "zem_likelihood": _library.LikelihoodRecord,
    "zem_usage": _library.UsageRecord,
    "zem_event": _library.EventRecord,
    "zem_delivery": _library.DeliveryRecord,
    "zem_completion": _library.CompletionRecord,
}


def parse(text):
    return ast.parse(text, feature_version=(3, 9))


@pytest.mark.parametrize("path", SOURCES, ids=lambda path: path.name)
def test_source_is_python_3_9(path):
    tree = parse(path.read_text())
    # Annotations are not evaluated, so that they may be of later versions.
    assert any(isinstance(node, ast.ImportFrom) and node.module == "__future__"
               for node in tree.body) or path.name == "__init__.py"


def test_later_syntax_is_noticed():
    with pytest.raises(SyntaxError):
        parse("match 1:\n  case 1: pass\n")


@pytest.mark.parametrize("name", RECORDS)
def test_record_is_laid_out_as_in_c(name):
    found = INTERFACE.find(f".//class-decl[@name='{name}']")
    fields = {member.find("var-decl").get("name"): int(member.get("layout-offset-in-bits")) // 8
              for member in found.iter("data-member")}
    record = RECORDS[name]
    assert {field: getattr(record, field).offset for field, _ in record._fields_} == fields
    assert ctypes.sizeof(record) * 8 == int(found.get("size-in-bits"))


def test_functions_have_the_parameters_of_c():
    functions = {function.get("name"): len(function.findall("parameter"))
                 for function in INTERFACE.iter("function-decl")}
    assert functions.keys() >= _library._FUNCTIONS.keys()
    for name, arguments in _library._FUNCTIONS.items():
        assert len(arguments) == functions[name], name


def test_version_is_that_of_the_library():
    stated = re.search(r'^version = "(.*)"$', (PROJECT / "python/pyproject.toml").read_text(), re.M)
    assert zem.__version__ == zem.library_version() == stated[1]
