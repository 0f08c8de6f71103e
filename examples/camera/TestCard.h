// The picture source of a camera without a sensor: a test card that moves.
#ifndef CAMERA_TESTCARD_H
#define CAMERA_TESTCARD_H

#include <KTime.h>

#include <vector>

namespace camera {

/// Draws colour bars, a clock with the frame's number, and a block that bounces for a while and then rests, so that there is
/// motion to be found and an end of it. Pictures are rows of 8-bit red, green and blue, without gaps.
class TestCard {
 public:
    TestCard(int nWidth, int nHeight, int nRate);

    /// Draws picture @p nFrame into a buffer of width x height x 3 bytes.
    void Draw(unsigned int nFrame, const KTime& time, unsigned char* pRgb) const;

    /// For how many of @p nRate frames a second the block has moved before picture @p nFrame: it moves for four seconds and
    /// rests for three.
    static unsigned int StepsUntil(unsigned int nFrame, int nRate);

 private:
    void FillBackground();
    void Fill(unsigned char* pRgb, int nX, int nY, int nWidth, int nHeight, unsigned int nColour) const;
    void Write(unsigned char* pRgb, int nX, int nY, const char* pszText) const;

    int m_nWidth;
    int m_nHeight;
    int m_nRate;
    int m_nScale;  ///< Picture points to a point of a letter.
    std::vector<unsigned char> m_Background;
};

}  // namespace camera

#endif  // CAMERA_TESTCARD_H
