#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace orin {

// Replaces `path` with `bytes` so that a crash at any moment leaves either the old file or the
// new one: a temporary file in the same folder, fsync, rename over the target, fsync the folder.
// Throws std::system_error.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode);

// Creates the folder and its parents; the last component gets `mode`. Throws std::system_error.
void createPrivateDirectory(const std::filesystem::path& path, mode_t mode);

// The whole file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::filesystem::path& path);

// $XDG_CONFIG_HOME or ~/.config, and $XDG_DATA_HOME or ~/.local/share, each followed by
// "OrinLink".
std::filesystem::path defaultConfigDirectory();
std::filesystem::path defaultDataDirectory();

}  // namespace orin
