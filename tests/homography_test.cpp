// Homography estimation (kernel, solver, generator, RANSAC), its utilities and the driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "test_util.h"
#include "velmora/features.h"
#include "velmora/homography.h"
#include "velmora/registration.h"
#include "velmora/warp.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Points = std::vector<Point2D64f>;

// Rotation by 10 degrees with scale 1.1, a shift, and a mild perspective.
const double kTrue[9] = {1.0832885, -0.1910130, 25.0, 0.1910130, 1.0832885, -12.0, 2e-4, -1e-4, 1};
const double kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

Point2D64f Apply(const double* h, Point2D64f p) {
  const double w = h[6] * p.x + h[7] * p.y + h[8];
  return {(h[0] * p.x + h[1] * p.y + h[2]) / w, (h[3] * p.x + h[4] * p.y + h[5]) / w};
}

// Largest distance, in pixels, between where two homographies send a 640x480 frame's corners.
double MaxDeviation(const double* a, const double* b) {
  double worst = 0.0;
  for (const Point2D64f c : {Point2D64f{0, 0}, {640, 0}, {0, 480}, {640, 480}}) {
    const Point2D64f p = Apply(a, c), q = Apply(b, c);
    worst = std::max(worst, std::hypot(p.x - q.x, p.y - q.y));
  }
  return worst;
}

struct Planted {
  Points src, dst;
  std::vector<unsigned char> inlier;
};
// Pairs under h, +-noise per axis; the first share made outliers 20 to 200 pixels away.
Planted Plant(int count, double outlier_share, double noise, uint32_t seed,
              const double* h = kTrue) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> px(0.0, 640.0), py(0.0, 480.0), jitter(-noise, noise);
  std::uniform_real_distribution<double> far(20.0, 200.0), angle(0.0, 6.283185307179586);
  Planted p{{}, {}, std::vector<unsigned char>(count, 1)};
  for (int i = 0; i < count; ++i) {
    p.src.push_back({px(gen), py(gen)});
    const Point2D64f q = Apply(h, p.src.back());
    p.dst.push_back({q.x + jitter(gen), q.y + jitter(gen)});
    if (i < count * outlier_share) {
      const double r = far(gen), a = angle(gen);
      p.dst.back() = {p.dst.back().x + r * std::cos(a), p.dst.back().y + r * std::sin(a)};
      p.inlier[i] = 0;
    }
  }
  return p;
}

int* Words(Point2D64f* p) { return reinterpret_cast<int*>(p); }

TEST(RunKernel, FitsExactPairsOnItsJacobiSolver) {
  for (const double* truth : {kIdentity, kTrue}) {
    for (const int count : {4, 60}) {
      Planted p = Plant(count, 0.0, 0.0, 3, truth);
      double h[9];
      EXPECT_EQ(runKernel(count, p.src.data(), p.dst.data(), h), 1);
      EXPECT_EQ(h[8], 1.0);
      for (int i = 0; i < 9; ++i) EXPECT_NEAR(h[i], truth[i], 1e-9 * (1 + std::abs(truth[i])));
    }
  }
  // All points on one vertical line: an unguarded infinite scale factor, NaN out, still 1.
  Point2D64f line[5] = {{3, 0}, {3, 1}, {3, 5}, {3, 9}, {3, 12}};
  double h[9];
  EXPECT_EQ(runKernel(5, line, line, h), 1);
  EXPECT_TRUE(std::isnan(h[0]));
  // Jacobi: diagonal input unrotated; equal values may trade places in the sort; row stride 9.
  const std::pair<std::vector<double>, std::vector<int>> cases[] = {
      {{1, 5, 5}, {1, 2, 0}}, {{5, 5, 1}, {0, 1, 2}}, {{1, 2, 1, 3}, {3, 1, 2, 0}}};
  for (const auto& [diagonal, unit_of_row] : cases) {
    const int n = static_cast<int>(diagonal.size());
    std::vector<double> a(81, 1e6), v(81, -7.0);  // stride n would read the 1e6 as entries
    for (int r = 0; r < n; ++r) {
      for (int k = 0; k < n; ++k) a[r * 9 + k] = r == k ? diagonal[r] : 0.0;
    }
    const std::vector<double> before = a;
    double w[9];
    ASSERT_TRUE(JacobiImpl_<double>(a.data(), w, v.data(), n));
    EXPECT_EQ(a, before);
    for (int r = 0; r < n; ++r) {
      EXPECT_EQ(w[r], diagonal[unit_of_row[r]]);
      for (int k = 0; k <= n; ++k) EXPECT_EQ(v[r * 9 + k], k == n ? -7 : k == unit_of_row[r]);
    }
  }
}

// Draws `model` distinct points; with the points' x their index, the subset tells what was drawn.
bool Draw(Points& from, Point2D64f* subset, int model = 4, int attempts = 300) {
  Point2D64f other[4];
  return getSubset(model, subset, other, attempts, Words(from.data()), Words(from.data()),
                   Words(subset), Words(other), static_cast<int>(from.size()));
}

// From all ones: 0xF83F630A07C09CF5 (index 5 of 10), then low word times the multiplier plus the
// high word, 0x07848374BAC3439C (index 6 of 7); subsets not collinear, in a budget of attempts.
TEST(GetSubset, MultiplyWithCarryDrawsOfNonCollinearSubsets) {
  Points pts(10), line(12);
  for (int i = 0; i < 10; ++i) pts[i] = {double(i), 0.5 * i * i};
  for (int i = 0; i < 12; ++i) line[i] = {2.0 * i, 3.0 * i + 1.0};
  Points seven(pts.begin(), pts.begin() + 7);
  Point2D64f s[4];
  rng = 0xFFFFFFFFFFFFFFFFull;
  ASSERT_TRUE(Draw(pts, s, 1));
  EXPECT_EQ(std::make_pair(s[0].x, rng), std::make_pair(5.0, uint64_t{0xF83F630A07C09CF5}));
  ASSERT_TRUE(Draw(seven, s, 1));
  EXPECT_EQ(std::make_pair(s[0].x, rng), std::make_pair(6.0, uint64_t{0x07848374BAC3439C}));
  // On a line every subset fails; one call of 300 attempts draws as much as 300 calls of one.
  rng = 4242;
  EXPECT_FALSE(Draw(line, s));
  const uint64_t one_call = rng;
  rng = 4242;
  for (int k = 0; k < 300; ++k) Draw(line, s, 4, 1);
  EXPECT_EQ(one_call, rng);
  EXPECT_FALSE(Draw(line, s, 4, 0));
  EXPECT_EQ(rng, one_call);  // no budget, no draw
  // checkSubset: legs L of a right isosceles triangle give |cross| = L^2 against 2L * 2^-23,
  // collinear up to exactly L = 2^-22 (inclusive); the partial check tests only the last point.
  const double edge = std::ldexp(1.0, -22);
  for (const double leg : {edge, edge * (1 + 1.0 / 1024), 1.0, edge / 2}) {
    Point2D64f tri[3] = {{leg, 0.0}, {0.0, leg}, {0.0, 0.0}};
    EXPECT_EQ(checkSubset(tri, 3), leg > edge) << leg;
  }
  Point2D64f four[4] = {{0, 0}, {1, 1}, {2, 2}, {5, 0}};
  EXPECT_TRUE(checkSubset(four, 2));
  EXPECT_FALSE(checkSubset(four, 4));
  checkPartialSubsets = true;
  EXPECT_TRUE(Draw(line, s, 4, 1));
  EXPECT_TRUE(checkSubset(four, 4));
  checkPartialSubsets = false;
}

// Squared error rounded to float against 9, inclusive; H[8] (here 7) never read; iterations.
TEST(FindInliers, InclusiveOnTheFloatRoundedErrorAndTheIterationCount) {
  const double dxs[5] = {3.0, 3.0 + 1e-9, -3.0, 3.000001, 5.0};
  double h[9] = {1, 0, 0, 0, 1, 0, 0, 0, 7};
  Point2D64f a[5], b[5];
  float err[5];
  for (int i = 0; i < 5; ++i) a[i] = {10.0, 20.0 + i}, b[i] = {10.0 + dxs[i], 20.0 + i};
  computeReprojError(a, b, h, err, 5);
  for (int i = 0; i < 5; ++i) {
    unsigned char mask = 9;
    const int expected = std::abs(dxs[i]) < 3.0000001 ? 1 : 0;
    EXPECT_EQ(findInliers(&a[i], &b[i], h, &mask, 3.0, 1), expected);
    EXPECT_EQ(mask, expected) << dxs[i];
    EXPECT_EQ(err[i], static_cast<float>((b[i].x - 10.0) * (b[i].x - 10.0))) << dxs[i];
  }
  // round(log(0.005) / log(1 - 0.5^4)) = 82; 26.95 rounds up, 10.05 down; capped by the current
  // count; no inlier or no confidence: log(1) = 0; every point an inlier: 0; NaN keeps the budget.
  const struct {
    double p, ep;
    int max_iters, expected;
  } cases[] = {{0.995, 0.5, 1000, 82}, {0.995, 0.35, 1000, 27}, {0.995, 0.2, 1000, 10},
               {0.995, 0.5, 50, 50},   {0.995, 1.0, 1000, 1000}, {0.0, 0.5, 1000, 0},
               {0.995, 0.0, 1000, 0},  {NAN, 0.5, 1000, 1000}};
  for (const auto& c : cases) {
    EXPECT_EQ(RANSACUpdateNumIters(c.p, c.ep, 4, c.max_iters), c.expected) << c.p << " " << c.ep;
  }
}

// Planted inliers recovered exactly; a threshold of zero or below means 3.0, which 1.0 is not.
TEST(FindHomography, RecoversPlantedInliersUnlessTooFewOrCollinear) {
  for (const auto& [count, outlier_share] : {std::pair<int, double>{200, 0.2}, {500, 0.5}}) {
    SCOPED_TRACE(testing::Message() << count << " pairs, outliers " << outlier_share);
    Planted p = Plant(count, outlier_share, 0.5, 21);
    double h[4][9];
    const double thresholds[4] = {3.0, 0.0, -1.0, 1.0};
    for (int k = 0; k < 4; ++k) {
      rng = 0xFFFFFFFFFFFFFFFFull;
      ASSERT_TRUE(findHomography(p.src, p.dst, h[k], thresholds[k], count));
    }
    EXPECT_LT(MaxDeviation(h[0], kTrue), 0.3);
    EXPECT_EQ(std::memcmp(h[0], h[1], sizeof(h[0])), 0);
    EXPECT_EQ(std::memcmp(h[0], h[2], sizeof(h[0])), 0);
    EXPECT_NE(std::memcmp(h[0], h[3], sizeof(h[0])), 0);
    std::vector<unsigned char> mask(count);
    findInliers(p.src.data(), p.dst.data(), h[0], mask.data(), 3.0, count);
    EXPECT_EQ(mask, p.inlier);
  }
  // Collinear pairs: no subset; four: none drawn, zeroed subsets fitted; H untouched. Five refit.
  double h[9];
  std::fill(h, h + 9, -12345.0);
  Points line(10);
  for (int i = 0; i < 10; ++i) line[i] = {1.0 * i, 2.0 * i};
  EXPECT_FALSE(findHomography(line, line, h, 3.0, 10));
  Planted four = Plant(4, 0.0, 0.0, 2), five = Plant(5, 0.0, 0.0, 2);
  EXPECT_FALSE(findHomography(four.src, four.dst, h, 3.0, 4));
  EXPECT_EQ(std::vector<double>(h, h + 9), std::vector<double>(9, -12345.0));
  EXPECT_TRUE(findHomography(five.src, five.dst, h, 3.0, 5));
  EXPECT_LT(MaxDeviation(h, kTrue), 1e-6);
}

// Exact pairs: one model, iterations fall to 0 (one subset drawn); nine bytes reach the caller.
TEST(RunRansac, ExactPairsStopAfterOneModelAndHandOverNineBytes) {
  Planted p = Plant(50, 0.0, 0.0, 8);
  unsigned char model[72];
  std::memset(model, 0xAB, sizeof(model));
  std::vector<unsigned char> mask(50, 0);
  auto run = [&](int count, int max_iters) {
    return runRANSAC(count, 4, p.src.data(), p.dst.data(), reinterpret_cast<double*>(model),
                     mask.data(), 3.0, 0.995, max_iters);
  };
  rng = 555;
  ASSERT_TRUE(run(50, 1000));
  const uint64_t after = rng;
  EXPECT_EQ(mask, std::vector<unsigned char>(50, 1));
  double first;
  std::memcpy(&first, model, sizeof(first));
  EXPECT_NEAR(first, kTrue[0], 1e-9);
  for (size_t i = 9; i < sizeof(model); ++i) EXPECT_EQ(model[i], 0xAB) << i;
  rng = 555;
  Point2D64f s1[4], s2[4];
  getSubset(4, s1, s2, 300, Words(p.src.data()), Words(p.dst.data()), Words(s1), Words(s2), 50);
  EXPECT_EQ(rng, after);
  EXPECT_FALSE(run(50, 0));
  EXPECT_FALSE(run(3, 1000));
}

auto Edges(const Rect& r) { return std::make_tuple(r.left, r.top, r.right, r.bottom); }

// The inverse undoes the mapping, exactly for a diagonal; a singular one: unguarded, non-finite.
TEST(Utilities, InvertDiffHAndCropAndThrow) {
  double h[9] = {-1.3, 0.7, 1.9, 0.2, -0.4, 1.1, 1.6, -0.9, 0.3}, inv[9];
  invert(h, inv);
  for (const Point2D64f p : {Point2D64f{0.5, 0.25}, Point2D64f{-3, 7}, Point2D64f{40, 2}}) {
    const Point2D64f q = Apply(inv, Apply(h, p));
    EXPECT_NEAR(std::hypot(q.x - p.x, q.y - p.y), 0.0, 1e-9) << p.x << "," << p.y;
  }
  double diagonal[9] = {2, 0, 0, 0, 4, 0, 0, 0, 8}, singular[9] = {1, 2, 3, 2, 4, 6, 0, 0, 1};
  invert(diagonal, inv);
  EXPECT_EQ(std::make_tuple(inv[0], inv[4], inv[8]), std::make_tuple(0.5, 0.25, 0.125));
  invert(singular, inv);
  EXPECT_FALSE(std::isfinite(inv[0]));
  // diffH rounds to float after each addition: 8 x 2^-25 lost after 1, kept as 2^-22 before.
  const double tiny = std::ldexp(1.0, -25);
  double zero[9] = {}, small_last[9], small_first[9];
  for (int i = 0; i < 9; ++i) small_last[i] = small_first[i] = -tiny;  // |difference| counts
  small_last[0] = small_first[8] = 1.0;
  EXPECT_EQ(diffH(small_last, zero), 1.0f);
  EXPECT_EQ(diffH(small_first, zero), 1.0f + std::ldexp(1.0f, -22));
  EXPECT_EQ(diffH(small_first, small_first), 0.0f);
  // 641 x 481: limits 320 and 240 (integer halves); a shift t moves the top-left corner by 2t.
  const struct {
    double tx, ty;
    int thrown;
    Rect expected;  // when kept
  } cases[] = {
      {0, 0, 0, {0, 0, 641, 481}},
      {160, 0, 0, {320, 0, 641, 481}},      // 2t = 320: at the limit, kept
      {160.25, 0, 1, {}},                   // 320.5 > 320
      {0, 120, 0, {0, 240, 641, 481}},
      {0, 120.25, 1, {}},
      {10.25, 3.1, 0, {21, 7, 641, 481}},   // edges rounded inward: ceil(20.5), ceil(6.2)
      {-1000, 0, 0, {0, 0, -1359, 481}},    // never thrown to the left; right < left is kept
      {-10.25, -3.1, 0, {0, 0, 620, 474}},  // floor(641 - 20.5), floor(481 - 6.2)
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.tx << ", " << c.ty);
    double h[9] = {1, 0, c.tx, 0, 1, c.ty, 0, 0, 1};
    Rect r = {0, 0, 641, 481};
    EXPECT_EQ(cropAndThrow(h, &r, 641, 481), c.thrown);
    EXPECT_EQ(Edges(r), Edges(c.thrown ? Rect{0, 0, 641, 481} : c.expected));
    const Rect before = r;
    EXPECT_EQ(cropAndThrow(const_cast<double*>(kIdentity), &r, 641, 481), 0);
    EXPECT_EQ(Edges(r), Edges(before));
  }
}

// 200 x 200: distinct descriptors shared by A and B, A's keypoints B's moved by (dx, 0).
TEST(ImageRegistration, OutcomesAtEachThreshold) {
  const struct {
    int n, dx;
    double previous_h2;
    bool thrown;
    int left;  // when kept
  } cases[] = {
      {27, 0, 0, true, 0},           // too few matches: thrown unestimated, silently
      {30, 0, 0, true, 0},           // 15 % is four pairs: no model; the buffer's 1e9 printed
      {40, 0, 80.0, false, 0},       // a jump of exactly 80 passes
      {40, 0, 80.0001, true, 0},     // just above does not
      {40, -60, -60, true, 0},       // top-left moves 120 > 100
      {40, -40, -40, false, 80},     // kept and cropped
  };
  constexpr int kW = 200, kH = 200;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.n << " matches, dx " << c.dx << ", " << c.previous_h2);
    std::mt19937 gen(5);
    std::vector<float> values(c.n * 64);
    std::vector<float*> descriptors;
    std::vector<Pointf> keypoints, moved;
    for (int i = 0; i < c.n; ++i) {
      for (int k = 0; k < 64; ++k) values[i * 64 + k] = static_cast<float>(gen() % 256);
      descriptors.push_back(&values[i * 64]);
      keypoints.push_back({static_cast<int>(gen() % 100), static_cast<int>(gen() % 100)});
      moved.push_back({keypoints.back().x + c.dx, keypoints.back().y});
    }
    double H[9] = {1, 0, c.previous_h2, 0, 1, 0, 0, 0, 1};
    const std::vector<double> before(H, H + 9);
    Rect rect{0, 0, kW, kH};
    Bytes src = testutil::RandomBytes(kW * kH * 3 / 2, 6), dst(src.size(), 0x5A);
    char thrown = 0;
    testing::internal::CaptureStdout();
    imageRegistration(src.data(), dst.data(), descriptors, descriptors, moved, keypoints, kW, kH,
                      &thrown, &rect, H);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(thrown, c.thrown ? 1 : 0);
    EXPECT_EQ(printed.empty(), c.n < 28);
    if (c.n == 30) {
      EXPECT_EQ(printed, "1e+09, 1e+09, 1e+09, 1e+09, 1e+09, 1e+09, 1e+09, 1e+09\n** : 9e+09\n");
    }
    if (c.thrown) {
      EXPECT_EQ(Edges(rect), Edges(Rect{0, 0, kW, kH}));
      EXPECT_EQ(std::vector<double>(H, H + 9), before);
      EXPECT_EQ(dst, Bytes(src.size(), 0x5A));
      continue;
    }
    EXPECT_NEAR(H[2], c.dx, 1e-6);
    EXPECT_NEAR(H[0], 1.0, 1e-9);
    EXPECT_NEAR(rect.left, c.left, 1);  // no estimate is exact: edges may round a pixel inward
    EXPECT_NEAR(rect.right, kW, 1);
    Bytes warped(src.size());  // the frame is warped with the accepted estimate itself
    perspectiveWarpYUV_OP(H, src.data(), warped.data(), kW, kH);
    EXPECT_EQ(dst, warped);
    // The planes-apart variant warps alike, silently; a good frame does not clear the flag.
    thrown = 1;
    std::fill(dst.begin(), dst.end(), 0x5A);
    testing::internal::CaptureStdout();
    imageRegistration_1(src.data(), src.data() + kW * kH, dst.data(), dst.data() + kW * kH,
                        descriptors, descriptors, moved, keypoints, kW, kH, &thrown, &rect, H);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(dst, warped);
    EXPECT_EQ(thrown, 1);
  }
}

}  // namespace
