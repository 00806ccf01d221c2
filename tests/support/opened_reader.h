// SPDX-License-Identifier: Apache-2.0
// A reader on a container that exists only for one test.
#pragma once

#include <cstdint>
#include <vector>

#include "kiv/zem2_reader.h"
#include "support/temp_file.h"

namespace zemtest {

struct OpenedReader {
  explicit OpenedReader(const std::vector<uint8_t>& bytes)
      : file(bytes), status(reader.open(file.path())) {}

  TempFile file;
  kiv::ZEM2Reader reader;
  kiv::Status status;
};

inline kiv::Status openStatus(const std::vector<uint8_t>& bytes) {
  return OpenedReader(bytes).status;
}

}  // namespace zemtest
