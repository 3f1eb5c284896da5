// What it costs to go onto a serialised object's strand and to come back with a result, against a
// bare co_spawn onto a bare strand. `hop` is the strand alone; `serialisedCall` is a whole call
// into an object that lets in one operation at a time, as the authority does: the strand, the turn
// and a result. One io_context and one thread; both sides add the same numbers.

#include <cstddef>
#include <cstdint>
#include <utility>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>

#include "Alternating.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Turn.hpp"

namespace stillow::benchmarks {
namespace {

using concurrency::Strand;
using concurrency::Task;
using concurrency::Turn;
using BareStrand = boost::asio::strand<boost::asio::io_context::executor_type>;

/// What the strand guards.
using Sum = std::uint64_t;

Task<void> add(Sum& sum, std::size_t number) {
  sum += number;
  co_return;
}
Task<Sum> addAndTell(Sum& sum, std::size_t number) {
  sum += number;
  co_return sum;
}
Task<Sum> addAndTellInTurn(Turn& turn, Sum& sum, std::size_t number) {
  const Turn::Holder holder = co_await turn.take();
  sum += number;
  co_return sum;
}

Task<void> hop(const Strand& strand, std::size_t count, Sum& sum) {
  for (; count > 0; --count) co_await strand.run(add(sum, count));
}
Task<void> hopBarely(const BareStrand& strand, std::size_t count, Sum& sum) {
  for (; count > 0; --count) {
    co_await boost::asio::co_spawn(strand, add(sum, count), boost::asio::use_awaitable);
  }
}

Task<void> call(const Strand& strand, Turn& turn, std::size_t count, Sum& sum, Sum& told) {
  for (; count > 0; --count) told ^= co_await strand.run(addAndTellInTurn(turn, sum, count));
}
Task<void> callBarely(const BareStrand& strand, std::size_t count, Sum& sum, Sum& told) {
  for (; count > 0; --count) {
    told ^=
        co_await boost::asio::co_spawn(strand, addAndTell(sum, count), boost::asio::use_awaitable);
  }
}

void run(boost::asio::io_context& context, Task<void> task) {
  concurrency::spawn(context.get_executor(), std::move(task));
  context.restart();
  context.run();
}

void hop(benchmark::State& state) {
  boost::asio::io_context context(1);
  const Strand strand(context.get_executor());
  const BareStrand bareStrand = boost::asio::make_strand(context);
  Sum ourSum = 0;
  Sum bareSum = 0;
  const auto ours = [&](std::size_t count) { run(context, hop(strand, count, ourSum)); };
  const auto reference = [&](std::size_t count) {
    run(context, hopBarely(bareStrand, count, bareSum));
  };
  ours(1'000);
  reference(1'000);
  if (ourSum != bareSum || ourSum == 0) return state.SkipWithError("the sums differ");
  compareAlternating(state, Measure::processorTime, ours, reference);
}

void serialisedCall(benchmark::State& state) {
  boost::asio::io_context context(1);
  const Strand strand(context.get_executor());
  const BareStrand bareStrand = boost::asio::make_strand(context);
  Turn turn;
  Sum ourSum = 0;
  Sum ourTold = 0;
  Sum bareSum = 0;
  Sum bareTold = 0;
  const auto ours = [&](std::size_t count) {
    run(context, call(strand, turn, count, ourSum, ourTold));
  };
  const auto reference = [&](std::size_t count) {
    run(context, callBarely(bareStrand, count, bareSum, bareTold));
  };
  ours(1'000);
  reference(1'000);
  if (ourSum != bareSum || ourTold != bareTold || ourTold == 0) {
    return state.SkipWithError("the results differ");
  }
  compareAlternating(state, Measure::processorTime, ours, reference);
}

BENCHMARK(hop)->Apply(batches);
BENCHMARK(serialisedCall)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
