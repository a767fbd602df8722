#ifndef LUMORA_TOOLS_STATISTICS_H
#define LUMORA_TOOLS_STATISTICS_H

#include <QVector>

/// The smallest of `values` that `percent` of them do not exceed (nearest rank). `values` are in
/// ascending order and not empty; `percent` is from 1 to 100.
inline double percentile(const QVector<double>& values, int percent)
{
    return values.at((static_cast<int>(values.size()) * percent + 99) / 100 - 1);
}

#endif
