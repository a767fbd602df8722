#include "qt/Qt3Settings.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

TEST(Qt3SettingsTest, WithoutAPathNothingIsReadOrWritten)
{
    Qt3Settings settings;
    EXPECT_FALSE(settings.writeEntry("/group/key", {"a", "b"}));
    EXPECT_TRUE(settings.readListEntry("/group/key").isEmpty());
}

TEST(Qt3SettingsTest, AListIsReadBackAndAMissingKeyIsAnEmptyOne)
{
    const QTemporaryDir folder;
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, folder.path());
    Qt3Settings settings;
    settings.setPath("Company", "Editor", QSettings::SystemScope);
    EXPECT_TRUE(settings.writeEntry("/group/key", {"a", "", "b;c"}));
    EXPECT_EQ(settings.readListEntry("/group/key"), QStringList({"a", "", "b;c"}));
    EXPECT_TRUE(settings.readListEntry("/group/other").isEmpty());
}

// As Qt 4's own do: a host that keeps its settings in files keeps the table in one, too.
TEST(Qt3SettingsTest, TheProcessDefaultFormatDecidesWhereTheListLies)
{
    const QTemporaryDir folder;
    QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, folder.path());
    QSettings::setDefaultFormat(QSettings::IniFormat);
    {
        Qt3Settings settings;
        settings.setPath("Company", "Editor", QSettings::SystemScope);
        EXPECT_TRUE(settings.writeEntry("/group/key", {"a"}));
    }
    QSettings::setDefaultFormat(QSettings::NativeFormat);
    const QSettings file(folder.filePath("Company/Editor.ini"), QSettings::IniFormat);
    EXPECT_EQ(file.value("group/key").toStringList(), QStringList({"a"}));
}
