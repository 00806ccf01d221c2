# SPDX-License-Identifier: Apache-2.0
import gc
import threading

import pytest

import zem
from conftest import ENDLESS, USER


def test_description_is_that_of_the_model(model):
    description = model.description
    assert description.layers == 8
    assert description.vocabulary == 263
    assert description.context == 4096
    assert description.tokenizer == "exact"
    assert description.chat_format == "qwen3.5"


def test_options_reach_the_engine(path):
    with zem.Model(path, threads=1, context=100, chat_format="qwen3.6", math="fast",
                   cache_numbers="float") as model:
        assert model.description.context == 100
        assert model.description.chat_format == "qwen3.6"


def test_version_is_that_of_the_library():
    assert zem.__version__ == zem.library_version()


def test_text_becomes_ids_and_ids_text(model):
    assert model.tokenize("aé") == [97, 0xC3, 0xA9]
    assert model.detokenize([97, 0xC3, 0xA9]) == "aé"
    assert model.tokenize("") == []
    assert model.detokenize([]) == ""
    assert model.tokenize("<|im_end|>", special=True) == [258]
    assert len(model.tokenize("<|im_end|>")) == 10
    assert model.detokenize([258]) == ""
    assert model.detokenize([258], special=True) == "<|im_end|>"
    assert model.detokenize([0xC3]) == "\N{REPLACEMENT CHARACTER}"
    assert model.tokenize("a\0b") == [97, 0, 98]


def test_prompt_of_a_chat(model):
    prompt = model.render(USER, enable_thinking=False)
    assert prompt.text == ("<|im_start|>user\nHi<|im_end|>\n"
                           "<|im_start|>assistant\n<think>\n\n</think>\n\n")
    assert model.detokenize(prompt.ids, special=True) == prompt.text


def test_same_request_gives_the_same_reply(model):
    replies = [model.complete("Once", max_tokens=20, **ENDLESS) for _ in range(2)]
    assert replies[0].content == replies[1].content
    assert replies[0].end_reason == "length"
    assert replies[0].usage.generated_tokens == 20
    assert replies[0].usage.prompt_tokens == 4


def test_ids_and_their_text_give_the_same_reply(model):
    ids = model.tokenize("Once")
    settings = {"max_tokens": 10, **ENDLESS}
    assert model.complete(ids, **settings).content == model.complete("Once", **settings).content


def test_pieces_of_a_stream_are_the_reply(model):
    stream = model.complete("Once", stream=True, max_tokens=20, **ENDLESS)
    pieces = list(stream)
    assert {event.kind for event in pieces} == {"content"}
    assert "".join(event.text for event in pieces) == stream.reply.content
    assert stream.reply.content == model.complete("Once", max_tokens=20, **ENDLESS).content
    assert len(stream.tokens()) == 24


def test_thinking_separates_reasoning_from_content(model):
    thinks = model.chat(USER, enable_thinking=True, max_tokens=10, **ENDLESS)
    assert thinks.reasoning and not thinks.content
    assert thinks.usage.reasoning_tokens > 0
    answers = model.chat(USER, enable_thinking=False, max_tokens=10, **ENDLESS)
    assert answers.content and not answers.reasoning


def test_required_call_comes_as_a_call(model):
    tools = [{"type": "function", "function": {"name": "paint", "parameters": {
        "type": "object", "properties": {"colour": {"enum": ["red"]}}, "required": ["colour"]}}}]
    reply = model.chat(USER, tools=tools, tool_choice="required", parallel_tool_calls=False,
                       enable_thinking=False, max_tokens=300, seed=1)
    assert [(call.name, call.arguments, call.complete) for call in reply.calls] == [
        ("paint", {"colour": "red"}, True)]
    # The reply goes back into the conversation as it is.
    text = model.render([*USER, reply.message(), {"role": "tool", "content": "done"}],
                        tools=tools).text
    assert "<parameter=colour>\nred\n</parameter>" in text


def test_tokens_and_prompt_are_told_when_asked_for(model):
    stream = model.complete("Once upon", stream=True, max_tokens=5, logprobs=True, top_logprobs=3,
                            tell_prompt=True, **ENDLESS)
    events = list(stream)
    assert [event.done for event in events if event.kind == "prompt"][-1] == 9
    assert len(stream.reply.tokens) == 5
    for token in stream.reply.tokens:
        assert len(token.likeliest) == 3
        assert token.log_probability <= token.likeliest[0].log_probability
        assert token.data == bytes([token.token])


def test_wrong_requests_name_the_field(model):
    with pytest.raises(zem.RequestError, match='"temprature": is no member'):
        model.chat(USER, temprature=1)
    with pytest.raises(zem.RequestError, match="top_p: found \"much\", expected a number"):
        model.complete("a", top_p="much")
    with pytest.raises(zem.RequestError, match="messages"):
        model.chat([{"role": "stranger", "content": "Hi"}])
    with pytest.raises(ValueError, match=r"ids\[1\]"):
        model.complete([1, -1])
    with pytest.raises(zem.RequestError, match="empty"):
        model.complete([])
    with pytest.raises(zem.RequestError, match=r"ids\[0\]: found 5000"):
        model.detokenize([5000])
    with pytest.raises(TypeError):
        model.complete(5)


def test_files_that_are_no_models_are_told(tmp_path):
    with pytest.raises(zem.ModelFileError, match="No such file"):
        zem.Model(tmp_path / "nothing.zem")
    other = tmp_path / "other.zem"
    other.write_bytes(b"x" * 500)
    with pytest.raises(zem.FileFormatError, match="other.zem"):
        zem.Model(other)
    with pytest.raises(ValueError, match="math: found 'quick'"):
        zem.Model(other, math="quick")


def test_closed_model_is_an_error(path):
    model = zem.Model(path, threads=1)
    model.close()
    model.close()
    with pytest.raises(zem.ClosedError):
        model.tokenize("a")


def test_closing_a_model_ends_its_replies(path):
    model = zem.Model(path, threads=1)
    stream = model.complete("Once", stream=True, **ENDLESS)
    next(stream)
    model.close()
    assert stream.read().end_reason == "cancelled"


def test_stream_keeps_its_model_open(path):
    stream = zem.Model(path, threads=1).complete("Once", stream=True, max_tokens=5, **ENDLESS)
    gc.collect()
    assert stream.read().end_reason == "length"


def test_stream_that_is_dropped_ends_its_reply(model):
    stream = model.complete("Once", stream=True, **ENDLESS)
    next(stream)
    del stream
    gc.collect()
    while model.statistics.running:
        pass


def test_cancel_from_another_thread(model):
    stream = model.complete("Once", stream=True, **ENDLESS)
    threading.Timer(0.05, stream.cancel).start()
    assert stream.read().end_reason == "cancelled"
    stream.cancel()
    stream.close()


def test_closed_stream_is_an_error(model):
    with model.complete("Once", stream=True, **ENDLESS) as stream:
        next(stream)
    with pytest.raises(zem.ClosedError):
        next(stream)


def test_reply_that_is_not_read_fails_when_its_queue_is_full(model):
    stream = model.complete("Once", stream=True, tell_tokens=True, queue_bytes=2000, **ENDLESS)
    while model.statistics.requests == 0:
        pass
    with pytest.raises(zem.ReplyError, match="full with 2000 bytes"):
        stream.read()


def test_too_many_requests_are_refused(path):
    with zem.Model(path, threads=1, sequences=1, waiting=0) as model:
        with model.complete("a", stream=True, **ENDLESS):
            with pytest.raises(zem.QueueFullError):
                model.complete("a")


def test_several_threads_get_the_replies_of_one(model):
    prompts = [f"Tale {number}" for number in range(6)]
    want = [model.complete(prompt, max_tokens=10, **ENDLESS).content for prompt in prompts]
    got = [None] * len(prompts)

    def ask(at):
        got[at] = model.complete(prompts[at], max_tokens=10, **ENDLESS).content

    threads = [threading.Thread(target=ask, args=(at,)) for at in range(len(prompts))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert got == want
