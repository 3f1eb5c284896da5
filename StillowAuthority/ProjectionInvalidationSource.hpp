#pragma once

#include <cstdint>

#include "StillowConcurrency/Channel.hpp"

namespace stillow::authority {

/// Why projected end times, which are wall-clock times, have to be told anew.
enum class ProjectionInvalidation : std::uint8_t { systemClockChanged, timeZoneChanged };

class ProjectionInvalidationSource {
 public:
  virtual ~ProjectionInvalidationSource() = default;
  /// Begins to watch and gives what happens from now on. The stream ends when the source is
  /// destroyed; finishing the channel ends the watching.
  [[nodiscard]] virtual concurrency::Channel<ProjectionInvalidation> invalidations() = 0;

 protected:
  ProjectionInvalidationSource() = default;
  ProjectionInvalidationSource(const ProjectionInvalidationSource&) = default;
  ProjectionInvalidationSource& operator=(const ProjectionInvalidationSource&) = default;
};

}  // namespace stillow::authority
