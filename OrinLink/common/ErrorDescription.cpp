#include "OrinLink/common/ErrorDescription.h"

#include <system_error>

#include <boost/system/system_error.hpp>

#include "OrinLinkShared/Error.h"

namespace orin {

std::string describe(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const Error& e) {
    return e.what();
  } catch (const boost::system::system_error& e) {
    return e.code().message();
  } catch (const std::system_error& e) {
    return e.code().message();
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "Unknown error.";
  }
}

}  // namespace orin
