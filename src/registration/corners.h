// The corner detector over kernel tables that tests and benchmarks can choose.
#ifndef VELMORA_REGISTRATION_CORNERS_H
#define VELMORA_REGISTRATION_CORNERS_H

#include <cstdint>
#include <vector>

#include "registration/corners_kernels.h"
#include "velmora/features.h"

namespace velmora {

// goodFeaturesToTrack on the given kernels.
void DetectCorners(const CornerKernels& kernels, const uint8_t* img, std::vector<Pointf>& corners,
                   int width, int height, int maxCorners, double qualityLevel, int minDistance,
                   int blockSize);

}  // namespace velmora

#endif  // VELMORA_REGISTRATION_CORNERS_H
