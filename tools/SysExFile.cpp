#include "tools/SysExFile.h"

#include "tools/Failure.h"
#include "tools/Text.h"

#include <QDir>

SysExFile::SysExFile(const QString& name) : file(name)
{
    if (!file.open(QIODevice::WriteOnly))
        refuse();
}

void SysExFile::append(const QByteArray& message)
{
    // A disk that fills up takes a part and reports no error; the next attempt reports it. Flushes
    // here, because commit() gives no reason for a failed write.
    for (qint64 done = 0; done < message.size();) {
        const qint64 written = file.write(message.constData() + done, message.size() - done);
        if (written <= 0)
            refuse();
        done += written;
    }
    if (!file.flush() && !file.flush())
        refuse();
    ++count;
    size += message.size();
}

void SysExFile::commit()
{
    if (!file.commit())
        refuse();
}

QString SysExFile::contents() const
{
    return counted(count, "message") + QLatin1String(", ") + counted(size, "byte");
}

QString SysExFile::outcome() const
{
    return QStringLiteral("%1, written to %2.")
        .arg(contents(), QDir::toNativeSeparators(file.fileName()));
}

void SysExFile::refuse() const
{
    throw Failure{ExitStatus::Failed, QStringLiteral("%1 cannot be written: %2")
                                          .arg(QDir::toNativeSeparators(file.fileName()),
                                               sentence(file.errorString()))};
}
