// The smoothing, gradient and sharpen filters and the NV12/NV21 conversions and scalings, on
// random sizes (tiny included) with buffers exactly as large as the sizes say.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "velmora/filters.h"
#include "velmora/yuv.h"

namespace {

using velmora::fuzz::Buffer;
using velmora::fuzz::FuzzInput;
using velmora::fuzz::SeedWriter;

constexpr int kMaxSide = 40;
enum Fn {
  kBlur8, kBlurF, kSmooth, kSobel, kMedblur, kDilate, kPointwise, kSharpen, kToRgb, kLinear,
  kLinearY, kAvgScaling, kFnCount
};

Buffer<float> Floats(FuzzInput& in, size_t n) {
  Buffer<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = in.Bool() ? in.Float() : in.Range(-300, 300) / 8.0f;
  return v;
}

// A 4:2:0 frame in one buffer: luma, then the chroma rows, rounded up for odd sizes.
size_t FrameBytes(int width, int height) {
  return static_cast<size_t>(width) * height + 2 * static_cast<size_t>((height + 1) / 2) *
                                                   ((width + 1) / 2);
}

void Run(FuzzInput& in) {
  const int fn = in.Range(0, kFnCount - 1);
  const int width = in.Range(0, kMaxSide), height = in.Range(0, kMaxSide);
  const size_t n = static_cast<size_t>(width) * height;
  switch (fn) {
    case kBlur8: {
      Buffer<uint8_t> src = in.Bytes(n), dst(n);
      gaussBlur(src.data(), dst.data(), width, height);
      break;
    }
    case kBlurF: {
      Buffer<float> src = Floats(in, n), dst(n);
      gaussBlur(src.data(), in.Bool() ? src.data() : dst.data(), width, height);
      break;
    }
    case kSmooth: {
      const float sigma = in.Bool() ? in.Float() : in.Range(0, 80) / 8.0f;
      Buffer<float> src = Floats(in, n), dst(n);
      gaussSmooth(src.data(), dst.data(), width, height, sigma);
      break;
    }
    case kSobel: {
      Buffer<uint8_t> src = in.Bytes(n);
      Buffer<int> gx(n), gy(n);
      sobel(src.data(), gx.data(), gy.data(), width, height);
      break;
    }
    case kMedblur: {
      Buffer<float> sxx = Floats(in, n), sxy = Floats(in, n), syy = Floats(in, n), dst(n);
      medblur(nullptr, sxx.data(), sxy.data(), syy.data(), width, height, dst.data());
      break;
    }
    case kDilate: {
      Buffer<float> src = Floats(in, n), dst(n);
      dilate(src.data(), dst.data(), width, height);
      break;
    }
    case kPointwise: {
      Buffer<float> a = Floats(in, n), b = Floats(in, n), dst(n);
      calcArctan(a.data(), b.data(), dst.data(), static_cast<int>(n));
      calcMagnitude(a.data(), b.data(), in.Bool() ? a.data() : dst.data(), static_cast<int>(n));
      calcExp(a.data(), dst.data(), static_cast<int>(n));
      break;
    }
    case kSharpen: {
      const int threshold = in.Range(-3, 300);
      const float amount = in.Bool() ? in.Float() : in.Range(-16, 64) / 8.0f;
      const bool in_place = in.Bool();
      Buffer<uint8_t> y = in.Bytes(n), uv = in.Bytes(static_cast<size_t>(height / 2) * width);
      Buffer<uint8_t> dy(y.size()), duv(uv.size());
      if (in_place) sharpenFilter(y.data(), uv.data(), y.data(), uv.data(), width, height,
                                  threshold, amount);
      else sharpenFilter(y.data(), uv.data(), dy.data(), duv.data(), width, height, threshold,
                         amount);
      break;
    }
    case kToRgb: {
      const int padding = in.Range(0, 5);
      const bool nv21 = in.Bool();
      const size_t stride = static_cast<size_t>(width) + padding;
      Buffer<uint8_t> y = in.Bytes(stride * height);
      // Row r reads chroma row r / 2, and an odd width's last column a whole pair.
      Buffer<uint8_t> uv = in.Bytes(stride * ((height + 1) / 2) + (width & 1));
      Buffer<uint8_t> r(y.size()), g(y.size()), b(y.size());
      (nv21 ? NV21toRGBA8888 : NV12toRGBA8888)(y.data(), uv.data(), r.data(), g.data(),
                                               b.data(), width, height, padding, 0);
      break;
    }
    case kLinear:
    case kLinearY:
    case kAvgScaling: {
      // A resampler reads at least one source pixel: the source is never empty.
      const int src_w = width + 1, src_h = height + 1;
      const int dst_w = in.Range(0, kMaxSide), dst_h = in.Range(0, kMaxSide);
      Buffer<uint8_t> src = in.Bytes(FrameBytes(src_w, src_h));
      Buffer<uint8_t> dst(FrameBytes(dst_w, dst_h));
      auto* scale = fn == kLinear ? NV12Linear : fn == kLinearY ? NV12Linear_Y : NV12AvgScaling;
      scale(src.data(), dst.data(), src_w, src_h, dst_w, dst_h);
      break;
    }
  }
}

velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (int fn = 0; fn < kFnCount; ++fn) {
    SeedWriter w;
    w.Byte(static_cast<uint8_t>(fn));  // the ISA
    w.Range(fn, 0, kFnCount - 1);
    w.Range(19, 0, kMaxSide);
    w.Range(8, 0, kMaxSide);
    // Whatever the function reads next: a gradient, a few edges.
    for (int i = 0; i < 3 * 19 * 8 * 2; ++i) w.Byte(static_cast<uint8_t>(i % 19 * 13 ^ i / 40));
    seeds.push_back(w.out);
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kVariants)
