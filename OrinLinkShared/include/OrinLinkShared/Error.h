#pragma once

#include <stdexcept>
#include <string>

namespace orin {

// Every failure the system reports is an Error whose what() is the exact text a person sees.
// Details meant for logs travel separately (see DecodingError::debugDescription).
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  std::string description() const { return what(); }
};

// A JSON document that does not match a record. The user-facing text follows the platform
// decoder's wording; debugDescription names the coding path and the reason, for logs and tests.
class DecodingError : public Error {
 public:
  enum class Kind { typeMismatch, valueNotFound, keyNotFound, dataCorrupted };

  DecodingError(Kind kind, std::string codingPath, std::string debugDescription);
  // For the few decoding failures whose user-facing text is the debug text itself.
  DecodingError(Kind kind, std::string codingPath, std::string debugDescription,
                std::string userText);

  Kind kind() const { return kind_; }
  const std::string& codingPath() const { return codingPath_; }
  const std::string& debugDescription() const { return debugDescription_; }

 private:
  Kind kind_;
  std::string codingPath_;
  std::string debugDescription_;
};

}  // namespace orin
