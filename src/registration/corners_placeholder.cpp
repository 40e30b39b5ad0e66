// Stand-in for the corner detector until it lands: weak, so the real definition wins wherever
// both are linked. Finds nothing. Removed when the detector is merged.
#include "velmora/features.h"

__attribute__((weak)) void goodFeaturesToTrack(unsigned char*, std::vector<Pointf>&, int, int, int,
                                               double, int, int) {}
