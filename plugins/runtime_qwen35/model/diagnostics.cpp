#include "model/diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "compat/environment.h"
#include "compat/files.h"

namespace qwen35 {

bool diagnosticSet(const char* name) { return std::getenv(name) != nullptr; }

bool tokensTracedSingly() {
  constexpr const char* kSwitches[] = {"QWEN35_ABLATE", "QWEN35_DBG",    "QWEN35_DBG2",
                                       "QWEN35_DBG3",   "QWEN35_DBG4",   "QWEN35_HID_DUMP",
                                       "QWEN35_TIMING", "QWEN35_NODECAY"};
  return std::any_of(std::begin(kSwitches), std::end(kSwitches), diagnosticSet);
}

double norm(const float* x, size_t n) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += static_cast<double>(x[i]) * x[i];
  return std::sqrt(sum);
}

Ablation ablation() {
  const char* value = std::getenv("QWEN35_ABLATE");
  if (value == nullptr) return Ablation::None;
  // The value names the kind of layer that stays.
  if (std::strcmp(value, "full") == 0) return Ablation::Linear;
  if (std::strcmp(value, "lin") == 0) return Ablation::Full;
  return Ablation::None;
}

HiddenDump::HiddenDump(size_t pos) : pos_(pos) {
  if (const auto path = compat::environmentVariable("QWEN35_HID_DUMP")) {
    file_.reset(compat::openStream(path->c_str(), "ab"));
  }
}

void HiddenDump::write(const char* name, const float* x, size_t n) {
  if (!file_) return;
  const auto pos = static_cast<uint32_t>(pos_);
  const auto length = static_cast<uint32_t>(std::strlen(name));
  const uint64_t count = n;
  std::fwrite(&pos, sizeof pos, 1, file_.get());
  std::fwrite(&length, sizeof length, 1, file_.get());
  std::fwrite(name, 1, length, file_.get());
  std::fwrite(&count, sizeof count, 1, file_.get());
  std::fwrite(x, sizeof *x, n, file_.get());
}

void HiddenDump::writeLayer(size_t il, const char* what, const float* x, size_t n) {
  if (!file_) return;
  char name[64];
  std::snprintf(name, sizeof name, "S%zu.%s", il, what);
  write(name, x, n);
}

}  // namespace qwen35
