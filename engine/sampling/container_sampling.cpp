// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/container_sampling.h"

#include <string>

namespace zem {
namespace {

bool hasEntry(const kiv::ZEMLoader& loader, const std::string& key) {
  kiv::ZEMLoader::MetaEntryView entry;
  for (size_t i = 0; loader.metaAt(i, entry); ++i) {
    if (entry.key == key) return true;
  }
  return false;
}

kiv::Status failure(const std::string& key, const std::string& what) {
  return kiv::invalidFormat("metadata entry " + key + ": " + what);
}

// Leaves `value` as it is when there is no entry.
kiv::Status read(const kiv::ZEMLoader& loader, const std::string& key, float& value) {
  if (loader.getMetaF32(key.c_str(), value) || !hasEntry(loader, key)) return {};
  return failure(key, "found another type, needed a 32-bit float");
}

kiv::Status read(const kiv::ZEMLoader& loader, const std::string& key, uint32_t& value) {
  if (loader.getMetaU32(key.c_str(), value) || !hasEntry(loader, key)) return {};
  return failure(key, "found another type, needed a 32-bit unsigned integer");
}

}  // namespace

kiv::Status containerSampling(const kiv::ZEMLoader& loader, bool thinking, SamplingOptions& out) {
  SamplingOptions options = defaultSampling(thinking);
  const auto take = [&](const std::string& key, auto& value) {
    if (kiv::Status status = read(loader, key, value); !status.ok()) return status;
    const kiv::Status status = validate(options, 0);
    return status.ok() ? status : failure(key, status.message());
  };
  if (kiv::Status s = take("sampling.temperature", options.temperature); !s.ok()) return s;
  if (kiv::Status s = take("sampling.top_k", options.topK); !s.ok()) return s;
  if (kiv::Status s = take("sampling.top_p", options.topP); !s.ok()) return s;
  const std::string presence = "sampling.presence_penalty";
  if (kiv::Status s = take(presence, options.presencePenalty); !s.ok()) return s;
  out = options;
  return {};
}

}  // namespace zem
