/// Whether a requirement compiles, where the system has no compiler for it: macOS has one.
#include "StillowIPC/CodeRequirementLanguage.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"

namespace stillow::ipc {

bool CodeSigningRequirement::isValid() const { return compileCodeRequirement(text).has_value(); }

}  // namespace stillow::ipc
