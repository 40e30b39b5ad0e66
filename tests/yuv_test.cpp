// NV12/NV21 conversion and scaling, raw YUV files, and their vector rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "filters/yuv_convert_kernels.h"
#include "filters/yuv_scale_kernels.h"
#include "kernel_conformance.h"
#include "test_util.h"
#include "velmora/yuv.h"

namespace {

using velmora::ExpectMatchesScalar;
using velmora::KernelConformance;
using Bytes = std::vector<uint8_t>;
constexpr uint8_t kUntouched = 0xA5;

// One pixel through the NV12 conversion: R, G, B.
Bytes ConvertOne(uint8_t y, uint8_t u, uint8_t v) {
  uint8_t pair[2] = {u, v};
  Bytes rgb(3);
  NV12toRGBA8888(&y, pair, &rgb[0], &rgb[1], &rgb[2], 1, 1, 0, 0);
  return rgb;
}

// Y U V, then R G B worked by hand in float, clamped and truncated (NV21's order: the next test).
TEST(YuvToRgb, SinglePrecisionRuleClampedAndTruncated) {
  for (const auto& [yuv, rgb] : std::initializer_list<std::pair<Bytes, Bytes>>{
           {{128, 128, 128}, {128, 128, 128}},  // grey stays grey
           {{255, 128, 255}, {255, 166, 255}},  // R 429.07 clamps to 255; G 166.35
           {{0, 0, 0}, {0, 132, 0}},            // R -175.45 and B -221.75 to 0; G 132.56
           {{255, 255, 255}, {255, 123, 255}},  // G 123.47
           {{100, 130, 130}, {102, 97, 103}}})  // 102.74, 97.93, 103.46: truncated, not rounded
    EXPECT_EQ(ConvertOne(yuv[0], yuv[1], yuv[2]), rgb);
}

// Pixel (x, row) at row * stride + x, its pair at (row / 2) * stride + (x & ~1), V first in NV21
// (U first in NV12: the rows above); padding untouched.
TEST(YuvToRgb, PlanesAreStridedByWidthPlusPadding) {
  Bytes y = testutil::RandomBytes(40, 1), uv = testutil::RandomBytes(24, 2), r(40, kUntouched);
  Bytes g = r, b = r;
  NV21toRGBA8888(y.data(), uv.data(), r.data(), g.data(), b.data(), 5, 5, 3, 12345);
  EXPECT_EQ(Bytes({r[28], g[28], b[28]}), ConvertOne(y[28], uv[13], uv[12]));  // (4, 3): 8 + 4
  EXPECT_EQ(Bytes({r[29], g[29], b[29]}), Bytes(3, kUntouched));
}

// 4x2 to 8x4: halfway values truncate, the far neighbour clamps to the edge; chroma pair 1
// takes luma column 2's weight 0 (copied, not averaged to 30, 40).
TEST(NV12Linear, TruncatesClampsWeighsChromaAsItsLumaAndKeepsTheShortChromaStride) {
  Bytes src = {1, 2, 3, 4, 5, 6, 7, 8, 10, 20, 50, 60}, dst(50, kUntouched), luma = dst;
  EXPECT_EQ(NV12Linear(src.data(), dst.data(), 4, 2, 8, 4), 0);
  EXPECT_EQ(NV12Linear_Y(src.data(), luma.data(), 4, 2, 8, 4), 0);
  Bytes want = {1,  1,  2,  2,  3,  3,  4,  4,  3,  3,  4,  4,  5,  5,  6,  6,  5,
                5,  6,  6,  7,  7,  8,  8,  5,  5,  6,  6,  7,  7,  8,  8,  10, 20,
                10, 20, 50, 60, 50, 60, 10, 20, 10, 20, 50, 60, 50, 60, kUntouched, kUntouched};
  EXPECT_EQ(dst, want);
  std::fill(want.begin() + 32, want.end(), kUntouched);  // the luma half stops at the luma
  EXPECT_EQ(luma, want);
  // 6x4 to 3x4: chroma rows of 3 / 2 = 1 pair, two written each: row 1's first overwrites row 0's
  // second. Source pair (r, c) holds 6r + 2c and 6r + 2c + 1.
  Bytes odd(6 * 4 + 12 + 2), narrow(3 * 4 + 6 + 4, kUntouched);
  std::iota(odd.begin() + 24, odd.end(), 0);
  NV12Linear(odd.data(), narrow.data(), 6, 4, 3, 4);
  want = {0, 1, 6, 7, 10, 11, kUntouched, kUntouched, kUntouched, kUntouched};
  EXPECT_EQ(Bytes(narrow.begin() + 12, narrow.end()), want);
}

// 10x4 to 3x2: blocks of 3x2, area 6; source column 9 lies outside every block. A destination
// taller (block height 0) or wider (block width 0) than its source: black rows.
TEST(NV12AvgScaling, TruncatedBoxMeansOfLumaOnlyAndBlackForEmptyBlocks) {
  Bytes src(10 * 4 + 20), dst(3 * 2 + 3, kUntouched);
  for (int i = 0; i < 40; ++i) src[i] = uint8_t(i % 10 == 9 ? 255 : i / 10 * 10 + i % 10);
  src[0] = 5;  // block (0, 0) sums to 41: 41 / 6 truncates to 6
  EXPECT_EQ(NV12AvgScaling(src.data(), dst.data(), 10, 4, 3, 2), 0);
  EXPECT_EQ(dst, Bytes({6, 9, 12, 26, 29, 32, kUntouched, kUntouched, kUntouched}));
  for (const auto& [sw, sh, dw, dh] : {std::tuple{4, 2, 2, 3}, {2, 4, 3, 2}}) {
    Bytes any(64, 200), out(7, kUntouched);
    NV12AvgScaling(any.data(), out.data(), sw, sh, dw, dh);
    EXPECT_EQ(out, Bytes({0, 0, 0, 0, 0, 0, kUntouched})) << sw << "x" << sh;
  }
}

// 3x3: 9 luma and 9 / 2 = 4 chroma bytes; a whole frame is 27 / 2 = 13. Readers fill buffers of
// exactly that size. Doubles are truncated to int32 (saturating) and wrap to their low byte.
TEST(YuvFile, WritersTruncateSizesAndDoublesAndReadersReadBack) {
  const testutil::TempDir dir;
  const std::string planes_path = dir / "planes.yuv", whole_path = dir / "frame.yuv";
  Bytes bytes = testutil::RandomBytes(13, 3), planes(13), whole(13);
  EXPECT_EQ(WriteYUVFile(bytes.data(), bytes.data() + 9, planes_path.c_str(), 3, 3), 0);
  writeYUVFile(whole_path, bytes.data(), 3, 3);
  EXPECT_EQ(testutil::ReadFile(planes_path), bytes);
  EXPECT_EQ(testutil::ReadFile(whole_path), bytes);
  EXPECT_EQ(ReadYUVFile(planes.data(), planes.data() + 9, planes_path.c_str(), 3, 3), 0);
  readYUVFile(whole_path, whole.data(), 3, 3);
  EXPECT_EQ(std::tie(planes, whole), std::tie(bytes, bytes));
  std::vector<double> values = {255.9, 256.0, -1.0,     300.0,     -0.5, 0.99,
                                1e12,  -1e12, INFINITY, -INFINITY, NAN,  511.0};
  WriteYUVFile(values.data(), values.data() + 8, planes_path.c_str(), 4, 2);  // 8 + 4 bytes
  writeYUVFile(whole_path, values.data(), 4, 2);
  EXPECT_EQ(testutil::ReadFile(planes_path), testutil::ReadFile(whole_path));
  EXPECT_EQ(testutil::ReadFile(whole_path), Bytes({255, 0, 255, 44, 0, 0, 255, 0, 255, 0, 0, 255}));
}

// A file that cannot be opened is logged and nothing is transferred (no null stream used). The
// lower-case reader opens for update ("rb+"), so it also fails on what cannot be written (a
// directory, which binds root too); the other reader's "rb" opens it and reads nothing.
TEST(YuvFile, AFileThatCannotBeOpenedTransfersNothingAndIsLogged) {
  const testutil::TempDir dir;
  const std::string missing = dir / "no-such-dir/frame.yuv", folder = dir.path();
  Bytes frame(12, kUntouched);
  std::vector<double> doubles(12, 1.0);
  const auto records = testutil::LogsOf([&] {
    EXPECT_EQ(ReadYUVFile(frame.data(), frame.data() + 8, missing.c_str(), 4, 2), 0);
    readYUVFile(missing, frame.data(), 4, 2);
    EXPECT_EQ(WriteYUVFile(frame.data(), frame.data() + 8, missing.c_str(), 4, 2), 0);
    EXPECT_EQ(WriteYUVFile(doubles.data(), doubles.data() + 8, missing.c_str(), 4, 2), 0);
    writeYUVFile(missing, frame.data(), 4, 2);
    writeYUVFile(missing, doubles.data(), 4, 2);
    readYUVFile(folder, frame.data(), 4, 2);
    ReadYUVFile(frame.data(), frame.data() + 8, folder.c_str(), 4, 2);
  });
  EXPECT_EQ(frame, Bytes(12, kUntouched));
  ASSERT_EQ(records.size(), 7u);
  for (const auto& record : records)
    EXPECT_TRUE(record.priority == 6 && record.text.find(folder) != std::string::npos)
        << record.text;
}

// Both chroma orders, padding from the seed; an odd row's last pair reads one byte past the width.
struct YuvConvertFamily {
  static constexpr const char* kName = "YuvConvert";
  using Kernels = velmora::YuvConvertKernels;
  static const Kernels& For(velmora::Isa isa) { return velmora::YuvConvertKernelsFor(isa); }
  struct Case {
    int width, height, padding;
    Bytes y, uv;
  };
  static Case Make(int width, int height, uint32_t seed) {
    const int padding = static_cast<int>(seed % 4) * 3;
    const size_t stride = size_t(width) + padding;
    return {width, height, padding, testutil::RandomBytes((height - 1) * stride + width, seed),
            testutil::RandomBytes(((height + 1) / 2 - 1) * stride + (width + 1) / 2 * 2, ~seed)};
  }
  static Bytes Run(const Kernels& kernels, const Case& c) {
    Bytes out;
    for (const bool u_first : {true, false}) {
      Bytes r(c.y.size(), kUntouched), g = r, b = r;
      velmora::ConvertYuvToRgbPlanes(kernels, u_first, c.y.data(), c.uv.data(), r.data(),
                                     g.data(), b.data(), c.width, c.height, c.padding);
      for (const Bytes* plane : {&r, &g, &b}) out.insert(out.end(), plane->begin(), plane->end());
    }
    return out;
  }
};
TEST_P(KernelConformance, YuvConvert) { ExpectMatchesScalar<YuvConvertFamily>(GetParam()); }

// To a shrunk, equal or grown size; even sources end flush, odd ones (read past by the rule) not.
struct Nv12LinearFamily {
  static constexpr const char* kName = "NV12Linear";
  using Kernels = velmora::YuvScaleKernels;
  static const Kernels& For(velmora::Isa isa) { return velmora::YuvScaleKernelsFor(isa); }
  struct Case {
    int sw, sh, dw, dh;
    Bytes frame, luma;
  };
  static Case Make(int width, int height, uint32_t seed) {
    const float scale = std::vector<float>{0.37f, 0.5f, 1.0f, 1.5f, 3.1f}[seed % 5];
    const size_t luma = size_t(width) * height;
    const bool even = width % 2 == 0 && height % 2 == 0;
    const size_t frame = even ? luma * 3 / 2 : luma + size_t(width + 2) * ((height + 1) / 2);
    return {width, height, std::max(1, int(width * scale)), std::max(1, int(height * scale)),
            testutil::RandomBytes(frame, seed), testutil::RandomBytes(luma, ~seed)};
  }
  static Bytes Run(const Kernels& kernels, const Case& c) {
    Bytes whole(size_t(c.dw) * c.dh + (c.dw + 2) * ((c.dh + 1) / 2), kUntouched), luma = whole;
    velmora::ResampleNv12(kernels, c.frame.data(), whole.data(), c.sw, c.sh, c.dw, c.dh, true);
    velmora::ResampleNv12(kernels, c.luma.data(), luma.data(), c.sw, c.sh, c.dw, c.dh, false);
    whole.insert(whole.end(), luma.begin(), luma.end());
    return whole;
  }
};
TEST_P(KernelConformance, Nv12Linear) { ExpectMatchesScalar<Nv12LinearFamily>(GetParam()); }

}  // namespace
