#include "video_reader.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "interrupt.h"
#include "video_module.h"

namespace velmora::tool {

namespace {

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(code, text, sizeof text);
  return text;
}

// FFmpeg's own log lines would come between the tool's; its last error is kept instead, to say
// what was wrong in the tool's one error line.
std::mutex g_log_mutex;
std::string g_last_log_error;

extern "C" void KeepLastError(void* context, int level, const char* format, va_list args) {
  if (level > AV_LOG_ERROR) return;
  char line[512];
  int prefix = 1;
  av_log_format_line2(context, level, format, args, line, sizeof line, &prefix);
  std::string text = line;
  // Without the "[mov,mp4... @ 0x...] " context prefix and the newline.
  const size_t bracket = text.rfind("] ");
  if (text.rfind('[', 0) == 0 && bracket != std::string::npos) text.erase(0, bracket + 2);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_last_log_error = text;
}

// The last error FFmpeg logged (cleared), or the text of code.
std::string Reason(int code) {
  std::string logged;
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    logged.swap(g_last_log_error);
  }
  return logged.empty() ? AvError(code) : logged;
}

// Lets a stop request cut a read that waits on a slow input.
int StopCallback(void*) { return StopRequested() ? 1 : 0; }

// The luma weights (Kr, Kb) of a matrix. Unspecified means BT.601, as FFmpeg itself takes it.
void LumaWeights(AVColorSpace space, double* kr, double* kb) {
  switch (space) {
    case AVCOL_SPC_BT709: *kr = 0.2126; *kb = 0.0722; return;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL: *kr = 0.2627; *kb = 0.0593; return;
    case AVCOL_SPC_SMPTE240M: *kr = 0.212; *kb = 0.087; return;
    case AVCOL_SPC_FCC: *kr = 0.30; *kb = 0.11; return;
    default: *kr = 0.299; *kb = 0.114; return;
  }
}

// One pixel of the video's colours (matrix kr/kb, limited or full range) in full-range BT.601,
// through normalised RGB, unrounded.
void ToFullRangeBt601(double kr, double kb, bool full, double y, double cb, double cr,
                      double out[3]) {
  const double yn = full ? y / 255.0 : (y - 16.0) / 219.0;
  const double pb = (cb - 128.0) / (full ? 255.0 : 224.0);
  const double pr = (cr - 128.0) / (full ? 255.0 : 224.0);
  const double r = yn + 2.0 * (1.0 - kr) * pr;
  const double b = yn + 2.0 * (1.0 - kb) * pb;
  const double g = (yn - kr * r - kb * b) / (1.0 - kr - kb);
  const double y601 = 0.299 * r + 0.587 * g + 0.114 * b;
  out[0] = 255.0 * y601;
  out[1] = 128.0 + 255.0 * (b - y601) / (2.0 * (1.0 - 0.114));
  out[2] = 128.0 + 255.0 * (r - y601) / (2.0 * (1.0 - 0.299));
}

// The conversion is affine, so each output is a sum of one term per input byte: eight tables of
// 256 terms in 16.16 fixed point (Y from Y, Cb, Cr; Cb from Cb, Cr; Cr from Cb, Cr; the rounding
// half in the first table of each output). Chroma does not depend on luma.
enum Table { kYy, kYb, kYr, kBb, kBr, kRb, kRr, kTables };

std::vector<int32_t> ColourTables(AVColorSpace space, bool full) {
  double kr, kb;
  LumaWeights(space, &kr, &kb);
  double base[3], y1[3], b1[3], r1[3];
  ToFullRangeBt601(kr, kb, full, 0.0, 128.0, 128.0, base);
  ToFullRangeBt601(kr, kb, full, 1.0, 128.0, 128.0, y1);
  ToFullRangeBt601(kr, kb, full, 0.0, 129.0, 128.0, b1);
  ToFullRangeBt601(kr, kb, full, 0.0, 128.0, 129.0, r1);
  // Each table is exactly affine in fixed point, at0 + v * slope, so that the range-only path
  // can use the same two numbers.
  auto fixed = [](double v) { return static_cast<int32_t>(std::lround(v * 65536.0)); };
  std::vector<int32_t> t(kTables * 256);
  auto fill = [&](Table table, double at0, double slope) {
    for (int v = 0; v < 256; ++v) t[table * 256 + v] = fixed(at0) + v * fixed(slope);
  };
  // The outputs at Cb = Cr = 128 go in the luma-driven table (Y) or the Cb-driven one (Cb, Cr).
  fill(kYy, base[0] + 0.5, y1[0] - base[0]);
  fill(kYb, -128.0 * (b1[0] - base[0]), b1[0] - base[0]);
  fill(kYr, -128.0 * (r1[0] - base[0]), r1[0] - base[0]);
  fill(kBb, base[1] - 128.0 * (b1[1] - base[1]) + 0.5, b1[1] - base[1]);
  fill(kBr, -128.0 * (r1[1] - base[1]), r1[1] - base[1]);
  fill(kRb, -128.0 * (b1[2] - base[2]), b1[2] - base[2]);
  fill(kRr, base[2] - 128.0 * (r1[2] - base[2]) + 0.5, r1[2] - base[2]);
  return t;
}

inline uint8_t FixedToByte(int32_t v) { return static_cast<uint8_t>(std::clamp(v >> 16, 0, 255)); }

// One byte's affine map in 16.16 fixed point: (v * scale + offset) >> 16, clamped to 0..255.
struct ByteMap {
  int32_t scale, offset;
  uint8_t operator()(uint8_t v) const { return FixedToByte(v * scale + offset); }
};

#if defined(__SSE2__)
// The same map on eight bytes widened to 16-bit lanes, exactly, without 32-bit products (SSE2
// has none): scale = 65536 q + s and offset = 65536 oh + ol with s, ol in 0..65535 give
// (v scale + offset) >> 16 = v q + oh + ((v s) >> 16) + carry, where carry is 1 when the low
// halves of v s and ol overflow 16 bits. Fits 16-bit lanes while 255 q + 255 + |oh| does.
struct ByteMap8 {
  explicit ByteMap8(ByteMap m)
      : q(_mm_set1_epi16(int16_t(m.scale >> 16))),
        s(_mm_set1_epi16(int16_t(uint16_t(m.scale & 0xFFFF)))),
        oh(_mm_set1_epi16(int16_t(m.offset >> 16))),
        ol(_mm_set1_epi16(int16_t(uint16_t(m.offset & 0xFFFF)))) {}
  static bool Fits(ByteMap m) {
    return m.scale >= 0 && (m.scale >> 16) <= 64 && std::abs(m.offset >> 16) <= 4096;
  }
  // v: eight values 0..255 in 16-bit lanes; the result is unclamped (packus clamps).
  __m128i operator()(__m128i v) const {
    const __m128i sign = _mm_set1_epi16(int16_t(0x8000));
    const __m128i low = _mm_mullo_epi16(v, s);
    const __m128i sum = _mm_add_epi16(low, ol);
    // Unsigned sum < low, compared as signed after flipping the top bits: all ones on a carry.
    const __m128i carry = _mm_cmpgt_epi16(_mm_xor_si128(low, sign), _mm_xor_si128(sum, sign));
    const __m128i whole = _mm_add_epi16(_mm_mullo_epi16(v, q), oh);
    return _mm_sub_epi16(_mm_add_epi16(whole, _mm_mulhi_epu16(v, s)), carry);
  }
  __m128i q, s, oh, ol;
};
#endif

// A row of n bytes through one map.
void MapRow(const uint8_t* in, size_t n, ByteMap m, uint8_t* out) {
  size_t x = 0;
#if defined(__SSE2__)
  if (ByteMap8::Fits(m)) {
    const ByteMap8 map(m);
    const __m128i zero = _mm_setzero_si128();
    for (; x + 16 <= n; x += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + x));
      const __m128i lo = map(_mm_unpacklo_epi8(v, zero)), hi = map(_mm_unpackhi_epi8(v, zero));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(lo, hi));
    }
  }
#endif
  for (; x < n; ++x) out[x] = m(in[x]);
}

// n chroma pairs from rows of U and V through their maps, interleaved U, V.
void MapPairs(const uint8_t* u, const uint8_t* v, size_t n, ByteMap mu, ByteMap mv,
              uint8_t* out) {
  size_t x = 0;
#if defined(__SSE2__)
  if (ByteMap8::Fits(mu) && ByteMap8::Fits(mv)) {
    const ByteMap8 map_u(mu), map_v(mv);
    const __m128i zero = _mm_setzero_si128();
    for (; x + 16 <= n; x += 16) {
      const __m128i cu = _mm_loadu_si128(reinterpret_cast<const __m128i*>(u + x));
      const __m128i cv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + x));
      const __m128i us = _mm_packus_epi16(map_u(_mm_unpacklo_epi8(cu, zero)),
                                          map_u(_mm_unpackhi_epi8(cu, zero)));
      const __m128i vs = _mm_packus_epi16(map_v(_mm_unpacklo_epi8(cv, zero)),
                                          map_v(_mm_unpackhi_epi8(cv, zero)));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * x), _mm_unpacklo_epi8(us, vs));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * x + 16), _mm_unpackhi_epi8(us, vs));
    }
  }
#endif
  for (; x < n; ++x) {
    out[2 * x] = mu(u[x]);
    out[2 * x + 1] = mv(v[x]);
  }
}

bool IsFullRange(const AVFrame* frame) {
  return frame->color_range == AVCOL_RANGE_JPEG || frame->format == AV_PIX_FMT_YUVJ420P ||
         frame->format == AV_PIX_FMT_YUVJ422P || frame->format == AV_PIX_FMT_YUVJ444P ||
         frame->format == AV_PIX_FMT_YUVJ440P || frame->format == AV_PIX_FMT_YUVJ411P;
}

}  // namespace

bool LooksLikeVideo(const std::string& path, const uint8_t* head, size_t size) {
  std::vector<uint8_t> padded(size + AVPROBE_PADDING_SIZE, 0);
  std::copy(head, head + size, padded.begin());
  AVProbeData probe{};
  probe.filename = path.c_str();
  probe.buf = padded.data();
  probe.buf_size = int(size);
  int score = 0;
  return av_probe_input_format3(&probe, 1, &score) != nullptr && score > AVPROBE_SCORE_RETRY;
}

std::unique_ptr<VideoSource> VideoSource::Open(const std::string& path, bool looks_like_video,
                                               bool* recognised, std::string* error) {
  return OpenInput(std::unique_ptr<VideoSource>(new VideoSource(path)), looks_like_video,
                   recognised, error);
}

std::unique_ptr<VideoSource> VideoSource::OpenMemory(const uint8_t* data, size_t size,
                                                     const std::string& name,
                                                     bool looks_like_video, bool* recognised,
                                                     std::string* error) {
  std::unique_ptr<VideoSource> video(new VideoSource(name));
  video->memory_ = data;
  video->memory_size_ = size;
  // libavformat reads through a block of its own (it may replace it by a larger one, so the
  // context's current block is the one freed).
  constexpr int kBlockBytes = 64 << 10;
  auto* block = static_cast<unsigned char*>(av_malloc(kBlockBytes));
  if (block == nullptr) throw std::bad_alloc();
  video->io_ = avio_alloc_context(block, kBlockBytes, 0, video.get(), ReadMemory, nullptr,
                                  SeekMemory);
  if (video->io_ == nullptr) {
    av_free(block);
    throw std::bad_alloc();
  }
  return OpenInput(std::move(video), looks_like_video, recognised, error);
}

int VideoSource::ReadMemory(void* opaque, uint8_t* to, int size) {
  VideoSource* self = static_cast<VideoSource*>(opaque);
  const size_t n = std::min(size_t(std::max(size, 0)), self->memory_size_ - self->memory_at_);
  if (n == 0) return AVERROR_EOF;
  std::memcpy(to, self->memory_ + self->memory_at_, n);
  self->memory_at_ += n;
  return int(n);
}

int64_t VideoSource::SeekMemory(void* opaque, int64_t offset, int whence) {
  VideoSource* self = static_cast<VideoSource*>(opaque);
  const int64_t size = int64_t(self->memory_size_);
  int64_t base = 0;
  switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return size;
    case SEEK_SET: base = 0; break;
    case SEEK_CUR: base = int64_t(self->memory_at_); break;
    case SEEK_END: base = size; break;
    default: return AVERROR(EINVAL);
  }
  // Offsets come from the container's own fields: any value, checked before it is added.
  if (offset < -base || offset > size - base) return AVERROR(EINVAL);
  self->memory_at_ = size_t(base + offset);
  return base + offset;
}

std::unique_ptr<VideoSource> VideoSource::OpenInput(std::unique_ptr<VideoSource> video,
                                                    bool looks_like_video, bool* recognised,
                                                    std::string* error) {
  static const bool quiet = [] {
    av_log_set_callback(KeepLastError);
    return true;
  }();
  (void)quiet;
  *recognised = false;
  const std::string& path = video->path_;
  video->format_ = avformat_alloc_context();
  if (video->format_ == nullptr) throw std::bad_alloc();
  video->format_->interrupt_callback.callback = StopCallback;
  // With an I/O context of its own the name only hints at the container by its extension.
  video->format_->pb = video->io_;
  int status = avformat_open_input(&video->format_, path.c_str(), nullptr, nullptr);
  if (status < 0) {
    *recognised = looks_like_video;
    *error = path + (status != AVERROR_INVALIDDATA ? ": cannot open the video: " + Reason(status)
                     : looks_like_video ? ": damaged or truncated video: " + Reason(status)
                                        : ": not a video or picture");
    return nullptr;
  }
  *recognised = true;
  status = avformat_find_stream_info(video->format_, nullptr);
  if (status < 0) {
    *error = path + ": damaged video: " + Reason(status);
    return nullptr;
  }
  const AVCodec* decoder = nullptr;
  status = av_find_best_stream(video->format_, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
  if (status < 0) {
    *error = path + (status == AVERROR_STREAM_NOT_FOUND ? ": no video stream"
                                                        : ": no decoder for its video stream");
    return nullptr;
  }
  video->stream_ = status;
  const AVStream* stream = video->format_->streams[status];
  for (unsigned i = 0; i < video->format_->nb_streams; ++i) {
    if (int(i) != video->stream_) video->format_->streams[i]->discard = AVDISCARD_ALL;
  }
  video->codec_ = avcodec_alloc_context3(decoder);
  video->packet_ = av_packet_alloc();
  video->picture_ = av_frame_alloc();
  video->planar_ = av_frame_alloc();
  if (video->codec_ == nullptr || video->packet_ == nullptr || video->picture_ == nullptr ||
      video->planar_ == nullptr) {
    throw std::bad_alloc();
  }
  avcodec_parameters_to_context(video->codec_, stream->codecpar);
  video->codec_->thread_count = 0;  // as many as the machine has: decoding is the bulk of the work
  // A damaged stream is refused rather than concealed: the picture would carry the damage.
  video->codec_->err_recognition |= AV_EF_EXPLODE;
  {
    // The decoder's threads start here and must not take the signals meant for the reader.
    InterruptsDeferred deferred;
    status = avcodec_open2(video->codec_, decoder, nullptr);
  }
  if (status < 0) {
    *error = path + ": cannot decode its video stream: " + Reason(status);
    return nullptr;
  }
  const int width = stream->codecpar->width, height = stream->codecpar->height;
  if (width < 2 || height < 2 || width > int(kMaxSide) || height > int(kMaxSide)) {
    *error = path + ": " + std::to_string(width) + "x" + std::to_string(height) +
             " video: frames need 2 to " + std::to_string(kMaxSide) + " pixels a side";
    return nullptr;
  }
  video->geometry_ = {uint32_t(width) & ~1u, uint32_t(height) & ~1u};
  if (stream->nb_frames > 0) video->frame_count_ = static_cast<size_t>(stream->nb_frames);
  return video;
}

VideoSource::VideoSource(std::string path) : path_(std::move(path)) {}

VideoSource::~VideoSource() {
  sws_freeContext(sws_);
  av_frame_free(&planar_);
  av_frame_free(&picture_);
  av_packet_free(&packet_);
  avcodec_free_context(&codec_);
  avformat_close_input(&format_);  // leaves a caller's I/O context alone
  if (io_ != nullptr) {
    av_freep(&io_->buffer);
    avio_context_free(&io_);
  }
}

bool VideoSource::decode(std::string* error) {
  error->clear();
  for (;;) {
    int status = avcodec_receive_frame(codec_, picture_);
    if (status == 0) break;
    if (status == AVERROR_EOF) {
      // The container's own count, or else its duration, tells a file cut short from one that
      // ends where it should (demuxers take a cut file's end for the end of the video).
      if (frame_count_ != kUnknownFrameCount && decoded_ < frame_count_) {
        *error = path_ + ": damaged or truncated video: it ends after " +
                 std::to_string(decoded_) + " of its " + std::to_string(frame_count_) + " frames";
      } else if (const double announced = announcedSeconds(); announced > 0.0) {
        const AVStream* stream = format_->streams[stream_];
        const double interval = stream->avg_frame_rate.num > 0 && stream->avg_frame_rate.den > 0
                                    ? av_q2d(av_inv_q(stream->avg_frame_rate))
                                    : 0.04;
        if (last_seconds_ + 3.0 * interval < announced) {
          char text[128];
          std::snprintf(text, sizeof text, "it ends at %.2f s of the %.2f s it announces",
                        last_seconds_ + interval, announced);
          *error = path_ + ": damaged or truncated video: " + text;
        }
      }
      return false;
    }
    if (status != AVERROR(EAGAIN)) {
      *error = path_ + ": damaged video: " + Reason(status);
      return false;
    }
    status = av_read_frame(format_, packet_);
    if (status == AVERROR_EOF) {
      avcodec_send_packet(codec_, nullptr);  // drains the decoder; then receive says EOF
      continue;
    }
    if (status < 0) {
      if (StopRequested()) return false;  // the read was cut short on purpose
      *error = path_ + ": damaged or truncated video: " + Reason(status);
      return false;
    }
    const bool ours = packet_->stream_index == stream_;
    const bool corrupt = (packet_->flags & AV_PKT_FLAG_CORRUPT) != 0;
    status = ours && !corrupt ? avcodec_send_packet(codec_, packet_) : 0;
    av_packet_unref(packet_);
    if (ours && corrupt) {
      *error = path_ + ": damaged or truncated video: a damaged packet";
      return false;
    }
    if (status < 0) {
      *error = path_ + ": damaged video: " + Reason(status);
      return false;
    }
  }
  if (picture_->width < int(geometry_.width) || picture_->height < int(geometry_.height) ||
      picture_->width > int(geometry_.width) + 1 || picture_->height > int(geometry_.height) + 1) {
    *error = path_ + ": frame " + std::to_string(decoded_ + 1) + " is " +
             std::to_string(picture_->width) + "x" + std::to_string(picture_->height) +
             ", unlike the first frame's " + std::to_string(geometry_.width) + "x" +
             std::to_string(geometry_.height);
    return false;
  }
  const AVStream* stream = format_->streams[stream_];
  if (picture_->best_effort_timestamp != AV_NOPTS_VALUE) {
    const int64_t start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    last_seconds_ = double(picture_->best_effort_timestamp - start) * av_q2d(stream->time_base);
  }
  ++decoded_;
  return true;
}

double VideoSource::announcedSeconds() const {
  const AVStream* stream = format_->streams[stream_];
  if (stream->duration > 0) return double(stream->duration) * av_q2d(stream->time_base);
  // The container's duration covers every stream; it is the video's only when alone.
  if (format_->nb_streams == 1 && format_->duration > 0) return double(format_->duration) / AV_TIME_BASE;
  return 0.0;
}

bool VideoSource::skip(std::string* error) {
  const bool ok = decode(error);
  av_frame_unref(picture_);
  return ok;
}

bool VideoSource::next(uint8_t* frame, std::string* error) {
  if (!decode(error)) return false;
  const bool ok = convert(frame, error);
  av_frame_unref(picture_);
  return ok;
}

bool VideoSource::convert(uint8_t* frame, std::string* error) {
  const bool full = IsFullRange(picture_);
  const AVFrame* planes = picture_;
  if (picture_->format != AV_PIX_FMT_YUV420P && picture_->format != AV_PIX_FMT_YUVJ420P) {
    // Other layouts and depths become 8-bit 4:2:0 of the same range first; the colours are
    // converted below, in one place for every layout.
    const AVPixelFormat target = full ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    sws_ = sws_getCachedContext(sws_, picture_->width, picture_->height,
                                AVPixelFormat(picture_->format), picture_->width,
                                picture_->height, target, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (planar_->width != picture_->width || planar_->height != picture_->height) {
      av_frame_unref(planar_);
      planar_->format = target;
      planar_->width = picture_->width;
      planar_->height = picture_->height;
      if (av_frame_get_buffer(planar_, 0) < 0) throw std::bad_alloc();
    }
    if (sws_ == nullptr || sws_scale(sws_, picture_->data, picture_->linesize, 0,
                                     picture_->height, planar_->data, planar_->linesize) < 0) {
      *error = path_ + ": cannot convert its pixel format " +
               std::string(av_get_pix_fmt_name(AVPixelFormat(picture_->format)));
      return false;
    }
    planes = planar_;
  }

  const size_t width = geometry_.width;
  const uint8_t* y_plane = planes->data[0];
  const uint8_t* u_plane = planes->data[1];
  const uint8_t* v_plane = planes->data[2];
  const int y_stride = planes->linesize[0], u_stride = planes->linesize[1],
            v_stride = planes->linesize[2];
  uint8_t* pairs = frame + geometry_.lumaBytes();
  const bool bt601 = picture_->colorspace != AVCOL_SPC_BT709 &&
                     picture_->colorspace != AVCOL_SPC_BT2020_NCL &&
                     picture_->colorspace != AVCOL_SPC_BT2020_CL &&
                     picture_->colorspace != AVCOL_SPC_SMPTE240M &&
                     picture_->colorspace != AVCOL_SPC_FCC;
  if (full && bt601) {
    // Already the frames' own colours: a copy, bit for bit.
    for (size_t row = 0; row < geometry_.height; ++row)
      std::memcpy(frame + row * width, y_plane + row * y_stride, width);
    for (size_t row = 0; row < geometry_.height / 2; ++row) {
      const uint8_t* u = u_plane + row * u_stride;
      const uint8_t* v = v_plane + row * v_stride;
      uint8_t* out = pairs + row * width;
      for (size_t x = 0; x < width / 2; ++x) {
        out[2 * x] = u[x];
        out[2 * x + 1] = v[x];
      }
    }
    return true;
  }

  const int key = int(picture_->colorspace) * 2 + (full ? 1 : 0);
  if (key != tables_for_) {
    tables_ = ColourTables(picture_->colorspace, full);
    tables_for_ = key;
  }
  const int32_t* t = tables_.data();
  if (bt601) {
    // Only the range differs (the common case): each output byte is an affine function of one
    // input byte. Scale and offset are those of the general case's tables, whose cross terms
    // are zero here.
    const ByteMap luma{t[kYy * 256 + 1] - t[kYy * 256], t[kYy * 256]};
    const ByteMap u_map{t[kBb * 256 + 1] - t[kBb * 256], t[kBb * 256]};
    const ByteMap v_map{t[kRr * 256 + 1] - t[kRr * 256], t[kRr * 256]};
    for (size_t row = 0; row < geometry_.height; ++row)
      MapRow(y_plane + row * y_stride, width, luma, frame + row * width);
    for (size_t row = 0; row < geometry_.height / 2; ++row) {
      MapPairs(u_plane + row * u_stride, v_plane + row * v_stride, width / 2, u_map, v_map,
               pairs + row * width);
    }
    return true;
  }
  for (size_t row = 0; row < geometry_.height; row += 2) {
    const uint8_t* top = y_plane + row * y_stride;
    const uint8_t* bottom = top + y_stride;
    const uint8_t* u = u_plane + (row / 2) * u_stride;
    const uint8_t* v = v_plane + (row / 2) * v_stride;
    uint8_t* out_top = frame + row * width;
    uint8_t* out_bottom = out_top + width;
    uint8_t* out_pairs = pairs + (row / 2) * width;
    for (size_t x = 0; x < width; x += 2) {
      const int cb = u[x / 2], cr = v[x / 2];
      const int32_t from_chroma = t[kYb * 256 + cb] + t[kYr * 256 + cr];
      out_top[x] = FixedToByte(t[kYy * 256 + top[x]] + from_chroma);
      out_top[x + 1] = FixedToByte(t[kYy * 256 + top[x + 1]] + from_chroma);
      out_bottom[x] = FixedToByte(t[kYy * 256 + bottom[x]] + from_chroma);
      out_bottom[x + 1] = FixedToByte(t[kYy * 256 + bottom[x + 1]] + from_chroma);
      out_pairs[x] = FixedToByte(t[kBb * 256 + cb] + t[kBr * 256 + cr]);
      out_pairs[x + 1] = FixedToByte(t[kRb * 256 + cb] + t[kRr * 256 + cr]);
    }
  }
  return true;
}

namespace {

std::unique_ptr<FrameSource> OpenVideo(const std::string& path, bool looks_like_video,
                                       bool* recognised, std::string* error) {
  return VideoSource::Open(path, looks_like_video, recognised, error);
}

const VideoModule kModule = {LooksLikeVideo, OpenVideo};

}  // namespace

}  // namespace velmora::tool

extern "C" __attribute__((visibility("default"))) const velmora::tool::VideoModule*
velmora_video_module() {
  return &velmora::tool::kModule;
}
