#pragma once

#include <iosfwd>

#include "StillowClient/TextLayout.hpp"

namespace CLI {
class App;
}

namespace stillow::doctor {

/// Declares the command "doctor" of `app`. When it is given, it runs and leaves its exit status in
/// `status`: 0 if all is well, 1 if something is wrong.
void addDoctorCommand(CLI::App& app, int& status);

struct DoctorOptions {
  bool asJSON = false;
  client::TextStyle style = {};
};

/// Looks at this machine, prints the report on `out` and what is under way on `err`, and gives the
/// exit status. Blocks, for a minute and a half where everything hangs.
[[nodiscard]] int runDoctor(const DoctorOptions& options, std::ostream& out, std::ostream& err);

}  // namespace stillow::doctor
