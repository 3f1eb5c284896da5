#include "StillowFiltering/EnforcementDirectiveStore.hpp"

#include <utility>

#include "StillowCore/Coding.hpp"

namespace stillow::filtering {

namespace {

bool skip(std::string_view& bytes, std::string_view expected) {
  if (!bytes.starts_with(expected)) return false;
  bytes.remove_prefix(expected.size());
  return true;
}

/// Skips the field of a directive that holds `scope`. False where the text differs from the one
/// that the encoder writes, or where that would have to escape something.
bool skipScope(std::string_view& bytes, const core::Scope& scope) {
  const std::string generation = std::to_string(scope.generation);
  if (!skip(bytes, R"({"scope":{"generation":)") || !skip(bytes, generation) ||
      !skip(bytes, R"(,"domains":[)")) {
    return false;
  }
  for (std::size_t index = 0; index < scope.domains.size(); ++index) {
    if (index > 0 && !skip(bytes, ",")) return false;
    const core::Domain& domain = scope.domains.begin()[index];
    if (!skip(bytes, "\"") || !skip(bytes, domain.name()) || !skip(bytes, "\"")) return false;
  }
  return skip(bytes, "]},");
}

}  // namespace

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
  const std::scoped_lock guard(lock_);
  if (auto directive = decodeWithLastScope(**bytes)) return std::move(*directive);
  auto directive = core::decode<EnforcementDirective>(**bytes);
  if (!directive) {
    return std::unexpected(EnforcementDirectiveError{"Could not decode " + file_.path() + ": " +
                                                     core::describe(directive.error())});
  }
  lastScope_ = directive->scope;
  return std::move(*directive);
}

/// None where anything is not exactly as `publish` writes it: then all of it has to be decoded.
std::optional<EnforcementDirective> FileEnforcementDirectiveStore::decodeWithLastScope(
    std::string_view bytes) const {
  if (!lastScope_ || !skipScope(bytes, *lastScope_)) return std::nullopt;
  auto directive = core::decode<EnforcementDirective>("{" + std::string(bytes));
  // A second Scope would count for nothing, but whether it is one has to be judged.
  if (!directive || directive->scope) return std::nullopt;
  directive->scope = lastScope_;
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
