// Asio's own code, compiled once for the whole project.
#include <boost/asio/impl/src.hpp>
