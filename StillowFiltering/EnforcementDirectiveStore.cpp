#include "StillowFiltering/EnforcementDirectiveStore.hpp"

#include <utility>

#include "StillowCore/Coding.hpp"

namespace stillow::filtering {

FileEnforcementDirectiveStore::FileEnforcementDirectiveStore(FileSystem& fileSystem,
                                                             std::string path)
    : file_(fileSystem, std::move(path)) {}

std::expected<void, EnforcementDirectiveError> FileEnforcementDirectiveStore::publish(
    const EnforcementDirective& directive) {
  const auto bytes = core::encode(directive);
  if (!bytes) return std::unexpected(EnforcementDirectiveError{bytes.error().description});
  if (const auto replaced = file_.replace(*bytes); !replaced) {
    return std::unexpected(EnforcementDirectiveError{describe(replaced.error())});
  }
  return {};
}

std::expected<std::optional<EnforcementDirective>, EnforcementDirectiveError>
FileEnforcementDirectiveStore::read() {
  const auto bytes = file_.read(fileBytesMax);
  if (!bytes) return std::unexpected(EnforcementDirectiveError{describe(bytes.error())});
  if (!*bytes) return std::nullopt;
  auto directive = core::decode<EnforcementDirective>(**bytes);
  if (!directive) {
    return std::unexpected(EnforcementDirectiveError{"Could not decode " + file_.path() + ": " +
                                                     core::describe(directive.error())});
  }
  return std::move(*directive);
}

std::expected<void, EnforcementDirectiveError> InMemoryEnforcementDirectiveStore::publish(
    const EnforcementDirective& directive) {
  const std::scoped_lock guard(lock_);
  directive_ = directive;
  history_.push_back(directive);
  return {};
}

std::expected<std::optional<EnforcementDirective>, EnforcementDirectiveError>
InMemoryEnforcementDirectiveStore::read() {
  const std::scoped_lock guard(lock_);
  return directive_;
}

std::vector<EnforcementDirective> InMemoryEnforcementDirectiveStore::history() const {
  const std::scoped_lock guard(lock_);
  return history_;
}

}  // namespace stillow::filtering
