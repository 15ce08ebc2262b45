#include "OrinLink/pairing/TokenHash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "OrinLinkShared/Assert.h"

namespace orin {

std::string tokenHash(std::string_view token) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const int ok = EVP_Digest(token.data(), token.size(), digest, &length, EVP_sha256(), nullptr);
  ORIN_ASSERT(ok == 1 && length == 32, "SHA-256 is unavailable");
  static constexpr char hex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    text.push_back(hex[digest[i] >> 4]);
    text.push_back(hex[digest[i] & 0x0F]);
  }
  return text;
}

bool sameTokenHash(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace orin
