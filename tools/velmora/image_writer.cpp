#include "image_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <utility>

#include "bt601.h"
#include "interrupt.h"
#include "picture_encoders.h"

namespace velmora::tool {

namespace {

std::string Lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}


}  // namespace

bool OutputKindForPath(const std::string& path, OutputKind* kind) {
  const std::string lower = Lowercase(path);
  static const std::pair<const char*, OutputKind> kExtensions[] = {
      {".yuv", OutputKind::kRaw},
      {".nv12", OutputKind::kNv12},
      {".nv21", OutputKind::kNv21},
      {".png", OutputKind::kPng},
      {".jpg", OutputKind::kJpeg},
      {".jpeg", OutputKind::kJpeg},
  };
  for (const auto& [extension, named] : kExtensions) {
    // A bare ".png" is a hidden file's name, not an extension.
    if (EndsWith(lower, extension) && lower.size() > std::strlen(extension) &&
        lower[lower.size() - std::strlen(extension) - 1] != '/') {
      *kind = named;
      return true;
    }
  }
  return false;
}

void SwapChromaPairs(uint8_t* chroma, size_t bytes) {
  for (size_t i = 0; i + 1 < bytes; i += 2) std::swap(chroma[i], chroma[i + 1]);
}

std::unique_ptr<AtomicOutput> AtomicOutput::Create(const std::string& path, std::string* error) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    *error = path + ": is a directory";
    return nullptr;
  }
  // Same directory as the destination, so that the final rename stays on one file system.
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::string stem = directory + "." + base + ".tmp-" + std::to_string(getpid());

  for (int attempt = 0;; ++attempt) {
    const std::string temp_path = attempt == 0 ? stem : stem + "-" + std::to_string(attempt);
    const int fd = open(temp_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
      if (errno == EEXIST && attempt < 100) continue;
      *error = path + ": cannot create the output file: " + std::strerror(errno);
      return nullptr;
    }
    GuardTemporary(temp_path);
    std::FILE* file = fdopen(fd, "wb");
    if (file == nullptr) {
      *error = path + ": cannot create the output file: " + std::strerror(errno);
      close(fd);
      unlink(temp_path.c_str());
      ReleaseTemporary();
      return nullptr;
    }
    return std::unique_ptr<AtomicOutput>(new AtomicOutput(path, temp_path, file));
  }
}

AtomicOutput::AtomicOutput(std::string path, std::string temp_path, std::FILE* file)
    : path_(std::move(path)), temp_path_(std::move(temp_path)), file_(file) {}

AtomicOutput::~AtomicOutput() {
  if (!temp_path_.empty()) discard();
}

void AtomicOutput::discard() {
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
  unlink(temp_path_.c_str());
  temp_path_.clear();
  ReleaseTemporary();
}

bool AtomicOutput::commit(std::string* error) {
  // Flushed to the disk before the rename, so the destination is the old file or the new one
  // even across a crash.
  int failure = 0;
  if (std::fflush(file_) != 0 || fsync(fileno(file_)) != 0) failure = errno;
  if (std::fclose(file_) != 0 && failure == 0) failure = errno;
  file_ = nullptr;
  if (failure == 0 && std::rename(temp_path_.c_str(), path_.c_str()) != 0) failure = errno;
  if (failure != 0) {
    *error = path_ + ": cannot write the output file: " + std::strerror(failure);
    discard();
    return false;
  }
  temp_path_.clear();
  ReleaseTemporary();
  return true;
}

bool WritePng(AtomicOutput& out, const uint8_t* rgb, uint32_t width, uint32_t height,
              std::string* error) {
  std::string why;
  const bool ok = EncodePng(out.file(), rgb, width, height, 3, &why);
  if (!ok) *error = out.path() + ": cannot write the output file: " + why;
  return ok;
}

bool WritePicture(AtomicOutput& out, OutputKind kind, const std::vector<uint8_t>& picture,
                  FrameGeometry geometry, ChromaOrder order, std::string* error,
                  int jpeg_quality) {
  if (kind == OutputKind::kPng) {
    const std::vector<uint8_t> rgb = FrameToRgb(picture.data(), geometry, order);
    return WritePng(out, rgb.data(), geometry.width, geometry.height, error);
  }
  if (kind == OutputKind::kJpeg) {
    std::string why;
    const bool ok = EncodeJpeg(out.file(), picture.data(), geometry, order, jpeg_quality, &why);
    if (!ok) *error = out.path() + ": cannot write the output file: " + why;
    return ok;
  }

  const bool swap = (kind == OutputKind::kNv12 && order == ChromaOrder::kNv21) ||
                    (kind == OutputKind::kNv21 && order == ChromaOrder::kNv12);
  std::vector<uint8_t> swapped;
  const uint8_t* bytes = picture.data();
  if (swap) {
    swapped = picture;
    SwapChromaPairs(swapped.data() + geometry.lumaBytes(), geometry.chromaBytes());
    bytes = swapped.data();
  }
  if (std::fwrite(bytes, 1, picture.size(), out.file()) != picture.size()) {
    *error = out.path() + ": cannot write the output file: " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace velmora::tool
