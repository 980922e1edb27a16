// The configuration file on arbitrary bytes, loaded the whole way as at start-up.
#include "config/config_file.h"
#include "config/settings.h"
#include "fuzz_bench.h"
#include "platform/network_discovery.h"
#include "support/memory_registry.h"

using namespace postiq;
using namespace postiq::fuzz;

namespace {
struct NoNetwork : NetworkDiscovery {
    NetworkParams query() override { return {QStringLiteral("desk"), {}}; }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzBench& bench = Bench();
    bench.put(QString::fromLatin1(kConfigFileName), QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    Settings settings;
    NoNetwork network;
    test::MemoryRegistry registry;
    try {
        ConfigLoader(settings, bench.logs, network, registry, [](const QString&) {}).ChargerConfig(true);
    } catch (const ProgramEnded&) {
    }
    bench.trimLogs();
    return 0;
}
