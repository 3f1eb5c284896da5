#include "Privileges.hpp"

#include <array>
#include <cerrno>

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace stillow::filter {

namespace {

constexpr int keptCapability = CAP_NET_ADMIN;

std::unexpected<std::error_code> lastError() {
  return std::unexpected(std::error_code(errno, std::generic_category()));
}

using CapabilitySets = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

/// glibc has no wrappers for the two calls.
bool readCapabilities(CapabilitySets& sets) noexcept {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  return ::syscall(SYS_capget, &header, sets.data()) == 0;
}

bool writeCapabilities(const CapabilitySets& sets) noexcept {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  return ::syscall(SYS_capset, &header, sets.data()) == 0;
}

}  // namespace

std::expected<void, std::error_code> dropPrivileges() {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return lastError();
  // The bounding set first, while the capability to change it is still there. Without it a service
  // manager has limited the set already.
  for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
    if (capability == keptCapability) continue;
    if (::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 && errno != EPERM) return lastError();
  }
  CapabilitySets sets{};
  if (!readCapabilities(sets)) return lastError();
  constexpr auto word = static_cast<std::size_t>(keptCapability) / 32;
  constexpr auto bit = 1U << (static_cast<unsigned>(keptCapability) % 32);
  const auto kept = sets[word].permitted & bit;
  sets = {};
  sets[word].permitted = sets[word].effective = kept;
  if (!writeCapabilities(sets)) return lastError();
  return {};
}

}  // namespace stillow::filter
