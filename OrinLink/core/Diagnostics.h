#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLink/core/SetupGuide.h"
#include "OrinLink/system/DesktopIntegration.h"

namespace orin {

// The plain-text report a user copies when asking for help. It holds no token, pairing code or
// device identifier.
std::string diagnosticSummary(const StateSnapshot& state);

// What this machine lacks, in the order the report lists it. A facility that is not there at all
// counts as missing; discovery is missing only once the advertiser has said so.
std::vector<MissingFacility> missingFacilities(const DesktopIntegration& desktop,
                                               std::optional<bool> discoveryAvailable);

std::string_view facilityName(MissingFacility facility);

}  // namespace orin
