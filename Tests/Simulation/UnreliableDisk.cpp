#include "UnreliableDisk.hpp"

namespace stillow::simulation {

namespace {

bool isOf(const std::string& path, const char* what) { return path.find(what) != path.npos; }

}  // namespace

void UnreliableDisk::mend() {
  isFull = refusesCheckpoints = refusesDirectives = isUnreadable = hidesCurrent = false;
  callsUntilFailure.reset();
}

std::optional<std::error_code> UnreliableDisk::failure(const std::string& path) {
  const bool isDead = callsUntilDeath && (*callsUntilDeath)-- <= 0;
  const bool failsOnce = callsUntilFailure && (*callsUntilFailure)-- <= 0;
  if (failsOnce) callsUntilFailure.reset();
  const bool isRefused = (refusesCheckpoints && isOf(path, "commitment-checkpoint")) ||
                         (refusesDirectives && isOf(path, "enforcement-directive"));
  if (!isDead && !failsOnce && !isRefused && !isFull) return std::nullopt;
  ++failures;
  return std::make_error_code(isFull ? std::errc::no_space_on_device : std::errc::io_error);
}

class UnreliableDisk::File final : public filtering::WritableFile {
 public:
  File(UnreliableDisk& disk, std::string path, std::unique_ptr<filtering::WritableFile> file)
      : disk_(disk), path_(std::move(path)), file_(std::move(file)) {}
  std::expected<std::size_t, std::error_code> write(std::string_view bytes) override {
    if (const auto error = disk_.failure(path_)) return std::unexpected(*error);
    return file_->write(bytes);
  }
  std::expected<void, std::error_code> sync() override {
    if (const auto error = disk_.failure(path_)) return std::unexpected(*error);
    return file_->sync();
  }

 private:
  UnreliableDisk& disk_;
  const std::string path_;
  std::unique_ptr<filtering::WritableFile> file_;
};

std::expected<std::unique_ptr<filtering::WritableFile>, std::error_code>
UnreliableDisk::createExclusively(const std::string& path, unsigned mode) {
  if (const auto error = failure(path)) return std::unexpected(*error);
  auto file = medium.createExclusively(path, mode);
  if (!file) return file;
  return std::make_unique<File>(*this, path, std::move(*file));
}

std::expected<std::optional<std::string>, std::error_code> UnreliableDisk::read(
    const std::string& path, std::size_t bytesMax) {
  if ((isUnreadable && isOf(path, "commitment-checkpoint")) ||
      (hidesCurrent && isOf(path, "commitment-checkpoint.json"))) {
    return std::unexpected(std::make_error_code(std::errc::io_error));
  }
  return medium.read(path, bytesMax);
}

std::expected<void, std::error_code> UnreliableDisk::rename(const std::string& from,
                                                            const std::string& to) {
  if (const auto error = failure(to)) return std::unexpected(*error);
  return medium.rename(from, to);
}

std::expected<void, std::error_code> UnreliableDisk::remove(const std::string& path) {
  // A process that has died removes nothing either, but fails at nothing.
  if (callsUntilDeath && *callsUntilDeath <= 0) return {};
  return medium.remove(path);
}

std::expected<void, std::error_code> UnreliableDisk::syncDirectory(const std::string& path) {
  if (const auto error = failure(path)) return std::unexpected(*error);
  return medium.syncDirectory(path);
}

std::expected<void, std::error_code> UnreliableDisk::createDirectory(const std::string& path,
                                                                     unsigned mode) {
  if (const auto error = failure(path)) return std::unexpected(*error);
  return medium.createDirectory(path, mode);
}

std::expected<bool, std::error_code> UnreliableDisk::isDirectory(const std::string& path) {
  return medium.isDirectory(path);
}

std::expected<std::vector<std::string>, std::error_code> UnreliableDisk::names(
    const std::string& directory) {
  return medium.names(directory);
}

}  // namespace stillow::simulation
