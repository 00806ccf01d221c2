// SPDX-License-Identifier: Apache-2.0
// The decoder as a module of its own, for commands that need logits: the plug-in's boundary
// does not show them. OpenMP reads its settings when it is loaded. A decoder inside the program
// would load it before the program has made these settings.
//
// One thread at a time uses a decoder, and one decoder of a process computes at a time. No
// function throws.
#ifndef ZEM_TOOLS_DECODER_MODULE_H
#define ZEM_TOOLS_DECODER_MODULE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZemDecoder ZemDecoder;

// Opens a container for sequences of up to `positions` tokens. Null on failure; `error` then
// has the reason, cut to `errorSize` bytes.
typedef ZemDecoder* (*ZemDecoderOpenFn)(const char* path, size_t positions, char* error,
                                        size_t errorSize);
// Tokens of the vocabulary.
typedef size_t (*ZemDecoderVocabularyFn)(const ZemDecoder* decoder);
// Feeds the next token and writes a logit for each token of the vocabulary. 0 for success, 1
// when the token is not in the vocabulary, or memory or positions are used up.
typedef int (*ZemDecoderStepFn)(ZemDecoder* decoder, int32_t token, float* logits);
// Null is fine.
typedef void (*ZemDecoderCloseFn)(ZemDecoder* decoder);

#define ZEM_DECODER_OPEN "zem_decoder_open"
#define ZEM_DECODER_VOCABULARY "zem_decoder_vocabulary"
#define ZEM_DECODER_STEP "zem_decoder_step"
#define ZEM_DECODER_CLOSE "zem_decoder_close"

#ifdef __cplusplus
}
#endif

#endif  // ZEM_TOOLS_DECODER_MODULE_H
