#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <optional>
#include <tuple>
#include <variant>

#include "StillowCore/Coding.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/EnforcementReadinessReport.hpp"
#include "StillowIPC/Requests.hpp"

/// std::hash of the wire records. It follows from the description that their coding follows from,
/// so a field that is sent is a field that is hashed.
namespace stillow::ipc {

template <class T>
concept HashableByItself = requires(const T& value) {
  { std::hash<T>{}(value) } -> std::convertible_to<std::size_t>;
};

/// Of a value that has no hash of its own, from its description or its elements.
struct DescribedHash {
  template <class T>
  std::size_t operator()(const T& value) const {
    if constexpr (core::coding::IsOptional<T>::value) {
      return value ? 1 + ofPart(*value) : 0;
    } else if constexpr (core::coding::Record<T>) {
      return ofFields(value, core::Coding<T>::fields);
    } else if constexpr (core::coding::Sum<T>) {
      std::size_t seed = value.cases.index();
      std::apply([&](const auto&... described) { (mixIfHeld(seed, value, described), ...); },
                 core::Coding<T>::cases);
      return seed;
    } else {
      std::size_t seed = 0;
      for (const auto& element : value) core::hashInto(seed, ofPart(element));
      return seed;
    }
  }

 private:
  template <class T>
  static std::size_t ofPart(const T& part) {
    if constexpr (HashableByItself<T>) {
      return std::hash<T>{}(part);
    } else {
      return DescribedHash{}(part);
    }
  }
  template <class Owner, class... Fields>
  static std::size_t ofFields(const Owner& owner, const std::tuple<Fields...>& fields) {
    std::size_t seed = 0;
    std::apply(
        [&](const auto&... field) { (core::hashInto(seed, ofPart(owner.*(field.member))), ...); },
        fields);
    return seed;
  }
  template <class T, class Described>
  static void mixIfHeld(std::size_t& seed, const T& value, const Described& described) {
    const auto* const held = std::get_if<typename Described::Type>(&value.cases);
    if (held != nullptr) core::hashInto(seed, ofFields(*held, described.fields));
  }
};

}  // namespace stillow::ipc

template <>
struct std::hash<stillow::ipc::ActivationRequest> : stillow::ipc::DescribedHash {};
template <>
struct std::hash<stillow::ipc::ExtensionRequest> : stillow::ipc::DescribedHash {};
template <>
struct std::hash<stillow::ipc::ScopeAddition> : stillow::ipc::DescribedHash {};
template <>
struct std::hash<stillow::ipc::DaemonStatus> : stillow::ipc::DescribedHash {};
template <>
struct std::hash<stillow::ipc::CommitmentStatus> : stillow::ipc::DescribedHash {};
template <>
struct std::hash<stillow::ipc::ActiveCommitmentStatus> : stillow::ipc::DescribedHash {};
template <>
struct std::hash<stillow::ipc::EnforcementReadinessReport> : stillow::ipc::DescribedHash {};
template <>
struct std::hash<stillow::ipc::ActivationValidationRefusal> : stillow::ipc::DescribedHash {};
