// Velmora homography estimation: the normalised DLT fit, its Jacobi eigen solver and RANSAC.
// Exported C++ functions and globals in the global namespace.
//
// A homography is nine doubles, row-major; it maps a point (x, y) of the first (source) array to
// ((H[0]x + H[1]y + H[2]) / w, (H[3]x + H[4]y + H[5]) / w) with w = H[6]x + H[7]y + H[8].
#ifndef VELMORA_HOMOGRAPHY_H
#define VELMORA_HOMOGRAPHY_H

#include <cstdint>
#include <vector>

#include "velmora/export.h"

// A point of two doubles; arrays of them are contiguous.
struct Point2D64f {
  double x;
  double y;
};

// Fits H with m2 ~ H * m1 to the first count correspondences by the normalised direct linear
// transform, and scales it so that H[8] is 1. Always returns 1: degenerate input (fewer than four
// distinct points, all points sharing an x or a y) gives infinite or NaN coefficients instead.
VELMORA_EXPORT int runKernel(int count, Point2D64f* m1, Point2D64f* m2, double* H);

// Eigen-decomposes the symmetric n x n matrix A, stored with a row stride of 9 doubles whatever
// n is (so n <= 9), by largest-pivot Jacobi rotations. W receives the eigenvalues in descending
// order; V, unless null, the eigenvectors as rows (row i belongs to W[i]), also with stride 9.
// A is destroyed. Always returns true. Instantiated for double only.
template <typename T>
VELMORA_EXPORT bool JacobiImpl_(T* A, T* W, T* V, int n);
extern template bool JacobiImpl_<double>(double* A, double* W, double* V, int n);

// State of the subset generator, a multiply-with-carry sequence starting at all ones. It is
// never reseeded: every draw advances it, and concurrent estimations race on it.
VELMORA_EXPORT extern uint64_t rng;
// When set (nothing in the library sets it), subsets are accepted without the collinearity test
// and checkSubset tests only the triples containing the last point.
VELMORA_EXPORT extern bool checkPartialSubsets;

// Robust homography with dst ~ H * src from the first count pairs: RANSAC over four-point models
// (threshold reprojThreshold pixels, 3.0 when it is not positive; confidence 0.995; at most 1000
// iterations), then a refit on all inliers of the best model. Returns whether a model was found.
// With fewer than five pairs no refit takes place; with four or fewer no subset is drawn and no
// model is found.
VELMORA_EXPORT bool findHomography(std::vector<Point2D64f> src, std::vector<Point2D64f> dst,
                                   double* H, double reprojThreshold, int count);

// The RANSAC loop. mask receives the inliers (1) of the best model; model receives only the first
// nine bytes of the best model's coefficients (findHomography refits the full matrix).
// Returns whether a model with at least modelPoints inliers was found.
VELMORA_EXPORT bool runRANSAC(int count, int modelPoints, Point2D64f* m1, Point2D64f* m2,
                              double* model, unsigned char* mask, double reprojThreshold,
                              double confidence, int maxIters);

// Draws modelPoints distinct random pairs: reads them from m1/m2 as four 32-bit words a point and
// writes them to ms1Words/ms2Words, then tests the subsets as points ms1/ms2 (the same buffers)
// for collinear triples; redraws up to maxAttempts times. Returns whether a subset was accepted.
VELMORA_EXPORT bool getSubset(int modelPoints, Point2D64f* ms1, Point2D64f* ms2, int maxAttempts,
                              int* m1, int* m2, int* ms1Words, int* ms2Words, int count);

// True when no three of the count points are collinear (within single-precision epsilon).
VELMORA_EXPORT bool checkSubset(Point2D64f* points, int count);

// err[i] = squared distance between H * m1[i] and m2[i], as float; H[8] is taken as 1.
VELMORA_EXPORT void computeReprojError(Point2D64f* m1, Point2D64f* m2, double* H, float* err,
                                       int count);

// mask[i] = 1 where the float squared error is <= thresh * thresh, else 0; returns the ones.
VELMORA_EXPORT int findInliers(Point2D64f* m1, Point2D64f* m2, double* H, unsigned char* mask,
                               double thresh, int count);

// Iterations needed to draw an all-inlier subset of modelPoints with probability p when a share
// ep of the points are outliers, capped at maxIters.
VELMORA_EXPORT int RANSACUpdateNumIters(double p, double ep, int modelPoints, int maxIters);

#endif  // VELMORA_HOMOGRAPHY_H
