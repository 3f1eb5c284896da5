#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>
#include <variant>

namespace stillow::core {

/// A closed sum type is a struct with nested case structs, `using Cases = std::variant<...>`, one
/// member `Cases cases`, and a converting constructor from each case. These functions read one.

template <class T, class Variant>
struct IsCaseOf : std::false_type {};
template <class T, class... Cases>
struct IsCaseOf<T, std::variant<Cases...>> : std::bool_constant<(std::is_same_v<T, Cases> || ...)> {
};

template <class T, class Variant>
concept CaseOf = IsCaseOf<T, Variant>::value;

template <class T>
concept SumType = requires(const T& sum) {
  typename T::Cases;
  { sum.cases } -> std::convertible_to<const typename T::Cases&>;
};

template <class Case, SumType Sum>
[[nodiscard]] constexpr bool is(const Sum& sum) noexcept {
  return std::holds_alternative<Case>(sum.cases);
}

/// The payload when `sum` is that case, else null. Valid as long as `sum` is not assigned to.
template <class Case, SumType Sum>
[[nodiscard]] constexpr const Case* getIf(const Sum& sum) noexcept {
  return std::get_if<Case>(&sum.cases);
}
template <class Case, SumType Sum>
[[nodiscard]] constexpr Case* getIf(Sum& sum) noexcept {
  return std::get_if<Case>(&sum.cases);
}

template <class... Functions>
struct Overloaded : Functions... {
  using Functions::operator()...;
};

/// Calls the one function that takes the case that `sum` holds; all cases have to be covered.
template <SumType Sum, class... Functions>
constexpr decltype(auto) match(const Sum& sum, Functions&&... functions) {
  return std::visit(Overloaded<std::decay_t<Functions>...>{std::forward<Functions>(functions)...},
                    sum.cases);
}

/// Mixes `value` into `seed` for the std::hash of a record.
template <class T>
constexpr void hashInto(std::size_t& seed, const T& value) {
  seed ^= std::hash<T>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

}  // namespace stillow::core
