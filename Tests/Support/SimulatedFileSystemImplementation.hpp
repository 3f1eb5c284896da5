#pragma once

#include <algorithm>
#include <set>

#include "StillowCore/Invariant.hpp"
#include "TestSupport/SimulatedFileSystem.hpp"

namespace stillow::test {

class SimulatedFileSystem::File final : public filtering::WritableFile {
 public:
  File(SimulatedFileSystem& disk, Identity node, std::string path)
      : disk_(disk), node_(node), path_(std::move(path)) {}

  std::expected<std::size_t, std::error_code> write(std::string_view bytes) override {
    const std::size_t index = disk_.calls_.size();
    if (auto begun = disk_.begin("write", path_); !begun) return std::unexpected(begun.error());
    if (const auto shortened = disk_.shortWrites_.find(index);
        shortened != disk_.shortWrites_.end()) {
      bytes = bytes.substr(0, shortened->second);
    }
    Node& node = disk_.nodes_.at(node_);
    node.content += bytes;
    node.isFlushed = false;
    disk_.end();
    return bytes.size();
  }

  std::expected<void, std::error_code> sync() override {
    if (auto begun = disk_.begin("sync", path_); !begun) return begun;
    Node& node = disk_.nodes_.at(node_);
    node.flushedContent = node.content;
    node.isFlushed = true;
    disk_.end();
    return {};
  }

 private:
  SimulatedFileSystem& disk_;
  Identity node_;
  std::string path_;
};

inline std::pair<std::string, std::string> SimulatedFileSystem::split(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

inline void SimulatedFileSystem::forgetCalls() {
  calls_.clear();
  failures_.clear();
  shortWrites_.clear();
}

inline std::expected<void, std::error_code> SimulatedFileSystem::begin(std::string operation,
                                                                       const std::string& path) {
  const auto failing = failures_.find(calls_.size());
  calls_.push_back({std::move(operation), path});
  if (failing == failures_.end()) return {};
  end();
  return failure(failing->second);
}

inline void SimulatedFileSystem::end() {
  if (moments_ == nullptr) return;
  moments_->push_back(*this);
  moments_->back().moments_ = nullptr;
}

inline std::optional<SimulatedFileSystem::Identity> SimulatedFileSystem::find(
    const std::string& path) const {
  if (path == "/") return rootNode;
  const auto [parentPath, name] = split(path);
  const auto parent = find(parentPath);
  if (!parent) return std::nullopt;
  const Entries& entries = nodes_.at(*parent).entries;
  const auto entry = entries.find(name);
  if (entry == entries.end()) return std::nullopt;
  return entry->second;
}

inline std::expected<SimulatedFileSystem::Identity, std::error_code>
SimulatedFileSystem::directoryOf(const std::string& path) const {
  const auto parent = find(split(path).first);
  if (!parent) return failure(std::errc::no_such_file_or_directory);
  if (!nodes_.at(*parent).isDirectory) return failure(std::errc::not_a_directory);
  return *parent;
}

inline void SimulatedFileSystem::apply(Entries& entries, const Change& change) {
  if (change.removed) {
    const auto entry = entries.find(*change.removed);
    if (entry != entries.end() && entry->second == change.node) entries.erase(entry);
  }
  if (change.added) entries[*change.added] = change.node;
}

inline void SimulatedFileSystem::change(Node& directory, Change change) {
  apply(directory.entries, change);
  directory.changes.push_back(std::move(change));
}

inline std::expected<SimulatedFileSystem::Identity, std::error_code> SimulatedFileSystem::add(
    const std::string& path, Node node) {
  const auto parent = directoryOf(path);
  if (!parent) return std::unexpected(parent.error());
  if (exists(path)) return failure(std::errc::file_exists);
  const Identity identity = ++lastNode_;
  nodes_[identity] = std::move(node);
  change(nodes_.at(*parent),
         {.removed = std::nullopt, .added = split(path).second, .node = identity});
  return identity;
}

inline std::expected<std::unique_ptr<filtering::WritableFile>, std::error_code>
SimulatedFileSystem::createExclusively(const std::string& path, unsigned mode) {
  if (auto begun = begin("create", path); !begun) return std::unexpected(begun.error());
  Node file;
  file.mode = mode;
  const auto added = add(path, std::move(file));
  end();
  if (!added) return std::unexpected(added.error());
  return std::make_unique<File>(*this, *added, path);
}

inline std::expected<std::optional<std::string>, std::error_code> SimulatedFileSystem::read(
    const std::string& path, std::size_t bytesMax) {
  if (auto begun = begin("read", path); !begun) return std::unexpected(begun.error());
  end();
  const auto node = find(path);
  if (!node) return std::nullopt;
  if (nodes_.at(*node).isDirectory) return failure(std::errc::is_a_directory);
  if (nodes_.at(*node).content.size() > bytesMax) return failure(std::errc::file_too_large);
  return nodes_.at(*node).content;
}

inline std::expected<void, std::error_code> SimulatedFileSystem::rename(const std::string& from,
                                                                        const std::string& to) {
  if (auto begun = begin("rename", to); !begun) return begun;
  const auto node = find(from);
  core::require(split(from).first == split(to).first,
                "the simulated disk renames within a directory");
  if (!node) {
    end();
    return failure(std::errc::no_such_file_or_directory);
  }
  if (const auto target = find(to); target && nodes_.at(*target).isDirectory) {
    end();
    return failure(std::errc::is_a_directory);
  }
  change(nodes_.at(*directoryOf(to)),
         {.removed = split(from).second, .added = split(to).second, .node = *node});
  end();
  return {};
}

inline std::expected<void, std::error_code> SimulatedFileSystem::remove(const std::string& path) {
  if (auto begun = begin("remove", path); !begun) return begun;
  const auto node = find(path);
  if (node) {
    change(nodes_.at(*directoryOf(path)),
           {.removed = split(path).second, .added = std::nullopt, .node = *node});
  }
  end();
  if (!node) return failure(std::errc::no_such_file_or_directory);
  return {};
}

inline std::expected<void, std::error_code> SimulatedFileSystem::syncDirectory(
    const std::string& path) {
  if (auto begun = begin("syncDirectory", path); !begun) return begun;
  const auto node = find(path);
  if (node && nodes_.at(*node).isDirectory) {
    nodes_.at(*node).flushedEntries = nodes_.at(*node).entries;
    nodes_.at(*node).changes.clear();
  }
  end();
  if (!node) return failure(std::errc::no_such_file_or_directory);
  if (!nodes_.at(*node).isDirectory) return failure(std::errc::not_a_directory);
  return {};
}

inline std::expected<void, std::error_code> SimulatedFileSystem::createDirectory(
    const std::string& path, unsigned mode) {
  if (auto begun = begin("createDirectory", path); !begun) return begun;
  Node directory;
  directory.isDirectory = true;
  directory.mode = mode;
  const auto added = add(path, std::move(directory));
  end();
  if (!added) return std::unexpected(added.error());
  return {};
}

inline std::expected<bool, std::error_code> SimulatedFileSystem::isDirectory(
    const std::string& path) {
  if (auto begun = begin("isDirectory", path); !begun) return std::unexpected(begun.error());
  end();
  const auto node = find(path);
  return node && nodes_.at(*node).isDirectory;
}

inline std::expected<std::vector<std::string>, std::error_code> SimulatedFileSystem::names(
    const std::string& directory) {
  if (auto begun = begin("names", directory); !begun) return std::unexpected(begun.error());
  end();
  if (!exists(directory)) return failure(std::errc::no_such_file_or_directory);
  return namesIn(directory);
}

inline void SimulatedFileSystem::placeDirectory(const std::string& path, unsigned mode) {
  if (exists(path)) return;
  placeDirectory(split(path).first);
  Node directory;
  directory.isDirectory = true;
  directory.mode = mode;
  core::require(add(path, std::move(directory)).has_value(), "the directory cannot be placed");
  settle();
}

inline void SimulatedFileSystem::placeFile(const std::string& path, std::string content,
                                           unsigned mode) {
  placeDirectory(split(path).first);
  if (exists(path)) (void)remove(path);
  Node file;
  file.mode = mode;
  file.content = std::move(content);
  core::require(add(path, std::move(file)).has_value(), "the file cannot be placed");
  settle();
}

inline void SimulatedFileSystem::settle() {
  for (auto& [identity, node] : nodes_) {
    node.flushedContent = node.content;
    node.isFlushed = true;
    node.flushedEntries = node.entries;
    node.changes.clear();
  }
  forgetCalls();
}

inline std::optional<std::string> SimulatedFileSystem::content(const std::string& path) const {
  const auto node = find(path);
  if (!node || nodes_.at(*node).isDirectory) return std::nullopt;
  return nodes_.at(*node).content;
}

inline std::optional<unsigned> SimulatedFileSystem::mode(const std::string& path) const {
  const auto node = find(path);
  if (!node) return std::nullopt;
  return nodes_.at(*node).mode;
}

inline std::vector<std::string> SimulatedFileSystem::namesIn(const std::string& directory) const {
  std::vector<std::string> names;
  const auto node = find(directory);
  if (!node) return names;
  for (const auto& [name, identity] : nodes_.at(*node).entries) names.push_back(name);
  return names;
}

inline std::vector<SimulatedFileSystem::Entries> SimulatedFileSystem::entriesAfterPowerCut(
    const Node& directory) {
  core::require(directory.changes.size() <= 12, "too many unflushed changes to enumerate");
  std::vector<Entries> states;
  for (std::size_t kept = 0; kept < std::size_t{1} << directory.changes.size(); ++kept) {
    Entries entries = directory.flushedEntries;
    for (std::size_t i = 0; i < directory.changes.size(); ++i) {
      if ((kept >> i & 1U) != 0) apply(entries, directory.changes[i]);
    }
    if (std::ranges::find(states, entries) == states.end()) states.push_back(std::move(entries));
  }
  return states;
}

inline std::vector<std::string> SimulatedFileSystem::contentsAfterPowerCut(const Node& file) {
  if (file.isFlushed) return {file.content};
  const std::size_t flushed = std::min(file.flushedContent.size(), file.content.size());
  const std::size_t half = flushed + (file.content.size() - flushed) / 2;
  const auto zeroedFrom = [&file](std::size_t begin) {
    return file.content.substr(0, begin) + std::string(file.content.size() - begin, '\0');
  };
  std::vector<std::string> contents{file.content, file.flushedContent, file.content.substr(0, half),
                                    zeroedFrom(flushed), zeroedFrom(half)};
  std::ranges::sort(contents);
  contents.erase(std::ranges::unique(contents).begin(), contents.end());
  return contents;
}

inline std::vector<SimulatedFileSystem> SimulatedFileSystem::statesAfterPowerCut() const {
  std::vector<SimulatedFileSystem> states{*this};
  states.front().moments_ = nullptr;
  const auto branch = [&states](Identity identity, const auto& choices, auto assign) {
    std::vector<SimulatedFileSystem> branched;
    for (const SimulatedFileSystem& state : states) {
      for (const auto& choice : choices) {
        branched.push_back(state);
        assign(branched.back().nodes_.at(identity), choice);
      }
    }
    states = std::move(branched);
    core::require(states.size() <= 100'000, "too many states to enumerate");
  };
  for (const auto& [identity, node] : nodes_) {
    if (node.isDirectory && !node.changes.empty()) {
      branch(identity, entriesAfterPowerCut(node),
             [](Node& directory, const Entries& entries) { directory.entries = entries; });
    } else if (!node.isFlushed) {
      branch(identity, contentsAfterPowerCut(node),
             [](Node& file, const std::string& content) { file.content = content; });
    }
  }
  std::set<std::string> seen;
  std::erase_if(states, [&seen](const SimulatedFileSystem& state) {
    return !seen.insert(state.signature()).second;
  });
  for (SimulatedFileSystem& state : states) state.settle();
  return states;
}

/// What can be reached from the root: states that differ elsewhere only are the same disk.
inline std::string SimulatedFileSystem::signature() const {
  std::string text;
  const auto append = [&](const auto& self, const Node& node) -> void {
    text += node.isDirectory ? "d" : "f" + std::to_string(node.content.size()) + ":" + node.content;
    for (const auto& [name, identity] : node.entries) {
      text += std::to_string(name.size()) + ":" + name;
      self(self, nodes_.at(identity));
    }
    text += ")";
  };
  append(append, nodes_.at(rootNode));
  return text;
}

inline void SimulatedFileSystem::forEachMoment(
    const SimulatedFileSystem& before, const Work& work,
    const std::function<void(const SimulatedFileSystem&, std::string)>& see, std::size_t& calls) {
  std::vector<SimulatedFileSystem> moments{before};
  SimulatedFileSystem disk = before;
  disk.forgetCalls();
  disk.moments_ = &moments;
  work(disk);
  disk.moments_ = nullptr;
  calls = disk.calls_.size();
  core::require(moments.size() == calls + 1, "each call is a moment");
  for (std::size_t i = 0; i < moments.size(); ++i) {
    std::string how = "before the first call";
    if (i > 0) {
      const Call& call = disk.calls_[i - 1];
      how = "after call " + std::to_string(i - 1) + ", " + call.operation + " " + call.path;
    }
    moments[i].forgetCalls();
    see(moments[i], std::move(how));
  }
}

inline std::size_t SimulatedFileSystem::forEachPowerCut(const SimulatedFileSystem& before,
                                                        const Work& work, const Check& check) {
  std::size_t calls = 0;
  const auto cut = [&check](const SimulatedFileSystem& moment, const std::string& how) {
    std::size_t number = 0;
    for (SimulatedFileSystem& state : moment.statesAfterPowerCut()) {
      check(state, "power cut " + how + ", state " + std::to_string(number++));
    }
  };
  forEachMoment(before, work, cut, calls);
  return calls;
}

inline std::size_t SimulatedFileSystem::forEachProcessDeath(const SimulatedFileSystem& before,
                                                            const Work& work, const Check& check) {
  std::size_t calls = 0;
  const auto die = [&check](const SimulatedFileSystem& moment, const std::string& how) {
    SimulatedFileSystem disk = moment;
    check(disk, "process death " + how);
  };
  forEachMoment(before, work, die, calls);
  return calls;
}

inline std::size_t SimulatedFileSystem::forEachFailedCall(const SimulatedFileSystem& before,
                                                          const Work& work, const Check& check) {
  SimulatedFileSystem whole = before;
  whole.forgetCalls();
  work(whole);
  const std::vector<Call> calls = whole.calls_;
  const auto run = [&](const std::string& how, const auto& prepare) {
    SimulatedFileSystem disk = before;
    disk.forgetCalls();
    prepare(disk);
    work(disk);
    check(disk, how);
  };
  for (std::size_t i = 0; i < calls.size(); ++i) {
    const std::string name =
        "call " + std::to_string(i) + ", " + calls[i].operation + " " + calls[i].path + ", fails: ";
    for (const std::errc error :
         {std::errc::no_space_on_device, std::errc::io_error, std::errc::permission_denied}) {
      run(name + std::make_error_code(error).message(),
          [&](SimulatedFileSystem& disk) { disk.failCall(i, error); });
    }
    if (calls[i].operation != "write") continue;
    run(name + "one byte written, then no space", [&](SimulatedFileSystem& disk) {
      disk.shortenWrite(i, 1);
      disk.failCall(i + 1, std::errc::no_space_on_device);
    });
  }
  return calls.size();
}

}  // namespace stillow::test
