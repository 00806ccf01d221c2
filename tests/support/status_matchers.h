// SPDX-License-Identifier: Apache-2.0
// GoogleMock matchers for kiv::Status.
#pragma once

#include <string>

#include "gmock/gmock.h"
#include "kiv/status.h"

namespace zemtest {

// Success, which carries no message.
MATCHER(IsOk, negation ? "is a failure" : "is success") {
  *result_listener << "whose message is \"" << arg.message() << '"';
  return arg.ok() && arg.message().empty();
}

// A failure with the code InvalidFormat and exactly this message.
MATCHER_P(IsInvalidFormat, message,
          "is InvalidFormat with \"" + ::testing::PrintToString(std::string(message)) + '"') {
  *result_listener << "whose message is \"" << arg.message() << '"';
  return arg.code() == kiv::StatusCode::InvalidFormat && arg.message() == message;
}

// A failure with this code and exactly this message.
MATCHER_P2(IsFailure, code, message,
           "has code " + std::to_string(static_cast<int>(code)) + " and the message " +
               ::testing::PrintToString(std::string(message))) {
  *result_listener << "which has code " << static_cast<int>(arg.code()) << " and the message \""
                   << arg.message() << '"';
  return arg.code() == code && arg.message() == message;
}

}  // namespace zemtest
