#pragma once

#include <cstdint>

#include "StillowCore/Coding.hpp"

namespace stillow::ipc {

/// The operations of the client protocol, in the order of its methods.
enum class DaemonOperation : std::uint8_t {
  status,
  activate,
  strengthen,
  extend,
  subscribeToStatusChanges,
  validateEnforcement,
  acknowledgeExpiry,
  armFilterConfiguration,
  announceUserInterface,
};

}  // namespace stillow::ipc

template <>
struct stillow::core::Coding<stillow::ipc::DaemonOperation> {
  using Operation = ipc::DaemonOperation;
  static constexpr std::string_view typeName = "DaemonOperation";
  static constexpr auto names =
      coding::namesOf<Operation>({{Operation::status, "status"},
                                  {Operation::activate, "activate"},
                                  {Operation::strengthen, "strengthen"},
                                  {Operation::extend, "extend"},
                                  {Operation::subscribeToStatusChanges, "subscribeToStatusChanges"},
                                  {Operation::validateEnforcement, "validateEnforcement"},
                                  {Operation::acknowledgeExpiry, "acknowledgeExpiry"},
                                  {Operation::armFilterConfiguration, "armFilterConfiguration"},
                                  {Operation::announceUserInterface, "announceUserInterface"}});
};
