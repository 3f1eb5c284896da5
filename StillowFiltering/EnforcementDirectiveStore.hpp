#pragma once

#include <cstddef>
#include <expected>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "StillowCore/Scope.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"
#include "StillowFiltering/Storage/DurableFile.hpp"

namespace stillow::filtering {

/// Why a directive could not be written or read. Every cause is handled alike, so there is only a
/// text for the log.
struct EnforcementDirectiveError {
  std::string description;

  friend bool operator==(const EnforcementDirectiveError&,
                         const EnforcementDirectiveError&) = default;
};

class EnforcementDirectivePublishing {
 public:
  virtual ~EnforcementDirectivePublishing() = default;

  /// Makes `directive` the current one, for good: it survives a power cut. On an error the one
  /// before may still be current. May block on the disk. One call at a time, from whichever thread.
  [[nodiscard]] virtual std::expected<void, EnforcementDirectiveError> publish(
      const EnforcementDirective& directive) = 0;
};

class EnforcementDirectiveReading {
 public:
  virtual ~EnforcementDirectiveReading() = default;

  /// The current directive; none where nothing was ever published, which is no error. From any
  /// thread.
  [[nodiscard]] virtual std::expected<std::optional<EnforcementDirective>,
                                      EnforcementDirectiveError>
  read() = 0;
};

/// The directive as one JSON file, the only channel between the daemon and the filter.
///
/// A reader finds the old file or the new, never a part of one. The file has mode 0600, and a
/// directory that has to be made 0700.
///
/// A Scope that is still the one of the last `read` is recognised by its text and not decoded
/// again: with a million domains a probe that comes or goes would otherwise hold up the packets of
/// a second. The directive then shares the domains of the one before.
class FileEnforcementDirectiveStore final : public EnforcementDirectivePublishing,
                                            public EnforcementDirectiveReading {
 public:
  static constexpr std::string_view fileName = "enforcement-directive.json";

  /// Larger than anything that is published: a Scope at its capacity with each byte of its names
  /// escaped, plus three signs per name, plus the rest of the record.
  static constexpr std::size_t fileBytesMax =
      6 * core::ScopeCapacity::nameBytesMax + 3 * core::ScopeCapacity::domainsMax + 4096;

  /// `path` is absolute. `fileSystem` has to outlive the store.
  FileEnforcementDirectiveStore(FileSystem& fileSystem, std::string path);

  [[nodiscard]] std::expected<void, EnforcementDirectiveError> publish(
      const EnforcementDirective& directive) override;
  [[nodiscard]] std::expected<std::optional<EnforcementDirective>, EnforcementDirectiveError> read()
      override;

 private:
  [[nodiscard]] std::optional<EnforcementDirective> decodeWithLastScope(
      std::string_view bytes) const;

  DurableFile file_;
  std::mutex lock_;
  std::optional<core::Scope> lastScope_;
};

/// For where no file system is wanted.
class InMemoryEnforcementDirectiveStore final : public EnforcementDirectivePublishing,
                                                public EnforcementDirectiveReading {
 public:
  [[nodiscard]] std::expected<void, EnforcementDirectiveError> publish(
      const EnforcementDirective& directive) override;
  [[nodiscard]] std::expected<std::optional<EnforcementDirective>, EnforcementDirectiveError> read()
      override;

  /// Every directive published, oldest first.
  [[nodiscard]] std::vector<EnforcementDirective> history() const;

 private:
  mutable std::mutex lock_;
  std::optional<EnforcementDirective> directive_;
  std::vector<EnforcementDirective> history_;
};

}  // namespace stillow::filtering
