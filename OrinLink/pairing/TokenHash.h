#pragma once

#include <string>
#include <string_view>

namespace orin {

// Lower-case hexadecimal SHA-256 of the token's bytes: the only form in which tokens are kept or
// compared.
std::string tokenHash(std::string_view token);

// Compares two hashes in time that does not depend on where they differ.
bool sameTokenHash(std::string_view a, std::string_view b);

}  // namespace orin
