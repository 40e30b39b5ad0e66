// Velmora features: corner detection, gradient-orientation descriptors and brute-force descriptor
// matching. Exported C++ functions in the global namespace.
#ifndef VELMORA_FEATURES_H
#define VELMORA_FEATURES_H

#include <vector>

#include "velmora/export.h"

// ---- Corner detection ------------------------------------------------------------------------

// A keypoint. Despite its name it holds integer pixel coordinates: column, then row.
struct Pointf {
  int x;
  int y;
};

// A candidate corner: row first, then column (unlike Pointf), and its response.
struct Pointd {
  int y;
  int x;
  float response;
};

// Appends to corners (not cleared first) up to maxCorners (<= 0: no limit) corners of an 8-bit
// width x height image, strongest first: 3x3 local maxima of the smaller-eigenvalue response
// above qualityLevel times the strongest response, each at least minDistance from every stronger
// accepted corner. The spacing step is the only path to the output: minDistance <= 0 yields no
// corners. blockSize only scales the gradient products; the neighbourhood is always 3x3.
VELMORA_EXPORT void goodFeaturesToTrack(unsigned char* img, std::vector<Pointf>& corners,
                                        int width, int height, int maxCorners,
                                        double qualityLevel, int minDistance, int blockSize);

// The candidates' order, strongest first: a.response > b.response, strictly.
VELMORA_EXPORT bool greaterThanPtr(Pointd a, Pointd b);

// ---- Descriptors ------------------------------------------------------------------------------
// A descriptor is a block of d * d * n floats (64 for the 4 x 4 cells of 4 orientation bins that
// every caller here uses), element (row cell * d + column cell) * n + bin, each in [0, 255].
// Descriptor sets are std::vector<float*> parallel to the keypoints; the caller frees every block.

// One descriptor around pt of a float image (width * height, stride width) into dst: a fixed grid
// turned by about one degree, Gaussian-weighted gradient orientations voted trilinearly into
// d x d cells of n bins, clipped at 0.2 of the norm and rescaled to 512 / norm, clamped to 255.
VELMORA_EXPORT void calcDescriptor(float* img, Pointf pt, int d, int n, float* dst, int width,
                                   int height);

// Descriptors (d = 4, n = 4) of an 8-bit image for the given keypoints into descriptors[i], which
// must already hold one block of 64 floats per keypoint.
VELMORA_EXPORT void genDescripter(unsigned char* img, std::vector<Pointf>& keypoints,
                                  std::vector<float*>& descriptors, int width, int height);

// Detects up to 500 corners 60 pixels apart on a private copy of img, appends them to keypoints,
// sizes descriptors to keypoints and fills every slot with a fresh malloc'd descriptor (a pointer
// already there is overwritten, not freed: pass empty vectors).
VELMORA_EXPORT void calImageFeatures(const unsigned char* img, std::vector<Pointf>& keypoints,
                                     std::vector<float*>& descriptors, int width, int height);

// As calImageFeatures, with corners 45 pixels apart detected on the caller's buffer itself.
VELMORA_EXPORT void calImageFeatures_1(unsigned char* img, std::vector<Pointf>& keypoints,
                                       std::vector<float*>& descriptors, int width, int height);

// ---- Descriptor matching ----------------------------------------------------------------------

// One match: index1 into the first descriptor set, index2 into the second, and their distance.
struct Match {
  int index1;
  int index2;
  float distance;
};

// Euclidean distance of two 64-float descriptors: single-precision squared differences summed in
// double in index order, the sum rounded to float and its float square root taken.
VELMORA_EXPORT float calDistance(float* a, float* b);

// Appends, for every descriptor of first in order, its nearest descriptor of second (the lowest
// index among equal distances). No ratio test, no cross-check. When either set is empty, prints
// one line on standard output and leaves matches alone.
VELMORA_EXPORT void findMatch(std::vector<float*>& first, std::vector<float*>& second,
                              std::vector<Match>& matches);

// Ascending distance: a.distance < b.distance.
VELMORA_EXPORT bool disSort(Match a, Match b);

#endif  // VELMORA_FEATURES_H
