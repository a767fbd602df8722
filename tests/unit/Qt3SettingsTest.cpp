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
