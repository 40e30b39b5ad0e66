#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <algorithm>
#include <random>
#include <vector>

#include "velmora/homography.h"

namespace {

// Rotation by 10 degrees, scale 1.1, a shift, and a mild perspective.
const double kRotScalePersp[9] = {1.1 * std::cos(0.17453292519943295),
                                  -1.1 * std::sin(0.17453292519943295),
                                  25.0,
                                  1.1 * std::sin(0.17453292519943295),
                                  1.1 * std::cos(0.17453292519943295),
                                  -12.0,
                                  2e-4,
                                  -1e-4,
                                  1.0};
const double kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

Point2D64f Apply(const double* h, Point2D64f p) {
  const double w = h[6] * p.x + h[7] * p.y + h[8];
  return {(h[0] * p.x + h[1] * p.y + h[2]) / w, (h[3] * p.x + h[4] * p.y + h[5]) / w};
}

// Largest distance between where two homographies send the points of a 640x480 grid.
double MaxDeviation(const double* a, const double* b) {
  double worst = 0.0;
  for (int y = 0; y <= 480; y += 40) {
    for (int x = 0; x <= 640; x += 40) {
      const Point2D64f p = Apply(a, {double(x), double(y)}), q = Apply(b, {double(x), double(y)});
      worst = std::max(worst, std::hypot(p.x - q.x, p.y - q.y));
    }
  }
  return worst;
}

// Pairs under kRotScalePersp: destination noise uniform in +-noise per axis; a share of the pairs
// replaced by gross outliers displaced 20 to 200 pixels from their true position.
struct Planted {
  std::vector<Point2D64f> src, dst;
  std::vector<unsigned char> inlier;
};
Planted Plant(int count, double outlier_share, double noise, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> px(0.0, 640.0), py(0.0, 480.0), jitter(-noise, noise);
  std::uniform_real_distribution<double> far(20.0, 200.0), angle(0.0, 6.283185307179586);
  Planted p;
  const int outliers = static_cast<int>(count * outlier_share);
  for (int i = 0; i < count; ++i) {
    const Point2D64f s = {px(gen), py(gen)};
    Point2D64f d = Apply(kRotScalePersp, s);
    d.x += jitter(gen);
    d.y += jitter(gen);
    p.src.push_back(s);
    p.dst.push_back(d);
    p.inlier.push_back(1);
  }
  // Outliers spread over the set, not bunched at its start.
  std::vector<int> order(count);
  for (int i = 0; i < count; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), gen);
  for (int k = 0; k < outliers; ++k) {
    const int i = order[k];
    const double r = far(gen), a = angle(gen);
    p.dst[i].x += r * std::cos(a);
    p.dst[i].y += r * std::sin(a);
    p.inlier[i] = 0;
  }
  return p;
}

TEST(RunKernel, FitsExactPairsAndPassesDegenerateInputThrough) {
  struct Case {
    const double* h;
    int count;
  };
  for (const Case c : {Case{kIdentity, 4}, Case{kRotScalePersp, 4}, Case{kRotScalePersp, 60}}) {
    SCOPED_TRACE(c.count);
    Planted p = Plant(c.count, 0.0, 0.0, 3);
    std::vector<Point2D64f> dst = p.src;
    for (auto& d : dst) d = Apply(c.h, d);
    double h[9];
    EXPECT_EQ(runKernel(c.count, p.src.data(), dst.data(), h), 1);
    EXPECT_EQ(h[8], 1.0);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(h[i], c.h[i], 1e-9 * (1.0 + std::abs(c.h[i]))) << i;
  }
  // All points on one vertical line: an infinite scale factor, a NaN result, still 1.
  Point2D64f line[5] = {{3, 0}, {3, 1}, {3, 5}, {3, 9}, {3, 12}};
  double h[9];
  EXPECT_EQ(runKernel(5, line, line, h), 1);
  EXPECT_TRUE(std::isnan(h[0]));
}

// Fills the n x n top-left of a stride-9 buffer; the rest holds a sentinel that a solver using
// stride n would read as matrix entries.
std::vector<double> Stride9(int n, const std::vector<double>& values) {
  std::vector<double> a(81, 1e6);
  for (int r = 0; r < n; ++r) {
    for (int c = 0; c < n; ++c) a[r * 9 + c] = values[r * n + c];
  }
  return a;
}

TEST(Jacobi, EigenpairsOfRandomSymmetricMatrices) {
  std::mt19937 gen(11);
  std::uniform_real_distribution<double> u(-10.0, 10.0);
  for (int trial = 0; trial < 25; ++trial) {
    double a[81], w[9], v[81];
    for (int r = 0; r < 9; ++r) {
      for (int c = r; c < 9; ++c) a[r * 9 + c] = a[c * 9 + r] = u(gen);
    }
    double copy[81];
    std::memcpy(copy, a, sizeof(a));
    ASSERT_TRUE(JacobiImpl_<double>(copy, w, v, 9));
    for (int i = 0; i < 9; ++i) {
      if (i > 0) {
        EXPECT_GE(w[i - 1], w[i]);
      }
      double norm = 0.0;
      for (int c = 0; c < 9; ++c) norm += v[i * 9 + c] * v[i * 9 + c];
      EXPECT_NEAR(norm, 1.0, 1e-12);
      for (int r = 0; r < 9; ++r) {
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
    int n;
    std::vector<double> diagonal;
    std::vector<int> unit_of_row;  // which unit vector each sorted row is
  };
  const Case cases[] = {{3, {1, 5, 5}, {1, 2, 0}},
                        {3, {5, 5, 1}, {0, 1, 2}},
                        {4, {1, 2, 1, 3}, {3, 1, 2, 0}}};
  for (const Case& c : cases) {
    std::vector<double> full(c.n * c.n, 0.0);
    for (int i = 0; i < c.n; ++i) full[i * c.n + i] = c.diagonal[i];
    std::vector<double> a = Stride9(c.n, full), v(81, -7.0);
    const std::vector<double> before = a;
    double w[9];
    ASSERT_TRUE(JacobiImpl_<double>(a.data(), w, v.data(), c.n));
    EXPECT_EQ(a, before);  // nothing above eps off the diagonal: no rotation at all
    for (int r = 0; r < c.n; ++r) {
      EXPECT_EQ(w[r], c.diagonal[c.unit_of_row[r]]);
      for (int k = 0; k < c.n; ++k) EXPECT_EQ(v[r * 9 + k], k == c.unit_of_row[r] ? 1.0 : 0.0);
      EXPECT_EQ(v[r * 9 + c.n], -7.0);  // beyond the order: untouched
    }
  }
}

// The generator's rule, written out: low word times 0xF83F630A plus the high word.
uint64_t Mwc(uint64_t s) { return (s & 0xFFFFFFFFu) * 0xF83F630Aull + (s >> 32); }

// Points whose x is their index, so that a one-point subset tells which index was drawn.
std::vector<Point2D64f> Numbered(int count) {
  std::vector<Point2D64f> p(count);
  for (int i = 0; i < count; ++i) p[i] = {double(i), 0.5 * i * i};
  return p;
}

int DrawOne(std::vector<Point2D64f>& pts) {
  Point2D64f s1, s2;
  auto* words = reinterpret_cast<int*>(pts.data());
  EXPECT_TRUE(getSubset(1, &s1, &s2, 1, words, words, reinterpret_cast<int*>(&s1),
                        reinterpret_cast<int*>(&s2), static_cast<int>(pts.size())));
  return static_cast<int>(s1.x);
}

TEST(Generator, MultiplyWithCarryFromAllOnesNeverReseeded) {
  rng = 0xFFFFFFFFFFFFFFFFull;
  std::vector<Point2D64f> ten = Numbered(10), seven = Numbered(7);
  EXPECT_EQ(DrawOne(ten), 5);
  EXPECT_EQ(rng, 0xF83F630A07C09CF5ull);
  uint64_t s = rng;
  for (int k = 0; k < 20; ++k) {
    s = Mwc(s);
    auto& set = k % 2 ? ten : seven;
    EXPECT_EQ(DrawOne(set), static_cast<int>(static_cast<uint32_t>(s) % set.size())) << k;
  }
  EXPECT_EQ(rng, s);

  // findHomography continues from wherever the state stands.
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
  rng = 77;
  std::vector<Point2D64f> pts = Numbered(6);
  auto* words = reinterpret_cast<int*>(pts.data());
  Point2D64f s1[4], s2[4];
  auto* w1 = reinterpret_cast<int*>(s1);
  auto* w2 = reinterpret_cast<int*>(s2);
  for (int k = 0; k < 50; ++k) {
    ASSERT_TRUE(getSubset(4, s1, s2, 300, words, words, w1, w2, 6));
    for (int i = 0; i < 4; ++i) {
      for (int j = 0; j < i; ++j) EXPECT_NE(s1[i].x, s1[j].x);
    }
  }

  // On a line every subset fails; one call of n attempts draws as much as n calls of one.
  std::vector<Point2D64f> line(12);
  for (int i = 0; i < 12; ++i) line[i] = {2.0 * i, 3.0 * i + 1.0};
  auto* lw = reinterpret_cast<int*>(line.data());
  for (const int attempts : {1, 2, 300}) {
    rng = 4242;
    EXPECT_FALSE(getSubset(4, s1, s2, attempts, lw, lw, w1, w2, 12));
    const uint64_t one_call = rng;
    rng = 4242;
    for (int k = 0; k < attempts; ++k) getSubset(4, s1, s2, 1, lw, lw, w1, w2, 12);
    EXPECT_EQ(one_call, rng) << attempts;
  }
  rng = 4242;
  EXPECT_FALSE(getSubset(4, s1, s2, 0, lw, lw, w1, w2, 12));
  EXPECT_EQ(rng, 4242u);  // no budget, no draw

  checkPartialSubsets = true;
  EXPECT_TRUE(getSubset(4, s1, s2, 1, lw, lw, w1, w2, 12));
  checkPartialSubsets = false;
}

TEST(CheckSubset, CollinearWithinSinglePrecisionEpsilon) {
  // A right isosceles triangle with legs L: |cross| = L^2 against 2L * 2^-23, so it counts as
  // collinear exactly up to L = 2^-22 (the comparison is inclusive).
  const double edge = std::ldexp(1.0, -22);
  struct Case {
    double leg;
    bool distinct;
  };
  for (const Case c : {Case{edge, false}, Case{edge * (1 + 1.0 / 1024), true}, Case{1.0, true},
                       Case{edge / 2, false}}) {
    Point2D64f tri[3] = {{c.leg, 0.0}, {0.0, c.leg}, {0.0, 0.0}};
    EXPECT_EQ(checkSubset(tri, 3), c.distinct) << c.leg;
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
  // Identity model, threshold 3: the squared error against 9 after rounding to float.
  struct Case {
    double dx;
    unsigned char inlier;
  };
  const Case cases[] = {{3.0, 1}, {3.0 + 1e-9, 1}, {3.000001, 0}, {2.0, 1}, {-3.0, 1}, {5.0, 0}};
  for (const Case& c : cases) {
    Point2D64f a = {10.0, 20.0}, b = {10.0 + c.dx, 20.0};
    double h[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    unsigned char mask = 9;
    EXPECT_EQ(findInliers(&a, &b, h, &mask, 3.0, 1), c.inlier) << c.dx;
    EXPECT_EQ(mask, c.inlier);
  }

  // Errors of a perspective model against an independent projection; H[8] is not read.
  Planted p = Plant(30, 0.3, 0.0, 9);
  double h[9];
  std::memcpy(h, kRotScalePersp, sizeof(h));
  std::vector<float> err(30), err_h8(30);
  computeReprojError(p.src.data(), p.dst.data(), h, err.data(), 30);
  h[8] = 7.0;
  computeReprojError(p.src.data(), p.dst.data(), h, err_h8.data(), 30);
  EXPECT_EQ(err, err_h8);
  for (int i = 0; i < 30; ++i) {
    const Point2D64f q = Apply(kRotScalePersp, p.src[i]);
    const double d2 = std::pow(q.x - p.dst[i].x, 2) + std::pow(q.y - p.dst[i].y, 2);
    EXPECT_NEAR(err[i], d2, 1e-6 * d2 + 1e-9) << i;
  }
}

TEST(RansacIterations, UpdateFigures) {
  struct Case {
    double p, ep;
    int model_points, max_iters, expected;
  };
  const Case cases[] = {
      {0.995, 0.5, 4, 1000, 82},    // round(log(0.005) / log(1 - 0.5^4))
      {0.995, 0.0, 4, 1000, 0},     // every point an inlier
      {0.995, -0.5, 4, 1000, 0},    // clamped to 0
      {0.995, 0.35, 4, 1000, 27},   // 26.95 rounds up
      {0.995, 0.1, 4, 1000, 5},     // 4.96
      {0.995, 0.2, 4, 1000, 10},    // 10.05 rounds down
      {0.995, 0.5, 4, 50, 50},      // capped by the current count
      {0.995, 0.9, 4, 1000, 1000},  // 52980 needed
      {0.995, 1.0, 4, 1000, 1000},  // no inlier at all: log(1) = 0
      {1.0, 0.5, 4, 1000, 1000},    // certainty: log(DBL_MIN) is far below the cap
      {1.5, 0.5, 4, 1000, 1000},    // clamped to 1
      {0.0, 0.5, 4, 1000, 0},       // no confidence asked: log(1) = 0
  };
  for (const Case& c : cases) {
    EXPECT_EQ(RANSACUpdateNumIters(c.p, c.ep, c.model_points, c.max_iters), c.expected)
        << c.p << " " << c.ep << " " << c.max_iters;
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
    EXPECT_LT(MaxDeviation(h, kRotScalePersp), c.accuracy);
    std::vector<unsigned char> mask(c.count);
    findInliers(p.src.data(), p.dst.data(), h, mask.data(), 3.0, c.count);
    EXPECT_EQ(mask, p.inlier);

    // The best four-point model of the same run takes no outlier; fitted to four noisy pairs it
    // may miss a few true inliers far from them, which the refit then recovers.
    rng = 0xFFFFFFFFFFFFFFFFull;
    double model[9];
    std::vector<unsigned char> ransac_mask(c.count, 9);
    EXPECT_TRUE(runRANSAC(c.count, 4, p.src.data(), p.dst.data(), model, ransac_mask.data(), 3.0,
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
  // Collinear: no subset within 300 attempts, H untouched.
  std::vector<Point2D64f> line(10);
  for (int i = 0; i < 10; ++i) line[i] = {1.0 * i, 2.0 * i};
  double h[9];
  std::fill(h, h + 9, sentinel);
  EXPECT_FALSE(findHomography(line, line, h, 3.0, 10));
  for (double v : h) EXPECT_EQ(v, sentinel);

  // Four pairs: no subset is drawn, the kernel sees the zeroed subset buffers and finds no model.
  Planted four = Plant(4, 0.0, 0.0, 2);
  EXPECT_FALSE(findHomography(four.src, four.dst, h, 3.0, 4));
  for (double v : h) EXPECT_EQ(v, sentinel);

  // Five exact pairs: the refit on all five recovers the homography.
  Planted five = Plant(5, 0.0, 0.0, 2);
  EXPECT_TRUE(findHomography(five.src, five.dst, h, 3.0, 5));
  EXPECT_LT(MaxDeviation(h, kRotScalePersp), 1e-6);
}

TEST(RunRansac, ExactPairsStopAfterOneModelAndHandOverNineBytes) {
  Planted p = Plant(50, 0.0, 0.0, 8);
  unsigned char model[72];
  std::memset(model, 0xAB, sizeof(model));
  std::vector<unsigned char> mask(50, 0);
  rng = 555;
  ASSERT_TRUE(runRANSAC(50, 4, p.src.data(), p.dst.data(), reinterpret_cast<double*>(model),
                        mask.data(), 3.0, 0.995, 1000));
  const uint64_t after = rng;
  EXPECT_EQ(mask, std::vector<unsigned char>(50, 1));
  double first;
  std::memcpy(&first, model, sizeof(first));
  EXPECT_NEAR(first, kRotScalePersp[0], 1e-9);
  for (size_t i = 9; i < sizeof(model); ++i) EXPECT_EQ(model[i], 0xAB) << i;

  // All inliers: the iteration count drops to 0 after the first model, one subset drawn in all.
  rng = 555;
  Point2D64f s1[4], s2[4];
  auto* words1 = reinterpret_cast<int*>(p.src.data());
  auto* words2 = reinterpret_cast<int*>(p.dst.data());
  getSubset(4, s1, s2, 300, words1, words2, reinterpret_cast<int*>(s1),
            reinterpret_cast<int*>(s2), 50);
  EXPECT_EQ(rng, after);

  EXPECT_FALSE(runRANSAC(50, 4, p.src.data(), p.dst.data(), reinterpret_cast<double*>(model),
                         mask.data(), 3.0, 0.995, 0));
  EXPECT_FALSE(runRANSAC(3, 4, p.src.data(), p.dst.data(), reinterpret_cast<double*>(model),
                         mask.data(), 3.0, 0.995, 1000));
}

}  // namespace
