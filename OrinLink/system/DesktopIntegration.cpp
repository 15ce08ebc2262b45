#include "OrinLink/system/DesktopIntegration.h"

namespace orin {

SleepPreventionError SleepPreventionError::assertionFailed(std::int32_t status) {
  return SleepPreventionError(
      "Linux refused the sleep prevention request (" + std::to_string(status) + ").", status);
}

}  // namespace orin
