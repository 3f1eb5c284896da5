#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <utility>
#include <vector>

#include "PlatformLinuxIPC/ByteBudget.hpp"
#include "PlatformLinuxIPC/JSONRPC.hpp"

namespace stillow::platform {

/// One line that waits to be written: a message, or the answers to a batch.
struct OutgoingLine {
  std::vector<rpc::Text> texts;
  std::vector<ByteBudget::Charge> charges;
  std::size_t callsAnswered = 0;  ///< which are in flight until this begins to be written

  /// With the line feed, and with brackets and commas for a batch.
  [[nodiscard]] static OutgoingLine of(std::vector<rpc::Text> texts, bool isBatch,
                                       std::size_t callsAnswered,
                                       const std::shared_ptr<ByteBudget::Account>& account);
};

/// Lines in the order in which they are to be written. Of pushes only the newest waits, since a
/// status is the whole truth, and it waits where it was put: behind every answer given before it.
class OutgoingQueue {
 public:
  void append(OutgoingLine line) { lines_.push_back(std::move(line)); }
  /// Takes the place of the push that waits, if there is one.
  void appendPush(OutgoingLine line);

  [[nodiscard]] bool empty() const noexcept { return lines_.empty(); }
  /// The first lines, at least one and about `textsMax` texts. Only of a queue that is not empty.
  [[nodiscard]] std::vector<OutgoingLine> take(std::size_t textsMax);
  void clear();

 private:
  std::list<OutgoingLine> lines_;
  std::list<OutgoingLine>::iterator push_ = lines_.end();  ///< the push that waits, else the end
};

}  // namespace stillow::platform
