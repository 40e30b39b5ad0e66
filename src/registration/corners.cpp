// Corner detection: smaller-eigenvalue response, relative threshold, 3x3 non-maximum
// suppression, and a spacing grid walked strongest first.
#include "registration/corners.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace velmora {
namespace {

bool Stronger(const Pointd& a, const Pointd& b) { return a.response > b.response; }

// The gradient products of image row y. The derivatives of the border rows and columns are fixed
// at 0, never computed from the image. Their products are formed like any others: with
// blockSize 0 the scale is infinite and they are NaN.
void ProductsOfRow(const CornerKernels& c, const uint8_t* img, int y, int width, int height,
                   double scale, int32_t* dx, int32_t* dy, float* dxx, float* dxy, float* dyy) {
  const size_t w = static_cast<size_t>(width);
  if (y == 0 || y == height - 1) {
    std::memset(dx, 0, w * sizeof(int32_t));
    std::memset(dy, 0, w * sizeof(int32_t));
  } else {
    const uint8_t* row = img + w * y;
    dx[0] = dy[0] = dx[w - 1] = dy[w - 1] = 0;
    c.gradient->sobel_row(row - w, row, row + w, dx, dy, width);
  }
  c.product_row(dx, dy, scale, dxx, dxy, dyy, width);
}

// Accepts candidates strongest first while they keep minDistance from every accepted corner,
// looking only at the 3x3 cells of side minDistance around each.
void Space(const std::vector<Pointd>& candidates, std::vector<Pointf>& corners, int width,
           int height, int maxCorners, int minDistance) {
  // In 64 bits, so that a huge distance cannot overflow the rounding up.
  const int grid_w = static_cast<int>((int64_t{width} + minDistance - 1) / minDistance);
  const int grid_h = static_cast<int>((int64_t{height} + minDistance - 1) / minDistance);
  std::vector<std::vector<Pointf>> grid(static_cast<size_t>(grid_w) * grid_h);
  // The squared distances are compared as unsigned 32-bit integers, as the int products wrap.
  const uint32_t limit = static_cast<uint32_t>(minDistance) * static_cast<uint32_t>(minDistance);
  int accepted = 0;
  for (const Pointd& p : candidates) {
    const int cx = p.x / minDistance, cy = p.y / minDistance;
    const int x1 = std::max(cx - 1, 0), x2 = std::min(cx + 1, grid_w - 1);
    const int y1 = std::max(cy - 1, 0), y2 = std::min(cy + 1, grid_h - 1);
    bool good = true;
    for (int yy = y1; yy <= y2 && good; ++yy) {
      for (int xx = x1; xx <= x2 && good; ++xx) {
        for (const Pointf& q : grid[static_cast<size_t>(yy) * grid_w + xx]) {
          const uint32_t ddx = static_cast<uint32_t>(p.x - q.x);
          const uint32_t ddy = static_cast<uint32_t>(p.y - q.y);
          if (ddx * ddx + ddy * ddy < limit) {
            good = false;
            break;
          }
        }
      }
    }
    if (!good) continue;
    const Pointf corner{p.x, p.y};
    grid[static_cast<size_t>(cy) * grid_w + cx].push_back(corner);
    corners.push_back(corner);
    ++accepted;
    if (maxCorners > 0 && accepted == maxCorners) break;
  }
}

}  // namespace

void DetectCorners(const CornerKernels& c, const uint8_t* img, std::vector<Pointf>& corners,
                   int width, int height, int maxCorners, double qualityLevel, int minDistance,
                   int blockSize) {
  // The spacing step is the only path to the output, a deliberate property of this detector:
  // without a positive distance nothing is appended, so nothing need be computed.
  if (minDistance <= 0) return;
  // Below 3x3 no response is computed: the map stays 0 and holds no candidate.
  if (width < 3 || height < 3) return;

  // The full-plane rule keeps every map at width x height. Only the response map needs to be
  // whole (its maximum sets the threshold); derivatives and products stream through three rows,
  // and the dilated map through one, with the same values at every pixel.
  const size_t w = static_cast<size_t>(width);
  float* response = static_cast<float*>(std::malloc(w * height * sizeof(float)));
  // The response's one-pixel border ring is fixed at 0, never computed (the interior is written
  // row by row below; zeroing all of it first would cost a pass over the map).
  std::memset(response, 0, w * sizeof(float));
  std::memset(response + w * (height - 1), 0, w * sizeof(float));
  int32_t* dx = static_cast<int32_t*>(std::malloc(2 * w * sizeof(int32_t)));
  int32_t* dy = dx + w;
  float* products = static_cast<float*>(std::malloc(9 * w * sizeof(float)));  // 3 rows x 3 maps
  float* dilated = static_cast<float*>(std::malloc(w * sizeof(float)));
  int32_t* xs = static_cast<int32_t*>(std::malloc(w * sizeof(int32_t)));

  // blockSize enters only here; the neighbourhood of the response is always 3x3.
  const double s = 1.0 / (blockSize * 4.0 * 255.0);
  const double scale = s * s;
  auto slot = [&](int y, int map) { return products + (static_cast<size_t>(y % 3) * 3 + map) * w; };

  // Derivatives, products and the response, a row behind the products. The maximum of the whole
  // map scans in index order from its first entry, a border 0.
  float maximum = 0.0f;
  for (int y = 0; y < height; ++y) {
    ProductsOfRow(c, img, y, width, height, scale, dx, dy, slot(y, 0), slot(y, 1), slot(y, 2));
    if (y < 2) continue;
    const int r = y - 1;
    float* out = response + w * r;
    out[0] = out[w - 1] = 0.0f;
    // medblur(Dyy, Dxx, Dxy, Dyy, ...): its first argument is not read.
    c.gradient->min_eigen_row({slot(r - 1, 0), slot(r, 0), slot(r + 1, 0)},
                              {slot(r - 1, 1), slot(r, 1), slot(r + 1, 1)},
                              {slot(r - 1, 2), slot(r, 2), slot(r + 1, 2)}, out, width);
    maximum = c.row_max(out, width, maximum);
  }

  // Responses at or below the threshold are cut to 0, each row before a dilation reads it; the
  // border rows are 0 and stay 0 whatever the threshold.
  const float threshold = static_cast<float>(maximum * qualityLevel);
  std::vector<Pointd> candidates;
  c.cut_row(response + w, width, threshold);
  for (int y = 1; y < height - 1; ++y) {
    if (y + 1 < height - 1) c.cut_row(response + w * (y + 1), width, threshold);
    const float* row = response + w * y;
    c.gradient->dilate_row({row - w, row, row + w}, dilated, width);
    const int n = c.peak_row(row, dilated, width, xs);
    for (int i = 0; i < n; ++i) candidates.push_back(Pointd{y, xs[i], row[xs[i]]});
  }
  std::free(xs);
  std::free(dilated);
  std::free(products);
  std::free(dx);
  std::free(response);

  // An unstable sort: equal responses end in no defined order.
  std::sort(candidates.begin(), candidates.end(), Stronger);
  Space(candidates, corners, width, height, maxCorners, minDistance);
}

}  // namespace velmora

bool greaterThanPtr(Pointd a, Pointd b) { return velmora::Stronger(a, b); }

// The stages are not timed: the design reads the processor clock at each boundary and discards
// the readings, which nobody can observe.
void goodFeaturesToTrack(unsigned char* img, std::vector<Pointf>& corners, int width, int height,
                         int maxCorners, double qualityLevel, int minDistance, int blockSize) {
  using namespace velmora;
  DetectCorners(CornerKernelsFor(ActiveIsa()), img, corners, width, height, maxCorners,
                qualityLevel, minDistance, blockSize);
}
