#pragma once

#include <expected>
#include <string>

namespace stillow::authority {

/// Takes the content filter out of the system for good.
class ContentFilterRemoving {
 public:
  virtual ~ContentFilterRemoving() = default;
  /// Success too if there was nothing to remove. The error, one sentence without a final stop, is
  /// shown to the person who uninstalls. Blocks.
  [[nodiscard]] virtual std::expected<void, std::string> remove() = 0;

 protected:
  ContentFilterRemoving() = default;
  ContentFilterRemoving(const ContentFilterRemoving&) = default;
  ContentFilterRemoving& operator=(const ContentFilterRemoving&) = default;
};

}  // namespace stillow::authority
