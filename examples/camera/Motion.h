// Finds motion by comparing pictures.
#ifndef CAMERA_MOTION_H
#define CAMERA_MOTION_H

#include <array>
#include <cstddef>

namespace camera {

/// Lays a coarse grid over a picture and compares the brightness of its cells with that in the picture before. Small things,
/// such as a changing digit, hardly change a cell; a thing as large as a cell does.
class Motion {
 public:
    static constexpr int kColumns = 16;
    static constexpr int kRows = 9;

    /// @p nThreshold is the change of brightness, 1 to 255, from which on a cell counts as changed.
    Motion(int nWidth, int nHeight, int nThreshold);

    /// Looks at a picture (rows of 8-bit red, green and blue) and returns the number of cells that have changed since the
    /// last one. The first picture has nothing to compare with: 0.
    int Look(const unsigned char* pRgb);

 private:
    using Grid = std::array<int, std::size_t{kColumns} * kRows>;

    Grid Measure(const unsigned char* pRgb) const;

    int m_nWidth;
    int m_nHeight;
    int m_nThreshold;
    bool m_fgFirst;
    Grid m_Last;
};

}  // namespace camera

#endif  // CAMERA_MOTION_H
