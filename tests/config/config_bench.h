#pragma once

#include <QStringList>

#include "config/config_file.h"
#include "config/settings.h"
#include "platform/network_discovery.h"
#include "platform/registry.h"
#include "support/fakes.h"
#include "support/memory_registry.h"

namespace postiq::test {

class FakeDiscovery : public NetworkDiscovery {
public:
    NetworkParams params{QStringLiteral("desk"), {}};
    NetworkParams query() override { return params; }
};

// A temporary program folder with the program-wide objects the configuration works on.
struct ConfigBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    FixedClock clock;
    Settings settings;
    Logs logs{dir.path(), settings, desktop, clock};
    FakeDiscovery discovery;
    MemoryRegistry registry;
    QStringList languagesLoaded;
    ConfigLoader loader{settings, logs, discovery, registry,
                        [this](const QString& language) { languagesLoaded << language; }};

    QString path(const QString& name) const { return dir.path() + '/' + name; }
    void writeIni(const QByteArray& bytes) const { writeFile(path("Postiq.ini"), bytes); }
    const CConfiguration& user() const { return settings.UserSettings; }
    const CConfiguration& active() const { return settings.ActiveSettings; }
};

} // namespace postiq::test
