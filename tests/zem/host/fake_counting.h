// SPDX-License-Identifier: Apache-2.0
// The fake plug-in's way to count: the tokens of a text by the model file's own
// vocabulary, and what feeding them is claimed to take.
#pragma once

#include <cstdint>
#include <string>

namespace zemtest {

// As the runtime encodes a prompt; 0 for a file without a vocabulary.
uint64_t countTokens(const std::string& model, const std::string& text);

// A turn's text with its frame.
std::string framedTurn(const std::string& user);

// Milliseconds for `tokens` tokens from position `from` on: half of one each, and
// one from position 100.
double claimedMs(uint64_t from, uint64_t tokens);

}  // namespace zemtest
