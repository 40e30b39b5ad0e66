// Gradient-orientation descriptors around integer keypoints: calcDescriptor is the rule written
// out sample by sample; the batch entry points run the same arithmetic with the keypoint-free
// part of the window (bins, fractions, Gaussian weights) worked out once per image.
#include "registration/descriptors.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "registration/corners.h"

namespace velmora {
namespace {

// The sampling grid is turned by about one degree and scaled to cells of 1.5 pixels; the two
// single-precision literals are the whole rotation (no keypoint orientation is estimated).
constexpr float kCosT = 0.66656536f;
constexpr float kSinT = 0.011635001f;
// Every orientation is measured from 361 degrees, not from a keypoint angle: a fixed reference,
// kept as it is because every descriptor ever computed depends on it.
constexpr float kReferenceDegrees = 361.0f;

// Half-size of the sampling window: the image diagonal (truncated, in double) or
// round((d + 1) * 2.1213202 * 0.5) in float, whichever is smaller; 5 for d = 4.
int WindowRadius(int d, int width, int height) {
  const double w = width, h = height;
  const int diagonal = static_cast<int>(std::sqrt(w * w + h * h));
  const int reach = static_cast<int>(std::round(static_cast<float>(d + 1) * 2.1213202f * 0.5f));
  return std::min(diagonal, reach);
}

// The constants of one descriptor shape.
struct Shape {
  Shape(int d_, int n_, int width, int height)
      : d(d_),
        n(n_),
        radius(WindowRadius(d_, width, height)),
        half(static_cast<float>(d_ / 2)),
        bins_per_degree(static_cast<float>(n_) / 360.0f),
        exp_scale(-1.0f / (static_cast<float>(d_ * d_) * 0.5f)),
        hist_len((d_ + 2) * (d_ + 2) * (n_ + 2)) {}
  int d, n, radius;
  float half, bins_per_degree, exp_scale;
  int hist_len;  // (d + 2) x (d + 2) cells of n + 2 slots, the outer ring catching spill-over
};

// Where the window offset (row i, column j) lands in the cell grid, and its weight's exponent.
struct Placement {
  float rbin, cbin, exponent;
};

Placement Place(const Shape& s, int i, int j) {
  const float fi = static_cast<float>(i), fj = static_cast<float>(j);
  const float r_rot = fj * kSinT + fi * kCosT;
  const float c_rot = fj * kCosT - fi * kSinT;
  return {r_rot + s.half - 0.5f, c_rot + s.half - 0.5f, (c_rot * c_rot + r_rot * r_rot) * s.exp_scale};
}

bool InsideCells(const Shape& s, const Placement& p) {
  const float d = static_cast<float>(s.d);
  return p.rbin > -1.0f && p.rbin < d && p.cbin > -1.0f && p.cbin < d;
}

// The spatial part of a vote: the first of the four cells it touches, as the index of that
// cell's slot 0, and the fractions towards the next row and column cells.
struct CellSplit {
  int cell;
  float fr, fc;
};

CellSplit SplitCells(const Shape& s, float rbin, float cbin) {
  const int r0 = static_cast<int>(std::floor(rbin));
  const int c0 = static_cast<int>(std::floor(cbin));
  return {((r0 + 1) * (s.d + 2) + c0 + 1) * (s.n + 2), rbin - static_cast<float>(r0),
          cbin - static_cast<float>(c0)};
}

// Trilinear vote of v at orientation bin obin into the eight slots around it.
void CastVote(const Shape& s, float* hist, const CellSplit& at, float obin, float v) {
  int o0 = static_cast<int>(std::floor(obin));
  const float fo = obin - static_cast<float>(o0);
  // The wrap is applied once only: an orientation below 1 degree floors to -n - 1 and stays at
  // -1, so its bin-0 share lands in the slot before the cell's first bin: slot n + 1 of the
  // previous cell in memory (folded into that cell's bin 1), or, for the very first cell, the
  // spare float in front of the histogram.
  if (o0 < 0) o0 += s.n;
  if (o0 >= s.n) o0 -= s.n;

  const float v_r1 = v * at.fr, v_r0 = v - v_r1;
  const float v_rc11 = v_r1 * at.fc, v_rc10 = v_r1 - v_rc11;
  const float v_rc01 = v_r0 * at.fc, v_rc00 = v_r0 - v_rc01;
  const float v_rco111 = v_rc11 * fo, v_rco110 = v_rc11 - v_rco111;
  const float v_rco101 = v_rc10 * fo, v_rco100 = v_rc10 - v_rco101;
  const float v_rco011 = v_rc01 * fo, v_rco010 = v_rc01 - v_rco011;
  const float v_rco001 = v_rc00 * fo, v_rco000 = v_rc00 - v_rco001;

  const int row = (s.d + 2) * (s.n + 2), col = s.n + 2;
  float* h = hist + at.cell + o0;
  h[0] += v_rco000;
  h[1] += v_rco001;
  h[col] += v_rco010;
  h[col + 1] += v_rco011;
  h[row] += v_rco100;
  h[row + 1] += v_rco101;
  h[row + col] += v_rco110;
  h[row + col + 1] += v_rco111;
}

// Folds the two spill slots of every interior cell into its first two bins, copies the interior
// bins out, clips every value at 0.2 of the norm and rescales to 512 / norm, clamped to [0, 255].
void FoldAndNormalise(const Shape& s, float* hist, float* dst) {
  const int n = s.n, d = s.d, len = d * d * n;
  for (int a = 0; a < d; ++a) {
    for (int b = 0; b < d; ++b) {
      const int k = ((a + 1) * (d + 2) + b + 1) * (n + 2);
      hist[k] += hist[k + n];
      hist[k + 1] += hist[k + n + 1];
      for (int o = 0; o < n; ++o) dst[(a * d + b) * n + o] = hist[k + o];
    }
  }
  float sum = 0.0f;
  for (int k = 0; k < len; ++k) sum += dst[k] * dst[k];
  const float t = 0.2f * std::sqrt(sum);
  float clipped_sum = 0.0f;
  for (int k = 0; k < len; ++k) {
    dst[k] = std::min(dst[k], t);
    clipped_sum += dst[k] * dst[k];
  }
  const float scale = 512.0f / std::max(std::sqrt(clipped_sum), 1.1920929e-7f);
  for (int k = 0; k < len; ++k) dst[k] = std::min(std::max(dst[k] * scale, 0.0f), 255.0f);
}

// The keypoint-free part of one window sample that falls inside the cells.
struct WindowSample {
  int i, j;  // row and column offset from the keypoint
  CellSplit at;
  float weight;
};

// The window of a shape, its samples in sampling order (rows outer, columns inner), with a
// scratch for one keypoint: derivatives, orientations, magnitudes, sample numbers, histogram.
class Window {
 public:
  Window(const Shape& shape) : s_(shape) {
    const int side = 2 * s_.radius + 1;
    samples_ = static_cast<WindowSample*>(std::malloc(sizeof(WindowSample) * side * side));
    for (int i = -s_.radius; i <= s_.radius; ++i) {
      for (int j = -s_.radius; j <= s_.radius; ++j) {
        const Placement p = Place(s_, i, j);
        if (!InsideCells(s_, p)) continue;
        // expf of the same exponent gives the same bits wherever it is taken: once per image
        // instead of once per keypoint.
        samples_[count_++] = {i, j, SplitCells(s_, p.rbin, p.cbin), std::exp(p.exponent)};
      }
    }
    scratch_ = static_cast<float*>(std::malloc(sizeof(float) * (4 * count_ + 1 + s_.hist_len)));
    which_ = static_cast<int*>(std::malloc(sizeof(int) * count_));
  }
  ~Window() {
    std::free(samples_);
    std::free(scratch_);
    std::free(which_);
  }
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  void Describe(const unsigned char* img, int width, int height, Pointf pt,
                const GradientKernels& kernels, float* dst) {
    float* dx = scratch_;
    float* dy = dx + count_;
    float* orientation = dy + count_;
    float* magnitude = orientation + count_;
    float* hist = magnitude + count_ + 1;  // one spare float in front, see CastVote
    int m = 0;
    for (int t = 0; t < count_; ++t) {
      const int row = pt.y + samples_[t].i, col = pt.x + samples_[t].j;
      if (row < 1 || row >= height - 1 || col < 1 || col >= width - 1) continue;
      const unsigned char* p = img + static_cast<size_t>(row) * width + col;
      // Differences of bytes are exact in float: the same values as from a float image.
      dx[m] = static_cast<float>(p[1] - p[-1]);
      dy[m] = static_cast<float>(p[-width] - p[width]);  // up minus down
      which_[m++] = t;
    }
    // The orientation is the fast arctangent of the gradient primitives, in degrees.
    kernels.arctan(dy, dx, orientation, m);
    kernels.magnitude(dx, dy, magnitude, m);
    std::memset(hist - 1, 0, sizeof(float) * (s_.hist_len + 1));
    for (int q = 0; q < m; ++q) {
      const WindowSample& w = samples_[which_[q]];
      const float obin = (orientation[q] - kReferenceDegrees) * s_.bins_per_degree;
      CastVote(s_, hist, w.at, obin, magnitude[q] * w.weight);
    }
    FoldAndNormalise(s_, hist, dst);
  }

 private:
  Shape s_;
  WindowSample* samples_;
  int count_ = 0;
  float* scratch_;
  int* which_;
};

}  // namespace

void DescribeKeypoints(const unsigned char* img, const std::vector<Pointf>& keypoints,
                       const std::vector<float*>& descriptors, int width, int height,
                       const GradientKernels& kernels) {
  Window window(Shape(4, 4, width, height));
  for (size_t i = 0; i < keypoints.size(); ++i) {
    window.Describe(img, width, height, keypoints[i], kernels, descriptors[i]);
  }
}

void ImageFeatures(unsigned char* img, bool private_copy, int min_distance,
                   std::vector<Pointf>& keypoints, std::vector<float*>& descriptors, int width,
                   int height, Isa isa) {
  const size_t pixels = static_cast<size_t>(width) * height;
  unsigned char* copy = nullptr;
  if (private_copy) {
    copy = static_cast<unsigned char*>(std::malloc(pixels));
    std::memcpy(copy, img, pixels);
  }
  unsigned char* gray = private_copy ? copy : img;
  // goodFeaturesToTrack, on the corner kernels of the same variant.
  DetectCorners(CornerKernelsFor(isa), gray, keypoints, width, height, 500, 0.01, min_distance, 3);
  // Slots past the new size are dropped without being freed, and a pointer already in a slot is
  // overwritten, not freed: the blocks belong to the caller, who passes an empty vector.
  descriptors.resize(keypoints.size());
  for (float*& slot : descriptors) slot = static_cast<float*>(std::malloc(64 * sizeof(float)));
  // No float copy of the image: DescribeKeypoints reads the bytes to the same values.
  DescribeKeypoints(gray, keypoints, descriptors, width, height, GradientKernelsFor(isa));
  std::free(copy);
}

}  // namespace velmora

using velmora::Shape;

// The definition, sample by sample: gather the kept samples into flat arrays, then orientation,
// magnitude and weight in one pass each, then the votes, the fold and the normalisation.
void calcDescriptor(float* img, Pointf pt, int d, int n, float* dst, int width, int height) {
  const Shape s(d, n, width, height);
  const int side = 2 * s.radius + 1, len = side * side;
  // One block: a spare float (see CastVote), the zeroed histogram, six sample arrays.
  float* block = static_cast<float*>(std::calloc(1 + s.hist_len + 6 * len, sizeof(float)));
  float* hist = block + 1;
  float* x = hist + s.hist_len;  // x-derivatives, later the magnitudes
  float* y = x + len;
  float* orientation = y + len;
  float* weight = orientation + len;
  float* rbin = weight + len;
  float* cbin = rbin + len;

  int k = 0;
  for (int i = -s.radius; i <= s.radius; ++i) {
    for (int j = -s.radius; j <= s.radius; ++j) {
      const velmora::Placement p = velmora::Place(s, i, j);
      const int row = pt.y + i, col = pt.x + j;
      if (!velmora::InsideCells(s, p) || row < 1 || row >= height - 1 || col < 1 ||
          col >= width - 1) {
        continue;
      }
      const float* at = img + static_cast<size_t>(row) * width + col;
      x[k] = at[1] - at[-1];
      y[k] = at[-width] - at[width];  // up minus down
      weight[k] = p.exponent;
      rbin[k] = p.rbin;
      cbin[k] = p.cbin;
      ++k;
    }
  }
  for (int q = 0; q < k; ++q) orientation[q] = velmora::ArctanOf(y[q], x[q]);
  for (int q = 0; q < k; ++q) x[q] = std::sqrt(x[q] * x[q] + y[q] * y[q]);
  for (int q = 0; q < k; ++q) weight[q] = std::exp(weight[q]);

  for (int q = 0; q < k; ++q) {
    const float obin = (orientation[q] - velmora::kReferenceDegrees) * s.bins_per_degree;
    velmora::CastVote(s, hist, velmora::SplitCells(s, rbin[q], cbin[q]), obin, x[q] * weight[q]);
  }
  velmora::FoldAndNormalise(s, hist, dst);
  std::free(block);
}

void genDescripter(unsigned char* img, std::vector<Pointf>& keypoints,
                   std::vector<float*>& descriptors, int width, int height) {
  velmora::DescribeKeypoints(img, keypoints, descriptors, width, height,
                             velmora::GradientKernelsFor(velmora::ActiveIsa()));
}

void calImageFeatures(const unsigned char* img, std::vector<Pointf>& keypoints,
                      std::vector<float*>& descriptors, int width, int height) {
  // Only read: the detector and the descriptors work on a private copy.
  velmora::ImageFeatures(const_cast<unsigned char*>(img), true, 60, keypoints, descriptors, width,
                         height, velmora::ActiveIsa());
}

void calImageFeatures_1(unsigned char* img, std::vector<Pointf>& keypoints,
                        std::vector<float*>& descriptors, int width, int height) {
  velmora::ImageFeatures(img, false, 45, keypoints, descriptors, width, height,
                         velmora::ActiveIsa());
}
