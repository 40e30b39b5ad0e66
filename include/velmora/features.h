// Velmora features: corner detection, exported C++ functions in the global namespace.
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

#endif  // VELMORA_FEATURES_H
