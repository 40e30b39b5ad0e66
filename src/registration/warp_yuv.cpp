// The frame warps: a whole two-plane 4:2:0 frame through a homography, either bilinearly in one
// pass (the direct family, optionally over a bordered copy) or split into full-resolution planes
// (the family the registration driver uses).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "registration/warp_kernels.h"
#include "velmora/warp.h"

namespace velmora {
namespace {

bool Overlaps(const uint8_t* a, size_t a_size, const uint8_t* b, size_t b_size) {
  const uintptr_t pa = reinterpret_cast<uintptr_t>(a), pb = reinterpret_cast<uintptr_t>(b);
  return pa < pb + b_size && pb < pa + a_size;
}

}  // namespace

void WarpYuvSplit(const WarpKernels& k, const double* H, const uint8_t* src_y,
                  const uint8_t* src_uv, uint8_t* dst_y, uint8_t* dst_uv, int width, int height) {
  if (width < 1 || height < 1) return;
  const size_t luma = static_cast<size_t>(width) * height;
  const size_t chroma = static_cast<size_t>(height / 2) * width;
  // The plain rule copies the source into planes of its own before it writes anything, so the
  // destination may share the source's memory (in place). The fused rows read the source to the
  // end, so they get a copy of it when, and only when, the buffers overlap.
  uint8_t* copy = nullptr;
  if (Overlaps(dst_y, luma, src_y, luma) || Overlaps(dst_y, luma, src_uv, chroma) ||
      Overlaps(dst_uv, chroma, src_y, luma) || Overlaps(dst_uv, chroma, src_uv, chroma)) {
    copy = static_cast<uint8_t*>(std::malloc(luma + chroma));
    std::memcpy(copy, src_y, luma);
    std::memcpy(copy + luma, src_uv, chroma);
    src_y = copy;
    src_uv = copy + luma;
  }
  // Row pairs in order: with an odd width a pair's last chroma byte spills into the next chroma
  // row, which the next pair overwrites, as in the plain rule.
  for (int y = 0; y < height; y += 2) {
    k.split_rows(H, src_y, src_uv, dst_y, dst_uv, width, height, y, 0);
  }
  std::free(copy);
}

void WarpYuvDirect(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                   int width, int height, bool bordered) {
  if (width < 1 || height < 1) return;
  uint8_t* buffer = nullptr;
  BilinearSource luma, chroma;
  if (bordered) {
    const int bw = width + 4, bh = height + 4;
    buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(bw) * bh * 3 / 2));
    interBorder(const_cast<uint8_t*>(src), buffer, width, height);
    luma = {buffer, bw, 1, width + 3, height + 3, width + 3.0, height + 3.0, 2.0, 2.0};
    // The bordered chroma plane has a border of one pair and one row, yet the chroma x moves by
    // 2.0 (one pair too many) and y by 1.0: kept as the bordered warp has always done it. Rows
    // are read as (width + 4) / 2 pairs, which for an odd width is one byte short of the rows
    // interBorder writes; kept as well.
    const int pairs = bw / 2, rows = bh / 2;
    chroma = {buffer + static_cast<size_t>(bw) * bh, 2 * pairs, 2, pairs - 1, rows - 1,
              pairs - 1.0, rows - 1.0, 2.0, 1.0};
  } else {
    luma = {src, width, 1, width - 1, height - 1, width - 1.0, height - 1.0, 0.0, 0.0};
    const int pairs = width / 2, rows = height / 2;
    chroma = {src + static_cast<size_t>(width) * height, width, 2, pairs - 1, rows - 1,
              pairs - 1.0, rows - 1.0, 0.0, 0.0};
  }
  uint8_t* dst_uv = dst + static_cast<size_t>(width) * height;
  for (int y = 0; y < height; ++y) {
    // Out-of-view luma is 0 here, not the 255 of the plane warps.
    k.bilinear_row(H, luma, dst + static_cast<size_t>(y) * width, width, y, 0, 0);
    // Chroma for the even rows and columns whose block holds a whole pair of the destination.
    if (y % 2 != 0 || y / 2 >= height / 2) continue;
    k.direct_chroma_row(H, luma, chroma, dst_uv + static_cast<size_t>(y / 2) * width, width, y, 0);
  }
  std::free(buffer);
}

}  // namespace velmora

void interBorder(unsigned char* src, unsigned char* dst, int width, int height) {
  if (width < 1 || height < 1) return;
  const int w = width, h = height, stride = width + 4;
  // Luma rows mirrored around the edge row, which repeats: 1 0 | 0 1 .. h-1 | h-1 h-2. A frame of
  // one row has no second row to mirror and repeats its only one.
  for (int r = 0; r < h + 4; ++r) {
    int s = r == 0 ? 1 : r == 1 ? 0 : r <= h + 1 ? r - 2 : r == h + 2 ? h - 1 : h - 2;
    s = std::clamp(s, 0, h - 1);
    std::memcpy(dst + static_cast<size_t>(r) * stride + 2, src + static_cast<size_t>(s) * w, w);
  }
  // Chroma rows: a border of one row, edge replicated. A frame of one row has no chroma row at
  // all; its bordered chroma is neutral grey.
  const uint8_t* src_uv = src + static_cast<size_t>(w) * h;
  uint8_t* dst_uv = dst + static_cast<size_t>(stride) * (h + 4);
  const int rows = h / 2;
  for (int r = 0; r < rows + 2; ++r) {
    uint8_t* out = dst_uv + static_cast<size_t>(r) * stride + 2;
    const int s = std::clamp(r - 1, 0, rows - 1);
    if (rows == 0) {
      std::memset(out, 128, w);
    } else {
      std::memcpy(out, src_uv + static_cast<size_t>(s) * w, w);
    }
  }
  // Border columns of every row of both planes, byte by byte. In the chroma rows this mirrors
  // the bytes one by one, so each border pair holds its edge pair's bytes in swapped order
  // (V, U for an NV12 frame); kept as the bordered warp has always read it. A frame one pixel
  // wide takes its only column everywhere.
  const int all_rows = (h + 4) + rows + 2;
  for (int r = 0; r < all_rows; ++r) {
    uint8_t* row = dst + static_cast<size_t>(r) * stride;
    row[0] = row[std::min(3, w + 1)];
    row[1] = row[2];
    row[w + 2] = row[w + 1];
    row[w + 3] = row[std::max(w, 2)];
  }
}

void perspectiveWarpYUV(double* H, unsigned char* src, unsigned char* dst, int width,
                        int height) {
  velmora::WarpYuvDirect(velmora::WarpKernelsFor(velmora::ActiveIsa()), H, src, dst, width,
                         height, false);
}

void perspectiveWarpYUV_B(double* H, unsigned char* src, unsigned char* dst, int width,
                          int height) {
  velmora::WarpYuvDirect(velmora::WarpKernelsFor(velmora::ActiveIsa()), H, src, dst, width,
                         height, true);
}

void perspectiveWarpYUV_OP(double* H, unsigned char* src, unsigned char* dst, int width,
                           int height) {
  const size_t luma = static_cast<size_t>(width > 0 ? width : 0) * (height > 0 ? height : 0);
  velmora::WarpYuvSplit(velmora::WarpKernelsFor(velmora::ActiveIsa()), H, src, src + luma, dst,
                        dst + luma, width, height);
}

void perspectiveWarpYUV_OP_1(double* H, unsigned char* srcY, unsigned char* srcUV,
                             unsigned char* dstY, unsigned char* dstUV, int width, int height) {
  velmora::WarpYuvSplit(velmora::WarpKernelsFor(velmora::ActiveIsa()), H, srcY, srcUV, dstY,
                        dstUV, width, height);
}
