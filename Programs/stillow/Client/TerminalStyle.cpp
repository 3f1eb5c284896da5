#include "StillowClient/TerminalStyle.hpp"

#include <cstdlib>

#include <sys/ioctl.h>
#include <unistd.h>

namespace stillow::client {

TextStyle terminalStyle(int descriptor) {
  TextStyle style;
  if (::isatty(descriptor) != 1) return style;
  style.showsBar = true;
  style.hasColour = wantsColour(true, std::getenv("NO_COLOR"), std::getenv("TERM"));
  // A terminal that does not say how wide it is gets what terminals always were.
  style.columns = 80;
  style.rows = 24;
  winsize size{};
  if (::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    style.columns = size.ws_col;
    style.rows = size.ws_row;
  }
  return style;
}

}  // namespace stillow::client
