#pragma once

#include <functional>
#include <iosfwd>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/Coding.hpp"

namespace stillow::client {

/// How the program ends; listed in its help.
enum class ExitStatus : int {
  success = 0,
  refused = 1,      ///< the daemon said no, in its own words; or its test of the block failed
  usage = 2,        ///< bad input; nothing was changed
  unreachable = 3,  ///< no answer from the daemon
  declined = 4,     ///< nobody said yes
  collection = 5,   ///< the file with the user's sites could not be read or written
};

/// The three streams, and what they lead to. Results go to `out`; progress, questions and refusals
/// to `err`. The styles are asked for anew each time: a window can change its size.
struct Console {
  using StyleSource = std::function<TextStyle()>;

  std::istream& in;
  std::ostream& out;
  std::ostream& err;
  /// A person can answer on `in`: it is a terminal.
  bool canAnswer = false;
  /// The cursor of `out` may be moved about.
  bool canRewrite = false;
  StyleSource outStyle = [] { return TextStyle{}; };
  StyleSource errStyle = [] { return TextStyle{}; };

  /// One line or more, wrapped, with a line end.
  void say(std::string_view text) const;
  /// Likewise on `err`.
  void tell(std::string_view text) const;
  /// JSON, or anything else that must not be wrapped, with a line end.
  void print(std::string_view text) const;
  /// Its JSON: every record that is shown came out of JSON, or is made of strings and finite
  /// numbers.
  template <class Record>
  void printRecord(const Record& record) const {
    print(core::encode(record).value_or(""));
  }
};

}  // namespace stillow::client
