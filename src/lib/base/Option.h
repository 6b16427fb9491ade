#pragma once

#include <optional>

// An optional value. std::optional already is what we need; the alias keeps
// the vocabulary of the code base in one word.
template <typename T>
using Option = std::optional<T>;

inline constexpr std::nullopt_t None = std::nullopt;
