// SPDX-License-Identifier: Apache-2.0
// Talking to the server. Every failure is an ApiError.
import { eventsOf } from "./sse.js";

/**
 * kind:
 *   "key"      the API key is missing or wrong
 *   "busy"     the queue is full, or the model is being loaded; `wait` says for how many ms
 *   "context"  the chat is longer than the context
 *   "refused"  the request will never do
 *   "server"   the server failed
 *   "gone"     no connection
 *   "cut"      the stream ended before the reply did
 */
export class ApiError extends Error {
  constructor(kind, message, more = {}) {
    super(message);
    this.kind = kind;
    Object.assign(this, more);
  }
}

function waitOf(headers) {
  const ms = Number(headers.get("retry-after-ms") ?? NaN);
  if (Number.isFinite(ms)) return Math.max(0, ms);
  const text = headers.get("retry-after");
  if (!text) return null;
  const seconds = Number(text);
  const wait = Number.isFinite(seconds) ? seconds * 1000 : Date.parse(text) - Date.now();
  return Number.isFinite(wait) ? Math.max(0, wait) : null;
}

function isContext(error) {
  return /context/.test(error.code ?? "") || /context/.test(error.type ?? "") ||
    /\bcontext\b.*\btokens?\b|\btokens?\b.*\bcontext\b/i.test(error.message ?? "");
}

function kindOf(status, error) {
  if (status === 401 || (status === 403 && /\bkey\b/i.test(error.message ?? ""))) return "key";
  if (status === 429 || status === 503) return "busy";
  if ((status === 400 || status === 413) && isContext(error)) return "context";
  return status >= 500 ? "server" : "refused";
}

async function errorOf(response) {
  let error = {};
  try {
    const body = await response.json();
    error = typeof body?.error === "string" ? { message: body.error } : (body?.error ?? {});
  } catch {
    // Not from the server itself, but from something between it and this page.
  }
  const message = typeof error.message === "string" && error.message
    ? error.message
    : `The server answered ${response.status} ${response.statusText}`.trim();
  return new ApiError(kindOf(response.status, error), message, {
    status: response.status,
    wait: waitOf(response.headers),
  });
}

async function request(path, { key, ...options } = {}) {
  const headers = { ...options.headers };
  if (key) headers.authorization = `Bearer ${key}`;
  let response;
  try {
    response = await fetch(path, { cache: "no-store", ...options, headers });
  } catch (error) {
    if (options.signal?.aborted) throw error;
    throw new ApiError("gone", "The server does not answer.");
  }
  if (!response.ok) throw await errorOf(response);
  return response;
}

/** The models that the server offers: [{ id, context }]. */
export async function fetchModels(key) {
  const response = await request("v1/models", { key });
  let models;
  try {
    models = (await response.json()).data;
  } catch {
    models = null;
  }
  if (!Array.isArray(models)) throw new ApiError("server", "The server's list of models cannot be read.");
  return models
    .filter((model) => typeof model?.id === "string")
    .map((model) => ({ id: model.id, context: contextOf(model) }));
}

function contextOf(model) {
  const length = Number(model.context_length ?? model.meta?.n_ctx ?? NaN);
  return length > 0 ? length : null;
}

/** True when the server is there and can take a request. */
export async function isHealthy() {
  try {
    return (await fetch("health", { cache: "no-store" })).ok;
  } catch {
    return false;
  }
}

/** The chunks of a reply, until its end. */
export async function* streamChat(body, { key, signal }) {
  const response = await request("v1/chat/completions", {
    key,
    signal,
    method: "POST",
    headers: { "content-type": "application/json" },
    body: JSON.stringify(body),
  });
  try {
    for await (const data of eventsOf(response.body)) {
      if (data === "[DONE]") return;
      const chunk = readChunk(data);
      if (chunk.error) {
        const message = chunk.error.message ?? String(chunk.error);
        throw new ApiError(kindOf(Number(chunk.error.status ?? 500), chunk.error), message);
      }
      yield chunk;
    }
  } catch (error) {
    if (error instanceof ApiError || signal.aborted) throw error;
  }
  throw new ApiError("cut", "The connection broke off.");
}

function readChunk(data) {
  try {
    const chunk = JSON.parse(data);
    if (chunk && typeof chunk === "object") return chunk;
  } catch {
    // Below.
  }
  throw new ApiError("server", "The server sent something that is no part of a reply.");
}
