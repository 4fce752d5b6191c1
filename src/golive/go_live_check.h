// One line of the Go Live sheet's checklist.
#pragma once

#include <string>

namespace qvn {

struct GoLiveCheck {
  enum class State { waiting, running, passed, failed };
  std::string id;
  std::string title;
  State state = State::waiting;
  std::string detail;
  bool operator==(const GoLiveCheck&) const = default;
};

// The size and rate Program is planned to go out at.
struct QvnOutputInfo {
  int width = 1920, height = 1080, fps = 30;
  bool operator==(const QvnOutputInfo&) const = default;
};

}  // namespace qvn
