// Small routines on 3x3 homographies for the registration driver: inverse, distance, crop.
#include <algorithm>
#include <climits>
#include <cmath>

#include "velmora/registration.h"

namespace velmora {
namespace {

// Float to int toward zero, saturating; a degenerate homography can push an edge to infinity.
int TruncToInt(float v) {
  if (v >= 2147483648.0f) return INT_MAX;
  if (v <= -2147483648.0f) return INT_MIN;
  return static_cast<int>(v);
}

struct Corner {
  double x, y;
};

// 2 * hinv(x, y): the homography works on the half-size grid.
Corner MapDoubled(const double* h, double x, double y) {
  const double w = h[6] * x + h[7] * y + h[8];
  return {2.0 * ((h[0] * x + h[1] * y + h[2]) / w), 2.0 * ((h[3] * x + h[4] * y + h[5]) / w)};
}

float AtLeast(double v, double lo) { return static_cast<float>(v < lo ? lo : v); }
float AtMost(double v, double hi) { return static_cast<float>(v > hi ? hi : v); }

}  // namespace
}  // namespace velmora

void invert(double* h, double* inv) {
  // No test of det: a singular matrix gives infinities or NaNs, and callers do not check.
  const double det = h[0] * (h[4] * h[8] - h[5] * h[7]) - h[3] * (h[1] * h[8] - h[2] * h[7]) +
                     h[6] * (h[1] * h[5] - h[2] * h[4]);
  inv[0] = (h[4] * h[8] - h[5] * h[7]) / det;
  inv[1] = (h[2] * h[7] - h[1] * h[8]) / det;
  inv[2] = (h[1] * h[5] - h[2] * h[4]) / det;
  inv[3] = (h[5] * h[6] - h[3] * h[8]) / det;
  inv[4] = (h[0] * h[8] - h[2] * h[6]) / det;
  inv[5] = (h[2] * h[3] - h[0] * h[5]) / det;
  inv[6] = (h[3] * h[7] - h[4] * h[6]) / det;
  inv[7] = (h[1] * h[6] - h[0] * h[7]) / det;
  inv[8] = (h[0] * h[4] - h[1] * h[3]) / det;
}

float diffH(double* a, double* b) {
  float s = 0.0f;
  // Each difference and addition in double, the running sum rounded to float every step.
  for (int i = 0; i < 9; ++i) s = static_cast<float>(std::abs(a[i] - b[i]) + s);
  return s;
}

int cropAndThrow(double* hinv, Rect* cropRect, int width, int height) {
  using velmora::AtLeast;
  using velmora::AtMost;
  const double W = width, H = height;
  const velmora::Corner tl = velmora::MapDoubled(hinv, 0.0, 0.0);
  const velmora::Corner tr = velmora::MapDoubled(hinv, W / 2.0, 0.0);
  const velmora::Corner bl = velmora::MapDoubled(hinv, 0.0, H / 2.0);
  const velmora::Corner br = velmora::MapDoubled(hinv, W / 2.0, H / 2.0);

  const float tl_x = AtLeast(tl.x, 0.0), tl_y = AtLeast(tl.y, 0.0);
  const float tr_x = AtMost(tr.x, W), tr_y = AtLeast(tr.y, 0.0);
  const float bl_x = AtLeast(bl.x, 0.0), bl_y = AtMost(bl.y, H);
  const float br_x = AtMost(br.x, W), br_y = AtMost(br.y, H);

  // Only the top-left corner is tested, and after its clamp at 0 a shift to the left or up never
  // trips the test. One-sided on purpose; kept.
  if (std::abs(tl_x) > static_cast<float>(width / 2)) return 1;
  if (std::abs(tl_y) > static_cast<float>(height / 2)) return 1;

  const float left = std::ceil(std::max(tl_x, bl_x));
  const float top = std::ceil(std::max(tl_y, tr_y));
  const float right = std::floor(std::min(br_x, tr_x));
  const float bottom = std::floor(std::min(bl_y, br_y));

  // Written so that a NaN candidate (from a degenerate homography) leaves its edge as it was.
  const float old_left = static_cast<float>(cropRect->left);
  const float old_top = static_cast<float>(cropRect->top);
  const float old_right = static_cast<float>(cropRect->right);
  const float old_bottom = static_cast<float>(cropRect->bottom);
  cropRect->left = velmora::TruncToInt(left > old_left ? left : old_left);
  cropRect->top = velmora::TruncToInt(top > old_top ? top : old_top);
  cropRect->right = velmora::TruncToInt(right < old_right ? right : old_right);
  cropRect->bottom = velmora::TruncToInt(bottom < old_bottom ? bottom : old_bottom);
  return 0;
}
