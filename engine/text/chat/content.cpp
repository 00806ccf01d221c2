// SPDX-License-Identifier: Apache-2.0
#include "engine/text/chat/content.h"

namespace zem::text {
namespace {

constexpr std::string_view kImage = "<|vision_start|><|image_pad|><|vision_end|>";
constexpr std::string_view kVideo = "<|vision_start|><|video_pad|><|vision_end|>";

}  // namespace

Content Content::of(const std::vector<ContentPart>& parts, bool numbered, MediaCount& count) {
  Content content;
  for (const ContentPart& part : parts) {
    if (part.kind == ContentPart::Kind::Text) {
      content.text += part.text;
      continue;
    }
    const bool image = part.kind == ContentPart::Kind::Image;
    const size_t number = ++(image ? count.images : count.videos);
    if (numbered) content.text += (image ? "Picture " : "Video ") + std::to_string(number) + ": ";
    const size_t begin = content.text.size();
    content.text += image ? kImage : kVideo;
    content.markers.push_back({begin, content.text.size()});
  }
  return content;
}

}  // namespace zem::text
