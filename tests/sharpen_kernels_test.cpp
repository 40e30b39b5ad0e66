// The sharpen filter's row kernels and the whole filter on each kernel table: every vector
// variant against the scalar one through the conformance harness.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "filters/sharpen_kernels.h"
#include "kernel_conformance.h"
#include "test_util.h"

namespace velmora {
namespace {

using Bytes = std::vector<uint8_t>;

// Thresholds that sharpen everything, nothing, and the usual few in between.
const int kThresholds[] = {std::numeric_limits<int>::min(), -7, -1, 0, 1, 2, 9, 254, 255, 1000,
                           std::numeric_limits<int>::max()};

// Amounts from none to far beyond the saturation of the float-to-int conversions.
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kAmounts[] = {0.0f, 1.0f, -1.0f, 0.5f, 2.25f, -3.7f, 1e30f, -1e30f, 3e5f, -3e5f,
                          kInf, -kInf, kNaN};

uint8_t ClampByte(int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

// Random bytes with the extremes (where clamping, division by 1e-5 and wrapping happen) and
// runs of a single value (blocks where nothing is sharpened) over-represented.
Bytes EdgyBytes(std::mt19937& rng, size_t count) {
  static const uint8_t kEdges[] = {0, 1, 2, 127, 128, 129, 254, 255};
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<int> pick(0, 15);
  Bytes v(count);
  for (size_t i = 0; i < count; ++i) {
    const int p = pick(rng);
    if (p < 2) {
      v[i] = kEdges[byte(rng) % 8];
    } else if (p == 2 && i > 0) {
      v[i] = v[i - 1];
    } else {
      v[i] = static_cast<uint8_t>(byte(rng));
    }
  }
  return v;
}

// A blur plane near its luma, so that small thresholds split pixels both ways, with some
// unrelated values mixed in.
Bytes BlurNear(std::mt19937& rng, const Bytes& luma) {
  std::uniform_int_distribution<int> delta(-4, 4);
  std::uniform_int_distribution<int> pick(0, 7);
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes blur(luma.size());
  for (size_t i = 0; i < luma.size(); ++i) {
    blur[i] = ClampByte(pick(rng) == 0 ? byte(rng) : luma[i] + delta(rng));
  }
  return blur;
}

// Rows (random, each with a blur near it and a chroma row) for the row kernels, and a frame for
// the whole filter: a photograph-like scene, flat stretches where nothing is sharpened next to
// edges where everything is; chroma of height / 2 rows.
struct SharpenFamily {
  static constexpr const char* kName = "Sharpen";
  using Kernels = SharpenKernels;
  static const Kernels& For(Isa isa) { return SharpenKernelsFor(isa); }

  struct Setting {
    int threshold;
    float amount;
  };
  struct Case {
    int width, height;
    Bytes rows, blur, rows_uv;  // height rows each
    Bytes luma, chroma;         // the frame
    std::vector<Setting> settings;
  };

  // Lone rows up to 33 wide meet every threshold with every amount (a third of the pairs per
  // seed, the seeds taking turns); the others the pipeline's setting and one drawn at random,
  // which keeps the walk quick under an emulator.
  static Case Make(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    const size_t plane = static_cast<size_t>(width) * height;
    Case c;
    c.width = width;
    c.height = height;
    c.rows = EdgyBytes(rng, plane);
    c.blur = BlurNear(rng, c.rows);
    c.rows_uv = EdgyBytes(rng, plane);
    c.luma = testutil::TexturedImage(width, height, seed);
    c.chroma = EdgyBytes(rng, static_cast<size_t>(width) * (height / 2));
    if (height == 1 && width <= 33) {
      uint32_t k = 0;
      for (int t : kThresholds) {
        for (float a : kAmounts) {
          if (k++ % 3 == seed % 3) c.settings.push_back({t, a});
        }
      }
    } else {
      c.settings.push_back({2, 1.0f});
      c.settings.push_back({kThresholds[rng() % std::size(kThresholds)],
                            kAmounts[rng() % std::size(kAmounts)]});
    }
    return c;
  }

  static Bytes Run(const Kernels& k, const Case& c) {
    const int w = c.width;
    Bytes out;
    auto row = [&](const Bytes& plane, int r) { return plane.data() + static_cast<size_t>(r) * w; };
    for (int r = 0; r < c.height; ++r) {
      // The first and last outputs are not written: the fill must survive.
      Bytes blurred(w, 0xC3);
      k.blur_row(row(c.rows, std::max(r - 1, 0)), row(c.rows, r),
                 row(c.rows, std::min(r + 1, c.height - 1)), blurred.data(), w);
      AppendBytes(out, blurred);
    }
    for (const Setting& s : c.settings) {
      for (int r = 0; r < c.height; ++r) {
        const Bytes src(row(c.rows, r), row(c.rows, r) + w);
        const Bytes src_uv(row(c.rows_uv, r), row(c.rows_uv, r) + w);
        const uint8_t* blur = row(c.blur, r);
        Bytes apart(w, 0x3C), in_place = src;
        k.luma_row(src.data(), blur, apart.data(), w, s.threshold, s.amount);
        k.luma_row(in_place.data(), blur, in_place.data(), w, s.threshold, s.amount);
        AppendBytes(out, apart);
        AppendBytes(out, in_place);
        // Luma and chroma each in place or apart: the re-read luma is the new value in the
        // first case and the old one in the second.
        for (int mode = 0; mode < 4; ++mode) {
          Bytes y = src, uv = src_uv, y_out(w, 0x11), uv_out(w, 0x22);
          k.chroma_row(y.data(), blur, uv.data(), mode & 1 ? y.data() : y_out.data(),
                       mode & 2 ? uv.data() : uv_out.data(), w, s.threshold, s.amount);
          for (const Bytes* b : {&y, &uv, &y_out, &uv_out}) AppendBytes(out, *b);
        }
      }
      // The whole filter, in place and apart (sources included: they are only read).
      Bytes y = c.luma, uv = c.chroma, y_out(y.size(), 0x77), uv_out(uv.size(), 0x88);
      sharpenFilter(k, y.data(), uv.data(), y_out.data(), uv_out.data(), w, c.height,
                    s.threshold, s.amount);
      sharpenFilter(k, y_out.data(), uv_out.data(), y_out.data(), uv_out.data(), w, c.height,
                    s.threshold, s.amount);
      for (const Bytes* b : {&y, &uv, &y_out, &uv_out}) AppendBytes(out, *b);
    }
    return out;
  }
};

TEST_P(KernelConformance, Sharpen) { ExpectMatchesScalar<SharpenFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
