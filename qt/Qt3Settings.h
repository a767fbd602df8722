#ifndef LUMORA_QT_QT3SETTINGS_H
#define LUMORA_QT_QT3SETTINGS_H

#include <QSettings>
#include <QStringList>

#if QT_VERSION < 0x050000

// Qt 4 built with Qt3Support: QSettings itself still has the Qt 3 style members.
typedef QSettings Qt3Settings;

#else

#include <memory>

/// The Qt 3 style members that QSettings had in Qt 4, over today's QSettings. A table written by
/// either is read by the other: same keys, same values, same place in the registry.
class Qt3Settings
{
public:
    /// Opens the store of `application` of `organization`, in the process's default format. Until
    /// then nothing can be read or written.
    void setPath(const QString& organization, const QString& application,
                 QSettings::Scope scope = QSettings::SystemScope)
    {
        store = std::make_unique<QSettings>(QSettings::defaultFormat(), scope, organization,
                                            application);
    }

    /// A missing key reads as an empty list.
    QStringList readListEntry(const QString& key) const
    {
        return store ? store->value(key).toStringList() : QStringList();
    }

    /// False if the store cannot be written.
    bool writeEntry(const QString& key, const QStringList& value)
    {
        if (!store)
            return false;
        store->setValue(key, value);
        return store->isWritable();
    }

private:
    std::unique_ptr<QSettings> store;
};

#endif

#endif
