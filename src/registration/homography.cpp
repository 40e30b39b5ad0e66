// Homography fit by the normalised direct linear transform, on a Jacobi eigen solver.
#include <cmath>
#include <cstring>
#include <utility>

#include "velmora/homography.h"

namespace {

// The solver's matrices keep a row stride of 9 whatever their order: it only ever sees the 9x9
// normal matrix, and its index tables are sized for that.
constexpr int kStride = 9;

// Column m > k of the largest |A[k][m]|; an equal value later in the row does not replace it.
template <typename T>
int RowMaxIndex(const T* A, int k, int n) {
  int m = k + 1;
  T mv = std::abs(A[k * kStride + m]);
  for (int i = k + 2; i < n; ++i) {
    const T v = std::abs(A[k * kStride + i]);
    if (v > mv) {
      mv = v;
      m = i;
    }
  }
  return m;
}

// Row m < k of the largest |A[m][k]|, same tie rule.
template <typename T>
int ColumnMaxIndex(const T* A, int k) {
  int m = 0;
  T mv = std::abs(A[k]);
  for (int i = 1; i < k; ++i) {
    const T v = std::abs(A[i * kStride + k]);
    if (v > mv) {
      mv = v;
      m = i;
    }
  }
  return m;
}

template <typename T>
inline void Rotate(T& a, T& b, T c, T s) {
  const T a0 = a, b0 = b;
  a = a0 * c - b0 * s;
  b = a0 * s + b0 * c;
}

// out = a * b, each element summed left to right.
void Multiply3x3(const double* a, const double* b, double* out) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      out[r * 3 + c] = a[r * 3 + 0] * b[0 * 3 + c] + a[r * 3 + 1] * b[1 * 3 + c] +
                       a[r * 3 + 2] * b[2 * 3 + c];
    }
  }
}

}  // namespace

template <typename T>
bool JacobiImpl_(T* A, T* W, T* V, int n) {
  if (V && n >= 1) {
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) V[i * kStride + j] = T(0);
      V[i * kStride + i] = T(1);
    }
  }
  // The cached maxima are only refreshed for the two indices a rotation pivots on; the other rows
  // keep possibly stale entries, which the pivot search accepts as they are.
  int indR[kStride];
  int indC[kStride];
  const int max_iters = n * n * 30;
  const T eps = T(2.220446049250313e-16);

  for (int k = 0; k < n; ++k) {
    W[k] = A[k * kStride + k];
    if (k < n - 1) indR[k] = RowMaxIndex(A, k, n);
    if (k > 0) indC[k] = ColumnMaxIndex(A, k);
  }

  if (n > 1) {
    for (int iter = 0; iter < max_iters; ++iter) {
      int k = 0, l = indR[0];
      T mv = std::abs(A[indR[0]]);
      for (int i = 1; i < n - 1; ++i) {
        const T v = std::abs(A[i * kStride + indR[i]]);
        if (v > mv) {
          mv = v;
          k = i;
          l = indR[i];
        }
      }
      for (int i = 1; i < n; ++i) {
        const T v = std::abs(A[indC[i] * kStride + i]);
        if (v > mv) {
          mv = v;
          k = indC[i];
          l = i;
        }
      }

      const T p = A[k * kStride + l];
      if (std::abs(p) <= eps) break;
      const T y = (W[l] - W[k]) * T(0.5);
      T t = std::abs(y) + std::hypot(p, y);
      T s = std::hypot(p, t);
      const T c = t / s;
      s = p / s;
      t = (p / t) * p;
      if (y < 0) {
        s = -s;
        t = -t;
      }
      A[k * kStride + l] = T(0);
      W[k] -= t;
      W[l] += t;

      for (int i = 0; i < k; ++i) Rotate(A[i * kStride + k], A[i * kStride + l], c, s);
      for (int i = k + 1; i < l; ++i) Rotate(A[k * kStride + i], A[i * kStride + l], c, s);
      for (int i = l + 1; i < n; ++i) Rotate(A[k * kStride + i], A[l * kStride + i], c, s);
      if (V) {
        for (int i = 0; i < n; ++i) Rotate(V[k * kStride + i], V[l * kStride + i], c, s);
      }

      for (const int j : {k, l}) {
        if (j < n - 1) indR[j] = RowMaxIndex(A, j, n);
        if (j > 0) indC[j] = ColumnMaxIndex(A, j);
      }
    }
  }

  // Selection sort, descending; an equal value later on does not displace the current pick.
  for (int k = 0; k < n - 1; ++k) {
    int m = k;
    for (int i = k + 1; i < n; ++i) {
      if (W[i] > W[m]) m = i;
    }
    if (m != k) {
      std::swap(W[m], W[k]);
      if (V) {
        for (int i = 0; i < n; ++i) std::swap(V[m * kStride + i], V[k * kStride + i]);
      }
    }
  }
  return true;
}

template bool JacobiImpl_<double>(double* A, double* W, double* V, int n);

int runKernel(int count, Point2D64f* m1, Point2D64f* m2, double* H) {
  const double n = count;

  // Centroids of both point sets in one pass.
  Point2D64f cM = {0.0, 0.0}, cm = {0.0, 0.0};
  for (int i = 0; i < count; ++i) {
    cM.x += m1[i].x;
    cM.y += m1[i].y;
    cm.x += m2[i].x;
    cm.y += m2[i].y;
  }
  cM.x /= n;
  cM.y /= n;
  cm.x /= n;
  cm.y /= n;

  Point2D64f sM = {0.0, 0.0}, sm = {0.0, 0.0};
  for (int i = 0; i < count; ++i) {
    sM.x += std::abs(m1[i].x - cM.x);
    sM.y += std::abs(m1[i].y - cM.y);
    sm.x += std::abs(m2[i].x - cm.x);
    sm.y += std::abs(m2[i].y - cm.y);
  }
  // No guard against a zero deviation: points sharing an x or a y give an infinite factor and a
  // NaN homography, which RANSAC then scores with no inliers.
  sM.x = n / sM.x;
  sM.y = n / sM.y;
  sm.x = n / sm.x;
  sm.y = n / sm.y;

  const double invHnorm[9] = {1.0 / sm.x, 0.0, cm.x, 0.0, 1.0 / sm.y, cm.y, 0.0, 0.0, 1.0};
  const double Hnorm2[9] = {sM.x, 0.0, -cM.x * sM.x, 0.0, sM.y, -cM.y * sM.y, 0.0, 0.0, 1.0};

  double LtL[81] = {};
  for (int i = 0; i < count; ++i) {
    const double X = (m1[i].x - cM.x) * sM.x, Y = (m1[i].y - cM.y) * sM.y;
    const double x = (m2[i].x - cm.x) * sm.x, y = (m2[i].y - cm.y) * sm.y;
    const double Lx[9] = {X, Y, 1.0, 0.0, 0.0, 0.0, -x * X, -x * Y, -x};
    const double Ly[9] = {0.0, 0.0, 0.0, X, Y, 1.0, -y * X, -y * Y, -y};
    // The structural zeros are multiplied too: with an infinite scale factor they turn into NaNs
    // exactly where the plain sum puts them.
    for (int j = 0; j < 9; ++j) {
      for (int k = j; k < 9; ++k) LtL[j * 9 + k] += Lx[j] * Lx[k] + Ly[j] * Ly[k];
    }
  }
  for (int j = 0; j < 9; ++j) {
    for (int k = 0; k < j; ++k) LtL[j * 9 + k] = LtL[k * 9 + j];
  }

  double A[81], W[9], V[81];
  std::memcpy(A, LtL, sizeof(A));
  JacobiImpl_<double>(A, W, V, 9);

  // The eigenvector of the smallest eigenvalue, as a 3x3 matrix, de-normalised.
  const double* H0 = V + 8 * 9;
  double Htemp[9], Hout[9];
  Multiply3x3(invHnorm, H0, Htemp);
  Multiply3x3(Htemp, Hnorm2, Hout);
  const double scale = Hout[8];
  for (int i = 0; i < 9; ++i) H[i] = Hout[i] / scale;
  return 1;
}
