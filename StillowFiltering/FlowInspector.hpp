#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <variant>

#include "StillowCore/Date.hpp"
#include "StillowCore/UUID.hpp"
#include "StillowFiltering/FlowClassifier.hpp"
#include "StillowFiltering/Wire/FlowNameReader.hpp"
#include "StillowFiltering/Wire/QUICInitialReader.hpp"

namespace stillow::filtering {

/// Decides about flows for a system that shows each as an object of its own, asks about it when it
/// begins, and shows the bytes that it sends for as long as it is inspected.
///
/// A flow without evidence is inspected until its reader knows the name or knows that none can
/// come, and for EvidenceBoundedPolicy::inspectionBytesMax bytes at most. Its bytes pass meanwhile:
/// a server cannot answer half a hello, and its peer's answer is what brings the rest.
///
/// Memory is bounded whatever happens: `heldFlowsMax` readers of 5 KiB, each for `heldLifetime` at
/// most. A flow that loses its place is decided as it stands, without a name.
///
/// Every operation may be called from any thread.
class FlowInspector {
 public:
  static constexpr std::size_t heldFlowsMax = 1024;
  static constexpr std::chrono::seconds heldLifetime{30};

  /// What the bytes of a flow are.
  enum class Transport : std::uint8_t {
    stream,     ///< TCP
    datagrams,  ///< UDP
    other,      ///< nothing that a name could be read from
  };

  /// When a flow is judged: by the wall for the directive, steady for how long it is held.
  struct Moment {
    core::Date date;
    std::chrono::steady_clock::time_point steady;
  };

  /// `classifier` has to outlive the inspector.
  explicit FlowInspector(FlowClassifier& classifier) : classifier_(classifier) {}
  FlowInspector(const FlowInspector&) = delete;
  FlowInspector& operator=(const FlowInspector&) = delete;

  /// A new flow. If the answer is inspection, its outbound bytes are to be shown, `peekBytes` of
  /// them at most before the next answer.
  [[nodiscard]] FlowDisposition begin(const core::UUID& flow, Transport transport,
                                      const FlowEvidence& evidence, Moment now);

  /// The next bytes of a flow under inspection, `offset` bytes into it; of datagrams one at a time.
  /// If the answer is inspection they may pass, and `peekBytes` more are to be shown.
  [[nodiscard]] FlowDisposition showOutbound(const core::UUID& flow, std::uint64_t offset,
                                             WireBytes bytes, Moment now);

  /// Nothing follows the bytes that were shown.
  [[nodiscard]] FlowDisposition endOutbound(const core::UUID& flow, Moment now);

  [[nodiscard]] std::size_t heldCount() const;

 private:
  struct Held {
    core::UUID flow;
    std::optional<FlowAddress> address;
    std::chrono::steady_clock::time_point since;
    std::variant<FlowNameReader, QUICInitialReader> reader;
  };
  using HeldFlows = std::list<Held>;  // oldest first

  // The caller of these holds the lock.
  void expire(Moment now);
  void decideAsItStands(HeldFlows::iterator held, core::Date now);
  void forget(HeldFlows::iterator held);

  FlowClassifier& classifier_;
  mutable std::mutex lock_;
  QUICInitialCrypto crypto_;
  HeldFlows held_;
  std::unordered_map<core::UUID, HeldFlows::iterator> index_;
};

}  // namespace stillow::filtering
