#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "velmora/homography.h"

namespace {

// Rotation by 10 degrees with scale 1.1, a shift, and a mild perspective.
const double kTrue[9] = {1.0832885, -0.1910130, 25.0, 0.1910130, 1.0832885, -12.0, 2e-4, -1e-4, 1};
const double kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

Point2D64f Apply(const double* h, Point2D64f p) {
  const double w = h[6] * p.x + h[7] * p.y + h[8];
  return {(h[0] * p.x + h[1] * p.y + h[2]) / w, (h[3] * p.x + h[4] * p.y + h[5]) / w};
}

// Largest distance between where two homographies send the points of a 640x480 grid.
double MaxDeviation(const double* a, const double* b) {
  double worst = 0.0;
  for (double y = 0; y <= 480; y += 40) {
    for (double x = 0; x <= 640; x += 40) {
      const Point2D64f p = Apply(a, {x, y}), q = Apply(b, {x, y});
      worst = std::max(worst, std::hypot(p.x - q.x, p.y - q.y));
    }
  }
  return worst;
}

// Pairs under h with destination noise uniform in +-noise per axis; a share of them, spread over
// the set, made gross outliers 20 to 200 pixels away from their true position.
struct Planted {
  std::vector<Point2D64f> src, dst;
  std::vector<unsigned char> inlier;
};
Planted Plant(int count, double outlier_share, double noise, uint32_t seed,
              const double* h = kTrue) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> px(0.0, 640.0), py(0.0, 480.0), jitter(-noise, noise);
  std::uniform_real_distribution<double> far(20.0, 200.0), angle(0.0, 6.283185307179586);
  Planted p;
  for (int i = 0; i < count; ++i) {
    p.src.push_back({px(gen), py(gen)});
    p.dst.push_back(Apply(h, p.src.back()));
    p.dst.back().x += jitter(gen);
    p.dst.back().y += jitter(gen);
  }
  p.inlier.assign(count, 1);
  std::vector<int> order(count);
  for (int i = 0; i < count; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), gen);
  for (int k = 0; k < static_cast<int>(count * outlier_share); ++k) {
    const double r = far(gen), a = angle(gen);
    p.dst[order[k]].x += r * std::cos(a);
    p.dst[order[k]].y += r * std::sin(a);
    p.inlier[order[k]] = 0;
  }
  return p;
}

int* Words(Point2D64f* p) { return reinterpret_cast<int*>(p); }

TEST(RunKernel, FitsExactPairsAndPassesDegenerateInputThrough) {
  for (const double* truth : {kIdentity, kTrue}) {
    for (const int count : {4, 60}) {
      Planted p = Plant(count, 0.0, 0.0, 3, truth);
      double h[9];
      EXPECT_EQ(runKernel(count, p.src.data(), p.dst.data(), h), 1);
      EXPECT_EQ(h[8], 1.0);
      for (int i = 0; i < 9; ++i) EXPECT_NEAR(h[i], truth[i], 1e-9 * (1 + std::abs(truth[i])));
    }
  }
  // All points on one vertical line: an infinite scale factor, a NaN result, still 1.
  Point2D64f line[5] = {{3, 0}, {3, 1}, {3, 5}, {3, 9}, {3, 12}};
  double h[9];
  EXPECT_EQ(runKernel(5, line, line, h), 1);
  EXPECT_TRUE(std::isnan(h[0]));
}

TEST(Jacobi, EigenpairsOfRandomSymmetricMatrices) {
  std::mt19937 gen(11);
  std::uniform_real_distribution<double> u(-10.0, 10.0);
  for (int trial = 0; trial < 25; ++trial) {
    double a[81], copy[81], w[9], v[81];
    for (int r = 0; r < 9; ++r) {
      for (int c = r; c < 9; ++c) a[r * 9 + c] = a[c * 9 + r] = u(gen);
    }
    std::memcpy(copy, a, sizeof(a));
    ASSERT_TRUE(JacobiImpl_<double>(copy, w, v, 9));
    for (int i = 0; i < 9; ++i) {
      EXPECT_GE(w[std::max(i - 1, 0)], w[i]);
      double norm = 0.0;
      for (int c = 0; c < 9; ++c) norm += v[i * 9 + c] * v[i * 9 + c];
      EXPECT_NEAR(norm, 1.0, 1e-12);
      for (int r = 0; r < 9; ++r) {  // A v = lambda v, row by row
        double av = 0.0;
        for (int c = 0; c < 9; ++c) av += a[r * 9 + c] * v[i * 9 + c];
        EXPECT_NEAR(av, w[i] * v[i * 9 + r], 1e-11) << "trial " << trial << " pair " << i;
      }
    }
  }
}

TEST(Jacobi, DiagonalInputSortsDescendingWithUnitVectors) {
  // Selection sort by strictly larger: equal values keep their order unless a swap carries one
  // past the other, as in the last row (the two 1s trade places).
  struct Case {
    std::vector<double> diagonal;
    std::vector<int> unit_of_row;  // which unit vector each sorted row is
  };
  const Case cases[] = {{{1, 5, 5}, {1, 2, 0}}, {{5, 5, 1}, {0, 1, 2}}, {{1, 2, 1, 3}, {3, 1, 2, 0}}};
  for (const Case& c : cases) {
    const int n = static_cast<int>(c.diagonal.size());
    // Row stride 9 whatever n: the sentinel beyond the n x n block would be read as matrix
    // entries by a solver using stride n.
    std::vector<double> a(81, 1e6), v(81, -7.0);
    for (int r = 0; r < n; ++r) {
      for (int k = 0; k < n; ++k) a[r * 9 + k] = r == k ? c.diagonal[r] : 0.0;
    }
    const std::vector<double> before = a;
    double w[9];
    ASSERT_TRUE(JacobiImpl_<double>(a.data(), w, v.data(), n));
    EXPECT_EQ(a, before);  // nothing above eps off the diagonal: no rotation at all
    for (int r = 0; r < n; ++r) {
      EXPECT_EQ(w[r], c.diagonal[c.unit_of_row[r]]);
      for (int k = 0; k < n; ++k) EXPECT_EQ(v[r * 9 + k], k == c.unit_of_row[r] ? 1.0 : 0.0);
      EXPECT_EQ(v[r * 9 + n], -7.0);
    }
  }
}

// One-point draws from points whose x is their index: the subset tells which index was drawn.
int DrawOne(std::vector<Point2D64f>& pts) {
  Point2D64f s1, s2;
  getSubset(1, &s1, &s2, 1, Words(pts.data()), Words(pts.data()), Words(&s1), Words(&s2),
            static_cast<int>(pts.size()));
  return static_cast<int>(s1.x);
}

TEST(Generator, MultiplyWithCarryFromAllOnesNeverReseeded) {
  std::vector<Point2D64f> ten(10), seven(7);
  for (int i = 0; i < 10; ++i) ten[i] = {double(i), 0.0};
  for (int i = 0; i < 7; ++i) seven[i] = {double(i), 0.0};
  rng = 0xFFFFFFFFFFFFFFFFull;
  EXPECT_EQ(DrawOne(ten), 5);
  EXPECT_EQ(rng, 0xF83F630A07C09CF5ull);
  uint64_t s = rng;
  for (int k = 0; k < 20; ++k) {
    s = (s & 0xFFFFFFFFu) * 0xF83F630Aull + (s >> 32);  // the rule: low word * a + carry
    auto& set = k % 2 ? ten : seven;
    EXPECT_EQ(DrawOne(set), static_cast<int>(static_cast<uint32_t>(s) % set.size())) << k;
  }
  // findHomography goes on from wherever the state stands: two starts, two end states.
  Planted p = Plant(40, 0.2, 0.5, 5);
  double h[9];
  uint64_t after[2];
  for (int k = 0; k < 2; ++k) {
    rng = 1000 + k;
    findHomography(p.src, p.dst, h, 3.0, 40);
    after[k] = rng;
  }
  EXPECT_NE(after[0], after[1]);
}

TEST(GetSubset, DistinctDrawsAndTheAttemptBudget) {
  std::vector<Point2D64f> pts(6), line(12);
  for (int i = 0; i < 6; ++i) pts[i] = {double(i), 0.5 * i * i};
  for (int i = 0; i < 12; ++i) line[i] = {2.0 * i, 3.0 * i + 1.0};
  Point2D64f s1[4], s2[4];
  rng = 77;
  for (int k = 0; k < 50; ++k) {
    ASSERT_TRUE(getSubset(4, s1, s2, 300, Words(pts.data()), Words(pts.data()), Words(s1),
                          Words(s2), 6));
    for (int i = 1; i < 4; ++i) {
      for (int j = 0; j < i; ++j) EXPECT_NE(s1[i].x, s1[j].x);
    }
  }
  // On a line every subset fails; one call of n attempts draws as much as n calls of one.
  auto on_line = [&](int attempts) {
    return getSubset(4, s1, s2, attempts, Words(line.data()), Words(line.data()), Words(s1),
                     Words(s2), 12);
  };
  for (const int attempts : {1, 2, 300}) {
    rng = 4242;
    EXPECT_FALSE(on_line(attempts));
    const uint64_t one_call = rng;
    rng = 4242;
    for (int k = 0; k < attempts; ++k) on_line(1);
    EXPECT_EQ(one_call, rng) << attempts;
  }
  rng = 4242;
  EXPECT_FALSE(on_line(0));
  EXPECT_EQ(rng, 4242u);  // no budget, no draw
  checkPartialSubsets = true;
  EXPECT_TRUE(on_line(1));
  checkPartialSubsets = false;
}

TEST(CheckSubset, CollinearWithinSinglePrecisionEpsilon) {
  // A right isosceles triangle with legs L: |cross| = L^2 against 2L * 2^-23, so it counts as
  // collinear exactly up to L = 2^-22 (the comparison is inclusive).
  const double edge = std::ldexp(1.0, -22);
  for (const double leg : {edge, edge * (1 + 1.0 / 1024), 1.0, edge / 2}) {
    Point2D64f tri[3] = {{leg, 0.0}, {0.0, leg}, {0.0, 0.0}};
    EXPECT_EQ(checkSubset(tri, 3), leg > edge) << leg;
  }
  Point2D64f two[2] = {{0, 0}, {0, 0}};
  EXPECT_TRUE(checkSubset(two, 2));
  // The first three points are collinear, the last is off the line: only a full check sees it.
  Point2D64f four[4] = {{0, 0}, {1, 1}, {2, 2}, {5, 0}};
  EXPECT_FALSE(checkSubset(four, 4));
  checkPartialSubsets = true;
  EXPECT_TRUE(checkSubset(four, 4));
  checkPartialSubsets = false;
}

TEST(FindInliers, InclusiveOnTheFloatRoundedError) {
  // Identity model, threshold 3: the squared error is compared with 9 after rounding to float.
  for (const double dx : {3.0, 3.0 + 1e-9, -3.0, 3.000001, 5.0}) {
    Point2D64f a = {10.0, 20.0}, b = {10.0 + dx, 20.0};
    double h[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    unsigned char mask = 9;
    const int expected = std::abs(dx) < 3.0000001 ? 1 : 0;
    EXPECT_EQ(findInliers(&a, &b, h, &mask, 3.0, 1), expected) << dx;
    EXPECT_EQ(mask, expected);
  }
  // Errors of a perspective model against an independent projection; H[8] is not read.
  Planted p = Plant(30, 0.3, 0.0, 9);
  double h[9];
  std::memcpy(h, kTrue, sizeof(h));
  std::vector<float> err(30), err_h8(30);
  computeReprojError(p.src.data(), p.dst.data(), h, err.data(), 30);
  h[8] = 7.0;
  computeReprojError(p.src.data(), p.dst.data(), h, err_h8.data(), 30);
  EXPECT_EQ(err, err_h8);
  for (int i = 0; i < 30; ++i) {
    const Point2D64f q = Apply(kTrue, p.src[i]);
    const double d2 = std::pow(q.x - p.dst[i].x, 2) + std::pow(q.y - p.dst[i].y, 2);
    EXPECT_NEAR(err[i], d2, 1e-6 * d2 + 1e-9) << i;
  }
}

TEST(RansacIterations, UpdateFigures) {
  struct Case {
    double p, ep;
    int max_iters, expected;
  };
  const Case cases[] = {
      {0.995, 0.5, 1000, 82},    // round(log(0.005) / log(1 - 0.5^4))
      {0.995, 0.0, 1000, 0},     // every point an inlier
      {0.995, -0.5, 1000, 0},    // clamped to 0
      {0.995, 0.35, 1000, 27},   // 26.95 rounds up
      {0.995, 0.2, 1000, 10},    // 10.05 rounds down
      {0.995, 0.5, 50, 50},      // capped by the current count
      {0.995, 0.9, 1000, 1000},  // 52980 needed
      {0.995, 1.0, 1000, 1000},  // no inlier at all: log(1) = 0
      {1.0, 0.5, 1000, 1000},    // certainty: log(DBL_MIN) is far beyond the cap
      {1.5, 0.5, 1000, 1000},    // clamped to 1
      {0.0, 0.5, 1000, 0},       // no confidence asked: log(1) = 0
  };
  for (const Case& c : cases) {
    EXPECT_EQ(RANSACUpdateNumIters(c.p, c.ep, 4, c.max_iters), c.expected) << c.p << " " << c.ep;
  }
}

TEST(FindHomography, RecoversAPlantedHomographyAndItsInliers) {
  struct Case {
    int count;
    double outlier_share, noise, accuracy;  // accuracy: largest deviation over the frame, pixels
  };
  const Case cases[] = {{100, 0.0, 0.0, 1e-6}, {200, 0.2, 0.5, 0.3}, {200, 0.5, 0.5, 0.3},
                        {500, 0.5, 0.5, 0.2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.count << " pairs, outliers " << c.outlier_share);
    Planted p = Plant(c.count, c.outlier_share, c.noise, 21);
    rng = 0xFFFFFFFFFFFFFFFFull;
    double h[9];
    ASSERT_TRUE(findHomography(p.src, p.dst, h, 3.0, c.count));
    EXPECT_EQ(h[8], 1.0);
    EXPECT_LT(MaxDeviation(h, kTrue), c.accuracy);
    std::vector<unsigned char> mask(c.count);
    findInliers(p.src.data(), p.dst.data(), h, mask.data(), 3.0, c.count);
    EXPECT_EQ(mask, p.inlier);

    // The best four-point model of the same run takes no outlier; fitted to four noisy pairs it
    // may miss a few true inliers far from them, which the refit then recovers.
    rng = 0xFFFFFFFFFFFFFFFFull;
    std::vector<unsigned char> ransac_mask(c.count, 9);
    EXPECT_TRUE(runRANSAC(c.count, 4, p.src.data(), p.dst.data(), h, ransac_mask.data(), 3.0,
                          0.995, 1000));
    int kept = 0, planted = 0;
    for (int i = 0; i < c.count; ++i) {
      EXPECT_LE(ransac_mask[i], p.inlier[i]) << i;
      kept += ransac_mask[i];
      planted += p.inlier[i];
    }
    EXPECT_GE(kept, planted * 9 / 10);
  }
}

TEST(FindHomography, ThresholdAtOrBelowZeroMeansThree) {
  Planted p = Plant(120, 0.2, 2.0, 33);  // noise up to 2 px per axis: 1 and 3 px differ
  double h[4][9];
  const double thresholds[4] = {3.0, 0.0, -1.0, 1.0};
  for (int k = 0; k < 4; ++k) {
    rng = 99;
    ASSERT_TRUE(findHomography(p.src, p.dst, h[k], thresholds[k], 120));
  }
  EXPECT_EQ(std::memcmp(h[0], h[1], sizeof(h[0])), 0);
  EXPECT_EQ(std::memcmp(h[0], h[2], sizeof(h[0])), 0);
  EXPECT_NE(std::memcmp(h[0], h[3], sizeof(h[0])), 0);
}

TEST(FindHomography, FewOrCollinearPairs) {
  const double sentinel = -12345.0;
  double h[9];
  std::fill(h, h + 9, sentinel);
  // Collinear: no subset within 300 attempts, H untouched.
  std::vector<Point2D64f> line(10);
  for (int i = 0; i < 10; ++i) line[i] = {1.0 * i, 2.0 * i};
  EXPECT_FALSE(findHomography(line, line, h, 3.0, 10));
  // Four pairs: no subset is drawn, the kernel sees the zeroed subset buffers, no model.
  Planted four = Plant(4, 0.0, 0.0, 2);
  EXPECT_FALSE(findHomography(four.src, four.dst, h, 3.0, 4));
  for (double v : h) EXPECT_EQ(v, sentinel);
  // Five exact pairs: the refit on all five recovers the homography.
  Planted five = Plant(5, 0.0, 0.0, 2);
  EXPECT_TRUE(findHomography(five.src, five.dst, h, 3.0, 5));
  EXPECT_LT(MaxDeviation(h, kTrue), 1e-6);
}

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
  // All inliers: the iteration count drops to 0 after the first model, one subset drawn in all.
  rng = 555;
  Point2D64f s1[4], s2[4];
  getSubset(4, s1, s2, 300, Words(p.src.data()), Words(p.dst.data()), Words(s1), Words(s2), 50);
  EXPECT_EQ(rng, after);
  EXPECT_FALSE(run(50, 0));
  EXPECT_FALSE(run(3, 1000));
}

}  // namespace
