# SPDX-License-Identifier: Apache-2.0
"""Prompts as the published chat template makes them, run by Jinja.

The template of the revision qwen3.5 is in tests/data/chat. Of the other revisions only
the differences are known here; they are patched into its text.
"""

import copy
import json
import pathlib

import jinja2
from jinja2.sandbox import ImmutableSandboxedEnvironment

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "data" / "chat"
PUBLISHED = (FOLDER / "qwen3.5-4b.jinja").read_text(encoding="utf-8")


def patched(text, *changes):
    for old, new in changes:
        if text.count(old) != 1:
            raise SystemExit(f"the template has {text.count(old)} times: {old}")
        text = text.replace(old, new)
    return text


HISTORY = "{%- if loop.index0 > ns.last_query_index %}"
THINK_OFF = "{%- if enable_thinking is defined and enable_thinking is false %}"
PLAIN_SYSTEM = "{{- '<|im_start|>system\\n' + content + '<|im_end|>\\n' }}"
IS_JSON = "args_value is mapping or (args_value is sequence and args_value is not string)"

TEMPLATES = {
    "qwen3.5": PUBLISHED,
    "qwen3.5-small": patched(
        PUBLISHED,
        (THINK_OFF, "{%- if not (enable_thinking is defined and enable_thinking is true) %}"),
    ),
    "qwen3.6": patched(
        PUBLISHED,
        (
            HISTORY,
            "{%- if loop.index0 > ns.last_query_index or"
            " (preserve_thinking is defined and preserve_thinking is true) %}",
        ),
    ),
    "qwen3.8": patched(
        PUBLISHED,
        (
            HISTORY,
            "{%- if loop.index0 > ns.last_query_index or"
            " preserve_thinking is undefined or preserve_thinking is true %}",
        ),
        ("{%- if '</think>' in content %}", "{%- if false %}"),
        (PLAIN_SYSTEM, "{%- if content %}" + PLAIN_SYSTEM + "{%- endif %}"),
        (IS_JSON, "args_value is not string"),
    ),
}


def without_empty_thinking(text):
    """The template with think blocks only where there is something in them."""
    at = text.index("loop.index0 > ns.last_query_index")
    end = text.index(" %}", at)
    return text[:at] + "reasoning_content and (" + text[at:end] + ")" + text[end:]


class Refused(Exception):
    """The template's own raise_exception()."""


def environment():
    def raise_exception(message):
        raise Refused(message)

    made = ImmutableSandboxedEnvironment(trim_blocks=True, lstrip_blocks=True)
    made.filters["tojson"] = lambda value: json.dumps(value, ensure_ascii=False)
    made.globals["raise_exception"] = raise_exception
    return made


COMPILED = {}


def compiled(name, omit_empty_thinking):
    key = (name, omit_empty_thinking)
    if key not in COMPILED:
        text = TEMPLATES[name]
        COMPILED[key] = environment().from_string(
            without_empty_thinking(text) if omit_empty_thinking else text
        )
    return COMPILED[key]


def with_parsed_arguments(messages):
    """Clients send arguments as JSON text; programs around the template parse them first."""
    for message in messages:
        for call in message.get("tool_calls") or []:
            function = call.get("function", call)
            if isinstance(function.get("arguments"), str):
                function["arguments"] = json.loads(function["arguments"] or "{}")
    return messages


def joined_system(message):
    content = message.get("content")
    if isinstance(content, list):
        if any("text" not in part for part in content):
            raise Refused("System message cannot contain images or videos.")
        content = "".join(part["text"] for part in content)
    return (content or "").strip()


def with_merged_system(messages):
    def is_system(message):
        return message["role"] in ("system", "developer")

    texts = [joined_system(message) for message in messages if is_system(message)]
    others = [message for message in messages if not is_system(message)]
    if not texts:
        return others
    system = {"role": "system", "content": "\n\n".join(text for text in texts if text)}
    return [system] + others


VARIABLES = ("tools", "enable_thinking", "preserve_thinking", "add_vision_id")


def prompt(request):
    """The prompt of a request, an object as renderRequest() takes it; or Refused."""
    request = copy.deepcopy(request)
    messages = with_parsed_arguments(request["messages"])
    if request.get("merge_system"):
        messages = with_merged_system(messages)
    given = {name: request[name] for name in VARIABLES if request.get(name) is not None}
    given["add_generation_prompt"] = request.get("add_generation_prompt", True)
    name = request.get("chat_template", "qwen3.5")
    template = compiled(name, bool(request.get("omit_empty_thinking")))
    try:
        return template.render(messages=messages, **given)
    except jinja2.exceptions.TemplateError as error:
        raise Refused(f"{type(error).__name__}: {error}") from error
