// SPDX-License-Identifier: Apache-2.0
/// \file
/// A message's content as one text, in which the places of images and videos are known.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/chat_message.h"

namespace zem::text {

/// Images and videos so far.
struct MediaCount {
  size_t images = 0;  ///< in all contents
  size_t videos = 0;  ///< in all contents
};

/// The parts of a content, joined.
struct Content {
  /// Bytes from `begin` up to `end`.
  struct Range {
    size_t begin;
    size_t end;
  };
  std::string text;            ///< with a marker for each image and video
  std::vector<Range> markers;  ///< where these are, in order; all other text is the client's

  /// Joins `parts` and counts what they show in `count`. With `numbered`, each marker
  /// follows "Picture N: " or "Video N: ".
  static Content of(const std::vector<ContentPart>& parts, bool numbered, MediaCount& count);
};

}  // namespace zem::text
