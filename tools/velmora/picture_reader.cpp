#include "picture_reader.h"

#include <png.h>
#include <turbojpeg.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "bt601.h"

namespace velmora::tool {

namespace {

std::string Dimensions(uint32_t width, uint32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

// Crops odd sides to even; false if nothing is left or the picture is too large for a frame.
bool FrameGeometryFor(const std::string& path, uint32_t width, uint32_t height,
                      FrameGeometry* geometry, std::string* error) {
  if (width < 2 || height < 2 || width > kMaxSide || height > kMaxSide) {
    *error = path + ": " + Dimensions(width, height) +
             " pixels: frames need 2 to " + std::to_string(kMaxSide) + " pixels a side";
    return false;
  }
  geometry->width = width & ~1u;
  geometry->height = height & ~1u;
  return true;
}

}  // namespace

bool PictureFormatOf(const uint8_t* head, size_t size, PictureFormat* format) {
  static const uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (size >= 8 && std::memcmp(head, kPngSignature, 8) == 0) {
    *format = PictureFormat::kPng;
    return true;
  }
  if (size >= 3 && head[0] == 0xff && head[1] == 0xd8 && head[2] == 0xff) {
    *format = PictureFormat::kJpeg;
    return true;
  }
  return false;
}

// libpng reports errors by longjmp; the message is kept here for the caller.
struct PictureSource::Png {
  std::FILE* file = nullptr;
  png_structp png = nullptr;
  png_infop info = nullptr;
  char message[256] = "";

  ~Png() {
    if (png != nullptr) png_destroy_read_struct(&png, &info, nullptr);
    if (file != nullptr) std::fclose(file);
  }

  static void OnError(png_structp png, png_const_charp text) {
    Png* self = static_cast<Png*>(png_get_error_ptr(png));
    std::snprintf(self->message, sizeof self->message, "%s", text);
    png_longjmp(png, 1);
  }
  static void OnWarning(png_structp, png_const_charp) {}

  // Reads up to the pixels and sets every reduction to 8-bit RGB. No C++ object lives in this
  // frame, so the longjmp skips no destructor.
  bool readHeader(uint32_t* width, uint32_t* height) {
    png = png_create_read_struct(PNG_LIBPNG_VER_STRING, this, OnError, OnWarning);
    if (png == nullptr) return false;
    info = png_create_info_struct(png);
    if (info == nullptr || setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    png_read_info(png, info);
    *width = png_get_image_width(png, info);
    *height = png_get_image_height(png, info);
    png_set_expand(png);    // palette, grey below 8 bits and transparency keys to plain samples
    png_set_scale_16(png);  // 16-bit samples to 8, rounded (v * 255 / 65535)
    png_set_strip_alpha(png);  // alpha is dropped: a frame has no transparency
    png_set_gray_to_rgb(png);
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    return true;
  }

  bool readRows(png_bytepp rows) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_image(png, rows);
    png_read_end(png, nullptr);
    return true;
  }
};

std::unique_ptr<PictureSource> PictureSource::Open(const std::string& path, PictureFormat format,
                                                   std::string* error) {
  std::unique_ptr<PictureSource> source(new PictureSource(path, format));
  if (format == PictureFormat::kPng) {
    source->png_ = std::make_unique<Png>();
    Png& png = *source->png_;
    png.file = std::fopen(path.c_str(), "rb");
    if (png.file == nullptr) {
      *error = path + ": " + std::strerror(errno);
      return nullptr;
    }
    if (!png.readHeader(&source->width_, &source->height_)) {
      *error = path + ": not a valid PNG picture (" + png.message + ")";
      return nullptr;
    }
  } else {
    std::ifstream file(path, std::ios::binary);
    source->jpeg_.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    source->tj_ = tjInitDecompress();
    int width = 0, height = 0, subsampling = 0, colorspace = 0;
    if (source->tj_ == nullptr ||
        tjDecompressHeader3(source->tj_, source->jpeg_.data(), source->jpeg_.size(), &width,
                            &height, &subsampling, &colorspace) != 0) {
      *error = path + ": not a valid JPEG picture (" + tjGetErrorStr2(source->tj_) + ")";
      return nullptr;
    }
    source->width_ = static_cast<uint32_t>(width);
    source->height_ = static_cast<uint32_t>(height);
  }
  if (!FrameGeometryFor(path, source->width_, source->height_, &source->geometry_, error)) {
    return nullptr;
  }
  return source;
}

PictureSource::PictureSource(std::string path, PictureFormat format)
    : path_(std::move(path)), format_(format) {}

PictureSource::~PictureSource() {
  if (tj_ != nullptr) tjDestroy(tj_);
}

bool PictureSource::skip(std::string* error) {
  error->clear();
  if (done_) return false;
  done_ = true;
  return true;
}

bool PictureSource::next(uint8_t* frame, std::string* error) {
  error->clear();
  if (done_) return false;
  done_ = true;
  return format_ == PictureFormat::kPng ? decodePng(frame, error) : decodeJpeg(frame, error);
}

bool PictureSource::decodePng(uint8_t* frame, std::string* error) {
  const size_t stride = size_t{width_} * 3;
  std::vector<uint8_t> rgb(stride * height_);
  std::vector<png_bytep> rows(height_);
  for (uint32_t y = 0; y < height_; ++y) rows[y] = rgb.data() + y * stride;
  const bool ok = png_->readRows(rows.data());
  if (!ok) *error = path_ + ": damaged PNG picture (" + png_->message + ")";
  png_.reset();
  if (ok) RgbToNv12(rgb.data(), stride, geometry_, frame);
  return ok;
}

bool PictureSource::decodeJpeg(uint8_t* frame, std::string* error) {
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  tjDecompressHeader3(tj_, jpeg_.data(), jpeg_.size(), &width, &height, &subsampling, &colorspace);
  bool ok;
  if (subsampling == TJSAMP_420 && colorspace == TJCS_YCbCr) {
    // JPEG's YCbCr is full-range BT.601 already: the planes go in as they are, with no round
    // trip through RGB.
    const int chroma_width = (width + 1) / 2, chroma_height = (height + 1) / 2;
    std::vector<uint8_t> planes(size_t(width) * height + 2 * size_t(chroma_width) * chroma_height);
    unsigned char* plane[3] = {planes.data(), planes.data() + size_t(width) * height,
                               planes.data() + size_t(width) * height +
                                   size_t(chroma_width) * chroma_height};
    int strides[3] = {width, chroma_width, chroma_width};
    ok = tjDecompressToYUVPlanes(tj_, jpeg_.data(), jpeg_.size(), plane, width, strides, height,
                                 0) == 0;
    if (ok) {
      const size_t w = geometry_.width;
      for (size_t y = 0; y < geometry_.height; ++y)
        std::memcpy(frame + y * w, plane[0] + y * size_t(width), w);
      uint8_t* pairs = frame + geometry_.lumaBytes();
      for (size_t y = 0; y < geometry_.height / 2; ++y) {
        for (size_t x = 0; x < w / 2; ++x) {
          pairs[y * w + 2 * x] = plane[1][y * chroma_width + x];
          pairs[y * w + 2 * x + 1] = plane[2][y * chroma_width + x];
        }
      }
    }
  } else {
    const size_t stride = size_t(width) * 3;
    std::vector<uint8_t> rgb(stride * height);
    ok = tjDecompress2(tj_, jpeg_.data(), jpeg_.size(), rgb.data(), width, int(stride), height,
                       TJPF_RGB, 0) == 0;
    if (ok) RgbToNv12(rgb.data(), stride, geometry_, frame);
  }
  // A warning (a truncated file, a damaged segment) fails too: the picture would be partly grey.
  if (!ok) *error = path_ + ": damaged JPEG picture (" + tjGetErrorStr2(tj_) + ")";
  jpeg_.clear();
  jpeg_.shrink_to_fit();
  return ok;
}

}  // namespace velmora::tool
