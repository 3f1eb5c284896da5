#include "StillowClient/Console.hpp"

#include <ostream>

namespace stillow::client {

void Console::say(std::string_view text) const {
  out << wrapped(text, outStyle().columns) << '\n' << std::flush;
}

void Console::tell(std::string_view text) const {
  err << wrapped(text, errStyle().columns) << '\n' << std::flush;
}

void Console::print(std::string_view text) const { out << text << '\n' << std::flush; }

}  // namespace stillow::client
