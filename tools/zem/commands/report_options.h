// SPDX-License-Identifier: Apache-2.0
// Options of benchmarks: how often they measure, and the form of the report.
#pragma once

#include <string>

#include "commands/arguments.h"

namespace zemtool {

struct ReportOptions {
  int repetitions = 5;
  bool roofline = false;
  std::string format = "md";
};

// -r, --roofline and -o.
void addReportOptions(Command& command, ReportOptions& options);

}  // namespace zemtool
