// Gradient primitives and features (corners, descriptors, matching), and their kernel family.
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

// Points compare by their coordinates.
bool operator==(const Pointf& a, const Pointf& b) { return a.x == b.x && a.y == b.y; }

namespace velmora {
namespace {

using Image = std::vector<uint8_t>;
using Floats = std::vector<float>;
constexpr int kLen = 64;

uint32_t Bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

// Degrees by the polynomial and the quadrant (negative zero is not negative); magnitude in float
// (squares overflow); an overlapping output sees values already written.
TEST(ElementWise, ArctanPolynomialMagnitudeInFloatAndOverlap) {
  const std::tuple<float, float, float> cases[] = {
      {0, 0, 0},          {1, 0, 90},         {0, -1, 180},
      {-1, 0, 270},       {1, 1, 44.990456f}, {-1, -1, 224.99045f},
      {1, 2, 26.567104f}, {-3, 4, 323.1363f}, {-0.0f, -1, 180}};
  for (const auto& [y, x, degrees] : cases) EXPECT_EQ(Bits(Arctan_(y, x)), Bits(degrees)) << y;
  EXPECT_EQ(Magnitude_(3, 4), 5);
  EXPECT_EQ(Magnitude_(1e20f, 1e20f), INFINITY);
  const int count = 41;  // whole vector steps and a remainder
  Floats y = testutil::RandomFloats(count + 1, count, 1000),
         x = testutil::RandomFloats(count, count + 1, 1000), expected = y;
  for (int i = 0; i < count; ++i) expected[i + 1] = Arctan_(expected[i], x[i]);
  calcArctan(y.data(), x.data(), y.data() + 1, count);
  EXPECT_EQ(std::memcmp(y.data(), expected.data(), y.size() * sizeof(float)), 0);
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
  const std::tuple<float, float, float, float> cases[] = {
      {2, 0, 5, 18}, {5, 0, 2, 18}, {1, 0.5f, 1, 4.5f}, {3, -1, 3, 18}, {-0.f, 0, -0.f, 0}};
  for (const auto& [sxx, sxy, syy, expected] : cases) {
    Floats xx(12, sxx), xy(12, sxy), yy(12, syy), out(12, -7);
    medblur(nullptr, xx.data(), xy.data(), yy.data(), 4, 3, out.data());
    for (int i = 0; i < 12; ++i) {
      EXPECT_EQ(Bits(out[i]), Bits(i == 5 || i == 6 ? expected : -7.0f)) << sxx << " " << i;
    }
  }
  // Right column top to bottom first: 1e8 absorbs the fours before -1e8 cancels it (else 8).
  Floats plane = {0, -1e8f, 1e8f, 0, 0, 4, 0, 0, 4}, zero(9, 0.0f), out(9, -1);
  medblur(nullptr, plane.data(), zero.data(), plane.data(), 3, 3, out.data());
  EXPECT_EQ(out[4], 0.0f);
  // dilate: the running order starts top-right and replaces only what is strictly less.
  const float z = -0.0f;
  const std::pair<Floats, float> neighbourhoods[] = {
      {{1, 2, NAN, 4, 9, 5, 6, 7, 8}, NAN},  // a NaN first is never replaced
      {{1, 2, 3, 4, NAN, 5, 6, 7, 8}, 8},    // a NaN later is never taken
      {{0, 0, z, 0, 0, 0, 0, 0, 0}, z},      // +0 is not greater than -0
      {{z, z, 0, z, z, z, z, z, z}, 0}};
  for (auto [in, expected] : neighbourhoods) {
    Floats out(9);
    dilate(in.data(), out.data(), 3, 3);
    EXPECT_EQ(Bits(out[4]), Bits(expected));
  }
}

std::vector<Pointf> Detect(Image img, int w, int h, int minDistance, int maxCorners = 0,
                           double quality = 0.01, std::vector<Pointf> corners = {}) {
  goodFeaturesToTrack(img.data(), corners, w, h, maxCorners, quality, minDistance, 3);
  return corners;
}

int Distance2(Pointf a, Pointf b) { return (a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y); }

// Bright pixels 10 apart (same or neighbouring grid cell) both kept, one closer only the
// brighter; a far weak one only above quality times the strongest; none on a flat image.
TEST(Corners, SpacingQualityAndLimits) {
  const int w = 40, h = 30;
  // The second bright pixel, its value, the quality level, how many kept.
  const std::tuple<int, int, int, double, size_t> cases[] = {
      {20, 10, 200, 0.01, 2}, {19, 10, 200, 0.01, 1}, {16, 18, 200, 0.01, 2},
      {16, 17, 200, 0.01, 1}, {4, 2, 200, 0.01, 2},   {4, 3, 200, 0.01, 1},
      {30, 20, 100, 0.1, 2},  {30, 20, 100, 0.2, 1}};  // (100 / 255)^2 = 0.15
  for (const auto& [bx, by, value, quality, kept] : cases) {
    Image img(w * h, 0);
    img[10 * w + 10] = 255;
    img[by * w + bx] = static_cast<uint8_t>(value);
    const std::vector<Pointf> found = Detect(img, w, h, 10, 0, quality);
    ASSERT_EQ(found.size(), kept) << bx << "," << by << " " << quality;
    EXPECT_TRUE(found[0].x == 10 && found[0].y == 10);
  }
  EXPECT_TRUE(Detect(Image(40 * 30, 77), 40, 30, 5).empty());
  // Greedy over all candidates through every grid cell; distance <= 0: none; limit cuts; appended.
  for (const auto& [w, h, d] : {std::tuple{97, 61, 7}, {160, 120, 15}, {33, 200, 3}}) {
    const Image img = testutil::TexturedImage(w, h, w);
    std::vector<Pointf> expected;
    for (const Pointf& p : Detect(img, w, h, 1)) {
      const auto near = [&, d = d](const Pointf& q) { return Distance2(p, q) < d * d; };
      if (std::none_of(expected.begin(), expected.end(), near)) expected.push_back(p);
    }
    ASSERT_GT(expected.size(), 5u);
    EXPECT_EQ(Detect(img, w, h, d), expected) << w << "x" << h;
    EXPECT_TRUE(Detect(img, w, h, 0).empty() && Detect(img, w, h, -3).empty());
    expected.insert(expected.begin(), Pointf{-1, -2});
    expected.resize(4);
    EXPECT_EQ(Detect(img, w, h, d, 3, 0.01, {{-1, -2}}), expected);
  }
  EXPECT_TRUE(greaterThanPtr({0, 0, 2.0f}, {5, 5, 1.0f}) && !greaterThanPtr({0, 0, 1}, {5, 5, 1}));
}

Floats Describe(Floats img, Pointf pt, int width, int height) {
  Floats out(kLen, -1.0f);
  calcDescriptor(img.data(), pt, 4, 4, out.data(), width, height);
  return out;
}

// The bin of an orientation: dx = 115, dy = 1 (0.5 degrees; dy is up minus down) at offset
// (-2, -2): bin 0 of cells (0, 0) to (1, 1), the rest into bin 1 of the cell before in memory (lost
// before the first); wrapped once: no bin 3.
TEST(Descriptor, OrientationBinsAndTheOnceOnlyWrap) {
  const Floats desc = Describe({0, 1, 0, 0, 0, 115, 0, 0, 0}, Pointf{3, 3}, 3, 3);
  const double obin = (std::atan2(1.0, 115.0) * 180.0 / M_PI - 361.0) * 4.0 / 360.0;
  const double fo = obin - std::floor(obin);  // kept in bin 0; cell (1, 1) is too light to clip
  EXPECT_NEAR(desc[17] / desc[20], (1.0 - fo) / fo, 1e-5);  // cell (1, 0) bin 1, (1, 1) bin 0
  for (int cell = 0; cell < 16; ++cell) {
    const float* bins = &desc[cell * 4];  // cell (a, b) = (cell / 4, cell % 4)
    EXPECT_EQ(std::make_tuple(bins[0] > 0, bins[1] > 0, bins[2] + bins[3]),
              std::make_tuple(cell < 8 && cell % 4 < 2, cell < 8 && cell % 4 == 0, 0.0f))
        << cell;
  }
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

// Entries and genDescripter equal calcDescriptor, in [0, 255]: corners at each distance appended,
// input kept; keypoints at and past the borders; no samples give zeros, not NaN.
TEST(Descriptor, BatchPathsEqualCalcDescriptor) {
  const int w = 320, h = 240;
  const Image img = testutil::TexturedImage(w, h, 21);
  const auto expect_described = [&](const std::vector<Pointf>& keypoints,
                                    const std::vector<float*>& got) {
    ASSERT_EQ(got.size(), keypoints.size());
    for (size_t i = 0; i < keypoints.size(); ++i) {
      const Floats want = Describe(Floats(img.begin(), img.end()), keypoints[i], w, h);
      EXPECT_EQ(Floats(got[i], got[i] + kLen), want) << i;
      for (float v : want) ASSERT_TRUE(v >= 0.0f && v <= 255.0f) << i;
    }
  };
  Image input = img;
  for (const int min_distance : {60, 45}) {
    std::vector<Pointf> keypoints = {Pointf{50, 40}};
    std::vector<float*> descriptors;
    if (min_distance == 60) calImageFeatures(input.data(), keypoints, descriptors, w, h);
    else calImageFeatures_1(input.data(), keypoints, descriptors, w, h);
    EXPECT_EQ(input, img);
    const std::vector<Pointf> corners = Detect(img, w, h, min_distance, 500, 0.01, {{50, 40}});
    ASSERT_EQ(keypoints, corners) << min_distance;
    expect_described(corners, descriptors);
    for (float* d : descriptors) std::free(d);
  }
  std::vector<Pointf> edges = {{-1, -1}, {0, 0}, {1, 1}, {w - 1, h - 1}, {w, h / 2}, {-9, 5}};
  Floats got(edges.size() * kLen);
  std::vector<float*> slots = Ptrs(got);
  genDescripter(input.data(), edges, slots, w, h);
  expect_described(edges, slots);
  EXPECT_EQ(Describe(Floats(img.begin(), img.end()), Pointf{-50, -50}, w, h), Floats(kLen, 0.0f));
}

// Float squares summed in double (4096^2 and 63 ones); the first nearest, of mirror pair 1, 3;
// the last candidate, alone in its panel's first lane; a NaN descriptor: 0 at float max; an empty
// set: one line, nothing added.
TEST(FindMatch, NearestByCalDistanceLowestIndexFirst) {
  Floats zero(kLen, 0.0f), ones(kLen, 1.0f);
  ones[0] = 4096.0f;
  EXPECT_EQ(calDistance(zero.data(), ones.data()), std::sqrt(16777280.0f));
  Floats first_values = Values(3, 6), second_values = Values(17, 117);
  std::fill(first_values.begin() + 2 * kLen, first_values.end(), NAN);
  for (int k = 0; k < kLen; ++k) {
    second_values[1 * kLen + k] = first_values[k] + (k % 2 ? 2.0f : -2.0f);
    second_values[3 * kLen + k] = first_values[k] - (k % 2 ? 2.0f : -2.0f);
    second_values[16 * kLen + k] = first_values[kLen + k] + 1.0f;
  }
  std::vector<float*> first = Ptrs(first_values), second = Ptrs(second_values), none;
  std::vector<Match> matches = {Match{-7, -7, -7.0f}};
  findMatch(first, second, matches);
  std::vector<std::tuple<int, int, float>> got;
  for (const Match& m : matches) got.emplace_back(m.index1, m.index2, m.distance);
  EXPECT_EQ(got, (std::vector<std::tuple<int, int, float>>{
                     {-7, -7, -7.0f}, {0, 1, 16.0f}, {1, 16, 8.0f}, {2, 0, 3.4028235e38f}}));
  EXPECT_TRUE(disSort(Match{5, 0, 1.0f}, Match{0, 5, 2.0f}) && !disSort(Match{}, Match{}));
  const std::string line = "Error! Generated descriptor size can not be null. please check.\n";
  testing::internal::CaptureStdout();
  findMatch(first, none, matches);
  findMatch(none, first, matches);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
  EXPECT_EQ(matches.size(), 4u);
}

// Gradient rows and element kernels (apart and in place) on extreme bytes and ordinary floats
// (sums not all NaN); corner rows on derivatives mostly in range, scales usual, infinite and zero,
// responses with more specials, dilated often equal to them.
struct CornerFamily {
  static constexpr const char* kName = "Corners";
  using Kernels = CornerKernels;
  static const Kernels& For(Isa isa) { return CornerKernelsFor(isa); }
  struct Case {
    int width, height;
    Image bytes;
    Floats a, b, c, response, dilated;
    std::vector<int32_t> dx, dy;
    double scale;
    float threshold;
  };
  static Case Make(int w, int h, uint32_t seed) {
    std::mt19937 rng(seed);
    const size_t n = static_cast<size_t>(w) * h;
    Case c{w, h, testutil::RandomBytes(n, seed), testutil::RandomFloats(n, seed + 1, 60),
           testutil::RandomFloats(n, seed + 2, 60), testutil::RandomFloats(n, seed + 3, 60),
           testutil::RandomFloats(n, seed, 8), testutil::RandomFloats(n, seed + 4, 4),
           std::vector<int32_t>(n), std::vector<int32_t>(n), 0.0, 0.0f};
    for (uint8_t& v : c.bytes) v = v % 4 ? v : static_cast<uint8_t>(255 * (v / 4 % 2));
    for (size_t i = 0; i < 2 * n; ++i) {
      int32_t& d = i < n ? c.dx[i] : c.dy[i - n];
      d = rng() % 8 ? static_cast<int32_t>(rng() % 2041) - 1020 : static_cast<int32_t>(rng());
    }
    for (size_t i = 0; i < n; ++i) c.dilated[i] = rng() % 3 ? c.response[i] : c.dilated[i];
    const double s3 = 1.0 / (3 * 4.0 * 255.0), s7 = 1.0 / (7 * 4.0 * 255.0);
    c.scale = std::vector<double>{s3 * s3, s7 * s7, INFINITY, 0.0}[rng() % 4];
    c.threshold = rng() % 4 == 0 ? -1.0f : static_cast<float>(rng() % 3);
    return c;
  }
  static Image Run(const Kernels& k, const Case& c) {
    const GradientKernels& g = *k.gradient;
    const size_t w = c.width, n = w * c.height;
    std::vector<int32_t> gx(n, 0x5A5A), gy(n, 0x5A5A), peaks, xs(w);
    Floats eigen(n, 77.0f), dilated(n, 77.0f), xx(n), xy(n), yy(n), cut = c.response, maxima;
    for (size_t at = 0; at < n; at += w) {
      const uint8_t* row = c.bytes.data() + at;
      const float *a = c.a.data() + at, *b = c.b.data() + at, *d = c.c.data() + at;
      if (at > 0 && at + w < n) {
        g.sobel_row(row - w, row, row + w, gx.data() + at, gy.data() + at, c.width);
        g.min_eigen_row({a - w, a, a + w}, {b - w, b, b + w}, {d - w, d, d + w}, eigen.data() + at,
                        c.width);
        g.dilate_row({a - w, a, a + w}, dilated.data() + at, c.width);
      }
      k.product_row(c.dx.data() + at, c.dy.data() + at, c.scale, xx.data() + at, xy.data() + at,
                    yy.data() + at, c.width);
      const float* response = c.response.data() + at;
      for (float start : {0.0f, -0.0f, -INFINITY, NAN})
        maxima.push_back(k.row_max(response, c.width, start));
      peaks.push_back(k.peak_row(response, c.dilated.data() + at, c.width, xs.data()));
      peaks.insert(peaks.end(), xs.begin(), xs.begin() + peaks.back());
      k.cut_row(cut.data() + at, c.width, c.threshold);
    }
    Floats first = c.a, second = c.b, mag = c.a;  // in place of either input
    g.arctan(first.data(), c.b.data(), first.data(), c.width * c.height);
    g.arctan(c.a.data(), second.data(), second.data(), c.width * c.height);
    g.magnitude(mag.data(), c.b.data(), mag.data(), c.width * c.height);
    Image out;
    for (const auto* v : {&gx, &gy, &peaks}) AppendBytes(out, *v);
    for (const auto* v : {&eigen, &dilated, &xx, &xy, &yy, &cut, &maxima, &first, &second, &mag})
      AppendBytes(out, *v);
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
    Floats queries, panels;  // panels exactly the packed size
  };
  static Case Make(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    Case c{width, Values(height, seed), {}};
    Floats candidates = Values(width, seed + 1);
    for (size_t i = 0; i < candidates.size(); ++i) {
      candidates[i] = rng() % 10 ? candidates[i] * (rng() % 9 ? 1.0f : 1e4f) : c.queries[i % kLen];
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

TEST_P(KernelConformance, Corners) { ExpectMatchesScalar<CornerFamily>(GetParam()); }
TEST_P(KernelConformance, Match) { ExpectMatchesScalar<MatchFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
