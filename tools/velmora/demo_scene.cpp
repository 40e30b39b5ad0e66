#include "demo_scene.h"

#include <algorithm>
#include <cmath>

namespace velmora::tool {

namespace {

constexpr int kW = static_cast<int>(DemoScene::kWidth);
constexpr int kH = static_cast<int>(DemoScene::kHeight);
constexpr float kPi = 3.14159265f;
constexpr float kFlowPerFrame = 26.0f;  // pixels the water travels between frames

struct Color {
  float r, g, b;
};

Color Mix(Color a, Color b, float t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

Color Scale(Color c, float s) { return {c.r * s, c.g * s, c.b * s}; }

float SmoothStep(float edge0, float edge1, float x) {
  const float t = std::clamp((x - edge0) / (edge1 - edge0), 0.0f, 1.0f);
  return t * t * (3.0f - 2.0f * t);
}

// Integer hashing keeps the scene identical on every machine and run.
uint32_t Hash(int32_t x, int32_t y, uint32_t seed) {
  uint32_t h = seed * 0x9E3779B9u ^ static_cast<uint32_t>(x) * 0x85EBCA6Bu ^
               static_cast<uint32_t>(y) * 0xC2B2AE35u;
  h ^= h >> 16;
  h *= 0x7FEB352Du;
  h ^= h >> 15;
  h *= 0x846CA68Bu;
  h ^= h >> 16;
  return h;
}

float Random01(int32_t x, int32_t y, uint32_t seed) {
  return static_cast<float>(Hash(x, y, seed) >> 8) * (1.0f / 16777216.0f);
}

float ValueNoise(float x, float y, uint32_t seed) {
  const float fx = std::floor(x), fy = std::floor(y);
  const int32_t ix = static_cast<int32_t>(fx), iy = static_cast<int32_t>(fy);
  const float tx = SmoothStep(0.0f, 1.0f, x - fx), ty = SmoothStep(0.0f, 1.0f, y - fy);
  const float top =
      Random01(ix, iy, seed) + (Random01(ix + 1, iy, seed) - Random01(ix, iy, seed)) * tx;
  const float bottom = Random01(ix, iy + 1, seed) +
                       (Random01(ix + 1, iy + 1, seed) - Random01(ix, iy + 1, seed)) * tx;
  return top + (bottom - top) * ty;
}

// Fractal noise in 0..1: octaves of value noise, each twice as fine and half as strong.
float Fbm(float x, float y, uint32_t seed, int octaves) {
  float sum = 0.0f, amplitude = 0.5f, norm = 0.0f;
  for (int k = 0; k < octaves; ++k) {
    sum += amplitude * ValueNoise(x, y, seed + static_cast<uint32_t>(k));
    norm += amplitude;
    x *= 2.03f;
    y *= 2.03f;
    amplitude *= 0.5f;
  }
  return sum / norm;
}

// The outlines of the landscape, as the row where each band begins in column x.
float HillLine(float x) {
  return 170.0f + 35.0f * std::sin(x * 0.0045f + 0.6f) + 14.0f * std::sin(x * 0.013f + 2.0f);
}
float RiverTop(float x) {
  return 345.0f + 14.0f * std::sin(x * 0.007f + 0.3f) + 6.0f * std::sin(x * 0.023f);
}
float RiverBottom(float x) {
  return 590.0f + 20.0f * std::sin(x * 0.0052f + 2.1f) + 7.0f * std::sin(x * 0.019f);
}

// A row of conifers: each cell of kTreeCell columns holds one triangular tree.
constexpr int kTreeCell = 17;
float ForestTop(float x) {
  const float ground = 262.0f + 16.0f * std::sin(x * 0.009f) + 8.0f * std::sin(x * 0.031f + 1.3f);
  const int cell = static_cast<int>(std::floor(x / kTreeCell));
  float top = ground;
  for (int c = cell - 2; c <= cell + 2; ++c) {
    const float centre = (c + 0.2f + 0.6f * Random01(c, 0, 7)) * kTreeCell;
    const float height = 28.0f + 46.0f * Random01(c, 1, 7);
    const float half_width = 0.32f * height;
    const float tip = ground - height;
    top = std::min(top, tip + height * std::fabs(x - centre) / half_width);
  }
  return top;
}

struct Rock {
  float cx, cy, rx, ry;
  uint32_t seed;
  Color tint;
  bool in_river;
};

const Rock kRocks[] = {
    {250, 470, 85, 52, 1, {118, 110, 102}, true},  {560, 420, 46, 30, 2, {105, 102, 98}, true},
    {700, 520, 110, 62, 3, {124, 116, 104}, true}, {980, 450, 60, 40, 4, {112, 108, 100}, true},
    {1150, 545, 70, 44, 5, {120, 112, 100}, true}, {420, 560, 38, 24, 6, {100, 98, 94}, true},
    {60, 610, 120, 70, 7, {130, 122, 108}, false}, {1220, 350, 90, 48, 8, {116, 112, 104}, false},
};

// Where (x, y) falls on a rock: its coverage (0..1, anti-aliased over about a pixel), the
// shaded colour, and q, the distance from the centre in rock radii (1 on the outline).
struct RockHit {
  float coverage = 0.0f;
  Color color{0, 0, 0};
};

RockHit ShadeRock(const Rock& rock, float x, float y) {
  const float px = (x - rock.cx) / rock.rx, py = (y - rock.cy) / rock.ry;
  const float angle = std::atan2(py, px);
  const float s = static_cast<float>(rock.seed);
  const float outline =
      1.0f + 0.07f * std::sin(3.0f * angle + s) + 0.04f * std::sin(7.0f * angle + 2.0f * s);
  const float q = std::sqrt(px * px + py * py) / outline;
  RockHit hit;
  hit.coverage = SmoothStep(0.5f, -0.5f, (q - 1.0f) * std::min(rock.rx, rock.ry));
  if (hit.coverage <= 0.0f) return hit;

  // Lit from the upper left as a rounded boulder, with grain and a few darker blotches.
  const float height = std::sqrt(std::max(0.0f, 1.0f - std::min(q, 1.0f) * std::min(q, 1.0f)));
  const float nx = px / outline, ny = py / outline;
  const float norm = std::sqrt(nx * nx + ny * ny + height * height) + 1e-6f;
  const float diffuse = std::max(0.0f, (-0.5f * nx - 0.7f * ny + 0.5f * height) / norm / 0.995f);
  const float grain = 0.82f + 0.3f * Fbm(x / 5.0f, y / 5.0f, rock.seed * 31u, 3);
  const float blotch = 0.85f + 0.25f * Fbm(x / 40.0f, y / 40.0f, rock.seed * 17u, 2);
  hit.color = Scale(rock.tint, (0.3f + 0.85f * diffuse) * grain * blotch);
  return hit;
}

// Sand with pebbles: one pebble in each cell of kPebbleCell pixels, of its own size and shade.
constexpr int kPebbleCell = 26;
Color Shore(float x, float y) {
  const Color sand{168, 150, 118};
  Color c = Scale(sand, 0.9f + 0.2f * Fbm(x / 9.0f, y / 9.0f, 41, 2));
  const int cx = static_cast<int>(std::floor(x / kPebbleCell));
  const int cy = static_cast<int>(std::floor(y / kPebbleCell));
  for (int j = cy - 1; j <= cy + 1; ++j) {
    for (int i = cx - 1; i <= cx + 1; ++i) {
      const float px = (i + 0.2f + 0.6f * Random01(i, j, 51)) * kPebbleCell;
      const float py = (j + 0.2f + 0.6f * Random01(i, j, 52)) * kPebbleCell;
      const float r = 6.0f + 8.0f * Random01(i, j, 53);
      const float dx = x - px, dy = (y - py) * 1.3f;
      const float d = std::sqrt(dx * dx + dy * dy);
      const float coverage = SmoothStep(r + 0.5f, r - 0.5f, d);
      if (coverage <= 0.0f) continue;
      const float tone = 0.55f + 0.6f * Random01(i, j, 54);
      const Color stone = Scale(Color{150, 140, 128}, tone * (1.05f - 0.35f * d / r));
      c = Mix(c, stone, coverage);
    }
  }
  return c;
}

Color Sky(float x, float y) {
  const float t = y / 240.0f;
  const Color sky = Mix(Color{88, 132, 196}, Color{206, 216, 228}, std::clamp(t, 0.0f, 1.0f));
  const float cloud = SmoothStep(0.5f, 0.8f, Fbm(x / 260.0f, y / 70.0f, 61, 4));
  return Mix(sky, Color{238, 240, 244}, 0.8f * cloud);
}

// Everything but the moving water surface at (x, y).
Color Land(float x, float y) {
  if (y < HillLine(x)) return Sky(x, y);
  if (y < ForestTop(x)) {
    const float haze = Fbm(x / 120.0f, y / 60.0f, 71, 3);
    return Mix(Color{92, 112, 132}, Color{120, 138, 150}, haze);
  }
  const float top = RiverTop(x);
  if (y < top - 24.0f) {
    const float leaves = 0.7f + 0.6f * Fbm(x / 6.0f, y / 4.0f, 81, 3);
    return Scale(Color{42, 74, 46}, leaves);
  }
  if (y < RiverBottom(x) - 2.0f) {
    // Grassy bank, then the river bed seen at the water's edge.
    const float mud = Fbm(x / 14.0f, y / 6.0f, 91, 3);
    return y < top ? Mix(Color{92, 104, 58}, Color{110, 96, 70}, mud) : Color{70, 72, 66};
  }
  return Shore(x, y);
}

uint8_t ToByte(float v) {
  return static_cast<uint8_t>(std::clamp(std::floor(v + 0.5f), 0.0f, 255.0f));
}

}  // namespace

DemoScene::DemoScene(bool shake)
    : shake_(shake),
      still_(size_t{kW} * kH * 3),
      water_(size_t{kW} * kH),
      turbulence_(size_t{kW} * kH),
      rgb_(size_t{kW} * kH * 3) {
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      const size_t i = size_t(y) * kW + x;
      const float fx = x + 0.5f, fy = y + 0.5f;
      Color c = Land(fx, fy);
      float water = SmoothStep(-0.5f, 0.5f, fy - RiverTop(fx)) *
                    SmoothStep(-0.5f, 0.5f, RiverBottom(fx) - fy);
      float turbulence = 0.0f;
      for (const Rock& rock : kRocks) {
        const RockHit hit = ShadeRock(rock, fx, fy);
        c = Mix(c, hit.color, hit.coverage);
        water *= 1.0f - hit.coverage;
        if (rock.in_river) {
          // White water hugs each rock and trails downstream (to the right).
          const float reach = x > rock.cx ? 2.4f : 1.1f;
          const float dx = (fx - rock.cx) / (rock.rx * reach),
                      dy = (fy - rock.cy) / (rock.ry * 1.15f);
          const float q = std::sqrt(dx * dx + dy * dy);
          turbulence = std::max(turbulence, std::exp(-3.0f * std::max(0.0f, q - 0.9f)));
        }
      }
      still_[3 * i] = c.r;
      still_[3 * i + 1] = c.g;
      still_[3 * i + 2] = c.b;
      water_[i] = water;
      turbulence_[i] = turbulence;
    }
  }
}

bool DemoScene::next(uint8_t* frame, std::string* error) {
  if (next_frame_ >= kFrames) {
    error->clear();
    return false;
  }
  render(frame, next_frame_, shake_);
  ++next_frame_;
  return true;
}

void DemoScene::stillScene(uint8_t* frame) { render(frame, 0, false); }

std::vector<uint8_t> DemoScene::stillRegion(int margin) const {
  // A square of side 2 * margin + 1 around each pixel, as a row pass then a column pass.
  std::vector<uint8_t> rows(size_t{kW} * kH), still(size_t{kW} * kH);
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      bool wet = false;
      for (int k = std::max(0, x - margin); k <= std::min(kW - 1, x + margin) && !wet; ++k) {
        wet = water_[size_t(y) * kW + k] > 0.0f;
      }
      rows[size_t(y) * kW + x] = wet;
    }
  }
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      bool wet = false;
      for (int k = std::max(0, y - margin); k <= std::min(kH - 1, y + margin) && !wet; ++k) {
        wet = rows[size_t(k) * kW + x] != 0;
      }
      still[size_t(y) * kW + x] = !wet;
    }
  }
  return still;
}

void DemoScene::render(uint8_t* frame, size_t index, bool shake) {
  const float t = static_cast<float>(index);
  // The hand's motion: up to 6 pixels each way and 0.3 degrees about the centre, the first
  // frame steady (it is the one the others are aligned to).
  float turn = 0.0f, shift_x = 0.0f, shift_y = 0.0f;
  if (shake && index > 0) {
    const int32_t k = static_cast<int32_t>(index);
    turn = (Random01(k, 0, 201) - 0.5f) * 0.6f * kPi / 180.0f;
    shift_x = (Random01(k, 1, 201) - 0.5f) * 12.0f;
    shift_y = (Random01(k, 2, 201) - 0.5f) * 12.0f;
  }
  const float cos_turn = std::cos(turn), sin_turn = std::sin(turn);

  if (!shake) std::copy(still_.begin(), still_.end(), rgb_.begin());
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      const size_t i = size_t(y) * kW + x;
      float fx = x + 0.5f, fy = y + 0.5f;
      size_t at = i;  // the scene pixel under this one
      if (shake) {
        const float cx = fx - 0.5f * kW, cy = fy - 0.5f * kH;
        fx = 0.5f * kW + cos_turn * cx - sin_turn * cy + shift_x;
        fy = 0.5f * kH + sin_turn * cx + cos_turn * cy + shift_y;
        // Bilinear in the still picture, edges repeated.
        const float sx = std::clamp(fx - 0.5f, 0.0f, kW - 1.0f);
        const float sy = std::clamp(fy - 0.5f, 0.0f, kH - 1.0f);
        const int x0 = std::min(static_cast<int>(sx), kW - 2);
        const int y0 = std::min(static_cast<int>(sy), kH - 2);
        const float ax = sx - x0, ay = sy - y0;
        for (int c = 0; c < 3; ++c) {
          auto p = [&](int xx, int yy) { return still_[3 * (size_t(yy) * kW + xx) + c]; };
          rgb_[3 * i + c] = (1 - ay) * ((1 - ax) * p(x0, y0) + ax * p(x0 + 1, y0)) +
                            ay * ((1 - ax) * p(x0, y0 + 1) + ax * p(x0 + 1, y0 + 1));
        }
        at = size_t(std::min(static_cast<int>(sy + 0.5f), kH - 1)) * kW +
             std::min(static_cast<int>(sx + 0.5f), kW - 1);
      }
      if (water_[at] <= 0.0f) continue;
      // Long streaks carried along by the current, and a churn that changes as it goes.
      const float u = fx - kFlowPerFrame * t;
      const float streak = Fbm(u / 110.0f, fy / 14.0f, 101, 4);
      const float churn =
          Fbm((fx - 1.6f * kFlowPerFrame * t) / 45.0f, fy / 20.0f + 0.35f * t, 111, 3);
      const float foam =
          SmoothStep(0.5f, 0.78f, 0.6f * streak + 0.4f * churn + 0.3f * turbulence_[at]);
      const float depth =
          SmoothStep(0.0f, 60.0f, std::min(fy - RiverTop(fx), RiverBottom(fx) - fy));
      const float ripple = 0.5f + 0.5f * std::sin(u * 0.09f + 2.0f * kPi * churn + fy * 0.05f);
      const Color body =
          Mix(Color{62, 100, 106}, Color{26, 58, 72}, depth * (0.85f + 0.15f * ripple));
      const Color surface = Mix(body, Color{232, 240, 242}, foam);
      const Color under{rgb_[3 * i], rgb_[3 * i + 1], rgb_[3 * i + 2]};
      const Color c = Mix(under, surface, water_[at]);
      rgb_[3 * i] = c.r;
      rgb_[3 * i + 1] = c.g;
      rgb_[3 * i + 2] = c.b;
    }
  }

  // Full-range BT.601, the camera convention, with each 2x2 block sharing its chroma pair.
  uint8_t* luma = frame;
  uint8_t* chroma = frame + size_t{kW} * kH;
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      const float* p = &rgb_[3 * (size_t(y) * kW + x)];
      float v = 0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2];
      if (shake) {
        // Sensor noise, about 3 levels of spread: four uniform draws summed.
        const int32_t k = static_cast<int32_t>(index);
        const float u = Random01(x, y, 301 + 4 * k) + Random01(x, y, 302 + 4 * k) +
                        Random01(x, y, 303 + 4 * k) + Random01(x, y, 304 + 4 * k);
        v += (u - 2.0f) * 5.2f;
      }
      luma[size_t(y) * kW + x] = ToByte(v);
    }
  }
  for (int y = 0; y < kH; y += 2) {
    for (int x = 0; x < kW; x += 2) {
      float r = 0, g = 0, b = 0;
      for (int dy = 0; dy < 2; ++dy) {
        for (int dx = 0; dx < 2; ++dx) {
          const float* p = &rgb_[3 * (size_t(y + dy) * kW + x + dx)];
          r += 0.25f * p[0];
          g += 0.25f * p[1];
          b += 0.25f * p[2];
        }
      }
      uint8_t* pair = chroma + size_t(y / 2) * kW + x;
      pair[0] = ToByte(128.0f - 0.168736f * r - 0.331264f * g + 0.5f * b);
      pair[1] = ToByte(128.0f + 0.5f * r - 0.418688f * g - 0.081312f * b);
    }
  }
}

}  // namespace velmora::tool
