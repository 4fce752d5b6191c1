// One line of the Go Live sheet's checklist.
#pragma once

#include <string>

namespace qvn {

struct GoLiveCheck {
  enum class State { pending, running, passed, failed };
  std::string id;
  std::string title;
  State state = State::pending;
  std::string detail;
  bool operator==(const GoLiveCheck&) const = default;
};

}  // namespace qvn
