// SPDX-License-Identifier: Apache-2.0
#include "commands/report_options.h"

namespace zemtool {

void addReportOptions(Command& command, ReportOptions& options) {
  command.option("-r,--repetitions", options.repetitions, "Repetitions (default: 5)")
      .wholeNumber(1, 1000)
      .valueName("N");
  command.flag("--roofline", options.roofline,
               "Measure the memory's read speed too, and the share of it that decoding reaches");
  command.option("-o,--output", options.format, "md, json or csv (default: md)")
      .oneOf({"md", "json", "csv"})
      .valueName("FORMAT");
}

}  // namespace zemtool
