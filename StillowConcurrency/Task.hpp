#pragma once

#include <exception>
#include <utility>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "StillowCore/Invariant.hpp"

namespace stillow::concurrency {

/// An asynchronous operation. It starts when it is awaited or spawned, and it never throws:
/// failures are values.
template <class T>
using Task = boost::asio::awaitable<T>;

/// Where ready work runs: the shared pool in the daemon, a seeded single thread in tests.
using Executor = boost::asio::any_io_executor;

/// Starts `task` on `executor` and lets go of it. What it refers to must live as long as it does,
/// so give it a coroutine whose parameters are values and whose owner is held weakly.
///
/// On a thread that runs the same context it may begin inline: all that comes before its first
/// suspension has then happened when this returns, whatever it calls back included. So hold no lock
/// that it or its handlers may take, leave nothing half changed that it may look at, and where its
/// work must not be done inside the call (a turn, a handler of a connection) post to the executor
/// and spawn there.
///
/// A task that is never resumed again is destroyed with whatever it waits for.
inline void spawn(const Executor& executor, Task<void> task) {
  boost::asio::co_spawn(executor, std::move(task), [](std::exception_ptr exception) {
    core::require(exception == nullptr, "an exception left a background task");
  });
}

}  // namespace stillow::concurrency
