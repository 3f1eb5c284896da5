// A DaemonStatus to its JSON text and back. The argument is the number of domains in its Scope.
// What the daemon sends with every answer and push, and what a client reads.
//
// encode: RapidJSON's Writer, driven by hand through the same members, into a buffer of its own as
// ours is; its SIMD scan is on. The texts are equal byte for byte, which takes values without "/":
// RapidJSON does not escape it.
//
// decode: simdjson On Demand, which visits the members in their order, so that each is found at
// once, and keeps its parser; its input is padded beforehand. It fills a record of the same fields,
// with the domains as plain strings. Where the processor has AVX2, so does this use of it: on the
// flags of the rest its own header would take the scalar form. What it leaves out is ours alone:
// that a name is a Domain, and that the names are a sorted set.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#if defined(__SSE2__)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "Alternating.hpp"
#include "SampleDomains.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"

// Last, because it is compiled for AVX2, as what calls it has to be.
#if defined(__x86_64__)
#include <immintrin.h>
#define SIMDJSON_BUILTIN_IMPLEMENTATION haswell
#pragma GCC push_options
#pragma GCC target("avx2,bmi,pclmul,lzcnt,popcnt")
#endif
#include <simdjson.h>
#if defined(__x86_64__)
#pragma GCC pop_options
#endif

namespace stillow::benchmarks {
namespace {

using core::CommitmentHealth;
using ipc::ActiveCommitmentStatus;
using ipc::CommitmentStatus;
using ipc::DaemonStatus;
using ipc::DaemonWireCoding;

/// As a daemon gives it: the clock has fractions of all the digits that a double holds.
DaemonStatus statusOf(std::size_t domainCount) {
  const core::Date now{816'458'820.3271384};
  const core::Commitment commitment{
      .activatedAt = now + -1'234.5678912,
      .scope = {.generation = 3, .domains = core::DomainSet::of(sampleDomains(domainCount))},
      .remainingDuration = 2'365.4321094,
      .health = CommitmentHealth::healthy};
  return {.observedAt = now,
          .commitment = CommitmentStatus::active{ActiveCommitmentStatus::of(commitment, now)},
          .enforcement = core::EnforcementHealthStatus::healthy{},
          .readiness = {.filterConfigurationIsEnabled = true,
                        .validation = core::EnforcementValidation::passed{},
                        .validatedAt = now + -60.7182818}};
}

// ---- encode

void writeByHand(rapidjson::StringBuffer& buffer, const DaemonStatus& status) {
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  const auto string = [&](std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  };
  const auto key = [&](std::string_view name) {
    writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
  };
  const auto emptyCase = [&](std::string_view name) {
    writer.StartObject();
    key(name);
    writer.StartObject();
    writer.EndObject();
    writer.EndObject();
  };
  writer.StartObject();
  key("observedAt");
  writer.Double(status.observedAt.secondsSinceReferenceDate);
  key("commitment");
  const ActiveCommitmentStatus& active = *status.active();
  writer.StartObject();
  key("active");
  writer.StartObject();
  key("_0");
  writer.StartObject();
  key("activatedAt");
  writer.Double(active.activatedAt.secondsSinceReferenceDate);
  key("scopeGeneration");
  writer.Int64(active.scopeGeneration);
  key("scope");
  writer.StartArray();
  for (const core::Domain& domain : active.scope) string(domain.name());
  writer.EndArray();
  key("remainingDuration");
  writer.Double(active.remainingDuration);
  key("projectedEndTime");
  writer.StartObject();
  key("date");
  writer.Double(active.projectedEndTime.date.secondsSinceReferenceDate);
  writer.EndObject();
  key("latestPermittedEndTime");
  writer.Double(active.latestPermittedEndTime.secondsSinceReferenceDate);
  key("health");
  string(active.health == CommitmentHealth::healthy ? "healthy" : "degraded");
  writer.EndObject();
  writer.EndObject();
  writer.EndObject();
  key("enforcement");
  emptyCase("healthy");
  key("readiness");
  writer.StartObject();
  key("filterConfigurationIsEnabled");
  writer.Bool(status.readiness.filterConfigurationIsEnabled);
  if (status.readiness.validation) {
    key("validation");
    emptyCase("passed");
  }
  if (status.readiness.validatedAt) {
    key("validatedAt");
    writer.Double(status.readiness.validatedAt->secondsSinceReferenceDate);
  }
  writer.EndObject();
  writer.EndObject();
}

void encode(benchmark::State& state) {
  const DaemonStatus status = statusOf(static_cast<std::size_t>(state.range(0)));
  const std::string text = DaemonWireCoding::encode(status).value();
  rapidjson::StringBuffer buffer;
  writeByHand(buffer, status);
  if (text != std::string_view(buffer.GetString(), buffer.GetSize())) {
    state.SkipWithError("the texts differ");
    return;
  }
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) benchmark::DoNotOptimize(DaemonWireCoding::encode(status));
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) {
      rapidjson::StringBuffer fresh;
      writeByHand(fresh, status);
      benchmark::DoNotOptimize(fresh.GetString());
    }
  };
  compareAlternating(state, Measure::processorTime, ours, reference);
  state.counters["text_bytes"] = static_cast<double>(text.size());
}

BENCHMARK(encode)->Arg(20)->Arg(10'000)->Apply(batches);

// ---- decode

/// What simdjson fills.
struct PlainStatus {
  double observedAt = 0;
  double activatedAt = 0;
  std::int64_t scopeGeneration = 0;
  std::vector<std::string> scope;
  double remainingDuration = 0;
  double projectedEndTime = 0;
  double latestPermittedEndTime = 0;
  CommitmentHealth health = CommitmentHealth::degraded;
  bool isHealthy = false;
  bool filterConfigurationIsEnabled = false;
  bool hasPassed = false;
  std::optional<double> validatedAt;

  friend bool operator==(const PlainStatus&, const PlainStatus&) = default;
};

PlainStatus plain(const DaemonStatus& status) {
  const ActiveCommitmentStatus& active = *status.active();
  PlainStatus made{
      .observedAt = status.observedAt.secondsSinceReferenceDate,
      .activatedAt = active.activatedAt.secondsSinceReferenceDate,
      .scopeGeneration = active.scopeGeneration,
      .scope = {},
      .remainingDuration = active.remainingDuration,
      .projectedEndTime = active.projectedEndTime.date.secondsSinceReferenceDate,
      .latestPermittedEndTime = active.latestPermittedEndTime.secondsSinceReferenceDate,
      .health = active.health,
      .isHealthy = status.enforcement == core::EnforcementHealthStatus::healthy{},
      .filterConfigurationIsEnabled = status.readiness.filterConfigurationIsEnabled,
      .hasPassed = status.readiness.validation == core::EnforcementValidation::passed{},
      .validatedAt = std::nullopt};
  for (const core::Domain& domain : active.scope) made.scope.emplace_back(domain.name());
  if (status.readiness.validatedAt) {
    made.validatedAt = status.readiness.validatedAt->secondsSinceReferenceDate;
  }
  return made;
}

#if defined(__x86_64__)
#pragma GCC push_options
#pragma GCC target("avx2,bmi,pclmul,lzcnt,popcnt")
#endif

namespace ondemand = simdjson::ondemand;

/// Keeps its parser from one text to the next, as simdjson wants it.
class OnDemandReader {
 public:
  OnDemandReader();
  /// Throws what simdjson throws.
  PlainStatus read(const simdjson::padded_string& text);

 private:
  ondemand::parser parser_;
};

OnDemandReader::OnDemandReader() = default;

PlainStatus OnDemandReader::read(const simdjson::padded_string& text) {
  PlainStatus status;
  auto document = parser_.iterate(text);
  auto root = document.get_object();
  status.observedAt = root.find_field("observedAt").get_double();
  auto active = root.find_field("commitment").find_field("active").find_field("_0").get_object();
  status.activatedAt = active.find_field("activatedAt").get_double();
  status.scopeGeneration = active.find_field("scopeGeneration").get_int64();
  for (auto element : active.find_field("scope").get_array()) {
    const std::string_view name = element.get_string();
    status.scope.emplace_back(name);
  }
  status.remainingDuration = active.find_field("remainingDuration").get_double();
  status.projectedEndTime = active.find_field("projectedEndTime").find_field("date").get_double();
  status.latestPermittedEndTime = active.find_field("latestPermittedEndTime").get_double();
  const std::string_view health = active.find_field("health").get_string();
  status.health = health == "healthy" ? CommitmentHealth::healthy : CommitmentHealth::degraded;
  status.isHealthy = root.find_field("enforcement").find_field("healthy").get_object().error() ==
                     simdjson::SUCCESS;
  auto readiness = root.find_field("readiness").get_object();
  status.filterConfigurationIsEnabled =
      readiness.find_field("filterConfigurationIsEnabled").get_bool();
  status.hasPassed = readiness.find_field("validation").find_field("passed").get_object().error() ==
                     simdjson::SUCCESS;
  status.validatedAt = double(readiness.find_field("validatedAt").get_double());
  return status;
}

#if defined(__x86_64__)
#pragma GCC pop_options
#endif

void decode(benchmark::State& state) {
  const DaemonStatus status = statusOf(static_cast<std::size_t>(state.range(0)));
  const std::string text = DaemonWireCoding::encode(status).value();
  const simdjson::padded_string padded(text);
  OnDemandReader reader;
#if defined(__x86_64__)
  if (!__builtin_cpu_supports("avx2")) {
    state.SkipWithError("the reference needs AVX2");
    return;
  }
#endif
  const auto decoded = DaemonWireCoding::decode<DaemonStatus>(text);
  if (decoded != status || reader.read(padded) != plain(status)) {
    state.SkipWithError("the records differ");
    return;
  }
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) {
      benchmark::DoNotOptimize(DaemonWireCoding::decode<DaemonStatus>(text));
    }
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) benchmark::DoNotOptimize(reader.read(padded));
  };
  compareAlternating(state, Measure::processorTime, ours, reference);
  state.counters["text_bytes"] = static_cast<double>(text.size());
}

BENCHMARK(decode)->Arg(20)->Arg(10'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
