// The sharpen filter's row kernels and the whole filter: every vector variant this machine has
// against the scalar one, bit for bit, on random rows and frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "common/cpu.h"
#include "filters/sharpen_kernels.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

using Bytes = std::vector<uint8_t>;

// The variants to hold against the scalar definition: every other one available here.
std::vector<Isa> VectorIsas() {
  std::vector<Isa> isas = AvailableIsas();
  isas.erase(std::remove(isas.begin(), isas.end(), Isa::kScalar), isas.end());
  return isas;
}

std::vector<int> Widths() {
  std::vector<int> widths;
  for (int w = 1; w <= 33; ++w) widths.push_back(w);
  widths.push_back(640);
  widths.push_back(1920);
  return widths;
}

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
Bytes RandomBytes(std::mt19937& rng, size_t count) {
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

// A smooth scene with noise and the odd outlier: flat stretches where nothing is sharpened next
// to edges where everything is.
Bytes SceneLuma(std::mt19937& rng, int width, int height) {
  std::uniform_int_distribution<int> noise(-3, 3);
  std::uniform_int_distribution<int> pick(0, 15);
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes luma(static_cast<size_t>(width) * height);
  for (int r = 0; r < height; ++r) {
    for (int x = 0; x < width; ++x) {
      int v = static_cast<int>(128 + 120 * std::sin(x * 0.05) * std::cos(r * 0.07)) + noise(rng);
      if (pick(rng) == 0) v = byte(rng);
      luma[static_cast<size_t>(r) * width + x] = ClampByte(v);
    }
  }
  return luma;
}

int64_t FirstDifference(const Bytes& a, const Bytes& b) {
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return static_cast<int64_t>(i);
  }
  return -1;
}

#define EXPECT_SAME_BYTES(expected, actual)                                                \
  do {                                                                                     \
    const int64_t at_ = FirstDifference(expected, actual);                                 \
    EXPECT_EQ(at_, -1) << #actual << "[" << at_ << "]: " << int{(expected)[at_]} << " vs " \
                       << int{(actual)[at_]};                                              \
  } while (0)

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(SharpenKernelsTest);

class SharpenKernelsTest : public ::testing::TestWithParam<Isa> {
 protected:
  SharpenKernels kernels_ = SharpenKernelsFor(GetParam());
  SharpenKernels plain_ = SharpenKernelsFor(Isa::kScalar);
};

TEST_P(SharpenKernelsTest, BlurRowMatchesScalar) {
  std::mt19937 rng(21);
  for (int width : Widths()) {
    SCOPED_TRACE("width " + std::to_string(width));
    const Bytes above = RandomBytes(rng, width), row = RandomBytes(rng, width),
                below = RandomBytes(rng, width);
    // The first and last outputs are not written: the sentinels must survive in both.
    Bytes expected(width, 0xC3), actual(width, 0xC3);
    plain_.blur_row(above.data(), row.data(), below.data(), expected.data(), width);
    kernels_.blur_row(above.data(), row.data(), below.data(), actual.data(), width);
    EXPECT_SAME_BYTES(expected, actual);
  }
}

TEST_P(SharpenKernelsTest, LumaRowMatchesScalar) {
  std::mt19937 rng(22);
  for (int width : Widths()) {
    const Bytes src = RandomBytes(rng, width);
    const Bytes blur = BlurNear(rng, src);
    for (int threshold : kThresholds) {
      for (float amount : kAmounts) {
        SCOPED_TRACE("width " + std::to_string(width) + " threshold " + std::to_string(threshold) +
                     " amount " + std::to_string(amount));
        Bytes expected(width, 0x3C), actual(width, 0x3C);
        plain_.luma_row(src.data(), blur.data(), expected.data(), width, threshold, amount);
        kernels_.luma_row(src.data(), blur.data(), actual.data(), width, threshold, amount);
        EXPECT_SAME_BYTES(expected, actual);

        Bytes in_place = src;
        kernels_.luma_row(in_place.data(), blur.data(), in_place.data(), width, threshold, amount);
        EXPECT_SAME_BYTES(expected, in_place);
      }
    }
  }
}

TEST_P(SharpenKernelsTest, ChromaRowMatchesScalarInPlaceAndApart) {
  std::mt19937 rng(23);
  for (int width : Widths()) {
    const Bytes src_y = RandomBytes(rng, width);
    const Bytes blur = BlurNear(rng, src_y);
    const Bytes src_uv = RandomBytes(rng, width);
    for (int threshold : kThresholds) {
      for (float amount : kAmounts) {
        // Luma and chroma each either in place or into a buffer of their own: the re-read luma
        // is the new value in the first case and the old one in the second.
        for (int mode = 0; mode < 4; ++mode) {
          const bool y_in_place = mode & 1, uv_in_place = mode & 2;
          SCOPED_TRACE("width " + std::to_string(width) + " threshold " +
                       std::to_string(threshold) + " amount " + std::to_string(amount) +
                       (y_in_place ? " luma in place" : "") +
                       (uv_in_place ? " chroma in place" : ""));
          Bytes runs[2][4];  // scalar, variant: source luma, source chroma, luma out, chroma out
          const SharpenChromaRowFn fns[2] = {plain_.chroma_row, kernels_.chroma_row};
          for (int k = 0; k < 2; ++k) {
            Bytes* b = runs[k];
            b[0] = src_y;
            b[1] = src_uv;
            b[2] = Bytes(width, 0x11);
            b[3] = Bytes(width, 0x22);
            uint8_t* dst_y = y_in_place ? b[0].data() : b[2].data();
            uint8_t* dst_uv = uv_in_place ? b[1].data() : b[3].data();
            fns[k](b[0].data(), blur.data(), b[1].data(), dst_y, dst_uv, width, threshold, amount);
          }
          for (int i = 0; i < 4; ++i) EXPECT_SAME_BYTES(runs[0][i], runs[1][i]);
        }
      }
    }
  }
}

// Forces the kernel choice of the filter for the life of the object.
class ScopedIsa {
 public:
  explicit ScopedIsa(Isa isa) {
    if (const char* old = std::getenv("VELMORA_ISA")) saved_ = old, had_ = true;
    setenv("VELMORA_ISA", IsaName(isa), 1);
  }
  ~ScopedIsa() {
    if (had_) {
      setenv("VELMORA_ISA", saved_.c_str(), 1);
    } else {
      unsetenv("VELMORA_ISA");
    }
  }

 private:
  std::string saved_;
  bool had_ = false;
};

struct Frame {
  Bytes y, uv;
};

Frame Sharpened(Isa isa, const Frame& src, int width, int height, int threshold, float amount,
                bool in_place) {
  const ScopedIsa forced(isa);
  if (in_place) {
    Frame f = src;
    sharpenFilter(f.y.data(), f.uv.data(), f.y.data(), f.uv.data(), width, height, threshold,
                  amount);
    return f;
  }
  Frame in = src;
  Frame out{Bytes(src.y.size(), 0x77), Bytes(src.uv.size(), 0x88)};
  sharpenFilter(in.y.data(), in.uv.data(), out.y.data(), out.uv.data(), width, height, threshold,
                amount);
  EXPECT_SAME_BYTES(src.y, in.y);  // the sources are only read
  EXPECT_SAME_BYTES(src.uv, in.uv);
  return out;
}

TEST_P(SharpenKernelsTest, WholeFilterMatchesScalar) {
  struct Size {
    int width, height;
  };
  const Size sizes[] = {{1, 1},  {2, 5},   {3, 3},   {5, 2},   {16, 3},  {17, 9},
                        {31, 7}, {33, 33}, {64, 11}, {97, 13}, {640, 5}, {1920, 1080}};
  const struct {
    int threshold;
    float amount;
  } settings[] = {{2, 1.0f}, {-1, 0.0f}, {0, -2.5f}, {5, 1e30f}, {300, 1.0f}};
  std::mt19937 rng(24);
  for (const Size& s : sizes) {
    // Chroma rows are height / 2 of width bytes; the buffers end exactly where the planes do.
    const Frame src{SceneLuma(rng, s.width, s.height),
                    RandomBytes(rng, static_cast<size_t>(s.width) * (s.height / 2))};
    for (const auto& setting : settings) {
      // A full-size frame is slow in unoptimised builds: the pipeline's own setting covers it.
      if (s.width >= 1920 && setting.threshold != 2) continue;
      for (bool in_place : {true, false}) {
        SCOPED_TRACE(std::to_string(s.width) + "x" + std::to_string(s.height) + " threshold " +
                     std::to_string(setting.threshold) + " amount " +
                     std::to_string(setting.amount) + (in_place ? " in place" : " apart"));
        const Frame expected = Sharpened(Isa::kScalar, src, s.width, s.height, setting.threshold,
                                         setting.amount, in_place);
        const Frame actual = Sharpened(GetParam(), src, s.width, s.height, setting.threshold,
                                       setting.amount, in_place);
        EXPECT_SAME_BYTES(expected.y, actual.y);
        EXPECT_SAME_BYTES(expected.uv, actual.uv);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllIsas, SharpenKernelsTest, ::testing::ValuesIn(VectorIsas()),
                         [](const ::testing::TestParamInfo<Isa>& info) {
                           return IsaName(info.param);
                         });

}  // namespace
}  // namespace velmora
