// SPDX-License-Identifier: Apache-2.0
// The layout of every record: hosts are compiled apart from the library, so it is binding.
#include "libzem/records.h"

#include "engine/request.h"

namespace zem::boundary {

static_assert(sizeof(void*) == 8 && sizeof(size_t) == 8, "64-bit targets only");
static_assert(sizeof(zem_code) == 4);
static_assert(sizeof(zem_engine) == 8 && sizeof(zem_request) == 8);

#define ZEM_SIZE(type, size) \
  static_assert(sizeof(type) == (size) && std::is_standard_layout_v<type>)
#define ZEM_AT(type, field, at) static_assert(offsetof(type, field) == (at))

ZEM_SIZE(zem_engine_options, 72);
ZEM_AT(zem_engine_options, struct_size, 0);
ZEM_AT(zem_engine_options, threads, 4);
ZEM_AT(zem_engine_options, cache_numbers, 8);
ZEM_AT(zem_engine_options, math, 12);
ZEM_AT(zem_engine_options, sequences, 16);
ZEM_AT(zem_engine_options, waiting, 24);
ZEM_AT(zem_engine_options, context, 32);
ZEM_AT(zem_engine_options, batch_tokens, 40);
ZEM_AT(zem_engine_options, memory_bytes, 48);
ZEM_AT(zem_engine_options, cache_bytes, 56);
ZEM_AT(zem_engine_options, chat_format, 64);

ZEM_SIZE(zem_description, 88);
ZEM_AT(zem_description, struct_size, 0);
ZEM_AT(zem_description, layers, 4);
ZEM_AT(zem_description, width, 8);
ZEM_AT(zem_description, vocabulary, 12);
ZEM_AT(zem_description, parameters, 16);
ZEM_AT(zem_description, weight_bytes, 24);
ZEM_AT(zem_description, trained, 32);
ZEM_AT(zem_description, context, 40);
ZEM_AT(zem_description, state_bytes, 48);
ZEM_AT(zem_description, position_bytes, 56);
ZEM_AT(zem_description, name, 64);
ZEM_AT(zem_description, tokenizer, 72);
ZEM_AT(zem_description, chat_format, 80);

ZEM_SIZE(zem_statistics, 72);
ZEM_AT(zem_statistics, struct_size, 0);
ZEM_AT(zem_statistics, reserved, 4);
ZEM_AT(zem_statistics, running, 8);
ZEM_AT(zem_statistics, waiting, 16);
ZEM_AT(zem_statistics, kept_states, 24);
ZEM_AT(zem_statistics, kept_bytes, 32);
ZEM_AT(zem_statistics, requests, 40);
ZEM_AT(zem_statistics, prompt_tokens, 48);
ZEM_AT(zem_statistics, reused_tokens, 56);
ZEM_AT(zem_statistics, generated_tokens, 64);

ZEM_SIZE(zem_likelihood, 16);
ZEM_AT(zem_likelihood, token, 0);
ZEM_AT(zem_likelihood, reserved, 4);
ZEM_AT(zem_likelihood, log_probability, 8);

ZEM_SIZE(zem_usage, 56);
ZEM_AT(zem_usage, prompt_tokens, 0);
ZEM_AT(zem_usage, reused_tokens, 8);
ZEM_AT(zem_usage, generated_tokens, 16);
ZEM_AT(zem_usage, reasoning_tokens, 24);
ZEM_AT(zem_usage, waited_seconds, 32);
ZEM_AT(zem_usage, prompt_seconds, 40);
ZEM_AT(zem_usage, generate_seconds, 48);

ZEM_SIZE(zem_event, 136);
ZEM_AT(zem_event, struct_size, 0);
ZEM_AT(zem_event, kind, 4);
ZEM_AT(zem_event, text, 8);
ZEM_AT(zem_event, text_size, 16);
ZEM_AT(zem_event, token, 24);
ZEM_AT(zem_event, call, 28);
ZEM_AT(zem_event, complete, 32);
ZEM_AT(zem_event, end_reason, 36);
ZEM_AT(zem_event, stop_text, 40);
ZEM_AT(zem_event, likely_count, 44);
ZEM_AT(zem_event, log_probability, 48);
ZEM_AT(zem_event, likeliest, 56);
ZEM_AT(zem_event, done, 64);
ZEM_AT(zem_event, total, 72);
ZEM_AT(zem_event, usage, 80);

ZEM_SIZE(zem_delivery, 32);
ZEM_AT(zem_delivery, struct_size, 0);
ZEM_AT(zem_delivery, flags, 4);
ZEM_AT(zem_delivery, callback, 8);
ZEM_AT(zem_delivery, user, 16);
ZEM_AT(zem_delivery, queue_bytes, 24);

ZEM_SIZE(zem_completion, 48);
ZEM_AT(zem_completion, struct_size, 0);
ZEM_AT(zem_completion, flags, 4);
ZEM_AT(zem_completion, prompt, 8);
ZEM_AT(zem_completion, prompt_size, 16);
ZEM_AT(zem_completion, ids, 24);
ZEM_AT(zem_completion, id_count, 32);
ZEM_AT(zem_completion, settings, 40);

#undef ZEM_AT
#undef ZEM_SIZE

// The engine's numbers are the interface's.
static_assert(static_cast<int>(EndReason::Stop) == ZEM_END_STOP);
static_assert(static_cast<int>(EndReason::StopText) == ZEM_END_STOP_TEXT);
static_assert(static_cast<int>(EndReason::Length) == ZEM_END_LENGTH);
static_assert(static_cast<int>(EndReason::Context) == ZEM_END_CONTEXT);
static_assert(static_cast<int>(EndReason::Cancelled) == ZEM_END_CANCELLED);
static_assert(static_cast<int>(EndReason::Error) == ZEM_END_ERROR);

}  // namespace zem::boundary
