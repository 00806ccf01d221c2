// SPDX-License-Identifier: Apache-2.0
// A conversation on the disk: its tokens and all that a model remembers of them.
//
// The file, little-endian:
//
//   8 bytes   "ZEMCHAT" and a zero
//   u32       version, 1
//   u32       numbers of the key/value cache: 0 half, 1 single precision; 2 more where products
//             are computed with integers
//   u64       fingerprint of the model
//   u64       tokens; u64 floats of the recurrent part; u64 pages; u64 bytes of a page
//   u32 ...   the tokens
//   f32 ...   the recurrent part
//   bytes     the pages, zero behind the last token
//   u64       checksum of all bytes before it
//
// The checksum finds damage, not malice: whoever writes such a file decides what the model
// remembers. Nothing in a file can make a reader touch memory outside of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/model/decoder.h"
#include "engine/model/sequence_state.h"
#include "kiv/status.h"

namespace zem {

// What tells models apart: header, metadata and tensor index of the container, and numbers from
// all over its weights. Models that differ in single weights alone are not told apart.
uint64_t fingerprintOf(const Weights& weights);

// Writes the state after `tokens`, snapshot.length of them, to `path`. The file appears when it
// is whole and replaces an older one. IOError names the file and the reason. Throws
// std::bad_alloc.
kiv::Status saveSession(const std::string& path, Decoder& decoder,
                        const std::vector<uint32_t>& tokens, const Snapshot& snapshot);

// Reads it back: the next token's logits have the bits that they would have had. IOError for a
// file that cannot be read; InvalidFormat, with the path in front, for one that is not such a file,
// is damaged, or belongs to another model, another kind of cache or another arithmetic. Throws
// std::bad_alloc.
kiv::Status loadSession(const std::string& path, Decoder& decoder, std::vector<uint32_t>& tokens,
                        Snapshot& snapshot);

}  // namespace zem
