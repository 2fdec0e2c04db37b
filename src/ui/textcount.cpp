#include "textcount.h"

#include <QTextBoundaryFinder>

namespace TextCount {

qsizetype characters(const QString& text) {
    QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (boundaries.toNextBoundary() != -1) {
        ++count;
    }
    return count;
}

}  // namespace TextCount
