#pragma once

#include <string>

namespace stillow::ipc {

/// Who made a piece of code, as far as its signature proves it.
///
/// An empty text and `false` mean "not proven" and satisfy no requirement, so a default-constructed
/// identity is a stranger's.
struct CodeIdentity {
  /// The name the code was signed under, such as "com.larchmoor.Stillow".
  std::string identifier;
  /// The organizational unit in the subject of the certificate that signed: the developer team.
  std::string leafOrganizationalUnit;
  /// The chain of that certificate was followed to the anchor that is installed with the daemon.
  bool anchorIsTrusted = false;

  friend bool operator==(const CodeIdentity&, const CodeIdentity&) = default;
};

}  // namespace stillow::ipc
