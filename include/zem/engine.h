// SPDX-License-Identifier: Apache-2.0
/** \file
 * The library libzem: replies of a language model, many at once.
 *
 * Plain C11 that also compiles as C++, 64-bit targets only. docs/libzem.md is the guide.
 *
 * Results. Every function that can fail returns a zem_code, ZEM_OK for success. What went
 * wrong stands in zem_last_error(): a text for people, of the calling thread, so that threads
 * do not overwrite each other's and no function needs a place for it. A function that fails
 * leaves its outputs as they were, unless it says otherwise.
 *
 * Handles. A zem_engine or zem_request is a number that the library looks up: nothing lies at
 * that address. A handle that was closed, was never given, or is of the other kind, is the
 * error ZEM_ERROR_HANDLE, however often and wherever it is used. Null is never a handle.
 *
 * Records begin with `struct_size`. The caller sets it to sizeof the record, in outputs too.
 * A record of a newer header is taken as long as the fields that this library does not know
 * are zero. Zero in any other field is the default.
 *
 * Texts are UTF-8. An input has a size in bytes, or ZEM_TERMINATED for one that ends with a NUL,
 * and is not kept. An output goes into a buffer of the caller with room for `capacity` items.
 * Its length is always written, so that a first call with a capacity of 0 (the buffer may then
 * be null) measures; where the room is too small the result is ZEM_ERROR_SPACE, and the buffer
 * stays as it was. No memory changes hands: either side releases what it made.
 *
 * Threads. Every function may be called from any thread, several at the same time with the same
 * handle. Inside a callback some functions are refused, with ZEM_ERROR_CALLBACK: they wait for
 * the thread that calls back. Each says so.
 *
 * Processes. The child of a fork() has no engines and no requests: handles of its parent are
 * ZEM_ERROR_HANDLE there. It may open engines of its own.
 *
 * No C++ exception leaves a function. The code of the library stays mapped until the process ends.
 */
#ifndef ZEM_ENGINE_H
#define ZEM_ENGINE_H

#include <stddef.h>
#include <stdint.h>

/** \def ZEM_API
 * Stands in front of every function of the library. */
#if defined(_WIN32)
#if defined(ZEM_BUILDS_LIBRARY)
#define ZEM_API __declspec(dllexport)
#else
#define ZEM_API __declspec(dllimport)
#endif
#else
#define ZEM_API __attribute__((visibility("default")))
#endif

/** \def ZEM_NOTHROW
 * What C++ is told of the functions; C has no exceptions. */
#ifdef __cplusplus
#define ZEM_NOTHROW noexcept
extern "C" {
#else
#define ZEM_NOTHROW
#endif

/** The version of this interface. It grows with each function or field that is added; what is
 * there never changes its meaning. */
#define ZEM_API_VERSION 1u

/** In place of a text's size: the text ends with a NUL. */
#define ZEM_TERMINATED SIZE_MAX

/** In place of a time in milliseconds: without a limit. */
#define ZEM_FOREVER UINT32_MAX

/** In place of a number of which 0 is the default: none. */
#define ZEM_NONE UINT64_MAX

/** An engine: an open model with a thread that computes. */
typedef struct zem_engine_number* zem_engine;
/** A request: one reply on its way. */
typedef struct zem_request_number* zem_request;

/** How a call ended. */
typedef enum zem_code {
  ZEM_OK = 0,                 /**< success */
  ZEM_ERROR_ARGUMENT = 1,     /**< a null pointer, a wrong struct_size, a value out of range */
  ZEM_ERROR_HANDLE = 2,       /**< a handle that is closed, null or of the other kind */
  ZEM_ERROR_CALLBACK = 3,     /**< not possible inside a callback */
  ZEM_ERROR_BUSY = 4,         /**< something else has to end first */
  ZEM_ERROR_SPACE = 5,        /**< the buffer is too small; the length was written */
  ZEM_ERROR_REQUEST = 6,      /**< the request is wrong; the text names the field */
  ZEM_ERROR_QUEUE = 7,        /**< too many requests wait; later there may be room */
  ZEM_ERROR_FILE = 8,         /**< a file cannot be read or written */
  ZEM_ERROR_FORMAT = 9,       /**< a file is damaged, or not what it should be */
  ZEM_ERROR_UNSUPPORTED = 10, /**< the model or the library lacks what this needs */
  ZEM_ERROR_MEMORY = 11,      /**< out of memory */
  ZEM_ERROR_INTERNAL = 12,    /**< a mistake in the library */
  ZEM_TIMEOUT = 13,           /**< no event came in time */
  ZEM_FINISHED = 14           /**< the last event was taken already */
} zem_code;

/** ZEM_API_VERSION of the library, which may be newer than the header's. */
ZEM_API uint32_t zem_api_version(void) ZEM_NOTHROW;
/** The library's version, "1.2.3". Static. */
ZEM_API const char* zem_version(void) ZEM_NOTHROW;
/** The name of a code, "ZEM_ERROR_ARGUMENT", or "unknown code". Static. */
ZEM_API const char* zem_code_name(int32_t code) ZEM_NOTHROW;
/** What went wrong in the latest call on this thread that returned neither ZEM_OK nor
 * ZEM_TIMEOUT nor ZEM_FINISHED: one line, at most 2047 bytes. Empty when there was none. Valid
 * until the thread's next call that fails. */
ZEM_API const char* zem_last_error(void) ZEM_NOTHROW;

/** \name Engines
 * @{ */

/** What the key/value cache holds: zem_engine_options::cache_numbers. */
enum {
  ZEM_CACHE_HALF = 0, /**< half precision */
  ZEM_CACHE_FLOAT = 1 /**< single precision: twice the memory, and no rounding */
};

/** How matrix products are computed: zem_engine_options::math. Either gives the same bits on every
 * machine. */
enum {
  ZEM_MATH_EXACT = 0, /**< in single precision */
  ZEM_MATH_FAST = 1   /**< with activations of 14 bits, where the weights' type allows */
};

/** How an engine is set up. */
typedef struct zem_engine_options {
  uint32_t struct_size;    /**< sizeof(zem_engine_options) */
  uint32_t threads;        /**< that compute; 0: all processors */
  uint32_t cache_numbers;  /**< ZEM_CACHE_... */
  uint32_t math;           /**< ZEM_MATH_... */
  uint64_t sequences;      /**< requests that run at the same time; 0: 4 */
  uint64_t waiting;        /**< requests that may wait for a place; 0: 64; ZEM_NONE: none */
  uint64_t context;        /**< tokens of prompt and reply together; 0: as the model says */
  uint64_t batch_tokens;   /**< tokens that are computed together; 0: 48 */
  uint64_t memory_bytes;   /**< for requests that run; 0: no limit */
  uint64_t cache_bytes;    /**< for what later requests may reuse; 0: 1 GiB; ZEM_NONE: none */
  const char* chat_format; /**< name of the chat template's revision; null: the model's own */
} zem_engine_options;

/** What a model is. The texts end with a NUL and live as long as the engine is open. */
typedef struct zem_description {
  uint32_t struct_size;    /**< sizeof(zem_description) */
  uint32_t layers;         /**< that the model has */
  uint32_t width;          /**< floats of a token between layers */
  uint32_t vocabulary;     /**< tokens: ids are below it */
  uint64_t parameters;     /**< elements of all tensors */
  uint64_t weight_bytes;   /**< of all tensors, in the mapped file */
  uint64_t trained;        /**< tokens that the model was made for; 0 where it is not stated */
  uint64_t context;        /**< tokens of prompt and reply together, at most */
  uint64_t state_bytes;    /**< memory of a conversation from its first token on */
  uint64_t position_bytes; /**< memory that each of its tokens takes beside them */
  const char* name;        /**< of the file, without folders and ".zem" */
  const char* tokenizer;   /**< "exact": the publisher's; "plain": the container's simple one */
  const char* chat_format; /**< the chat template's revision; empty: chats are not possible */
} zem_description;

/** What an engine does and did. */
typedef struct zem_statistics {
  uint32_t struct_size;      /**< sizeof(zem_statistics) */
  uint32_t reserved;         /**< 0 */
  uint64_t running;          /**< requests that compute now */
  uint64_t waiting;          /**< requests that wait now */
  uint64_t kept_states;      /**< kept for later requests now */
  uint64_t kept_bytes;       /**< memory of them */
  uint64_t requests;         /**< that ended, since the engine was opened, as what follows */
  uint64_t prompt_tokens;    /**< of their prompts */
  uint64_t reused_tokens;    /**< of their prompts, those that were not computed again */
  uint64_t generated_tokens; /**< of their replies */
} zem_statistics;

/** Opens the model file at `path`, which ends with a NUL. `options` may be null: all defaults.
 * `*engine` is the caller's until zem_engine_close(). ZEM_ERROR_FILE, ZEM_ERROR_FORMAT and
 * ZEM_ERROR_UNSUPPORTED tell what is wrong with the file. Reads the file's tables, no weights:
 * takes less than a second.
 */
ZEM_API zem_code zem_engine_open(const char* path, const zem_engine_options* options,
                                 zem_engine* engine) ZEM_NOTHROW;
/** Closes an engine when all its requests have ended: ZEM_ERROR_BUSY, and nothing changes, while
 * one has not; zem_engine_cancel_all() ends them. Events of its requests can still be taken
 * afterwards. Refused inside a callback. */
ZEM_API zem_code zem_engine_close(zem_engine engine) ZEM_NOTHROW;
/** Ends all requests as cancelled and waits until each has its last event. Refused inside a
 * callback. */
ZEM_API zem_code zem_engine_cancel_all(zem_engine engine) ZEM_NOTHROW;
/** Tells what the model is. */
ZEM_API zem_code zem_engine_describe(zem_engine engine, zem_description* out) ZEM_NOTHROW;
/** Tells what the engine does and did, after its latest step. */
ZEM_API zem_code zem_engine_statistics(zem_engine engine, zem_statistics* out) ZEM_NOTHROW;

/** @} */

/** \name Texts and ids
 * @{ */

/** For zem_engine_tokenize() and zem_completion: texts such as "<|im_start|>" are the tokens
 * that they name. Without it they are plain text: right for what users write. */
#define ZEM_SPECIAL_TOKENS 1u

/** The ids of `text`; `flags`: ZEM_SPECIAL_TOKENS or 0. */
ZEM_API zem_code zem_engine_tokenize(zem_engine engine, const char* text, size_t size,
                                     uint32_t flags, uint32_t* ids, size_t capacity,
                                     size_t* length) ZEM_NOTHROW;
/** The bytes that `count` ids stand for, without a NUL. They may begin or end inside a
 * character. `flags`: with ZEM_SPECIAL_TOKENS tokens that steer the model appear by name, else they
 * are left out. ZEM_ERROR_ARGUMENT for an id that the vocabulary does not have. */
ZEM_API zem_code zem_engine_detokenize(zem_engine engine, const uint32_t* ids, size_t count,
                                       uint32_t flags, char* text, size_t capacity,
                                       size_t* length) ZEM_NOTHROW;
/** The prompt of a chat request (see zem_engine_chat()), as text without a NUL and as ids. Either
 * output may be left out: a null length. */
ZEM_API zem_code zem_engine_render(zem_engine engine, const char* json, size_t size, char* text,
                                   size_t text_capacity, size_t* text_length, uint32_t* ids,
                                   size_t id_capacity, size_t* id_length) ZEM_NOTHROW;
/** `text` as a JSON string with its quotes, without a NUL: for building requests. Bytes that
 * are no UTF-8 become U+FFFD. */
ZEM_API zem_code zem_quote_json(const char* text, size_t size, char* out, size_t capacity,
                                size_t* length) ZEM_NOTHROW;

/** @} */

/** \name Replies
 * @{ */

/** What an event tells. */
typedef enum zem_event_kind {
  ZEM_EVENT_PROMPT = 1,         /**< so many tokens of the prompt are done, at first those that are
                                     not computed again, maybe none (ZEM_TELL_PROMPT) */
  ZEM_EVENT_TOKEN = 2,          /**< a token was chosen (ZEM_TELL_TOKENS); pieces follow it */
  ZEM_EVENT_REASONING = 3,      /**< a piece of what the model thinks before it answers */
  ZEM_EVENT_CONTENT = 4,        /**< a piece of the answer, or of a completion */
  ZEM_EVENT_CALL_BEGIN = 5,     /**< a call of the function `text` begins */
  ZEM_EVENT_CALL_ARGUMENTS = 6, /**< a piece of the call's arguments: JSON of an object */
  ZEM_EVENT_CALL_END = 7,       /**< the arguments are whole */
  ZEM_EVENT_END = 8             /**< the last event; every request has one */
} zem_event_kind;

/** Why a reply ended. */
typedef enum zem_end_reason {
  ZEM_END_STOP = 0,      /**< the model ended it */
  ZEM_END_STOP_TEXT = 1, /**< a stop text came */
  ZEM_END_LENGTH = 2,    /**< it has as many tokens as were asked for */
  ZEM_END_CONTEXT = 3,   /**< the context is full */
  ZEM_END_CANCELLED = 4, /**< it was cancelled */
  ZEM_END_ERROR = 5      /**< something failed; the event's text tells what */
} zem_end_reason;

/** A token and how likely the model took it to be. */
typedef struct zem_likelihood {
  uint32_t token;         /**< its id */
  uint32_t reserved;      /**< 0 */
  double log_probability; /**< natural logarithm; negative infinity for a probability of 0 */
} zem_likelihood;

/** Tokens and times of a request. */
typedef struct zem_usage {
  uint64_t prompt_tokens;    /**< of the prompt */
  uint64_t reused_tokens;    /**< of the prompt, those that were not computed again */
  uint64_t generated_tokens; /**< of the reply, an end token among them */
  uint64_t reasoning_tokens; /**< of the reply, those inside its reasoning */
  double waited_seconds;     /**< until the prompt was begun */
  double prompt_seconds;     /**< from there until the first token */
  double generate_seconds;   /**< from there on */
} zem_usage;

/** One event of a reply. What it points to belongs to the library and lives until the request's
 * next event is asked for, or the request is closed; in a callback, until it returns. */
typedef struct zem_event {
  uint32_t struct_size;  /**< sizeof(zem_event) */
  uint32_t kind;         /**< zem_event_kind */
  const char* text;      /**< of pieces: whole characters. Of ZEM_EVENT_TOKEN: its bytes, maybe part
                              of a character. Of ZEM_END_ERROR: what failed. Never null; ends with
                              a NUL */
  size_t text_size;      /**< bytes of it, without the NUL */
  uint32_t token;        /**< of ZEM_EVENT_TOKEN: its id */
  uint32_t call;         /**< of calls: which, from 0 */
  uint32_t complete;     /**< of ZEM_EVENT_CALL_END: 0 for a call that is malformed or was cut; its
                              arguments are JSON nevertheless, but some may be missing */
  uint32_t end_reason;   /**< of ZEM_EVENT_END: zem_end_reason */
  int32_t stop_text;     /**< of ZEM_END_STOP_TEXT: which of the request's, from 0; else -1 */
  uint32_t likely_count; /**< of ZEM_EVENT_TOKEN: the length of `likeliest` */
  double log_probability;          /**< of ZEM_EVENT_TOKEN: its own; NaN where not asked for */
  const zem_likelihood* likeliest; /**< of ZEM_EVENT_TOKEN: the likeliest first, or null */
  uint64_t done;                   /**< of ZEM_EVENT_PROMPT: tokens that are done */
  uint64_t total;                  /**< of ZEM_EVENT_PROMPT: tokens of the prompt */
  zem_usage usage;                 /**< of ZEM_EVENT_END */
} zem_event;

/** Receives one event. Runs on the engine's thread, which computes nothing meanwhile: return soon.
 * One call at a time for a request; ZEM_EVENT_END is the last. An exception must not leave it. */
typedef void (*zem_event_fn)(const zem_event* event, void* user);

#define ZEM_TELL_PROMPT 1u /**< events ZEM_EVENT_PROMPT are wanted */
#define ZEM_TELL_TOKENS 2u /**< events ZEM_EVENT_TOKEN are wanted */

/** How a reply is delivered. */
typedef struct zem_delivery {
  uint32_t struct_size;  /**< sizeof(zem_delivery) */
  uint32_t flags;        /**< ZEM_TELL_... */
  zem_event_fn callback; /**< receives the events; null: zem_request_next() gives them */
  void* user;            /**< handed to the callback */
  uint64_t queue_bytes;  /**< for events that were not taken yet; 0: 16 MiB. A reply with more ends
                              with ZEM_END_ERROR. Neighbouring pieces in the queue are joined */
} zem_delivery;

/** What zem_engine_complete() goes on with: either a text or ids. */
typedef struct zem_completion {
  uint32_t struct_size; /**< sizeof(zem_completion) */
  uint32_t flags;       /**< of the prompt's text: ZEM_SPECIAL_TOKENS or 0 */
  const char* prompt;   /**< the text, or null */
  size_t prompt_size;   /**< bytes, or ZEM_TERMINATED */
  const uint32_t* ids;  /**< where there is no text */
  size_t id_count;      /**< of them */
  const char* settings; /**< JSON of an object, or null; ends with a NUL. Members: those of
                             zem_engine_chat() from `temperature` on */
} zem_completion;

/** Asks for the continuation of a text. `delivery` may be null: events are asked for. `*request`
 * is the caller's until zem_request_close(). With a callback `request` may be null; the request
 * then goes with its last event. The callback may run before this function returns.
 * ZEM_ERROR_REQUEST names what cannot be computed, ZEM_ERROR_QUEUE says that too many wait. */
ZEM_API zem_code zem_engine_complete(zem_engine engine, const zem_completion* completion,
                                     const zem_delivery* delivery,
                                     zem_request* request) ZEM_NOTHROW;

/** Asks for the next turn of a conversation, as zem_engine_complete() does. `json` is an object:
 *
 *   messages               list: role, content (text or parts), reasoning_content, tool_calls
 *   tools                  list of functions with JSON schemas
 *   tool_choice            "auto", "none", "required", or the function to be called
 *   parallel_tool_calls    false: at most one call
 *   enable_thinking        true or false; else as the model's template does
 *   thinking_budget        tokens of thinking, then the model has to answer
 *   preserve_thinking, reasoning_effort, add_vision_id, merge_system, omit_empty_thinking
 *                          as docs/libzem.md says
 *   response_format        {"type": "text" | "json_object" | "json_schema", ...}
 *   temperature, top_p, top_k, min_p, repetition_penalty, presence_penalty,
 *   frequency_penalty, penalty_window, logit_bias, seed
 *                          the sampling; else as the model's publisher recommends
 *   max_tokens             of the reply, reasoning included; max_completion_tokens likewise
 *   stop                   a text, or a list of texts
 *   logprobs, top_logprobs log probabilities in events ZEM_EVENT_TOKEN
 *
 * A member that is null counts as absent; one that is not known is an error, but for some that
 * only servers look at (model, stream, user, ...). */
ZEM_API zem_code zem_engine_chat(zem_engine engine, const char* json, size_t size,
                                 const zem_delivery* delivery, zem_request* request) ZEM_NOTHROW;

/** Waits for the next event of a request without a callback. ZEM_TIMEOUT when none comes within
 * `milliseconds` (0 looks without waiting, ZEM_FOREVER waits on); ZEM_FINISHED after
 * ZEM_EVENT_END; ZEM_ERROR_BUSY while another thread waits for an event of this request;
 * ZEM_ERROR_HANDLE when the request is closed meanwhile. Refused inside a callback, and for a
 * request with a callback (ZEM_ERROR_ARGUMENT). */
ZEM_API zem_code zem_request_next(zem_request request, uint32_t milliseconds,
                                  zem_event* event) ZEM_NOTHROW;
/** Ends the request after the step that runs, with ZEM_END_CANCELLED. Without effect once it has
 * ended. */
ZEM_API zem_code zem_request_cancel(zem_request request) ZEM_NOTHROW;
/** The ids of the prompt and of the reply so far: what zem_engine_save() takes, and the prompt of
 * a request that goes on from here. */
ZEM_API zem_code zem_request_tokens(zem_request request, uint32_t* ids, size_t capacity,
                                    size_t* length) ZEM_NOTHROW;
/** Gives the handle back. A request that is under way is cancelled. A callback that runs is waited
 * for, and none runs afterwards. Refused inside a callback. */
ZEM_API zem_code zem_request_close(zem_request request) ZEM_NOTHROW;

/** @} */

/** \name Conversations on the disk
 * @{ */

/** Writes the state of a conversation of `count` tokens to a file: the longest beginning of `ids`
 * for which a state is kept. `*saved` becomes its length; it may be null. An older file stays
 * when this fails. ZEM_ERROR_REQUEST when nothing is kept. Waits for the step that runs. Refused
 * inside a callback. */
ZEM_API zem_code zem_engine_save(zem_engine engine, const uint32_t* ids, size_t count,
                                 const char* path, size_t* saved) ZEM_NOTHROW;
/** Reads a saved conversation and gives its tokens; a prompt that begins with them goes on from
 * there. Reading it twice does no harm. ZEM_ERROR_FORMAT for a file that is damaged or of another
 * model. Waits for the step that runs. Refused inside a callback. */
ZEM_API zem_code zem_engine_restore(zem_engine engine, const char* path, uint32_t* ids,
                                    size_t capacity, size_t* length) ZEM_NOTHROW;

/** @} */

#ifdef __cplusplus
}
#endif

#endif
