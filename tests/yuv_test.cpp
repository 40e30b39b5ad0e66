// NV12/NV21 conversion and scaling, raw YUV files, and their vector rows.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

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
  const std::pair<Bytes, Bytes> cases[] = {
      {{128, 128, 128}, {128, 128, 128}},  // grey stays grey
      {{255, 128, 255}, {255, 166, 255}},  // R 429.07 clamps to 255; G 166.35
      {{0, 0, 128}, {0, 43, 0}},           // B -221.75 clamps to 0; G 43.22
      {{0, 0, 0}, {0, 132, 0}},            // R -175.45 and B -221.75 to 0; G 132.56
      {{255, 255, 255}, {255, 123, 255}},  // G 123.47
      {{100, 130, 130}, {102, 97, 103}},   // 102.74, 97.93, 103.46: truncated, not rounded
  };
  for (const auto& [yuv, rgb] : cases) EXPECT_EQ(ConvertOne(yuv[0], yuv[1], yuv[2]), rgb);
}

// Pixel (x, row): the pair at (row / 2) * stride + (x & ~1), U first in NV12; padding untouched.
TEST(YuvToRgb, PlanesAreStridedByWidthPlusPadding) {
  const int width = 5, height = 5, stride = 8;
  Bytes y = testutil::RandomBytes(stride * height, 1), uv = testutil::RandomBytes(stride * 3, 2);
  for (const bool nv12 : {true, false}) {
    Bytes r(y.size(), kUntouched), g = r, b = r;
    (nv12 ? NV12toRGBA8888 : NV21toRGBA8888)(y.data(), uv.data(), r.data(), g.data(), b.data(),
                                             width, height, stride - width, 12345);
    for (int i = 0; i < stride * height; ++i) {
      const uint8_t* pair = &uv[(i / stride / 2) * stride + (i % stride & ~1)];
      const Bytes want = i % stride >= width ? Bytes(3, kUntouched)
                                             : ConvertOne(y[i], pair[!nv12], pair[nv12]);
      EXPECT_EQ(Bytes({r[i], g[i], b[i]}), want) << (nv12 ? "NV12 at " : "NV21 at ") << i;
    }
  }
  uint8_t out = kUntouched;  // no row or no column: nothing is read or written
  NV12toRGBA8888(nullptr, nullptr, &out, &out, &out, 0, 4, 0, 0);
  NV21toRGBA8888(nullptr, nullptr, &out, &out, &out, 4, 0, 0, 0);
  EXPECT_EQ(out, kUntouched);
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
  uint8_t one = kUntouched;  // no destination rows: nothing is written
  EXPECT_EQ(NV12Linear(&one, &one, 1, 1, 1, 0), 0);
  EXPECT_EQ(one, kUntouched);
  // 6x4 to 3x4: chroma rows of 3 / 2 = 1 pair, two written each: row 1's first overwrites row 0's
  // second. Source pair (r, c) is {10r + c, 100 + 10r + c}.
  Bytes odd(6 * 4 + 12 + 2), narrow(3 * 4 + 6 + 4, kUntouched);
  for (int p = 0; p < 6; ++p) {
    odd[24 + 2 * p] = uint8_t(p / 3 * 10 + p % 3);
    odd[25 + 2 * p] = uint8_t(100 + p / 3 * 10 + p % 3);
  }
  NV12Linear(odd.data(), narrow.data(), 6, 4, 3, 4);
  want = {0, 100, 10, 110, 12, 112, kUntouched, kUntouched, kUntouched, kUntouched};
  EXPECT_EQ(Bytes(narrow.begin() + 12, narrow.end()), want);
}

// 10x4 to 3x2: blocks of 3x2, area 6; source column 9 lies outside every block.
TEST(NV12AvgScaling, TruncatedBoxMeansOfLumaOnlyAndBlackForEmptyBlocks) {
  Bytes src(10 * 4 + 20), dst(3 * 2 + 3, kUntouched);
  for (int i = 0; i < 40; ++i) src[i] = uint8_t(i % 10 == 9 ? 255 : i / 10 * 10 + i % 10);
  src[0] = 5;  // block (0, 0) sums to 41: 41 / 6 truncates to 6
  EXPECT_EQ(NV12AvgScaling(src.data(), dst.data(), 10, 4, 3, 2), 0);
  EXPECT_EQ(dst, Bytes({6, 9, 12, 26, 29, 32, kUntouched, kUntouched, kUntouched}));
  // A destination taller (block height 0) or wider (block width 0) than the source: black rows.
  for (const auto& [sw, sh, dw, dh] : {std::tuple{4, 2, 2, 3}, {2, 4, 4, 2}}) {
    Bytes any(64, 200), out(dw * dh + 1, kUntouched), black(dw * dh, 0);
    NV12AvgScaling(any.data(), out.data(), sw, sh, dw, dh);
    black.push_back(kUntouched);
    EXPECT_EQ(out, black) << sw << "x" << sh << " to " << dw << "x" << dh;
  }
}

class YuvFile : public testing::Test {
 protected:
  testutil::TempDir dir_;
  const std::string planes_ = dir_ / "planes.yuv", whole_ = dir_ / "frame.yuv";
};

// 3x3: 9 luma and 9 / 2 = 4 chroma bytes; a whole frame is 27 / 2 = 13.
TEST_F(YuvFile, WritersTruncateSizesAndDoublesAndReadersReadBack) {
  for (const auto& [w, h, luma, chroma, frame] : {std::tuple{4, 2, 8, 4, 12}, {3, 3, 9, 4, 13},
                                                  {5, 1, 5, 2, 7}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    Bytes bytes = testutil::RandomBytes(frame, w), in(frame + 2, kUntouched), whole_in = in;
    EXPECT_EQ(WriteYUVFile(bytes.data(), bytes.data() + luma, planes_.c_str(), w, h), 0);
    writeYUVFile(whole_, bytes.data(), w, h);
    EXPECT_EQ(testutil::ReadFile(planes_), Bytes(bytes.begin(), bytes.begin() + luma + chroma));
    EXPECT_EQ(testutil::ReadFile(whole_), bytes);
    // Into buffers with a byte to spare behind each plane, or behind the frame.
    EXPECT_EQ(ReadYUVFile(in.data(), in.data() + luma + 1, planes_.c_str(), w, h), 0);
    readYUVFile(whole_, whole_in.data(), w, h);
    EXPECT_EQ(Bytes(whole_in.begin(), whole_in.begin() + frame), bytes);
    EXPECT_EQ(whole_in[frame], kUntouched);
    bytes.insert(bytes.begin() + luma, kUntouched);
    bytes.resize(luma + chroma + 1);
    bytes.resize(in.size(), kUntouched);
    EXPECT_EQ(in, bytes);
  }
  // Doubles are truncated to int32 (saturating) and wrap to their low byte.
  const double inf = std::numeric_limits<double>::infinity();
  std::vector<double> values = {255.9, 256.0, -1.0, 300.0, -0.5, 0.99,
                                1e12,  -1e12, inf,  -inf,  std::nan(""), 511.0};
  const Bytes want = {255, 0, 255, 44, 0, 0, 255, 0, 255, 0, 0, 255};
  WriteYUVFile(values.data(), values.data() + 8, planes_.c_str(), 4, 2);  // 8 + 4 bytes
  writeYUVFile(whole_, values.data(), 4, 2);
  EXPECT_EQ(testutil::ReadFile(planes_), want);
  EXPECT_EQ(testutil::ReadFile(whole_), want);
}

// A file that cannot be opened is logged and nothing is transferred (no null stream used).
TEST_F(YuvFile, AFileThatCannotBeOpenedTransfersNothingAndIsLogged) {
  const std::string missing = dir_ / "no-such-dir/frame.yuv";
  Bytes luma(8, kUntouched), chroma(4, kUntouched), frame(12, kUntouched);
  std::vector<double> doubles(12, 1.0);
  const auto records = testutil::LogsOf([&] {
    EXPECT_EQ(ReadYUVFile(luma.data(), chroma.data(), missing.c_str(), 4, 2), 0);
    readYUVFile(missing, frame.data(), 4, 2);
    EXPECT_EQ(WriteYUVFile(luma.data(), chroma.data(), missing.c_str(), 4, 2), 0);
    EXPECT_EQ(WriteYUVFile(doubles.data(), doubles.data(), missing.c_str(), 4, 2), 0);
    writeYUVFile(missing, frame.data(), 4, 2);
    writeYUVFile(missing, doubles.data(), 4, 2);
  });
  EXPECT_TRUE(luma == Bytes(8, kUntouched) && chroma == Bytes(4, kUntouched) &&
              frame == Bytes(12, kUntouched));
  ASSERT_EQ(records.size(), 6u);
  for (const auto& record : records) {
    EXPECT_EQ(record.priority, 6);  // error
    EXPECT_NE(record.text.find("[ERROR][ yuv_file.cpp ]"), std::string::npos) << record.text;
    EXPECT_NE(record.text.find(missing), std::string::npos) << record.text;
  }
}

TEST_F(YuvFile, OnlyTheLowerCaseReaderRefusesAReadOnlyFile) {
  if (geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
  Bytes frame(12, kUntouched);
  const Bytes stored = testutil::RandomBytes(12, 6);
  testutil::WriteFile(whole_, stored);
  ASSERT_EQ(chmod(whole_.c_str(), 0444), 0);
  EXPECT_EQ(testutil::LogsOf([&] { readYUVFile(whole_, frame.data(), 4, 2); }).size(), 1u);  // rb+
  EXPECT_EQ(frame, Bytes(12, kUntouched));
  ReadYUVFile(frame.data(), frame.data() + 8, whole_.c_str(), 4, 2);  // "rb"
  EXPECT_EQ(frame, stored);
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
    const size_t bytes = size_t(c.dw) * c.dh + size_t(c.dw + 2) * ((c.dh + 1) / 2);
    Bytes whole(bytes, kUntouched), luma(bytes, kUntouched);
    velmora::ResampleNv12(kernels, c.frame.data(), whole.data(), c.sw, c.sh, c.dw, c.dh, true);
    velmora::ResampleNv12(kernels, c.luma.data(), luma.data(), c.sw, c.sh, c.dw, c.dh, false);
    whole.insert(whole.end(), luma.begin(), luma.end());
    return whole;
  }
};
TEST_P(KernelConformance, Nv12Linear) { ExpectMatchesScalar<Nv12LinearFamily>(GetParam()); }

}  // namespace
