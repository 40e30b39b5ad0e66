// NV12/NV21 conversion and scaling, raw YUV files: each rule with hand-worked values, the odd
// behaviours that are kept, and the vector conversion rows against the scalar definition.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "common/cpu.h"
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

struct Rgb {
  uint8_t r, g, b;
  bool operator==(const Rgb& o) const { return r == o.r && g == o.g && b == o.b; }
};

// One pixel through the exported conversion; the pair is given as U, V and stored in the
// order of the format.
Rgb ConvertOne(bool nv12, uint8_t y, uint8_t u, uint8_t v) {
  uint8_t pair[2] = {nv12 ? u : v, nv12 ? v : u};
  Rgb out{};
  (nv12 ? NV12toRGBA8888 : NV21toRGBA8888)(&y, pair, &out.r, &out.g, &out.b, 1, 1, 0, 0);
  return out;
}

TEST(YuvToRgb, SinglePrecisionRuleClampedAndTruncatedInEitherChromaOrder) {
  struct Case {
    uint8_t y, u, v;
    Rgb want;
  };
  // Worked by hand from R = V'*1.370705 + Y, G = (Y + U'*-0.337633) + V'*-0.698001,
  // B = U'*1.732446 + Y with U' = U - 128, V' = V - 128.
  const Case cases[] = {
      {128, 128, 128, {128, 128, 128}},  // grey stays grey
      {255, 128, 255, {255, 166, 255}},  // R 429.07 clamps to 255; G 166.35
      {0, 0, 128, {0, 43, 0}},           // B -221.75 clamps to 0; G 43.22
      {0, 0, 0, {0, 132, 0}},            // R -175.45 and B -221.75 to 0; G 132.56
      {255, 255, 255, {255, 123, 255}},  // G 123.47
      // 102.74, 97.93, 103.46: truncated, where rounding would give 103, 98, 103.
      {100, 130, 130, {102, 97, 103}},
  };
  for (const bool nv12 : {true, false}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << (nv12 ? "NV12 " : "NV21 ") << int(c.y) << ","
                                      << int(c.u) << "," << int(c.v));
      const Rgb got = ConvertOne(nv12, c.y, c.u, c.v);
      EXPECT_TRUE(got == c.want) << int(got.r) << "," << int(got.g) << "," << int(got.b);
    }
  }
}

TEST(YuvToRgb, StrideIncludesPaddingWhichStaysUntouchedAndEachPixelFindsItsPair) {
  const int width = 5, height = 5, padding = 3, stride = width + padding;
  const Bytes y = testutil::RandomBytes(stride * height, 1);
  const Bytes uv = testutil::RandomBytes(stride * 3, 2);  // rows 0..2 for luma rows 0..4
  for (const bool nv12 : {true, false}) {
    Bytes r(y.size(), kUntouched), g(y.size(), kUntouched), b(y.size(), kUntouched);
    (nv12 ? NV12toRGBA8888 : NV21toRGBA8888)(const_cast<uint8_t*>(y.data()),
                                             const_cast<uint8_t*>(uv.data()), r.data(), g.data(),
                                             b.data(), width, height, padding, 12345);
    for (int row = 0; row < height; ++row) {
      for (int x = 0; x < stride; ++x) {
        const int i = row * stride + x;
        SCOPED_TRACE(testing::Message() << "row " << row << " column " << x);
        if (x >= width) {
          EXPECT_EQ(Rgb({r[i], g[i], b[i]}), Rgb({kUntouched, kUntouched, kUntouched}));
          continue;
        }
        const uint8_t* pair = &uv[(row / 2) * stride + (x & ~1)];
        const Rgb want = nv12 ? ConvertOne(true, y[i], pair[0], pair[1])
                              : ConvertOne(true, y[i], pair[1], pair[0]);
        EXPECT_EQ(Rgb({r[i], g[i], b[i]}), want);
      }
    }
  }
  // No row or no column: nothing is read or written.
  uint8_t out = kUntouched;
  NV12toRGBA8888(nullptr, nullptr, &out, &out, &out, 0, 4, 0, 0);
  NV21toRGBA8888(nullptr, nullptr, &out, &out, &out, 4, 0, 0, 0);
  EXPECT_EQ(out, kUntouched);
}

// A frame in one buffer: luma, then chroma, then sentinel bytes that must stay untouched.
Bytes Nv12Buffer(int width, int height, uint32_t seed, size_t spare = 16) {
  Bytes frame = testutil::RandomBytes(size_t(width) * height * 3 / 2, seed);
  frame.resize(frame.size() + spare, kUntouched);
  return frame;
}

TEST(NV12Linear, EqualSizesReproduceTheFrameAndTheLumaHalfStopsAtTheLuma) {
  for (const auto& [w, h] : {std::pair{2, 2}, {6, 4}, {16, 10}, {64, 48}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    Bytes src = Nv12Buffer(w, h, w * 100 + h, 0);
    Bytes dst(src.size() + 8, kUntouched);
    EXPECT_EQ(NV12Linear(src.data(), dst.data(), w, h, w, h), 0);
    EXPECT_TRUE(Bytes(dst.begin(), dst.begin() + src.size()) == src);
    EXPECT_EQ(dst.back(), kUntouched);

    Bytes luma_only(src.size(), kUntouched);
    EXPECT_EQ(NV12Linear_Y(src.data(), luma_only.data(), w, h, w, h), 0);
    const size_t luma = size_t(w) * h;
    EXPECT_TRUE(std::equal(src.begin(), src.begin() + luma, luma_only.begin()));
    EXPECT_TRUE(std::all_of(luma_only.begin() + luma, luma_only.end(),
                            [](uint8_t b) { return b == kUntouched; }));
  }
  // No destination rows: nothing is written.
  uint8_t one = kUntouched;
  EXPECT_EQ(NV12Linear(&one, &one, 1, 1, 1, 0), 0);
  EXPECT_EQ(one, kUntouched);
}

TEST(NV12Linear, HalvingPicksEveryOtherSampleAndPair) {
  const int w = 12, h = 8;
  Bytes src = Nv12Buffer(w, h, 9, 0);
  Bytes dst(size_t(w / 2) * (h / 2) * 3 / 2, kUntouched);
  NV12Linear(src.data(), dst.data(), w, h, w / 2, h / 2);
  for (int j = 0; j < h / 2; ++j)
    for (int i = 0; i < w / 2; ++i) EXPECT_EQ(dst[j * (w / 2) + i], src[2 * j * w + 2 * i]);
  const uint8_t* src_uv = src.data() + w * h;
  const uint8_t* dst_uv = dst.data() + (w / 2) * (h / 2);
  for (int m = 0; m < h / 4; ++m)
    for (int n = 0; n < w / 4; ++n)
      for (int b = 0; b < 2; ++b)
        EXPECT_EQ(dst_uv[2 * (m * (w / 4) + n) + b], src_uv[2 * (2 * m * (w / 2) + 2 * n) + b]);
}

TEST(NV12Linear, ChromaTakesTheLumaWeightsNotItsOwnFractions) {
  // 4x2 to 8x4: even luma columns land on whole source columns (weight 0), while the chroma
  // position of pair 1 is 0.5. The pair is copied, not averaged to (30, 40).
  Bytes src = {1, 2, 3, 4, 5, 6, 7, 8, 10, 20, 50, 60};
  Bytes dst(8 * 4 * 3 / 2, kUntouched);
  NV12Linear(src.data(), dst.data(), 4, 2, 8, 4);
  const Bytes row = {10, 20, 10, 20, 50, 60, 50, 60};
  EXPECT_TRUE(Bytes(dst.begin() + 32, dst.begin() + 40) == row);
  EXPECT_TRUE(Bytes(dst.begin() + 40, dst.end()) == row);
}

TEST(NV12Linear, OddDestinationWidthKeepsTheShortChromaStride) {
  // 6x4 to 3x4: stride 3 / 2 = 1 pair, yet pairs 0 and 1 are written per chroma row, so row 1's
  // first pair overwrites row 0's second. Source pairs: (r, c) -> {10 * r + c, 100 + ...}.
  Bytes src(6 * 4 + 12 + 2);
  for (int r = 0; r < 2; ++r)
    for (int c = 0; c < 3; ++c) {
      src[24 + 2 * (3 * r + c)] = uint8_t(10 * r + c);
      src[24 + 2 * (3 * r + c) + 1] = uint8_t(100 + 10 * r + c);
    }
  Bytes dst(3 * 4 + 6 + 4, kUntouched);
  NV12Linear(src.data(), dst.data(), 6, 4, 3, 4);
  const Bytes want = {0, 100, 10, 110, 12, 112, kUntouched, kUntouched, kUntouched, kUntouched};
  EXPECT_TRUE(Bytes(dst.begin() + 12, dst.end()) == want);
}

TEST(NV12AvgScaling, TruncatedBoxMeansOfLumaOnly) {
  // 10x4 to 3x2: blocks of 3x2, area 6; source column 9 lies outside every block.
  Bytes src(10 * 4 + 20);
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 10; ++c) src[r * 10 + c] = uint8_t(c == 9 ? 255 : 10 * r + c);
  src[0] = 5;  // block (0, 0) sums to 41: 41 / 6 truncates to 6
  Bytes dst(3 * 2 + 3, kUntouched);
  EXPECT_EQ(NV12AvgScaling(src.data(), dst.data(), 10, 4, 3, 2), 0);
  const Bytes want = {6, 9, 12, 26, 29, 32, kUntouched, kUntouched, kUntouched};
  EXPECT_TRUE(dst == want);

  // Degenerate blocks give black rows: destination taller than the source (block height 0),
  // or wider (block width 0).
  struct Case {
    int sw, sh, dw, dh;
  };
  for (const Case c : {Case{4, 2, 2, 3}, Case{2, 4, 4, 2}}) {
    Bytes any(64, 200), out(c.dw * c.dh + 1, kUntouched);
    NV12AvgScaling(any.data(), out.data(), c.sw, c.sh, c.dw, c.dh);
    Bytes black(c.dw * c.dh, 0);
    black.push_back(kUntouched);
    EXPECT_TRUE(out == black) << c.sw << "x" << c.sh << " to " << c.dw << "x" << c.dh;
  }
}

// ---- Raw files ----

class YuvFile : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return dir_ / name; }
  testutil::TempDir dir_;
};

TEST_F(YuvFile, WritersWriteLumaThenChromaWithTruncatedSizesAndReadersReadThemBack) {
  struct Case {
    int w, h;
    size_t luma, chroma, frame;
  };
  // 3x3: 9 luma and 9 / 2 = 4 chroma bytes; a whole frame is 27 / 2 = 13.
  for (const Case c : {Case{4, 2, 8, 4, 12}, Case{3, 3, 9, 4, 13}, Case{5, 1, 5, 2, 7}}) {
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h);
    Bytes luma = testutil::RandomBytes(c.luma, 3), chroma = testutil::RandomBytes(c.chroma, 4);
    const std::string planes = Path("planes.yuv");
    EXPECT_EQ(WriteYUVFile(luma.data(), chroma.data(), planes.c_str(), c.w, c.h), 0);
    Bytes both = luma;
    both.insert(both.end(), chroma.begin(), chroma.end());
    EXPECT_TRUE(testutil::ReadFile(planes) == both);

    Bytes luma_in(c.luma + 1, kUntouched), chroma_in(c.chroma + 1, kUntouched);
    EXPECT_EQ(ReadYUVFile(luma_in.data(), chroma_in.data(), planes.c_str(), c.w, c.h), 0);
    luma.push_back(kUntouched);
    chroma.push_back(kUntouched);
    EXPECT_TRUE(luma_in == luma);
    EXPECT_TRUE(chroma_in == chroma);

    Bytes frame = testutil::RandomBytes(c.frame, 5);
    const std::string whole = Path("frame.yuv");
    writeYUVFile(whole, frame.data(), c.w, c.h);
    EXPECT_TRUE(testutil::ReadFile(whole) == frame);
    Bytes frame_in(c.frame + 1, kUntouched);
    readYUVFile(whole, frame_in.data(), c.w, c.h);
    frame.push_back(kUntouched);
    EXPECT_TRUE(frame_in == frame);
  }
}

TEST_F(YuvFile, DoublesAreTruncatedToInt32AndWrapToTheirLowByte) {
  const double inf = std::numeric_limits<double>::infinity();
  const double values[] = {255.9, 256.0, -1.0, 300.0, -0.5, 0.99, 1e12, -1e12, inf, -inf,
                           std::nan(""), 511.0};
  // 1e12 and +inf saturate to INT32_MAX (low byte 0xFF), -1e12 and -inf to INT32_MIN (0x00).
  const Bytes want = {255, 0, 255, 44, 0, 0, 255, 0, 255, 0, 0, 255};
  std::vector<double> luma(values, values + 8), chroma(values + 8, values + 12);
  const std::string planes = Path("planes.yuv");
  WriteYUVFile(luma.data(), chroma.data(), planes.c_str(), 4, 2);  // 8 + 4 bytes
  EXPECT_TRUE(testutil::ReadFile(planes) == want);

  std::vector<double> frame(values, values + 12);
  const std::string whole = Path("frame.yuv");
  writeYUVFile(whole, frame.data(), 4, 2);
  EXPECT_TRUE(testutil::ReadFile(whole) == want);
}

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
  const std::string path = Path("locked.yuv");
  Bytes stored = testutil::RandomBytes(12, 6);
  writeYUVFile(path, stored.data(), 4, 2);
  ASSERT_EQ(chmod(path.c_str(), 0444), 0);
  Bytes frame(12, kUntouched);
  testutil::LogsOf([&] { readYUVFile(path, frame.data(), 4, 2); });  // "rb+" needs write access
  EXPECT_TRUE(frame == Bytes(12, kUntouched));
  Bytes luma(8), chroma(4);
  ReadYUVFile(luma.data(), chroma.data(), path.c_str(), 4, 2);  // "rb" does not
  luma.insert(luma.end(), chroma.begin(), chroma.end());
  EXPECT_TRUE(luma == stored);
}

// ---- Vector rows against the scalar definitions (the shared conformance harness) ----

// The conversion at every harness size, in both chroma orders, with a padding from the seed.
// Every buffer ends flush against its allocation: the last pair of an odd row reaches one byte
// past the width, and no further.
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
    return {width, height, padding,
            testutil::RandomBytes((height - 1) * stride + width, seed),
            testutil::RandomBytes(((height + 1) / 2 - 1) * stride + (width + 1) / 2 * 2, ~seed)};
  }
  static Bytes Run(const Kernels& kernels, const Case& c) {
    Bytes out;
    for (const bool u_first : {true, false}) {
      Bytes r(c.y.size(), kUntouched), g(c.y.size(), kUntouched), b(c.y.size(), kUntouched);
      velmora::ConvertYuvToRgbPlanes(kernels, u_first, c.y.data(), c.uv.data(), r.data(),
                                     g.data(), b.data(), c.width, c.height, c.padding);
      for (const Bytes* plane : {&r, &g, &b}) out.insert(out.end(), plane->begin(), plane->end());
    }
    return out;
  }
};
TEST_P(KernelConformance, YuvConvert) { ExpectMatchesScalar<YuvConvertFamily>(GetParam()); }

// NV12Linear and NV12Linear_Y from each harness size to a shrunk, equal or grown one (chosen
// by the seed). Even sources end flush against their allocation (the luma-only pass at the
// luma), so a gather reaching past what the rule reads fails under ASan; odd ones are read past
// a whole frame by the rule itself and get a little room.
struct Nv12LinearFamily {
  static constexpr const char* kName = "NV12Linear";
  using Kernels = velmora::YuvScaleKernels;
  static const Kernels& For(velmora::Isa isa) { return velmora::YuvScaleKernelsFor(isa); }
  struct Case {
    int sw, sh, dw, dh;
    Bytes frame, luma;
  };
  static Case Make(int width, int height, uint32_t seed) {
    static const float kScales[] = {0.37f, 0.5f, 1.0f, 1.5f, 3.1f};
    const float scale = kScales[seed % 5];
    const int dw = std::max(1, static_cast<int>(width * scale));
    const int dh = std::max(1, static_cast<int>(height * scale));
    const size_t luma = size_t(width) * height;
    const bool even = width % 2 == 0 && height % 2 == 0;
    const size_t frame = even ? luma * 3 / 2 : luma + size_t(width + 2) * ((height + 1) / 2);
    return {width, height, dw, dh, testutil::RandomBytes(frame, seed),
            testutil::RandomBytes(luma, ~seed)};
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
