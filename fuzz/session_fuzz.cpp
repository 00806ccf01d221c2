// SPDX-License-Identifier: Apache-2.0
// A whole session on a container with changed fields, through the plug-in's tables:
// open, a turn, reset, a completion, close. An input is a list of changes to a small
// sound model: which field, and what it becomes. The checksum is mended.
#include <omp.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz.h"
#include "support/smallest_model.h"
#include "zem/plugin.h"

namespace {

using zemfuzz::require;

constexpr size_t kMostChanges = 16;
constexpr uint8_t kLiteral = 0xFF;  // in place of the number of a value: it follows

class Model {
 public:
  Model() : sound_(zemtest::smallestModel()), fields_(zemtest::allFields(sound_)), now_(sound_) {
    file_.write(sound_);
  }

  // Applies the changes of `in`.
  void change(zemfuzz::Input& in) {
    const size_t count = in.byte() % (kMostChanges + 1);
    for (size_t i = 0; i < count; ++i) {
      const zemtest::Field& field = fields_[in.number(2) % fields_.size()];
      const uint8_t which = in.byte();
      const auto values = zemtest::mutatedValues(sound_, field);
      const uint64_t value =
          which == kLiteral ? in.number(field.width) : values[which % values.size()];
      zemtest::setUint(now_, field.offset, field.width, value);
      changed_.push_back(field);
    }
    zemtest::reseal(now_);
    changed_.push_back({zemtest::header::crc64.offset, zemtest::header::crc64.width});
    store();
  }

  // Takes them back.
  void restore() {
    for (const zemtest::Field& f : changed_) {
      std::copy_n(sound_.begin() + static_cast<std::ptrdiff_t>(f.offset), f.width,
                  now_.begin() + static_cast<std::ptrdiff_t>(f.offset));
    }
    store();
    changed_.clear();
  }

  const char* path() const { return file_.path(); }

 private:
  void store() {
    for (const zemtest::Field& f : changed_) file_.patch(f.offset, &now_[f.offset], f.width);
  }

  const zemtest::Bytes sound_;
  const std::vector<zemtest::Field> fields_;
  zemtest::Bytes now_;
  std::vector<zemtest::Field> changed_;
  zemfuzz::MemoryFile file_;
};

const ZEMRuntimeDescriptorV2& tables() { return *zem_plugin_runtimes_v2(nullptr); }

bool isResult(int rc) { return rc == 0 || rc == 1; }

void converse(ZEMRuntimeHandle* session, const std::string& text) {
  std::array<char, 64> out{};
  require(isResult(tables().chat_turn(session, text.c_str(), out.data(), out.size())), "chat_turn");
  ZEMRuntimeStats stats = {};
  require(tables().stats(session, &stats) == 0, "stats fails");
  require(tables().reset(session) == 0, "reset fails");
  const int rc = tables().generate(session, zemtest::kSmallestTurn, out.data(), out.size());
  require(isResult(rc), "generate");
  require(rc == 0 || out[0] == '\0', "a text from a completion that failed");
}

void run(const char* path, const std::string& hint, const std::string& text) {
  std::array<char, 128> error{};
  ZEMRuntimeHandle* session = nullptr;
  const int rc = tables().create(path, hint.c_str(), &session, error.data(), error.size());
  require(isResult(rc), "create");
  require((rc == 0) == (session != nullptr), "a session from a create that failed, or none");
  require((rc == 0) == (error[0] == '\0'), "an error without a message, or a message without one");
  if (session != nullptr) converse(session, text);
  tables().destroy(session);
}

bool cpuAlone() {
  omp_set_num_threads(1);
  return setenv("ZEM_NO_VULKAN", "1", 1) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = cpuAlone();
  static Model model;
  require(ready, "no environment");
  zemfuzz::Input in(data, size);
  model.change(in);
  // Two tokens fill a context of two: little more than a turn needs, to be quick.
  run(model.path(), "host;ctx=" + std::to_string(1 + in.byte() % 4), in.take(4));
  model.restore();
  return 0;
}
