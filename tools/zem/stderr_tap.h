// What the process writes to standard error, overheard on its way.
#pragma once

#include <string>
#include <thread>

namespace zemtool {

// An open file descriptor, closed with the object.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }
  void close();
  // Takes over `number`.
  void reset(int number);

 private:
  int number_;
};

// While one lives, all that anybody in the process or a child of it writes to
// standard error is kept, and passed on at once and unchanged to where standard
// error led before. A runtime has no entry that tells what it computes on, but
// it prints it when it opens a model: that is what this is for. One at a time.
//
// Meanwhile standard error is no terminal, what was written in the last moments
// before a crash may be lost, and a child that outlives this object writes to
// nobody afterwards: keep its life short.
class StderrTap {
 public:
  // Throws Failure when the system refuses a descriptor or a thread.
  StderrTap();
  ~StderrTap() { finish(); }
  StderrTap(const StderrTap&) = delete;
  StderrTap& operator=(const StderrTap&) = delete;

  // Puts standard error back, after the last byte was passed on. Returns all
  // that was written from the construction to the first call.
  const std::string& finish();

 private:
  void passOn();
  bool passOnePiece();

  Descriptor real_;   // where standard error led
  Descriptor entry_;  // of the pipe that standard error leads to meanwhile
  Descriptor exit_;
  Descriptor finished_;  // an eventfd
  std::string text_;
  std::thread thread_;
};

}  // namespace zemtool
