// The smoothing, gradient and sharpen filters and the NV12/NV21 conversions and scalings, on
// random sizes (tiny included) with buffers exactly as large as the sizes say.

#include "fuzz_input.h"
#include "velmora/filters.h"
#include "velmora/yuv.h"

namespace {

using std::make_unique;
using velmora::fuzz::FuzzInput;

constexpr int kMaxSide = 40;
enum Fn { kBlur, kBlurF, kSmooth, kSobel, kMed, kDilate, kPoint, kSharpen, kRgb, kScale, kFnCount };

std::unique_ptr<float[]> Floats(FuzzInput& in, size_t n) {
  auto v = make_unique<float[]>(n);
  for (size_t i = 0; i < n; ++i) v[i] = in.Bool() ? in.Bits<float>() : in.Range(-300, 300) / 8.0f;
  return v;
}

// A 4:2:0 frame in one buffer: luma, then the chroma rows, rounded up for odd sizes.
size_t FrameBytes(int width, int height) {
  return size_t(width) * height + 2 * size_t((height + 1) / 2) * ((width + 1) / 2);
}

void Run(FuzzInput& in) {
  const int fn = in.Range(0, kFnCount - 1);
  const int width = in.Range(0, kMaxSide), height = in.Range(0, kMaxSide);
  const size_t n = static_cast<size_t>(width) * height;
  auto dst = make_unique<float[]>(n);
  switch (fn) {
    case kBlur: gaussBlur(in.Bytes(n).get(), make_unique<uint8_t[]>(n).get(), width, height); break;
    case kBlurF: {
      auto src = Floats(in, n);
      gaussBlur(src.get(), in.Bool() ? src.get() : dst.get(), width, height);
      break;
    }
    case kSmooth: {
      const float sigma = in.Bool() ? in.Bits<float>() : in.Range(0, 80) / 8.0f;
      gaussSmooth(Floats(in, n).get(), dst.get(), width, height, sigma);
      break;
    }
    case kSobel: {
      auto gx = make_unique<int[]>(n), gy = make_unique<int[]>(n);
      sobel(in.Bytes(n).get(), gx.get(), gy.get(), width, height);
      break;
    }
    case kMed: {
      auto sxx = Floats(in, n), sxy = Floats(in, n), syy = Floats(in, n);
      medblur(nullptr, sxx.get(), sxy.get(), syy.get(), width, height, dst.get());
      break;
    }
    case kDilate: dilate(Floats(in, n).get(), dst.get(), width, height); break;
    case kPoint: {
      auto a = Floats(in, n), b = Floats(in, n);
      calcArctan(a.get(), b.get(), dst.get(), static_cast<int>(n));
      calcMagnitude(a.get(), b.get(), in.Bool() ? a.get() : dst.get(), static_cast<int>(n));
      calcExp(a.get(), dst.get(), static_cast<int>(n));
      break;
    }
    case kSharpen: {
      const int threshold = in.Range(-3, 300);
      const float amount = in.Bool() ? in.Bits<float>() : in.Range(-16, 64) / 8.0f;
      const bool in_place = in.Bool();
      const size_t chroma = static_cast<size_t>(height / 2) * width;
      auto y = in.Bytes(n), uv = in.Bytes(chroma);
      auto dy = make_unique<uint8_t[]>(n), duv = make_unique<uint8_t[]>(chroma);
      sharpenFilter(y.get(), uv.get(), in_place ? y.get() : dy.get(),
                    in_place ? uv.get() : duv.get(), width, height, threshold, amount);
      break;
    }
    case kRgb: {
      const int padding = in.Range(0, 5);
      const bool nv21 = in.Bool();
      const size_t stride = static_cast<size_t>(width) + padding, plane = stride * height;
      auto y = in.Bytes(plane);
      // Row r reads chroma row r / 2, and an odd width's last column a whole pair.
      auto uv = in.Bytes(stride * ((height + 1) / 2) + (width & 1));
      auto r = make_unique<uint8_t[]>(plane), g = make_unique<uint8_t[]>(plane);
      auto b = make_unique<uint8_t[]>(plane);
      (nv21 ? NV21toRGBA8888 : NV12toRGBA8888)(y.get(), uv.get(), r.get(), g.get(), b.get(), width,
                                               height, padding, 0);
      break;
    }
    case kScale: {
      // A resampler reads at least one source pixel: the source is never empty.
      const int src_w = width + 1, src_h = height + 1;
      const int dst_w = in.Range(0, kMaxSide), dst_h = in.Range(0, kMaxSide);
      const int which = in.Range(0, 2);
      auto src = in.Bytes(FrameBytes(src_w, src_h));
      auto out = make_unique<uint8_t[]>(FrameBytes(dst_w, dst_h));
      auto* scale = which == 0 ? NV12Linear : which == 1 ? NV12Linear_Y : NV12AvgScaling;
      scale(src.get(), out.get(), src_w, src_h, dst_w, dst_h);
      break;
    }
  }
}

// Per function: the ISA, the function, 19 x 8 (each range above takes one byte), then a gradient
// with a few edges for whatever the function reads next.
velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (uint8_t fn = 0; fn < kFnCount; ++fn) {
    seeds.push_back({fn, fn, 19, 8});
    for (int i = 0; i < 912; ++i)
      seeds.back().push_back(static_cast<uint8_t>(i % 19 * 13 ^ i / 40));
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kVariants)
