#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace stillow::client {

/// Some lines at the end of a terminal that are rewritten in place, below others that stay. Makes
/// the bytes to write and remembers what is on the screen; writes nothing itself.
///
/// The cursor is hidden while the area is shown, and stays at the end of its last line.
class LiveArea {
 public:
  /// Puts `lines` in the place of what was shown. `columns` is the terminal's present width: when
  /// it was made narrower, lines that were shown have become several.
  [[nodiscard]] std::string show(std::vector<std::string> lines, std::size_t columns);
  /// Puts `text`, of whole lines, above the area, which has to be shown again after it.
  [[nodiscard]] std::string print(std::string_view text, std::size_t columns);
  /// Leaves what is shown where it is, with the cursor visible below it. Harmless when repeated.
  [[nodiscard]] std::string leave();

 private:
  [[nodiscard]] std::string erase(std::size_t columns);

  std::vector<std::string> shown_;
  bool hidesCursor_ = false;
};

}  // namespace stillow::client
