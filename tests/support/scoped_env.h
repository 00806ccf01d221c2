// An environment variable for the length of a scope.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace zemtest {

class ScopedEnv {
 public:
  // A null value unsets the variable.
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* before = std::getenv(name)) before_ = before;
    set(value);
  }
  ~ScopedEnv() { set(before_ ? before_->c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void set(const char* value) const {
    if (value != nullptr) {
      setenv(name_.c_str(), value, 1);
    } else {
      unsetenv(name_.c_str());
    }
  }

  std::string name_;
  std::optional<std::string> before_;
};

}  // namespace zemtest
