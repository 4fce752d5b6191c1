// Overlay documents as the studio steers them: on or off, and pushed to the mix.
#pragma once

namespace qvn {

class OverlayStore {
 public:
  virtual ~OverlayStore() = default;
  // Whether overlays show on the bus being edited; a change pushes them to the mix.
  virtual bool enabled() const = 0;
  virtual void setEnabled(bool enabled) = 0;
  // Studio style keeps one document per bus; these say which is edited, and that a take
  // made both buses show the same.
  virtual void setStudioMode(bool on) = 0;
  virtual void setEditProgram(bool on) = 0;
  virtual void didTake() = 0;
  virtual void pushToMix(bool rerender) = 0;
  // Turns the lower third and logo of older versions into overlay documents, once.
  virtual void migrateLegacyOverlaysIfNeeded() = 0;
};

class OverlayStoreNotYetAvailable final : public OverlayStore {
 public:
  bool enabled() const override { return enabled_; }
  void setEnabled(bool enabled) override { enabled_ = enabled; }
  void setStudioMode(bool) override {}
  void setEditProgram(bool) override {}
  void didTake() override {}
  void pushToMix(bool) override {}
  void migrateLegacyOverlaysIfNeeded() override {}

 private:
  bool enabled_ = false;
};

}  // namespace qvn
