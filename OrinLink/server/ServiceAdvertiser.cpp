#include "OrinLink/server/ServiceAdvertiser.h"

#include <algorithm>

namespace orin {

std::string txtRecord(TXTEntries entries) {
  std::stable_sort(entries.begin(), entries.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string record;
  for (const auto& [key, value] : entries) {
    const std::string pair = key + "=" + value;
    if (pair.size() > 255) continue;
    record.push_back(static_cast<char>(pair.size()));
    record += pair;
  }
  return record;
}

}  // namespace orin
