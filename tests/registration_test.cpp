#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"
#include "velmora/features.h"
#include "velmora/homography.h"
#include "velmora/registration.h"
#include "velmora/yuv.h"

namespace {

// Keypoints and their descriptors; frees the descriptor blocks, which the toolkit leaves to us.
struct Features {
  std::vector<Pointf> keypoints;
  std::vector<float*> descriptors;
  Features() = default;
  Features(const Features&) = delete;
  ~Features() {
    for (float* d : descriptors) std::free(d);
  }
};

// What a call writes on std::cout.
class CoutCapture {
 public:
  CoutCapture() : old_(std::cout.rdbuf(text_.rdbuf())) {}
  ~CoutCapture() { std::cout.rdbuf(old_); }
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* old_;
};

Point2D64f Apply(const double* h, double x, double y) {
  const double w = h[6] * x + h[7] * y + h[8];
  return {(h[0] * x + h[1] * y + h[2]) / w, (h[3] * x + h[4] * y + h[5]) / w};
}

// Largest distance between where two homographies send the points of a grid over w x h.
double MaxDeviation(const double* a, const double* b, int w, int h) {
  double worst = 0.0;
  for (int y = 0; y <= h; y += h / 8) {
    for (int x = 0; x <= w; x += w / 8) {
      const Point2D64f p = Apply(a, x, y), q = Apply(b, x, y);
      worst = std::max(worst, std::hypot(p.x - q.x, p.y - q.y));
    }
  }
  return worst;
}

// frame(q) = reference(g(q)): luma bilinear, chroma pairs nearest; outside the reference, 0.
std::vector<uint8_t> Resample(const std::vector<uint8_t>& ref, const double* g, int w, int h) {
  std::vector<uint8_t> out(ref.size(), 0);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const Point2D64f s = Apply(g, x, y);
      const int x0 = static_cast<int>(std::floor(s.x)), y0 = static_cast<int>(std::floor(s.y));
      if (x0 < 0 || y0 < 0 || x0 + 1 >= w || y0 + 1 >= h) continue;
      const double fx = s.x - x0, fy = s.y - y0;
      auto at = [&](int xx, int yy) { return static_cast<double>(ref[size_t(yy) * w + xx]); };
      const double v = (1 - fy) * ((1 - fx) * at(x0, y0) + fx * at(x0 + 1, y0)) +
                       fy * ((1 - fx) * at(x0, y0 + 1) + fx * at(x0 + 1, y0 + 1));
      out[size_t(y) * w + x] = static_cast<uint8_t>(v + 0.5);
      if (x % 2 == 0 && y % 2 == 0) {
        const size_t from = size_t(w) * h + size_t(y0 / 2) * w + (x0 & ~1);
        const size_t to = size_t(w) * h + size_t(y / 2) * w + x;
        out[to] = ref[from];
        out[to + 1] = ref[from + 1];
      }
    }
  }
  return out;
}

// Features of the frame's half-size luma, as a camera app computes them.
void FeaturesOf(std::vector<uint8_t>& frame, int w, int h, Features* f) {
  std::vector<uint8_t> half(size_t(w / 2) * (h / 2));
  NV12AvgScaling(frame.data(), half.data(), w, h, w / 2, h / 2);
  calImageFeatures(half.data(), f->keypoints, f->descriptors, w / 2, h / 2);
}

double MeanAbsDiff(const uint8_t* a, const uint8_t* b, int w, const Rect& r) {
  double sum = 0.0;
  long n = 0;
  for (int y = r.top + 8; y < r.bottom - 8; ++y) {
    for (int x = r.left + 8; x < r.right - 8; ++x, ++n) {
      sum += std::abs(int(a[size_t(y) * w + x]) - int(b[size_t(y) * w + x]));
    }
  }
  return sum / static_cast<double>(n);
}

TEST(ImageRegistration, BringsAWarpedFrameBackOntoTheReference) {
  constexpr int kW = 1920, kH = 1080;
  std::vector<uint8_t> ref = testutil::TexturedImage(kW, kH, 11);
  const std::vector<uint8_t> chroma = testutil::RandomBytes(size_t(kW) * kH / 2, 12);
  ref.insert(ref.end(), chroma.begin(), chroma.end());
  // The camera turned by 0.4 degrees and moved by (5.5, -3.25) pixels: frame(q) = ref(g(q)).
  const double c = std::cos(0.4 * M_PI / 180), s = std::sin(0.4 * M_PI / 180);
  double g[9] = {c, -s, 5.5, s, c, -3.25, 0, 0, 1};
  std::vector<uint8_t> frame = Resample(ref, g, kW, kH);

  // The frame is set A, the reference set B: the estimate maps reference (destination) points
  // to frame (source) positions on the half-size grid, i.e. the inverse of g, halved.
  Features a, b;
  FeaturesOf(frame, kW, kH, &a);
  FeaturesOf(ref, kW, kH, &b);
  double full[9], truth[9];
  invert(g, full);
  const double half[9] = {full[0],     full[1],     full[2] / 2, full[3], full[4],
                          full[5] / 2, full[6] * 2, full[7] * 2, full[8]};
  std::copy(half, half + 9, truth);

  const uint64_t seed = rng;
  double H[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  Rect rect{0, 0, kW, kH};
  char thrown = 0;
  std::vector<uint8_t> dst(frame.size(), 0);
  CoutCapture out;
  imageRegistration(frame.data(), dst.data(), a.descriptors, b.descriptors, a.keypoints,
                    b.keypoints, kW, kH, &thrown, &rect, H);
  const std::string printed = out.text();
  ASSERT_EQ(thrown, 0);
  // Some fifty corners give eight pairs of integer points: the estimate strays most at the far
  // corners of the grid, by up to about two half-grid pixels.
  EXPECT_LT(MaxDeviation(H, truth, kW / 2, kH / 2), 2.5);

  // The crop of the true motion, give or take a pixel per edge.
  double inv_truth[9];
  invert(truth, inv_truth);
  Rect expected{0, 0, kW, kH};
  ASSERT_EQ(cropAndThrow(inv_truth, &expected, kW, kH), 0);
  EXPECT_GT(expected.left, 0);
  EXPECT_LT(expected.bottom, kH);
  EXPECT_NEAR(rect.left, expected.left, 2);
  EXPECT_NEAR(rect.top, expected.top, 2);
  EXPECT_NEAR(rect.right, expected.right, 2);
  EXPECT_NEAR(rect.bottom, expected.bottom, 2);
  // Inside it the warped frame is much closer to the reference than the frame itself.
  EXPECT_LT(MeanAbsDiff(dst.data(), ref.data(), kW, rect),
            0.6 * MeanAbsDiff(frame.data(), ref.data(), kW, rect));

  // Printed: the accepted estimate's first eight coefficients, then its jump from the identity.
  std::istringstream lines(printed);
  std::string row, jump;
  std::getline(lines, row);
  std::getline(lines, jump);
  for (char& ch : row) ch = ch == ',' ? ' ' : ch;
  std::istringstream values(row);
  for (int i = 0; i < 8; ++i) {
    double v = 0;
    ASSERT_TRUE(values >> v) << printed;
    EXPECT_NEAR(v, H[i], 1e-5 * std::max(1.0, std::abs(H[i]))) << i;
  }
  double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  std::ostringstream expected_jump;
  expected_jump << "** : " << diffH(identity, H);
  EXPECT_EQ(jump, expected_jump.str());

  // The planes-apart variant does the same work, silently.
  rng = seed;
  double H1[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  Rect rect1{0, 0, kW, kH};
  std::vector<uint8_t> dst1(frame.size(), 0);
  CoutCapture silent;
  imageRegistration_1(frame.data(), frame.data() + kW * kH, dst1.data(), dst1.data() + kW * kH,
                      a.descriptors, b.descriptors, a.keypoints, b.keypoints, kW, kH, &thrown,
                      &rect1, H1);
  EXPECT_EQ(silent.text(), "");
  EXPECT_TRUE(std::equal(H, H + 9, H1));
  EXPECT_EQ(dst1, dst);
}

TEST(ImageRegistration, ThrownFramesLeaveEverythingAsItWas) {
  // Synthetic sets on a 200 x 200 frame (a 100 x 100 half grid): n distinct descriptors, A's
  // keypoints those of B moved by (dx, 0), so the estimate is a shift of dx.
  struct Case {
    const char* what;
    int n;
    double dx;
    double previous_h2;
    bool thrown;
    Rect rect;  // expected when kept
  };
  const Case cases[] = {
      {"27 matches: thrown unestimated", 27, 0, 0, true, {}},
      // Four pairs never give a model; the buffer's filling then fails the jump test.
      {"30 matches, four pairs: no estimate", 30, 0, 0, true, {}},
      {"jump of exactly 80 passes", 40, 0, 80.0, false, {0, 0, 200, 200}},
      {"jump just above 80", 40, 0, 80.0001, true, {}},
      {"shift of 60 half pixels: top-left moves 120 > 100", 40, -60, -60, true, {}},
      {"shift of 40 half pixels: kept, cropped", 40, -40, -40, false, {80, 0, 200, 200}},
  };
  constexpr int kW = 200, kH = 200;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::mt19937 gen(5);
    std::uniform_real_distribution<float> value(0.0f, 255.0f);
    std::uniform_int_distribution<int> coord(0, 99);
    Features b;
    std::vector<Pointf> moved;
    for (int i = 0; i < c.n; ++i) {
      float* d = static_cast<float*>(std::malloc(64 * sizeof(float)));
      for (int k = 0; k < 64; ++k) d[k] = value(gen);
      b.descriptors.push_back(d);
      b.keypoints.push_back({coord(gen), coord(gen)});
      moved.push_back({b.keypoints.back().x + static_cast<int>(c.dx), b.keypoints.back().y});
    }
    std::vector<float*> same = b.descriptors;  // A's descriptors are B's

    double H[9] = {1, 0, c.previous_h2, 0, 1, 0, 0, 0, 1};
    const std::vector<double> before(H, H + 9);
    Rect rect{0, 0, kW, kH};
    std::vector<uint8_t> src = testutil::RandomBytes(kW * kH * 3 / 2, 6);
    std::vector<uint8_t> dst(src.size(), 0x5A);
    char thrown = 0;
    CoutCapture out;
    imageRegistration(src.data(), dst.data(), same, b.descriptors, moved, b.keypoints, kW, kH,
                      &thrown, &rect, H);
    EXPECT_EQ(thrown, c.thrown ? 1 : 0);
    EXPECT_EQ(out.text().empty(), c.n < 28);
    if (c.thrown) {
      EXPECT_EQ(std::vector<double>(H, H + 9), before);
      EXPECT_EQ(rect.left, 0);
      EXPECT_EQ(rect.top, 0);
      EXPECT_EQ(rect.right, kW);
      EXPECT_EQ(rect.bottom, kH);
      EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](uint8_t v) { return v == 0x5A; }));
    } else {
      EXPECT_NEAR(H[2], c.dx, 1e-6);
      EXPECT_NEAR(H[0], 1.0, 1e-9);
      EXPECT_EQ(rect.left, c.rect.left);
      EXPECT_EQ(rect.right, c.rect.right);
      EXPECT_FALSE(std::all_of(dst.begin(), dst.end(), [](uint8_t v) { return v == 0x5A; }));
    }
    // The frame without an estimate prints what the driver judged: the filling of 1e9.
    if (c.n == 30) {
      EXPECT_EQ(out.text(),
                "1e+09, 1e+09, 1e+09, 1e+09, 1e+09, 1e+09, 1e+09, 1e+09\n** : 9e+09\n");
    }
    // A good frame after a thrown one does not clear the flag.
    if (!c.thrown) {
      thrown = 1;
      imageRegistration_1(src.data(), src.data() + kW * kH, dst.data(), dst.data() + kW * kH,
                          same, b.descriptors, moved, b.keypoints, kW, kH, &thrown, &rect, H);
      EXPECT_EQ(thrown, 1);
    }
  }
}

}  // namespace
