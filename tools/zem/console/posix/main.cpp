// SPDX-License-Identifier: Apache-2.0
#include "console/program.h"

int main(int argc, char** argv) {
  return zemtool::programMain(std::vector<std::string>(argv, argv + argc));
}
