#include <dlfcn.h>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "OrinLink/screenstream/StreamEncoder.h"
#include "OrinLinkShared/Error.h"

namespace orin::screen {
namespace {

constexpr const char* moduleName = "orinlink-encoder.so";

// Beside the executable in a build, in the library folder once installed.
std::vector<std::filesystem::path> moduleCandidates() {
  std::error_code error;
  const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  if (error) return {};
  return {folder / moduleName, folder / ORIN_ENCODER_MODULE_FROM_BIN / moduleName};
}

struct LoadedModule {
  EncoderModuleEntry entry = nullptr;
  std::string failure;
};

// Loaded once and kept for the life of the process: encoders made from it may outlive any
// one stream, and unloading libavcodec buys nothing once it has been needed.
const LoadedModule& loadModule() {
  static const LoadedModule module = [] {
    LoadedModule loaded;
    std::string reasons;
    for (const auto& path : moduleCandidates()) {
      if (!std::filesystem::exists(path)) continue;
      void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
      if (!handle) {
        reasons = ::dlerror();
        continue;
      }
      loaded.entry = reinterpret_cast<EncoderModuleEntry>(::dlsym(handle, encoderModuleEntryPoint));
      if (loaded.entry) return loaded;
      reasons = path.string() + " has no encoder";
      ::dlclose(handle);
    }
    loaded.failure = reasons.empty() ? std::string(moduleName) + " was not found" : reasons;
    return loaded;
  }();
  return module;
}

}  // namespace

EncoderFactory loadableEncoderFactory() {
  return [](const StreamEncoderSettings& settings, std::function<void(EncodedVideoFrame)> output) {
    const LoadedModule& module = loadModule();
    if (!module.entry) {
      throw Error("the video encoder could not be loaded (" + module.failure +
                  "); reinstall Orin Link");
    }
    return std::unique_ptr<StreamEncoder>(module.entry(settings, std::move(output)));
  };
}

}  // namespace orin::screen
