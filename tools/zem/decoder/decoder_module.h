// The decoder as a module of its own, for commands that need logits, which the
// plug-in's boundary does not show. A module, because OpenMP reads its settings
// when it is loaded: loaded with the program, it would not see those that the
// program makes for the plug-in.
//
// One decoder is used by one thread at a time, and one decoder of a process
// computes at a time. No function throws.
#ifndef ZEM_TOOLS_DECODER_MODULE_H
#define ZEM_TOOLS_DECODER_MODULE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZemDecoder ZemDecoder;

// Opens a container for sequences of up to `positions` tokens. Null on failure,
// with the reason in `error`, cut to `errorSize` bytes.
typedef ZemDecoder* (*ZemDecoderOpenFn)(const char* path, size_t positions, char* error,
                                        size_t errorSize);
// Tokens of the vocabulary.
typedef size_t (*ZemDecoderVocabularyFn)(const ZemDecoder* decoder);
// Feeds the next token, which must be one of the vocabulary; writes a logit for
// each. 0 for success, 1 where memory or positions are used up.
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
