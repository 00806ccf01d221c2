// SPDX-License-Identifier: Apache-2.0
#include "layers/hidden_dump.h"

#include <cstdint>
#include <cstring>

#include "compat/environment.h"
#include "compat/files.h"

namespace qwen35 {

HiddenDump HiddenDump::ofVariable(size_t pos) {
  HiddenDump dump;
  dump.pos_ = pos;
  if (const auto path = compat::environmentVariable("QWEN35_HID_DUMP")) {
    dump.file_.reset(compat::openStream(path->c_str(), "ab"));
  }
  return dump;
}

void HiddenDump::write(const char* name, const std::vector<float>& x) {
  if (!file_) return;
  const auto pos = static_cast<uint32_t>(pos_);
  const auto length = static_cast<uint32_t>(std::strlen(name));
  const uint64_t count = x.size();
  std::fwrite(&pos, sizeof pos, 1, file_.get());
  std::fwrite(&length, sizeof length, 1, file_.get());
  std::fwrite(name, 1, length, file_.get());
  std::fwrite(&count, sizeof count, 1, file_.get());
  std::fwrite(x.data(), sizeof(float), x.size(), file_.get());
}

void HiddenDump::writeLayer(size_t il, const char* what, const std::vector<float>& x) {
  if (!file_) return;
  char name[64];
  std::snprintf(name, sizeof name, "S%zu.%s", il, what);
  write(name, x);
}

}  // namespace qwen35
