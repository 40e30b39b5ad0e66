// Homography estimation and the homography utilities: findHomography on random, duplicate,
// collinear and exactly related point sets of any count (four and fewer included), the kernel
// and the eigen solver on their own, and invert, diffH and cropAndThrow on any matrix.

#include "fuzz_input.h"
#include "velmora/homography.h"
#include "velmora/registration.h"

namespace {

using velmora::fuzz::FuzzInput;

constexpr int kMaxPoints = 48;
enum Fn { kFind, kRansac, kKernel, kJacobi, kUtils, kFnCount };
enum Points { kExact, kBits, kGrid, kCollinear, kPointsCount };

// dst = G·src for a G near the identity, or points of one of the degenerate kinds; now and then
// (always for points of any bits) an outlier instead.
std::pair<std::vector<Point2D64f>, std::vector<Point2D64f>> ReadPoints(FuzzInput& in, int count) {
  std::vector<Point2D64f> src(count), dst(count);
  const int kind = in.Range(0, kPointsCount - 1);
  double G[9];
  for (int i = 0; i < 9; ++i) G[i] = (i % 4 == 0) + static_cast<int8_t>(in.Byte()) / 512.0;
  const double x0 = in.Range(-50, 50), dx = in.Range(-8, 8) / 4.0, dy = in.Range(-8, 8) / 4.0;
  for (size_t i = 0; i < src.size(); ++i) {
    Point2D64f &p = src[i], &q = dst[i];
    switch (kind) {
      case kExact:
      case kGrid:  // a few cells, so duplicates come often
        p = {static_cast<double>(in.Range(0, kind == kGrid ? 3 : 639)),
             static_cast<double>(in.Range(0, kind == kGrid ? 3 : 479))};
        break;
      case kBits: p = {in.Bits<double>(), in.Bits<double>()}; break;
      case kCollinear: p = {x0 + dx * i, x0 + dy * i}; break;
    }
    const double w = G[6] * p.x + G[7] * p.y + G[8];
    q = {(G[0] * p.x + G[1] * p.y + G[2]) / w, (G[3] * p.x + G[4] * p.y + G[5]) / w};
    if (kind == kBits || in.Range(0, 7) == 0) q = {in.Bits<double>(), in.Bits<double>()};
  }
  return {src, dst};
}

void Run(FuzzInput& in) {
  const int fn = in.Range(0, kFnCount - 1);
  // The generator is the estimator's one state: the input sets it, but never to one of the
  // multiply-with-carry step's two fixed points, where every draw repeats the same index and a
  // subset draw never ends. Callers keep the state the library gives them, which reaches neither.
  if (fn == kFind || fn == kRansac) {
    constexpr uint64_t kStuck = (uint64_t{4164903690u - 1} << 32) | 0xFFFFFFFFu;
    rng = in.Raw(8);
    if (rng == 0 || rng == kStuck) rng = ~uint64_t{0};
  }
  switch (fn) {
    case kFind: {
      checkPartialSubsets = in.Range(0, 7) == 0;
      const int count = in.Range(0, kMaxPoints);
      const double threshold = in.Range(0, 7) ? in.Range(-1, 8) / 2.0 : in.Bits<double>();
      auto [src, dst] = ReadPoints(in, count);
      double H[9] = {};
      findHomography(src, dst, H, threshold, count);
      checkPartialSubsets = false;
      break;
    }
    case kRansac: {
      // Any model size, confidence and iteration budget.
      const int count = in.Range(0, kMaxPoints), model_points = in.Range(1, 9);
      const double threshold = in.Bits<double>(), confidence = in.Bits<double>();
      const int max_iters = in.Range(-2, 200);
      auto [src, dst] = ReadPoints(in, count);
      std::vector<unsigned char> mask(count);
      double model[9] = {};
      runRANSAC(count, model_points, src.data(), dst.data(), model, mask.data(), threshold,
                confidence, max_iters);
      checkSubset(src.data(), count);
      RANSACUpdateNumIters(confidence, threshold, model_points, max_iters);
      break;
    }
    case kKernel: {
      auto [src, dst] = ReadPoints(in, in.Range(0, kMaxPoints));
      double H[9];
      runKernel(static_cast<int>(src.size()), src.data(), dst.data(), H);
      break;
    }
    case kJacobi: {
      // Row stride 9 whatever the order.
      const int n = in.Range(0, 9);
      double A[81], W[9], V[81];
      const bool bits = in.Bool();
      for (int i = 0; i < 9; ++i)
        for (int j = i; j < 9; ++j)
          A[i * 9 + j] = A[j * 9 + i] = bits ? in.Bits<double>() : in.Range(-64, 64) / 8.0;
      JacobiImpl_<double>(A, W, in.Bool() ? V : nullptr, n);
      break;
    }
    case kUtils: {
      double h[9], inv[9];
      const bool bits = in.Bool();
      for (int i = 0; i < 9; ++i) h[i] = bits ? in.Bits<double>() : in.Range(-4, 4) / 2.0;
      invert(h, inv);
      diffH(h, inv);
      Rect crop{in.Range(-8, 8), in.Range(-8, 8), in.Range(0, 700), in.Range(0, 700)};
      cropAndThrow(in.Bool() ? inv : h, &crop, in.Range(0, 640), in.Range(0, 480));
      break;
    }
  }
}

// Per function and kind of points: the generator's state (its initial value, all ones) where
// one is read; for findHomography no partial check, 12 points and a threshold of 3, for the
// kernel 12 points; then small bytes, so that a matrix stays near the identity and the points in
// view.
velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (uint8_t fn = 0; fn < kFnCount; ++fn) {
    for (uint8_t kind = 0; kind < kPointsCount; ++kind) {
      std::vector<uint8_t> seed = {fn};
      if (fn == kFind || fn == kRansac) seed.insert(seed.end(), 8, 0xFF);
      if (fn == kFind) seed.insert(seed.end(), {1, 12, 1, 7, kind});
      if (fn == kKernel) seed.insert(seed.end(), {12, kind});
      for (int i = 0; i < 200; ++i) seed.push_back(static_cast<uint8_t>((i * 29 + kind) % 23 + 1));
      seeds.push_back(seed);
    }
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kOneVariant)
