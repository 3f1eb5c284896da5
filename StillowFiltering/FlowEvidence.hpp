#pragma once

#include <optional>
#include <string_view>

#include "StillowFiltering/FlowAddress.hpp"

namespace stillow::filtering {

/// What a system's own flow object says about the far end; whatever it does not know is empty.
struct FlowDescription {
  std::string_view urlHost;          ///< host of the URL that the flow was opened for
  std::string_view remoteHostname;   ///< the name that the socket was asked to connect to
  std::string_view endpointName;     ///< the remote endpoint's host, when that is a name
  std::string_view endpointAddress;  ///< the remote endpoint's host, when that is an IP address

  /// Takes the remote endpoint's host as the system prints it, name or address.
  void setEndpoint(std::string_view host) noexcept;
};

/// What a flow carries that tells where it goes. Made for one question: the name is a view and has
/// to live as long as the evidence.
struct FlowEvidence {
  std::optional<std::string_view> remoteHostname;  ///< in any letter case; never empty
  std::optional<FlowAddress> remoteAddress;

  /// The first name that is not empty, in the order of the fields of `description`.
  [[nodiscard]] static FlowEvidence of(const FlowDescription& description) noexcept;
};

}  // namespace stillow::filtering
