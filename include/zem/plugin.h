// SPDX-License-Identifier: Apache-2.0
/** \file
 * The boundary between a host application and a runtime plug-in.
 *
 * Plain C11 that also compiles as C++20, 64-bit targets only. Host and plug-in
 * are built apart, so field order, widths and offsets are binding; every one of
 * them is asserted at the end of this file.
 *
 * A host loads the library, looks up the four zem_plugin_* functions and drives
 * everything else through the tables that they return. docs/plugin-abi.md is
 * the guide, and README.md has a complete host.
 *
 * Return codes of every runtime entry that returns int:
 *   0  success
 *   1  the operation was attempted and failed
 *   2  invalid arguments: a null handle or required pointer, a zero size, a
 *      struct_size that is too small
 * probe() always returns 0 and gives its verdict in the record.
 *
 * Text results: `out` receives at most out_size - 1 bytes and always a NUL. The
 * cut is by bytes and may split a UTF-8 character.
 *
 * Threads: one thread at a time uses a handle; several threads may use different
 * handles at the same time. create() and probe() take a lock for a moment while they
 * load Vulkan; the other entries take none. The tables never change, and every thread
 * may read them. No entry lets a C++ exception out.
 *
 * A host may close the library when all handles are destroyed and no entry is running.
 * The code stays mapped until the process ends, because threads that the library started
 * may still be asleep in it. Loading the library again gives the same copy.
 */
#ifndef ZEM_PLUGIN_H
#define ZEM_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** \def ZEM_PLUGIN_EXPORT
 * Makes a function visible outside its module. */
#if defined(_WIN32)
#define ZEM_PLUGIN_EXPORT __declspec(dllexport)
#else
#define ZEM_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

/** \def ZEM_PLUGIN_NOEXCEPT
 * What C++ is told of the exports; C has no exceptions. */
#ifdef __cplusplus
#define ZEM_PLUGIN_NOEXCEPT noexcept
#else
#define ZEM_PLUGIN_NOEXCEPT
#endif

/** A session: one opened model with its conversation. Owned by the host from
 * create() until destroy(). */
typedef struct ZEMRuntimeHandle ZEMRuntimeHandle;

/** What a host may offer to zem_plugin_init. This plug-in keeps and calls none
 * of it; its warnings go to the standard error stream. */
typedef struct ZEMHostAPI {
  uint32_t abi_version;                     /**< of this record */
  void (*log)(int level, const char* text); /**< a line for the host's log */
  void* (*alloc)(size_t size);              /**< null when there is no memory */
  void (*free)(void* block);                /**< what alloc gave */
} ZEMHostAPI;

/** A command that a plug-in adds to its host. This plug-in has none. */
typedef struct ZEMCommandDescriptor {
  const char* name;        /**< what the user types */
  const char* description; /**< one line of help */
  /** Runs it; 0 for success. */
  int (*execute)(void* ctx, int argc, const char** argv);
} ZEMCommandDescriptor;

/** What zem_plugin_init returns. */
typedef struct ZEMPluginDescriptor {
  uint32_t abi_version;                 /**< 1 */
  uint32_t plugin_version;              /**< counts releases */
  const char* name;                     /**< "runtime-qwen35-vulkan" */
  const char* description;              /**< one line */
  const ZEMCommandDescriptor* commands; /**< command_count of them, or null */
  uint32_t command_count;               /**< 0 */
} ZEMPluginDescriptor;

/** The verdict of probe(). Strings are static and belong to the runtime. */
typedef struct ZEMRuntimeProbe {
  int confidence;           /**< 0: not a model for this runtime here; up to 100 */
  const char* architecture; /**< of the model; empty for confidence 0 */
  const char* backend;      /**< "vulkan" */
  const char* reason;       /**< one line; empty for confidence 0 */
} ZEMRuntimeProbe;

/** Settings of a session, for configure() and generate_ex(). Set struct_size to
 * sizeof(ZEMSessionOptions); fields beyond it are not read (40 bytes are the
 * least, and cover the sampling fields up to `flags`). */
typedef struct ZEMSessionOptions {
  uint32_t struct_size;      /**< sizeof(ZEMSessionOptions) */
  float temperature;         /**< 0: greedy; negative: keep the current one */
  int32_t top_k;             /**< taken when above 0 */
  float top_p;               /**< taken when above 0 */
  uint64_t seed;             /**< re-seeds with its low 32 bits; 0: keep the generator */
  int32_t max_tokens;        /**< carried, not read */
  int32_t stop_token;        /**< carried, not read */
  uint32_t flags;            /**< carried, not read */
  uint32_t ctx_len;          /**< positions a conversation may reach; 0: keep */
  int32_t kv_cache_type;     /**< 0 f32, 1 q8_0, 2 q4_0; recorded, the cache stays f32 */
  const char* system_prompt; /**< for the next fresh conversation; null or empty: keep */
} ZEMSessionOptions;

/** How long bench() measures. */
typedef struct ZEMBenchParams {
  uint32_t struct_size; /**< not checked */
  int32_t tokens;       /**< to measure; below 1: 64 */
  int32_t warmup;       /**< steps beyond those; below 1: 8 */
  int32_t max_new;      /**< not read */
  uint32_t flags;       /**< not read */
} ZEMBenchParams;

/** What bench() measured. */
typedef struct ZEMBenchResult {
  uint32_t struct_size;  /**< written */
  double ms_per_token;   /**< time over `tokens` */
  double tokens_per_sec; /**< the reciprocal, in seconds */
  uint64_t tokens;       /**< as requested */
} ZEMBenchResult;

/** Counters of a session. generate(), generate_ex(), bench() and reset() set `tokens`
 * and `generation_ms` to zero before they compute, and bench() once more at its end. The
 * first turn of a conversation sets only `tokens` to zero. */
typedef struct ZEMRuntimeStats {
  uint32_t struct_size; /**< written */
  uint64_t tokens;      /**< sampled, the stopping one included */
  double generation_ms; /**< spent in forward steps, prompt included */
  double last_step_ms;  /**< the last forward step; after prompt tokens that went through
                           the model together, their time divided by their number. Only
                           reset() sets it to zero. */
} ZEMRuntimeStats;

/** Receives one piece of a streamed reply: `length` bytes, NUL-terminated, valid
 * during the call. A piece is one token's text, so a UTF-8 character may arrive
 * in two pieces. Runs on the thread that called chat_turn_stream and must not
 * call back into the session. */
typedef void (*ZEMChatTokenFn)(const char* piece, uint32_t length, void* user);

/** Whether this runtime suits the model file at `path`. Both arguments may be null.
 * Returns 0 with the verdict in `out`. Never prints; opens and closes the file and,
 * for a model that it knows, a Vulkan context. */
typedef int (*ZEMProbeFn)(const char* path, ZEMRuntimeProbe* out);

/** Opens a model. `hint` may be null: fields separated by ';', the first one
 * ignored, then any of "ctx=N" (positions, 1 to 8192), "kv=q8_0|q4_0|f16",
 * "plan=TEXT" (layers for the GPU). On success *out is a handle, the caller's until
 * destroy(), and 0 is returned; on failure *out is null, `err` (when given) says
 * why, cut to err_size - 1 bytes, and 1 is returned. 2 for a null `out`. */
typedef int (*ZEMCreateFn)(const char* model_path, const char* hint, ZEMRuntimeHandle** out,
                           char* err, size_t err_size);

/** Ends a session and closes its model file; null is fine. */
typedef void (*ZEMDestroyFn)(ZEMRuntimeHandle* handle);

/** Completes `prompt` (null: empty) with up to 96 tokens, starting afresh: a
 * conversation ends. 1 when the prompt does not fit the context or the weights are
 * unusable; `out` is then empty. */
typedef int (*ZEMGenerateFn)(ZEMRuntimeHandle* handle, const char* prompt, char* out,
                             size_t out_size);

/** First generation. */
typedef struct ZEMRuntimeDescriptor {
  uint32_t abi_version;   /**< 1 */
  const char* id;         /**< "qwen35-vulkan" */
  const char* name;       /**< for people */
  uint64_t capabilities;  /**< 0xC2 */
  ZEMProbeFn probe;       /**< see ZEMProbeFn */
  ZEMCreateFn create;     /**< see ZEMCreateFn */
  ZEMDestroyFn destroy;   /**< see ZEMDestroyFn */
  ZEMGenerateFn generate; /**< see ZEMGenerateFn */
} ZEMRuntimeDescriptor;

/** Second generation. */
typedef struct ZEMRuntimeDescriptorV2 {
  uint32_t abi_version;   /**< 3 */
  uint32_t struct_size;   /**< of this record */
  const char* id;         /**< "qwen35-vulkan" */
  const char* name;       /**< for people */
  uint64_t caps_v2;       /**< 0x0F */
  ZEMProbeFn probe;       /**< see ZEMProbeFn */
  ZEMCreateFn create;     /**< see ZEMCreateFn */
  ZEMDestroyFn destroy;   /**< see ZEMDestroyFn */
  ZEMGenerateFn generate; /**< see ZEMGenerateFn */
  /** generate with sampling settings for this call; `opts` may be null. A seed stays
   * in effect afterwards. */
  int (*generate_ex)(ZEMRuntimeHandle* handle, const char* prompt, const ZEMSessionOptions* opts,
                     char* out, size_t out_size);
  /** Measures greedy decoding; `params` may be null, and 1 is returned when nothing
   * could be computed. Ends the conversation. */
  int (*bench)(ZEMRuntimeHandle* handle, const ZEMBenchParams* params, ZEMBenchResult* result);
  /** Changes settings for all later calls; strings are copied. 2, with nothing
   * changed, for null and for a struct_size below 40. */
  int (*configure)(ZEMRuntimeHandle* handle, const ZEMSessionOptions* opts);
  /** One turn of a conversation: up to 96 tokens of reply. 1 when it does not fit the
   * context, with part of it fed: reset() then. */
  int (*chat_turn)(ZEMRuntimeHandle* handle, const char* user_text, char* out, size_t out_size);
  /** Ends the conversation and zeroes the counters; settings stay. */
  int (*reset)(ZEMRuntimeHandle* handle);
  /** The counters, as ZEMRuntimeStats says. */
  int (*stats)(ZEMRuntimeHandle* handle, ZEMRuntimeStats* out);
} ZEMRuntimeDescriptorV2;

/** Streaming extension of the V2 table with the same id. */
typedef struct ZEMRuntimeDescriptorV2S {
  uint32_t abi_version; /**< 1 */
  uint32_t struct_size; /**< of this record */
  const char* id;       /**< "qwen35-vulkan" */
  /** chat_turn, piece by piece. `cb` may be null. `cancel` may be null; otherwise
   * any thread may set it to non-zero at any time, and at most one more piece is
   * delivered after that. A cancelled turn returns 0. */
  int (*chat_turn_stream)(ZEMRuntimeHandle* handle, const char* user_text, ZEMChatTokenFn cb,
                          void* user, volatile int* cancel);
} ZEMRuntimeDescriptorV2S;

/** The plug-in's name. Like all exports it cannot fail, has no side effects and
 * returns a static record; any thread. `host` may be null. */
ZEM_PLUGIN_EXPORT const ZEMPluginDescriptor* zem_plugin_init(const ZEMHostAPI* host)
    ZEM_PLUGIN_NOEXCEPT;
/** The first-generation tables, `*count` of them; `count` may be null. */
ZEM_PLUGIN_EXPORT const ZEMRuntimeDescriptor* zem_plugin_runtimes(uint32_t* count)
    ZEM_PLUGIN_NOEXCEPT;
/** The second-generation tables, likewise. */
ZEM_PLUGIN_EXPORT const ZEMRuntimeDescriptorV2* zem_plugin_runtimes_v2(uint32_t* count)
    ZEM_PLUGIN_NOEXCEPT;
/** The streaming extensions, likewise. */
ZEM_PLUGIN_EXPORT const ZEMRuntimeDescriptorV2S* zem_plugin_runtimes_v2s(uint32_t* count)
    ZEM_PLUGIN_NOEXCEPT;

/** The exports' types, for a host that looks them up by name. @{ */
typedef const ZEMPluginDescriptor* (*ZEMPluginInitFn)(const ZEMHostAPI* host);
typedef const ZEMRuntimeDescriptor* (*ZEMPluginRuntimesFn)(uint32_t* count);
typedef const ZEMRuntimeDescriptorV2* (*ZEMPluginRuntimesV2Fn)(uint32_t* count);
typedef const ZEMRuntimeDescriptorV2S* (*ZEMPluginRuntimesV2SFn)(uint32_t* count);
/** @} */

/** \cond */
#ifdef __cplusplus
#define ZEM_ASSERT_(condition) static_assert(condition, #condition)
#else
#define ZEM_ASSERT_(condition) _Static_assert(condition, #condition)
#endif
#define ZEM_AT_(type, field, at) ZEM_ASSERT_(offsetof(type, field) == (at))

ZEM_ASSERT_(sizeof(void*) == 8 && sizeof(size_t) == 8 && sizeof(int) == 4);

ZEM_ASSERT_(sizeof(ZEMHostAPI) == 32);
ZEM_AT_(ZEMHostAPI, abi_version, 0);
ZEM_AT_(ZEMHostAPI, log, 8);
ZEM_AT_(ZEMHostAPI, alloc, 16);
ZEM_AT_(ZEMHostAPI, free, 24);

ZEM_ASSERT_(sizeof(ZEMCommandDescriptor) == 24);
ZEM_AT_(ZEMCommandDescriptor, name, 0);
ZEM_AT_(ZEMCommandDescriptor, description, 8);
ZEM_AT_(ZEMCommandDescriptor, execute, 16);

ZEM_ASSERT_(sizeof(ZEMPluginDescriptor) == 40);
ZEM_AT_(ZEMPluginDescriptor, abi_version, 0);
ZEM_AT_(ZEMPluginDescriptor, plugin_version, 4);
ZEM_AT_(ZEMPluginDescriptor, name, 8);
ZEM_AT_(ZEMPluginDescriptor, description, 16);
ZEM_AT_(ZEMPluginDescriptor, commands, 24);
ZEM_AT_(ZEMPluginDescriptor, command_count, 32);

ZEM_ASSERT_(sizeof(ZEMRuntimeProbe) == 32);
ZEM_AT_(ZEMRuntimeProbe, confidence, 0);
ZEM_AT_(ZEMRuntimeProbe, architecture, 8);
ZEM_AT_(ZEMRuntimeProbe, backend, 16);
ZEM_AT_(ZEMRuntimeProbe, reason, 24);

ZEM_ASSERT_(sizeof(ZEMSessionOptions) == 56);
ZEM_AT_(ZEMSessionOptions, struct_size, 0);
ZEM_AT_(ZEMSessionOptions, temperature, 4);
ZEM_AT_(ZEMSessionOptions, top_k, 8);
ZEM_AT_(ZEMSessionOptions, top_p, 12);
ZEM_AT_(ZEMSessionOptions, seed, 16);
ZEM_AT_(ZEMSessionOptions, max_tokens, 24);
ZEM_AT_(ZEMSessionOptions, stop_token, 28);
ZEM_AT_(ZEMSessionOptions, flags, 32);
ZEM_AT_(ZEMSessionOptions, ctx_len, 36);
ZEM_AT_(ZEMSessionOptions, kv_cache_type, 40);
ZEM_AT_(ZEMSessionOptions, system_prompt, 48);

ZEM_ASSERT_(sizeof(ZEMBenchParams) == 20);
ZEM_AT_(ZEMBenchParams, struct_size, 0);
ZEM_AT_(ZEMBenchParams, tokens, 4);
ZEM_AT_(ZEMBenchParams, warmup, 8);
ZEM_AT_(ZEMBenchParams, max_new, 12);
ZEM_AT_(ZEMBenchParams, flags, 16);

ZEM_ASSERT_(sizeof(ZEMBenchResult) == 32);
ZEM_AT_(ZEMBenchResult, struct_size, 0);
ZEM_AT_(ZEMBenchResult, ms_per_token, 8);
ZEM_AT_(ZEMBenchResult, tokens_per_sec, 16);
ZEM_AT_(ZEMBenchResult, tokens, 24);

ZEM_ASSERT_(sizeof(ZEMRuntimeStats) == 32);
ZEM_AT_(ZEMRuntimeStats, struct_size, 0);
ZEM_AT_(ZEMRuntimeStats, tokens, 8);
ZEM_AT_(ZEMRuntimeStats, generation_ms, 16);
ZEM_AT_(ZEMRuntimeStats, last_step_ms, 24);

ZEM_ASSERT_(sizeof(ZEMRuntimeDescriptor) == 64);
ZEM_AT_(ZEMRuntimeDescriptor, abi_version, 0);
ZEM_AT_(ZEMRuntimeDescriptor, id, 8);
ZEM_AT_(ZEMRuntimeDescriptor, name, 16);
ZEM_AT_(ZEMRuntimeDescriptor, capabilities, 24);
ZEM_AT_(ZEMRuntimeDescriptor, probe, 32);
ZEM_AT_(ZEMRuntimeDescriptor, create, 40);
ZEM_AT_(ZEMRuntimeDescriptor, destroy, 48);
ZEM_AT_(ZEMRuntimeDescriptor, generate, 56);

ZEM_ASSERT_(sizeof(ZEMRuntimeDescriptorV2) == 112);
ZEM_AT_(ZEMRuntimeDescriptorV2, abi_version, 0);
ZEM_AT_(ZEMRuntimeDescriptorV2, struct_size, 4);
ZEM_AT_(ZEMRuntimeDescriptorV2, id, 8);
ZEM_AT_(ZEMRuntimeDescriptorV2, name, 16);
ZEM_AT_(ZEMRuntimeDescriptorV2, caps_v2, 24);
ZEM_AT_(ZEMRuntimeDescriptorV2, probe, 32);
ZEM_AT_(ZEMRuntimeDescriptorV2, create, 40);
ZEM_AT_(ZEMRuntimeDescriptorV2, destroy, 48);
ZEM_AT_(ZEMRuntimeDescriptorV2, generate, 56);
ZEM_AT_(ZEMRuntimeDescriptorV2, generate_ex, 64);
ZEM_AT_(ZEMRuntimeDescriptorV2, bench, 72);
ZEM_AT_(ZEMRuntimeDescriptorV2, configure, 80);
ZEM_AT_(ZEMRuntimeDescriptorV2, chat_turn, 88);
ZEM_AT_(ZEMRuntimeDescriptorV2, reset, 96);
ZEM_AT_(ZEMRuntimeDescriptorV2, stats, 104);

ZEM_ASSERT_(sizeof(ZEMRuntimeDescriptorV2S) == 24);
ZEM_AT_(ZEMRuntimeDescriptorV2S, abi_version, 0);
ZEM_AT_(ZEMRuntimeDescriptorV2S, struct_size, 4);
ZEM_AT_(ZEMRuntimeDescriptorV2S, id, 8);
ZEM_AT_(ZEMRuntimeDescriptorV2S, chat_turn_stream, 16);

#undef ZEM_AT_
#undef ZEM_ASSERT_
/** \endcond */

#ifdef __cplusplus
}
#endif

#endif /* ZEM_PLUGIN_H */
