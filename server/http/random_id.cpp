// SPDX-License-Identifier: Apache-2.0
#include "server/http/random_id.h"

#include <cstdint>
#include <random>

namespace zem::server {

std::string randomId(std::string_view prefix) {
  constexpr std::string_view kCharacters = "abcdefghijklmnopqrstuvwxyz0123456789";
  constexpr size_t kLength = 24;
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seeds{device(), device(), device(), device()};
    return std::mt19937_64(seeds);
  }();
  std::uniform_int_distribution<size_t> place(0, kCharacters.size() - 1);
  std::string id(prefix);
  for (size_t i = 0; i < kLength; ++i) id += kCharacters[place(generator)];
  return id;
}

}  // namespace zem::server
