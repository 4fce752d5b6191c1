#include "platform/settings_value.h"

namespace qvn {

namespace {

template <typename T>
std::optional<T> holding(const SettingsValue::Variant& value) {
  if (const T* v = std::get_if<T>(&value)) return *v;
  return std::nullopt;
}

}  // namespace

std::optional<bool> SettingsValue::asBool() const {
  return holding<bool>(value);
}

std::optional<std::int64_t> SettingsValue::asInt() const {
  return holding<std::int64_t>(value);
}

std::optional<double> SettingsValue::asReal() const {
  // A caller asking for a real is content with a whole number; the reverse is never true.
  if (const auto* i = std::get_if<std::int64_t>(&value)) return static_cast<double>(*i);
  return holding<double>(value);
}

std::optional<std::string> SettingsValue::asText() const {
  return holding<std::string>(value);
}

std::optional<SettingsBytes> SettingsValue::asBytes() const {
  return holding<SettingsBytes>(value);
}

const SettingsList* SettingsValue::asList() const {
  return std::get_if<SettingsList>(&value);
}

const SettingsDict* SettingsValue::asDict() const {
  return std::get_if<SettingsDict>(&value);
}

}  // namespace qvn
