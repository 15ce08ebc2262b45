#pragma once

#include <optional>

#include "OrinLinkShared/ScreenStream.h"

namespace orin::screen {

// One encoded picture as the stream server sends it: NAL units each preceded by a 4-byte
// big-endian length, and the parameter sets only when they changed (always on the first frame).
struct EncodedVideoFrame {
  OrinScreenFrameHeader header;
  ByteString data;
  std::optional<OrinScreenVideoConfig> config;
};

}  // namespace orin::screen
