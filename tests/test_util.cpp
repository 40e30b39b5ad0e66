#include "test_util.h"

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace testutil {

std::vector<uint8_t> RandomBytes(size_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng() >> 24);
  return bytes;
}

Frame RandomFrame(int width, int height, uint32_t seed) {
  return {width, height, RandomBytes(size_t(width) * height, seed),
          RandomBytes(size_t(width) * (height / 2), seed + 7919)};
}

Frame FlatFrame(int width, int height, uint8_t value) {
  return {width, height, std::vector<uint8_t>(size_t(width) * height, value),
          std::vector<uint8_t>(size_t(width) * (height / 2), value)};
}

std::vector<uint8_t> Packed(const Frame& frame) {
  std::vector<uint8_t> bytes = frame.y;
  bytes.insert(bytes.end(), frame.uv.begin(), frame.uv.end());
  return bytes;
}

image MakeImage(Frame& frame, uint32_t format) {
  const auto w = static_cast<uint32_t>(frame.width), h = static_cast<uint32_t>(frame.height);
  return {0xA0, 0xA1, 2, 0xA2, 0xA3, format,
          {{1, 2, w, h, 3, frame.y.data()}, {4, 5, w, h / 2, 6, frame.uv.data()}}};
}

void ReferenceMean::Fold(const Frame& frame) {
  y.resize(frame.y.size());  // zeros, so the first fold gives the frame itself
  uv.resize(frame.uv.size());
  const double n = folded++;
  for (size_t i = 0; i < y.size(); ++i) y[i] = (y[i] * n) / (n + 1) + frame.y[i] / (n + 1);
  for (size_t i = 0; i < uv.size(); ++i) uv[i] = (uv[i] * n) / (n + 1) + frame.uv[i] / (n + 1);
}

Frame ReferenceMean::Result(int width, int height) const {
  Frame out{width, height, {}, {}};
  for (double m : y) out.y.push_back(static_cast<uint8_t>(static_cast<int>(m)));
  for (double m : uv) out.uv.push_back(static_cast<uint8_t>(static_cast<int>(m)));
  ReferenceSharpen(out.y.data(), out.uv.data(), out.y.data(), out.uv.data(), width, height, 2,
                   1.0f);
  return out;
}

void ReferenceSharpen(const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y, uint8_t* dst_uv,
                      int width, int height, int threshold, float amount) {
  const int w = width, kWeight[3] = {1, 2, 1};
  // Truncation toward zero, saturating at the int32 limits.
  const auto saturate = [](double v) {
    return v >= 2147483647.0 ? INT32_MAX : v <= -2147483648.0 ? INT32_MIN : static_cast<int>(v);
  };
  std::vector<int> blurred(src_y, src_y + size_t(w) * height);  // the whole blur before any write
  for (int r = 1; r < height - 1; ++r) {
    for (int x = 1; x < w - 1; ++x) {
      int sum = 0;
      for (int k = 0; k < 9; ++k)
        sum += kWeight[k / 3] * kWeight[k % 3] * src_y[(r - 1 + k / 3) * w + x - 1 + k % 3];
      blurred[r * w + x] = sum / 16;
    }
  }
  for (int i = 0; i < w * height; ++i) {
    const int y = src_y[i], b = blurred[i];
    const bool has_chroma = i / w < height / 2;
    if (std::abs(y - b) <= threshold) {
      dst_y[i] = static_cast<uint8_t>(y);
      if (has_chroma) dst_uv[i] = src_uv[i];
      continue;
    }
    const float p = (amount + 1.0f) * static_cast<float>(y), q = static_cast<float>(b) * amount;
    const int n = std::clamp(saturate(p - q), 0, 255);
    dst_y[i] = static_cast<uint8_t>(n);
    if (has_chroma) {
      const float ratio = static_cast<float>(n / (src_y[i] + 1e-5));  // re-read: in place
      const float product = static_cast<float>(src_uv[i] - 128) * ratio;
      dst_uv[i] = static_cast<uint8_t>(saturate(product + 128.0f) & 0xff);
    }
  }
}

std::vector<uint8_t> TexturedImage(int width, int height, uint32_t seed) {
  std::mt19937 rng(seed);
  // [0, 1) from raw generator output: the standard distributions differ between libraries.
  auto unit = [&rng] { return static_cast<double>(rng() >> 8) / 16777216.0; };
  const double kTau = 6.283185307179586;
  const double w = width, h = height, side = std::min(w, h);

  // Smooth shading: a tilted plane and a slow wave.
  const double tilt_x = 60 * unit() - 30, tilt_y = 60 * unit() - 30;
  const double phase_x = kTau * unit(), phase_y = kTau * unit();
  std::vector<double> v(size_t(width) * height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      v[size_t(y) * width + x] = 120 + tilt_x * (x / w - 0.5) + tilt_y * (y / h - 0.5) +
                                 15 * std::sin(kTau * x / w + phase_x) *
                                     std::cos(kTau * y / h + phase_y);
  // Sharp-edged shapes sized by the image, so that the count of corners does not depend on it.
  for (int k = 0; k < 48; ++k) {
    const bool ellipse = k % 4 == 3;
    const double cx = w * unit(), cy = h * unit();
    const double a = side * (0.02 + 0.08 * unit()), b = side * (0.02 + 0.08 * unit());
    const double turn = (k % 3 == 0) ? kTau * unit() : 0.0;
    const double c = std::cos(turn), s = std::sin(turn);
    const double level = 20 + 215 * unit(), reach = std::hypot(a, b);
    for (int y = std::max(0, int(cy - reach)); y <= std::min(height - 1, int(cy + reach)); ++y)
      for (int x = std::max(0, int(cx - reach)); x <= std::min(width - 1, int(cx + reach)); ++x) {
        const double u = (x - cx) * c + (y - cy) * s, t = -(x - cx) * s + (y - cy) * c;
        const bool inside = ellipse ? (u * u) / (a * a) + (t * t) / (b * b) <= 1.0
                                    : std::abs(u) <= a && std::abs(t) <= b;
        if (inside) v[size_t(y) * width + x] = level + 10 * (u + t) / side;
      }
  }
  // Mild sensor noise, then 8 bits.
  std::vector<uint8_t> image(v.size());
  for (size_t i = 0; i < v.size(); ++i)
    image[i] = static_cast<uint8_t>(std::clamp(v[i] + 4 * unit() - 2, 0.0, 255.0) + 0.5);
  return image;
}

std::vector<float> RandomFloats(size_t count, uint32_t seed, int special_in) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> special(0, special_in - 1), kind(0, 6), small(-4, 4);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  std::uniform_int_distribution<int> expo(-20, 20);
  const float specials[] = {0.0f, -0.0f, INFINITY, -INFINITY, NAN};
  std::vector<float> v(count);
  for (float& f : v) {
    if (special(rng) != 0) {
      f = kind(rng) < 2 ? static_cast<float>(small(rng)) : std::ldexp(unit(rng), expo(rng));
      continue;
    }
    const int k = kind(rng);
    if (k == 6) {
      const uint32_t b = static_cast<uint32_t>(rng());
      std::memcpy(&f, &b, 4);
      continue;
    }
    f = k < 5 ? specials[k] : 1e-40f * unit(rng);  // the last a subnormal
  }
  return v;
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "velmora-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) abort();  // nothing sensible to test without it
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::List() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace testutil
