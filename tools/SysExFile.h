#ifndef LUMORA_TOOLS_SYSEXFILE_H
#define LUMORA_TOOLS_SYSEXFILE_H

#include <QSaveFile>

/// A .syx file being written. commit() gives it its name; until then an older file stays unchanged.
/// Throws Failure if it cannot be written.
class SysExFile
{
public:
    explicit SysExFile(const QString& name);

    void append(const QByteArray& message);
    void commit();

    int messages() const { return count; }
    qint64 bytes() const { return size; }

    /// "2 messages, 300 bytes"
    QString contents() const;

    /// "2 messages, 300 bytes, written to dump.syx."
    QString outcome() const;

private:
    [[noreturn]] void refuse() const;

    QSaveFile file;
    int count = 0;
    qint64 size = 0;
};

#endif
