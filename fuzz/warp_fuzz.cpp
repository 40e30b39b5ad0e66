// The plane and frame warps and interBorder on buffers exactly as large as their sizes say, with
// homographies near the identity, arbitrary bit patterns (NaN, infinities, huge values) and
// singular ones (a zero projective row, a zero matrix).
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "velmora/warp.h"

namespace {

using velmora::fuzz::Buffer;
using velmora::fuzz::FuzzInput;
using velmora::fuzz::SeedWriter;

constexpr int kMaxSide = 40;
enum Fn { kPlain, kOp, kNn, kYuv, kYuvB, kYuvOp, kYuvOp1, kBorder, kFnCount };
enum Matrix { kNearIdentity, kBits, kSingular, kScaled, kMatrixCount };

void ReadMatrix(FuzzInput& in, double* H) {
  const int kind = in.Range(0, kMatrixCount - 1);
  for (int i = 0; i < 9; ++i) {
    switch (kind) {
      case kNearIdentity: H[i] = (i % 4 == 0) + static_cast<int8_t>(in.Byte()) / 64.0; break;
      case kBits: H[i] = in.Double(); break;
      case kSingular: H[i] = i < 6 && in.Bool() ? in.Range(-4, 4) : 0.0; break;
      case kScaled: H[i] = (i % 4 == 0) * in.Double(); break;
    }
  }
}

// A frame of two 4:2:0 planes in one buffer: luma, then height / 2 rows of interleaved pairs.
size_t FrameBytes(int width, int height) {
  return static_cast<size_t>(width) * height + static_cast<size_t>(height / 2) * width;
}

void Run(FuzzInput& in) {
  const int fn = in.Range(0, kFnCount - 1);
  const int width = in.Range(0, kMaxSide), height = in.Range(0, kMaxSide);
  double H[9];
  ReadMatrix(in, H);
  const size_t plane = static_cast<size_t>(width) * height;
  const bool planar = fn <= kNn;
  Buffer<uint8_t> src = in.Bytes(planar ? plane : FrameBytes(width, height));
  Buffer<uint8_t> dst(planar ? plane : FrameBytes(width, height), 0x5a);
  switch (fn) {
    case kPlain: perspectiveWarp(H, src.data(), dst.data(), width, height); break;
    case kOp: perspectiveWarpOP(H, src.data(), dst.data(), width, height); break;
    case kNn: perspectiveWarpNN(H, src.data(), dst.data(), width, height); break;
    case kYuv: perspectiveWarpYUV(H, src.data(), dst.data(), width, height); break;
    case kYuvB: perspectiveWarpYUV_B(H, src.data(), dst.data(), width, height); break;
    case kYuvOp: perspectiveWarpYUV_OP(H, src.data(), dst.data(), width, height); break;
    case kYuvOp1:
      // Four separate planes, each flush against its own allocation.
      {
        Buffer<uint8_t> srcUV(src.size() - plane), dstY(plane), dstUV(src.size() - plane);
        std::memcpy(srcUV.data(), src.data() + plane, srcUV.size());
        perspectiveWarpYUV_OP_1(H, src.data(), srcUV.data(), dstY.data(), dstUV.data(), width,
                                height);
      }
      break;
    case kBorder:
      {
        Buffer<uint8_t> bordered(FrameBytes(width + 4, height + 4));
        interBorder(src.data(), bordered.data(), width, height);
      }
      break;
  }
}

velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (int fn = 0; fn < kFnCount; ++fn) {
    SeedWriter w;
    w.Byte(static_cast<uint8_t>(fn));  // the ISA
    w.Range(fn, 0, kFnCount - 1);
    w.Range(16, 0, kMaxSide);
    w.Range(12, 0, kMaxSide);
    w.Range(kNearIdentity, 0, kMatrixCount - 1);
    // A small rotation and shift.
    for (int8_t v : {-1, 3, 40, 2, 1, -20, 0, 0, 0}) w.Byte(static_cast<uint8_t>(v));
    for (int i = 0; i < 16 * 18; ++i) w.Byte(static_cast<uint8_t>(i * i + i / 16 * 7));
    seeds.push_back(w.out);
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kVariants)
