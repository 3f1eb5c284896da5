// Reading the enforcement directive when only its probe has changed, against reading it for the
// first time. The argument is the number of domains in the Scope. This is how long packets wait for
// a directive.

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>

#include "Alternating.hpp"
#include "SampleDomains.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TemporaryDirectory.hpp"

namespace stillow::benchmarks {
namespace {

using filtering::EnforcementDirective;
using filtering::FileEnforcementDirectiveStore;
using filtering::ValidationProbe;

constexpr core::Date start{816'458'820};

EnforcementDirective directiveOf(std::size_t domainCount) {
  return {.scope = core::Scope{.generation = 1,
                               .domains = core::DomainSet::of(sampleDomains(domainCount))},
          .validation = std::nullopt,
          .publishedAt = start};
}

void readAfterProbe(benchmark::State& state) {
  TemporaryDirectory directory;
  const std::string path = directory.path() + "/directive.json";
  filtering::PosixFileSystem fileSystem;
  FileEnforcementDirectiveStore publisher(fileSystem, path);
  FileEnforcementDirectiveStore reader(fileSystem, path);
  EnforcementDirective directive = directiveOf(static_cast<std::size_t>(state.range(0)));
  bool hasFailed = !publisher.publish(directive) || !reader.read();
  directive.validation = ValidationProbe::issued(*core::Domain::make("probe.example"), start, 20);
  hasFailed |= !publisher.publish(directive);
  const auto read = [&](FileEnforcementDirectiveStore& store) {
    auto found = store.read();
    hasFailed |= !found || !*found;
    return found && *found ? std::move(**found) : EnforcementDirective{};
  };
  const auto readAnew = [&] {
    FileEnforcementDirectiveStore another(fileSystem, path);
    return read(another);
  };
  hasFailed |= read(reader) != directive || readAnew() != directive;
  compareAlternating(
      state, Measure::processorTime,
      [&](std::size_t count) {
        for (; count > 0; --count) benchmark::DoNotOptimize(read(reader));
      },
      [&](std::size_t count) {
        for (; count > 0; --count) benchmark::DoNotOptimize(readAnew());
      });
  if (hasFailed) state.SkipWithError("the directive was not read");
}

BENCHMARK(readAfterProbe)->Arg(10)->Arg(1'000'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
