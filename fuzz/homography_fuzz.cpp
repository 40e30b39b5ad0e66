// Homography estimation and the homography utilities: findHomography on random, duplicate,
// collinear and exactly related point sets of any count (four and fewer included), the kernel
// and the eigen solver on their own, and invert, diffH and cropAndThrow on any matrix.
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "velmora/homography.h"
#include "velmora/registration.h"

namespace {

using velmora::fuzz::FuzzInput;
using velmora::fuzz::SeedWriter;

constexpr int kMaxPoints = 48;
enum Fn { kFind, kRansac, kKernel, kJacobi, kUtils, kFnCount };
enum Points { kExact, kBits, kGrid, kCollinear, kPointsCount };

// dst = G·src for a G near the identity, or points of one of the degenerate kinds.
void ReadPoints(FuzzInput& in, std::vector<Point2D64f>& src, std::vector<Point2D64f>& dst) {
  const int kind = in.Range(0, kPointsCount - 1);
  double G[9];
  for (int i = 0; i < 9; ++i) G[i] = (i % 4 == 0) + static_cast<int8_t>(in.Byte()) / 512.0;
  const double x0 = in.Range(-50, 50), dx = in.Range(-8, 8) / 4.0, dy = in.Range(-8, 8) / 4.0;
  for (size_t i = 0; i < src.size(); ++i) {
    Point2D64f& p = src[i];
    Point2D64f& q = dst[i];
    switch (kind) {
      case kExact:
      case kGrid:  // a few cells, so duplicates come often
        p = {static_cast<double>(in.Range(0, kind == kGrid ? 3 : 639)),
             static_cast<double>(in.Range(0, kind == kGrid ? 3 : 479))};
        break;
      case kBits: p = {in.Double(), in.Double()}; break;
      case kCollinear: p = {x0 + dx * i, x0 + dy * i}; break;
    }
    const double w = G[6] * p.x + G[7] * p.y + G[8];
    q = {(G[0] * p.x + G[1] * p.y + G[2]) / w, (G[3] * p.x + G[4] * p.y + G[5]) / w};
    if (kind == kBits || in.Range(0, 7) == 0) q = {in.Double(), in.Double()};  // outliers
  }
}

// The generator state comes from the input, but never one of the multiply-with-carry step's two
// fixed points: there every draw repeats the same index and a subset draw never ends. Callers
// keep the state the library gives them, which never reaches either.
void SeedGenerator(FuzzInput& in) {
  constexpr uint64_t kStuck = (uint64_t{4164903690u - 1} << 32) | 0xFFFFFFFFu;
  rng = in.Raw(8);
  if (rng == 0 || rng == kStuck) rng = ~uint64_t{0};
}

void Matrix(FuzzInput& in, double* h) {
  const bool bits = in.Bool();
  for (int i = 0; i < 9; ++i) h[i] = bits ? in.Double() : in.Range(-4, 4) / 2.0;
}

void Run(FuzzInput& in) {
  switch (in.Range(0, kFnCount - 1)) {
    case kFind: {
      SeedGenerator(in);  // the generator is the estimator's one state: the input sets it
      checkPartialSubsets = in.Range(0, 7) == 0;
      const int count = in.Range(0, kMaxPoints);
      const double threshold = in.Range(0, 7) ? in.Range(-1, 8) / 2.0 : in.Double();
      std::vector<Point2D64f> src(count), dst(count);
      ReadPoints(in, src, dst);
      double H[9] = {};
      findHomography(src, dst, H, threshold, count);
      checkPartialSubsets = false;
      break;
    }
    case kRansac: {
      // Any model size, confidence and iteration budget.
      SeedGenerator(in);
      const int count = in.Range(0, kMaxPoints), model_points = in.Range(1, 9);
      const double threshold = in.Double(), confidence = in.Double();
      const int max_iters = in.Range(-2, 200);
      std::vector<Point2D64f> src(count), dst(count);
      ReadPoints(in, src, dst);
      std::vector<unsigned char> mask(count);
      double model[9] = {};
      runRANSAC(count, model_points, src.data(), dst.data(), model, mask.data(), threshold,
                confidence, max_iters);
      checkSubset(src.data(), count);
      RANSACUpdateNumIters(confidence, threshold, model_points, max_iters);
      break;
    }
    case kKernel: {
      const int count = in.Range(0, kMaxPoints);
      std::vector<Point2D64f> src(count), dst(count);
      ReadPoints(in, src, dst);
      double H[9];
      runKernel(count, src.data(), dst.data(), H);
      break;
    }
    case kJacobi: {
      // Row stride 9 whatever the order.
      const int n = in.Range(0, 9);
      double A[81], W[9], V[81];
      const bool bits = in.Bool();
      for (int i = 0; i < 9; ++i)
        for (int j = i; j < 9; ++j)
          A[i * 9 + j] = A[j * 9 + i] = bits ? in.Double() : in.Range(-64, 64) / 8.0;
      JacobiImpl_<double>(A, W, in.Bool() ? V : nullptr, n);
      break;
    }
    case kUtils: {
      double h[9], inv[9];
      Matrix(in, h);
      invert(h, inv);
      diffH(h, inv);
      Rect crop{in.Range(-8, 8), in.Range(-8, 8), in.Range(0, 700), in.Range(0, 700)};
      cropAndThrow(in.Bool() ? inv : h, &crop, in.Range(0, 640), in.Range(0, 480));
      break;
    }
  }
}

velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (int fn = 0; fn < kFnCount; ++fn) {
    for (int kind = 0; kind < kPointsCount; ++kind) {
      SeedWriter w;
      w.Range(fn, 0, kFnCount - 1);
      if (fn == kFind) {
        w.Raw(~uint64_t{0}, 8);  // the generator's initial value
        w.Range(1, 0, 7);
      }
      if (fn <= kKernel) {
        w.Range(12, 0, kMaxPoints);
        if (fn == kFind) w.Range(6, -1, 8);
        w.Range(kind, 0, kPointsCount - 1);
      }
      // The rest: small values, so the matrix stays near the identity and the points in view.
      for (int i = 0; i < 200; ++i) w.Byte(static_cast<uint8_t>((i * 29 + kind) % 23 + 1));
      seeds.push_back(w.out);
    }
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kOneVariant)
