#ifndef LUMORA_QT_QT3SETTINGS_H
#define LUMORA_QT_QT3SETTINGS_H

#include <QSettings>
#include <QStringList>

#if QT_VERSION < 0x050000

// With Qt3Support, Qt 4's QSettings still has the Qt 3 style members.
typedef QSettings Qt3Settings;

#else

#include <memory>

/// The Qt 3 style members that QSettings had in Qt 4. Each reads what the other wrote: same keys,
/// same values, same place in the registry.
class Qt3Settings
{
public:
    /// Opens the store of `organization` and `application`, in the process's default format.
    /// Without it nothing can be read or written.
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
