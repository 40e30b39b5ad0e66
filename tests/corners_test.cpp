// The corner detector: corners where synthetic scenes have them, the spacing and limit rules,
// the cases that yield nothing, the output against the rule composed from the exported
// primitives, and the vector kernels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "kernel_conformance.h"
#include "registration/corners.h"
#include "test_util.h"
#include "velmora/features.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

using Image = std::vector<uint8_t>;

std::vector<Pointf> Detect(Image img, int w, int h, int minDistance, int maxCorners = 0,
                           double quality = 0.01, int blockSize = 3) {
  std::vector<Pointf> corners;
  goodFeaturesToTrack(img.data(), corners, w, h, maxCorners, quality, minDistance, blockSize);
  return corners;
}

bool Same(const Pointf& a, const Pointf& b) { return a.x == b.x && a.y == b.y; }

TEST(Corners, FoundAtTheFourCornersOfARectangle) {
  const int w = 40, h = 30;
  Image rect(w * h, 0);
  for (int y = 8; y < 20; ++y) std::fill(&rect[y * w + 6], &rect[y * w + 30], 200);
  std::vector<Pointf> found = Detect(rect, w, h, 5);
  ASSERT_EQ(found.size(), 4u);
  for (const Pointf& c : {Pointf{6, 8}, Pointf{29, 8}, Pointf{6, 19}, Pointf{29, 19}}) {
    EXPECT_EQ(std::count_if(found.begin(), found.end(), [&](Pointf p) { return Same(p, c); }), 1);
  }
}

// Single bright pixels peak on themselves, the brighter one stronger: at distance 10 (in the
// next grid cell or the same one) both are kept, one unit closer only the brighter.
TEST(Corners, KeepExactlyMinDistanceAndDropTheWeakerWhenCloser) {
  const int w = 40, h = 30;
  const struct {
    int bx, by;
    size_t kept;
  } cases[] = {{20, 10, 2}, {19, 10, 1}, {16, 18, 2}, {16, 17, 1}, {4, 2, 2}, {4, 3, 1}};
  for (const auto& c : cases) {
    Image img(w * h, 0);
    img[10 * w + 10] = 255;
    img[c.by * w + c.bx] = 200;
    const std::vector<Pointf> found = Detect(img, w, h, 10);
    ASSERT_EQ(found.size(), c.kept) << c.bx << "," << c.by;
    EXPECT_TRUE(Same(found[0], Pointf{10, 10}));
  }
}

TEST(Corners, NoneOnFlatOrTinyImagesOrWithoutAPositiveDistance) {
  EXPECT_TRUE(Detect(Image(40 * 30, 77), 40, 30, 5).empty());
  for (const auto& [w, h] : {std::pair<int, int>{2, 50}, {50, 2}, {1, 1}}) {
    EXPECT_TRUE(Detect(testutil::TexturedImage(w, h, 1), w, h, 1).empty());
  }
  const Image scene = testutil::TexturedImage(64, 48, 2);
  ASSERT_FALSE(Detect(scene, 64, 48, 1).empty());
  EXPECT_TRUE(Detect(scene, 64, 48, 0).empty());
  EXPECT_TRUE(Detect(scene, 64, 48, -3).empty());
}

TEST(Corners, MaxCornersCutsTheStrongestPrefixAndZeroOrLessMeansNoLimit) {
  const Image scene = testutil::TexturedImage(96, 64, 3);
  const std::vector<Pointf> all = Detect(scene, 96, 64, 4);
  ASSERT_GT(all.size(), 10u);
  for (int limit : {0, -1}) EXPECT_EQ(Detect(scene, 96, 64, 4, limit).size(), all.size());
  // Appended, not cleared.
  std::vector<Pointf> corners{{-1, -2}};
  Image copy = scene;
  goodFeaturesToTrack(copy.data(), corners, 96, 64, 3, 0.01, 4, 3);
  ASSERT_EQ(corners.size(), 4u);
  EXPECT_EQ(corners[0].x, -1);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(Same(corners[i + 1], all[i]));
  // The sort's comparator is strict.
  EXPECT_TRUE(greaterThanPtr({0, 0, 2.0f}, {5, 5, 1.0f}));
  EXPECT_FALSE(greaterThanPtr({0, 0, 1.0f}, {5, 5, 1.0f}));
}

// The candidates of the rule, composed from the exported primitives with full-size maps: the
// responses of the 3x3 local maxima above the quality threshold, by position.
std::map<std::pair<int, int>, float> Candidates(Image img, int w, int h, double quality,
                                                int blockSize) {
  const size_t n = static_cast<size_t>(w) * h;
  std::vector<int> dx(n, 0), dy(n, 0);
  sobel(img.data(), dx.data(), dy.data(), w, h);
  std::vector<float> xx(n), xy(n), yy(n), response(n, 0.0f), dilated(n, 0.0f);
  const double s = 1.0 / (blockSize * 4.0 * 255.0), scale = s * s;
  for (size_t i = 0; i < n; ++i) {
    xx[i] = static_cast<float>(scale * dx[i] * dx[i]);
    xy[i] = static_cast<float>(scale * dx[i] * dy[i]);
    yy[i] = static_cast<float>(scale * dy[i] * dy[i]);
  }
  medblur(nullptr, xx.data(), xy.data(), yy.data(), w, h, response.data());
  const float cut = static_cast<float>(*std::max_element(response.begin(), response.end()) * quality);
  for (float& r : response) r = r <= cut ? 0.0f : r;
  dilate(response.data(), dilated.data(), w, h);
  std::map<std::pair<int, int>, float> out;
  for (int y = 1; y < h - 1; ++y) {
    for (int x = 1; x < w - 1; ++x) {
      const float r = response[size_t(y) * w + x];
      if (r != 0 && r == dilated[size_t(y) * w + x]) out[{x, y}] = r;
    }
  }
  return out;
}

// Every corner is a candidate, strongest first, at least minDistance from the others, and every
// candidate left out lies closer than minDistance to a corner at least as strong.
TEST(Corners, OutputIsTheGreedySpacingOfTheRulesCandidates) {
  const struct {
    int w, h, minDistance, blockSize;
    double quality;
  } cases[] = {{97, 61, 7, 3, 0.01}, {160, 120, 15, 5, 0.05}, {33, 200, 3, 3, 0.001}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h);
    const Image img = testutil::TexturedImage(c.w, c.h, c.w);
    const auto candidates = Candidates(img, c.w, c.h, c.quality, c.blockSize);
    const auto corners = Detect(img, c.w, c.h, c.minDistance, 0, c.quality, c.blockSize);
    ASSERT_GT(corners.size(), 5u);
    const auto near = [&](const Pointf& a, const Pointf& b) {
      const int64_t dx = a.x - b.x, dy = a.y - b.y;
      return dx * dx + dy * dy < int64_t{c.minDistance} * c.minDistance;
    };
    float previous = INFINITY;
    for (size_t i = 0; i < corners.size(); ++i) {
      const auto it = candidates.find({corners[i].x, corners[i].y});
      ASSERT_NE(it, candidates.end()) << corners[i].x << "," << corners[i].y;
      EXPECT_LE(it->second, previous);
      previous = it->second;
      for (size_t j = 0; j < i; ++j) EXPECT_FALSE(near(corners[i], corners[j]));
    }
    for (const auto& [at, response] : candidates) {
      const Pointf p{at.first, at.second};
      EXPECT_TRUE(std::any_of(corners.begin(), corners.end(), [&](const Pointf& q) {
        return near(p, q) ? candidates.at({q.x, q.y}) >= response : Same(p, q);
      })) << p.x << "," << p.y;
    }
  }
}

struct CornerCase {
  int width, height;
  std::vector<int32_t> dx, dy;
  std::vector<float> response, dilated;
  double scale;
  float threshold;
  Image scene;
};

// Derivatives mostly in their range and sometimes any int32; scales of the usual block sizes,
// of none (infinite) and zero; a dilated plane equal to the response in many places; a scene for
// the whole detector, taller than the harness's rows so that the interior has some.
struct CornerFamily {
  static constexpr const char* kName = "Corners";
  using Kernels = CornerKernels;
  using Case = CornerCase;
  static const Kernels& For(Isa isa) { return CornerKernelsFor(isa); }

  static CornerCase Make(int w, int h, uint32_t seed) {
    std::mt19937 rng(seed);
    const size_t n = static_cast<size_t>(w) * h;
    CornerCase c{w, h, std::vector<int32_t>(n), std::vector<int32_t>(n),
                 testutil::RandomFloats(n, seed, 8), {}, 0.0, 0.0f, {}};
    for (size_t i = 0; i < n; ++i) {
      c.dx[i] = rng() % 8 ? static_cast<int32_t>(rng() % 2041) - 1020 : static_cast<int32_t>(rng());
      c.dy[i] = rng() % 8 ? static_cast<int32_t>(rng() % 2041) - 1020 : static_cast<int32_t>(rng());
    }
    c.dilated = c.response;
    const std::vector<float> other = testutil::RandomFloats(n, seed + 1, 4);
    for (size_t i = 0; i < n; ++i) {
      if (rng() % 3 == 0) c.dilated[i] = other[i];
    }
    const double s3 = 1.0 / (3 * 4.0 * 255.0), s7 = 1.0 / (7 * 4.0 * 255.0);
    const double scales[] = {s3 * s3, s7 * s7, INFINITY, 0.0};
    c.scale = scales[rng() % 4];
    c.threshold = rng() % 4 == 0 ? -1.0f : static_cast<float>(rng() % 3);
    c.scene = testutil::TexturedImage(w, h * 7, seed);
    return c;
  }

  static std::vector<uint8_t> Run(const Kernels& k, const CornerCase& c) {
    const size_t n = c.dx.size(), w = c.width;
    std::vector<float> xx(n), xy(n), yy(n), cut = c.response, maxima;
    std::vector<int32_t> peaks, xs(w);
    for (size_t at = 0; at < n; at += w) {
      k.product_row(c.dx.data() + at, c.dy.data() + at, c.scale, xx.data() + at, xy.data() + at,
                    yy.data() + at, c.width);
      for (float start : {0.0f, -0.0f, -INFINITY, NAN}) {
        maxima.push_back(k.row_max(c.response.data() + at, c.width, start));
      }
      const int count =
          k.peak_row(c.response.data() + at, c.dilated.data() + at, c.width, xs.data());
      peaks.push_back(count);
      peaks.insert(peaks.end(), xs.begin(), xs.begin() + count);
      k.cut_row(cut.data() + at, c.width, c.threshold);
    }
    std::vector<Pointf> corners;
    DetectCorners(k, c.scene.data(), corners, c.width, c.height * 7, 0, 0.01, 2, 3);
    std::vector<uint8_t> out;
    for (const auto* v : {&xx, &xy, &yy, &cut, &maxima}) AppendBytes(out, *v);
    AppendBytes(out, peaks);
    AppendBytes(out, corners);
    return out;
  }
};

TEST_P(KernelConformance, Corners) { ExpectMatchesScalar<CornerFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
