#pragma once

#include <cstddef>
#include <memory>

#include "StillowAuthority/ProjectionInvalidationSource.hpp"

namespace stillow::platform {

/// Tells of a system clock that was set and of a time zone that was chosen anew, as the process's
/// notification center is told.
class SystemProjectionInvalidationSource final : public authority::ProjectionInvalidationSource {
 public:
  /// Of a reader that does not come the newest are kept: each asks for the same.
  static constexpr std::size_t pendingMax = 16;

  SystemProjectionInvalidationSource();
  /// Ends every stream.
  ~SystemProjectionInvalidationSource() override;
  SystemProjectionInvalidationSource(const SystemProjectionInvalidationSource&) = delete;
  SystemProjectionInvalidationSource& operator=(const SystemProjectionInvalidationSource&) = delete;

  [[nodiscard]] concurrency::Channel<authority::ProjectionInvalidation> invalidations() override;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace stillow::platform
