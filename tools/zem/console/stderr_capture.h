// What the process writes to standard error, overheard on its way.
#pragma once

#include <memory>
#include <string>

namespace compat {

// While one lives, all that anybody in the process or a child of it writes to
// standard error is kept, and passed on at once and unchanged to where standard
// error led before. One at a time.
//
// Meanwhile standard error is no terminal, what was written in the last moments
// before a crash may be lost, and a child that outlives this object writes to
// nobody afterwards: keep its life short.
class StderrTap {
 public:
  // Throws std::system_error when the system refuses a descriptor or a thread.
  StderrTap();
  ~StderrTap();
  StderrTap(const StderrTap&) = delete;
  StderrTap& operator=(const StderrTap&) = delete;

  // Puts standard error back, after the last byte was passed on. Returns all
  // that was written from the construction to the first call.
  const std::string& finish();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace compat
