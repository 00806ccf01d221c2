// SPDX-License-Identifier: Apache-2.0
// A conversation that outlives the program, with all that the model has computed of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace zemtool {

class SavedSession {
 public:
  // Takes up the conversation of the file, if the file is there. Throws Failure when it is
  // damaged or does not belong to the model. The engine outlives this object.
  SavedSession(zem::Engine& engine, std::string path);

  bool isNew() const { return conversation_.empty(); }

  // Puts the conversation so far in front of the request's prompt. In a chat the last reply's
  // turn is ended where the reply was cut.
  void goOn(zem::Request& request, bool chat);

  // Writes the conversation: a prompt and its reply, but for an end token. Throws Failure; an older
  // file stays then.
  void write(std::vector<uint32_t> prompt, const std::vector<uint32_t>& reply);

 private:
  bool isEndToken(uint32_t id) const;
  void keep(const std::vector<uint32_t>& conversation);

  zem::Engine& engine_;
  std::string path_;
  std::vector<uint32_t> conversation_;
};

}  // namespace zemtool
