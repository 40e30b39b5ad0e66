#include "test_util.h"

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>

namespace testutil {

std::vector<uint8_t> RandomBytes(size_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng() >> 24);
  return bytes;
}

Frame RandomFrame(int width, int height, uint32_t seed) {
  Frame frame;
  frame.width = width;
  frame.height = height;
  frame.y = RandomBytes(static_cast<size_t>(width) * height, seed);
  frame.uv = RandomBytes(static_cast<size_t>(width) * (height / 2), seed + 7919);
  return frame;
}

Frame FlatFrame(int width, int height, uint8_t value) {
  return {width, height, std::vector<uint8_t>(static_cast<size_t>(width) * height, value),
          std::vector<uint8_t>(static_cast<size_t>(width) * (height / 2), value)};
}

std::vector<uint8_t> Packed(const Frame& frame) {
  std::vector<uint8_t> bytes = frame.y;
  bytes.insert(bytes.end(), frame.uv.begin(), frame.uv.end());
  return bytes;
}

image MakeImage(Frame& frame, uint32_t format) {
  image img{};
  img.attr0 = 0xA0;
  img.attr1 = 0xA1;
  img.plane_num = 2;
  img.attr2 = 0xA2;
  img.attr3 = 0xA3;
  img.format = format;
  img.planes[0] = {1, 2, static_cast<uint32_t>(frame.width), static_cast<uint32_t>(frame.height), 3,
                   frame.y.data()};
  img.planes[1] = {4, 5, static_cast<uint32_t>(frame.width),
                   static_cast<uint32_t>(frame.height / 2), 6, frame.uv.data()};
  return img;
}

void ReferenceMean::Fold(const Frame& frame) {
  if (folded == 0) {
    y.assign(frame.y.begin(), frame.y.end());
    uv.assign(frame.uv.begin(), frame.uv.end());
  }
  const double n = folded;
  for (size_t i = 0; i < y.size(); ++i) y[i] = (y[i] * n) / (n + 1) + frame.y[i] / (n + 1);
  for (size_t i = 0; i < uv.size(); ++i) uv[i] = (uv[i] * n) / (n + 1) + frame.uv[i] / (n + 1);
  ++folded;
}

Frame ReferenceMean::Result(int width, int height) const {
  Frame out;
  out.width = width;
  out.height = height;
  for (double m : y) out.y.push_back(static_cast<uint8_t>(static_cast<int>(m)));
  for (double m : uv) out.uv.push_back(static_cast<uint8_t>(static_cast<int>(m)));
  ReferenceSharpen(out.y.data(), out.uv.data(), out.y.data(), out.uv.data(), width, height, 2, 1.0f);
  return out;
}

namespace {

int Saturate(double v) {  // truncation toward zero, saturating at the int32 limits
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return static_cast<int>(v);
}

}  // namespace

void ReferenceSharpen(const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y, uint8_t* dst_uv,
                      int width, int height, int threshold, float amount) {
  if (width < 1 || height < 1) return;
  const int w = width;
  std::vector<int> blurred(static_cast<size_t>(width) * height);
  for (int r = 0; r < height; ++r) {
    for (int x = 0; x < width; ++x) {
      const bool border = r == 0 || x == 0 || r == height - 1 || x == width - 1;
      if (border) {
        blurred[r * w + x] = src_y[r * w + x];
        continue;
      }
      int sum = 0;
      const int weights[3] = {1, 2, 1};
      for (int dr = -1; dr <= 1; ++dr)
        for (int dx = -1; dx <= 1; ++dx)
          sum += weights[dr + 1] * weights[dx + 1] * src_y[(r + dr) * w + x + dx];
      blurred[r * w + x] = sum / 16;
    }
  }
  for (int r = 0; r < height; ++r) {
    for (int x = 0; x < width; ++x) {
      const int i = r * w + x;
      const int y = src_y[i];
      const int b = blurred[i];
      const bool has_chroma = r < height / 2;
      if (std::abs(y - b) <= threshold) {
        dst_y[i] = static_cast<uint8_t>(y);
        if (has_chroma) dst_uv[i] = src_uv[i];
        continue;
      }
      const float gain = amount + 1.0f;
      const float p = gain * static_cast<float>(y);
      const float q = static_cast<float>(b) * amount;
      int n = Saturate(p - q);
      n = n < 0 ? 0 : (n > 255 ? 255 : n);
      dst_y[i] = static_cast<uint8_t>(n);
      if (has_chroma) {
        const double y2 = src_y[i];
        const float ratio = static_cast<float>(n / (y2 + 1e-5));
        const float product = static_cast<float>(src_uv[i] - 128) * ratio;
        const float cv = product + 128.0f;
        dst_uv[i] = static_cast<uint8_t>(Saturate(cv) & 0xff);
      }
    }
  }
}

std::vector<uint8_t> TexturedImage(int width, int height, uint32_t seed) {
  std::mt19937 rng(seed);
  // Raw generator output only: the standard distributions differ between libraries.
  auto unit = [&rng] { return static_cast<double>(rng() >> 8) / 16777216.0; };  // [0, 1)
  const double kTau = 6.283185307179586;
  const double w = width, h = height, side = std::min(w, h);

  // Smooth shading: a tilted plane and a slow wave, as light falls across a scene.
  const double tilt_x = 60 * unit() - 30, tilt_y = 60 * unit() - 30;
  const double phase_x = kTau * unit(), phase_y = kTau * unit();
  std::vector<double> v(static_cast<size_t>(width) * height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      v[static_cast<size_t>(y) * width + x] = 120 + tilt_x * (x / w - 0.5) +
                                              tilt_y * (y / h - 0.5) +
                                              15 * std::sin(kTau * x / w + phase_x) *
                                                  std::cos(kTau * y / h + phase_y);
    }
  }

  // Shapes painted over each other with sharp edges, sized by the image so that the number of
  // corners does not depend on the resolution: rectangles (some turned), which give corners,
  // and ellipses, which give none.
  for (int k = 0; k < 48; ++k) {
    const bool ellipse = k % 4 == 3;
    const double cx = w * unit(), cy = h * unit();
    const double a = side * (0.02 + 0.08 * unit()), b = side * (0.02 + 0.08 * unit());
    const double turn = (k % 3 == 0) ? kTau * unit() : 0.0;
    const double c = std::cos(turn), s = std::sin(turn);
    const double level = 20 + 215 * unit();
    const double reach = std::hypot(a, b);
    const int x0 = std::max(0, static_cast<int>(cx - reach));
    const int x1 = std::min(width - 1, static_cast<int>(cx + reach));
    const int y0 = std::max(0, static_cast<int>(cy - reach));
    const int y1 = std::min(height - 1, static_cast<int>(cy + reach));
    for (int y = y0; y <= y1; ++y) {
      for (int x = x0; x <= x1; ++x) {
        const double u = (x - cx) * c + (y - cy) * s, t = -(x - cx) * s + (y - cy) * c;
        const bool inside = ellipse ? (u * u) / (a * a) + (t * t) / (b * b) <= 1.0
                                    : std::abs(u) <= a && std::abs(t) <= b;
        if (inside) v[static_cast<size_t>(y) * width + x] = level + 10 * (u + t) / side;
      }
    }
  }

  // Mild sensor noise, then 8 bits.
  std::vector<uint8_t> image(v.size());
  for (size_t i = 0; i < v.size(); ++i) {
    image[i] = static_cast<uint8_t>(std::clamp(v[i] + 4 * unit() - 2, 0.0, 255.0) + 0.5);
  }
  return image;
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "velmora-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) std::abort();  // nothing sensible to test without it
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
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<float> RandomFloats(size_t count, uint32_t seed, int special_in) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> special(0, special_in - 1), kind(0, 6), small(-4, 4);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  std::uniform_int_distribution<int> expo(-20, 20);
  std::vector<float> v(count);
  for (float& f : v) {
    if (special(rng) != 0) {
      f = kind(rng) < 2 ? static_cast<float>(small(rng)) : std::ldexp(unit(rng), expo(rng));
      continue;
    }
    switch (kind(rng)) {
      case 0: f = 0.0f; break;
      case 1: f = -0.0f; break;
      case 2: f = std::numeric_limits<float>::infinity(); break;
      case 3: f = -std::numeric_limits<float>::infinity(); break;
      case 4: f = std::numeric_limits<float>::quiet_NaN(); break;
      case 5: f = 1e-40f * unit(rng); break;
      default: {
        const uint32_t b = static_cast<uint32_t>(rng());
        std::memcpy(&f, &b, 4);
      }
    }
  }
  return v;
}

}  // namespace testutil
