// Videos as frames, through FFmpeg's libraries: any container and codec they read. Each decoded
// picture becomes an NV12 frame in full-range BT.601, the colours the library's frames carry.
#ifndef VELMORA_TOOL_VIDEO_READER_H
#define VELMORA_TOOL_VIDEO_READER_H

#include <memory>
#include <string>
#include <vector>

#include "frame_source.h"

struct AVCodecContext;
struct AVFormatContext;
struct AVIOContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

namespace velmora::tool {

// Whether libavformat recognises the first bytes of a file (with AVPROBE_PADDING_SIZE zero bytes
// after them) as a container: a quick look for telling a video from raw frames.
bool LooksLikeVideo(const std::string& path, const uint8_t* head, size_t size);

class VideoSource final : public FrameSource {
 public:
  // Opens the container and the decoder of its best video stream. Odd sides are cropped to even
  // (the last column or row is dropped). Returns null with *error naming the file and the
  // problem; *recognised tells whether the content is a video at all (looks_like_video: what
  // LooksLikeVideo said, for a container too damaged to open).
  static std::unique_ptr<VideoSource> Open(const std::string& path, bool looks_like_video,
                                           bool* recognised, std::string* error);
  // The same from a video held in memory (size bytes at data, which must outlive the source),
  // read through FFmpeg's custom I/O with read and seek callbacks; name stands for the file in
  // messages.
  static std::unique_ptr<VideoSource> OpenMemory(const uint8_t* data, size_t size,
                                                 const std::string& name, bool looks_like_video,
                                                 bool* recognised, std::string* error);
  ~VideoSource() override;

  FrameGeometry geometry() const override { return geometry_; }
  ChromaOrder order() const override { return ChromaOrder::kNv12; }
  size_t frameCount() const override { return frame_count_; }
  bool next(uint8_t* frame, std::string* error) override;
  bool skip(std::string* error) override;  // decodes (inter frames need it) but converts nothing

 private:
  explicit VideoSource(std::string path);
  // The rest of opening, by path_ or through io_ when that is set.
  static std::unique_ptr<VideoSource> OpenInput(std::unique_ptr<VideoSource> video,
                                                bool looks_like_video, bool* recognised,
                                                std::string* error);
  // io_'s callbacks over memory_.
  static int ReadMemory(void* opaque, uint8_t* to, int size);
  static int64_t SeekMemory(void* opaque, int64_t offset, int whence);
  bool decode(std::string* error);
  bool convert(uint8_t* frame, std::string* error);
  double announcedSeconds() const;  // the video's duration as the container gives it, or 0

  std::string path_;
  FrameGeometry geometry_;
  size_t frame_count_ = kUnknownFrameCount;
  size_t decoded_ = 0;
  double last_seconds_ = 0.0;  // the time of the last frame decoded, from the stream's start
  AVFormatContext* format_ = nullptr;
  // A video in memory: the bytes, the read position, and the I/O context over them (owned here,
  // as libavformat leaves a caller's I/O context to the caller).
  const uint8_t* memory_ = nullptr;
  size_t memory_size_ = 0;
  size_t memory_at_ = 0;
  AVIOContext* io_ = nullptr;
  AVCodecContext* codec_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* picture_ = nullptr;
  AVFrame* planar_ = nullptr;  // other layouts and depths, brought to 8-bit 4:2:0 first
  SwsContext* sws_ = nullptr;
  int stream_ = -1;
  // The colour conversion of the current colour description (see ColourTables).
  int tables_for_ = -1;
  std::vector<int32_t> tables_;
};

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_VIDEO_READER_H
