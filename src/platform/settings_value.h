// The typed values of the settings store: boolean, integer, real, text, bytes, list and
// dictionary, kept apart so that what was stored as one type never reads back as another.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace qvn {

struct SettingsValue;
using SettingsBytes = std::vector<std::uint8_t>;
using SettingsList = std::vector<SettingsValue>;
using SettingsDict = std::map<std::string, SettingsValue>;

struct SettingsValue {
  using Variant = std::variant<bool, std::int64_t, double, std::string, SettingsBytes, SettingsList,
                               SettingsDict>;
  Variant value;

  SettingsValue() : value(false) {}
  SettingsValue(bool v) : value(v) {}
  SettingsValue(int v) : value(std::int64_t{v}) {}
  SettingsValue(std::int64_t v) : value(v) {}
  SettingsValue(double v) : value(v) {}
  SettingsValue(float v) : value(double{v}) {}
  SettingsValue(const char* v) : value(std::string(v)) {}
  SettingsValue(std::string v) : value(std::move(v)) {}
  SettingsValue(SettingsBytes v) : value(std::move(v)) {}
  SettingsValue(SettingsList v) : value(std::move(v)) {}
  SettingsValue(SettingsDict v) : value(std::move(v)) {}

  // Typed reads. Each answers only for its own type, except `asReal`, which also reads an
  // integer (a real stored without a fraction is still a real).
  std::optional<bool> asBool() const;
  std::optional<std::int64_t> asInt() const;
  std::optional<double> asReal() const;
  std::optional<std::string> asText() const;
  std::optional<SettingsBytes> asBytes() const;
  const SettingsList* asList() const;
  const SettingsDict* asDict() const;

  bool operator==(const SettingsValue&) const = default;
};

}  // namespace qvn
