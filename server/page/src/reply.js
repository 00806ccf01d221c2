// SPDX-License-Identifier: Apache-2.0
// A reply grows by the chunks of a stream.

/** Adds what the chunk brings. */
export function applyChunk(reply, chunk) {
  if (typeof chunk.model === "string") reply.model = chunk.model;
  if (chunk.prompt_progress) reply.progress = chunk.prompt_progress;
  const choice = chunk.choices?.[0];
  if (choice?.delta) applyDelta(reply, choice.delta);
  if (choice?.finish_reason) reply.finish = choice.finish_reason;
  addFigures(reply, chunk);
}

function applyDelta(reply, delta) {
  const reasoning = delta.reasoning_content ?? delta.reasoning;
  if (reasoning) {
    reply.progress = null;
    reply.thinkingSince ??= Date.now();
    reply.reasoning += reasoning;
  }
  if (delta.content || delta.tool_calls?.length) {
    reply.progress = null;
    endThinking(reply);
  }
  if (delta.content) reply.text += delta.content;
  for (const part of delta.tool_calls ?? []) addCallPart(reply.calls, part);
}

/** Notes how long the thinking took. */
export function endThinking(reply) {
  if (!reply.thinkingSince) return;
  reply.thinkingMs = (reply.thinkingMs ?? 0) + Date.now() - reply.thinkingSince;
  reply.thinkingSince = null;
}

function addCallPart(calls, part) {
  let call = calls.find((known) => known.index === part.index);
  if (!call) {
    call = { index: part.index, id: "", name: "", arguments: "" };
    calls.push(call);
  }
  if (part.id) call.id = part.id;
  if (part.function?.name) call.name = part.function.name;
  if (part.function?.arguments) call.arguments += part.function.arguments;
}

function addFigures(reply, chunk) {
  const { usage, timings } = chunk;
  if (!usage && !timings) return;
  const figures = (reply.figures ??= {});
  if (usage) {
    figures.tokens = (reply.earlierTokens ?? 0) + usage.completion_tokens;
    figures.context = usage.prompt_tokens + usage.completion_tokens;
    figures.reused = usage.prompt_tokens_details?.cached_tokens ?? figures.reused;
  }
  if (timings) {
    figures.perSecond = timings.predicted_per_second;
    figures.reused ??= timings.cache_n;
    figures.tokens ??= timings.predicted_n;
  }
}

/** True when the reply has something that is worth keeping. */
export function hasContent(reply) {
  return reply.text !== "" || reply.reasoning !== "" || reply.calls.length > 0;
}
