// SPDX-License-Identifier: Apache-2.0
// The smallest container that a session computes with, and where its fields lie.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/container_builder.h"

namespace zemtest {

// One number per hidden state, seven tokens, a layer with linear attention, 31 with
// full attention that share their weights; plain numbers and blocks of 32 and of 256,
// every type of metadata, a quantisation table. About 220 KB, of which the convolution
// takes 128 and the tensor index 45.
Bytes smallestModel();

// A turn that takes two tokens of that model, which has none for the rest of a turn's
// frame, and a hint with room for no more.
inline constexpr char kSmallestTurn[] = "xy";
inline constexpr char kSmallestHint[] = "host;ctx=2";

// A number in a container.
struct Field {
  size_t offset;
  size_t width;  // 1, 2, 4 or 8 bytes
};

// What a mutation can change, part by part. `file` is a valid container.
std::vector<Field> headerFields();                    // the checksum apart
std::vector<Field> sectionFields(const Bytes& file);  // four an entry, in the table's order
std::vector<Field> metadataFields(const Bytes& file);
std::vector<Field> tokenizerFields(const Bytes& file);
std::vector<Field> tensorFields(const Bytes& file, size_t tensor);
std::vector<Field> quantFields(const Bytes& file, size_t tensor);
// The first and the last four bytes of the weights.
std::vector<Field> weightFields(const Bytes& file, size_t tensor);
// All of these, all tensors included.
std::vector<Field> allFields(const Bytes& file);

// What a field is set to, each value once: 0 to 16, the value's neighbours, halves
// and multiples, the extremes of each width that fits, what differs by an
// alignment, and what reaches to the end of the file.
std::vector<uint64_t> mutatedValues(const Bytes& file, const Field& field);

}  // namespace zemtest
