#pragma once

#include <cstddef>
#include <vector>

namespace orin::test {

// `whole` cut in two at every offset, then into single bytes: cuts that a reader of a stream must
// not notice.
template <class Bytes>
std::vector<std::vector<Bytes>> everySplit(Bytes whole) {
  std::vector<std::vector<Bytes>> splits;
  for (std::size_t at = 0; at <= whole.size(); ++at)
    splits.push_back({Bytes(whole.data(), at), Bytes(whole.data() + at, whole.size() - at)});
  std::vector<Bytes> bytes;
  for (std::size_t at = 0; at < whole.size(); ++at)
    bytes.emplace_back(whole.data() + at, 1);
  if (bytes.size() > 2) splits.push_back(bytes);
  return splits;
}

}  // namespace orin::test
