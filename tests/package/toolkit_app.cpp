// The toolkit from outside, against the installed package only: findHomography recovers a known
// perspective homography from exact correspondences, and perspectiveWarp, given it as its inverse
// map, resamples a horizontal ramp so that every pixel holds the x its position maps to.
#include <cmath>
#include <cstdio>
#include <vector>

#include <velmora/homography.h>
#include <velmora/warp.h>

namespace {

const double kH[9] = {1.02, 0.03, 6.5, -0.02, 0.98, -4.0, 1e-4, -5e-5, 1.0};

void Apply(const double* h, double x, double y, double* u, double* v) {
  const double w = h[6] * x + h[7] * y + h[8];
  *u = (h[0] * x + h[1] * y + h[2]) / w;
  *v = (h[3] * x + h[4] * y + h[5]) / w;
}

}  // namespace

int main() {
  std::vector<Point2D64f> src, dst;
  for (int i = 0; i < 40; ++i) {
    const double x = 17.0 * (i % 8) + 0.5 * (i / 8), y = 23.0 * (i / 8) + 0.25 * (i % 8);
    double u, v;
    Apply(kH, x, y, &u, &v);
    src.push_back({x, y});
    dst.push_back({u, v});
  }
  double h[9];
  if (!findHomography(src, dst, h, 1.0, static_cast<int>(src.size()))) {
    std::fprintf(stderr, "toolkit_app: no homography found\n");
    return 1;
  }
  for (int i = 0; i < 9; ++i) {
    if (std::fabs(h[i] - kH[i]) > 1e-6 * (1.0 + std::fabs(kH[i]))) {
      std::fprintf(stderr, "toolkit_app: H[%d] = %.9g, expected %.9g\n", i, h[i], kH[i]);
      return 1;
    }
  }

  // Ramp values stay below 255, so an out-of-view pixel cannot pass for a sampled one.
  const int width = 200, height = 120;
  std::vector<unsigned char> plane(width * height), warped(width * height, 7);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) plane[y * width + x] = static_cast<unsigned char>(x);
  }
  perspectiveWarp(h, plane.data(), warped.data(), width, height);
  int inside = 0, outside = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      double u, v;
      Apply(kH, x, y, &u, &v);
      const int got = warped[y * width + x];
      // Pixels within a pixel of the border are left alone: which side they fall on is the
      // warp's own business.
      if (u >= 1.0 && u <= width - 2.0 && v >= 1.0 && v <= height - 2.0) {
        ++inside;
        if (std::fabs(got - u) > 0.5 + 1e-6) {
          std::fprintf(stderr, "toolkit_app: (%d, %d) = %d, expected %.3f\n", x, y, got, u);
          return 1;
        }
      } else if (u < -1.0 || u > width || v < -1.0 || v > height) {
        ++outside;
        if (got != 255) {
          std::fprintf(stderr, "toolkit_app: (%d, %d) = %d out of view\n", x, y, got);
          return 1;
        }
      }
    }
  }
  if (inside < width * height / 2 || outside == 0) return 1;
  std::printf("toolkit_app: ok, H recovered, %d pixels sampled, %d out of view\n", inside, outside);
  return 0;
}
