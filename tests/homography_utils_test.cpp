#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "velmora/registration.h"

namespace {

auto Edges(const Rect& r) { return std::make_tuple(r.left, r.top, r.right, r.bottom); }

TEST(Invert, ProductWithTheOriginalIsTheIdentity) {
  std::vector<std::vector<double>> cases = {
      {2, 0, 0, 0, 4, 0, 0, 0, 8},
      {1.05, -0.18, 25, 0.18, 1.05, -12, 2e-4, -1e-4, 1},
      {0.5, 0.1, -300, -0.2, 1.7, 40, 1e-3, 3e-4, 0.9},
  };
  std::mt19937 gen(4);
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  for (int k = 0; k < 10; ++k) {
    cases.emplace_back(9);
    for (double& v : cases.back()) v = u(gen);
  }
  for (std::vector<double>& h : cases) {
    double inv[9];
    invert(h.data(), inv);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) {
        double s = 0.0;
        for (int k = 0; k < 3; ++k) s += inv[r * 3 + k] * h[k * 3 + c];
        EXPECT_NEAR(s, r == c ? 1.0 : 0.0, 1e-9) << r << c;
      }
    }
  }
  // Diagonal: the exact reciprocals. Singular: no guard, non-finite values.
  double inv[9];
  invert(cases[0].data(), inv);
  EXPECT_EQ(inv[0], 0.5);
  EXPECT_EQ(inv[4], 0.25);
  EXPECT_EQ(inv[8], 0.125);
  double singular[9] = {1, 2, 3, 2, 4, 6, 0, 0, 1};
  invert(singular, inv);
  EXPECT_FALSE(std::isfinite(inv[0]));
}

TEST(DiffH, RunningSumRoundedToFloatInIndexOrder) {
  // Eight differences of 2^-25 and one of 1: added after the 1 each small one is lost to float
  // rounding; added before it they sum to 2^-22 first, which survives.
  const double tiny = std::ldexp(1.0, -25);
  double zero[9] = {}, small_last[9], small_first[9];
  for (int i = 0; i < 9; ++i) small_last[i] = small_first[i] = -tiny;  // |difference| counts
  small_last[0] = 1.0;
  small_first[8] = 1.0;
  EXPECT_EQ(diffH(small_last, zero), 1.0f);
  EXPECT_EQ(diffH(small_first, zero), 1.0f + std::ldexp(1.0f, -22));
  EXPECT_EQ(diffH(small_first, small_first), 0.0f);
  double a[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9}, b[9] = {2, 0, 3, 4.5, 5, 6, 7, 8, 19};
  EXPECT_EQ(diffH(a, b), 13.5f);
}

// hinv as a translation of the half-size grid.
struct Shift {
  double h[9];
  Shift(double tx, double ty) : h{1, 0, tx, 0, 1, ty, 0, 0, 1} {}
};

TEST(CropAndThrow, ThrowTestsAtAndPastTheirThresholds) {
  // A 641 x 481 frame: the limits are 641 / 2 = 320 and 481 / 2 = 240 (integer division), and a
  // shift of the half grid by t moves the top-left corner by 2t.
  struct Case {
    double tx, ty;
    int thrown;
    Rect expected;  // when kept
  };
  const Case cases[] = {
      {0, 0, 0, {0, 0, 641, 481}},
      {160, 0, 0, {320, 0, 641, 481}},      // 2t = 320: at the limit, kept
      {160.25, 0, 1, {}},                   // 320.5 > 320
      {0, 120, 0, {0, 240, 641, 481}},
      {0, 120.25, 1, {}},
      {10.25, 3.1, 0, {21, 7, 641, 481}},   // edges rounded inward: ceil(20.5), ceil(6.2)
      {-1000, 0, 0, {0, 0, -1359, 481}},    // never thrown to the left; right < left is kept
      {-10.25, -3.1, 0, {0, 0, 620, 474}},  // floor(641 - 20.5), floor(481 - 6.2)
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.tx << ", " << c.ty);
    Shift s(c.tx, c.ty);
    Rect r = {0, 0, 641, 481};
    EXPECT_EQ(cropAndThrow(s.h, &r, 641, 481), c.thrown);
    const Rect want = c.thrown ? Rect{0, 0, 641, 481} : c.expected;
    EXPECT_EQ(Edges(r), Edges(want));
  }
}

TEST(CropAndThrow, RectangleOnlyShrinks) {
  std::mt19937 gen(17);
  std::uniform_real_distribution<double> angle(-0.05, 0.05), shift(-40.0, 40.0), persp(-1e-4, 1e-4);
  Rect r = {0, 0, 1280, 720};
  int kept = 0;
  for (int k = 0; k < 200; ++k) {
    const double a = angle(gen);
    double h[9] = {std::cos(a), -std::sin(a), shift(gen), std::sin(a), std::cos(a), shift(gen),
                   persp(gen),  persp(gen),   1.0};
    const Rect before = r;
    if (cropAndThrow(h, &r, 1280, 720) == 0) ++kept;
    EXPECT_GE(r.left, before.left);
    EXPECT_GE(r.top, before.top);
    EXPECT_LE(r.right, before.right);
    EXPECT_LE(r.bottom, before.bottom);
  }
  EXPECT_GT(kept, 100);
  EXPECT_GT(r.left, 0);
  EXPECT_LT(r.right, 1280);
}

}  // namespace
