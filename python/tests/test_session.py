# SPDX-License-Identifier: Apache-2.0
import json

import pytest

import zem
from conftest import ENDLESS

SETTINGS = {"max_tokens": 8, "enable_thinking": False, **ENDLESS}


def test_turns_become_messages(model):
    session = zem.Session(model, system="Be brief", **SETTINGS)
    reply = session.send("Hi")
    assert [message["role"] for message in session.messages] == ["system", "user", "assistant"]
    assert session.messages[-1]["content"] == reply.content
    assert session.send("And?").usage.reused_tokens > 0


def test_saved_session_goes_on_in_another_model(model, path, tmp_path):
    session = zem.Session(model, **SETTINGS)
    session.send("Tell me a long tale of the sea")
    session.save(tmp_path / "talk")
    want = session.send("And then?").content
    with zem.Model(path, threads=1) as other:
        restored = zem.Session.restore(other, tmp_path / "talk")
        reply = restored.send("And then?")
        assert reply.content == want
        assert reply.usage.reused_tokens > 20
        assert restored.messages == session.messages


def test_session_without_a_state_goes_on_too(model, path, tmp_path):
    session = zem.Session(model, **SETTINGS)
    session.send("Tell me a long tale of the sea")
    session.save(tmp_path / "talk")
    (tmp_path / "talk.state").unlink()
    with zem.Model(path, threads=1) as other:
        restored = zem.Session.restore(other, tmp_path / "talk")
        assert restored.send("So?").content == session.send("So?").content


def test_session_without_turns_can_be_saved(model, tmp_path):
    zem.Session(model, system="Be brief").save(tmp_path / "talk")
    assert zem.Session.restore(model, tmp_path / "talk").messages == [
        {"role": "system", "content": "Be brief"}]


def test_turn_that_fails_leaves_the_messages(model):
    session = zem.Session(model, **SETTINGS)
    with pytest.raises(zem.RequestError):
        session.send("Hi", temperature="hot")
    assert session.messages == []
    events = session.stream("Hi")
    next(events)
    events.close()
    assert session.messages == []


def test_files_that_are_no_sessions_are_told(model, tmp_path):
    other = tmp_path / "other"
    for content in ["{", "[]", "{}", json.dumps({"format": "zem session 9"})]:
        other.write_text(content)
        with pytest.raises(zem.ZemError, match="is not a saved session"):
            zem.Session.restore(model, other)
    session = zem.Session(model)
    session.save(other)
    (tmp_path / "other.state").write_bytes(b"damaged")
    with pytest.raises(zem.FileFormatError):
        zem.Session.restore(model, other)
    with pytest.raises(OSError):
        zem.Session.restore(model, tmp_path / "missing")
