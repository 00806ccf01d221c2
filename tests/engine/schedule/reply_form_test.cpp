// SPDX-License-Identifier: Apache-2.0
#include "engine/schedule/reply_form.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/text/constraint.h"

namespace zem {
namespace {

constexpr uint32_t kEnd = 7;

// Ids: some pieces of JSON; 6 has no text, 7 ends a reply.
class Pieces : public TokenBytes {
 public:
  std::string_view bytesOf(uint32_t id) const override { return texts_.at(id); }
  uint32_t size() const override { return static_cast<uint32_t>(texts_.size()); }
  const text::TokenTexts& texts() const override { return sorted_; }

 private:
  std::vector<std::string> texts_ = {"{", "}", "\"a\"", ":", "1", "x", "", ""};
  text::TokenTexts sorted_{texts_};
};

class ReplyFormTest : public testing::Test {
 protected:
  ReplyFormTest() {
    const text::Json schema = text::Json::parse(
        R"({"type": "object", "properties": {"a": {"const": 1}}, "required": ["a"],
            "additionalProperties": false})");
    std::shared_ptr<const text::Constraint> form;
    const kiv::Status status = text::Constraint::compile(schema, {}, form);
    EXPECT_TRUE(status.ok()) << status.message();
    form_.emplace(form, pieces_, std::vector<uint32_t>{kEnd, 100});
  }

  std::vector<uint32_t> allowed() const {
    std::vector<bool> mask;
    form_->mask(mask);
    std::vector<uint32_t> ids;
    for (uint32_t id = 0; id < pieces_.size(); ++id) {
      const bool masked = id < mask.size() && mask[id];
      EXPECT_EQ(form_->allows(id), masked) << "id " << id;
      if (masked) ids.push_back(id);
    }
    return ids;
  }

  using Ids = std::vector<uint32_t>;
  Pieces pieces_;
  std::optional<ReplyForm> form_;
};

TEST_F(ReplyFormTest, EverythingButTheEndMayComeBeforeItBegins) {
  EXPECT_EQ(allowed(), (Ids{0, 1, 2, 3, 4, 5, 6}));
  EXPECT_FALSE(form_->over());
}

TEST_F(ReplyFormTest, TokensFollowTheForm) {
  form_->begin();
  EXPECT_EQ(allowed(), Ids{0});
  form_->push(0);
  EXPECT_EQ(allowed(), Ids{2});
  form_->push(2);
  EXPECT_EQ(allowed(), Ids{3});
  form_->push(3);
  EXPECT_EQ(allowed(), Ids{4});
  form_->push(4);
  EXPECT_EQ(allowed(), Ids{1});
  EXPECT_FALSE(form_->over());
  form_->push(1);
  EXPECT_EQ(allowed(), Ids{kEnd});
  EXPECT_TRUE(form_->over());
}

TEST_F(ReplyFormTest, TokenThatIsNotAllowedChangesNothing) {
  form_->begin();
  form_->push(5);
  form_->push(kEnd);
  form_->push(6);
  EXPECT_EQ(allowed(), Ids{0});
}

}  // namespace
}  // namespace zem
