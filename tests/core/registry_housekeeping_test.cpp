#include <gtest/gtest.h>

#include "core/registry_housekeeping.h"
#include "support/fakes.h"
#include "support/memory_registry.h"

using namespace postiq;
using namespace postiq::test;

namespace {
const QString kProgramKey = QStringLiteral("Software\\Groupe Valbrin\\Postiq");
const QString kOldKey = QStringLiteral("Software\\Postiq");
} // namespace

TEST(InstallationRecord, FirstRunWritesTheRecordAndAskesNothing)
{
    MemoryRegistry registry;
    RecordingDesktop desktop;
    maintainInstallationRecord(registry, desktop);
    EXPECT_TRUE(desktop.boxes.isEmpty());
    EXPECT_EQ(registry.readValue(kProgramKey, "System"), QString("Installed"));
    EXPECT_EQ(registry.readValue(kProgramKey, "Version"), QString("3.0"));
    EXPECT_FALSE(registry.readValue(kProgramKey, "Copyrights").isEmpty());
    EXPECT_EQ(registry.readValue(kProgramKey, "Copyrights2"), QString("http://www.postiq.example/"));
    EXPECT_TRUE(registry.keys.contains(kProgramKey + "\\Configuration"));

    const int writes = registry.writes;
    maintainInstallationRecord(registry, desktop); // the same version: nothing more to do
    EXPECT_EQ(registry.writes, writes);
    EXPECT_TRUE(desktop.boxes.isEmpty());
}

TEST(InstallationRecord, OldVersionRecordsAreRemovedOnlyWhenTheUserAgrees)
{
    for (bool agree : {false, true}) {
        MemoryRegistry registry;
        registry.writeValue(kOldKey, "System", "x");
        registry.createKey(kOldKey + "\\Configuration");
        RecordingDesktop desktop;
        desktop.answer = agree;
        maintainInstallationRecord(registry, desktop);
        ASSERT_EQ(desktop.boxes.size(), 1);
        EXPECT_EQ(desktop.boxes[0].title, QString("Information Postiq"));
        EXPECT_TRUE(desktop.boxes[0].text.startsWith(
            "\r\nLes enregistrements d'une version ancienne de Postiq ont été trouvés dans le registre !\r\n"));
        EXPECT_EQ(registry.keys.contains(kOldKey), !agree);
        EXPECT_EQ(registry.keys.contains(kOldKey + "\\Configuration"), !agree);
    }
}

TEST(InstallationRecord, AnotherInstalledVersionIsReplacedWhenTheUserAgrees)
{
    for (bool agree : {false, true}) {
        MemoryRegistry registry;
        registry.writeValue(kProgramKey, "System", "Installed");
        registry.writeValue(kProgramKey, "Version", "2.5");
        RecordingDesktop desktop;
        desktop.answer = agree;
        maintainInstallationRecord(registry, desktop);
        ASSERT_EQ(desktop.boxes.size(), 1);
        EXPECT_EQ(desktop.boxes[0].text,
                  QString("\r\n\r\nSelon votre base de registre, il semblerait qu'une autre version de Postiq soit déjà installée !"
                          "\r\nVersion détectée: 2.5\r\nVersion à installer: 3.0"
                          "\r\nDésinstaller toute autre version de Postiq avant l'installation de celle-ci ..."
                          "\r\nSouhaitez-vous que Postiq supprime ces enregistrements du registre ?"));
        // Agreeing deletes the record, and the first-run record is then written afresh.
        EXPECT_EQ(registry.readValue(kProgramKey, "Version"), agree ? QString("3.0") : QString("2.5"));
    }
}
