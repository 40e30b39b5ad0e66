// Raw YUV 4:2:0 frames to and from headerless files: the luma plane, then the chroma plane.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/log.h"
#include "velmora/yuv.h"

namespace velmora {
namespace {

// A failed open is logged and nothing is transferred, rather than reading or writing through a
// null stream. The path is cut short so that the line stays within the logger's 1024 bytes.
std::FILE* OpenFile(const char* path, const char* mode) {
  std::FILE* file = std::fopen(path, mode);
  if (file == nullptr) VLOG_ERROR("cannot open yuv file %.800s (mode %s)", path, mode);
  return file;
}

// Plane sizes as 32-bit signed products, divided toward zero: odd sizes drop a byte of chroma
// (3 x 3 gives 9 + 4 bytes, yet a whole frame is 27 / 2 = 13).
int LumaBytes(int width, int height) { return width * height; }
int ChromaBytes(int width, int height) { return (width * height) / 2; }
int FrameBytes(int width, int height) { return (width * height * 3) / 2; }

// Truncation toward zero to int32, saturating (NaN gives 0), as the arm64 conversion does; the
// byte kept is the low eight bits, so values wrap rather than clamp: 256.0 gives 0, -1.0 255.
uint8_t LowByteOfTruncated(double v) {
  int32_t i;
  if (v != v) {
    i = 0;
  } else if (v >= 2147483647.0) {
    i = INT32_MAX;
  } else if (v <= -2147483648.0) {
    i = INT32_MIN;
  } else {
    i = static_cast<int32_t>(v);
  }
  return static_cast<uint8_t>(static_cast<uint32_t>(i) & 0xFFu);
}

// count doubles as bytes, in a zero-initialised block from the C allocator (free it).
uint8_t* TruncatedBytes(const double* values, int count) {
  const size_t n = count > 0 ? static_cast<size_t>(count) : 0;
  uint8_t* bytes = static_cast<uint8_t*>(std::calloc(n > 0 ? n : 1, 1));
  for (size_t i = 0; i < n; ++i) bytes[i] = LowByteOfTruncated(values[i]);
  return bytes;
}

// One fread/fwrite per plane, element size 1; a negative count transfers nothing. Short
// transfers are not reported.
void Read(std::FILE* file, void* to, int bytes) {
  if (bytes > 0) (void)std::fread(to, 1, static_cast<size_t>(bytes), file);
}
void Write(std::FILE* file, const void* from, int bytes) {
  if (bytes > 0) (void)std::fwrite(from, 1, static_cast<size_t>(bytes), file);
}

}  // namespace
}  // namespace velmora

using velmora::ChromaBytes;
using velmora::FrameBytes;
using velmora::LumaBytes;
using velmora::OpenFile;

// "rb+", read and update, where "rb" would do: a file that exists but is not writable is not
// read. ReadYUVFile uses "rb"; the difference is the readers' own and is kept.
void readYUVFile(std::string path, unsigned char* frame, int width, int height) {
  std::FILE* file = OpenFile(path.c_str(), "rb+");
  if (file == nullptr) return;
  velmora::Read(file, frame, FrameBytes(width, height));
  std::fclose(file);
}

void writeYUVFile(std::string path, unsigned char* frame, int width, int height) {
  std::FILE* file = OpenFile(path.c_str(), "wb");
  if (file == nullptr) return;
  velmora::Write(file, frame, FrameBytes(width, height));
  std::fclose(file);
}

void writeYUVFile(std::string path, double* frame, int width, int height) {
  std::FILE* file = OpenFile(path.c_str(), "wb");
  if (file == nullptr) return;
  const int bytes = FrameBytes(width, height);
  uint8_t* converted = velmora::TruncatedBytes(frame, bytes);
  velmora::Write(file, converted, bytes);
  std::free(converted);
  std::fclose(file);
}

int ReadYUVFile(unsigned char* lumaBuf, unsigned char* chromaBuf, const char* path, int width,
                int height) {
  std::FILE* file = OpenFile(path, "rb");
  if (file == nullptr) return 0;  // 0 whatever happens
  velmora::Read(file, lumaBuf, LumaBytes(width, height));
  velmora::Read(file, chromaBuf, ChromaBytes(width, height));
  std::fclose(file);
  return 0;
}

int WriteYUVFile(unsigned char* lumaBuf, unsigned char* chromaBuf, const char* path, int width,
                 int height) {
  std::FILE* file = OpenFile(path, "wb");
  if (file == nullptr) return 0;
  velmora::Write(file, lumaBuf, LumaBytes(width, height));
  velmora::Write(file, chromaBuf, ChromaBytes(width, height));
  std::fclose(file);
  return 0;
}

// The two converted planes used to be allocated at eight bytes per element and never freed;
// only their first bytes were ever written to the file. They are sized to what is written and
// released: the file's bytes are the same.
int WriteYUVFile(double* lumaBuf, double* chromaBuf, const char* path, int width, int height) {
  std::FILE* file = OpenFile(path, "wb");
  if (file == nullptr) return 0;
  const int luma = LumaBytes(width, height);
  const int chroma = ChromaBytes(width, height);
  uint8_t* luma_bytes = velmora::TruncatedBytes(lumaBuf, luma);
  uint8_t* chroma_bytes = velmora::TruncatedBytes(chromaBuf, chroma);
  velmora::Write(file, luma_bytes, luma);
  velmora::Write(file, chroma_bytes, chroma);
  std::free(luma_bytes);
  std::free(chroma_bytes);
  std::fclose(file);
  return 0;
}
