// What a key or a menu item asks of the studio: one of five kinds, each with its payload.
#pragma once

#include <variant>

namespace qvn {

enum class QvnKeyCommand { none, take, cut, still, allStills, record, swap, mute, flip };
enum class QvnDeckAction { previous, next, first, last, playPause, seekBack, seekForward, mute };

struct InputKey {
  int slot = 0;
};
struct CycleKey {
  bool forward = true;
};
struct SceneKey {
  int functionKey = 0;
};
struct DeckKey {
  QvnDeckAction action = QvnDeckAction::playPause;
};
struct CommandKey {
  QvnKeyCommand command = QvnKeyCommand::none;
};

using QvnKeyAction = std::variant<InputKey, CycleKey, SceneKey, DeckKey, CommandKey>;

}  // namespace qvn
