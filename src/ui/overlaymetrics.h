#pragma once

#include <QColor>
#include <QFont>
#include <QMargins>

// The overlay's measures, colours and fonts in one place. Sizes are logical pixels; the overlay is always
// dark, whatever the desktop's theme, so the colours are fixed rather than taken from the palette.
namespace OverlayMetrics {

// Whole view and panel.
inline constexpr int minimumWidth = 320;
inline constexpr int minimumHeight = 260;
inline constexpr int cornerRadius = 14;
inline constexpr int horizontalPadding = 14;

// Header.
inline constexpr QMargins headerMargins{horizontalPadding, 10, horizontalPadding, 10};
inline constexpr int headerSpacing = 10;
inline constexpr int switchDot = 8;
inline constexpr int switchGap = 6;
inline constexpr int switchFontPx = 12;
inline constexpr int healthDot = 6;
inline constexpr int healthGap = 4;
inline constexpr int healthFontPx = 11;
inline constexpr int iconPx = 14;
inline constexpr int iconButton = 22;
inline constexpr int iconSpacing = 2;

// Transcript strip.
inline constexpr QMargins stripMargins{horizontalPadding, 8, horizontalPadding, 8};
inline constexpr int stripRowSpacing = 3;
inline constexpr int stripFontPx = 12;
inline constexpr int stripMaxLines = 2;
inline constexpr int tagWidth = 30;
inline constexpr int tagGap = 6;
inline constexpr int tagFontPx = 9;

// Answer area.
inline constexpr QMargins answerMargins{horizontalPadding, horizontalPadding, horizontalPadding,
                                        horizontalPadding};
inline constexpr int answerSpacing = 10;
inline constexpr int questionFontPx = 13;
inline constexpr int placeholderFontPx = 13;
inline constexpr int spinnerPx = 16;

// Answer text.
inline constexpr int blockSpacing = 8;
inline constexpr int textFontPx = 15;
inline constexpr int bulletGap = 8;
inline constexpr int codeFontPx = 12;
inline constexpr int codePadding = 10;
inline constexpr int codeRadius = 8;

// Notice bar.
inline constexpr QMargins noticeMargins{horizontalPadding, 8, horizontalPadding, 8};
inline constexpr int noticeFontPx = 12;

// Colours of a dark appearance.
inline const QColor material{24, 24, 28, 226};
inline const QColor materialEdge{255, 255, 255, 28};
inline const QColor primary{242, 242, 247};
inline const QColor secondary{160, 160, 170};
inline const QColor grey{142, 142, 147};
inline const QColor red{255, 69, 58};
inline const QColor yellow{255, 214, 10};
inline const QColor green{48, 209, 88};
inline const QColor cyan{100, 210, 255};
inline const QColor orange{255, 159, 10};
inline const QColor link{100, 170, 255};
inline const QColor selection{70, 110, 200};
// Dividers are a separator colour drawn at 40 % opacity.
inline const QColor divider{255, 255, 255, 26};
inline const QColor codeBackground{0, 0, 0, 89};
inline const QColor noticeBackground{255, 159, 10, 20};
inline const QColor hoverBackground{255, 255, 255, 30};

// The desktop's regular font at a pixel size, so that the overlay looks the same at any font DPI.
inline QFont font(int pixelSize, QFont::Weight weight = QFont::Normal) {
    QFont f;
    f.setPixelSize(pixelSize);
    f.setWeight(weight);
    return f;
}

}  // namespace OverlayMetrics
