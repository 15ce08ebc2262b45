#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "Config.h"

namespace standin {

// Binds `at`, starts accepting on `io` and returns the bound endpoint (the real port when `at`
// asked for port 0). Throws boost::system::system_error when it cannot bind. The server lives
// as long as `io` has work for it.
boost::asio::ip::tcp::endpoint startServer(boost::asio::io_context& io,
                                           const boost::asio::ip::tcp::endpoint& at, Config config);

}  // namespace standin
