// SPDX-License-Identifier: Apache-2.0
// What the page asks of the server: the body of a chat completion.
import { samplingFields } from "./sampling.js";
import { hasContent } from "./reply.js";

const kContinue = "Your last reply was cut off. Continue exactly where it stopped, without repeating any of it.";

function readCall(call) {
  return { id: call.id, type: "function", function: { name: call.name, arguments: call.arguments } };
}

function messageOf(message) {
  if (message.role === "tool") {
    return { role: "tool", tool_call_id: message.call, name: message.name, content: message.text };
  }
  if (message.role !== "assistant") return { role: "user", content: message.text };
  const reply = { role: "assistant", content: message.text };
  if (message.reasoning) reply.reasoning_content = message.reasoning;
  if (message.calls.length > 0) reply.tool_calls = message.calls.map(readCall);
  return reply;
}

/**
 * `path` leads to the reply that is wanted, and ends with it. `continuing`: the reply has text
 * already, and more of it is wanted.
 */
export function chatRequest({ path, system, model, settings, continuing = false }) {
  const earlier = path.slice(0, -1).filter((message) => message.role !== "assistant" || hasContent(message));
  const messages = earlier.map(messageOf);
  if (system?.trim()) messages.unshift({ role: "system", content: system });
  if (continuing) {
    messages.push({ role: "assistant", content: path.at(-1).text }, { role: "user", content: kContinue });
  }

  const body = {
    model: model ?? "",
    messages,
    stream: true,
    stream_options: { include_usage: true },
    return_progress: true,
    ...samplingFields(settings),
  };
  // The thinking of a reply that has begun to answer is over.
  const thinking = continuing ? "off" : settings.thinking;
  if (thinking === "on" || thinking === "off") body.chat_template_kwargs = { enable_thinking: thinking === "on" };
  const tools = readTools(settings.tools);
  if (tools.length > 0) body.tools = tools;
  return body;
}

/** The list of tools that the text holds; throws a sentence for the user. */
export function readTools(text) {
  if (!text?.trim()) return [];
  let tools;
  try {
    tools = JSON.parse(text);
  } catch (error) {
    throw new Error(`The tools are not JSON: ${error.message}`);
  }
  if (!Array.isArray(tools)) throw new Error("The tools must be a list: [ … ]");
  return tools.map((tool, at) => {
    const definition = tool?.function ?? tool;
    if (typeof definition?.name !== "string") throw new Error(`Tool ${at + 1} has no "name".`);
    return { type: "function", function: definition };
  });
}
