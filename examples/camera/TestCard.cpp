#include "TestCard.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace camera {

namespace {

constexpr unsigned int kBars[] = {0xBFBFBF, 0xBFBF00, 0x00BFBF, 0x00BF00, 0xBF00BF, 0xBF0000, 0x0000BF};
constexpr int kBarCount = sizeof(kBars) / sizeof(kBars[0]);
constexpr unsigned int kWhite = 0xFFFFFF;
constexpr unsigned int kPanel = 0x14181F;

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;
constexpr int kAdvance = kGlyphWidth + 1;

struct Glyph {
    char ch;
    unsigned char rows[kGlyphHeight];  ///< Five bits each, the left one first.
};

constexpr Glyph kGlyphs[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {':', {0x00, 0x04, 0x04, 0x00, 0x04, 0x04, 0x00}}, {'/', {0x01, 0x01, 0x02, 0x04, 0x08, 0x10, 0x10}},
    {'#', {0x0A, 0x0A, 0x1F, 0x0A, 0x1F, 0x0A, 0x0A}}, {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}},
    {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}}, {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}},
};

const Glyph* GlyphOf(char ch) {
    const auto pGlyph =
        std::find_if(std::begin(kGlyphs), std::end(kGlyphs), [ch](const Glyph& glyph) { return glyph.ch == ch; });
    return pGlyph != std::end(kGlyphs) ? pGlyph : nullptr;
}

/// Where something is that goes to and fro between 0 and @p nWay, after @p nSteps.
int Bounce(unsigned int nSteps, int nWay) {
    const int nPlace = static_cast<int>(nSteps % static_cast<unsigned int>(2 * nWay));
    return nPlace < nWay ? nPlace : 2 * nWay - nPlace;
}

}  // namespace

TestCard::TestCard(int nWidth, int nHeight, int nRate)
    : m_nWidth(nWidth),
      m_nHeight(nHeight),
      m_nRate(nRate),
      m_nScale(std::max(1, nWidth / 320)),
      m_Background(static_cast<std::size_t>(nWidth) * static_cast<std::size_t>(nHeight) * 3) {
    FillBackground();
}

void TestCard::FillBackground() {
    unsigned char* const pRgb = m_Background.data();
    for (int i = 0; i < kBarCount; ++i) {
        const int nLeft = m_nWidth * i / kBarCount;
        Fill(pRgb, nLeft, 0, m_nWidth * (i + 1) / kBarCount - nLeft, m_nHeight, kBars[i]);
    }
    // Below the bars a ramp from black to white, as long as a picture tube would have wanted it.
    const int nRampTop = m_nHeight * 5 / 6;
    for (int nX = 0; nX < m_nWidth; ++nX) {
        const unsigned int nGrey = static_cast<unsigned int>(nX * 255 / (m_nWidth - 1));
        Fill(pRgb, nX, nRampTop, 1, m_nHeight - nRampTop, nGrey << 16 | nGrey << 8 | nGrey);
    }
}

unsigned int TestCard::StepsUntil(unsigned int nFrame, int nRate) {
    constexpr unsigned int kMoving = 4;
    constexpr unsigned int kPeriod = kMoving + 3;
    const unsigned int nSecond = static_cast<unsigned int>(nRate);
    const unsigned int nRounds = nFrame / (kPeriod * nSecond);
    const unsigned int nRest = nFrame % (kPeriod * nSecond);
    return nRounds * kMoving * nSecond + std::min(nRest, kMoving * nSecond);
}

void TestCard::Draw(unsigned int nFrame, const KTime& time, unsigned char* pRgb) const {
    std::memcpy(pRgb, m_Background.data(), m_Background.size());

    // Once across the picture takes three seconds, whatever the rate.
    const int nSide = m_nHeight / 5;
    const unsigned int nStep = static_cast<unsigned int>(std::max(1, m_nWidth / (3 * m_nRate)));
    const unsigned int nWay = StepsUntil(nFrame, m_nRate) * nStep;
    const int nX = Bounce(nWay, m_nWidth - nSide);
    const int nY = Bounce(nWay / 2, m_nHeight * 4 / 6 - nSide);
    Fill(pRgb, nX, nY, nSide, nSide, kWhite);
    Fill(pRgb, nX + nSide / 8, nY + nSide / 8, nSide * 6 / 8, nSide * 6 / 8, kPanel);

    // The clock is in UTC: KTime counts offsets eastward, so that zones west of Greenwich cannot be expressed.
    KString clock = time.GetHumanTimeString(3, 0, 0);
    KString number;
    number.Sprintf(" UTC  #%06u", nFrame % 1000000);
    clock += number;
    const int nTextWidth = clock.Length() * kAdvance * m_nScale;
    const int nLeft = (m_nWidth - nTextWidth) / 2;
    const int nTop = m_nHeight * 5 / 6 - 12 * m_nScale;
    Fill(pRgb, nLeft - 4 * m_nScale, nTop - 4 * m_nScale, nTextWidth + 7 * m_nScale, (kGlyphHeight + 8) * m_nScale,
         kPanel);
    Write(pRgb, nLeft, nTop, clock.GetBuffer());
}

void TestCard::Fill(unsigned char* pRgb, int nX, int nY, int nWidth, int nHeight, unsigned int nColour) const {
    const unsigned char colour[] = {static_cast<unsigned char>(nColour >> 16), static_cast<unsigned char>(nColour >> 8),
                                    static_cast<unsigned char>(nColour)};
    const int nRight = std::min(nX + nWidth, m_nWidth);
    const int nBottom = std::min(nY + nHeight, m_nHeight);
    for (int y = std::max(nY, 0); y < nBottom; ++y) {
        for (int x = std::max(nX, 0); x < nRight; ++x) {
            std::memcpy(pRgb + (static_cast<std::ptrdiff_t>(y) * m_nWidth + x) * 3, colour, sizeof(colour));
        }
    }
}

void TestCard::Write(unsigned char* pRgb, int nX, int nY, const char* pszText) const {
    for (; *pszText != '\0'; ++pszText, nX += kAdvance * m_nScale) {
        const Glyph* const pGlyph = GlyphOf(*pszText);
        for (int i = 0; pGlyph != nullptr && i < kGlyphWidth * kGlyphHeight; ++i) {
            const int nColumn = i % kGlyphWidth;
            const int nRow = i / kGlyphWidth;
            if ((pGlyph->rows[nRow] >> (kGlyphWidth - 1 - nColumn) & 1) != 0) {
                Fill(pRgb, nX + nColumn * m_nScale, nY + nRow * m_nScale, m_nScale, m_nScale, kWhite);
            }
        }
    }
}

}  // namespace camera
