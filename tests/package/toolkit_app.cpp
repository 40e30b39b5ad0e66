// The toolkit from outside, against the installed package only: findHomography recovers a known
// homography from exact correspondences, and perspectiveWarp, given it as its map from output to
// source pixel, resamples a horizontal ramp so that a pixel holds the x its position maps to.
#include <cmath>
#include <cstdio>
#include <vector>

#include <velmora/homography.h>
#include <velmora/warp.h>

namespace {
double kH[9] = {1.02, 0.03, 6.5, -0.02, 0.98, -4.0, 1e-4, -5e-5, 1.0};
Point2D64f Map(double x, double y) {
  const double w = kH[6] * x + kH[7] * y + kH[8];
  return {(kH[0] * x + kH[1] * y + kH[2]) / w, (kH[3] * x + kH[4] * y + kH[5]) / w};
}
}  // namespace

int main() {
  std::vector<Point2D64f> src, dst;
  for (int i = 0; i < 40; ++i) {
    src.push_back({17.0 * (i % 8) + 0.5 * (i / 8), 23.0 * (i / 8) + 0.25 * (i % 8)});
    dst.push_back(Map(src.back().x, src.back().y));
  }
  double h[9] = {};
  int wrong = findHomography(src, dst, h, 1.0, static_cast<int>(src.size())) ? 0 : 1;
  for (int i = 0; i < 9; ++i) wrong += std::fabs(h[i] - kH[i]) > 1e-6 * (1.0 + std::fabs(kH[i]));
  const int width = 200, height = 120;
  std::vector<unsigned char> plane(width * height), warped(width * height, 7);
  for (int i = 0; i < width * height; ++i) plane[i] = static_cast<unsigned char>(i % width);
  perspectiveWarp(kH, plane.data(), warped.data(), width, height);
  for (int i = 0; i < width * height; ++i) {
    const Point2D64f p = Map(i % width, i / width);
    // Within a pixel of the border, the side a position falls on is the warp's own business.
    const bool inside = p.x >= 1.0 && p.x <= width - 2.0 && p.y >= 1.0 && p.y <= height - 2.0;
    wrong += inside && std::fabs(warped[i] - p.x) > 0.5 + 1e-6;
  }
  std::printf("toolkit_app: %s (%d wrong)\n", wrong == 0 ? "ok" : "FAILED", wrong);
  return wrong == 0 ? 0 : 1;
}
