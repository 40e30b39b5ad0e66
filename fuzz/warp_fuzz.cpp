// The plane and frame warps and interBorder on buffers exactly as large as their sizes say, with
// homographies near the identity, arbitrary bit patterns (NaN, infinities, huge values) and
// singular ones (a zero projective row, a zero matrix).
#include <cstring>

#include "fuzz_input.h"
#include "velmora/warp.h"

namespace {

using velmora::fuzz::FuzzInput;

constexpr int kMaxSide = 40;
// The warps of one source and one destination buffer: three of a plane, then three of a frame.
constexpr void (*kWarps[])(double*, unsigned char*, unsigned char*, int, int) = {
    perspectiveWarp,    perspectiveWarpOP,    perspectiveWarpNN,
    perspectiveWarpYUV, perspectiveWarpYUV_B, perspectiveWarpYUV_OP};
enum Fn { kPlaneWarps = 3, kYuvOp1 = 6, kBorder, kFnCount };
enum Matrix { kNearIdentity, kBits, kSingular, kScaled, kMatrixCount };

// A frame of two 4:2:0 planes in one buffer: luma, then height / 2 rows of interleaved pairs.
size_t FrameBytes(int width, int height) {
  return static_cast<size_t>(width) * height + static_cast<size_t>(height / 2) * width;
}

void Run(FuzzInput& in) {
  const int fn = in.Range(0, kFnCount - 1);
  const int width = in.Range(0, kMaxSide), height = in.Range(0, kMaxSide);
  const int kind = in.Range(0, kMatrixCount - 1);
  double H[9];
  for (int i = 0; i < 9; ++i) {
    switch (kind) {
      case kNearIdentity: H[i] = (i % 4 == 0) + static_cast<int8_t>(in.Byte()) / 64.0; break;
      case kBits: H[i] = in.Bits<double>(); break;
      case kSingular: H[i] = i < 6 && in.Bool() ? in.Range(-4, 4) : 0.0; break;
      case kScaled: H[i] = (i % 4 == 0) * in.Bits<double>(); break;
    }
  }
  const size_t plane = static_cast<size_t>(width) * height;
  const size_t bytes = fn < kPlaneWarps ? plane : FrameBytes(width, height);
  auto src = in.Bytes(bytes), dst = std::make_unique<uint8_t[]>(bytes);
  if (fn < kYuvOp1) {
    kWarps[fn](H, src.get(), dst.get(), width, height);
  } else if (fn == kYuvOp1) {
    // Four separate planes, each flush against its own allocation.
    const size_t chroma = bytes - plane;
    auto src_y = std::make_unique<uint8_t[]>(plane), dst_y = std::make_unique<uint8_t[]>(plane);
    auto src_uv = std::make_unique<uint8_t[]>(chroma), dst_uv = std::make_unique<uint8_t[]>(chroma);
    std::memcpy(src_y.get(), src.get(), plane);
    std::memcpy(src_uv.get(), src.get() + plane, chroma);
    perspectiveWarpYUV_OP_1(H, src_y.get(), src_uv.get(), dst_y.get(), dst_uv.get(), width, height);
  } else {
    auto bordered = std::make_unique<uint8_t[]>(FrameBytes(width + 4, height + 4));
    interBorder(src.get(), bordered.get(), width, height);
  }
}

// Per function: the ISA, the function, 16 x 12, a small rotation and shift near the identity,
// then the pixels.
velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (uint8_t fn = 0; fn < kFnCount; ++fn) {
    seeds.push_back({fn, fn, 16, 12, kNearIdentity, 255, 3, 40, 2, 1, 236, 0, 0, 0});
    for (int i = 0; i < 16 * 18; ++i)
      seeds.back().push_back(static_cast<uint8_t>(i * i + i / 16 * 7));
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kVariants)
