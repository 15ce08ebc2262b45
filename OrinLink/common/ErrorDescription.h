#pragma once

#include <exception>
#include <string>

namespace orin {

// The user-facing text of any failure: an Error's own text, a system error's message without
// its category decoration, or what() of anything else.
std::string describe(const std::exception_ptr& error);

}  // namespace orin
