#include "StillowClient/LiveArea.hpp"

#include <utility>

#include "StillowClient/TextLayout.hpp"

namespace stillow::client {

namespace {

constexpr std::string_view hideCursor = "\x1b[?25l";
constexpr std::string_view showCursor = "\x1b[?25h";
constexpr std::string_view eraseBelow = "\x1b[J";

std::size_t rowsOf(const std::string& line, std::size_t columns) {
  const std::size_t width = displayWidth(line);
  return columns == 0 || width <= columns ? 1 : (width + columns - 1) / columns;
}

}  // namespace

std::string LiveArea::erase(std::size_t columns) {
  if (shown_.empty()) return "";
  std::size_t rows = 0;
  for (const std::string& line : shown_) rows += rowsOf(line, columns);
  shown_.clear();
  std::string bytes = "\r";
  if (rows > 1) bytes += "\x1b[" + std::to_string(rows - 1) + "A";
  return bytes + std::string(eraseBelow);
}

std::string LiveArea::show(std::vector<std::string> lines, std::size_t columns) {
  std::string bytes = erase(columns);
  if (!std::exchange(hidesCursor_, true)) bytes += hideCursor;
  for (std::size_t index = 0; index < lines.size(); ++index) {
    if (index != 0) bytes += "\r\n";
    bytes += lines[index];
  }
  shown_ = std::move(lines);
  return bytes;
}

std::string LiveArea::print(std::string_view text, std::size_t columns) {
  return erase(columns) + std::string(text);
}

std::string LiveArea::leave() {
  std::string bytes;
  if (!shown_.empty()) bytes += "\r\n";
  shown_.clear();
  if (std::exchange(hidesCursor_, false)) bytes += showCursor;
  return bytes;
}

}  // namespace stillow::client
