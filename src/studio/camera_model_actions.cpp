// CameraModel: the one entry of keys and menu items.
#include "studio/camera_model.h"

namespace qvn {

namespace {

template <class... F>
struct Cases : F... {
  using F::operator()...;
};

}  // namespace

bool CameraModel::perform(const QvnKeyAction& action) {
  return std::visit(Cases{
                        [&](const InputKey& key) {
                          selectCamera(key.slot);
                          return true;
                        },
                        [&](const CycleKey& key) {
                          if (studioMode())
                            cyclePreview(key.forward);
                          else
                            cycleHero(key.forward);
                          return true;
                        },
                        [&](const SceneKey& key) { return recallSceneForKey(key.functionKey); },
                        [&](const DeckKey& key) { return performDeckAction(key.action); },
                        [&](const CommandKey& key) { return performCommand(key.command); },
                    },
                    action);
}

bool CameraModel::performCommand(QvnKeyCommand command) {
  const auto hero = heroSlot();
  switch (command) {
    case QvnKeyCommand::none:
      return false;
    case QvnKeyCommand::take:
      takePreview(mixTransition());
      break;
    case QvnKeyCommand::cut:
      takePreview(MixTransition::instant);
      break;
    case QvnKeyCommand::still:
      captureStill(hero ? hero->index : 0);
      break;
    case QvnKeyCommand::allStills:
      captureAllStills();
      break;
    case QvnKeyCommand::record:
      toggleRecording();
      break;
    case QvnKeyCommand::swap:
      swapPiP();
      break;
    case QvnKeyCommand::mute:
      if (hero) setSourceMuted(*hero, !audioMuted(*hero));
      break;
    case QvnKeyCommand::flip:
      if (hero) flip(hero->index);
      break;
  }
  return true;
}

}  // namespace qvn
