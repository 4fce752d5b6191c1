// Enumerations stored in files and settings are stored by their raw text. Each enumeration
// lists its texts once, in a specialisation of `EnumTexts`; these two functions do the rest.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace qvn {

// Specialise with `static constexpr std::array<std::pair<E, std::string_view>, N> table`.
template <class E>
struct EnumTexts;

template <class E>
std::string_view enumText(E value) {
  for (const auto& [v, text] : EnumTexts<E>::table)
    if (v == value) return text;
  return {};
}

// None for a text that isn't one of the enumeration's: the caller keeps its default.
template <class E>
std::optional<E> enumFromText(std::string_view text) {
  for (const auto& [v, t] : EnumTexts<E>::table)
    if (t == text) return v;
  return std::nullopt;
}

}  // namespace qvn
