// A Sources strip card dragged onto a monitor carries its slot number under this type.
#pragma once

#include <QMimeData>
#include <optional>

namespace qvn::ui {

inline constexpr const char* kSlotMimeType = "application/x-quorvane-slot";

inline QMimeData* slotMime(int slot) {
  auto* mime = new QMimeData;
  mime->setData(kSlotMimeType, QByteArray::number(slot));
  return mime;
}

inline std::optional<int> slotOf(const QMimeData* mime) {
  if (!mime || !mime->hasFormat(kSlotMimeType)) return std::nullopt;
  bool ok = false;
  const int slot = mime->data(kSlotMimeType).toInt(&ok);
  return ok ? std::optional(slot) : std::nullopt;
}

}  // namespace qvn::ui
