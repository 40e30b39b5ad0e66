// The registration driver: match, keep the best matches, estimate, judge, crop and warp.
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "velmora/features.h"
#include "velmora/homography.h"
#include "velmora/registration.h"
#include "velmora/warp.h"

namespace velmora {
namespace {

constexpr size_t kMinMatches = 28;       // fewer and the frame is thrown unestimated
constexpr float kKeptShare = 0.15f;      // the best 15 % of the matches, rounded down
constexpr double kReprojThreshold = 3.0;
constexpr float kMaxJump = 80.0f;        // diffH from the previous homography, compared in float

// What the new-homography buffer holds before the estimate. findHomography leaves the buffer
// alone when it finds no model (always so with four pairs, i.e. 28 to 33 matches, and with
// collinear points), and the driver does not look at its result: it carries on with the buffer
// as it stands. Filling it with this value first makes such a frame fail the jump test (the
// difference from any sane H is about 9e9), so a frame without an estimate is thrown rather than
// warped by leftover memory or by a stale matrix.
constexpr double kNoEstimate = 1.0e9;

// Everything but the warp and the printing, which differ between the two entry points.
template <typename Warp>
void Register(std::vector<float*>& descA, std::vector<float*>& descB,
              std::vector<Pointf>& keypointsA, std::vector<Pointf>& keypointsB, int width,
              int height, char* throwFlag, Rect* cropRect, double* H, bool print,
              const Warp& warp) {
  std::vector<Match> matches;
  findMatch(descA, descB, matches);  // prints its own line when a set is empty
  if (matches.size() < kMinMatches) {
    *throwFlag = 1;
    return;
  }
  // An unstable sort: matches of equal distance end in no defined order, so which of them make
  // the cut can differ from another sort's. Kept; nothing depends on it.
  std::sort(matches.begin(), matches.end(), disSort);
  const int kept = static_cast<int>(static_cast<float>(matches.size()) * kKeptShare);
  matches.resize(static_cast<size_t>(kept));

  std::vector<Pointf> pairsA, pairsB;
  for (const Match& m : matches) {
    pairsA.push_back(keypointsA[static_cast<size_t>(m.index1)]);
    pairsB.push_back(keypointsB[static_cast<size_t>(m.index2)]);
  }
  std::vector<Point2D64f> pointsA, pointsB;
  for (int i = 0; i < kept; ++i) {
    pointsA.push_back({static_cast<double>(pairsA[i].x), static_cast<double>(pairsA[i].y)});
    pointsB.push_back({static_cast<double>(pairsB[i].x), static_cast<double>(pairsB[i].y)});
  }

  double* newH = static_cast<double*>(std::malloc(9 * sizeof(double)));
  double* invH = static_cast<double*>(std::malloc(9 * sizeof(double)));
  std::fill(newH, newH + 9, kNoEstimate);
  // B is the source, A the destination: newH maps B's points onto A's. Its verdict is not
  // examined (see kNoEstimate).
  findHomography(pointsB, pointsA, newH, kReprojThreshold, kept);

  const float diff = diffH(H, newH);
  if (print) {
    // The ninth coefficient is not printed; default stream formatting.
    for (int i = 0; i < 8; ++i) std::cout << newH[i] << (i < 7 ? ", " : "");
    std::cout << std::endl;
    std::cout << "** : " << diff << std::endl;
  }
  if (diff > kMaxJump) {
    *throwFlag = 1;  // exactly 80 passes
  } else {
    invert(newH, invH);
    if (cropAndThrow(invH, cropRect, width, height) == 1) {
      *throwFlag = 1;  // cropRect untouched
    } else {
      warp(newH);
      std::copy(newH, newH + 9, H);
    }
  }
  std::free(newH);
  std::free(invH);
}

}  // namespace
}  // namespace velmora

void imageRegistration(unsigned char* src, unsigned char* dst, std::vector<float*>& descA,
                       std::vector<float*>& descB, std::vector<Pointf>& keypointsA,
                       std::vector<Pointf>& keypointsB, int width, int height, char* throwFlag,
                       Rect* cropRect, double* H) {
  // Only the working vectors can fail (out of memory), all before anything is changed: the frame
  // is then thrown, as no exception may leave the library.
  try {
    velmora::Register(descA, descB, keypointsA, keypointsB, width, height, throwFlag, cropRect,
                      H, /*print=*/true, [&](double* newH) {
                        perspectiveWarpYUV_OP(newH, src, dst, width, height);
                      });
  } catch (...) {
    *throwFlag = 1;
  }
}

void imageRegistration_1(unsigned char* srcY, unsigned char* srcUV, unsigned char* dstY,
                         unsigned char* dstUV, std::vector<float*>& descA,
                         std::vector<float*>& descB, std::vector<Pointf>& keypointsA,
                         std::vector<Pointf>& keypointsB, int width, int height, char* throwFlag,
                         Rect* cropRect, double* H) {
  try {
    velmora::Register(descA, descB, keypointsA, keypointsB, width, height, throwFlag, cropRect,
                      H, /*print=*/false, [&](double* newH) {
                        perspectiveWarpYUV_OP_1(newH, srcY, srcUV, dstY, dstUV, width, height);
                      });
  } catch (...) {
    *throwFlag = 1;
  }
}
