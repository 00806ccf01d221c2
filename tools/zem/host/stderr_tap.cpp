#include "host/stderr_tap.h"

#include <system_error>

#include "console/terminal.h"

namespace zemtool {

StderrTap::StderrTap() {
  try {
    tap_.emplace();
  } catch (const std::system_error& error) {
    throw Failure("cannot listen to standard error: " + error.code().message());
  }
}

}  // namespace zemtool
