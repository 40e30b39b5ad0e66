// RANSAC estimation of a homography over random four-point subsets.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>  // findHomography's arguments

#include "velmora/homography.h"

// Seeded once, here, and never again: every estimate continues the sequence where the previous
// one left it, so results depend on the calls made before. Kept; callers that want repeatable
// estimates set the state themselves.
uint64_t rng = 0xFFFFFFFFFFFFFFFFull;
bool checkPartialSubsets = false;  // read only; nothing in the library sets it

namespace velmora {
namespace {

constexpr double kConfidence = 0.995;
constexpr int kMaxIters = 1000;
constexpr double kDefaultThreshold = 3.0;
constexpr int kMaxAttempts = 300;
constexpr int kModelPoints = 4;
// Single-precision epsilon, applied in double arithmetic.
constexpr double kCollinearTolerance = 1.1920928955078125e-07;
constexpr uint64_t kMultiplier = 4164903690u;  // 0xF83F630A

// Multiply-with-carry step: low word times the multiplier plus the high word as carry.
inline uint32_t NextRandom() {
  rng = (rng & 0xFFFFFFFFu) * kMultiplier + (rng >> 32);
  return static_cast<uint32_t>(rng);
}

inline bool Collinear(const Point2D64f& pi, const Point2D64f& pj, const Point2D64f& pk) {
  const double dx1 = pj.x - pi.x, dy1 = pj.y - pi.y;
  const double dx2 = pk.x - pi.x, dy2 = pk.y - pi.y;
  return std::abs(dy1 * dx2 - dx1 * dy2) <=
         (((std::abs(dx1) + std::abs(dy1)) + std::abs(dx2)) + std::abs(dy2)) * kCollinearTolerance;
}

// Whether any triple (k < j < i, i from first on) of the points is collinear.
bool HasCollinearTriple(const Point2D64f* p, int first, int count) {
  for (int i = first; i < count; ++i) {
    for (int j = 1; j < i; ++j) {
      for (int k = 0; k < j; ++k) {
        if (Collinear(p[i], p[j], p[k])) return true;
      }
    }
  }
  return false;
}

// Squared reprojection error of one pair, in double. H[8] is taken as 1, which holds for every
// model the kernel produces.
inline double ReprojError(const Point2D64f& a, const Point2D64f& b, const double* H) {
  const double x = a.x, y = a.y;
  const double ww = 1.0 / (H[6] * x + H[7] * y + 1.0);
  const double dx = (H[0] * x + H[1] * y + H[2]) * ww - b.x;
  const double dy = (H[3] * x + H[4] * y + H[5]) * ww - b.y;
  return dx * dx + dy * dy;
}

// The inlier test on errors rounded to float, inclusive; err is scratch for count floats.
int FindInliers(const Point2D64f* m1, const Point2D64f* m2, const double* H, unsigned char* mask,
                double thresh, int count, float* err) {
  for (int i = 0; i < count; ++i) err[i] = static_cast<float>(ReprojError(m1[i], m2[i], H));
  const double t2 = thresh * thresh;
  int good = 0;
  for (int i = 0; i < count; ++i) {
    const unsigned char inlier = static_cast<double>(err[i]) <= t2 ? 1 : 0;
    mask[i] = inlier;
    good += inlier;
  }
  return good;
}

// The iteration update, given log(max(1 - confidence, DBL_MIN)); cap is the current count.
int UpdateNumIters(double log_num, double ep, int model_points, int cap) {
  ep = std::min(std::max(ep, 0.0), 1.0);
  double denom = 1.0 - std::pow(1.0 - ep, model_points);
  if (denom < DBL_MIN) return 0;
  denom = std::log(denom);
  if (denom >= 0.0 || log_num <= denom * cap) return cap;
  return static_cast<int>(std::round(log_num / denom));  // half away from zero
}

double LogFailure(double p) {
  p = std::min(std::max(p, 0.0), 1.0);
  return std::log(std::max(1.0 - p, DBL_MIN));
}

}  // namespace
}  // namespace velmora

bool checkSubset(Point2D64f* points, int count) {
  if (count < 3) return true;
  const int first = checkPartialSubsets ? count - 1 : 0;
  return !velmora::HasCollinearTriple(points, first, count);
}

void computeReprojError(Point2D64f* m1, Point2D64f* m2, double* H, float* err, int count) {
  for (int i = 0; i < count; ++i) {
    err[i] = static_cast<float>(velmora::ReprojError(m1[i], m2[i], H));
  }
}

int findInliers(Point2D64f* m1, Point2D64f* m2, double* H, unsigned char* mask, double thresh,
                int count) {
  const size_t n = static_cast<size_t>(std::max(count, 0));
  float* err = static_cast<float*>(std::malloc(sizeof(float) * n));
  const int good = velmora::FindInliers(m1, m2, H, mask, thresh, count, err);
  std::free(err);
  return good;
}

int RANSACUpdateNumIters(double p, double ep, int modelPoints, int maxIters) {
  return velmora::UpdateNumIters(velmora::LogFailure(p), ep, modelPoints, maxIters);
}

bool getSubset(int modelPoints, Point2D64f* ms1, Point2D64f* ms2, int maxAttempts, int* m1, int* m2,
               int* ms1Words, int* ms2Words, int count) {
  if (maxAttempts < 1) return false;
  unsigned* idx = static_cast<unsigned*>(std::malloc(sizeof(unsigned) * std::max(modelPoints, 1)));
  bool accepted = false;
  for (int attempts = 0;;) {
    for (int i = 0; i < modelPoints;) {
      const unsigned candidate = velmora::NextRandom() % static_cast<unsigned>(count);
      idx[i] = candidate;
      bool repeated = false;
      for (int j = 0; j < i; ++j) repeated = repeated || idx[j] == candidate;
      if (repeated) continue;  // redraw the same position, without limit
      std::memcpy(ms1Words + 4 * i, m1 + 4 * static_cast<size_t>(candidate), 4 * sizeof(int));
      std::memcpy(ms2Words + 4 * i, m2 + 4 * static_cast<size_t>(candidate), 4 * sizeof(int));
      ++i;
    }
    if (checkPartialSubsets || modelPoints < 3 ||
        (!velmora::HasCollinearTriple(ms1, 0, modelPoints) &&
         !velmora::HasCollinearTriple(ms2, 0, modelPoints))) {
      accepted = true;
      break;
    }
    if (++attempts == maxAttempts) break;
  }
  std::free(idx);
  return accepted;
}

bool runRANSAC(int count, int modelPoints, Point2D64f* m1, Point2D64f* m2, double* model,
               unsigned char* mask, double reprojThreshold, double confidence, int maxIters) {
  // The early returns free what they allocated: nothing observable depends on the leaks those
  // paths are known to have had.
  if (count < modelPoints || maxIters < 1) return false;
  const size_t n = static_cast<size_t>(std::max(count, 0));
  const size_t mp = static_cast<size_t>(std::max(modelPoints, 1));
  double model_buf[9];
  unsigned char* work_mask = static_cast<unsigned char*>(std::malloc(n));
  unsigned char* swap_buf = static_cast<unsigned char*>(std::malloc(n));
  float* err = static_cast<float*>(std::malloc(sizeof(float) * n));
  std::memset(work_mask, 1, n);
  // When count equals modelPoints no subset is ever drawn and the kernel runs on the subset
  // buffers as they are; kept, as findHomography hands four or fewer pairs this way. They start
  // zeroed so that the outcome is fixed: a NaN model without inliers, and false.
  Point2D64f* ms1 = static_cast<Point2D64f*>(std::calloc(mp, sizeof(*ms1)));
  Point2D64f* ms2 = static_cast<Point2D64f*>(std::calloc(mp, sizeof(*ms2)));
  auto draw = [&]() {
    return getSubset(modelPoints, ms1, ms2, velmora::kMaxAttempts, reinterpret_cast<int*>(m1),
                     reinterpret_cast<int*>(m2), reinterpret_cast<int*>(ms1),
                     reinterpret_cast<int*>(ms2), count);
  };

  const double log_num = velmora::LogFailure(confidence);
  int niters = maxIters, max_good = 0;
  const bool drawn = count <= modelPoints || draw();

  for (int iter = 0; drawn;) {
    runKernel(modelPoints, ms1, ms2, model_buf);
    const int good =
        velmora::FindInliers(m1, m2, model_buf, work_mask, reprojThreshold, count, err);
    if (good > std::max(modelPoints - 1, max_good)) {
      // The caller's mask and the working one trade contents; the working one is rewritten by
      // the next inlier test anyway.
      std::memcpy(swap_buf, work_mask, n);
      std::memcpy(work_mask, mask, n);
      std::memcpy(mask, swap_buf, n);
      // Nine bytes, not nine doubles: the first coefficient and the low byte of the second reach
      // the caller. Kept as it is; findHomography's refit writes the whole matrix.
      std::memcpy(model, model_buf, 9);
      niters = velmora::UpdateNumIters(
          log_num, static_cast<double>(count - good) / static_cast<double>(count), modelPoints,
          niters);
      max_good = good;
    }
    if (++iter >= niters) break;
    if (count <= modelPoints) continue;  // the same (unfilled) subset again
    if (!draw()) break;
  }
  std::free(work_mask);
  std::free(swap_buf);
  std::free(err);
  std::free(ms1);
  std::free(ms2);
  return max_good > 0;
}

bool findHomography(std::vector<Point2D64f> src, std::vector<Point2D64f> dst, double* H,
                    double reprojThreshold, int count) {
  const size_t n = static_cast<size_t>(std::max(count, 0));
  unsigned char* mask = static_cast<unsigned char*>(std::malloc(n));  // written by RANSAC
  Point2D64f* m1 = static_cast<Point2D64f*>(std::malloc(n * sizeof(Point2D64f)));
  Point2D64f* m2 = static_cast<Point2D64f*>(std::malloc(n * sizeof(Point2D64f)));
  // A byte count where a point count was meant; harmless, every point is copied next. Kept.
  std::memset(m1, 0, n);
  std::memset(m2, 0, n);
  if (n > 0) {
    std::memcpy(m1, src.data(), n * sizeof(Point2D64f));
    std::memcpy(m2, dst.data(), n * sizeof(Point2D64f));
  }

  const bool ok = runRANSAC(count, std::min(count, velmora::kModelPoints), m1, m2, H, mask,
                            reprojThreshold > 0.0 ? reprojThreshold : velmora::kDefaultThreshold,
                            velmora::kConfidence, velmora::kMaxIters);
  if (count >= 5 && ok) {
    int inliers = 0;
    for (int i = 0; i < count; ++i) {
      if (mask[i]) {
        m1[inliers] = m1[i];
        m2[inliers] = m2[i];
        ++inliers;
      }
    }
    runKernel(inliers, m1, m2, H);
  }
  std::free(mask);
  std::free(m1);
  std::free(m2);
  return ok;
}
