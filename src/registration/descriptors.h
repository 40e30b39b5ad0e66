// Internal entry points of the descriptors, over a kernel table that tests and benchmarks choose.
#ifndef VELMORA_REGISTRATION_DESCRIPTORS_H
#define VELMORA_REGISTRATION_DESCRIPTORS_H

#include <vector>

#include "common/cpu.h"
#include "filters/gradient_kernels.h"
#include "velmora/features.h"

namespace velmora {

// Descriptors with d = 4, n = 4 for every keypoint into descriptors[i], read straight from the
// 8-bit image; the same floats as calcDescriptor over the image converted to floats.
void DescribeKeypoints(const unsigned char* img, const std::vector<Pointf>& keypoints,
                       const std::vector<float*>& descriptors, int width, int height,
                       const GradientKernels& kernels);

// calImageFeatures (on a private copy, corners min_distance apart) or calImageFeatures_1 (on
// img itself), detector and descriptors on the kernels of isa.
void ImageFeatures(unsigned char* img, bool private_copy, int min_distance,
                   std::vector<Pointf>& keypoints, std::vector<float*>& descriptors, int width,
                   int height, Isa isa);

}  // namespace velmora

#endif  // VELMORA_REGISTRATION_DESCRIPTORS_H
