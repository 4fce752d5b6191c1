// Overlay documents as the studio steers them: on or off, and pushed to the mix.
#pragma once

namespace qvn {

class OverlayStore {
 public:
  virtual ~OverlayStore() = default;
  virtual void setEnabled(bool enabled) = 0;
  virtual void pushToMix(bool rerender) = 0;
  // Turns the lower third and logo of older versions into overlay documents, once.
  virtual void migrateLegacyOverlaysIfNeeded() = 0;
};

class OverlayStoreNotYetAvailable final : public OverlayStore {
 public:
  void setEnabled(bool) override {}
  void pushToMix(bool) override {}
  void migrateLegacyOverlaysIfNeeded() override {}
};

}  // namespace qvn
