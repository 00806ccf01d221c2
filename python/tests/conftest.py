# SPDX-License-Identifier: Apache-2.0
"""A small model with random weights; CTest names its file and the library's."""

import os

import pytest

import zem

# The tokens that end a reply never come.
ENDLESS = {"logit_bias": {"256": -100, "258": -100}, "seed": 3}
USER = [{"role": "user", "content": "Hi"}]


@pytest.fixture(scope="session")
def path():
    return os.environ["ZEM_TEST_MODEL"]


@pytest.fixture
def model(path):
    with zem.Model(path, threads=1) as opened:
        yield opened
