// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "zem/commands/cli_support.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

nlohmann::json probeJson(const std::string& path) {
  const ProcessResult result = zem({"plugin", "probe", path, "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return nlohmann::json::parse(result.out);
}

TEST(Probe, PrintsTheVerdict) {
  const TempFolder folder;
  const ProcessResult result =
      zem({"plugin", "probe", folder.write("good.zem", smallContainer().build())});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "  runtime       fake-id\n"
            "  confidence    77\n"
            "  architecture  fake-arch\n"
            "  backend       vulkan\n"
            "  reason        it suits\n");
}

TEST(Probe, JsonHasTheSameFields) {
  const TempFolder folder;
  const auto json = probeJson(folder.write("good.zem", smallContainer().build()));
  EXPECT_EQ(json["confidence"], 77);
  EXPECT_EQ(json["architecture"], "fake-arch");
  EXPECT_EQ(json["backend"], "vulkan");
  EXPECT_EQ(json["reason"], "it suits");
}

TEST(Probe, ConfidenceZeroIsAnAnswerWithAReason) {
  const TempFolder folder;
  const auto reason = [&](const std::string& name, const Bytes& bytes) {
    const auto json = probeJson(folder.write(name, bytes));
    EXPECT_EQ(json["confidence"], 0);
    return json["reason"].get<std::string>();
  };
  const Bytes sound = smallContainer().build();
  EXPECT_THAT(reason("m.bin", sound), HasSubstr("does not end in \".zem\""));
  EXPECT_THAT(reason("m.ZEM", sound), HasSubstr("does not end in \".zem\""));
  EXPECT_THAT(reason("m.zem", sound), HasSubstr("no usable Vulkan device"));
  EXPECT_EQ(reason("m.zem", Bytes(100)), "ZEM2: bad magic");
  EXPECT_EQ(reason("m.zem", {}), "ZEM2: cannot stat file");
  EXPECT_EQ(reason("m.zem", ContainerBuilder().noTokenizer().build()),
            "ZEMLoader: no tokenizer section");
  EXPECT_EQ(reason("m.zem", ContainerBuilder().build()),
            "its metadata has no general.architecture");
  EXPECT_EQ(reason("m.zem", ContainerBuilder().addMetaStr("general.architecture", "x\n").build()),
            "its architecture is \"x\n\"");
}

TEST(Probe, ReasonsFromAFileAreEscaped) {
  const TempFolder folder;
  const std::string path = folder.write(
      "m.zem", ContainerBuilder().addMetaStr("general.architecture", "x\x1b[2J").build());
  EXPECT_THAT(zem({"plugin", "probe", path}).out, HasSubstr("\"x\\x1b[2J\""));
}

TEST(Probe, AFileThatCannotBeReadIsAFailure) {
  const TempFolder folder;
  for (const std::string& path : {folder.path("missing.zem"), folder.path("")}) {
    const ProcessResult result = zem({"plugin", "probe", path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, AllOf(HasSubstr("zem: cannot read"), HasSubstr(path)));
  }
}

}  // namespace
}  // namespace zemtest
