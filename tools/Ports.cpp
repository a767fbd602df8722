#include "tools/Ports.h"

#include "tools/Failure.h"
#include "tools/Text.h"

#include <algorithm>

QString directionName(bool output)
{
    return output ? QStringLiteral("output") : QStringLiteral("input");
}

QVector<Port> portsOf(const QMap<QUuid, QString>& labels)
{
    QVector<Port> ports;
    for (auto label = labels.begin(); label != labels.end(); ++label) {
        // Only the first ';' separates: the device name may contain more.
        const auto separator = label.value().indexOf(QLatin1Char(';'));
        ports.append(
            {label.value().left(separator).toInt(), label.value().mid(separator + 1), label.key()});
    }
    std::sort(ports.begin(), ports.end(),
              [](const Port& left, const Port& right) { return left.number < right.number; });
    return ports;
}

QString describe(const Port& port, bool output)
{
    return QStringLiteral("%1 %2 \"%3\"")
        .arg(directionName(output), QString::number(port.number), printable(port.name));
}

static QString candidates(const QVector<Port>& ports)
{
    QString text;
    for (const Port& port : ports)
        text += QStringLiteral("\n  %1  %2  %3")
                    .arg(QString::number(port.number), port.id.toString(), printable(port.name));
    return text;
}

template <typename Condition>
static QVector<Port> matching(const QVector<Port>& ports, Condition condition)
{
    QVector<Port> result;
    std::copy_if(ports.begin(), ports.end(), std::back_inserter(result), condition);
    return result;
}

// Whether `text` is an identifier. QUuid parses invalid text as the null one, which a store edited
// by hand may contain.
static bool isIdentifier(const QString& text)
{
    const QUuid null;
    return !QUuid(text).isNull() || text == null.toString() ||
           text == null.toString(QUuid::WithoutBraces);
}

Port findPort(const QVector<Port>& ports, const QString& text, bool output)
{
    const QUuid id(text);
    bool isNumber = false;
    const int number = text.toInt(&isNumber);

    QVector<Port> found;
    if (isIdentifier(text))
        found = matching(ports, [&](const Port& port) { return port.id == id; });
    if (found.isEmpty() && isNumber)
        found = matching(ports, [&](const Port& port) { return port.number == number; });
    if (found.isEmpty())
        found = matching(ports, [&](const Port& port) { return port.name == text; });
    if (found.isEmpty() && !text.isEmpty())
        found = matching(ports, [&](const Port& port) {
            return port.name.compare(text, Qt::CaseInsensitive) == 0;
        });
    if (found.isEmpty() && !text.isEmpty())
        found = matching(
            ports, [&](const Port& port) { return port.name.contains(text, Qt::CaseInsensitive); });
    if (found.size() == 1)
        return found.first();

    const QString direction = directionName(output);
    if (found.size() > 1)
        throw Failure{
            ExitStatus::NoSuchPort,
            QStringLiteral("More than one %1 matches \"%2\"; use the number or the identifier:%3")
                .arg(direction, text, candidates(found))};
    if (ports.isEmpty())
        throw Failure{ExitStatus::NoSuchPort,
                      QStringLiteral("There is no %1 \"%2\": the system has no MIDI %1 at all.")
                          .arg(direction, text)};
    throw Failure{ExitStatus::NoSuchPort,
                  QStringLiteral("There is no %1 \"%2\". These are the %1s:%3")
                      .arg(direction, text, candidates(ports))};
}
