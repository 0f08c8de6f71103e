#include "Motion.h"

#include <cstddef>
#include <cstdlib>

namespace camera {

Motion::Motion(int nWidth, int nHeight, int nThreshold)
    : m_nWidth(nWidth), m_nHeight(nHeight), m_nThreshold(nThreshold), m_fgFirst(true), m_Last() {}

int Motion::Look(const unsigned char* pRgb) {
    const Grid now = Measure(pRgb);
    int nChanged = 0;
    for (std::size_t i = 0; i < now.size() && !m_fgFirst; ++i) {
        nChanged += std::abs(now[i] - m_Last[i]) >= m_nThreshold ? 1 : 0;
    }
    m_Last = now;
    m_fgFirst = false;
    return nChanged;
}

Motion::Grid Motion::Measure(const unsigned char* pRgb) const {
    constexpr int kStride = 2;  // One point of four is enough for a mean.
    Grid sums = {};
    Grid counts = {};
    for (int nY = 0; nY < m_nHeight; nY += kStride) {
        for (int nX = 0; nX < m_nWidth; nX += kStride) {
            const unsigned char* const p = pRgb + (static_cast<std::ptrdiff_t>(nY) * m_nWidth + nX) * 3;
            const int nColumn = nX * kColumns / m_nWidth;
            const int nRow = nY * kRows / m_nHeight;
            const std::size_t nCell = static_cast<std::size_t>(nRow) * kColumns + static_cast<std::size_t>(nColumn);
            sums[nCell] += (2 * p[0] + 5 * p[1] + p[2]) / 8;  // the eye's view of red, green and blue, roughly
            ++counts[nCell];
        }
    }
    for (std::size_t i = 0; i < sums.size(); ++i) {
        sums[i] /= counts[i] > 0 ? counts[i] : 1;
    }
    return sums;
}

}  // namespace camera
