#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace orin {

// Replaces `path` with `bytes` so that a crash at any moment leaves either the old file or the
// new one: a temporary file in the same folder, fsync, rename over the target, fsync the folder.
// Throws std::system_error.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode);

// Where a store's encoded contents go. Stores write at once by default; the application hands
// the writes, in order, to a background executor so that no request waits for the disk.
using FileWriter = std::function<void(std::string contents)>;

// writeFileAtomically into a 0700 folder made if missing, mode 0600.
void writePrivateFile(const std::filesystem::path& path, std::string_view bytes);

// Creates the folder and its parents; the last component gets `mode`. Throws std::system_error.
void createPrivateDirectory(const std::filesystem::path& path, mode_t mode);

// The whole file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::filesystem::path& path);

// $XDG_CONFIG_HOME, or ~/.config when it is unset or not an absolute path.
std::filesystem::path configHome();

// $XDG_CONFIG_HOME or ~/.config, and $XDG_DATA_HOME or ~/.local/share, each followed by
// "OrinLink".
std::filesystem::path defaultConfigDirectory();
std::filesystem::path defaultDataDirectory();

}  // namespace orin
