// Gradient primitives and features (corners, descriptors, matching), and their kernel families.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "filters/gradient_kernels.h"
#include "kernel_conformance.h"
#include "registration/corners.h"
#include "registration/match.h"
#include "test_util.h"
#include "velmora/features.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

using Image = std::vector<uint8_t>;
using Floats = std::vector<float>;
constexpr int kLen = 64;
const float kNan = NAN;

uint32_t Bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

TEST(ElementWise, ArctanPolynomialMagnitudeInFloatAndOverlap) {
  const struct {
    float y, x, degrees;
  } cases[] = {{0, 0, 0},          {1, 0, 90},           {0, -1, 180},       {-1, 0, 270},
               {1, 1, 44.990456f}, {-1, -1, 224.99045f}, {1, 2, 26.567104f}, {-3, 4, 323.1363f},
               {-0.0f, -1, 180}};  // negative zero is not negative
  for (const auto& c : cases) {
    float y = c.y, x = c.x, out = -1;
    calcArctan(&y, &x, &out, 1);
    EXPECT_EQ(Bits(out), Bits(c.degrees)) << c.y << ", " << c.x;
  }
  // Magnitude in float (squares overflow); an overlapping output sees values already written.
  float a = 3, out = 7;
  calcExp(&a, &out, 1);
  EXPECT_EQ(out, expf(3.0f));
  EXPECT_EQ(Magnitude_(3, 4), 5);
  EXPECT_EQ(Magnitude_(1e20f, 1e20f), INFINITY);
  for (int count : {9, 40}) {
    Floats y = testutil::RandomFloats(count + 1, count, 1000),
           x = testutil::RandomFloats(count, count + 1, 1000), expected = y;
    for (int i = 0; i < count; ++i) expected[i + 1] = Arctan_(expected[i], x[i]);
    calcArctan(y.data(), x.data(), y.data() + 1, count);
    for (int i = 0; i <= count; ++i) EXPECT_EQ(Bits(y[i]), Bits(expected[i])) << i;
  }
}

// Sobel ramps give 8 per unit of slope, positive to the right and downward; borders unwritten.
TEST(ThreeByThree, SobelMedblurAndDilate) {
  const int w = 7, h = 5;
  Image ramp(w * h);
  for (int i = 0; i < w * h; ++i) ramp[i] = static_cast<uint8_t>(i % w + 3 * (i / w));
  std::vector<int> gx(w * h, -99), gy(w * h, -99);
  sobel(ramp.data(), gx.data(), gy.data(), w, h);
  for (int i = 0; i < w * h; ++i) {
    const bool border = i < w || i >= w * (h - 1) || i % w == 0 || i % w == w - 1;
    EXPECT_EQ(std::make_pair(gx[i], gy[i]), std::make_pair(border ? -99 : 8, border ? -99 : 24));
  }
  // medblur: the smaller eigenvalue of the box sums, which start from +0; first argument unread.
  const struct {
    float xx, xy, yy, expected;
  } cases[] = {
      {2, 0, 5, 18}, {5, 0, 2, 18}, {1, 0.5f, 1, 4.5f}, {3, -1, 3, 18}, {-0.f, 0, -0.f, 0}};
  for (const auto& c : cases) {
    Floats xx(12, c.xx), xy(12, c.xy), yy(12, c.yy), out(12, -7);
    medblur(nullptr, xx.data(), xy.data(), yy.data(), 4, 3, out.data());
    for (int i = 0; i < 12; ++i) {
      EXPECT_EQ(Bits(out[i]), Bits(i == 5 || i == 6 ? c.expected : -7.0f)) << c.xx << " " << i;
    }
  }
  // Right column top to bottom first: 1e8 absorbs the fours before -1e8 cancels it (else 8).
  Floats plane = {0, -1e8f, 1e8f, 0, 0, 4, 0, 0, 4}, zero(9, 0.0f), out(9, -1);
  medblur(nullptr, plane.data(), zero.data(), plane.data(), 3, 3, out.data());
  EXPECT_EQ(out[4], 0.0f);
  // dilate: the running order starts top-right and replaces only what is strictly less.
  const float z = -0.0f;
  const std::pair<Floats, float> neighbourhoods[] = {
      {{1, 2, 3, 4, 9, 5, 6, 7, 8}, 9},
      {{1, 2, kNan, 4, 9, 5, 6, 7, 8}, kNan},  // a NaN first is never replaced
      {{1, 2, 3, 4, kNan, 5, 6, 7, 8}, 8},     // a NaN later is never taken
      {{0, 0, z, 0, 0, 0, 0, 0, 0}, z},        // +0 is not greater than -0
      {{z, z, 0, z, z, z, z, z, z}, 0}};
  for (auto [in, expected] : neighbourhoods) {
    Floats out(9, -5);
    dilate(in.data(), out.data(), 3, 3);
    EXPECT_EQ(Bits(out[4]), Bits(expected));
    EXPECT_EQ(out[0], -5);
  }
}

std::vector<Pointf> Detect(Image img, int w, int h, int minDistance, int maxCorners = 0,
                           double quality = 0.01) {
  std::vector<Pointf> corners;
  goodFeaturesToTrack(img.data(), corners, w, h, maxCorners, quality, minDistance, 3);
  return corners;
}

std::vector<std::pair<int, int>> Xy(const std::vector<Pointf>& points) {
  std::vector<std::pair<int, int>> out;
  for (const Pointf& p : points) out.emplace_back(p.x, p.y);
  return out;
}

// Bright pixels 10 apart (same or neighbouring grid cell) both kept, one closer only the
// brighter; a far weak one only above quality times the strongest; none on flat or tiny images.
TEST(Corners, SpacingQualityAndLimits) {
  const int w = 40, h = 30;
  const struct {
    int bx, by, value;
    double quality;
    size_t kept;
  } cases[] = {{20, 10, 200, 0.01, 2}, {19, 10, 200, 0.01, 1}, {16, 18, 200, 0.01, 2},
               {16, 17, 200, 0.01, 1}, {4, 2, 200, 0.01, 2},   {4, 3, 200, 0.01, 1},
               {30, 20, 100, 0.1, 2},  {30, 20, 100, 0.2, 1}};  // (100 / 255)^2 = 0.15
  for (const auto& c : cases) {
    Image img(w * h, 0);
    img[10 * w + 10] = 255;
    img[c.by * w + c.bx] = static_cast<uint8_t>(c.value);
    const std::vector<Pointf> found = Detect(img, w, h, 10, 0, c.quality);
    ASSERT_EQ(found.size(), c.kept) << c.bx << "," << c.by << " " << c.quality;
    EXPECT_TRUE(found[0].x == 10 && found[0].y == 10);
  }
  EXPECT_TRUE(Detect(Image(40 * 30, 77), 40, 30, 5).empty());
  for (const auto& [w, h] : {std::pair<int, int>{2, 50}, {50, 2}, {1, 1}}) {
    EXPECT_TRUE(Detect(testutil::TexturedImage(w, h, 1), w, h, 1).empty());
  }
  // Greedy over all candidates through every grid cell; distance <= 0: none; limit cuts; appended.
  for (const auto& [w, h, d] : {std::tuple{97, 61, 7}, {160, 120, 15}, {33, 200, 3}}) {
    const Image img = testutil::TexturedImage(w, h, w);
    std::vector<Pointf> expected;
    for (const Pointf& p : Detect(img, w, h, 1)) {
      if (std::none_of(expected.begin(), expected.end(), [&, d = d](const Pointf& q) {
            return (p.x - q.x) * (p.x - q.x) + (p.y - q.y) * (p.y - q.y) < d * d;
          })) {
        expected.push_back(p);
      }
    }
    ASSERT_GT(expected.size(), 5u);
    EXPECT_EQ(Xy(Detect(img, w, h, d)), Xy(expected)) << w << "x" << h;
    EXPECT_EQ(Xy(Detect(img, w, h, d, -1)), Xy(expected));
    EXPECT_TRUE(Detect(img, w, h, 0).empty() && Detect(img, w, h, -3).empty());
    std::vector<Pointf> corners{{-1, -2}};
    Image copy = img;
    goodFeaturesToTrack(copy.data(), corners, w, h, 3, 0.01, d, 3);
    expected.insert(expected.begin(), Pointf{-1, -2});
    expected.resize(4);
    EXPECT_EQ(Xy(corners), Xy(expected));
  }
  EXPECT_TRUE(greaterThanPtr({0, 0, 2.0f}, {5, 5, 1.0f}));
  EXPECT_FALSE(greaterThanPtr({0, 0, 1.0f}, {5, 5, 1.0f}));
}

Floats Describe(Floats img, Pointf pt, int width, int height) {
  Floats out(kLen, -1.0f);
  calcDescriptor(img.data(), pt, 4, 4, out.data(), width, height);
  return out;
}

// Ramps along +x, up, -x and down (dy is up minus down) vote in bins 0, 1, 2 and 3.
TEST(Descriptor, OrientationBinsAndTheOnceOnlyWrap) {
  for (const auto& [per_x, per_y, bin] : {std::tuple{3, 0, 0}, {0, -3, 1}, {-3, 0, 2}, {0, 3, 3}}) {
    Floats img(16 * 16);
    for (int i = 0; i < 16 * 16; ++i) img[i] = 100.0f + per_x * (i % 16) + per_y * (i / 16);
    const Floats desc = Describe(img, Pointf{8, 8}, 16, 16);
    for (int cell = 0; cell < 16; ++cell) {
      EXPECT_EQ(std::max_element(&desc[cell * 4], &desc[cell * 4 + 4]) - &desc[cell * 4], bin);
    }
  }
  // dx = 115, dy = 1 (0.5 degrees) at offset (-2, -2): bin 0 of cells (0, 0) to (1, 1), the rest
  // into bin 1 of the cell before in memory (lost before the first); wrapped once: no bin 3.
  const Floats desc = Describe({0, 1, 0, 0, 0, 115, 0, 0, 0}, Pointf{3, 3}, 3, 3);
  auto at = [&](int a, int b, int bin) { return desc[(a * 4 + b) * 4 + bin]; };
  const double obin = (std::atan2(1.0, 115.0) * 180.0 / M_PI - 361.0) * 4.0 / 360.0;
  const double fo = obin - std::floor(obin);  // kept in bin 0; cell (1, 1) is too light to clip
  EXPECT_NEAR(at(1, 0, 1) / at(1, 1, 0), (1.0 - fo) / fo, 1e-5);
  for (int a = 0; a < 4; ++a) {
    for (int b = 0; b < 4; ++b) {
      const bool own = a < 2 && b < 2;
      EXPECT_EQ(at(a, b, 0) > 0, own) << a << "," << b;
      EXPECT_EQ(at(a, b, 1) > 0, own && b == 0) << a << "," << b;
      EXPECT_EQ(at(a, b, 2) + at(a, b, 3), 0.0f);
    }
  }
}

// Values in [0, 255], at the borders too; no samples give zeros, not NaN.
TEST(Descriptor, ByteRangedAndZeroWithoutSamples) {
  const int w = 48, h = 36;
  const Image bytes = testutil::TexturedImage(w, h, 11);
  const Floats img(bytes.begin(), bytes.end());
  for (const Pointf& pt : {Pointf{1, 1}, Pointf{w - 1, 5}, Pointf{20, 14}}) {
    const Floats desc = Describe(img, pt, w, h);
    EXPECT_GT(*std::max_element(desc.begin(), desc.end()), 0.0f) << pt.x << "," << pt.y;
    for (float v : desc) ASSERT_TRUE(v >= 0.0f && v <= 255.0f) << pt.x << "," << pt.y;
  }
  EXPECT_EQ(Describe(img, Pointf{-50, -50}, w, h), Floats(kLen, 0.0f));
}

// Entries and genDescripter equal calcDescriptor: corners at each distance appended, input kept.
TEST(Descriptor, BatchPathsEqualCalcDescriptor) {
  const auto expect_described = [](Image bytes, const std::vector<Pointf>& keypoints,
                                   const std::vector<float*>& got, int w, int h) {
    for (size_t i = 0; i < keypoints.size(); ++i) {
      const Floats want = Describe(Floats(bytes.begin(), bytes.end()), keypoints[i], w, h);
      EXPECT_EQ(std::memcmp(got[i], want.data(), kLen * 4), 0) << w << "x" << h << " " << i;
    }
  };
  const int w = 320, h = 240;
  const Image img = testutil::TexturedImage(w, h, 21);
  for (const int min_distance : {60, 45}) {
    Image input = img;
    std::vector<Pointf> keypoints = {Pointf{50, 40}}, corners = keypoints;
    std::vector<float*> descriptors;
    if (min_distance == 60) calImageFeatures(input.data(), keypoints, descriptors, w, h);
    else calImageFeatures_1(input.data(), keypoints, descriptors, w, h);
    EXPECT_EQ(input, img);
    goodFeaturesToTrack(input.data(), corners, w, h, 500, 0.01, min_distance, 3);
    ASSERT_GT(corners.size(), 5u);
    ASSERT_EQ(Xy(keypoints), Xy(corners)) << min_distance;
    ASSERT_EQ(descriptors.size(), corners.size());
    expect_described(img, corners, descriptors, w, h);
    for (float* d : descriptors) std::free(d);
  }
  Image input = img;
  std::vector<Pointf> edges = {{-1, -1}, {0, 0}, {1, 1}, {w - 1, h - 1}, {w, h / 2}, {-9, 5}};
  Floats got(edges.size() * kLen);
  std::vector<float*> slots;
  for (size_t i = 0; i < edges.size(); ++i) slots.push_back(got.data() + i * kLen);
  genDescripter(input.data(), edges, slots, w, h);
  expect_described(img, edges, slots, w, h);
}

// Descriptor values of full mantissa, so that the order and precision of distance sums show.
Floats Values(int count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 255.0f);
  Floats values(static_cast<size_t>(count) * kLen);
  for (float& v : values) v = u(rng);
  return values;
}
std::vector<float*> Ptrs(Floats& values) {
  std::vector<float*> ptrs;
  for (size_t i = 0; i < values.size(); i += kLen) ptrs.push_back(values.data() + i);
  return ptrs;
}

// Float squares summed in double (4096^2 and 63 ones); the first nearest at every panel remainder
// (1 of mirror pair 1, 3); a NaN descriptor: 0 at float max; an empty set: one line, nothing added.
TEST(FindMatch, NearestByCalDistanceLowestIndexFirst) {
  Floats zero(kLen, 0.0f), ones(kLen, 1.0f);
  ones[0] = 4096.0f;
  EXPECT_EQ(calDistance(zero.data(), ones.data()), std::sqrt(16777280.0f));
  EXPECT_EQ(calDistance(ones.data(), ones.data()), 0.0f);
  Floats first_values = Values(3, 6);
  std::fill(first_values.begin() + 2 * kLen, first_values.end(), kNan);
  std::vector<float*> first = Ptrs(first_values);
  for (int count = 1; count <= 17; ++count) {
    Floats second_values = Values(count, 100 + count);
    for (int k = 0; k < kLen && count > 3; ++k) {
      second_values[1 * kLen + k] = first_values[k] + (k % 2 ? 2.0f : -2.0f);
      second_values[3 * kLen + k] = first_values[k] - (k % 2 ? 2.0f : -2.0f);
    }
    std::vector<float*> second = Ptrs(second_values);
    std::vector<Match> matches = {Match{-7, -7, -7.0f}};
    findMatch(first, second, matches);
    ASSERT_EQ(matches.size(), 4u);
    EXPECT_EQ(matches[0].index1, -7);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(matches[i + 1].index1, i);
    for (int i = 0; i < 2; ++i) {
      Floats want;
      for (float* b : second) want.push_back(calDistance(first[i], b));
      const auto best = std::min_element(want.begin(), want.end());
      EXPECT_EQ(matches[i + 1].index2, best - want.begin()) << count;
      EXPECT_EQ(Bits(matches[i + 1].distance), Bits(*best)) << count;
    }
    EXPECT_TRUE(count < 4 || (matches[1].index2 == 1 && matches[1].distance == 16.0f)) << count;
    EXPECT_TRUE(matches[3].index2 == 0 && matches[3].distance == 3.4028235e38f) << count;
  }
  EXPECT_TRUE(disSort(Match{5, 0, 1.0f}, Match{0, 5, 2.0f}));
  EXPECT_FALSE(disSort(Match{0, 0, 2.0f}, Match{0, 0, 2.0f}));
  std::vector<float*> none;
  std::vector<Match> matches;
  const std::string line = "Error! Generated descriptor size can not be null. please check.\n";
  testing::internal::CaptureStdout();
  findMatch(first, none, matches);
  findMatch(none, first, matches);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
  EXPECT_TRUE(matches.empty());
}

// Extreme bytes, ordinary floats (sums not all NaN); element kernels apart and in place.
struct GradientFamily {
  static constexpr const char* kName = "Gradient";
  using Kernels = GradientKernels;
  static const Kernels& For(Isa isa) { return GradientKernelsFor(isa); }
  struct Case {
    int width, height;
    std::vector<uint8_t> bytes;
    std::vector<float> a, b, c;
  };
  static Case Make(int w, int h, uint32_t seed) {
    const size_t n = static_cast<size_t>(w) * h;
    std::mt19937 rng(seed);
    Case c{w, h, std::vector<uint8_t>(n), testutil::RandomFloats(n, seed + 1, 60),
           testutil::RandomFloats(n, seed + 2, 60), testutil::RandomFloats(n, seed + 3, 60)};
    for (uint8_t& v : c.bytes) v = static_cast<uint8_t>(rng() % 4 == 0 ? 255 * (rng() % 2) : rng());
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& k, const Case& c) {
    const size_t w = c.width, n = w * c.height;
    std::vector<int32_t> gx(n, 0x5A5A), gy(n, 0x5A5A);
    std::vector<float> eigen(n, 77.0f), dilated(n, 77.0f);
    for (int r = 1; r + 1 < c.height; ++r) {
      const size_t at = w * r;
      const uint8_t* row = c.bytes.data() + at;
      k.sobel_row(row - w, row, row + w, gx.data() + at, gy.data() + at, c.width);
      const float *a = c.a.data() + at, *b = c.b.data() + at, *d = c.c.data() + at;
      k.min_eigen_row({a - w, a, a + w}, {b - w, b, b + w}, {d - w, d, d + w}, eigen.data() + at,
                      c.width);
      k.dilate_row({a - w, a, a + w}, dilated.data() + at, c.width);
    }
    const int count = static_cast<int>(n);
    std::vector<float> angle(n), first = c.a, second = c.b, length(n), in_place = c.a;
    k.arctan(c.a.data(), c.b.data(), angle.data(), count);
    k.arctan(first.data(), c.b.data(), first.data(), count);
    k.arctan(c.a.data(), second.data(), second.data(), count);
    k.magnitude(c.a.data(), c.b.data(), length.data(), count);
    k.magnitude(in_place.data(), c.b.data(), in_place.data(), count);
    std::vector<uint8_t> out;
    AppendBytes(out, gx);
    AppendBytes(out, gy);
    for (const auto* v : {&eigen, &dilated, &angle, &first, &second, &length, &in_place})
      AppendBytes(out, *v);
    return out;
  }
};

// Derivatives mostly in range, scales usual, infinite and zero, dilated often equal to response.
struct CornerFamily {
  static constexpr const char* kName = "Corners";
  using Kernels = CornerKernels;
  static const Kernels& For(Isa isa) { return CornerKernelsFor(isa); }
  struct Case {
    int width, height;
    std::vector<int32_t> dx, dy;
    std::vector<float> response, dilated;
    double scale;
    float threshold;
  };
  static Case Make(int w, int h, uint32_t seed) {
    std::mt19937 rng(seed);
    const size_t n = static_cast<size_t>(w) * h;
    Case c{w, h, std::vector<int32_t>(n), std::vector<int32_t>(n),
           testutil::RandomFloats(n, seed, 8), testutil::RandomFloats(n, seed + 1, 4), 0.0, 0.0f};
    const auto derivative = [&] {
      return rng() % 8 ? static_cast<int32_t>(rng() % 2041) - 1020 : static_cast<int32_t>(rng());
    };
    for (size_t i = 0; i < n; ++i) {
      c.dx[i] = derivative();
      c.dy[i] = derivative();
      if (rng() % 3) c.dilated[i] = c.response[i];
    }
    const double s3 = 1.0 / (3 * 4.0 * 255.0), s7 = 1.0 / (7 * 4.0 * 255.0);
    const double scales[] = {s3 * s3, s7 * s7, INFINITY, 0.0};
    c.scale = scales[rng() % 4];
    c.threshold = rng() % 4 == 0 ? -1.0f : static_cast<float>(rng() % 3);
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& k, const Case& c) {
    const size_t n = c.dx.size(), w = c.width;
    std::vector<float> xx(n), xy(n), yy(n), cut = c.response, maxima;
    std::vector<int32_t> peaks, xs(w);
    for (size_t at = 0; at < n; at += w) {
      k.product_row(c.dx.data() + at, c.dy.data() + at, c.scale, xx.data() + at, xy.data() + at,
                    yy.data() + at, c.width);
      for (float start : {0.0f, -0.0f, -INFINITY, NAN})
        maxima.push_back(k.row_max(c.response.data() + at, c.width, start));
      const int count =
          k.peak_row(c.response.data() + at, c.dilated.data() + at, c.width, xs.data());
      peaks.push_back(count);
      peaks.insert(peaks.end(), xs.begin(), xs.begin() + count);
      k.cut_row(cut.data() + at, c.width, c.threshold);
    }
    std::vector<uint8_t> out;
    for (const auto* v : {&xx, &xy, &yy, &cut, &maxima}) AppendBytes(out, *v);
    AppendBytes(out, peaks);
    return out;
  }
};

// Candidates some equal to the query (zero terms), some far beyond (sums that need the double).
struct MatchFamily {
  static constexpr const char* kName = "Match";
  using Kernels = MatchKernels;
  static const Kernels& For(Isa isa) { return MatchKernelsFor(isa); }
  struct Case {
    int count;
    std::vector<float> queries;
    std::vector<float> panels;  // exactly the packed size
  };
  static Case Make(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    Case c{width, Values(height, seed), {}};
    Floats candidates = Values(width, seed + 1);
    for (size_t i = 0; i < candidates.size(); ++i) {
      const int p = rng() % 10;
      candidates[i] = p == 0 ? c.queries[i % kLen] : p == 1 ? candidates[i] * 1e4f : candidates[i];
    }
    float* packed = PackPanels(Ptrs(candidates).data(), width);
    c.panels.assign(packed, packed + (width + kPanel - 1) / kPanel * kPanelFloats);
    std::free(packed);
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& kernels, const Case& c) {
    std::vector<uint8_t> out;
    for (size_t q = 0; q < c.queries.size(); q += kLen) {
      std::vector<float> dist(c.count, -1.0f);
      kernels.distances(c.queries.data() + q, c.panels.data(), c.count, dist.data());
      AppendBytes(out, dist);
    }
    return out;
  }
};

TEST_P(KernelConformance, Gradient) { ExpectMatchesScalar<GradientFamily>(GetParam()); }
TEST_P(KernelConformance, Corners) { ExpectMatchesScalar<CornerFamily>(GetParam()); }
TEST_P(KernelConformance, Match) { ExpectMatchesScalar<MatchFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
