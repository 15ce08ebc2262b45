#include "OrinLinkShared/Error.h"

namespace orin {
namespace {

std::string userTextFor(DecodingError::Kind kind) {
  switch (kind) {
    case DecodingError::Kind::keyNotFound:
    case DecodingError::Kind::valueNotFound:
      return "The data couldn\u2019t be read because it is missing.";
    case DecodingError::Kind::typeMismatch:
    case DecodingError::Kind::dataCorrupted:
      break;
  }
  return "The data couldn\u2019t be read because it isn\u2019t in the correct format.";
}

}  // namespace

DecodingError::DecodingError(Kind kind, std::string codingPath, std::string debugDescription)
    : DecodingError(kind, std::move(codingPath), std::move(debugDescription), userTextFor(kind)) {}

DecodingError::DecodingError(Kind kind, std::string codingPath, std::string debugDescription,
                             std::string userText)
    : Error(std::move(userText)),
      kind_(kind),
      codingPath_(std::move(codingPath)),
      debugDescription_(std::move(debugDescription)) {}

}  // namespace orin
