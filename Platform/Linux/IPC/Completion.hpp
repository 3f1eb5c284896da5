#pragma once

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace stillow::platform {

/// Awaits an operation of a socket; its error code comes first in the tuple that it yields.
inline constexpr auto completion = boost::asio::as_tuple(boost::asio::use_awaitable);

}  // namespace stillow::platform
