#include "StillowConcurrency/Strand.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>

namespace stillow::concurrency {

Executor makeStrand(const Executor& executor) {
  using ContextExecutor = boost::asio::io_context::executor_type;
  if (const auto* const context = executor.target<ContextExecutor>()) {
    return boost::asio::make_strand(*context);
  }
  return boost::asio::make_strand(executor);
}

}  // namespace stillow::concurrency
