// SPDX-License-Identifier: Apache-2.0
// An environment variable for the length of a scope.
#pragma once

#include <optional>
#include <string>

#include "compat/environment.h"

namespace zemtest {

class ScopedEnv {
 public:
  // A null value unsets the variable.
  ScopedEnv(const char* name, const char* value)
      : name_(name), before_(compat::environmentVariable(name)) {
    set(value);
  }
  ~ScopedEnv() { set(before_ ? before_->c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void set(const char* value) const {
    if (value != nullptr) {
      compat::setEnvironmentVariable(name_.c_str(), value);
    } else {
      compat::unsetEnvironmentVariable(name_.c_str());
    }
  }

  std::string name_;
  std::optional<std::string> before_;
};

}  // namespace zemtest
