#include "ports/PortLabel.h"

#include "qt/StringPieces.h"

static const char kSeparator = ';';

QString PortLabel::compose(int index, const QString& deviceName)
{
    return QString::number(index + 1) + QLatin1Char(kSeparator) + deviceName;
}

PortLabel::PortLabel(const QString& text) : pieces(nonEmptyPieces(text, QLatin1Char(kSeparator))) {}

int PortLabel::number() const
{
    return pieces.isEmpty() ? 0 : pieces.at(0).toInt();
}

QString PortLabel::name() const
{
    return hasName() ? pieces.at(1) : QString();
}
