#include <QFile>
#include <QTemporaryDir>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/free_memory.h"

using namespace postiq;

namespace {
// The resident kB of the first mapping at offset 0 whose path contains `name` (-1 if none).
qint64 headResidentKb(const QByteArray& name)
{
    QFile smaps(QStringLiteral("/proc/self/smaps"));
    if (!smaps.open(QIODevice::ReadOnly))
        return -1;
    bool inHead = false;
    for (const QByteArray& line : smaps.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() >= 6 && fields[0].contains('-')) {
            inHead = fields[2].toULongLong(nullptr, 16) == 0 && fields[5].contains(name);
        } else if (inHead && line.startsWith("Rss:")) {
            return fields.value(1).toLongLong();
        }
    }
    return -1;
}

// A file that looks like a library's head, mapped privately and read-only at offset 0.
struct MappedHead {
    QByteArray bytes = QByteArray("\x7f" "ELF", 4) + QByteArray(8192 - 4, 'h');
    char* at = nullptr;

    MappedHead(const QString& path, bool written)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            return;
        file.close();
        const int handle = ::open(QFile::encodeName(path).constData(), O_RDONLY);
        void* mapped = ::mmap(nullptr, size_t(bytes.size()), PROT_READ | PROT_WRITE, MAP_PRIVATE, handle, 0);
        ::close(handle);
        if (mapped == MAP_FAILED)
            return;
        at = static_cast<char*>(mapped);
        if (written) { // as the loader does with what it relocates, then makes read-only
            at[100] = 'W';
            bytes[100] = 'W';
        } else {
            volatile char touched = at[100]; // resident, never written
            (void)touched;
        }
        ::mprotect(at, size_t(bytes.size()), PROT_READ);
    }
    ~MappedHead()
    {
        if (at)
            ::munmap(at, size_t(bytes.size()));
    }
};
} // namespace

// Only heads that the process never wrote go; what was written stays, what was released reads the
// same, and a library loaded afterwards still finds its symbols through the released tables.
TEST(StartUpPages, OnlyUnwrittenHeadsGoAndWhatWasReleasedComesBackWhenRead)
{
    QTemporaryDir dir;
    MappedHead written(dir.filePath(QStringLiteral("written.head")), true);
    MappedHead untouched(dir.filePath(QStringLiteral("untouched.head")), false);
    ASSERT_TRUE(written.at && untouched.at);
    ASSERT_GT(headResidentKb("untouched.head"), 0);
    const qint64 coreHead = headResidentKb("libQt6Core");
    ASSERT_GT(coreHead, 0);

    ReleaseStartUpPages();

    EXPECT_EQ(headResidentKb("untouched.head"), 0);
    // A symbol bound on first call reads a little of it again, never the whole of it.
    EXPECT_LT(headResidentKb("libQt6Core"), coreHead / 2);
    EXPECT_GT(headResidentKb("written.head"), 0);
    EXPECT_EQ(QByteArray(written.at, written.bytes.size()), written.bytes); // the copy was kept
    EXPECT_EQ(QByteArray(untouched.at, untouched.bytes.size()), untouched.bytes);

    void* library = ::dlopen("libldns.so.3", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << ::dlerror();
    EXPECT_NE(::dlsym(library, "ldns_version"), nullptr);
    ::dlclose(library);
    EXPECT_THROW(throw std::runtime_error("unwound through released tables"), std::runtime_error);
}
