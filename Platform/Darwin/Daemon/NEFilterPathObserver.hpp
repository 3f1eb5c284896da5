#pragma once

#include <memory>

#include "StillowAuthority/FilterPathObserving.hpp"

namespace stillow::platform {

/// Tells when the content-filter configuration was changed, by whomever. Of the filter's own
/// process the system tells nobody: it starts one that has ended anew by itself.
class NEFilterPathObserver final : public authority::FilterPathObserving {
 public:
  NEFilterPathObserver();
  ~NEFilterPathObserver() override;
  NEFilterPathObserver(const NEFilterPathObserver&) = delete;
  NEFilterPathObserver& operator=(const NEFilterPathObserver&) = delete;

  [[nodiscard]] concurrency::Channel<authority::FilterPathObservation> observations() override;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace stillow::platform
