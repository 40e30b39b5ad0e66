#include "video_module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>

namespace velmora::tool {

const VideoModule* LoadVideoModule(std::string* error) {
  static std::string failure;
  static const VideoModule* module = [] () -> const VideoModule* {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string path = n > 0 ? std::string(self, size_t(n)) : std::string();
    path = path.substr(0, path.rfind('/') + 1) + "../lib/velmora-video.so";
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      failure = std::string("cannot load the video reader: ") + dlerror();
      return nullptr;
    }
    using Entry = const VideoModule* (*)();
    auto entry = reinterpret_cast<Entry>(dlsym(library, VELMORA_VIDEO_MODULE_ENTRY));
    if (entry == nullptr) {
      failure = path + ": not the video reader";
      return nullptr;
    }
    return entry();
  }();
  if (module == nullptr) *error = failure;
  return module;
}

}  // namespace velmora::tool
